#pragma once

#include <chrono>
#include <cstdlib>

#include <sys/stat.h>

/// When files changed, as the file system tells: for whoever remembers what he has made of files, and wants to know
/// from a look at them whether it still holds. Re-entrant; touches no file itself.
///
///     struct stat entry = {};
///     if (::stat(path, &entry) == 0 && FileTimes::isSettled(entry, 2s)) {
///         // As long as device, inode and st_ctim stay as they are, so does what was read after this.
///     }
namespace FileTimes {

/// Nanoseconds since the Unix epoch, by the clock of the file system; means something only beside other such times.
inline std::chrono::nanoseconds sinceEpoch(const timespec& time)
{
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

/// False when the entry changed no more than `time` ago, or claims to change no more than `time` from now. A stamp
/// further in the future, from before the clock was set right, is as good as an old one: the next change gets another.
///
/// File systems stamp in steps (10 ms here, up to 2 s elsewhere): what changed a moment ago may change once more
/// without a new time stamp. So only of a settled entry does an unchanged stamp mean unchanged contents.
/// @param entry  of the file itself, not of a link to it. Its change time counts, which covers contents, names and
///               rights, and which nobody can set back.
inline bool isSettled(const struct stat& entry, std::chrono::milliseconds time)
{
    const auto age = std::chrono::system_clock::now().time_since_epoch() - sinceEpoch(entry.st_ctim);
    return std::chrono::abs(age) > time;
}

} // namespace FileTimes
