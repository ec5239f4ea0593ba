#pragma once

#include <QByteArray>

/// The file with the level of one GPIO line. It is opened anew for each access; a process that has no descriptor left
/// for that uses the one that was kept since the start, so that the relay is never the one to go short. The safe level
/// goes out through the kept one first: opening may have to wait for memory.
///
/// Accesses may come from any thread once `keep` has returned; each is one system call beside those for opening and
/// closing, always at the start of the file, and waits for nothing but the kernel's driver.
///
///     LevelFile drive("/sys/class/gpio/gpio37/value", O_WRONLY);
///     drive.keep();                                               // behind the export of the line
///     const bool isOpen = drive.write('0') == LevelFile::Outcome::Done;
class LevelFile
{
public:
    /// Of the drive line: the coil without current, the relay open.
    static constexpr char SafeLevel = '0';

    /// What became of an access. Why it failed is not told.
    enum class Outcome {
        Done,
        NotOpened, ///< not there or not allowed; or no descriptor was left, and none had been kept
        Failed,    ///< opened, and then not written or not read
    };

    /// Nothing is opened yet: the file comes into being when its line is exported.
    /// @param flags  of each opening: O_RDONLY or O_WRONLY, and what goes with it. Child processes never inherit it. A
    ///               file that is missing is not created unless they say so.
    LevelFile(const QByteArray& path, int flags);
    ~LevelFile();
    LevelFile(const LevelFile&) = delete;
    LevelFile& operator=(const LevelFile&) = delete;

    /// Opens the descriptor for bad times, which the destructor closes. Once. That it cannot be opened shows at the
    /// first access. It carries the safe level ahead of every opening, and stands in for an opening when the process or
    /// the system has no descriptor left: a file that cannot be opened for any other reason counts as `NotOpened`,
    /// whatever was kept.
    void keep();

    /// The descriptor for bad times, or -1.
    int kept() const { return m_kept; }

    /// One byte, '0' or '1'. When this returns `Done`, the line has the level.
    /// Whatever becomes of that, SafeLevel has then been written through the kept descriptor, if there is one.
    Outcome write(char level) const;
    /// At most `size` bytes; what the file does not have leaves `text` as it is. No zero is put behind them, and how
    /// many there were is not told: an empty file is `Done`, too. The kernel's file has the level and a line feed.
    Outcome read(char* text, int size) const;

private:
    template<typename Access>
    Outcome with(Access access) const;

    const QByteArray m_path;
    const int m_flags;
    int m_kept = -1; ///< -1: none
};
