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
/// Records are not owned by the database as such; whoever creates one gives it a parent. They stay where they are until
/// `clear`, so that an index once known stays good; none can be taken out or exchanged.
///
///     auto* const record = new Data(QStringLiteral("pressure"), &database);
///     database.append(record);
///     database.get(QStringLiteral("pressure"));    // record
///     database.at(database.size() - 1);            // record
///
/// A derived class keeps what it needs for quick access beside the records, see `recordAppended`.
class Database : public QObject
{
    Q_OBJECT

public:
    /// What kind of records a database holds. A label for the user's purposes: the database does not look at it.
    enum DataType {
        DATA = 0, ///< after construction, whatever is in it
        APPCONFIG = 1,
        USER = 2,
        TAG = 3,
        NOTIFICATION = 4,
    };
    Q_ENUM(DataType)

    explicit Database(QObject* parent = nullptr);

    /// Adds `record` at the end and announces it. A record without a name, or one whose name is taken while duplicates
    /// are not allowed, is refused with a warning and left to its parent. So is null, which has no name.
    void append(Data* record);

    /// @return the first record of that name, null when there is none. The time does not grow with their number.
    Data* get(QString name) const;
    /// @return the record at `index` in the order of insertion; null, with a warning, outside 0 .. size() - 1.
    Data* at(int index) const;
    int size() const;
    /// As of this moment, in the order of insertion. Shares its memory with the database until that is changed.
    QVector<Data*> getAll() const;

    /// Forgets all records and schedules them for deletion, whoever their parent is: pointers that somebody has taken
    /// are good until the event loop runs again.
    void clear();

signals:
    /// A record has been added, or all have gone: once for each `append` that succeeded and for each `clear`, of an
    /// empty database, too. From within that call, with the change done; receivers may change the database.
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
    bool m_allowDuplicates = false; ///< set by a derived class; of equal names only the first is found by `get`

private:
    QVector<Data*> data;               ///< in the order of insertion
    QVector<QString> tags;             ///< record names, each at the index of its record
    QHash<QString, int> m_firstOfName; ///< name -> index of the first record that has it
};
