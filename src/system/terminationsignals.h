#pragma once

#include <QObject>

class QSocketNotifier;

/// Turns SIGTERM and SIGINT into a signal of the event loop, and ignores SIGPIPE (a peer that vanishes must not take
/// the process with it). Make one, in the main thread, before the event loop runs; a request that arrives earlier waits
/// in a pipe and is delivered when the loop starts.
class TerminationSignals : public QObject
{
    Q_OBJECT

public:
    /// One at a time in a process: the handlers reach nothing but what is global. Where no descriptors are left for the
    /// pipe, the signals keep their default action and end the process at once.
    explicit TerminationSignals(QObject* parent = nullptr);
    /// Gives SIGTERM and SIGINT their default action back; SIGPIPE stays ignored.
    ~TerminationSignals() override;
    TerminationSignals(const TerminationSignals&) = delete;
    TerminationSignals& operator=(const TerminationSignals&) = delete;

signals:
    /// Emitted in the main thread; several requests that came close together may be told as one.
    void terminationRequested();

private slots:
    void readPipe();

private:
    QSocketNotifier* m_notifier = nullptr;
};
