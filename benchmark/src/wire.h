#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// The bytes on the server's links, written for the instrument alone and independently of the server's own codecs.
/// Byte strings are std::string. Nothing here does I/O.
namespace bench {

/// CRC-32 with polynomial 0x04C11DB7, initial value 0xFFFFFFFF, neither reflected nor inverted.
std::uint32_t crc(std::string_view data);
/// `data` followed by its CRC, most significant byte first.
std::string withCrc(std::string data);
bool intact(std::string_view data);

std::string little16(unsigned value);
unsigned readLittle16(std::string_view data, std::size_t offset);

// --- internal link: 0x82, stuffed (control byte, service id, payload, CRC), 0x0A ---

enum MessageClass : std::uint8_t { TransportAck = 1, ServiceAck = 2, Ack = 3 };
enum Service : std::uint8_t { Events = 100, ProcessData = 101, Configuration = 102, Command = 106, Periodic = 107 };

struct Packet
{
    std::uint8_t messageClass;
    std::uint8_t number; ///< 0 to 63
    std::uint8_t service;
    std::string payload;
};

constexpr char EndOfFrame = '\x0A';

std::string frameOf(const Packet& packet);
/// @return nothing when the frame is damaged.
std::optional<Packet> parseFrame(std::string_view frame);

// --- GLink: header of 17 bytes with its own CRC, payload, CRC ---

enum GLinkId : std::uint8_t { Heartbeat = 0, Init = 1, InitAck = 2, UnitCommand = 3, UnitPeriodic = 4, BaseStatus = 8 };

constexpr std::size_t GLinkHeaderSize = 17;
constexpr std::size_t CrcSize = 4;

struct GLinkMessage
{
    std::uint8_t id;
    bool isAck;
    std::string_view payload; ///< points into the buffer that was parsed
};

std::string glinkFrame(std::uint8_t id, bool isAck, std::string_view payload);
std::string glinkInit(unsigned unitId, unsigned baseId);
/// Takes the first frame off `stream`. @return nothing while it is not complete; a damaged frame ends the program.
std::optional<GLinkMessage> takeGLinkMessage(std::string_view& stream);

// --- EGLink: header of 16 bytes, payload, CRC ---

struct ControllerPacket
{
    std::string type; ///< four letters
    std::string payload;
};

std::string controllerDatagram(std::string_view type, unsigned serial, std::string_view payload);
std::optional<ControllerPacket> parseControllerDatagram(std::string_view datagram);

} // namespace bench
