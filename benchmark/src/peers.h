#pragma once

#include "loop.h"
#include "wire.h"

#include <functional>
#include <string>
#include <vector>

/// The base unit's peers, reduced to what a measurement needs. Every one lives on the loop that it is given, stamps
/// what arrives right after the system call that delivered it, and sends its acknowledgements only when everything
/// that had arrived has been stamped.
namespace bench {

constexpr unsigned BaseUnitId = 400;

/// The far end of the UART. Owns the descriptor.
class BaseController
{
public:
    BaseController(Loop& loop, int fd);
    ~BaseController();

    /// Sends one packet, once. @return the moment just before the write.
    Nanoseconds send(std::uint8_t service, const std::string& payload);
    /// Whether everything sent has been acknowledged.
    bool isIdle() const { return m_acknowledged == m_sent; }

    std::function<void(const std::string& payload, Nanoseconds when)> commandReceived;
    Nanoseconds firstFrame = 0; ///< when the first frame of this server had come
    int messages = 0;           ///< packets from the base unit, acknowledgements not counted

private:
    void readable();
    void take(const std::string& frame, Nanoseconds when);
    void answer(const Packet& packet, const std::string& payload);

    Loop& m_loop;
    int m_fd;
    std::string m_rest;
    std::uint8_t m_next = 0;
    int m_sent = 0;
    int m_acknowledged = 0;
};

/// A remote unit on TCP: joins, acknowledges, sends commands.
class RemoteUnit
{
public:
    /// Connects and introduces itself. `introduces` false: the other end knows no INIT.
    RemoteUnit(Loop& loop, unsigned id, bool introduces);
    ~RemoteUnit();

    bool isJoined() const { return m_isJoined; }
    /// Whether its last command has been acknowledged.
    bool isIdle() const { return !m_awaitsAck; }
    Nanoseconds sendCommand(const std::string& payload);
    /// A heartbeat, when nothing has come for a while; to be called periodically.
    void beat();

    std::function<void(std::uint8_t id, std::string_view payload, Nanoseconds when)> received;
    int messages = 0; ///< messages from the base unit, acknowledgements not counted

private:
    void readable();
    void take(const GLinkMessage& message, Nanoseconds when);

    Loop& m_loop;
    int m_fd;
    std::string m_rest;
    std::string m_answers;
    Nanoseconds m_heard = 0;
    bool m_isJoined;
    bool m_awaitsAck = false;
};

/// The machine controller on the multicast group.
class MachineController
{
public:
    explicit MachineController(Loop& loop);
    ~MachineController();

    /// Sends `data`, at most 491 bytes, as one set of periodic data. @return the moment just before.
    Nanoseconds sendSet(const std::string& data);

    std::function<void(const std::string& command, Nanoseconds when)> commandReceived;
    int messages = 0; ///< datagrams from the base unit

private:
    void readable();

    Loop& m_loop;
    int m_fd;
    unsigned m_serial = 0;
};

/// A local tool that listens for status pushes.
class ApiClient
{
public:
    explicit ApiClient(Loop& loop);
    ~ApiClient();

    std::function<void(const std::string& status, Nanoseconds when)> pushed;
    int messages = 0;

private:
    void readable();

    Loop& m_loop;
    int m_fd;
};

} // namespace bench
