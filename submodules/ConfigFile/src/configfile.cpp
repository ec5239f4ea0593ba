#include "configfile.h"

#include "myassertfunc.h"
#include "textfile.h"

#include <QDebug>
#include <QStringList>

#include <algorithm>

namespace {

constexpr char SourceUnit[] = "submodules/ConfigFile/src/configfile";

enum FatalLine : unsigned int {
    RowKeyIsColumnKey = 180,
};

constexpr QLatin1Char FieldSeparator(';');

enum HeaderLine : int {
    KeyLine,
    DescriptionLine,
    HeaderLineCount,
};

/// The fields of a line, its line end still at the last one. What follows a NUL byte is not part of the text.
QStringList fieldsOf(const QByteArray& line)
{
    const int nul = line.indexOf('\0');
    return QString::fromLatin1(line.constData(), nul < 0 ? line.size() : nul).split(FieldSeparator);
}

/// A header line as it is written back: without carriage returns and with exactly one line feed.
QByteArray headerText(QByteArray line)
{
    line.replace("\r", "");
    return line.endsWith('\n') ? line : line + '\n';
}

} // namespace

ConfigFile::ConfigFile(const QString& path, QObject* parent)
    : QObject(parent)
    , filePath(path)
{
    loadFile(path);
}

ConfigFile::ConfigFile(const QByteArray& content, const QString& path, QObject* parent)
    : QObject(parent)
    , filePath(path)
{
    loadData(content, path);
}

bool ConfigFile::loadFile(const QString& path)
{
    QByteArray content;
    QString error;
    const bool readable = readTextFile(path, content, error);
    if (!readable) {
        qCritical() << "Load Configurations File Error: " << path << error;
    }
    loadData(content, path);
    return readable;
}

void ConfigFile::loadData(const QByteArray& content, const QString& path)
{
    rowKeys.clear();
    columns.clear();
    columnKeys.clear();

    const QByteArrayList lines = splitLines(content);
    for (int index = 0; index < lines.size(); ++index) {
        const QStringList parts = fieldsOf(lines.at(index));
        if (index == KeyLine) {
            addColumns(parts);
        } else if (index == DescriptionLine) {
            addDescriptions(parts);
        } else if (!addRow(parts)) {
            qWarning() << "Invalid line in" << path << "line" << index;
        }
    }
}

void ConfigFile::addColumns(const QStringList& parts)
{
    tagColumnKey = parts.first().simplified();
    for (const QString& part : parts) {
        columnKeys.append(part.simplified());
        ++columnCount;
    }
}

void ConfigFile::addDescriptions(const QStringList& parts)
{
    const int described = std::min(parts.size(), columnKeys.size());
    for (int i = 0; i < described; ++i) {
        columns.insert(columnKeys.at(i), parts.at(i).simplified());
    }
}

bool ConfigFile::addRow(const QStringList& parts)
{
    const QString& rowKey = parts.first();
    if (parts.size() > columnKeys.size() || rowKey.isEmpty()) {
        return false;
    }
    QMap<QString, QString> row;
    for (int i = 0; i < parts.size(); ++i) {
        row.insert(columnKeys.at(i), parts.at(i).simplified());
    }
    const auto stored = values.insert(rowKey, row);
    rowKeys.append(stored.key()); // shares the text, so that a file full of equal lines stays small in memory
    ++rowCount;
    return true;
}

QString ConfigFile::getValue(const QString& tag, const QString& columnKey) const
{
    const auto row = values.constFind(tag);
    return row == values.constEnd() ? QString() : row->value(columnKey);
}

bool ConfigFile::keyExists(const QString& tag) const
{
    return rowKeys.contains(tag);
}

bool ConfigFile::columnExists(const QString& columnKey) const
{
    return columnKeys.contains(columnKey);
}

QVector<QString> ConfigFile::getAllTags() const
{
    return rowKeys;
}

QVector<QString> ConfigFile::getAllColumnKeys() const
{
    return columnKeys;
}

QMap<QString, QString> ConfigFile::getAllColumns() const
{
    return columns;
}

bool ConfigFile::addChangeTag(QString tag, QString columnKey, QString value)
{
    return setValue(tag, columnKey, value) && writeData();
}

bool ConfigFile::setValue(const QString& tag, const QString& columnKey, const QString& value)
{
    if (tag == columnKey) {
        myAssertFunc(SourceUnit, RowKeyIsColumnKey);
    }
    if (!columnExists(columnKey)) {
        qDebug() << "Trying to change columnkey: " << columnKey << " that does not exists in file: " << filePath;
        return false;
    }
    if (!keyExists(tag)) {
        qInfo() << "Makinq new tag: " << tag << " because it does not exists in file: " << filePath;
        QMap<QString, QString> row;
        for (const QString& key : qAsConst(columnKeys)) {
            row.insert(key, key == tagColumnKey ? tag : QStringLiteral("0"));
        }
        values.insert(tag, row);
        rowKeys.append(tag);
    }
    values[tag].insert(columnKey, value);
    return true;
}

bool ConfigFile::writeData()
{
    QByteArray content;
    QString error;
    return readTextFile(filePath, content, error) && rewrite(content, content) && replaceTextFile(filePath, content);
}

bool ConfigFile::rewrite(const QByteArray& current, QByteArray& rewritten) const
{
    const QByteArrayList lines = splitLines(current);
    if (lines.size() < HeaderLineCount) {
        qDebug() << "Something is wrong with configuration file" << filePath;
        return false;
    }
    QByteArray text = headerText(lines.at(KeyLine)) + headerText(lines.at(DescriptionLine));
    for (const QString& rowKey : rowKeys) {
        text += rowText(rowKey);
    }
    rewritten = text;
    return true;
}

QByteArray ConfigFile::rowText(const QString& rowKey) const
{
    QString text;
    for (const QString& columnKey : columnKeys) {
        text += getValue(rowKey, columnKey);
        if (columnKey != columnKeys.last()) {
            text += FieldSeparator;
        }
    }
    return text.toLatin1() + '\n';
}

void ConfigFile::removeAllData()
{
    columnKeys.clear();
    columns.clear();
    tagColumnKey.clear();
    rowKeys.clear();
    values.clear();
    columnCount = 0;
    rowCount = 0;
}
