// What the bench and a server in virtual time share: one clock, and who is waiting for what until when.
#pragma once

#include <atomic>
#include <cstdint>
#include <limits>

namespace virtualtime {

constexpr std::uint32_t PageVersion = 1;
constexpr int MaxThreads = 256;
constexpr std::int64_t Never = std::numeric_limits<std::int64_t>::max();
constexpr char PageVariable[] = "TESSARO_VIRTUAL_TIME"; ///< names the file that holds the page

enum SlotState : std::uint32_t { Free, Running, Waiting };

/// One thread of the server. A waiting one is made running by itself when something happens, or by the conductor when
/// its deadline has come; whoever changes the state changes `Page::running` with it.
struct Slot
{
    std::atomic<std::uint32_t> state;
    std::atomic<std::uint32_t>
        turns; ///< counts the ends of its waits: one that waits again is told from one that still waits
    std::atomic<std::int64_t> deadline; ///< virtual nanoseconds, or Never
    std::atomic<std::int32_t> thread;   ///< the kernel's number, 0 until the thread itself has said it
    std::atomic<std::int32_t> joins;    ///< the slot whose thread it waits for, plus 1
};

/// All times are nanoseconds. Zeroed and filled by the bench before the server starts.
struct Page
{
    std::uint32_t version;
    std::int32_t wakeSignal;
    std::int64_t monotonicBase; ///< what the monotonic clock shows when `now` is 0
    std::int64_t realtimeBase;
    std::atomic<std::int64_t> now;             ///< only the conductor moves it
    std::atomic<std::uint32_t> running;        ///< how many slots are in that state; a futex
    std::atomic<std::uint32_t> conductorWaits; ///< whether it wants to be woken when that becomes 0
    std::atomic<std::int32_t> process;         ///< 0 until the server has taken part
    std::atomic<std::uint32_t> children;       ///< processes that it has begun, ever
    std::atomic<std::int64_t> lineRead; ///< bytes of its serial line, for which the kernel has a worker of its own
    std::atomic<std::int64_t> lineWritten;
    Slot slots[MaxThreads];
};

static_assert(std::atomic<std::int64_t>::is_always_lock_free, "processes share the page without locks");

} // namespace virtualtime
