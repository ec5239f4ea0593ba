#include "md5checksum.h"

#include "regularfile.h"

#include <QCryptographicHash>
#include <QDebug>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QThread>

#include <algorithm>

namespace {

constexpr qint64 ChunkBytes = 64 * 1024;

bool isLeftOut(const QString& name, const QString& path)
{
    return name.isEmpty() || name == QLatin1String(".") || name == QLatin1String("..") ||
           name.endsWith(QLatin1String("qmlc")) || name.startsWith(QLatin1Char('.')) ||
           name == QLatin1String("keys.csv") || name.toLower() == QLatin1String("thumbs.db") ||
           path.contains(QLatin1String("/."));
}

void logRefusal(const QString& path, const QString& reason)
{
    qWarning() << "Md5Checksum: Refused to read" << path << "-" << qPrintable(reason);
}

/// Opens one of the listed entries. Folders and unreadable files are passed over in silence.
bool openListed(const QString& path, QFile& file)
{
    QString error;
    const FileOpening opening = openRegularFile(path, file, error);
    if (opening == FileOpening::NotRegular && !QFileInfo(path).isDir()) {
        logRefusal(path, error);
    }
    if (opening == FileOpening::Opened && file.size() > Md5Checksum::MaxFileBytes) {
        logRefusal(path, QStringLiteral("More than %1 bytes").arg(Md5Checksum::MaxFileBytes));
        return false;
    }
    return opening == FileOpening::Opened;
}

void addFile(const QString& path, QCryptographicHash& hash)
{
    QFile file;
    if (!openListed(path, file)) {
        return;
    }
    // A file that grows while it is read is read as far as it reached at first: the end need never come nearer.
    qint64 left = file.size();
    while (left > 0 && !QThread::currentThread()->isInterruptionRequested()) {
        const QByteArray chunk = file.read(std::min(left, ChunkBytes));
        if (chunk.isEmpty()) {
            return;
        }
        hash.addData(chunk);
        left -= chunk.size();
    }
}

} // namespace

void Md5Checksum::getChecksum(QByteArray& result, QString path)
{
    QCryptographicHash hash(QCryptographicHash::Md5);
    addToHash(QFileInfo(path), hash);
    result = hash.result();
}

void Md5Checksum::addToHash(const QFileInfo& dir, QCryptographicHash& hash)
{
    const QStringList paths = hashedPaths(dir);
    for (const QString& path : paths) {
        addFile(path, hash);
    }
}

QStringList Md5Checksum::hashedPaths(const QFileInfo& dir)
{
    QStringList paths;
    QDirIterator entry(dir.absoluteFilePath(), QDirIterator::Subdirectories);
    while (entry.hasNext()) {
        const QString path = entry.next();
        if (!isLeftOut(entry.fileName(), path)) {
            paths.append(path);
        }
    }
    paths.sort(Qt::CaseSensitive);
    return paths;
}
