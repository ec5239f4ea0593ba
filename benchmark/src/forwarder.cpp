#include "forwarder.h"

#include "board.h"
#include "failure.h"

#include <algorithm>
#include <new>
#include <vector>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

namespace bench {

namespace {

constexpr int EventsAtOnce = 512;
constexpr int Backlog = 256;

/// Set as the server sets it: line by line, nothing else done to the bytes.
int openUart()
{
    const int fd = open(Uart, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    check(fd >= 0, "opening the UART");
    termios modes{};
    modes.c_cflag = CS8 | CREAD | CLOCAL;
    modes.c_lflag = ICANON;
    cfsetispeed(&modes, B230400);
    cfsetospeed(&modes, B230400);
    tcflush(fd, TCIFLUSH);
    check(tcsetattr(fd, TCSANOW, &modes) == 0, "setting the UART");
    return fd;
}

class Forwarder
{
public:
    explicit Forwarder(const Routes& routes)
        : m_routes(routes)
        , m_epoll(epoll_create1(EPOLL_CLOEXEC))
        , m_tty(openUart())
        , m_listener(boardSocket(SOCK_STREAM))
        , m_controller(boardSocket(SOCK_DGRAM))
        , m_api(boardSocket(SOCK_DGRAM))
    {
        bindTo(m_listener, BoardOnPrivateNetwork, GLinkPort);
        check(listen(m_listener, Backlog) == 0, "listen");
        bindTo(m_controller, "0.0.0.0", BaseUnitPort);
        joinGroup(m_controller, BoardOnWire);
        for (const int fd : {m_tty, m_listener, m_controller}) {
            watch(fd);
        }
    }

    [[noreturn]] void run()
    {
        std::array<epoll_event, EventsAtOnce> events;
        for (;;) {
            const int count = epoll_wait(m_epoll, events.data(), EventsAtOnce, -1);
            for (int i = 0; i < count; ++i) {
                handle(events[static_cast<std::size_t>(i)].data.fd);
            }
        }
    }

private:
    void watch(int fd)
    {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        check(epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &event) == 0, "epoll_ctl");
    }

    void handle(int fd)
    {
        if (fd == m_listener) {
            acceptUnit();
            return;
        }
        char buffer[4096];
        const ssize_t count = read(fd, buffer, sizeof(buffer));
        if (count > 0) {
            react(fd == m_tty ? m_routes.onTty : fd == m_controller ? m_routes.onController : m_routes.onUnit, fd);
        } else if (fd != m_tty && fd != m_controller) {
            m_units.erase(std::remove(m_units.begin(), m_units.end(), fd), m_units.end());
            close(fd);
        }
    }

    void acceptUnit()
    {
        const int unit = accept4(m_listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (unit >= 0) {
            setNoDelay(unit);
            m_units.push_back(unit);
            watch(unit);
        }
    }

    void react(const Reaction& reaction, int sender)
    {
        put(sender, reaction.toSender);
        for (const int unit : m_units) {
            put(unit, reaction.toUnits);
        }
        send(m_api, reaction.toApi, m_apiAddress);
        put(m_tty, reaction.toTty);
        send(m_controller, reaction.toController, m_groupAddress);
    }

    static void put(int fd, const FixedBytes& data)
    {
        check(data.size == 0 || write(fd, data.bytes.data(), data.size) == static_cast<ssize_t>(data.size),
              "the forwarder's write");
    }

    static void send(int fd, const FixedBytes& data, const sockaddr_in& to)
    {
        if (data.size != 0) {
            sendto(fd, data.bytes.data(), data.size, 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
        }
    }

    const Routes& m_routes;
    int m_epoll;
    int m_tty;
    int m_listener;
    int m_controller;
    int m_api;
    std::vector<int> m_units;
    const sockaddr_in m_apiAddress = addressOf(Loopback, ApiPushPort);
    const sockaddr_in m_groupAddress = addressOf(ControllerGroup, ControllerPort);
};

} // namespace

FixedBytes& FixedBytes::operator=(const std::string& text)
{
    check(text.size() <= bytes.size(), "a reaction of the forwarder is too long");
    size = text.size();
    std::copy(text.begin(), text.end(), bytes.begin());
    return *this;
}

Routes* makeSharedRoutes()
{
    void* const memory = mmap(nullptr, sizeof(Routes), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    check(memory != MAP_FAILED, "shared memory");
    return new (memory) Routes;
}

void forward(const Routes& routes)
{
    Forwarder(routes).run();
}

} // namespace bench
