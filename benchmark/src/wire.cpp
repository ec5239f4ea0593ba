#include "wire.h"

#include "failure.h"

#include <array>

namespace bench {

namespace {

constexpr char StartOfFrame = '\x82';
constexpr char Escape = '\x90';
constexpr char EscapeFlip = '\x80';
constexpr std::size_t PacketHeaderSize = 2;

// | size 2 LE | stream 1 | id 1 | type 1 | time 4 | reserved 4 | CRC 4 |
constexpr std::size_t GLinkIdOffset = 3;
constexpr std::size_t GLinkTypeOffset = 4;

// | type 4 | revision 2 | origin 2 | serial 2 | size 2 | spare 4 |
constexpr std::size_t ControllerHeaderSize = 16;

std::array<std::uint32_t, 256> makeTable()
{
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t index = 0; index < table.size(); ++index) {
        std::uint32_t value = index << 24;
        for (int bit = 0; bit < 8; ++bit) {
            value = (value << 1) ^ ((value >> 31) * 0x04C11DB7U);
        }
        table[index] = value;
    }
    return table;
}

bool isSpecial(char byte)
{
    return byte == StartOfFrame || byte == Escape || byte == EndOfFrame;
}

} // namespace

std::uint32_t crc(std::string_view data)
{
    static const std::array<std::uint32_t, 256> table = makeTable();
    std::uint32_t value = 0xFFFFFFFFU;
    for (const char byte : data) {
        value = (value << 8) ^ table[(value >> 24) ^ static_cast<std::uint8_t>(byte)];
    }
    return value;
}

std::string withCrc(std::string data)
{
    const std::uint32_t value = crc(data);
    for (int shift = 24; shift >= 0; shift -= 8) {
        data += static_cast<char>(value >> shift);
    }
    return data;
}

bool intact(std::string_view data)
{
    return data.size() >= CrcSize && crc(data) == 0;
}

std::string little16(unsigned value)
{
    return {static_cast<char>(value), static_cast<char>(value >> 8)};
}

unsigned readLittle16(std::string_view data, std::size_t offset)
{
    return static_cast<std::uint8_t>(data[offset]) | static_cast<unsigned>(static_cast<std::uint8_t>(data[offset + 1]))
                                                         << 8;
}

// --- internal link --------------------------------------------------------------------------------------------------

std::string frameOf(const Packet& packet)
{
    std::string body{static_cast<char>(packet.messageClass << 6 | packet.number), static_cast<char>(packet.service)};
    body = withCrc(body + packet.payload);
    std::string frame{StartOfFrame};
    for (const char byte : body) {
        if (isSpecial(byte)) {
            frame += Escape;
            frame += static_cast<char>(byte ^ EscapeFlip);
        } else {
            frame += byte;
        }
    }
    return frame + EndOfFrame;
}

std::optional<Packet> parseFrame(std::string_view frame)
{
    std::string body;
    for (std::size_t i = 0; i < frame.size(); ++i) {
        if (frame[i] == Escape && i + 1 < frame.size()) {
            body += static_cast<char>(frame[++i] ^ EscapeFlip);
        } else if (!isSpecial(frame[i])) {
            body += frame[i];
        }
    }
    if (body.size() < PacketHeaderSize + CrcSize || !intact(body)) {
        return std::nullopt;
    }
    const auto control = static_cast<std::uint8_t>(body[0]);
    return Packet{static_cast<std::uint8_t>(control >> 6), static_cast<std::uint8_t>(control & 0x3F),
                  static_cast<std::uint8_t>(body[1]),
                  body.substr(PacketHeaderSize, body.size() - PacketHeaderSize - CrcSize)};
}

// --- GLink ----------------------------------------------------------------------------------------------------------

std::string glinkFrame(std::uint8_t id, bool isAck, std::string_view payload)
{
    const char stream = id == UnitCommand ? '\0' : '\1';
    std::string header = little16(static_cast<unsigned>(payload.size()));
    header += {stream, static_cast<char>(id), static_cast<char>(isAck)};
    header.append(8, '\0'); // time stamp and reserved bytes: the base unit only logs the one and skips the other
    return withCrc(withCrc(header).append(payload));
}

std::string glinkInit(unsigned unitId, unsigned baseId)
{
    constexpr std::size_t ChecksumSize = 16;
    return glinkFrame(Init, false,
                      std::string{1, 0} + little16(unitId) + little16(baseId) + std::string(ChecksumSize, '\0'));
}

std::optional<GLinkMessage> takeGLinkMessage(std::string_view& stream)
{
    if (stream.size() < GLinkHeaderSize) {
        return std::nullopt;
    }
    const std::size_t payloadSize = readLittle16(stream, 0);
    const std::size_t size = GLinkHeaderSize + payloadSize + CrcSize;
    if (stream.size() < size) {
        return std::nullopt;
    }
    const std::string_view frame = stream.substr(0, size);
    check(intact(frame), "a damaged GLink frame from the base unit");
    stream.remove_prefix(size);
    return GLinkMessage{static_cast<std::uint8_t>(frame[GLinkIdOffset]), frame[GLinkTypeOffset] != 0,
                        frame.substr(GLinkHeaderSize, payloadSize)};
}

// --- EGLink ---------------------------------------------------------------------------------------------------------

std::string controllerDatagram(std::string_view type, unsigned serial, std::string_view payload)
{
    std::string packet{type};
    packet += little16(0) + little16(0) + little16(serial) + little16(static_cast<unsigned>(payload.size()));
    packet.append(4, '\0');
    return withCrc(packet.append(payload));
}

std::optional<ControllerPacket> parseControllerDatagram(std::string_view datagram)
{
    if (datagram.size() < ControllerHeaderSize + CrcSize || !intact(datagram)) {
        return std::nullopt;
    }
    return ControllerPacket{
        std::string(datagram.substr(0, 4)),
        std::string(datagram.substr(ControllerHeaderSize, datagram.size() - ControllerHeaderSize - CrcSize))};
}

} // namespace bench
