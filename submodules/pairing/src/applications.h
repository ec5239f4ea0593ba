#pragma once

#include <QMap>
#include <QString>
#include <QVector>

// The installed applications as the pairing service sees them: which there are, of what type, and which path a service
// tool may ask for. Stateless; callable from any thread. All functions walk or read the disk.

/// The applications for remote units below a folder.
struct ApplicationList
{
    /// Key to value, as in the manifest, with the application's folder added under "pairAppPath".
    using Record = QMap<QString, QString>;

    QVector<QString> manifests; ///< paths of all manifests found, those of other targets included
    QVector<Record> records;    ///< one for each application whose "target" is "ru", sorted by path
};

/// Searches `rootPath` recursively; links that lead out of it are not followed and unreadable manifests are skipped.
ApplicationList listApplications(const QString& rootPath);

/// The "type" in the manifest of the application in `appPath`; empty when there is none.
QString getAppType(QString appPath);
/// True for type "user": the application is paired when it is fetched.
bool isUserApp(QString path);
/// The same of a manifest's entries, for who has to know whether there is one.
bool isUserApp(const ApplicationList::Record& manifest);
/// True for type "system": the application is handed out as it is.
bool isSystemApp(QString path);

/// Why a service tool may not have the application in `path`; empty when it may.
///
/// Only the folder of an application for remote units somewhere below `rootPath`, named by its clean absolute path, is
/// handed out: never a folder outside, and never the server's `ownFolder` or one in it, where the keys of every remote
/// unit lie. A manifest that names no target is taken for one of remote units, though it is not listed as such.
QString refusalReason(const QString& rootPath, const QString& ownFolder, const QString& path);
