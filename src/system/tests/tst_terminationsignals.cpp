#include "fatalprobe.h"
#include "terminationsignals.h"

#include <QDebug>
#include <QSignalSpy>
#include <QtTest>

#include <cerrno>
#include <csignal>
#include <sys/resource.h>
#include <unistd.h>

class TestTerminationSignals : public QObject
{
    Q_OBJECT

private slots:
    void eachSignalAsksForTermination_data();
    void eachSignalAsksForTermination();
    void requestBeforeTheEventLoopIsNotLost();
    void interruptedCodeKeepsItsErrorNumber();
    void withoutDescriptorsTheSignalsEndTheProcess();
    void brokenPipesAreIgnored();
};

void TestTerminationSignals::eachSignalAsksForTermination_data()
{
    QTest::addColumn<int>("signalNumber");
    QTest::newRow("SIGTERM") << SIGTERM;
    QTest::newRow("SIGINT") << SIGINT;
}

void TestTerminationSignals::eachSignalAsksForTermination()
{
    QFETCH(int, signalNumber);
    TerminationSignals termination;
    QSignalSpy requested(&termination, &TerminationSignals::terminationRequested);

    ::kill(::getpid(), signalNumber);

    QVERIFY(requested.wait(30000));
    QCOMPARE(requested.count(), 1);
}

void TestTerminationSignals::requestBeforeTheEventLoopIsNotLost()
{
    TerminationSignals termination;
    ::raise(SIGTERM);
    ::raise(SIGTERM);
    QSignalSpy requested(&termination, &TerminationSignals::terminationRequested);

    QVERIFY(requested.wait(30000));
    QCOMPARE(requested.count(), 1);
}

void TestTerminationSignals::interruptedCodeKeepsItsErrorNumber()
{
    TerminationSignals termination;
    // Enough to fill the pipe of the requests: then the handler's own write fails.
    constexpr int MoreThanThePipeHolds = 70000;
    int errorNumber = ENOENT;
    for (int i = 0; i < MoreThanThePipeHolds && errorNumber == ENOENT; ++i) {
        errno = ENOENT;
        ::raise(SIGTERM);
        errorNumber = errno;
    }

    QCOMPARE(errorNumber, ENOENT);
}

void TestTerminationSignals::withoutDescriptorsTheSignalsEndTheProcess()
{
    const FatalOutcome outcome = outcomeOf([] {
        rlimit before = {};
        getrlimit(RLIMIT_NOFILE, &before);
        const rlimit noMore{3, before.rlim_max}; // standard input, output and error stream
        setrlimit(RLIMIT_NOFILE, &noMore);
        const TerminationSignals termination;
        setrlimit(RLIMIT_NOFILE, &before);
        struct sigaction onTerm = {};
        struct sigaction onPipe = {};
        sigaction(SIGTERM, nullptr, &onTerm);
        sigaction(SIGPIPE, nullptr, &onPipe);
        qDebug() << (onTerm.sa_handler == SIG_DFL) << (onPipe.sa_handler == SIG_IGN);
    });

    QCOMPARE(outcome.log, QStringLiteral("true true\n"));
    QCOMPARE(outcome.exitCode, 0);
}

void TestTerminationSignals::brokenPipesAreIgnored()
{
    TerminationSignals termination;
    int ends[2];
    QCOMPARE(::pipe(ends), 0);
    ::close(ends[0]);
    const char byte = 0;

    QCOMPARE(::write(ends[1], &byte, 1), static_cast<ssize_t>(-1));
    QCOMPARE(errno, EPIPE);
    ::close(ends[1]);
}

QTEST_GUILESS_MAIN(TestTerminationSignals)
#include "tst_terminationsignals.moc"
