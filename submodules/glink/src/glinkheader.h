#pragma once

#include <QByteArray>
#include <QtGlobal>

#include "crc_std32.h"

// The messages of GLink, the protocol between the base unit and its remote units, as plain values without any I/O.
//
// A frame is a header with a CRC of its own, the payload, and a CRC over both. All multi-byte integers are
// little-endian; both CRCs stand most significant byte first, as CrcStd32 appends them.
//
// A remote unit introduces itself; then either side sends, the base unit with one message unacknowledged at a time:
//
//     remote unit                  base unit
//     INIT            ->
//                     <-           ACK of INIT, always
//                     <-           INITACK, accepted or why not
//     ACK of INITACK  ->
//     CMD, ...        ->           each is acknowledged before it is acted on
//                     <-           BASE STATUS, PERIODIC DATA, CMD, ...
//
// Records parse whatever they are given and throw nothing. They belong to the thread that uses them.

/// Layout of a frame.
///
/// | offset | size | content                                                        |
/// |-------:|-----:|----------------------------------------------------------------|
/// |      0 |    2 | payload length N, neither header nor CRCs counted              |
/// |      2 |    1 | stream                                                         |
/// |      3 |    1 | message id                                                     |
/// |      4 |    1 | message type                                                   |
/// |      5 |    4 | sender's time stamp, ms                                        |
/// |      9 |    4 | reserved: sent as zero, never read                             |
/// |     13 |    4 | CRC over bytes 0 to 12                                         |
/// |     17 |    N | payload                                                        |
/// | 17 + N |    4 | CRC over bytes 0 to 16 + N, the header's CRC included          |
///
/// An acknowledgement takes 21 bytes, a heartbeat 25, INIT 43 and its answer 63.
namespace GLinkFrame {
constexpr int SizeOffset = 0;
constexpr int StreamOffset = SizeOffset + 2;
constexpr int MsgIdOffset = StreamOffset + 1;
constexpr int MsgTypeOffset = MsgIdOffset + 1;
constexpr int TimeOffset = MsgTypeOffset + 1;
constexpr int ReservedOffset = TimeOffset + 4;
constexpr int ReservedSize = 4;
constexpr int HeaderCrcOffset = ReservedOffset + ReservedSize;
constexpr int CrcSize = CrcStd32::Size;
constexpr int HeaderSize = HeaderCrcOffset + CrcSize;
constexpr int MaxPayloadSize = 0xFFFF; ///< all that the size field can tell
static_assert(HeaderSize == 17, "remote units send and expect 17 header bytes");
} // namespace GLinkFrame

/// Layout of the INIT payload, remote unit to base unit.
///
/// | offset | size | content                                              |
/// |-------:|-----:|------------------------------------------------------|
/// |      0 |    1 | major version of the sender                          |
/// |      1 |    1 | minor version                                        |
/// |      2 |    2 | id of the remote unit                                |
/// |      4 |    2 | id of the base unit that it believes it is paired to |
/// |      6 |   16 | MD5 of its application                               |
namespace GLinkInitLayout {
constexpr int RemoteIdOffset = 2;
constexpr int BaseIdOffset = RemoteIdOffset + 2;
constexpr int ChecksumOffset = BaseIdOffset + 2;
constexpr int ChecksumSize = 16;
constexpr int Size = ChecksumOffset + ChecksumSize;
static_assert(Size == 22, "an INIT payload has 22 bytes");
} // namespace GLinkInitLayout

/// What a message is about; one byte on the wire.
enum GLinkMsgId : quint8 {
    GLINK_MSG_ID_HEARTBEAT = 0,       ///< both ways: four zero bytes
    GLINK_MSG_ID_INIT = 1,            ///< remote unit to base: GLinkInitMsg
    GLINK_MSG_ID_INITACK = 2,         ///< base to remote unit: GLinkInitAck
    GLINK_MSG_ID_CMD = 3,             ///< both ways: opaque command bytes
    GLINK_MSG_ID_PERIODIC_DATA = 4,   ///< both ways: opaque process data
    GLINK_MSG_ID_SERVICE_FORWARD = 5, ///< both ways: opaque service message, from or for the base controller
    GLINK_MSG_ID_POWER_OFF = 6,       ///< acknowledged and ignored; nothing here sends one
    GLINK_MSG_ID_M_STOP = 7,          ///< remote unit to base: machine stop; printed as "E STOP"
    GLINK_MSG_BASE_STATUS = 8,        ///< base to all remote units, every 500 ms
    GLINK_MSG_ID_FALLBACK_DEINIT = 9, ///< remote unit to base: leaves the fallback path
    GLINK_MSG_ID_INVALID = 255,       ///< of no message; one that comes is acknowledged and ignored
};

