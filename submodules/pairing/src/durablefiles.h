#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

/// File operations of which each has reached the disk, or can be made to, before the next one builds on it.
///
/// All return whether they succeeded; `errno` then says why not. They wait for the disk. Callable from any thread.
namespace DurableFiles {

/// Makes a new file with this content, on the disk when this returns; permissions and owner as of `like`; without
/// that for its owner alone. Not over one that exists. Half a file is never left.
bool create(const QString& path, const QByteArray& content, const QString& like = QString());

/// Gives the file (or link) a further name, in a folder that exists. Where the file system cannot do that, a regular
/// file is copied.
bool addName(const QString& path, const QString& further);

/// Makes a new folder with permissions and owner of `like`.
bool makeFolder(const QString& path, const QString& like);

/// In one step; a file that has the new name is gone. Stays on the disk after `sync` of the new name's folder.
bool rename(const QString& path, const QString& to);

/// Waits until a file's content, or a folder's list of names, is on the disk.
bool sync(const QString& path);

/// The names in a folder, hidden ones included; false when they could not all be read: a list that is too short would
/// go unnoticed.
bool namesIn(const QString& folder, QStringList& names);

/// Whether nothing is there, which is not the same as that nothing could be seen.
bool isGone(const QString& path);

/// Removes a file, a link, or a folder with everything in it. True also when there was none.
bool remove(const QString& path);

} // namespace DurableFiles
