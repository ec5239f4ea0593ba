#pragma once

#include "service_base.h"

/// Carries short service messages of remote units, one packet each and without flow control. Every packet starts with a
/// 16-bit id, least significant byte first, that names the remote unit.
///
/// | remote unit 2 LE | service message |
///
/// The message is opaque, may be empty, and has no bound of its own: what does not come in one read of the serial line
/// (see InternalLink) is damaged and dropped. Nobody tells the unit what has become of its message.
///
/// Lives in the service-layer thread; signals and slots reach the main thread through queued connections.
class CFallbackServiceC : public ServiceBase
{
    Q_OBJECT

public:
    CFallbackServiceC(QObject* parent, serviceId_T id);

public slots:
    /// A packet from the base controller. One without a whole id, one from elsewhere than the internal link and one of
    /// another message class than 1 are fatal assertions.
    void readData(QByteArray data, Link fromLink, quint8 messageClass) override;

    /// Sends a payload of remote unit `id` to the base controller. Whether there is such a unit is not looked at.
    /// Dropped by the transport layer while too many wait there, and when the link fails.
    void CFallbackRx(QByteArray data, unsigned short id);

signals:
    /// A payload from the base controller for remote unit `id`.
    void cFallbackTx(QByteArray data, unsigned short id);
};
