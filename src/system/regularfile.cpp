#include "regularfile.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// Without the two flags in the middle, a pipe that has taken the file's place would hold the caller, and a terminal
/// could become that of the process.
constexpr int OpenFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

FileOpening refusal(QString& error)
{
    error = QStringLiteral("Not a regular file");
    return FileOpening::NotRegular;
}

FileOpening failure(QString& error)
{
    error = qt_error_string(errno);
    return FileOpening::Failed;
}

} // namespace

FileOpening openRegularFile(const QString& path, QFile& file, QString& error)
{
    const QByteArray name = QFile::encodeName(path);
    struct stat entry = {};
    if (::stat(name.constData(), &entry) != 0) {
        return failure(error);
    }
    if (!S_ISREG(entry.st_mode)) {
        return refusal(error);
    }
    const int descriptor = ::open(name.constData(), OpenFlags);
    if (descriptor < 0) {
        return failure(error);
    }
    // What was looked at need not be what was opened.
    if (::fstat(descriptor, &entry) != 0 || !S_ISREG(entry.st_mode)) {
        ::close(descriptor);
        return refusal(error);
    }
    if (!file.open(descriptor, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle)) {
        ::close(descriptor);
        error = file.errorString();
        return FileOpening::Failed;
    }
    return FileOpening::Opened;
}
