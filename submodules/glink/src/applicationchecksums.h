#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>

#include <chrono>
#include <functional>
#include <future>

class QObject;

/// Application folder to the 16-byte MD5 of its contents.
using ApplicationChecksumList = QMap<QString, QByteArray>;

/// Digests of the installed remote-unit applications, for all who compare them with what a remote unit reports.
///
/// Lists are made by one background thread for the whole process. It keeps the digests of the last list, and hashes an
/// application anew only when its files' sizes, times or inodes changed: units that reconnect all the time cost a walk
/// over the folder each, away from the main thread, never another reading of it. The thread ends when nothing was asked
/// for a second, and at the latest with the application object.
///
/// A unit's INIT is judged like this, without waiting for a disk:
///
///     start, pairing          request(root)                       the background thread begins to hash
///     the list is complete    whenReady(list, hub, takeOver)      the hub keeps it
///     INIT comes              findPublished(root, kept, digest)   digest == the unit's?
///
/// Request from any thread, after the application object exists.
namespace ApplicationChecksums {

/// Orders the list of the applications installed below `rootPath` as they are now. Requests that nobody has begun to
/// serve are served together. Returns at once; a list is made for each order that is not shared, in their order, and
/// holding on to it is not needed for that.
/// @return the list to come; empty when the process ends meanwhile.
std::shared_future<ApplicationChecksumList> request(const QString& rootPath);

/// Calls `onReady` with an ordered list in the thread of `context` (queued) when it is complete. Several calls report
/// in their order; nothing is called after `context` is gone. Never calls from within itself, not even when the list is
/// complete already, and comes behind all lists that were ordered before this call.
/// @param list  from request().
/// @param context  exists, and does not change its thread.
void whenReady(const std::shared_future<ApplicationChecksumList>& list, QObject* context,
               std::function<void(const ApplicationChecksumList&)> onReady);

/// Waits for an ordered list, and stops waiting when the calling thread is asked to interrupt itself; it notices that
/// within 50 ms. There is no other bound.
/// @return the list; empty after an interruption.
ApplicationChecksumList waitFor(const std::shared_future<ApplicationChecksumList>& list);

/// Looks for the first remote-unit application below `rootPath`, on the disk, and for its digest in `list`. Each thread
/// remembers where it found it, so that looking again costs little while no folder changed.
/// @param result  the digest; empty, which never matches, for an application that is not in the list.
/// @return false, `result` untouched, when none is installed.
bool find(const QString& rootPath, const ApplicationChecksumList& list, QByteArray& result);

/// The same from what was found when the last list of anybody was made for `rootPath`: looks at no disk and waits for
/// nobody. Before the first such list none is installed.
///
/// What was found is known before the digests are: while a list is being made, an application that is new is found
/// here and missing in the caller's older list, and matches nothing until the caller has the new one.
bool findPublished(const QString& rootPath, const ApplicationChecksumList& list, QByteArray& result);

/// Breaks off what is being hashed and waits until the thread has ended, for the end of the process. Lists that are
/// broken off, and those that nobody has begun, come out empty.
/// @return false when the thread has not ended in time: a disk does not answer, and waiting on would not help.
bool stop(std::chrono::milliseconds limit);

/// For how long after its last change an application is hashed anew for every list; 2 s. For tests.
void setSettlingTime(std::chrono::milliseconds time);

/// How often an application has been hashed since the process started. For tests and diagnosis.
quint64 hashCount();

} // namespace ApplicationChecksums
