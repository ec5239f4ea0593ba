#include "applications.h"

#include "applicationmanifest.h"

#include <QDir>
#include <QFileInfo>

namespace {

const QString PathKey = QStringLiteral("pairAppPath");
const QString TypeKey = QStringLiteral("type");

std::optional<ApplicationManifest::Entries> manifestOf(const QString& appPath)
{
    return ApplicationManifest::read(appPath + QStringLiteral("/manifest.csv"));
}

/// True when `path` is the folder or lies below it once all links are resolved.
bool isWithin(const QString& folderPath, const QString& path)
{
    const QString folder = QFileInfo(folderPath).canonicalFilePath();
    const QString place = QFileInfo(path).canonicalFilePath();
    return !folder.isEmpty() && (place == folder || place.startsWith(folder + QLatin1Char('/')));
}

bool mayBeForRemoteUnits(const QString& appPath)
{
    const auto manifest = manifestOf(appPath);
    return manifest && !ApplicationManifest::isForOthers(*manifest);
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
    return manifestOf(appPath).value_or(ApplicationManifest::Entries()).value(TypeKey);
}

bool isUserApp(QString path)
{
    return isUserApp(manifestOf(path).value_or(ApplicationManifest::Entries()));
}

bool isUserApp(const ApplicationList::Record& manifest)
{
    return manifest.value(TypeKey) == QLatin1String("user");
}

bool isSystemApp(QString path)
{
    return getAppType(path) == QLatin1String("system");
}

QString refusalReason(const QString& rootPath, const QString& ownFolder, const QString& path)
{
    const QFileInfo folder(path);
    if (folder.isRelative() || path != QDir::cleanPath(path)) {
        return QStringLiteral("not a clean absolute path");
    }
    if (!folder.isDir() || folder.isSymLink()) {
        return QStringLiteral("not a folder");
    }
    if (!isWithin(rootPath, folder.path())) { // where the archive is made
        return QStringLiteral("outside the applications folder");
    }
    if (isWithin(ownFolder, path)) {
        return QStringLiteral("the server's own folder");
    }
    if (!mayBeForRemoteUnits(path)) {
        return QStringLiteral("not an application for remote units");
    }
    if (misleadsTar(folder.fileName())) {
        return QStringLiteral("a name that tar would misread");
    }
    return {};
}
