#include "peers.h"

#include "board.h"
#include "failure.h"

#include <cerrno>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace bench {

namespace {

constexpr int PacketNumbers = 64;
constexpr Nanoseconds HeartbeatAfter = 250 * Millisecond;
constexpr int ConnectBoundMs = 5000;
constexpr std::size_t CommandHeaderSize = 6; // id and reserved bytes before a command to or from the controller

/// Reads once into a buffer that lives until the next call. @return what came, empty when nothing did.
std::string_view readOnce(int fd, bool& isOpen)
{
    static char buffer[65536];
    const ssize_t count = read(fd, buffer, sizeof(buffer));
    isOpen = count > 0 || (count < 0 && (errno == EAGAIN || errno == EIO));
    return {buffer, count > 0 ? static_cast<std::size_t>(count) : 0};
}

void toGroup(int fd, const std::string& datagram)
{
    static const sockaddr_in group = addressOf(ControllerGroup, BaseUnitPort);
    sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&group), sizeof(group));
}

} // namespace

// --- base controller ------------------------------------------------------------------------------------------------

BaseController::BaseController(Loop& loop, int fd)
    : m_loop(loop)
    , m_fd(fd)
{
    fcntl(m_fd, F_SETFL, O_RDWR | O_NONBLOCK);
    bool isOpen = true;
    while (!readOnce(m_fd, isOpen).empty()) {
        // the last words of a server before
    }
    m_loop.watch(m_fd, [this] { readable(); });
}

BaseController::~BaseController()
{
    m_loop.unwatch(m_fd);
    close(m_fd);
}

Nanoseconds BaseController::send(std::uint8_t service, const std::string& payload)
{
    const std::string frame = frameOf({TransportAck, m_next, service, payload});
    m_next = static_cast<std::uint8_t>((m_next + 1) % PacketNumbers);
    ++m_sent;
    const Nanoseconds when = now();
    writeAll(m_fd, frame);
    return when;
}

void BaseController::readable()
{
    bool isOpen = true;
    m_rest += readOnce(m_fd, isOpen);
    const Nanoseconds when = now();
    for (std::size_t end = m_rest.find(EndOfFrame); end != std::string::npos; end = m_rest.find(EndOfFrame)) {
        take(m_rest.substr(0, end + 1), when);
        m_rest.erase(0, end + 1);
    }
}

void BaseController::take(const std::string& frame, Nanoseconds when)
{
    const std::optional<Packet> packet = parseFrame(frame);
    if (!packet) {
        return; // cut short by the start or the end of a server
    }
    firstFrame = firstFrame == 0 ? when : firstFrame;
    if (packet->messageClass == Ack) {
        ++m_acknowledged;
    } else {
        ++messages;
        const bool isQuestion = packet->messageClass == ServiceAck;
        m_loop.later([this, asked = *packet, isQuestion] { answer(asked, std::string(isQuestion ? 4 : 0, '\0')); });
    }
    if (packet->service == Command && packet->messageClass == TransportAck && commandReceived) {
        commandReceived(packet->payload, when);
    }
}

void BaseController::answer(const Packet& packet, const std::string& payload)
{
    writeAll(m_fd, frameOf({Ack, packet.number, packet.service, payload}));
}

// --- remote unit ----------------------------------------------------------------------------------------------------

RemoteUnit::RemoteUnit(Loop& loop, unsigned id, bool introduces)
    : m_loop(loop)
    , m_fd(peerSocket(SOCK_STREAM))
    , m_isJoined(!introduces)
{
    const sockaddr_in address = addressOf(BoardOnPrivateNetwork, GLinkPort);
    connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    pollfd waiting{m_fd, POLLOUT, 0};
    check(poll(&waiting, 1, ConnectBoundMs) == 1 && (waiting.revents & (POLLERR | POLLHUP)) == 0, "connecting a unit");
    setNoDelay(m_fd);
    m_loop.watch(m_fd, [this] { readable(); });
    m_heard = now();
    if (introduces) {
        writeAll(m_fd, glinkInit(id, BaseUnitId));
    }
}

