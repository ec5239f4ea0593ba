#pragma once

#include <QMap>
#include <QObject>
#include <QString>
#include <QVector>

/// One semicolon-separated configuration table: read into memory, looked up by row and column key, written back.
///
///     ID;CCH1;SID1                        key line: the column keys
///     Remote id;Channel;Network name      description line: one text per column
///     1;11;alpha                          data lines: the first field is the row key
///
/// No quoting, no escaping, no comment lines. Cells are whitespace-simplified; the row key is kept exactly as it reads
/// (a row of one field only therefore has its line end in its key). Files are read as Latin-1, a line up to its first
/// NUL byte, and written as Latin-1, so that bytes outside ASCII survive a rewrite unchanged.
///
/// Not thread-safe: an object belongs to the thread that made it. Rewriting replaces the file in one step, so a reader
/// in another thread or after a power cut finds either the old file or the new one.
///
/// The whole table is in memory, and nothing is read again by itself: what others write into the file meanwhile is
/// unknown here, and lost with the next writeData(), its two header lines apart. Looking up a cell costs little however
/// many rows there are; keyExists() and setValue() go through all row keys.
class ConfigFile : public QObject
{
    Q_OBJECT

public:
    /// Remembers the path and loads the file. A file that cannot be read leaves the object empty (see loadFile).
    ConfigFile(const QString& path, QObject* parent);

    /// The same for a file whose content is already in memory: read from there, and not from the path.
    ConfigFile(const QByteArray& content, const QString& path, QObject* parent);

    /// Reads a file in place of what was loaded before. Rewrites still go to the constructor's path.
    ///
    /// Rows that the new file no longer has vanish from the list of row keys, yet their cells can still be looked up;
    /// the counts go on from where they stood.
    /// @return false, with no rows and columns left and a critical log line, when the file cannot be read. Lines that
    ///         are no valid rows are logged and skipped.
    bool loadFile(const QString& path);

    /// The cell, or an empty string when there is no such row or column.
    QString getValue(const QString& tag, const QString& columnKey) const;
    bool keyExists(const QString& tag) const;
    bool columnExists(const QString& columnKey) const;

    /// Row keys in file order, new rows last; a key that stands in the file twice is listed twice.
    QVector<QString> getAllTags() const;
    /// Column keys in file order, the key column first.
    QVector<QString> getAllColumnKeys() const;
    /// Column keys and their descriptions.
    QMap<QString, QString> getAllColumns() const;

    /// Sets one cell and rewrites the file. A row that does not exist is appended, with "0" in its other columns.
    ///
    /// Naming the same text as row and column is a fatal assertion: the caller has mixed them up.
    /// @return false when there is no such column (nothing changes), or when the file could not be rewritten (the cell
    ///         is changed in memory, the file stays as it was).
    bool addChangeTag(QString tag, QString columnKey, QString value);

    /// As addChangeTag, in memory only: for changes that belong together and reach the file in one step, by writeData.
    /// @return false, with nothing changed, when there is no such column.
    bool setValue(const QString& tag, const QString& columnKey, const QString& value);

    /// Writes all rows back below the two header lines that stand in the file now.
    /// @return false, with the file untouched, when it cannot be read, lacks its header lines, or cannot be replaced.
    bool writeData();

    /// What writeData would put in the place of `current`, the content of the file: for callers that replace it
    /// themselves, together with others. Touches no file.
    /// @return false, with a debug line and `rewritten` untouched, when `current` lacks its header lines.
    bool rewrite(const QByteArray& current, QByteArray& rewritten) const;

    /// Forgets everything but the path. The file is not touched.
    void removeAllData();

private:
    void loadData(const QByteArray& content, const QString& path);
    void addColumns(const QStringList& parts);
    void addDescriptions(const QStringList& parts);
    bool addRow(const QStringList& parts);
    QByteArray rowText(const QString& rowKey) const;

    QVector<QString> columnKeys;
    QMap<QString, QString> columns;
    QString tagColumnKey;
    QVector<QString> rowKeys;
    QMap<QString, QMap<QString, QString>> values;
    quint8 columnCount = 0; ///< wraps at 256
    quint8 rowCount = 0;    ///< wraps at 256; counts rows read, not rows made by addChangeTag
    QString filePath;
};
