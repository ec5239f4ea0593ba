#pragma once

#include <chrono>

class QThread;

// The threads of the server, and what they ask of the system: the threads on the way from the UART and from the remote
// units to the relay run ahead of other work on the computer, and their memory stays where it is. Both need a right
// that the unit file gives; without it everything works as long as the processors are not taken by others.

namespace Threads {

/// A thread that has not been started, with its name (as `ps -L` and the kernel know it, 15 characters at most) and
/// with a stack that is small enough to be kept in memory whole.
QThread* make(const char* name);

/// What a thread does on the way to the relay.
enum class Role {
    Relay,        ///< drives the machine-stop relay
    UartReader,   ///< reads the base controller's packets
    ServiceLayer, ///< judges the internal link
    Hub,          ///< decides on machine stops: the main thread
    UnitLink,     ///< receives from remote units
    Background,   ///< nothing: reads, hashes and writes files
};

/// What a role asks for. Real time (first in, first out) is for work that the UART's pace bounds. Remote units can keep
/// their threads busy for as long as they like, and would then take the processor from the kernel's own threads, which
/// carry the UART's bytes: those threads only weigh much more than others.
///
/// Weight decides on shares, and not on who goes first: a kernel since 6.12 lets what runs go on to the end of its
/// slice, some milliseconds, unless who wakes up asks for a shorter one. Older kernels know no such slices, and do not
/// need them.
struct Claim
{
    int realTimePriority;            ///< 0 for none
    int niceness;                    ///< of a thread without real-time priority
    std::chrono::microseconds slice; ///< of a thread without real-time priority; 0 for the system's own
};
constexpr Claim claimOf(Role role)
{
    switch (role) {
    case Role::Relay: return {30, 0, {}};
    case Role::UartReader: return {29, 0, {}};
    case Role::ServiceLayer: return {28, 0, {}};
    case Role::Hub:
    case Role::UnitLink: return {0, -15, std::chrono::microseconds(100)};     // the shortest there is
    case Role::Background: return {0, 0, std::chrono::microseconds(100'000)}; // the longest there is
    }
    return {0, 0, {}};
}

/// Gives the calling thread what its role asks for, and a thread that relay or hub depend on some memory in reserve, on
/// its stack and on its heap. Threads and processes that it starts do not inherit its priority.
/// @return false where the system does not allow its priority. A slice needs no right.
bool claimPriority(Role role);

/// Keeps in memory what the process has touched so far and what it will touch, and all code on the ways to the relay
/// with its data.
/// @return false where the system does not allow it.
bool lockMemory();

} // namespace Threads
