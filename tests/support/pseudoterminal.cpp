#include "pseudoterminal.h"

#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace {
constexpr int DevicePrefixLength = 5; // "/dev/"
constexpr int PatienceMs = 30000;
} // namespace

PseudoTerminal::PseudoTerminal()
    : m_farEnd(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC))
{
    char path[64] = {};
    if (m_farEnd >= 0 && grantpt(m_farEnd) == 0 && unlockpt(m_farEnd) == 0 &&
        ptsname_r(m_farEnd, path, sizeof(path)) == 0) {
        m_portName = QByteArray(path).mid(DevicePrefixLength);
    }
}

PseudoTerminal::~PseudoTerminal()
{
    hangUp();
}

QByteArray PseudoTerminal::received()
{
    char chunk[4096];
    ssize_t count = 0;
    while ((count = ::read(m_farEnd, chunk, sizeof(chunk))) > 0) {
        m_received.append(chunk, static_cast<int>(count));
    }
    return m_received;
}

void PseudoTerminal::clear()
{
    received();
    m_received.clear();
}

QByteArray PseudoTerminal::receive(int size)
{
    pollfd far = {m_farEnd, POLLIN, 0};
    while (received().size() < size && poll(&far, 1, PatienceMs) > 0 && (far.revents & POLLIN) != 0) {
    }
    return m_received;
}

bool PseudoTerminal::send(const QByteArray& data)
{
    return ::write(m_farEnd, data.constData(), static_cast<size_t>(data.size())) == data.size();
}

void PseudoTerminal::hangUp()
{
    if (m_farEnd >= 0) {
        ::close(m_farEnd);
        m_farEnd = -1;
    }
}
