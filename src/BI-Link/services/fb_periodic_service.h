#pragma once

#include "service_base.h"

class Configuration;
class RGPCom;
class TagDatabase;

/// Passes periodic field-bus data from the base controller to the remote units' hub. Nothing goes the other way.
///
///     base controller -> readData() -> sendToRGP() -> hub: | 1 | data, 5 to 204 | -> every remote unit
///
/// The base controller sets the pace, with one packet for each set of data; nothing is kept here. The hub keeps the
/// last set for units that join later.
///
/// Lives in the service-layer thread; the hub is in the main thread and is reached through a queued connection, made
/// where the server is put together.
class FbPeriodicService : public ServiceBase
{
    Q_OBJECT

public:
    /// Nothing but parent and id is used; the others may be null.
    FbPeriodicService(QObject* parent, quint8 serviceId, Configuration* configuration, TagDatabase* tagDatabase,
                      RGPCom* rgpCom);

public slots:
    /// Periodic data of 5 to 204 bytes, passed on as it is. Any other length is a fatal assertion: the unit restarts
    /// rather than forward malformed field-bus traffic.
    void readData(QByteArray data, Link fromLink, quint8 messageClass) override;

signals:
    /// A set of data, without the origin byte that the hub puts in front. Emitted in the service-layer thread; the
    /// bytes are shared and not copied.
    void sendToRGP(QByteArray data);
};
