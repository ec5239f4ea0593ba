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
    explicit TerminationSignals(QObject* parent = nullptr);
    ~TerminationSignals() override;
    TerminationSignals(const TerminationSignals&) = delete;
    TerminationSignals& operator=(const TerminationSignals&) = delete;

signals:
    void terminationRequested();

private slots:
    void readPipe();

private:
    QSocketNotifier* m_notifier = nullptr;
};
