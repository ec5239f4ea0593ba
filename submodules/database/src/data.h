#pragma once

#include <QMap>
#include <QObject>
#include <QString>

/// A named record with free texts: what a Database holds. The base unit's are Tags, which use the name only.
///
/// Lives in the thread of its database. The name never changes after construction and may be read from any thread; the
/// fields belong to the owner's thread.
///
/// A database keeps pointers and does not notice the end of a record: what has been appended is deleted by
/// Database::clear(), or with the database or after it, and by nobody else.
class Data : public QObject
{
    Q_OBJECT

public:
    /// @param tagName  any text; with an empty one no database takes the record.
    explicit Data(QString tagName, QObject* parent = nullptr);

    QString getTag() const;

    /// @return the text stored for `key`, empty when there is none. Never inserts anything.
    QString getField(QString key) const;
    /// Stores or replaces the text of `key`. No signal tells of it.
    void insertField(QString key, QString value);

private:
    const QString tag;
    QMap<QString, QString> fields; ///< by key, upper and lower case told apart
};
