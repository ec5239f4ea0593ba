#include "servicemanager.h"

#include <QtGlobal>

#include <algorithm>
#include <cstddef>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr char SocketVariable[] = "NOTIFY_SOCKET";
constexpr char WatchdogTimeVariable[] = "WATCHDOG_USEC";
constexpr char WatchdogProcessVariable[] = "WATCHDOG_PID";

QByteArray takeVariable(const char* name)
{
    QByteArray value = qgetenv(name);
    qunsetenv(name);
    return value;
}

/// The kernel's form of NOTIFY_SOCKET; empty for what it cannot be.
QByteArray addressOf(QByteArray text)
{
    if (text.size() < 2 || text.size() >= static_cast<int>(sizeof(sockaddr_un::sun_path))) {
        return QByteArray();
    }
    if (text.startsWith('@')) {
        text[0] = '\0';
        return text;
    }
    return text.startsWith('/') ? text : QByteArray();
}

} // namespace

ServiceManager::ServiceManager()
    : m_address(addressOf(takeVariable(SocketVariable)))
{
    const QByteArray watchdogTime = takeVariable(WatchdogTimeVariable);
    const QByteArray watchedProcess = takeVariable(WatchdogProcessVariable);
    if (m_address.isEmpty()) {
        return;
    }
    m_socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (watchedProcess.isEmpty() || watchedProcess.toLongLong() == ::getpid()) {
        m_watchdogTime = std::chrono::microseconds(std::max<qlonglong>(0, watchdogTime.toLongLong()));
    }
}

ServiceManager::~ServiceManager()
{
    if (m_socket >= 0) {
        ::close(m_socket);
    }
}

void ServiceManager::tell(const QByteArray& message) const
{
    if (m_socket < 0) {
        return;
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::copy(m_address.begin(), m_address.end(), address.sun_path);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + static_cast<size_t>(m_address.size()));
    // The service manager is the one who acts when nothing arrives, so a failure needs no further notice.
    [[maybe_unused]] const ssize_t sent =
        ::sendto(m_socket, message.constData(), static_cast<size_t>(message.size()), MSG_NOSIGNAL | MSG_DONTWAIT,
                 reinterpret_cast<const sockaddr*>(&address), length);
}
