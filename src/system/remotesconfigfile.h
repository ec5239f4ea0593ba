#pragma once

#include <QByteArray>
#include <QString>

// The check of the remotes file before it is parsed. The file has six columns,
//
//     ruindex;RUID;PKY1;PKY2;PKY3;PKY4
//
// and "ruindex", the row key, must number the data rows 0, 1, 2, ... in file order: remote units are looked up by it.
// The key line (known by "ruindex" as its first field and a "RUID" field) and the description line below it are never
// data; lines of another number of fields are not looked at and not counted.

/// What the check made of the file.
struct RemotesCheck
{
    bool repaired = false; ///< whether any row was renumbered; the file itself is not touched by the check
    QByteArray content;    ///< the whole file with its rows numbered correctly, otherwise byte for byte as it stands
};

/// Reads the remotes file and numbers its rows, in memory only. Warns about each row with a wrong "ruindex" and about
/// each remote identity below 1 (such a row is kept). A file that cannot be read gives an empty result, silently.
/// Callable from any thread.
RemotesCheck checkRemotesConfigFile(const QString& path);

/// Replaces the remotes file by its repaired content, in one step. Does nothing when nothing was repaired.
/// The remotes file is rewritten in one thread only, the configuration store's (see Configuration).
void writeRepairedRemotes(const QString& path, const RemotesCheck& check);

/// Checks the remotes file and repairs it on disk. Only for the thread that owns the configuration store.
void validateRemotesConfigFile(QString path);
