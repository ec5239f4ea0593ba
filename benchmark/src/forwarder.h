#pragma once

#include <array>
#include <string>

/// The floor: the least that any program between the same descriptors has to do. One epoll loop that reads what the
/// server reads and writes as many bytes as the server writes to sockets of the same kinds, and understands none of it.
namespace bench {

struct FixedBytes
{
    std::size_t size = 0;
    std::array<char, 1024> bytes{};

    FixedBytes& operator=(const std::string& text);
};

/// What is written when something arrives; empty bytes are not written.
struct Reaction
{
    FixedBytes toSender; ///< of units alone: the connection on which it came
    FixedBytes toTty;
    FixedBytes toUnits; ///< to each of them
    FixedBytes toController;
    FixedBytes toApi;
};

/// Lies in memory that the instrument and the forwarder share; changed only while nothing is under way.
struct Routes
{
    Reaction onTty;
    Reaction onUnit;
    Reaction onController;
};

Routes* makeSharedRoutes();

/// Never returns.
[[noreturn]] void forward(const Routes& routes);

} // namespace bench
