#include "virtualtime.h"

#include <QTimerEvent>

#include <algorithm>
#include <tuple>

extern Q_CORE_EXPORT uint qGlobalPostedEventsCount(); // of this thread; Qt's own dispatchers ask so, too

VirtualTime::VirtualTime()
{
    GLinkClock::setSource(&VirtualTime::now);
}

VirtualTime::~VirtualTime()
{
    GLinkClock::setSource(nullptr);
}

void VirtualTime::settle()
{
    constexpr int enough = 1000; // rounds: one that goes on for ever is found by what it fills
    for (int round = 0; round < enough && qGlobalPostedEventsCount() != 0; ++round) {
        QCoreApplication::sendPostedEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
}

void VirtualTime::advance(std::chrono::milliseconds time)
{
    const TimePoint until = s_now + time;
    for (auto timer = nextDue(until); timer != m_timers.end(); timer = nextDue(until)) {
        s_now = std::max(s_now, timer->second.due);
        fire(timer);
        settle();
    }
    s_now = until;
}

VirtualTime::Timers::iterator VirtualTime::nextDue(TimePoint until)
{
    const auto isEarlier = [](const Timers::value_type& one, const Timers::value_type& other) {
        return std::tie(one.second.due, one.second.order) < std::tie(other.second.due, other.second.order);
    };
    const auto next = std::min_element(m_timers.begin(), m_timers.end(), isEarlier);
    return next != m_timers.end() && next->second.due <= until ? next : m_timers.end();
}

void VirtualTime::fire(Timers::iterator timer)
{
    timer->second.due = s_now + std::max(timer->second.interval, std::chrono::milliseconds(1));
    timer->second.order = ++m_started;
    QTimerEvent event(timer->first);
    QCoreApplication::sendEvent(timer->second.object, &event);
}

bool VirtualTime::processEvents(QEventLoop::ProcessEventsFlags)
{
    settle();
    return false;
}

void VirtualTime::registerTimer(int id, int interval, Qt::TimerType type, QObject* object)
{
    const std::chrono::milliseconds time(interval);
    m_timers[id] = {object, time, s_now + time, ++m_started, type};
}

bool VirtualTime::unregisterTimer(int id)
{
    return m_timers.erase(id) != 0;
}

bool VirtualTime::unregisterTimers(QObject* object)
{
    const auto count = m_timers.size();
    for (auto timer = m_timers.begin(); timer != m_timers.end();) {
        timer = timer->second.object == object ? m_timers.erase(timer) : std::next(timer);
    }
    return m_timers.size() != count;
}

QList<VirtualTime::TimerInfo> VirtualTime::registeredTimers(QObject* object) const
{
    QList<TimerInfo> list;
    for (const auto& [id, timer] : m_timers) {
        if (timer.object == object) {
            list.append(TimerInfo(id, static_cast<int>(timer.interval.count()), timer.type));
        }
    }
    return list;
}

int VirtualTime::remainingTime(int id)
{
    const auto timer = m_timers.find(id);
    if (timer == m_timers.end()) {
        return -1;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(timer->second.due - s_now);
    return static_cast<int>(std::max<qint64>(0, left.count()));
}