RemoteUnit::~RemoteUnit()
{
    m_loop.unwatch(m_fd);
    close(m_fd);
}

Nanoseconds RemoteUnit::sendCommand(const std::string& payload)
{
    const std::string frame = glinkFrame(UnitCommand, false, payload);
    m_awaitsAck = true;
    const Nanoseconds when = now();
    writeAll(m_fd, frame);
    return when;
}

void RemoteUnit::beat()
{
    if (now() - m_heard > HeartbeatAfter) {
        writeAll(m_fd, glinkFrame(Heartbeat, false, std::string(4, '\0')));
    }
}

void RemoteUnit::readable()
{
    bool isOpen = true;
    m_rest += readOnce(m_fd, isOpen);
    m_heard = now();
    check(isOpen, "the base unit has closed a unit's connection");
    std::string_view stream = m_rest;
    while (const std::optional<GLinkMessage> message = takeGLinkMessage(stream)) {
        take(*message, m_heard);
    }
    m_rest.erase(0, m_rest.size() - stream.size());
    if (!m_answers.empty()) {
        m_loop.later([this] {
            writeAll(m_fd, m_answers);
            m_answers.clear();
        });
    }
}

void RemoteUnit::take(const GLinkMessage& message, Nanoseconds when)
{
    if (message.isAck) {
        m_awaitsAck = m_awaitsAck && message.id != UnitCommand;
        return;
    }
    ++messages;
    m_answers += glinkFrame(message.id, true, {});
    if (message.id == InitAck) {
        check(readLittle16(message.payload, 0) == 0, "the base unit refuses a unit");
        m_isJoined = true;
    }
    if (received) {
        received(message.id, message.payload, when);
    }
}

// --- machine controller ---------------------------------------------------------------------------------------------

MachineController::MachineController(Loop& loop)
    : m_loop(loop)
    , m_fd(peerSocket(SOCK_DGRAM))
{
    bindTo(m_fd, "0.0.0.0", ControllerPort);
    joinGroup(m_fd, PeerOnWire);
    m_loop.watch(m_fd, [this] { readable(); });
}

MachineController::~MachineController()
{
    m_loop.unwatch(m_fd);
    close(m_fd);
}

Nanoseconds MachineController::sendSet(const std::string& data)
{
    const std::string datagram = controllerDatagram("VRPO", ++m_serial & 0xFFFF, std::string(1, '\0') + data);
    const Nanoseconds when = now();
    toGroup(m_fd, datagram);
    return when;
}

void MachineController::readable()
{
    bool isOpen = true;
    const std::string_view datagram = readOnce(m_fd, isOpen);
    const Nanoseconds when = now();
    const std::optional<ControllerPacket> packet = parseControllerDatagram(datagram);
    if (!packet) {
        return;
    }
    ++messages;
    if (packet->type != "VRCI" || packet->payload.size() < CommandHeaderSize) {
        return;
    }
    m_loop.later([this, id = packet->payload.substr(0, 2)] {
        toGroup(m_fd, controllerDatagram("VRAO", ++m_serial & 0xFFFF, id));
    });
    if (commandReceived) {
        commandReceived(packet->payload.substr(CommandHeaderSize), when);
    }
}

// --- API client -----------------------------------------------------------------------------------------------------

ApiClient::ApiClient(Loop& loop)
    : m_loop(loop)
    , m_fd(boardSocket(SOCK_DGRAM))
{
    bindTo(m_fd, Loopback, ApiPushPort);
    m_loop.watch(m_fd, [this] { readable(); });
}

ApiClient::~ApiClient()
{
    m_loop.unwatch(m_fd);
    close(m_fd);
}

void ApiClient::readable()
{
    bool isOpen = true;
    const std::string status(readOnce(m_fd, isOpen));
    const Nanoseconds when = now();
    if (status.empty()) {
        return;
    }
    ++messages;
    if (pushed) {
        pushed(status, when);
    }
}

} // namespace bench
