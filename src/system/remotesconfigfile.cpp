#include "remotesconfigfile.h"

#include "textfile.h"

#include <QByteArrayList>
#include <QDebug>

namespace {

constexpr char FieldSeparator = ';';
constexpr int FieldCount = 6;
constexpr int RowIndexField = 0;
constexpr char RowIndexKey[] = "ruindex";
constexpr char RemoteIdKey[] = "RUID";

/// Walks the lines of one remotes file from top to bottom.
class RemotesWalk
{
public:
    explicit RemotesWalk(const QString& path)
        : m_path(path)
    {}

    /// The line as it should stand in the file.
    QByteArray checked(const QByteArray& line);
    bool anyChanged() const { return m_anyChanged; }

private:
    bool isData(const QByteArrayList& fields);
    QByteArray checkedRow(const QByteArray& line, QByteArrayList fields);

    QString m_path;
    int m_remoteIdField = -1; ///< known once the key line was met
    bool m_descriptionPending = false;
    unsigned int m_nextIndex = 0;
    bool m_anyChanged = false;
};

int remoteIdFieldOf(const QByteArrayList& fields)
{
    for (int i = 0; i < fields.size(); ++i) {
        if (fields.at(i).trimmed() == RemoteIdKey) {
            return i;
        }
    }
    return -1;
}

QByteArray RemotesWalk::checked(const QByteArray& line)
{
    const QByteArrayList fields = line.split(FieldSeparator);
    return isData(fields) ? checkedRow(line, fields) : line;
}

bool RemotesWalk::isData(const QByteArrayList& fields)
{
    if (m_descriptionPending) {
        m_descriptionPending = false; // whatever its number of fields
        return false;
    }
    if (fields.size() != FieldCount) {
        return false;
    }
    if (fields.first().trimmed() == RowIndexKey && remoteIdFieldOf(fields) >= 0) {
        if (m_remoteIdField < 0) {
            m_remoteIdField = remoteIdFieldOf(fields);
            m_descriptionPending = true;
        }
        return false; // a key line pasted again further down is no data either; the line below it is
    }
    return m_remoteIdField >= 0;
}

QByteArray RemotesWalk::checkedRow(const QByteArray& line, QByteArrayList fields)
{
    const unsigned int expectedIndex = m_nextIndex++;
    bool readable = false;
    const unsigned int index = fields.at(RowIndexField).trimmed().toUInt(&readable);
    const bool misnumbered = !readable || index != expectedIndex;
    if (misnumbered) {
        qWarning() << "Invalid ruindex" << line << "in" << m_path;
        fields[RowIndexField] = QByteArray::number(expectedIndex);
        m_anyChanged = true;
    }
    if (fields.at(m_remoteIdField).trimmed().toLongLong() < 1) {
        qWarning() << "Invalid RUID" << line << "in" << m_path;
    }
    return misnumbered ? fields.join(FieldSeparator) : line;
}

} // namespace

RemotesCheck checkRemotesConfigFile(const QString& path)
{
    RemotesCheck check;
    QByteArray content;
    QString error;
    if (!readTextFile(path, content, error)) {
        return check;
    }
    RemotesWalk walk(path);
    const QByteArrayList lines = splitLines(content);
    for (const QByteArray& line : lines) {
        check.content += walk.checked(line);
    }
    check.repaired = walk.anyChanged();
    return check;
}

void writeRepairedRemotes(const QString& path, const RemotesCheck& check)
{
    if (check.repaired) {
        qInfo() << "Updating" << path;
        replaceTextFile(path, check.content);
    }
}

void validateRemotesConfigFile(QString path)
{
    writeRepairedRemotes(path, checkRemotesConfigFile(path));
}
