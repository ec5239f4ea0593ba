#include "vrporeassembly.h"

#include "eglinkpacket.h"

#include <QDebug>

#include <algorithm>
#include <limits>

using EGLinkPacket::MaxVrpoDataSize;
using EGLinkPacket::VrpoIndexSize;

namespace {

/// The index is one byte, so a size beyond 255 sub-packets cannot be carried; it is cut off rather than wrapped to a
/// small count with which torn sets would look complete.
quint8 subPacketCount(quint32 byteCount)
{
    const quint32 count = byteCount / MaxVrpoDataSize + (byteCount % MaxVrpoDataSize != 0 ? 1 : 0);
    return static_cast<quint8>(std::min<quint32>(count, std::numeric_limits<quint8>::max()));
}

} // namespace

VrpoReassembly::VrpoReassembly(quint32 vrpoByteCount)
    : m_vrpoPartialPayloadTotalCount(subPacketCount(vrpoByteCount))
    , m_vrpoPartialPayload(m_vrpoPartialPayloadTotalCount)
{}

std::optional<QByteArray> VrpoReassembly::add(quint16 serial, const QByteArray& payload)
{
    if (payload.size() < VrpoIndexSize) {
        qDebug() << "Empty VRPO received, ignored.";
        return std::nullopt;
    }
    takeSerial(serial);
    if (!store(payload) || m_vrpoPartialPayloadReceivedCount < m_vrpoPartialPayloadTotalCount) {
        return std::nullopt;
    }
    return takeSet();
}

void VrpoReassembly::reset()
{
    clearSlots();
    m_currentVRPOSerial = 0;
}

void VrpoReassembly::takeSerial(quint16 serial)
{
    if (m_vrpoPartialPayloadReceivedCount != 0 && serial != m_currentVRPOSerial) {
        qDebug() << "Out of sequence partial VRPO received.";
        clearSlots();
    }
    m_currentVRPOSerial = serial;
}

bool VrpoReassembly::store(const QByteArray& payload)
{
    const auto index = static_cast<quint8>(payload.at(0));
    if (index >= m_vrpoPartialPayloadTotalCount) {
        qDebug() << "Out of range VRPO subpacket index received, ignored. (" << index << ")";
        return false;
    }
    Slot& slot = m_vrpoPartialPayload[index];
    if (slot.received) {
        qDebug() << "Duplicate partial VRPO received.";
        return false;
    }
    slot = {true, payload.mid(VrpoIndexSize)};
    ++m_vrpoPartialPayloadReceivedCount;
    return true;
}

QByteArray VrpoReassembly::takeSet()
{
    QByteArray data;
    data.reserve(m_vrpoPartialPayloadTotalCount * MaxVrpoDataSize);
    for (const Slot& slot : qAsConst(m_vrpoPartialPayload)) {
        data.append(slot.data);
    }
    clearSlots();
    return data;
}

void VrpoReassembly::clearSlots()
{
    m_vrpoPartialPayload.fill(Slot());
    m_vrpoPartialPayloadReceivedCount = 0;
}
