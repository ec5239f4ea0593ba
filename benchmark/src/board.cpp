#include "board.h"

#include "failure.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

namespace bench {

namespace {

constexpr int WriteBoundMs = 2000;

int ownNetwork = -1;
int peerNetwork = -1;

int makeSocket(int type)
{
    const int fd = socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    check(fd >= 0, "socket");
    return fd;
}

/// The end of the server's log, if one ran.
void showServerLog()
{
    constexpr std::size_t Shown = 2000;
    std::ifstream file(ServerLog);
    const std::string log{std::istreambuf_iterator<char>(file), {}};
    std::fprintf(stderr, "%s", log.substr(log.size() > Shown ? log.size() - Shown : 0).c_str());
}

} // namespace

void fail(const std::string& what)
{
    const int error = errno;
    showServerLog();
    errno = error;
    std::fprintf(stderr, "benchmark: %s%s%s\n", what.c_str(), errno != 0 ? ": " : "",
                 errno != 0 ? std::strerror(errno) : "");
    std::exit(1);
}

sockaddr_in addressOf(const char* host, std::uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, host, &address.sin_addr);
    return address;
}

int boardSocket(int type)
{
    return makeSocket(type);
}

void setPeerNetwork(int namespaceDescriptor)
{
    peerNetwork = namespaceDescriptor;
    ownNetwork = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    check(ownNetwork >= 0, "the board's network");
}

int peerSocket(int type)
{
    check(setns(peerNetwork, CLONE_NEWNET) == 0, "setns to the peers' network");
    const int fd = makeSocket(type);
    check(setns(ownNetwork, CLONE_NEWNET) == 0, "setns to the board's network");
    return fd;
}

void bindTo(int fd, const char* host, std::uint16_t port)
{
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    const sockaddr_in address = addressOf(host, port);
    check(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "bind");
}

void joinGroup(int fd, const char* host)
{
    ip_mreq membership{};
    inet_pton(AF_INET, ControllerGroup, &membership.imr_multiaddr);
    inet_pton(AF_INET, host, &membership.imr_interface);
    check(setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof(membership)) == 0, "joining the group");
    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &membership.imr_interface, sizeof(membership.imr_interface));
}

void setNoDelay(int fd)
{
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

void writeAll(int fd, const std::string& bytes)
{
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count = write(fd, bytes.data() + done, bytes.size() - done);
        if (count > 0) {
            done += static_cast<std::size_t>(count);
            continue;
        }
        pollfd waiting{fd, POLLOUT, 0};
        check(errno == EAGAIN && poll(&waiting, 1, WriteBoundMs) == 1, "write");
    }
}

} // namespace bench
