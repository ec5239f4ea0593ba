#pragma once

#include <chrono>
#include <optional>

/// Lets the first of many equal log lines through, and then one a minute at most.
class OnceAMinute
{
public:
    using Clock = std::chrono::steady_clock;

    /// @return true when the line may be written now.
    bool permits(Clock::time_point now = Clock::now())
    {
        if (m_last && now - *m_last < std::chrono::minutes(1)) {
            return false;
        }
        m_last = now;
        return true;
    }

private:
    std::optional<Clock::time_point> m_last;
};
