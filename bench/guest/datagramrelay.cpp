// Lets a tool outside the emulated board use the UDP interface on the board's loopback address: what comes to the first
// address goes on from the second to the interface, what comes to the second goes out to the tool.
// usage: datagramrelay BOARD-ADDRESS TOOL-ADDRESS
#include <arpa/inet.h>
#include <cstdio>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr in_port_t RequestPort = 6250;
constexpr in_port_t ReplyPort = 6251;

sockaddr_in place(const char* host, in_port_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, host, &address.sin_addr);
    return address;
}

int socketAt(const sockaddr_in& address)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        perror("datagramrelay");
        _exit(1);
    }
    return fd;
}

void passOn(int from, int to, const sockaddr_in& target)
{
    char datagram[65536];
    const ssize_t size = recv(from, datagram, sizeof(datagram), 0);
    if (size >= 0) {
        sendto(to, datagram, static_cast<size_t>(size), 0, reinterpret_cast<const sockaddr*>(&target), sizeof(target));
    }
}

} // namespace

int main(int argc, char* argv[])
{
    if (argc != 3) {
        return 2;
    }
    const int outside = socketAt(place(argv[1], RequestPort));
    const int inside = socketAt(place("127.0.0.1", ReplyPort));
    pollfd waiting[] = {{outside, POLLIN, 0}, {inside, POLLIN, 0}};
    while (poll(waiting, 2, -1) >= 0) {
        if (waiting[0].revents != 0) {
            passOn(outside, inside, place("127.0.0.1", RequestPort));
        }
        if (waiting[1].revents != 0) {
            passOn(inside, outside, place(argv[2], ReplyPort));
        }
    }
    return 1;
}
