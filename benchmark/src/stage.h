#pragma once

#include "forwarder.h"
#include "peers.h"
#include "process.h"

#include <memory>
#include <vector>

namespace bench {

enum class Side { Server, Floor };

constexpr unsigned FirstUnitId = 1001;

/// The process image of the example installation; `ruState` is a value that local tools are told of, `speed` one that
/// they are not.
std::string processImage(unsigned char ruState, unsigned speed = 0);

/// Tries to connect as a unit would, for at most a millisecond.
bool unitsCanConnect();

/// The board with one side started on it, and its peers.
class Stage
{
public:
    /// Starts the side and brings it to where units can join. `tty` is the far end of the UART and stays the caller's.
    Stage(Side side, int tty);

    /// Lets units join until there are `count`.
    void joinUnits(std::size_t count);

    /// All messages that the peers got from the side under measurement so far, acknowledgements not counted.
    long delivered() const;

    const Side side;
    Loop loop;
    Routes* const routes;
    ApiClient api;
    BaseController controller;
    Process process;
    MachineController machine;
    std::vector<std::unique_ptr<RemoteUnit>> units;

private:
    void startUp();
};

} // namespace bench
