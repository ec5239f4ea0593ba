#include "watchdog.h"

#include <QDebug>
#include <QTimer>

#include <algorithm>

namespace {

using namespace std::chrono_literals;

/// Often enough that no answer grows old between two looks, and some times within the service manager's patience.
constexpr auto LongestInterval = 250ms;
constexpr int SignsPerWatchdogTime = 4;

} // namespace

Watchdog::Watchdog(QObject* parent)
    : QObject(parent)
    , m_timer(new QTimer(this))
{
    m_timer->setTimerType(Qt::PreciseTimer);
    connect(m_timer, &QTimer::timeout, this, &Watchdog::check);
}

Watchdog::~Watchdog() = default;

void Watchdog::watch(QObject* resident, const QString& name)
{
    m_watched.push_back({resident, name, std::make_shared<Answers>()});
}

void Watchdog::start()
{
    m_manager.tell("READY=1");
    const auto watchdogTime = std::chrono::duration_cast<std::chrono::milliseconds>(m_manager.watchdogTime());
    if (m_manager.watchdogTime().count() == 0) {
        return;
    }
    for (const Watched& watched : m_watched) {
        watched.answers->last = Clock::now().time_since_epoch().count();
    }
    m_timer->start(std::clamp<std::chrono::milliseconds>(watchdogTime / SignsPerWatchdogTime, 1ms, LongestInterval));
    check();
}

void Watchdog::stop()
{
    m_timer->stop();
    m_manager.tell("STOPPING=1");
}

void Watchdog::check()
{
    bool allAnswer = true;
    for (Watched& watched : m_watched) {
        allAnswer = hasAnswered(watched) && allAnswer;
        ask(watched);
    }
    if (allAnswer) {
        m_manager.tell("WATCHDOG=1");
    }
}

void Watchdog::ask(const Watched& watched)
{
    if (watched.answers->isAwaited.exchange(true)) {
        return;
    }
    const auto answer = [answers = watched.answers] {
        answers->last = Clock::now().time_since_epoch().count();
        answers->isAwaited = false;
    };
    QMetaObject::invokeMethod(watched.resident, answer, Qt::QueuedConnection);
}

bool Watchdog::hasAnswered(Watched& watched)
{
    const Clock::time_point last{Clock::duration(watched.answers->last)};
    const bool isSilent = Clock::now() - last > Patience;
    if (isSilent != watched.isSilent) {
        watched.isSilent = isSilent;
        qWarning() << "Watchdog: the thread" << watched.name << (isSilent ? "does not answer." : "answers again.");
    }
    return !isSilent;
}
