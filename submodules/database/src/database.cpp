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
    if (!m_firstOfName.contains(name)) {
        m_firstOfName.insert(name, data.size());
    }
    data.append(record);
    tags.append(name);
    recordAppended(record);
    emit databaseUpdated();
}

Data* Database::get(QString name) const
{
    const auto found = m_firstOfName.constFind(name);
    return found == m_firstOfName.cend() ? nullptr : data.at(*found);
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
    m_firstOfName.clear();
    recordsCleared();
    emit databaseUpdated();
}

void Database::recordAppended(Data* record)
{
    Q_UNUSED(record)
}

void Database::recordsCleared() {}
