#pragma once

#include <QMap>
#include <QString>
#include <QStringList>

#include <optional>

/// The files "manifest.csv" that describe the installed applications. Each application's folder holds one; its lines
/// are `key;value`.
///
/// Remote-link checks and the pairing service read them through these functions, so that both see the same
/// applications. All of them are safe to call from any thread; the ones that touch the disk say so.
namespace ApplicationManifest {

/// The lines of one manifest: key to value, both without surrounding or repeated white space.
using Entries = QMap<QString, QString>;

/// The folder that holds the installed applications: the one above the folder of the server's own executable, as a
/// clean absolute path. It need not exist.
///
/// The first call must come after the application object exists; call it in the main thread and hand the result on.
QString root();

/// Places the applications elsewhere, for tests; an empty path brings the default back. Main thread only, before other
/// threads look.
void setRoot(const QString& path);

/// Absolute paths of all manifests below `rootPath`, sorted, so that "the first one" means the same to everyone. Walks
/// the disk.
///
/// Neither symbolic links to folders nor hidden folders are entered, and a manifest that is a link to a file outside
/// `rootPath` is left out. A missing folder has no manifests.
QStringList find(const QString& rootPath);

/// Reads one manifest from the disk. Lines that do not have exactly two parts are ignored; of a repeated key the last
/// line counts. Text is UTF-8; what lies beyond the first `MaxBytes` is not read.
/// @return nothing when the file cannot be read; when it is no regular file, with a log line.
std::optional<Entries> read(const QString& manifestPath);

/// Upper bound of what `read` takes from one file. A manifest has a handful of short lines.
constexpr qint64 MaxBytes = 64 * 1024;

/// True when the manifest describes an application for remote units ("target" is "ru").
bool isForRemoteUnits(const Entries& entries);

/// True when it names a target, and not remote units.
bool isForOthers(const Entries& entries);

/// True when it describes the user application of the remote units ("target" is "ru", "type" is "user"): the one whose
/// digest remote units report at INIT.
bool isRemoteUnitUserApplication(const Entries& entries);

/// The folder of a manifest: its path up to, not including, the last "/".
QString directoryOf(const QString& manifestPath);

/// Folders of all readable manifests below `rootPath` that describe the remote units' user application, in the order of
/// `find`. Walks the disk.
QStringList remoteUnitUserApplications(const QString& rootPath);

} // namespace ApplicationManifest
