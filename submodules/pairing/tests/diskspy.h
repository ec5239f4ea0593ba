#pragma once

#include <QDir>
#include <QFile>
#include <QString>
#include <QVector>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

/// Notes, as long as it lives, the calls that change names on the disk or wait for them to be there, in their order,
/// and lets one of them fail. One at a time, and included by one file of a test: the calls are defined here, in place
/// of the C library's.
class DiskSpy
{
public:
    DiskSpy() { current() = this; }
    ~DiskSpy() { current() = nullptr; }
    DiskSpy(const DiskSpy&) = delete;
    DiskSpy& operator=(const DiskSpy&) = delete;

    /// When the call was made first, or last, for a path (of a rename the new one), "*" standing for any name; -1 when
    /// it was not.
    int first(const char* call, const QString& path) const { return m_steps.indexOf(Step{call, path}); }
    int last(const char* call, const QString& path) const { return m_steps.lastIndexOf(Step{call, path}); }

    int count() const { return m_steps.size(); }
    /// The call of this number, from 0 on, changes nothing and fails.
    void failAt(int number) { m_failing = number; }

    /// Notes a call. @return whether it is to fail; `errno` says why.
    static bool fails(const char* call, const QString& path)
    {
        if (current() == nullptr) {
            return false;
        }
        current()->m_steps.append({call, path});
        errno = EIO;
        return current()->m_steps.size() - 1 == current()->m_failing;
    }

private:
    struct Step
    {
        QString call;
        QString path;

        bool operator==(const Step& pattern) const
        {
            return call == pattern.call && (path == pattern.path || QDir::match(pattern.path, path));
        }
    };

    static DiskSpy*& current()
    {
        static DiskSpy* spy = nullptr;
        return spy;
    }

    QVector<Step> m_steps;
    int m_failing = -1;
};

extern "C" {

int fsync(int descriptor)
{
    const QString path = QFile::symLinkTarget(QStringLiteral("/proc/self/fd/%1").arg(descriptor));
    return DiskSpy::fails("fsync", path) ? -1 : int(::syscall(SYS_fsync, descriptor));
}

int rename(const char* path, const char* to) noexcept
{
    return DiskSpy::fails("rename", QFile::decodeName(to))
               ? -1
               : int(::syscall(SYS_renameat2, AT_FDCWD, path, AT_FDCWD, to, 0));
}

int unlink(const char* path) noexcept
{
    return DiskSpy::fails("unlink", QFile::decodeName(path)) ? -1 : int(::syscall(SYS_unlinkat, AT_FDCWD, path, 0));
}

int rmdir(const char* path) noexcept
{
    return DiskSpy::fails("rmdir", QFile::decodeName(path))
               ? -1
               : int(::syscall(SYS_unlinkat, AT_FDCWD, path, AT_REMOVEDIR));
}

} // extern "C"
