#include "md5checksum.h"

#include <QCryptographicHash>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QThread>

namespace {

constexpr qint64 ChunkBytes = 64 * 1024;

bool isLeftOut(const QString& name, const QString& path)
{
    return name.isEmpty() || name == QLatin1String(".") || name == QLatin1String("..") ||
           name.endsWith(QLatin1String("qmlc")) || name.startsWith(QLatin1Char('.')) ||
           name == QLatin1String("keys.csv") || name.toLower() == QLatin1String("thumbs.db") ||
           path.contains(QLatin1String("/."));
}

void addFile(const QString& path, QCryptographicHash& hash)
{
    QFile file(path);
    // Only regular files end: a pipe or a device behind a symbolic link would hold the reader for ever.
    if (!QFileInfo(path).isFile() || !file.open(QIODevice::ReadOnly)) {
        return;
    }
    QByteArray chunk = file.read(ChunkBytes);
    while (!chunk.isEmpty() && !QThread::currentThread()->isInterruptionRequested()) {
        hash.addData(chunk);
        chunk = file.read(ChunkBytes);
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
