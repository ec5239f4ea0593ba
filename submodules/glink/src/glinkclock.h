#pragma once

#include <atomic>
#include <chrono>

/// The time by which the age of messages and log lines is judged: the steady clock of the system, or what a test puts
/// in its place. Any thread.
///
/// It never goes back and does not jump when somebody sets the time of day; only differences mean anything. Not by this
/// clock go the timers of the transports (Qt's, so that a test that moves this clock moves none of them) and what is
/// told to people and remote units: GLinkHeader::timeStamp() and GLinkConnection::disconnectTime() are time of day.
class GLinkClock
{
public:
    using TimePoint = std::chrono::steady_clock::time_point;
    using Source = TimePoint (*)(); ///< called from several threads at a time, without a lock

    static TimePoint now() { return s_source.load()(); }
    /// For tests. Null brings the clock of the system back. Holds for the whole process from the next call of now() on;
    /// what was taken from another source before must not be compared with what comes then.
    static void setSource(Source source) { s_source = source != nullptr ? source : &std::chrono::steady_clock::now; }

private:
    static inline std::atomic<Source> s_source{&std::chrono::steady_clock::now};
};
