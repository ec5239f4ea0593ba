#pragma once

#include "servicemanager.h"

#include <QObject>
#include <QString>

#include <atomic>
#include <chrono>
#include <memory>
#include <vector>

class QTimer;

/// Tells the service manager that the process lives, for as long as each of its watched threads answers. A thread that
/// hangs silences the watchdog, and the service manager then ends the process and opens the relay.
///
/// Lives in the main thread, which is watched by having to run the timer. The others are asked by queued calls, never
/// more than one at a time, so that a thread that hangs gathers none.
class Watchdog : public QObject
{
    Q_OBJECT

public:
    /// How old the last answer of a thread may be.
    static constexpr std::chrono::milliseconds Patience{1000};

    explicit Watchdog(QObject* parent = nullptr);
    ~Watchdog() override;

    /// Watches the thread in which `resident` lives; `name` is for the log. `resident` outlives this object.
    void watch(QObject* resident, const QString& name);

    /// Says that the process is ready, and begins to watch if the service manager wants that: a sign of life at once,
    /// and then four in the time within which it expects one, or every 250 ms if that is less. All threads count as
    /// having answered just now.
    void start();
    /// Says that the process is about to end; from then on nobody is watched.
    void stop();

private:
    using Clock = std::chrono::steady_clock;

    /// Outlives the watchdog where an answer is still under way.
    struct Answers
    {
        std::atomic<Clock::rep> last{
            0}; ///< when the last answer came, in ticks of `Clock`; written by the thread asked
        std::atomic<bool> isAwaited{false}; ///< set by the main thread, cleared by the answer
    };
    struct Watched
    {
        QObject* resident;
        QString name;
        std::shared_ptr<Answers> answers;
        bool isSilent = false; ///< so that the log tells a change and not a state
    };

    void check();
    static void ask(const Watched& watched);
    static bool hasAnswered(Watched& watched);

    ServiceManager m_manager;
    std::vector<Watched> m_watched;
    QTimer* const m_timer;
};
