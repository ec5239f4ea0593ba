#include "applicationconfig.h"

#include "configfile.h"

#include <QDebug>
#include <QFileInfo>

namespace {

const QString ValueColumn = QStringLiteral("value");
const QString KeysFile = QStringLiteral("/config/keys.csv");
const QString AppFile = QStringLiteral("/config/app.csv");

QVector<ApplicationSetting> keyRows(const PairingKeys& keys)
{
    QVector<ApplicationSetting> rows;
    for (int i = 0; i < PairingKeys::WordCount; ++i) {
        rows.append({QStringLiteral("PKY%1").arg(i + 1), QString::number(keys.words.at(size_t(i)))});
    }
    return rows;
}

/// A value with a separator or a line end in it would change the table around it.
bool fitsIntoCell(const QString& value)
{
    return !value.contains(QLatin1Char(';')) && value == value.simplified();
}

bool liesInside(const QString& appPath, const QString& filePath)
{
    const QString folder = QFileInfo(appPath).canonicalFilePath();
    return QFileInfo(filePath).canonicalFilePath().startsWith(folder + QLatin1Char('/'));
}

bool setRows(ConfigFile& file, const QVector<ApplicationSetting>& rows)
{
    for (const ApplicationSetting& row : rows) {
        if (!fitsIntoCell(row.value)) {
            qWarning() << "pairserver: The value of" << row.tag << "does not fit into a configuration file";
        } else if (!file.setValue(row.tag, ValueColumn, row.value)) {
            return false;
        }
    }
    return true;
}

/// Adds the change of one file.
bool addChange(const QString& appPath, const QString& fileName, const QVector<ApplicationSetting>& rows,
               QVector<TextFileChange>& changes)
{
    const QString path = appPath + fileName;
    // The file behind a link is the one to replace, not the link.
    TextFileChange change{QFileInfo(path).canonicalFilePath(), {}, {}};
    if (liesInside(appPath, path)) {
        QString error;
        if (!readTextFile(change.path, change.before, error)) {
            qCritical() << "Load Configurations File Error: " << change.path << error;
        }
        ConfigFile file(change.before, change.path, nullptr);
        if (setRows(file, rows) && file.rewrite(change.before, change.after)) {
            changes.append(change);
            return true;
        }
    }
    qWarning() << "pairserver: Could not write the pairing into" << path;
    return false;
}

} // namespace

QVector<TextFileChange> prepareApplicationConfig(const QString& appPath, const PairingKeys& keys,
                                                 const QVector<ApplicationSetting>& settings)
{
    QVector<TextFileChange> changes;
    const bool complete =
        addChange(appPath, KeysFile, keyRows(keys), changes) && addChange(appPath, AppFile, settings, changes);
    return complete ? changes : QVector<TextFileChange>();
}
