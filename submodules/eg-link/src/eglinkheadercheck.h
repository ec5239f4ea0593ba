#pragma once

#include "eglinkpacket.h"

/// Judges the headers of received packets and watches their serials. No I/O; not thread-safe.
///
/// The serials are those of the sender's running counter, 16 bits unsigned. Only repetitions count as sequence errors,
/// gaps do not: the controller's packets may get lost, but a copy of the last one is worth a line in the log.
class EGLinkHeaderCheck
{
public:
    /// Forgets the serials: the next packet passes the sequence check whatever its serial.
    void restart() { m_isFirstRxPacket = true; }

    /// Checks the header of a packet whose CRC is stripped, and leaves the payload alone in `packet`.
    ///
    /// Each failed check writes its debug line and the checks go on, so that one look at the log tells all that is
    /// wrong. A packet that cannot hold a header, or is larger than the link allows, fails without further lines and
    /// without touching the serials.
    /// @param serial receives the packet's serial.
    /// @return the packet's type, or Type::None if a check other than that of the sequence failed.
    EGLinkPacket::Type checkAndRemoveHeader(QByteArray& packet, quint16& serial);

private:
    void checkSequence(const EGLinkPacket::Header& header, const QByteArray& payload);
    bool isRepeated(const EGLinkPacket::Header& header, const QByteArray& payload) const;

    bool m_isFirstRxPacket = true; ///< until the first packet after (re)configuration has been checked
    quint16 m_prevPacketSerial = 0;
    quint16 m_prevVrpo0Serial = 0; ///< serial of the last VRPO sub-packet 0
};
