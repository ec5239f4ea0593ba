#pragma once

#include "crc_std32.h"

#include <QByteArray>

/// Packets as a machine controller makes them, for tests; laid out here by hand, without the code under test.
struct ControllerPacket
{
    QByteArray type;
    quint16 serial = 0;
    QByteArray payload;
    quint16 origin = 0;
    quint16 revision = 0;
    int dataSize = -1; ///< -1: that of the payload
    QByteArray spare = QByteArray(4, '\0');

    QByteArray withoutCrc() const
    {
        const int size = dataSize < 0 ? payload.size() : dataSize;
        return type + word(revision) + word(origin) + word(serial) + word(static_cast<quint16>(size)) + spare + payload;
    }

    QByteArray bytes() const
    {
        QByteArray packet = withoutCrc();
        CrcStd32::add(packet);
        return packet;
    }

    static QByteArray word(quint16 value)
    {
        return QByteArray().append(static_cast<char>(value & 0xff)).append(static_cast<char>(value >> 8));
    }
};

inline QByteArray vrpo(quint16 serial, quint8 index, const QByteArray& data)
{
    return ControllerPacket{"VRPO", serial, QByteArray(1, static_cast<char>(index)) + data}.bytes();
}

inline QByteArray vrco(quint16 serial, quint16 commandId, const QByteArray& command)
{
    return ControllerPacket{"VRCO", serial, ControllerPacket::word(commandId) + QByteArray(4, '\0') + command}.bytes();
}

inline QByteArray vrao(quint16 serial, quint16 commandId)
{
    return ControllerPacket{"VRAO", serial, ControllerPacket::word(commandId)}.bytes();
}
