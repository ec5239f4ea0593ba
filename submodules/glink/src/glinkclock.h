#pragma once

#include <atomic>
#include <chrono>

/// The time by which the age of messages and log lines is judged: the steady clock of the system, or what a test puts
/// in its place. Any thread.
class GLinkClock
{
public:
    using TimePoint = std::chrono::steady_clock::time_point;
    using Source = TimePoint (*)();

    static TimePoint now() { return s_source.load()(); }
    /// For tests. Null brings the clock of the system back.
    static void setSource(Source source) { s_source = source != nullptr ? source : &std::chrono::steady_clock::now; }

private:
    static inline std::atomic<Source> s_source{&std::chrono::steady_clock::now};
};
