#pragma once

#include <QSemaphore>
#include <QString>
#include <QtGlobal>

#include <atomic>
#include <memory>

/// Holds whoever writes a log line with this beginning for the first time, until it is released: so a thread of the
/// code under test stands still at a known place for as long as a test looks at the others, however fast or busy the
/// machine is. Code that waits for that thread would wait for ever, so the hold ends by itself after a minute, and
/// `isHeld` tells.
///
/// Lines go on to whoever had them before. One at a time; made behind a LogSpy, it goes before that.
class HeldLine
{
public:
    explicit HeldLine(const char* beginning)
        : m_hold(std::make_shared<Hold>())
    {
        m_hold->beginning = QLatin1String(beginning);
        std::atomic_store(&s_hold, m_hold);
        m_hold->previous = qInstallMessageHandler(&HeldLine::handle);
    }
    ~HeldLine()
    {
        release();
        qInstallMessageHandler(m_hold->previous);
    }
    HeldLine(const HeldLine&) = delete;
    HeldLine& operator=(const HeldLine&) = delete;

    /// Whether somebody has come to the line.
    bool isReached() const { return m_hold->isReached; }
    /// Whether somebody stands there at this moment.
    bool isHeld() const { return m_hold->isReached && !m_hold->isOver; }
    void release() { m_hold->released.release(); }

private:
    static constexpr int MostMs = 60000;

    /// Whoever is held may go on a little later than this object has gone.
    struct Hold
    {
        QString beginning;
        QtMessageHandler previous = nullptr;
        std::atomic<bool> isReached{false};
        std::atomic<bool> isOver{false};
        QSemaphore released{0};
    };

    static void handle(QtMsgType type, const QMessageLogContext& context, const QString& message)
    {
        const std::shared_ptr<Hold> hold = std::atomic_load(&s_hold);
        if (message.startsWith(hold->beginning) && !hold->isReached.exchange(true)) {
            hold->released.tryAcquire(1, MostMs);
            hold->isOver = true;
        }
        hold->previous(type, context, message);
    }

    static inline std::shared_ptr<Hold> s_hold;
    std::shared_ptr<Hold> m_hold;
};
