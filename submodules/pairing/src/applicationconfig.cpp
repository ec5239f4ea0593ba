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
    return file.writeData();
}

bool writeRows(const QString& appPath, const QString& fileName, const QVector<ApplicationSetting>& rows)
{
    const QString path = appPath + fileName;
    if (liesInside(appPath, path)) {
        // The file behind a link is the one to replace, not the link.
        ConfigFile file(QFileInfo(path).canonicalFilePath(), nullptr);
        if (setRows(file, rows)) {
            return true;
        }
    }
    qWarning() << "pairserver: Could not write the pairing into" << path;
    return false;
}

} // namespace

bool writeApplicationConfig(const QString& appPath, const PairingKeys& keys,
                            const QVector<ApplicationSetting>& settings)
{
    return writeRows(appPath, KeysFile, keyRows(keys)) && writeRows(appPath, AppFile, settings);
}
