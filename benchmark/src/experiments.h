#pragma once

#include "stage.h"

#include <string>
#include <vector>

namespace bench {

struct Options
{
    int tty = -1;
    int rounds = 3;
    int samples = 1000;                  ///< messages of one experiment with one unit; fewer with many units
    Nanoseconds gap = Millisecond;       ///< rest between a message's last delivery and the next message
    Nanoseconds watchTime = 10 * Second; ///< how long the idle and the nominal installation are watched
    int starts = 10;
    std::vector<std::size_t> units = {1, 8, 32, 128};
};

/// Latency of every kind of message, and CPU time per delivered message, of one side, with ever more units.
void measureLatency(const Options& options, Side side, int round);

/// Process start to relay closed, to the first frame on the UART, to listening for units.
void measureStartUp(const Options& options);

/// Memory, wake-ups and CPU time with all links up: when nothing happens, and under nominal load.
void measureIdle(const Options& options);
void measureNominal(const Options& options);

} // namespace bench
