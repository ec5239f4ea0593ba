#pragma once

#include "glinkclock.h"

#include <chrono>

/// A clock that stands until it is told to go on, for as long as it lives.
class StandingClock
{
public:
    StandingClock()
    {
        GLinkClock::setSource([] { return s_now; });
    }
    ~StandingClock() { GLinkClock::setSource(nullptr); }
    StandingClock(const StandingClock&) = delete;
    StandingClock& operator=(const StandingClock&) = delete;

    static void advance(std::chrono::milliseconds time) { s_now += time; }

private:
    static inline GLinkClock::TimePoint s_now{std::chrono::hours(1)};
};
