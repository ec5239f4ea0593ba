#pragma once

#include "baseunit.h"
#include "fakelinks.h"
#include "rgpcom.h"

constexpr quint16 Unit = 5;
constexpr quint16 OtherUnit = 6;
constexpr quint16 Stranger = 77;
// Message ids on the wire.
constexpr quint8 Init = 1;
constexpr quint8 InitAck = 2;
constexpr quint8 Command = 3;
constexpr quint8 Periodic = 4;
constexpr quint8 Forward = 5;
constexpr quint8 MachineStop = 7;
constexpr quint8 Status = 8;

constexpr char NotPaired[] = "This RU is not paired to this BU.";

/// A hub with one unit on a TCP link. INIT has not been sent.
struct Hub
{
    enum Checksums { Complete, Ordered }; ///< whether the hub's first list of checksums is awaited

    explicit Hub(BaseUnit& unit, Checksums checksums = Complete)
        : hub(&unit.tags, unit.configuration.data(), nullptr)
    {
        hub.addGLink(Unit, &link);
        if (checksums == Complete) {
            QByteArray result;
            hub.getAppChecksum(result);
        }
    }

    /// The unit introduces itself, as `id`, and acknowledges the answer.
    void join(quint16 id = Unit)
    {
        hub.dataFromGLink(id, Init, initPayload(id, BaseUnit::Identity), &link);
        acknowledge(id);
        link.sent.all.clear();
    }
    void acknowledge(quint16 id = Unit) { hub.messageSent(id, link.sent.lastRefNr(), &link); }

    FakeTcpLink link;
    RGPCom hub;
};
