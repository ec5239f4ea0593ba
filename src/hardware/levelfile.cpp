#include "levelfile.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

namespace {

int openedAt(const QByteArray& path, int flags)
{
    return open(path.constData(), flags | O_CLOEXEC);
}

bool noneLeft()
{
    return errno == EMFILE || errno == ENFILE;
}

} // namespace

LevelFile::LevelFile(const QByteArray& path, int flags)
    : m_path(path)
    , m_flags(flags)
{}

LevelFile::~LevelFile()
{
    if (m_kept >= 0) {
        close(m_kept);
    }
}

void LevelFile::keep()
{
    m_kept = openedAt(m_path, m_flags & ~O_TRUNC);
}

/// Always from the start of the file: the kept descriptor may have been used before.
template<typename Access>
LevelFile::Outcome LevelFile::with(Access access) const
{
    const int own = openedAt(m_path, m_flags);
    const int used = own < 0 && noneLeft() ? m_kept : own;
    if (used < 0) {
        return Outcome::NotOpened;
    }
    const bool done = access(used);
    if (own >= 0) {
        close(own);
    }
    return done ? Outcome::Done : Outcome::Failed;
}

LevelFile::Outcome LevelFile::write(char level) const
{
    if (level == SafeLevel && m_kept >= 0) {
        // Opening needs memory of the kernel, and where that is used up it waits. The safe level does not.
        static_cast<void>(pwrite(m_kept, &level, 1, 0) == 1);
    }
    return with([level](int file) { return pwrite(file, &level, 1, 0) == 1; });
}

LevelFile::Outcome LevelFile::read(char* text, int size) const
{
    return with([text, size](int file) { return pread(file, text, static_cast<size_t>(size), 0) >= 0; });
}
