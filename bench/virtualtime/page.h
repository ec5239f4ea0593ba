// What the bench and a server in virtual time share: one clock, and who is waiting for what until when.
#pragma once

#include <atomic>
#include <cstdint>
#include <limits>

namespace virtualtime {

constexpr std::uint32_t PageVersion = 2;
constexpr int MaxThreads = 256;
constexpr std::int64_t Never = std::numeric_limits<std::int64_t>::max();
constexpr char PageVariable[] = "TESSARO_VIRTUAL_TIME"; ///< names the file that holds the page

/// What a thread does. It waits for time or a futex, for one of the descriptors on the board, or for the serial line.
enum Doing : std::uint32_t { Free, Running, Waiting, Polling, Reading };

/// A slot's state is one number, so that whoever looks at it and then changes it has seen it whole: what the thread
/// does, whether it has been called, and its turn, which every beginning and end of a wait counts up.
constexpr std::uint32_t DoingBits = 7;
constexpr std::uint32_t Called = 8;
constexpr std::uint32_t Turn = 16;

constexpr Doing doing(std::uint32_t state)
{
    return static_cast<Doing>(state & DoingBits);
}

constexpr bool rests(std::uint32_t state)
{
    return doing(state) >= Waiting && !(state & Called);
}

constexpr std::uint32_t nextTurn(std::uint32_t state, Doing what)
{
    return (state & ~(Turn - 1)) + Turn + what;
}

/// One thread of the server. One that rests goes on by itself when something happens. Whoever knows that it will (who
/// wakes it, who writes to its descriptor, the conductor when its deadline has come) calls it: it counts as running
/// from then on, although the kernel may take its time.
struct Slot
{
    std::atomic<std::uint32_t> state;
    std::atomic<std::int32_t> thread;   ///< the kernel's number, 0 until the thread itself has said it
    std::atomic<std::int64_t> deadline; ///< virtual nanoseconds, or Never
    std::atomic<std::uint64_t> word;    ///< the futex that it waits on, or 0
    std::atomic<std::int32_t> joins;    ///< the slot whose thread it waits for, plus 1
    std::atomic<std::int32_t> hidden;   ///< it waits for what only the kernel sees
};

/// All times are nanoseconds. Zeroed and filled by the bench before the server starts.
struct Page
{
    std::uint32_t version;
    std::int32_t wakeSignal;
    std::int64_t monotonicBase; ///< what the monotonic clock shows when `now` is 0
    std::int64_t realtimeBase;
    std::atomic<std::int64_t> now;             ///< only the conductor moves it
    std::atomic<std::uint32_t> running;        ///< how many slots run or have been called; a futex
    std::atomic<std::uint32_t> conductorWaits; ///< whether it wants to be woken when that becomes 0
    std::atomic<std::int32_t> process;         ///< 0 until the server has taken part
    std::atomic<std::int32_t> board;           ///< the server's descriptor that shows which others are ready, or -1
    std::atomic<std::int32_t> slotsUsed;       ///< no slot behind them has ever been used
    std::atomic<std::uint32_t> children;       ///< processes that it has begun, ever
    std::atomic<std::int64_t> lineRead; ///< bytes of its serial line, for which the kernel has a worker of its own
    std::atomic<std::int64_t> lineWritten;
    Slot slots[MaxThreads];
};

static_assert(std::atomic<std::int64_t>::is_always_lock_free, "processes share the page without locks");

} // namespace virtualtime
