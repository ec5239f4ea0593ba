#include "serialportreadthreadworker.h"

#include "threads.h"

#include <QDeadlineTimer>
#include <QDebug>

#include <csignal>
#include <unistd.h>

namespace {

constexpr int ReadSize = 512;
constexpr int NoPortHandle = 0;
/// Pause between two attempts to wake the reader: one that comes just before the read begins is lost.
constexpr int WakePauseMs = 2;

/// A real-time signal, because nothing else in the process or around it gives those a meaning.
int wakeSignal()
{
    return SIGRTMIN;
}

/// Without SA_RESTART a blocked read returns when the signal has been handled, and the loop sees the stop request.
void installWakeHandler()
{
    struct sigaction action = {};
    action.sa_handler = [](int) {
    };
    sigemptyset(&action.sa_mask);
    sigaction(wakeSignal(), &action, nullptr);
}

} // namespace

SerialPortReadThreadWorker::SerialPortReadThreadWorker(QObject* parent)
    : QObject(parent)
{
    installWakeHandler();
}

bool SerialPortReadThreadWorker::stop(std::chrono::milliseconds bound)
{
    stopRequested = true;
    const QDeadlineTimer deadline(bound);
    while (!deadline.hasExpired()) {
        if (readerKnown) {
            pthread_kill(reader, wakeSignal());
        }
        if (loopEnded.tryAcquire(1, WakePauseMs)) {
            return true;
        }
    }
    return false;
}

void SerialPortReadThreadWorker::readLoop(int handle)
{
    Threads::claimPriority(Threads::Role::UartReader);
    serialPortHandle = handle;
    reader = pthread_self();
    readerKnown = true;
    while (!stopRequested) {
        if (handle == NoPortHandle) {
            qDebug() << "Serial_port_read_thread_c: Error: No serial port handle";
        } else {
            readOnce();
        }
    }
    loopEnded.release();
}

void SerialPortReadThreadWorker::readOnce()
{
    char buffer[ReadSize];
    const ssize_t count = ::read(serialPortHandle, buffer, sizeof(buffer));
    if (stopRequested) {
        return;
    }
    if (count < 0) {
        qDebug() << "Serial_port_read_thread_c: Error: No bytes";
    } else if (count == 0) {
        qDebug() << "Serial_port_read_thread_c: Info: No data waiting";
    } else {
        emit readyRead(QByteArray(buffer, static_cast<int>(count)));
    }
}
