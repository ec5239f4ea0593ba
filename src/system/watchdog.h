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
///
/// What a single thread that hangs leads to, with the 2 s that the package's unit file sets (times since its last
/// answer, which is up to 250 ms older than what holds it up):
///
/// | ms           | what happens                                                                                |
/// |--------------|---------------------------------------------------------------------------------------------|
/// | 0 to 1000    | it is late, and nobody minds: a sign of life every 250 ms                                   |
/// | 1000 to 1250 | the next look finds it silent: one warning, and no sign of life from now on                 |
/// | about 3000   | 2 s without a sign of life: the service manager kills the process and opens the relay       |
/// | before that  | it answers after all: the next look tells that by one warning, and sends a sign again       |
///
/// A thread answers when its event loop gets to it. So one that waits for a disk, a lock or another thread is silent as
/// well as one that runs in circles, and what must be allowed to wait for a disk is not to be watched.
///
///     watchdog->watch(serviceLayer, QStringLiteral("service layer"));   // once its thread runs
///     watchdog->start();                                                // behind the last step of the start
class Watchdog : public QObject
{
    Q_OBJECT

public:
    /// How old the last answer of a thread may be. Four times the usual time between two questions, so that one late
    /// turn on a busy processor is not yet silence.
    static constexpr std::chrono::milliseconds Patience{1000};

    /// Reads from the environment who watches us, and takes that out of it (see ServiceManager): one per process. Says
    /// nothing and watches nobody yet.
    explicit Watchdog(QObject* parent = nullptr);
    /// Without a word to the service manager: that is stop(). Answers that are still under way find what they write to.
    ~Watchdog() override;

    /// Watches the thread in which `resident` lives; `name` is for the log. `resident` outlives this object, or at
    /// least its last look: nobody is ever taken off the list. Main thread, before start(): afterwards a thread would
    /// count as silent until its first answer.
    void watch(QObject* resident, const QString& name);

    /// Says that the process is ready, and begins to watch if the service manager wants that: a sign of life at once,
    /// and then four in the time within which it expects one, or every 250 ms if that is less. All threads count as
    /// having answered just now. The interval is kept exactly by a timer of the main thread's event loop, so that a
    /// main thread that is busy sends no sign either.
    ///
    /// Without a service manager nothing happens, and with one that does not watch us it hears only that we are ready:
    /// then no thread is asked anything, and none is reported as silent.
    void start();
    /// Says that the process is about to end; from then on nobody is watched.
    void stop();

private:
    using Clock = std::chrono::steady_clock;

    /// Outlives the watchdog where an answer is still under way. Shared by the main thread and one watched thread.
    struct Answers
    {
        std::atomic<Clock::rep> last{
            0}; ///< when the last answer came, in ticks of `Clock`; written by the thread asked
        std::atomic<bool> isAwaited{false}; ///< set by the main thread, cleared by the answer
    };
    struct Watched
    {
        QObject* resident; ///< not owned; only its thread matters
        QString name;      ///< as the log has it, between quotation marks
        std::shared_ptr<Answers> answers;
        bool isSilent = false; ///< so that the log tells a change and not a state
    };

    void check(); ///< the look: judges the last answers, then asks anew, so that each answer has a whole interval
    static void ask(const Watched& watched);
    static bool hasAnswered(Watched& watched);

    ServiceManager m_manager;
    std::vector<Watched> m_watched;
    QTimer* const m_timer;
};
