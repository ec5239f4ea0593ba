#pragma once

#include <QCryptographicHash>
#include <QFile>
#include <QObject>
#include <QString>
#include <QTimer>

/// The MD5 of one file, read in slices between the other work of its thread's event loop: an archive of many megabytes
/// must not hold up the remote units that the same thread serves. Used once and thrown away.
class FileDigest : public QObject
{
    Q_OBJECT

public:
    /// Bytes hashed before the event loop gets its turn: a few milliseconds' work on the slowest board.
    static constexpr qint64 SliceSize = 256 * 1024;

    FileDigest(const QString& path, QObject* parent);

    /// Begins; a file of less than one slice is done when this returns.
    void start();

    /// The digest, computed at once and to the end.
    static QString of(const QString& path);

signals:
    /// The digest as lower-case hexadecimal text. A file that cannot be read counts as an empty
    /// one, and so does what is no regular file (logged). What is appended meanwhile does not count.
    void finished(QString digest);

private slots:
    void hashSlice();

private:
    bool addSlice();

    const QString m_path;
    QFile m_file;
    qint64 m_left = 0; ///< bytes still to be read
    QCryptographicHash m_hash{QCryptographicHash::Md5};
    QTimer m_nextSlice;
};
