#include "filedigest.h"

#include "regularfile.h"

#include <QDebug>

#include <algorithm>

namespace {

/// @return the number of bytes to read: what the file holds now, however it may grow meanwhile.
qint64 openToTheEnd(const QString& path, QFile& file)
{
    QString error;
    const FileOpening opening = openRegularFile(path, file, error);
    if (opening == FileOpening::NotRegular) {
        qWarning() << "pairarchive: Refused to read" << path << "-" << qPrintable(error);
    }
    return opening == FileOpening::Opened ? file.size() : 0;
}

} // namespace

FileDigest::FileDigest(const QString& path, QObject* parent)
    : QObject(parent)
    , m_path(path)
{
    // A timer and not a posted event: the event loop empties its queue of posted events, those that arrive meanwhile
    // included, before it looks at the sockets again.
    m_nextSlice.setInterval(0);
    m_nextSlice.setSingleShot(true);
    connect(&m_nextSlice, &QTimer::timeout, this, &FileDigest::hashSlice);
}

void FileDigest::start()
{
    m_left = openToTheEnd(m_path, m_file);
    hashSlice();
}

QString FileDigest::of(const QString& path)
{
    FileDigest digest(path, nullptr);
    digest.m_left = openToTheEnd(path, digest.m_file);
    while (digest.addSlice()) {
    }
    return QString::fromLatin1(digest.m_hash.result().toHex());
}

/// @return whether there is more to read.
bool FileDigest::addSlice()
{
    const QByteArray slice = m_left > 0 ? m_file.read(std::min(m_left, SliceSize)) : QByteArray();
    m_hash.addData(slice);
    m_left -= slice.size();
    return m_left > 0 && !slice.isEmpty();
}

void FileDigest::hashSlice()
{
    if (addSlice()) {
        m_nextSlice.start();
        return;
    }
    emit finished(QString::fromLatin1(m_hash.result().toHex()));
}
