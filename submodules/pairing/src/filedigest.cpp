#include "filedigest.h"

FileDigest::FileDigest(const QString& path, QObject* parent)
    : QObject(parent)
    , m_file(path)
{
    // A timer and not a posted event: the event loop empties its queue of posted events, those that arrive meanwhile
    // included, before it looks at the sockets again.
    m_nextSlice.setInterval(0);
    m_nextSlice.setSingleShot(true);
    connect(&m_nextSlice, &QTimer::timeout, this, &FileDigest::hashSlice);
}

void FileDigest::start()
{
    m_file.open(QIODevice::ReadOnly);
    hashSlice();
}

QString FileDigest::of(const QString& path)
{
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Md5);
    if (file.open(QIODevice::ReadOnly)) {
        hash.addData(&file);
    }
    return QString::fromLatin1(hash.result().toHex());
}

void FileDigest::hashSlice()
{
    const QByteArray slice = m_file.isOpen() ? m_file.read(SliceSize) : QByteArray();
    m_hash.addData(slice);
    if (slice.size() == SliceSize) {
        m_nextSlice.start();
        return;
    }
    emit finished(QString::fromLatin1(m_hash.result().toHex()));
}
