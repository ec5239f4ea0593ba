#pragma once

#include <string>

namespace bench {

/// Ends the program with status 1 and one line on stderr (with the text of errno when that is set): a measurement that
/// went wrong must not leave a number behind.
[[noreturn]] void fail(const std::string& what);

inline void check(bool holds, const std::string& what)
{
    if (!holds) {
        fail(what);
    }
}

} // namespace bench
