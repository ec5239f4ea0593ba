#pragma once

#include <QDir>
#include <QFile>
#include <QString>
#include <QVector>

#include <cstdio>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

/// Notes, as long as it lives, the calls that change names on the disk or wait for them to be there, in their order.
/// One at a time, and included by one file of a test: the calls are defined here, in place of the C library's.
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

    static void note(const char* call, const QString& path)
    {
        if (current() != nullptr) {
            current()->m_steps.append({call, path});
        }
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
};

extern "C" {

int fsync(int descriptor)
{
    DiskSpy::note("fsync", QFile::symLinkTarget(QStringLiteral("/proc/self/fd/%1").arg(descriptor)));
    return int(::syscall(SYS_fsync, descriptor));
}

int rename(const char* path, const char* to) noexcept
{
    DiskSpy::note("rename", QFile::decodeName(to));
    return int(::syscall(SYS_renameat2, AT_FDCWD, path, AT_FDCWD, to, 0));
}

int unlink(const char* path) noexcept
{
    DiskSpy::note("unlink", QFile::decodeName(path));
    return int(::syscall(SYS_unlinkat, AT_FDCWD, path, 0));
}

int rmdir(const char* path) noexcept
{
    DiskSpy::note("rmdir", QFile::decodeName(path));
    return int(::syscall(SYS_unlinkat, AT_FDCWD, path, AT_REMOVEDIR));
}

} // extern "C"
