#pragma once

#include <QByteArray>
#include <QObject>
#include <QSemaphore>

#include <atomic>
#include <chrono>
#include <pthread.h>

/// Reads the serial line for as long as the base unit runs, in a thread that does nothing else.
///
/// The read blocks in the kernel: an idle line costs nothing, a received line costs one wake-up. Because the loop never
/// goes back to its thread's event loop, no queued call reaches the worker once it reads; `stop` is the only way out.
///
/// | caller's thread           | reader's thread                                                   |
/// |---------------------------|-------------------------------------------------------------------|
/// | `readLoop`, queued        | asks for its real-time priority, then reads until told not to     |
/// | gets each line, queued    | `readyRead`, and back to the read                                 |
/// | `stop`: a signal,         | the read returns, and the loop ends. The signal comes every 2 ms: |
/// | and waits                 | one that came just before the read would be lost                  |
/// | `stop` returns            | back in its event loop, which can be asked to quit                |
///
/// Made in any thread and moved to the reader's before `readLoop`.
class SerialPortReadThreadWorker : public QObject
{
    Q_OBJECT

public:
    /// Takes the signal SIGRTMIN for the whole process and for good: its handler does nothing, and is there to end a
    /// read that blocks.
    explicit SerialPortReadThreadWorker(QObject* parent = nullptr);

    /// Ends a loop that was or will be started with `readLoop`, and waits until it has ended. Called from another
    /// thread, which must keep the reader's thread alive until this returns. Once; and only if a loop was or will be
    /// started, or it waits for nothing until `bound` is over. A line that the read returns with meanwhile is dropped.
    /// @return false if the loop has not ended within `bound`; the worker and its handle are then still in use.
    bool stop(std::chrono::milliseconds bound);

public slots:
    /// Reads `handle` until `stop`. The terminal driver delivers one line per read, so that each `readyRead` carries
    /// one line with its terminator, or one piece of at most 512 bytes of a longer line.
    ///
    /// A failed or empty read is logged and tried again at once. Handle 0 stands for "no port" and is never read: the
    /// loop then only logs, as fast as it can.
    void readLoop(int handle);

signals:
    /// What one read has returned, 1 to 512 bytes, copied. Emitted in the reader's thread.
    void readyRead(QByteArray data);

private:
    void readOnce();

    int serialPortHandle = -1;
    std::atomic<bool> stopRequested{false}; ///< never taken back
    std::atomic<bool> readerKnown{false};   ///< publishes `reader`
    pthread_t reader{};                     ///< whom to send the signal
    QSemaphore loopEnded;                   ///< released once, as the last thing of the loop
};
