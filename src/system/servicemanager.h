#pragma once

#include <QByteArray>

#include <chrono>

/// The way to the service manager that has started the process: one datagram a message to the socket that the
/// environment names (NOTIFY_SOCKET, a path, or a name behind "@"). Without it nothing is ever sent. One thread only.
///
/// | message      | said when                                           | what the service manager does then    |
/// |--------------|-----------------------------------------------------|---------------------------------------|
/// | `READY=1`    | the start is over                                   | counts the start as done              |
/// | `WATCHDOG=1` | all watched threads have answered (see Watchdog)    | waits watchdogTime() for the next one |
/// | `STOPPING=1` | the relay is open, and the threads are about to end | expects the end                       |
///
/// When the datagrams stop, the process is ended and the relay opened from outside: silence is the message that counts.
class ServiceManager
{
public:
    /// Reads NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID, and removes them from the environment: they are not meant
    /// for child processes. Keeps one descriptor from now on, so that a lack of descriptors silences nothing.
    ///
    /// A second object in the same process therefore finds nobody. An address that cannot be one (neither "/" nor "@"
    /// in front, or longer than the 107 characters that the kernel takes) counts as none.
    ServiceManager();
    ~ServiceManager();
    ServiceManager(const ServiceManager&) = delete;
    ServiceManager& operator=(const ServiceManager&) = delete;

    /// Whether the environment named somebody, and there was a descriptor for the way to him; not whether he listens.
    bool isPresent() const { return m_socket >= 0; }
    /// After how long without a sign of life the service manager ends the process; 0 when it does not watch us. That is
    /// also so when WATCHDOG_PID names another process: a parent's watchdog is not meant for its child.
    std::chrono::microseconds watchdogTime() const { return m_watchdogTime; }

    /// Sends assignments such as "READY=1", several of them with line feeds between. Never waits; what cannot be sent
    /// at once is lost, without a word and without another try.
    void tell(const QByteArray& message) const;

private:
    QByteArray m_address; ///< as the kernel wants it: a path, or a zero byte and a name
    int m_socket = -1;    ///< not connected: the service manager may be restarted while we run
    std::chrono::microseconds m_watchdogTime{0};
};
