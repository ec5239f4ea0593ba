#pragma once

#include <QByteArray>

#include <chrono>

/// The way to the service manager that has started the process: one datagram a message to the socket that the
/// environment names (NOTIFY_SOCKET, a path, or a name behind "@"). Without it nothing is ever sent. One thread only.
class ServiceManager
{
public:
    /// Reads NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID, and removes them from the environment: they are not meant
    /// for child processes. Keeps one descriptor from now on, so that a lack of descriptors silences nothing.
    ServiceManager();
    ~ServiceManager();
    ServiceManager(const ServiceManager&) = delete;
    ServiceManager& operator=(const ServiceManager&) = delete;

    bool isPresent() const { return m_socket >= 0; }
    /// After how long without a sign of life the service manager ends the process; 0 when it does not watch us.
    std::chrono::microseconds watchdogTime() const { return m_watchdogTime; }

    /// Sends assignments such as "READY=1". Never waits; what cannot be sent at once is lost.
    void tell(const QByteArray& message) const;

private:
    QByteArray m_address; ///< as the kernel wants it: a path, or a zero byte and a name
    int m_socket = -1;
    std::chrono::microseconds m_watchdogTime{0};
};
