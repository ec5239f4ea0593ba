#pragma once

#include <chrono>
#include <cstdlib>

#include <sys/stat.h>

/// When files changed, as the file system tells. Re-entrant.
namespace FileTimes {

inline std::chrono::nanoseconds sinceEpoch(const timespec& time)
{
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

/// True when the entry has not changed for at least `time`, nor claims to have changed so far in the future.
///
/// File systems stamp in steps (10 ms here, up to 2 s elsewhere): what changed a moment ago may change once more
/// without a new time stamp. So only of a settled entry does an unchanged stamp mean unchanged contents.
inline bool isSettled(const struct stat& entry, std::chrono::milliseconds time)
{
    const auto age = std::chrono::system_clock::now().time_since_epoch() - sinceEpoch(entry.st_ctim);
    return std::chrono::abs(age) > time;
}

} // namespace FileTimes
