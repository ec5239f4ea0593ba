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
class SerialPortReadThreadWorker : public QObject
{
    Q_OBJECT

public:
    explicit SerialPortReadThreadWorker(QObject* parent = nullptr);

    /// Ends a loop that was or will be started with `readLoop`, and waits until it has ended. Called from another
    /// thread, which must keep the reader's thread alive until this returns.
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
    void readyRead(QByteArray data);

private:
    void readOnce();

    int serialPortHandle = -1;
    std::atomic<bool> stopRequested{false};
    std::atomic<bool> readerKnown{false}; ///< publishes `reader`
    pthread_t reader{};
    QSemaphore loopEnded;
};
