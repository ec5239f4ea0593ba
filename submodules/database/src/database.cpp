#include "database.h"

#include <QDebug>

Database::Database(QObject* parent)
    : QObject(parent)
{}

void Database::append(Data* record)
{
    if (record == nullptr || record->getTag().isEmpty()) {
        qWarning() << "Database append error, empty tag";
        return;
    }
    const QString name = record->getTag();
    if (!m_allowDuplicates && get(name) != nullptr) {
        qWarning() << "Database tag" << name << "exists, not appended";
        return;
    }
    data.append(record);
    tags.append(name);
    recordAppended(record);
    emit databaseUpdated();
}

Data* Database::get(QString name) const
{
    const int index = tags.indexOf(name);
    return index < 0 ? nullptr : data.at(index);
}

Data* Database::at(int index) const
{
    if (!holdsIndex(index)) {
        qWarning() << "Database index is out of range, index =" << index << " size =" << size();
        return nullptr;
    }
    return data.at(index);
}

int Database::size() const
{
    return data.size();
}

QVector<Data*> Database::getAll() const
{
    return data;
}

void Database::clear()
{
    for (Data* record : qAsConst(data)) {
        record->deleteLater();
    }
    data.clear();
    tags.clear();
    recordsCleared();
    emit databaseUpdated();
}

void Database::recordAppended(Data* record)
{
    Q_UNUSED(record)
}

void Database::recordsCleared() {}
