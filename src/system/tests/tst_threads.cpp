#include "fatalprobe.h"
#include "sanitizer.h"
#include "schedulingattributes.h"
#include "threads.h"

#include <QDebug>
#include <QThread>
#include <QtTest>

#include <array>
#include <cstddef>
#include <memory>
#include <thread>

#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr uid_t OrdinaryUser = 65534;

void becomeOrdinary()
{
    const rlimit noPriority{0, 0};
    if (setrlimit(RLIMIT_RTPRIO, &noPriority) != 0 || (geteuid() == 0 && setuid(OrdinaryUser) != 0)) {
        qFatal("cannot become an ordinary user");
    }
}

/// Asked of the system in another way than the code under test does.
bool isAllowedHere()
{
    const FatalOutcome outcome = outcomeOf([] {
        const sched_param parameters{30};
        qDebug() << (sched_setscheduler(0, SCHED_RR, &parameters) == 0);
    });
    return outcome.log == QStringLiteral("true\n");
}

SchedulingAttributes attributesOfThisThread()
{
    SchedulingAttributes attributes;
    syscall(SYS_sched_getattr, 0, &attributes, sizeof attributes, 0U);
    return attributes;
}

/// In ns; what the system gives to everybody counts as 0.
quint64 sliceOfThisThread()
{
    static const quint64 usual = [] {
        quint64 slice = 0;
        std::thread([&slice] { slice = attributesOfThisThread().runtime; }).join();
        return slice;
    }();
    const quint64 slice = attributesOfThisThread().runtime;
    return slice == usual ? 0 : slice;
}

/// Linux since 6.12.
bool knowsSlices()
{
    bool isKnown = false;
    std::thread([&isKnown] {
        SchedulingAttributes attributes = attributesOfThisThread();
        attributes.runtime = 7'000'000;
        syscall(SYS_sched_setattr, 0, &attributes, 0U);
        isKnown = attributesOfThisThread().runtime == 7'000'000;
    }).join();
    return isKnown;
}

QString standingOfNewThread()
{
    QString standing;
    std::thread([&standing] {
        standing = QStringLiteral("%1 %2").arg(sched_getscheduler(0)).arg(getpriority(PRIO_PROCESS, 0));
    }).join();
    return standing;
}

/// How often this thread had to wait for a page.
long faultsOfThisThread()
{
    rusage usage = {};
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_minflt + usage.ru_majflt;
}

constexpr std::size_t PageBytes = 4096;
constexpr std::size_t Needed = 48 * 1024;

__attribute__((noinline)) void needStack()
{
    std::array<char, Needed> needed;
    for (std::size_t i = 0; i < Needed; i += PageBytes) {
        static_cast<volatile char*>(needed.data())[i] = 0;
    }
}

void needHeap()
{
    std::array<std::unique_ptr<char[]>, Needed / PageBytes> needed;
    for (auto& page : needed) {
        page.reset(new char[PageBytes]);
        *const_cast<volatile char*>(page.get()) = 0;
    }
}

} // namespace

class TestThreads : public QObject
{
    Q_OBJECT

private slots:
    void aThreadHasItsNameAndASmallStack();
    void theWayFromTheUartComesFirst();
    void aClaimIsGrantedWhereTheSystemAllowsIt_data();
    void aClaimIsGrantedWhereTheSystemAllowsIt();
    void aClaimThatIsRefusedChangesNothing();
    void memoryIsLockedWhereTheSystemAllowsIt();
    void theRelaysThreadsHaveMemoryInReserve_data();
    void theRelaysThreadsHaveMemoryInReserve();
};

void TestThreads::aThreadHasItsNameAndASmallStack()
{
    QThread* const thread = Threads::make("a-name");
    QCOMPARE(thread->stackSize(), 512U * 1024U);
    char name[16] = {};
    connect(
        thread, &QThread::started, thread,
        [&name, thread] {
            prctl(PR_GET_NAME, name);
            thread->quit();
        },
        Qt::DirectConnection);
    thread->start();
    QVERIFY(thread->wait(60000));
    delete thread;
    QCOMPARE(name, "a-name");
}