/// Whether a frame is a message or acknowledges one; one byte on the wire.
enum GLinkMsgType : quint8 {
    GLINK_MSG_TYPE_MSG = 0, ///< to be acknowledged, whatever its id
    GLINK_MSG_TYPE_ACK = 1, ///< names the acknowledged message by its id alone, there is no number
};

/// What all records of the protocol can do.
class GLinkData
{
public:
    virtual ~GLinkData() = default;
    /// Writes the record to the debug log; some records stay silent.
    virtual void print() const = 0;
    /// The record's bytes on the wire.
    virtual QByteArray serialize() const = 0;
};

/// The fixed header of every frame.
class GLinkHeader : public GLinkData
{
public:
    /// A header to be filled in by the builder: all fields zero.
    GLinkHeader() = default;

    /// Parses the first GLinkFrame::HeaderSize bytes; the reserved ones are never looked at. When there are fewer, or
    /// their CRC is wrong, `m_isCrcOk` is false and the fields stay zero.
    explicit GLinkHeader(QByteArray bytes);

    void print() const override;
    /// GLinkFrame::HeaderSize bytes, with the header's CRC.
    QByteArray serialize() const override;

    /// Writes the fields to the debug log, id and type by name.
    void printHeader() const;

    /// Milliseconds since the Unix epoch, low 32 bits: wraps about every 49.7 days. Receivers only log it.
    static quint32 timeStamp();

    /// Name of a GLinkMsgId or a GLinkMsgType in the log; "UNDEFINED" for any other number.
    static const char* msgIdName(quint8 msgId);
    static const char* msgTypeName(quint8 msgType);

    quint16 size = 0;       ///< payload length in bytes; a parsed one may be any, whatever follows
    quint8 stream = 0;      ///< 0 for commands, 1 for every other message; an acknowledgement copies it
    quint8 msgId = 0;       ///< a GLinkMsgId; a parsed one may be any number
    quint8 msgType = 0;     ///< a GLinkMsgType; a parsed one may be any number, frames of others are dropped
    quint32 time = 0;       ///< ms, see timeStamp()
    bool m_isCrcOk = false; ///< not on the wire: the bytes that were parsed had a good CRC, or the header is our own
};

/// The header of a frame that acknowledges another one. It has no payload and is never acknowledged itself.
class GLinkAck : public GLinkHeader
{
public:
    GLinkAck() = default;
    /// Acknowledges `acked`: stream and id of that header, the time of now.
    explicit GLinkAck(const GLinkHeader& acked);
};

/// With INIT a remote unit introduces itself. Whether it is accepted is the hub's decision, by `remoteId`, `baseId` and
/// the checksum; nobody looks at the versions.
class GLinkInitMsg : public GLinkData
{
public:
    GLinkInitMsg() = default;
    /// Parses a payload; fields that a short one does not reach are zero, and what a long one has beyond is ignored.
    explicit GLinkInitMsg(const QByteArray& bytes);

    void print() const override;
    /// GLinkInitLayout::Size bytes.
    QByteArray serialize() const override;

    /// The checksum as it would come from Md5Checksum.
    QByteArray checksum() const;

    quint8 majVersion = 0;
    quint8 minVersion = 0;
    quint16 remoteId = 0; ///< the sender's own
    quint16 baseId = 0;   ///< of the base unit that it believes it is paired to
    quint8 configChecksum[GLinkInitLayout::ChecksumSize] = {};
};

/// The base unit's answer to INIT: two bytes of error code, then a text field of fixed width.
class GLinkInitAck : public GLinkData
{
public:
    /// Width of the text field on the wire: longer texts are cut, shorter ones padded with zero bytes.
    static constexpr int errorStringMaxLength = 40;

    /// @param code  0 accepted, else the reason for the refusal.
    GLinkInitAck(quint16 code, const QByteArray& text);
    /// Parses a payload; a short one leaves zero and an empty text. Padding is kept in `errorString`.
    explicit GLinkInitAck(const QByteArray& bytes);

    void print() const override;
    /// 2 + errorStringMaxLength bytes.
    QByteArray serialize() const override;

    quint16 errorCode = 0;  ///< see RGPCom::InitError
    QByteArray errorString; ///< for people; as it was given or received, not yet cut or padded
};
