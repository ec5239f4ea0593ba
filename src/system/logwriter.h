#pragma once

#include "linequeue.h"

#include <QByteArray>
#include <QSemaphore>
#include <QString>
#include <QThread>

#include <atomic>
#include <chrono>

/// Writes the program's log in a thread of its own, so that nobody who logs ever waits for whoever reads it.
///
/// A line is formatted in the thread that logs, at the time of the call, and put into a bounded queue. While nobody
/// takes lines off the descriptor (a journal that hangs, a full pipe, a dead disk) the queue fills; what then finds no
/// room is dropped and counted, and a line in its place says how many were lost once lines can be written again:
///
///     20261122 09:30:00.000 - LogWriter: 1234 lines lost.
///
/// A reader that has gone ends nothing: lines are then dropped as they are written.
///
/// Lines of one thread come out in the order of its calls, and those of several in the order in which they got into the
/// queue, which need not be that of their time stamps. What a line costs the thread that logs: the formatting, one
/// place in the queue and, if the writing thread sleeps, its waking. What waits goes out in pieces of some 16 KiB,
/// as fast as the descriptor takes them.
///
/// What waits when the process crashes or is killed is lost; a fatal message and the orderly end wait for it, briefly.
class LogWriter
{
public:
    /// What waits at most. The second bound is for datagrams of local programs, which are logged whole. A line that
    /// would exceed either is the one that is lost: what waits already stands. A power of two, for the queue's sake.
    static constexpr LineQueue::Position MaxLines = 8192;
    static constexpr std::size_t MaxBytes = 2 * 1024 * 1024;
    /// What the end of the process, an abnormal one included, waits for the lines that are still queued. A fatal
    /// assertion opens the relay only behind this wait, which is why it is short.
    static constexpr std::chrono::milliseconds EndPatience{100};

    /// Starts writing to the descriptor, which stays the caller's: it must be open as long as this object lives, and is
    /// not closed. Both blocking descriptors and others will do.
    explicit LogWriter(int descriptor);
    /// Writes what waits and ends the thread; waits as long as that takes, for ever if nobody reads. Nobody may add any
    /// more.
    ~LogWriter();
    LogWriter(const LogWriter&) = delete;
    LogWriter& operator=(const LogWriter&) = delete;

    /// Queues a line, its line end included. Any thread; never waits. A line that finds no room is counted as lost; the
    /// caller is not told.
    void add(QByteArray line);

    /// Waits until all lines that were added before have been written, for `bound` at most, and looks every
    /// millisecond. Lines that others add meanwhile are not waited for. Not in the writing thread.
    /// @return whether they have been written, or could not be because the reader has gone.
    bool flush(std::chrono::milliseconds bound);

    /// From now on all messages of Qt's logging go to descriptor 2 this way. Call it first in `main`: it also opens
    /// /dev/null in the place of standard descriptors that are closed, lest a socket become the log. The writer lives
    /// until the process has ended. Once: a second writer on the same descriptor would mix its lines with the first's.
    static void install();
    /// flush() of the installed writer, for the end of the process; at once when there is none. Returns when the lines
    /// are written or `EndPatience` is over, and does not say which.
    static void flushInstalled();

    /// The line of a message, as Qt's own handler writes it to the standard error stream with the pattern
    /// "%{time yyyyMMdd hh:mm:ss.zzz} - %{message}": local time, the text in the locale's encoding up to its first zero
    /// byte, a line feed. Takes no lock that other threads share, but for the first line of a minute.
    static QByteArray lineOf(const QString& message, qint64 msSinceEpoch);

private:
    class Thread final : public QThread
    {
    public:
        explicit Thread(LogWriter& writer)
            : m_writer(writer)
        {}
        void run() override { m_writer.run(); }

    private:
        LogWriter& m_writer;
    };

    void run();
    bool takeBatch();
    void writeBatch();
    void reportLost(std::size_t count);
    void sleepUntilWoken();

    const int m_descriptor; ///< not owned
    LineQueue m_queue{MaxLines};
    std::atomic<std::size_t> m_queuedBytes{0};     ///< of the texts in the queue, and of those that just try to get in
    std::atomic<std::size_t> m_lost{0};            ///< refused since the last line that was queued
    std::atomic<LineQueue::Position> m_written{0}; ///< of the first line that is not written yet
    std::atomic<bool> m_isAsleep{false};  ///< who changes it to false wakes the writing thread, or is that thread
    std::atomic<bool> m_isEnding{false};  ///< the thread ends when it finds nothing left to write
    QSemaphore m_wake;                    ///< what the writing thread sleeps on
    QByteArray m_batch;                   ///< lines that are written with one system call; the writing thread's
    LineQueue::Position m_batchLines = 0; ///< in it
    Thread m_thread{*this};
};
