#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

class QCryptographicHash;
class QFileInfo;

/// The digest of an application's folder, which a remote unit reports at INIT and the base unit compares with its own.
///
/// Only contents are hashed, file after file in the order of their paths; names count in so far as they decide that
/// order. Left out are files that differ between the two sides by nature: compiled QML ("...qmlc"), hidden files and
/// everything in hidden folders, "keys.csv", and "Thumbs.db" in any letter case.
///
/// Hidden is judged by the whole path: a folder that lies in a hidden one itself has no contents. Paths are compared
/// letter by letter and as wholes, so that all of "a-b/" comes before "a/x". Links to files count with what they lead
/// to; links to folders are not followed.
///
/// Reads the disk, all of the folder's bytes, in pieces of 64 KiB: large applications take seconds, for which reason
/// ApplicationChecksums does it for everybody. Safe in any thread. In a thread that was asked to interrupt itself
/// (QThread::requestInterruption) it ends early, with a digest that means nothing.
class Md5Checksum
{
public:
    static constexpr int Size = 16; ///< bytes of a digest

    /// A file that claims more is left out with a log line: nothing of that size is installed on purpose, and to read
    /// it would keep every unit that wants to join waiting.
    static constexpr qint64 MaxFileBytes = 4LL * 1024 * 1024 * 1024;

    /// Puts the digest of the folder `path` into `result`. Files that cannot be read are silently skipped; what is
    /// neither a regular file nor a folder is skipped with a log line; a missing folder gives the digest of no data.
    static void getChecksum(QByteArray& result, QString path);

    /// Feeds the folder's contents to `hash`, behind what it has been fed already.
    static void addToHash(const QFileInfo& dir, QCryptographicHash& hash);

    /// Paths of what addToHash() takes contents from, in its order. Folders are among them; they contribute nothing.
    static QStringList hashedPaths(const QFileInfo& dir);
};
