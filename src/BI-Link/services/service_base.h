#pragma once

#include "link.h"

#include <QByteArray>
#include <QObject>

/// What the services of the internal link have in common: an id, under which packets reach them, and the way out.
///
/// All services live in the service-layer thread and are children of the ServiceLayer.
class ServiceBase : public QObject
{
    Q_OBJECT

public:
    /// @param serviceId  one of those that `link.h` names.
    ServiceBase(QObject* parent, signed char serviceId);
    ~ServiceBase() override;

public slots:
    /// A payload that the base controller has sent to this service. Does nothing here.
    virtual void readData(QByteArray data, Link fromLink, quint8 messageClass);

signals:
    /// Sends `data` to the base controller's service `serviceId`. Message class 1: acknowledged by the transport layer
    /// over there; 2: answered by the service; 3: a reply to the last packet of class 2.
    void readyReadFromService(QByteArray data, Link toLink, quint8 serviceId, quint8 messageClass);

protected:
    const quint8 serviceId;
};
