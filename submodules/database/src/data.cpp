#include "data.h"

#include <utility>

Data::Data(QString tagName, QObject* parent)
    : QObject(parent)
    , tag(std::move(tagName))
{}

QString Data::getTag() const
{
    return tag;
}

QString Data::getField(QString key) const
{
    return fields.value(key);
}

void Data::insertField(QString key, QString value)
{
    fields.insert(key, value);
}
