#include "applications.h"

#include "applicationmanifest.h"

#include <QDir>
#include <QFileInfo>

namespace {

const QString PathKey = QStringLiteral("pairAppPath");
const QString TypeKey = QStringLiteral("type");

ApplicationManifest::Entries manifestOf(const QString& appPath)
{
    return ApplicationManifest::read(appPath + QStringLiteral("/manifest.csv"))
        .value_or(ApplicationManifest::Entries());
}

/// True when the folder that holds `path` is the root or lies below it once all links are resolved. The archive is made
/// in that folder.
bool liesBelow(const QString& rootPath, const QString& path)
{
    const QString root = QFileInfo(rootPath).canonicalFilePath();
    const QString folder = QFileInfo(QFileInfo(path).path()).canonicalFilePath();
    return !root.isEmpty() && (folder == root || folder.startsWith(root + QLatin1Char('/')));
}

/// True when tar would not take `name` for the name of a file: an option, or an archive on another machine.
bool misleadsTar(const QString& name)
{
    return name.startsWith(QLatin1Char('-')) || name.contains(QLatin1Char(':'));
}

} // namespace

ApplicationList listApplications(const QString& rootPath)
{
    ApplicationList list;
    const QStringList manifests = ApplicationManifest::find(rootPath);
    for (const QString& manifest : manifests) {
        list.manifests.append(manifest);
        ApplicationList::Record record = ApplicationManifest::read(manifest).value_or(ApplicationManifest::Entries());
        if (ApplicationManifest::isForRemoteUnits(record)) {
            record.insert(PathKey, ApplicationManifest::directoryOf(manifest));
            list.records.append(record);
        }
    }
    return list;
}

QString getAppType(QString appPath)
{
    return manifestOf(appPath).value(TypeKey);
}

bool isUserApp(QString path)
{
    return getAppType(path) == QLatin1String("user");
}

bool isSystemApp(QString path)
{
    return getAppType(path) == QLatin1String("system");
}

QString refusalReason(const QString& rootPath, const QString& path)
{
    const QFileInfo folder(path);
    if (folder.isRelative() || path != QDir::cleanPath(path)) {
        return QStringLiteral("not a clean absolute path");
    }
    if (!folder.isDir() || folder.isSymLink()) {
        return QStringLiteral("not a folder");
    }
    if (!liesBelow(rootPath, path)) {
        return QStringLiteral("outside the applications folder");
    }
    if (!ApplicationManifest::isForRemoteUnits(manifestOf(path))) {
        return QStringLiteral("not an application for remote units");
    }
    if (misleadsTar(folder.fileName())) {
        return QStringLiteral("a name that tar would misread");
    }
    return {};
}
