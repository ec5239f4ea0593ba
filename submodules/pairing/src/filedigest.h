#pragma once

#include <QCryptographicHash>
#include <QFile>
#include <QObject>
#include <QString>
#include <QTimer>

/// The MD5 of one file, read in slices between the other work of its thread's event loop: an archive of many megabytes
/// must not hold up the other service tools, nor a reload of the configuration, which the same thread serves. Used once
/// and thrown away; thrown away before its end it tells nothing.
///
///     auto* digest = new FileDigest(path, this);
///     connect(digest, &FileDigest::finished, ...);    // before start(), which may already emit it
///     connect(digest, &FileDigest::finished, digest, &FileDigest::deleteLater);
///     digest->start();
///
/// Sockets of the thread are looked at between two slices; each slice waits for the disk.
class FileDigest : public QObject
{
    Q_OBJECT

public:
    /// Bytes hashed before the event loop gets its turn: a few milliseconds' work on the slowest board.
    static constexpr qint64 SliceSize = 256 * 1024;

    /// Touches no file yet.
    FileDigest(const QString& path, QObject* parent);

    /// Begins; a file of one slice at most, and one that cannot be read, is done when this returns. The file stays open
    /// as long as this object lives.
    void start();

    /// The digest, computed at once and to the end, however long the file is. As finished() has it.
    static QString of(const QString& path);

signals:
    /// The digest as lower-case hexadecimal text, 32 digits. A file that cannot be read counts as an empty
    /// one, and so does what is no regular file (logged). What is appended meanwhile does not count; a file that is cut
    /// short meanwhile, or fails in the middle, counts as far as it was read.
    void finished(QString digest);

private slots:
    void hashSlice();

private:
    bool addSlice();

    const QString m_path;
    QFile m_file;
    qint64 m_left = 0; ///< bytes still to be read
    QCryptographicHash m_hash{QCryptographicHash::Md5};
    QTimer m_nextSlice; ///< of interval 0: fires when the sockets have had their turn
};
