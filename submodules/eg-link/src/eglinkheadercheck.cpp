#include "eglinkheadercheck.h"

#include <QDebug>

using namespace EGLinkPacket;

namespace {

bool require(bool holds, const char* complaint)
{
    if (!holds) {
        qDebug() << complaint;
    }
    return holds;
}

bool checkDataSize(int stated, int actual)
{
    if (stated != actual) {
        qDebug() << "Wrong data size:" << stated << "(should be" << actual << ")";
    }
    return stated == actual;
}

quint8 firstByte(const QByteArray& payload)
{
    return payload.isEmpty() ? 0 : static_cast<quint8>(payload.at(0));
}

/// An empty VRPO counts as sub-packet 0.
bool isVrpo0(const Header& header, const QByteArray& payload)
{
    return header.type == Type::Vrpo && firstByte(payload) == 0;
}

} // namespace

Type EGLinkHeaderCheck::checkAndRemoveHeader(QByteArray& packet, quint16& serial)
{
    if (packet.size() < HeaderSize || packet.size() > HeaderSize + MaxPayloadSize) {
        return Type::None;
    }
    const Header header = parseHeader(packet);
    packet.remove(0, HeaderSize);
    serial = header.serial;

    bool good = require(header.type != Type::None, "Wrong packet type.");
    good &= require(header.revision == Revision, "Wrong revision.");
    good &= require(header.origin == MachineControllerOrigin, "Origin not machine controller.");
    checkSequence(header, packet);
    good &= checkDataSize(header.dataSize, packet.size());
    return good ? header.type : Type::None;
}

void EGLinkHeaderCheck::checkSequence(const Header& header, const QByteArray& payload)
{
    if (m_isFirstRxPacket) {
        m_prevPacketSerial = m_prevVrpo0Serial = static_cast<quint16>(header.serial - 1);
        m_isFirstRxPacket = false;
    }
    if (isRepeated(header, payload)) {
        qDebug() << "Packet serial:" << header.serial << "Prev:" << m_prevPacketSerial
                 << "Prev VRPO0:" << m_prevVrpo0Serial << "Packet type:" << nameOf(header.type) << "data[0]:" << Qt::hex
                 << firstByte(payload);
        qDebug() << "Sequence number error.";
    }
    m_prevPacketSerial = header.serial;
    if (isVrpo0(header, payload)) {
        m_prevVrpo0Serial = header.serial;
    }
}

bool EGLinkHeaderCheck::isRepeated(const Header& header, const QByteArray& payload) const
{
    if (header.type != Type::Vrpo) {
        return header.serial == m_prevPacketSerial;
    }
    // All sub-packets of a set share its serial, so only the first of them can tell a repetition.
    return isVrpo0(header, payload) && header.serial == m_prevVrpo0Serial;
}
