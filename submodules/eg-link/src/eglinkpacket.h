#pragma once

#include "crc_std32.h"

#include <QByteArray>

/// The packets that base unit and machine controller exchange, as values without I/O. Stateless and re-entrant.
///
/// All numbers are little-endian, apart from the CRC (see CrcStd32):
///
///     | type 4 | revision 2 | origin 2 | serial 2 | data size 2 | spare 4 | payload | CRC 4 |
///
/// Base unit 1001 acknowledges command 5 in its packet number 7 (VRAI):
///
///     56 52 41 49 | 00 00 | E9 03 | 07 00 | 02 00 | 00 00 00 00 | 05 00 | CRC
///
/// | type | to         | payload in bytes                 | answered by                                |
/// |------|------------|----------------------------------|--------------------------------------------|
/// | VRPI | controller | periodic data 0 to 492           | nothing                                    |
/// | VRPO | base unit  | index 1, periodic data 0 to 491  | nothing                                    |
/// | VRCI | controller | id 2, reserved 4, command to 486 | VRAO, with the same id; repeated until it  |
/// | VRCO | base unit  | id 2, reserved 4, command to 486 | VRAI, with the same id                     |
namespace EGLinkPacket {

constexpr int TypeOffset = 0;
constexpr int TypeSize = 4;
constexpr int RevisionOffset = TypeOffset + TypeSize;
constexpr int OriginOffset = RevisionOffset + 2;
constexpr int SerialOffset = OriginOffset + 2;
constexpr int DataSizeOffset = SerialOffset + 2;
constexpr int SpareOffset = DataSizeOffset + 2;
constexpr int SpareSize = 4;
constexpr int HeaderSize = SpareOffset + SpareSize;
static_assert(HeaderSize == 16, "machine controllers expect a header of 16 bytes");

constexpr int MaxPayloadSize = 492; ///< what the header and the CRC leave of 512 bytes
constexpr int MaxPacketSize = HeaderSize + MaxPayloadSize + CrcStd32::Size;
static_assert(MaxPacketSize == 512, "no datagram of the link exceeds 512 bytes");

/// Payload of VRPO: | sub-packet index 1 | data |
constexpr int VrpoIndexSize = 1;
constexpr int MaxVrpoDataSize = MaxPayloadSize - VrpoIndexSize;
static_assert(MaxVrpoDataSize == 491, "the controller splits its periodic data every 491 bytes");

/// Payload of VRCI and VRCO: | command id 2 | reserved 4 | command |. Payload of VRAI and VRAO: | command id 2 |.
constexpr int CommandIdSize = 2;
constexpr int CommandReservedSize = 4;
constexpr int CommandOffset = CommandIdSize + CommandReservedSize;
constexpr int MaxCommandSize = MaxPayloadSize - CommandOffset;

constexpr quint16 Revision = 0;                ///< the only one there is
constexpr quint16 MachineControllerOrigin = 0; ///< base units state their id

/// "I" is into the machine controller, "O" out of it.
enum class Type : quint8 {
    None, ///< not one of the names below, or a packet that failed a check
    Vrpi, ///< periodic data into the controller
    Vrpo, ///< periodic data out of the controller
    Vrci, ///< command into the controller
    Vrco, ///< command out of the controller
    Vrai, ///< acknowledgement of a VRCO
    Vrao, ///< acknowledgement of a VRCI
};

/// The four letters of a type on the wire; "NONE" for Type::None.
QByteArray nameOf(Type type);
/// @return Type::None for anything but the six names.
Type typeOf(const QByteArray& name);

/// The header fields as they arrived, none of them checked.
struct Header
{
    Type type = Type::None;
    quint16 revision = 0;
    quint16 origin = 0;
    quint16 serial = 0;
    qint16 dataSize = 0; ///< signed on the wire, so a lying field may be negative
};

/// Reads the header of a packet whose CRC is stripped. The caller guarantees at least HeaderSize bytes.
Header parseHeader(const QByteArray& packet);

/// The 16 header bytes of a packet that the base unit sends. Room for the largest packet is reserved with them, so that
/// payload and CRC can be appended without another allocation.
/// @param dataSize  bytes of the payload, 0 to MaxPayloadSize; not checked.
QByteArray header(Type type, quint16 origin, quint16 serial, int dataSize);

/// Payload of a VRCI; at most MaxCommandSize bytes of command fit, which is not checked.
QByteArray commandPayload(quint16 commandId, const QByteArray& command);
/// Payload of a VRAI.
QByteArray acknowledgementPayload(quint16 commandId);

/// The command id at the front of a VRCO or VRAO payload. The caller guarantees at least CommandIdSize bytes.
quint16 commandIdOf(const QByteArray& payload);

} // namespace EGLinkPacket
