// Every reading of a clock.
#include "participant.h"

#include <sys/time.h>
#include <unistd.h>

using namespace virtualtime;

namespace {

bool isOfTheWorld(clockid_t clock)
{
    switch (clock) {
    case CLOCK_REALTIME:
    case CLOCK_REALTIME_COARSE:
    case CLOCK_TAI:
    case CLOCK_MONOTONIC:
    case CLOCK_MONOTONIC_RAW:
    case CLOCK_MONOTONIC_COARSE:
    case CLOCK_BOOTTIME: return true;
    default: return false; // of processor time, which is as real as before
    }
}

bool isWall(clockid_t clock)
{
    return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE || clock == CLOCK_TAI;
}

std::int64_t read(clockid_t clock)
{
    if (spins()) {
        sleepUntil(page()->now + Millisecond);
    }
    return page()->now + (isWall(clock) ? page()->realtimeBase : page()->monotonicBase);
}

} // namespace

extern "C" {

__attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* now) noexcept
{
    static const auto real = reinterpret_cast<int (*)(clockid_t, timespec*)>(following("clock_gettime"));
    if (!page() || !isOfTheWorld(clock)) {
        return real(clock, now);
    }
    *now = asTimespec(read(clock));
    return 0;
}

__attribute__((visibility("default"))) int gettimeofday(timeval* now, void* zone) noexcept
{
    static const auto real = reinterpret_cast<int (*)(timeval*, void*)>(following("gettimeofday"));
    if (!page()) {
        return real(now, zone);
    }
    const std::int64_t precise = read(CLOCK_REALTIME);
    now->tv_sec = precise / Second;
    now->tv_usec = precise % Second / 1000;
    return 0;
}

__attribute__((visibility("default"))) time_t time(time_t* out) noexcept
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    if (out) {
        *out = now.tv_sec;
    }
    return now.tv_sec;
}

} // extern "C"
