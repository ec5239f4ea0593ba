#pragma once

#include <QObject>

class QSocketNotifier;

/// Turns SIGTERM and SIGINT into a signal of the event loop, and ignores SIGPIPE (a peer that vanishes must not take
/// the process with it). Make one, in the main thread, before the event loop runs; a request that arrives earlier waits
/// in a pipe and is delivered when the loop starts.
///
///     service manager: SIGTERM -> handler, in any thread: one byte into the pipe -> main thread's event loop:
///     terminationRequested() -> whoever is connected ends the loop -> the server is taken down in order
///
/// Nothing happens in the handler but that byte, so a request is safe at any moment, also in the middle of an
/// allocation. A main thread that hangs does not hear of it, and the process goes on. Reads and writes that the signal
/// interrupts go on, too.
///
/// Keep the object until the orderly end is over: a second request would otherwise end the process in the middle of it.
class TerminationSignals : public QObject
{
    Q_OBJECT

public:
    /// One at a time in a process: the handlers reach nothing but what is global. Where no descriptors are left for the
    /// pipe, the signals keep their default action and end the process at once.
    explicit TerminationSignals(QObject* parent = nullptr);
    /// Gives SIGTERM and SIGINT their default action back; SIGPIPE stays ignored. A request that has not been told by
    /// then is forgotten.
    ~TerminationSignals() override;
    TerminationSignals(const TerminationSignals&) = delete;
    TerminationSignals& operator=(const TerminationSignals&) = delete;

signals:
    /// Emitted in the main thread; several requests that came close together may be told as one, and which of the two
    /// signals it was is not told. Emitted again for every later one: receivers must bear that.
    void terminationRequested();

private slots:
    void readPipe(); ///< empties the pipe: all that has come until now is one request

private:
    QSocketNotifier* m_notifier = nullptr; ///< null where there were no descriptors for the pipe
};
