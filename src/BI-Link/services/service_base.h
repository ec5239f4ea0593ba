#pragma once

#include "link.h"

#include <QByteArray>
#include <QObject>

/// What the services of the internal link have in common: an id, under which packets reach them, and the way out.
///
/// All services live in the service-layer thread and are children of the ServiceLayer, which finds them by their id and
/// connects what they send:
///
///     class Mirror : public ServiceBase
///     {
///         void readData(QByteArray data, Link, quint8 messageClass) override
///         {
///             if (messageClass == MSG_CLASS_SERVICE_ACK) {
///                 emit readyReadFromService(data, Internal, serviceId, MSG_CLASS_ACK);
///             }
///         }
///     };
class ServiceBase : public QObject
{
    Q_OBJECT

public:
    /// @param serviceId  one of those that `link.h` names.
    ServiceBase(QObject* parent, signed char serviceId);
    ~ServiceBase() override;

public slots:
    /// A payload that the base controller has sent to this service. Does nothing here.
    ///
    /// Called in the middle of the reception of a packet: a class 1 is acknowledged when this returns, and a class 2
    /// when the service has sent its class 3, in here or later. Nothing else of the link moves meanwhile, so it must
    /// not wait. The same payload may come twice, when the base controller has missed an acknowledgement; it may be
    /// empty.
    virtual void readData(QByteArray data, Link fromLink, quint8 messageClass);

signals:
    /// Sends `data` to the base controller's service `serviceId`. Message class 1: acknowledged by the transport layer
    /// over there; 2: answered by the service; 3: a reply to the last packet of class 2. Returns before anything of it
    /// is acknowledged, and nobody tells the sender of a packet that was dropped (see TransportLayer).
    void readyReadFromService(QByteArray data, Link toLink, quint8 serviceId, quint8 messageClass);

protected:
    const quint8 serviceId; ///< all 8 bits, whatever sign the parameter had
};
