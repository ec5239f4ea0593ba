#pragma once

#include <QByteArray>

/// Whole frames as bytes, calculated apart from the code of this project with a bit-by-bit CRC. The time stamp is
/// 0x04030201 in all of them.
namespace Frames {

inline QByteArray heartbeat()
{
    return QByteArray::fromHex("040001000001020304000000002060b0cf0000000000000000");
}
inline QByteArray heartbeatAck()
{
    return QByteArray::fromHex("000001000101020304000000007db2646400000000");
}
/// majVersion 1, minVersion 2, remote unit 0x0203, base unit 0x0405, checksum 00 01 .. 0F.
inline QByteArray init()
{
    return QByteArray::fromHex(
        "16000101000102030400000000c3b2614f010203020504000102030405060708090a0b0c0d0e0f1a611c2b");
}
/// Error code 0, empty text.
inline QByteArray initAck()
{
    return QByteArray::fromHex("2a0001020001020304000000006de85fe8") + QByteArray(42 + 4, '\0');
}
inline QByteArray initAckAck()
{
    return QByteArray::fromHex("000001020101020304000000007852391d00000000");
}
/// "abc" on stream 0.
inline QByteArray command()
{
    return QByteArray::fromHex("03000003000102030400000000ce43534a6162632c17398c");
}
inline QByteArray commandAck()
{
    return QByteArray::fromHex("00000003010102030400000000016e1e9400000000");
}
/// 01 02.
inline QByteArray periodicData()
{
    return QByteArray::fromHex("0200010400010203040000000051fbc54d0102db9bfab2");
}
inline QByteArray periodicDataAck()
{
    return QByteArray::fromHex("000001040101020304000000007672de9600000000");
}
inline QByteArray serviceForward()
{
    return QByteArray::fromHex("01000105000102030400000000ec468292aadea580d8");
}
inline QByteArray powerOff()
{
    return QByteArray::fromHex("0100010600010203040000000069367f8cbb9675461f");
}
inline QByteArray machineStop()
{
    return QByteArray::fromHex("01000107000102030400000000e9a6dfebcc68860bfd");
}
inline QByteArray baseStatus()
{
    return QByteArray::fromHex("010001080001020304000000007097ede3dd2056cd3a");
}
inline QByteArray fallbackDeInit()
{
    return QByteArray::fromHex("0000010900010203040000000018a31b8100000000");
}
inline QByteArray messageTen()
{
    return QByteArray::fromHex("0000010a0001020304000000009dd3e69f00000000");
}
inline QByteArray message255()
{
    return QByteArray::fromHex("000001ff000102030400000000a7592c8500000000");
}
/// Periodic data with message type 2.
inline QByteArray unknownType()
{
    return QByteArray::fromHex("02000104020102030400000000b13b8c360102db9bfab2");
}

/// The same frame with one bit of byte `offset` turned over.
inline QByteArray damaged(QByteArray frame, int offset)
{
    frame[offset] = static_cast<char>(frame.at(offset) ^ 0x10);
    return frame;
}

} // namespace Frames
