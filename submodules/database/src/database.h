#pragma once

#include "data.h"

#include <QHash>
#include <QObject>
#include <QString>
#include <QVector>

/// An ordered collection of records that are found by name or by index.
///
/// Changed only in its own thread. Lookups (`get`, `at`, `size`, `getAll`) are const, copy nothing that could detach,
/// and may also be called from other threads as long as nobody appends or clears meanwhile: the server fills its
/// database before it starts the threads that read it.
///
/// Records are not owned by the database as such; whoever creates one gives it a parent.
class Database : public QObject
{
    Q_OBJECT

public:
    /// What kind of records a database holds. A label for the user's purposes: the database does not look at it.
    enum DataType {
        DATA = 0,
        APPCONFIG = 1,
        USER = 2,
        TAG = 3,
        NOTIFICATION = 4,
    };
    Q_ENUM(DataType)

    explicit Database(QObject* parent = nullptr);

    /// Adds `record` at the end and announces it. A record without a name, or one whose name is taken while duplicates
    /// are not allowed, is refused with a warning and left to its parent.
    void append(Data* record);

    /// @return the first record of that name, null when there is none. The time does not grow with their number.
    Data* get(QString name) const;
    /// @return the record at `index` in the order of insertion; null, with a warning, outside 0 .. size() - 1.
    Data* at(int index) const;
    int size() const;
    QVector<Data*> getAll() const;

    /// Forgets all records and schedules them for deletion.
    void clear();

signals:
    void databaseUpdated();

protected:
    /// For derived classes that keep an index of their own: called after a record has been added, and after all are
    /// gone, before `databaseUpdated`.
    virtual void recordAppended(Data* record);
    virtual void recordsCleared();

    /// The record at `index`, which must be valid: no check, no warning.
    Data* recordAt(int index) const { return data.at(index); }
    bool holdsIndex(int index) const { return index >= 0 && index < data.size(); }

    DataType dataType = DATA;
    bool m_allowDuplicates = false;

private:
    QVector<Data*> data;
    QVector<QString> tags;             ///< record names, each at the index of its record
    QHash<QString, int> m_firstOfName; ///< name -> index of the first record that has it
};
