#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <vector>

namespace bench {

using Nanoseconds = std::int64_t;

constexpr Nanoseconds Microsecond = 1000;
constexpr Nanoseconds Millisecond = 1000 * Microsecond;
constexpr Nanoseconds Second = 1000 * Millisecond;

/// CLOCK_MONOTONIC, now.
Nanoseconds now();

/// One epoll loop on which all peers of the instrument live. Not thread-safe; there is only one thread.
class Loop
{
public:
    Loop();
    ~Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    /// Calls `readable` whenever `fd` has something to read. The caller keeps the descriptor.
    void watch(int fd, std::function<void()> readable);
    void unwatch(int fd);

    /// Calls `action` every `period`; @return what `cancel` takes.
    int every(Nanoseconds period, std::function<void()> action);
    void cancel(int timer);

    /// Does `action` once all descriptors that are ready now have been read. Answers of peers are sent so, which keeps
    /// them out of the time stamps of what else has arrived.
    void later(std::function<void()> action);

    /// Serves until `isDone` says so. @return false when `bound` has passed before.
    bool runUntil(const std::function<bool()>& isDone, Nanoseconds bound);
    void runFor(Nanoseconds duration);

private:
    void serve(Nanoseconds bound);

    int m_epoll;
    std::map<int, std::function<void()>> m_watched;
    std::vector<std::function<void()>> m_later;
};

} // namespace bench
