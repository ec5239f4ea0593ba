#pragma once

#include "service_base.h"

class Configuration;
class RGPCom;
class TagDatabase;

/// Passes field-bus commands of at most 16 bytes between the base controller and the remote units' hub.
///
/// Towards the base controller every command is filled up with zeros to 16 bytes, and goes out only if the app setting
/// "FMAP" has bit 0 or bit 1 set.
///
///     base controller -> readData() -> sendCmdToRGPCom() -> hub -> every remote unit
///     remote unit -> hub -> sendCmd() -> | command, up to 16 | zeros | -> base controller
///
/// What a command means, and whether its unit may give it, is the base controller's to judge. A command that the base
/// controller repeats for want of our acknowledgement goes to the units a second time.
///
/// Lives in the service-layer thread; the hub is in the main thread and is reached through queued connections, made
/// where the server is put together.
class FbCmdService : public ServiceBase
{
    Q_OBJECT

public:
    /// The tag database and the hub are not used.
    FbCmdService(QObject* parent, quint8 serviceId, Configuration* configuration, TagDatabase* tagDatabase,
                 RGPCom* rgpCom);

public slots:
    /// A command from the base controller, passed on as it is. One of more than 16 bytes is a fatal assertion: the unit
    /// restarts rather than forward malformed field-bus traffic.
    void readData(QByteArray data, Link fromLink, quint8 messageClass) override;

    /// A command for the base controller. A configuration without "FMAP", or whose value is no number of four bytes, is
    /// a fatal assertion, and so is a command of more than 16 bytes, forwarded or not. "FMAP" is looked up for each
    /// command: a reload counts for the next one. While `TransportLayer::MaxWaitingPackets` commands wait for the line,
    /// further ones are dropped.
    void sendCmd(QByteArray cmd);

signals:
    /// A command for all remote units, 0 to 16 bytes. Emitted in the service-layer thread.
    void sendCmdToRGPCom(QByteArray cmd);

private:
    Configuration* myConfiguration;
};