void TestThreads::theWayFromTheUartComesFirst()
{
    using Threads::claimOf;
    using Threads::Role;
    QCOMPARE(claimOf(Role::Relay).realTimePriority, 30);
    QCOMPARE(claimOf(Role::UartReader).realTimePriority, 29);
    QCOMPARE(claimOf(Role::ServiceLayer).realTimePriority, 28);
    QCOMPARE(claimOf(Role::Hub).realTimePriority, 0);
    QCOMPARE(claimOf(Role::UnitLink).realTimePriority, 0);
}

void TestThreads::aClaimIsGrantedWhereTheSystemAllowsIt_data()
{
    QTest::addColumn<int>("role");
    QTest::addColumn<QString>("granted");
    const auto sliced = [](const QString& standing, const QString& slice) {
        return standing + (knowsSlices() ? slice : QStringLiteral("0"));
    };
    QTest::newRow("relay") << static_cast<int>(Threads::Role::Relay) << QStringLiteral("true 1073741825 30 0 0");
    QTest::newRow("hub") << static_cast<int>(Threads::Role::Hub)
                         << sliced(QStringLiteral("true 1073741824 0 -15 "), QStringLiteral("100000"));
    QTest::newRow("background") << static_cast<int>(Threads::Role::Background)
                                << sliced(QStringLiteral("true 1073741824 0 0 "), QStringLiteral("100000000"));
}

/// Scheduling policy (with "reset on fork"), real-time priority, niceness and slice in ns; then what a new thread has
/// of it.
void TestThreads::aClaimIsGrantedWhereTheSystemAllowsIt()
{
    QFETCH(int, role);
    QFETCH(QString, granted);
    const FatalOutcome outcome = outcomeOf([role] {
        const bool isGranted = Threads::claimPriority(static_cast<Threads::Role>(role));
        sched_param parameters = {};
        sched_getparam(0, &parameters);
        qDebug().noquote() << isGranted << sched_getscheduler(0) << parameters.sched_priority
                           << getpriority(PRIO_PROCESS, 0) << sliceOfThisThread()
                           << "new thread:" << standingOfNewThread();
    });
    if (isAllowedHere()) {
        QCOMPARE(outcome.log, granted + QStringLiteral(" new thread: 0 0\n"));
    } else {
        QVERIFY2(outcome.log.startsWith(QStringLiteral("false ")), qPrintable(outcome.log));
    }
}

void TestThreads::aClaimThatIsRefusedChangesNothing()
{
    const FatalOutcome outcome = outcomeOf([] {
        becomeOrdinary();
        qDebug() << Threads::claimPriority(Threads::Role::Relay) << sched_getscheduler(0);
    });
    QCOMPARE(outcome.log, QStringLiteral("false %1\n").arg(SCHED_OTHER));
}

void TestThreads::memoryIsLockedWhereTheSystemAllowsIt()
{
    const FatalOutcome outcome = outcomeOf([] {
        const bool isLocked = Threads::lockMemory();
        QFile status(QStringLiteral("/proc/self/status"));
        const bool isOpen = status.open(QIODevice::ReadOnly);
        const bool showsNone = status.readAll().simplified().contains("VmLck: 0 kB");
        qDebug() << isOpen << (IsSanitized || isLocked != showsNone);
    });
    QCOMPARE(outcome.log, QStringLiteral("true true\n"));
}

void TestThreads::theRelaysThreadsHaveMemoryInReserve_data()
{
    QTest::addColumn<int>("role");
    QTest::newRow("relay") << static_cast<int>(Threads::Role::Relay);
    QTest::newRow("reader") << static_cast<int>(Threads::Role::UartReader);
    QTest::newRow("service layer") << static_cast<int>(Threads::Role::ServiceLayer);
    QTest::newRow("hub") << static_cast<int>(Threads::Role::Hub);
}

/// In the reserve of its own heap and stack, a thread waits for no page.
void TestThreads::theRelaysThreadsHaveMemoryInReserve()
{
    QFETCH(int, role);
    long faults = -1;
    std::thread thread([&faults, role] {
        Threads::claimPriority(static_cast<Threads::Role>(role));
        const long before = faultsOfThisThread();
        needStack();
        needHeap();
        faults = faultsOfThisThread() - before;
    });
    thread.join();
    QVERIFY(faults >= 0);
    QVERIFY(IsSanitized || faults == 0);
}

QTEST_GUILESS_MAIN(TestThreads)

#include "tst_threads.moc"
