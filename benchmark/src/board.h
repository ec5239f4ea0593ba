#pragma once

#include <cstdint>
#include <string>

#include <netinet/in.h>

/// What the instrument knows of the board on which it runs: it is started in the board's own network and mounts.
namespace bench {

constexpr char Uart[] = "/dev/ttymxc0";
constexpr char RelayDrive[] = "/sys/class/gpio/gpio37/value";
constexpr char ServerProgram[] = "/home/root/Applications/tessaroserver/tessaroserver";
constexpr char ServerLog[] = "/home/root/benchmark.log";

constexpr char BoardOnPrivateNetwork[] = "192.168.32.1";
constexpr char PeerOnWire[] = "10.42.20.2";
constexpr char BoardOnWire[] = "10.42.20.1";
constexpr char ControllerGroup[] = "239.255.42.20";
constexpr char Loopback[] = "127.0.0.1";

constexpr std::uint16_t GLinkPort = 1147;
constexpr std::uint16_t ControllerPort = 5825; ///< where the machine controller listens
constexpr std::uint16_t BaseUnitPort = 5827;   ///< where the base unit listens to the controller
constexpr std::uint16_t ApiPushPort = 6251;

sockaddr_in addressOf(const char* host, std::uint16_t port);

/// All sockets are non-blocking and owned by the caller; a failure ends the program.
int boardSocket(int type);
/// A socket at the far ends of wlan0 and eth0. `setPeerNetwork` must have been called.
int peerSocket(int type);
void setPeerNetwork(int namespaceDescriptor);

void bindTo(int fd, const char* host, std::uint16_t port);
/// Receives and sends the controller's multicast through the interface with the address `host`.
void joinGroup(int fd, const char* host);
void setNoDelay(int fd);

void writeAll(int fd, const std::string& bytes);

} // namespace bench
