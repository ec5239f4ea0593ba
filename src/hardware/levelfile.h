#pragma once

#include <QByteArray>

/// The file with the level of one GPIO line. It is opened anew for each access; a process that has no descriptor left
/// for that uses the one that was kept since the start, so that the relay is never the one to go short.
///
/// Accesses may come from any thread once `keep` has returned.
class LevelFile
{
public:
    enum class Outcome {
        Done,
        NotOpened,
        Failed, ///< opened, and then not written or not read
    };

    /// Nothing is opened yet: the file comes into being when its line is exported.
    /// @param flags  of each opening: O_RDONLY or O_WRONLY, and what goes with it.
    LevelFile(const QByteArray& path, int flags);
    ~LevelFile();
    LevelFile(const LevelFile&) = delete;
    LevelFile& operator=(const LevelFile&) = delete;

    /// Opens the descriptor for bad times. That it cannot be opened shows at the first access.
    void keep();

    /// The descriptor for bad times, or -1.
    int kept() const { return m_kept; }

    /// One byte, '0' or '1'. When this returns `Done`, the line has the level.
    Outcome write(char level) const;
    /// At most `size` bytes; what the file does not have leaves `text` as it is.
    Outcome read(char* text, int size) const;

private:
    template<typename Access>
    Outcome with(Access access) const;

    const QByteArray m_path;
    const int m_flags;
    int m_kept = -1; ///< -1: none
};
