#pragma once

#include "service_base.h"

class Configuration;
class RGPCom;
class TagDatabase;

/// Passes periodic field-bus data from the base controller to the remote units' hub. Nothing goes the other way.
///
/// Lives in the service-layer thread; the hub is in the main thread and is reached through a queued connection, made
/// where the server is put together.
class FbPeriodicService : public ServiceBase
{
    Q_OBJECT

public:
    /// Nothing but parent and id is used.
    FbPeriodicService(QObject* parent, quint8 serviceId, Configuration* configuration, TagDatabase* tagDatabase,
                      RGPCom* rgpCom);

public slots:
    /// Periodic data of 5 to 204 bytes, passed on as it is. Any other length is a fatal assertion: the unit restarts
    /// rather than forward malformed field-bus traffic.
    void readData(QByteArray data, Link fromLink, quint8 messageClass) override;

signals:
    void sendToRGP(QByteArray data);
};
