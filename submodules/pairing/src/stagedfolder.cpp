#include "stagedfolder.h"

#include "durablefiles.h"

#include <QFile>

#include <cerrno>
#include <dirent.h>
#include <memory>
#include <sys/stat.h>

namespace {

struct FolderCloser
{
    void operator()(DIR* folder) const
    {
        const int error = errno;
        ::closedir(folder);
        errno = error;
    }
};

/// The names in a folder. @return false when they could not all be read: a list that is too short would go unnoticed.
bool namesIn(const QString& folder, QStringList& names)
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

} // namespace

bool stageFolder(const QString& folder, const QString& copy, const QStringList& leftOut, QString& failed)
{
    failed = folder;
    QStringList names;
    if (!DurableFiles::makeFolder(copy, folder) || !namesIn(folder, names)) {
        return false;
    }
    for (const QString& name : qAsConst(names)) {
        const QString path = folder + QLatin1Char('/') + name;
        const QString further = copy + QLatin1Char('/') + name;
        if (leftOut.contains(path)) {
            continue;
        }
        failed = path;
        struct stat entry = {};
        if (::lstat(QFile::encodeName(path).constData(), &entry) != 0) {
            return false;
        }
        if (!(S_ISDIR(entry.st_mode) ? stageFolder(path, further, leftOut, failed)
                                     : DurableFiles::addName(path, further))) {
            return false;
        }
    }
    return true;
}
