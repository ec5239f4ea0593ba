#include "stagedfolder.h"

#include "durablefiles.h"

#include <QFile>

#include <sys/stat.h>

bool stageFolder(const QString& folder, const QString& copy, const QStringList& leftOut, QString& failed)
{
    failed = folder;
    QStringList names;
    if (!DurableFiles::makeFolder(copy, folder) || !DurableFiles::namesIn(folder, names)) {
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
