#pragma once

#include "glinkclock.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>

#include <chrono>
#include <map>

/// The event loop of an explored world: its clock only moves when it is told to, and stops at every timer on the way.
/// Sockets are not watched; whatever happens is either an event that was posted or a timer.
///
/// One a process, made before the application object. Qt's own clocks do not follow it, GLinkClock does.
class VirtualTime : public QAbstractEventDispatcher
{
public:
    using TimePoint = GLinkClock::TimePoint;

    VirtualTime();
    ~VirtualTime() override;

    static TimePoint now() { return s_now; }
    /// Handles what has been posted, and what that posts.
    static void settle();
    /// Lets so much time pass, and everything happen that falls due meanwhile.
    void advance(std::chrono::milliseconds time);

    bool processEvents(QEventLoop::ProcessEventsFlags flags) override;
    bool hasPendingEvents() override { return false; }
    void registerSocketNotifier(QSocketNotifier*) override {}
    void unregisterSocketNotifier(QSocketNotifier*) override {}
    void registerTimer(int id, int interval, Qt::TimerType type, QObject* object) override;
    bool unregisterTimer(int id) override;
    bool unregisterTimers(QObject* object) override;
    QList<TimerInfo> registeredTimers(QObject* object) const override;
    int remainingTime(int id) override;
    void wakeUp() override {}
    void interrupt() override {}
    void flush() override {}

private:
    struct Timer
    {
        QObject* object;
        std::chrono::milliseconds interval;
        TimePoint due;
        quint64 order; ///< of several that are due at once the one that was started first goes first
        Qt::TimerType type;
    };
    using Timers = std::map<int, Timer>;

    Timers::iterator nextDue(TimePoint until);
    void fire(Timers::iterator timer);

    Timers m_timers;
    quint64 m_started = 0;
    static inline TimePoint s_now{std::chrono::hours(1)};
};
