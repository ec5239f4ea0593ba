#include "applicationmanifest.h"

#include "regularfile.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QGlobalStatic>

namespace ApplicationManifest {

namespace {

constexpr char FileName[] = "manifest.csv";
const QString TargetKey = QStringLiteral("target");
constexpr QLatin1Char PartSeparator(';');
constexpr int PartsOfEntry = 2;

Q_GLOBAL_STATIC(QString, s_rootForTests)

bool liesBelow(const QString& canonicalRoot, const QString& filePath)
{
    const QString prefix = canonicalRoot.endsWith(QLatin1Char('/')) ? canonicalRoot : canonicalRoot + QLatin1Char('/');
    return QFileInfo(filePath).canonicalFilePath().startsWith(prefix);
}

void addLine(Entries& entries, const QByteArray& line)
{
    const QStringList parts = QString::fromUtf8(line).split(PartSeparator);
    if (parts.size() == PartsOfEntry) {
        entries.insert(parts.at(0).simplified(), parts.at(1).simplified());
    }
}

} // namespace

QString root()
{
    if (!s_rootForTests->isEmpty() || QCoreApplication::instance() == nullptr) {
        return *s_rootForTests;
    }
    // Lexical, not cdUp(): the path is needed even when the folder is gone.
    return QDir::cleanPath(QCoreApplication::applicationDirPath() + QStringLiteral("/.."));
}

void setRoot(const QString& path)
{
    *s_rootForTests = path.isEmpty() ? QString() : QDir::cleanPath(QFileInfo(path).absoluteFilePath());
}

QStringList find(const QString& rootPath)
{
    const QString canonicalRoot = QFileInfo(rootPath).canonicalFilePath();
    if (canonicalRoot.isEmpty()) {
        return {};
    }
    QStringList manifests;
    // Without the case flag the iterator would take "Manifest.CSV" as well.
    QDirIterator entry(QFileInfo(rootPath).absoluteFilePath(), {QString::fromLatin1(FileName)},
                       QDir::Files | QDir::CaseSensitive, QDirIterator::Subdirectories);
    while (entry.hasNext()) {
        const QString path = entry.next();
        if (liesBelow(canonicalRoot, path)) {
            manifests.append(path);
        }
    }
    manifests.sort();
    return manifests;
}

std::optional<Entries> read(const QString& manifestPath)
{
    QFile file;
    QString error;
    const FileOpening opening = openRegularFile(manifestPath, file, error);
    if (opening == FileOpening::NotRegular) {
        qWarning() << "Refused to read the manifest" << manifestPath << "-" << qPrintable(error);
    }
    if (opening != FileOpening::Opened) {
        return std::nullopt;
    }
    Entries entries;
    const QList<QByteArray> lines = file.read(MaxBytes).split('\n');
    for (const QByteArray& line : lines) {
        addLine(entries, line);
    }
    return entries;
}

bool isForRemoteUnits(const Entries& entries)
{
    return entries.value(TargetKey) == QLatin1String("ru");
}

bool isForOthers(const Entries& entries)
{
    return entries.contains(TargetKey) && !isForRemoteUnits(entries);
}

bool isRemoteUnitUserApplication(const Entries& entries)
{
    return isForRemoteUnits(entries) && entries.value(QStringLiteral("type")) == QLatin1String("user");
}

QString directoryOf(const QString& manifestPath)
{
    return manifestPath.left(manifestPath.lastIndexOf(QLatin1Char('/')));
}

QStringList remoteUnitUserApplications(const QString& rootPath)
{
    QStringList directories;
    const QStringList manifests = find(rootPath);
    for (const QString& manifest : manifests) {
        const std::optional<Entries> entries = read(manifest);
        if (entries && isRemoteUnitUserApplication(*entries)) {
            directories.append(directoryOf(manifest));
        }
    }
    return directories;
}

} // namespace ApplicationManifest
