#pragma once

#include "glinkclock.h"

#include <chrono>
#include <optional>

/// Lets the first of many equal log lines through, and then one a minute at most: a unit that does not listen would
/// otherwise bring a line with each message for it, two a second for base status alone.
///
///     if (m_droppedLine.permits()) {
///         qDebug() << ...;
///     }
///
/// One object for each kind of line, in the object that the line is about: units do not keep each other quiet. What is
/// held back is neither counted nor told later, so that a line says "at least once in this minute" and nothing of how
/// often.
///
/// Used by one thread. Judges by GLinkClock, so that setting the time of day neither holds lines back nor sets any
/// free.
class OnceAMinute
{
public:
    /// To be asked only by who writes the line then: a true answer begins the next minute. A false one changes
    /// nothing, so that asking all the time does not put the next line off.
    /// @param now  not earlier than at the call before.
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
    std::optional<GLinkClock::TimePoint> m_last; ///< when a line was permitted; nothing before the first
};
