#pragma once

#include "glinkclock.h"

#include <chrono>
#include <optional>

/// Lets the first of many equal log lines through, and then one a minute at most.
class OnceAMinute
{
public:
    /// @return true when the line may be written now.
    bool permits(GLinkClock::TimePoint now = GLinkClock::now())
    {
        if (m_last && now - *m_last < std::chrono::minutes(1)) {
            return false;
        }
        m_last = now;
        return true;
    }

private:
    std::optional<GLinkClock::TimePoint> m_last;
};
