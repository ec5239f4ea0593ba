#include "durablefiles.h"

#include "regularfile.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t PrivateFile = 0600;
constexpr mode_t PrivateFolder = 0700;
constexpr mode_t PermissionBits = 07777;
constexpr qint64 CopySize = 64 * 1024;

/// Closes with its scope, and leaves `errno` as it found it.
class Descriptor
{
public:
    explicit Descriptor(int number)
        : m_number(number)
    {}
    ~Descriptor()
    {
        const int error = errno;
        if (m_number >= 0) {
            ::close(m_number);
        }
        errno = error;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    bool isOpen() const { return m_number >= 0; }
    int number() const { return m_number; }

private:
    const int m_number;
};

struct FolderCloser
{
    void operator()(DIR* folder) const
    {
        const int error = errno;
        ::closedir(folder);
        errno = error;
    }
};

bool writeAll(int descriptor, const char* data, qint64 size)
{
    while (size > 0) {
        const ssize_t written = ::write(descriptor, data, size_t(size));
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        data += written;
        size -= written;
    }
    return true;
}

int openNew(const QByteArray& name)
{
    return ::open(name.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, PrivateFile);
}

/// Not everybody may give a file away; then it stays with who made it.
bool makeAlike(int descriptor, const QString& like)
{
    struct stat model = {};
    if (::stat(QFile::encodeName(like).constData(), &model) != 0) {
        return false;
    }
    if (::fchown(descriptor, model.st_uid, model.st_gid) != 0 && errno != EPERM) {
        return false;
    }
    return ::fchmod(descriptor, model.st_mode & PermissionBits) == 0;
}

/// The end of a new file: what is not complete goes.
bool keepIf(bool complete, const QByteArray& name)
{
    if (!complete) {
        const int error = errno;
        ::unlink(name.constData());
        errno = error;
    }
    return complete;
}

bool copyContent(QFile& source, int target)
{
    while (true) {
        const QByteArray part = source.read(CopySize);
        if (part.isEmpty()) {
            return source.error() == QFileDevice::NoError && source.atEnd();
        }
        if (!writeAll(target, part.constData(), part.size())) {
            return false;
        }
    }
}

bool copyFile(const QString& path, const QString& further)
{
    QFile source;
    QString error;
    if (openRegularFile(path, source, error) != FileOpening::Opened) {
        return false;
    }
    const QByteArray name = QFile::encodeName(further);
    const Descriptor file(openNew(name));
    return file.isOpen() &&
           keepIf(copyContent(source, file.number()) && makeAlike(file.number(), path) && ::fsync(file.number()) == 0,
                  name);
}

/// Whether the file system, or its border, is the reason, and not this file.
bool knowsNoFurtherNames(int error)
{
    return error == EXDEV || error == EPERM || error == EMLINK || error == EOPNOTSUPP;
}

} // namespace

bool DurableFiles::create(const QString& path, const QByteArray& content, const QString& like)
{
    const QByteArray name = QFile::encodeName(path);
    const Descriptor file(openNew(name));
    return file.isOpen() &&
           keepIf(writeAll(file.number(), content.constData(), content.size()) &&
                      (like.isEmpty() || makeAlike(file.number(), like)) && ::fsync(file.number()) == 0,
                  name);
}

bool DurableFiles::addName(const QString& path, const QString& further)
{
    return ::link(QFile::encodeName(path).constData(), QFile::encodeName(further).constData()) == 0 ||
           (knowsNoFurtherNames(errno) && copyFile(path, further));
}

bool DurableFiles::makeFolder(const QString& path, const QString& like)
{
    const QByteArray name = QFile::encodeName(path);
    if (::mkdir(name.constData(), PrivateFolder) != 0) {
        return false;
    }
    const Descriptor folder(::open(name.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder.isOpen() && makeAlike(folder.number(), like);
}

bool DurableFiles::rename(const QString& path, const QString& to)
{
    return ::rename(QFile::encodeName(path).constData(), QFile::encodeName(to).constData()) == 0;
}

bool DurableFiles::sync(const QString& path)
{
    const Descriptor entry(::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    return entry.isOpen() && ::fsync(entry.number()) == 0;
}

bool DurableFiles::namesIn(const QString& folder, QStringList& names)
{
    const std::unique_ptr<DIR, FolderCloser> entries(::opendir(QFile::encodeName(folder).constData()));
    if (entries == nullptr) {
        return false;
    }
    errno = 0;
    while (const dirent* entry = ::readdir(entries.get())) {
        const QString name = QFile::decodeName(entry->d_name);
        if (name != QLatin1String(".") && name != QLatin1String("..")) {
            names.append(name);
        }
        errno = 0;
    }
    return errno == 0;
}

bool DurableFiles::isGone(const QString& path)
{
    struct stat entry = {};
    return ::lstat(QFile::encodeName(path).constData(), &entry) != 0 && errno == ENOENT;
}

bool DurableFiles::remove(const QString& path)
{
    const QByteArray name = QFile::encodeName(path);
    if (::unlink(name.constData()) == 0 || errno == ENOENT) {
        return true;
    }
    return errno == EISDIR && QDir(path).removeRecursively();
}
