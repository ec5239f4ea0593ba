#include "relayoncrash.h"
#include "sanitizer.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <functional>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

void leaveSignalsAlone()
{
    for (int number = 1; number < SIGRTMIN; ++number) {
        signal(number, SIG_DFL); // the test library has handlers of its own
    }
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
}

/// What `waitpid` says of a child that does this.
int statusAfter(const std::function<void()>& action)
{
    const pid_t child = fork();
    if (child == 0) {
        leaveSignalsAlone();
        action();
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

} // namespace

class TestRelayOnCrash : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void aDeadlySignalOpensTheRelayAndEndsTheProcess_data();
    void aDeadlySignalOpensTheRelayAndEndsTheProcess();
    void aFaultOfAThreadOpensTheRelay();
    void whoHandlesASignalKeepsIt();
    void theLineOfTheLastCallIsOpened();
    void theDescriptorMayBeClosedBeforeTheCrash();
    void anOrderlyEndLeavesTheLineAlone();

private:
    int drive(const char* name = "value") const
    {
        return open(path(name).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    }
    QByteArray path(const char* name) const { return QFile::encodeName(m_folder->filePath(name)); }
    QByteArray level(const char* name = "value") const;

    QScopedPointer<QTemporaryDir> m_folder;
};

void TestRelayOnCrash::init()
{
    m_folder.reset(new QTemporaryDir);
    for (const char* name : {"value", "other"}) {
        QFile file(m_folder->filePath(QString::fromLatin1(name)));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write("1") == 1);
    }
}

QByteArray TestRelayOnCrash::level(const char* name) const
{
    QFile file(m_folder->filePath(QString::fromLatin1(name)));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("unreadable");
}

void TestRelayOnCrash::aDeadlySignalOpensTheRelayAndEndsTheProcess_data()
{
    QTest::addColumn<int>("number");
    QList<int> numbers{SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGSYS, SIGTRAP};
    if (!IsThreadSanitized) { // which keeps the others to itself for a while, and forgets those that a handler raises
        numbers << SIGQUIT << SIGHUP << SIGXCPU << SIGXFSZ << SIGUSR1 << SIGUSR2 << SIGALRM << SIGVTALRM << SIGPROF;
    }
    for (const int number : qAsConst(numbers)) {
        QTest::newRow(strsignal(number)) << number;
    }
}

void TestRelayOnCrash::aDeadlySignalOpensTheRelayAndEndsTheProcess()
{
    QFETCH(int, number);
    const int status = statusAfter([this, number] {
        openRelayOnCrash(drive());
        kill(getpid(), number);
    });
    QVERIFY(WIFSIGNALED(status));
    QCOMPARE(WTERMSIG(status), number);
    QCOMPARE(level(), QByteArray("0"));
}

/// Not sent, but met; and by a thread that has its signals blocked by nobody.
void TestRelayOnCrash::aFaultOfAThreadOpensTheRelay()
{
    const int status = statusAfter([this] {
        openRelayOnCrash(drive());
        QScopedPointer<QThread> thread(QThread::create([] { abort(); }));
        thread->start();
        thread->wait();
    });
    QVERIFY(WIFSIGNALED(status));
    QCOMPARE(WTERMSIG(status), SIGABRT);
    QCOMPARE(level(), QByteArray("0"));
}

void TestRelayOnCrash::whoHandlesASignalKeepsIt()
{
    const int status = statusAfter([this] {
        signal(SIGSEGV, [](int) { _exit(7); });
        openRelayOnCrash(drive());
        kill(getpid(), SIGSEGV);
    });
    QVERIFY(WIFEXITED(status));
    QCOMPARE(WEXITSTATUS(status), 7);
    QCOMPARE(level(), QByteArray("1"));
}

void TestRelayOnCrash::theLineOfTheLastCallIsOpened()
{
    statusAfter([this] {
        openRelayOnCrash(drive("other"));
        openRelayOnCrash(drive("value"));
        kill(getpid(), SIGSEGV);
    });
    QCOMPARE(level("other"), QByteArray("1"));
    QCOMPARE(level("value"), QByteArray("0"));
}

void TestRelayOnCrash::theDescriptorMayBeClosedBeforeTheCrash()
{
    statusAfter([this] {
        const int line = drive();
        openRelayOnCrash(line);
        close(line);
        const int reused = drive("other");
        kill(getpid(), reused == line ? SIGSEGV : SIGKILL);
    });
    QCOMPARE(level("value"), QByteArray("0"));
    QCOMPARE(level("other"), QByteArray("1"));
}

void TestRelayOnCrash::anOrderlyEndLeavesTheLineAlone()
{
    const int status = statusAfter([this] { openRelayOnCrash(drive()); });
    QVERIFY(WIFEXITED(status));
    QCOMPARE(level(), QByteArray("1"));
}

QTEST_GUILESS_MAIN(TestRelayOnCrash)
#include "tst_relayoncrash.moc"
