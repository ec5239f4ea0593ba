#include "service_base.h"

ServiceBase::ServiceBase(QObject* parent, signed char id)
    : QObject(parent)
    , serviceId(static_cast<quint8>(id))
{}

ServiceBase::~ServiceBase() = default;

void ServiceBase::readData(QByteArray data, Link fromLink, quint8 messageClass)
{
    Q_UNUSED(data)
    Q_UNUSED(fromLink)
    Q_UNUSED(messageClass)
}
