#include "watchdog.h"

#include "eventually.h"
#include "logspy.h"

#include <QSemaphore>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <cstddef>
#include <cstring>
#include <memory>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

/// The service manager's end of the protocol.
class Manager
{
public:
    enum class Name { Path, Abstract };

    explicit Manager(Name kind = Name::Path)
        : m_socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0))
    {
        const QByteArray text = kind == Name::Path ? QFile::encodeName(m_folder.filePath(QStringLiteral("notify")))
                                                   : "@tst_watchdog-" + QByteArray::number(::getpid());
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, text.constData(), static_cast<size_t>(text.size()));
        if (kind == Name::Abstract) {
            address.sun_path[0] = '\0';
        }
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + static_cast<size_t>(text.size()));
        if (::bind(m_socket, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
            qFatal("cannot play the service manager");
        }
        qputenv("NOTIFY_SOCKET", text);
    }
    ~Manager() { ::close(m_socket); }

    /// The next datagram; null when there is none.
    QByteArray next()
    {
        char bytes[256];
        const ssize_t count = ::recv(m_socket, bytes, sizeof(bytes), 0);
        return count < 0 ? QByteArray() : QByteArray(bytes, static_cast<int>(count));
    }
    bool hears(const QByteArray& wanted)
    {
        for (QByteArray heard = next(); !heard.isNull(); heard = next()) {
            if (heard == wanted) {
                return true;
            }
        }
        return false;
    }

private:
    QTemporaryDir m_folder;
    int m_socket;
};

/// A thread with somebody in it, who can be made to hang.
class Worker
{
public:
    Worker()
    {
        m_resident.moveToThread(&m_thread);
        m_thread.start();
    }
    ~Worker()
    {
        resume();
        m_thread.quit();
        m_thread.wait();
    }
    QObject* resident() { return &m_resident; }
    void hang()
    {
        QMetaObject::invokeMethod(
            &m_resident, [this] { m_goOn.acquire(); }, Qt::QueuedConnection);
    }
    void resume() { m_goOn.release(); }

private:
    QObject m_resident;
    QThread m_thread;
    QSemaphore m_goOn;
};

} // namespace

class TestWatchdog : public QObject
{
    Q_OBJECT

private slots:
    void cleanup();
    void withoutServiceManagerNothingHappens();
    void readinessIsToldToEitherKindOfSocket_data();
    void readinessIsToldToEitherKindOfSocket();
    void theVariablesAreNotForChildren();
    void withoutWatchdogTimeThereAreNoSignsOfLife();
    void anotherProcessesWatchdogIsNotOurs();
    void signsOfLifeComeInTime();
    void aThreadThatHangsSilencesThem();
    void anImpossibleSocketIsIgnored_data();
    void anImpossibleSocketIsIgnored();
};

void TestWatchdog::cleanup()
{
    for (const char* const name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) {
        qunsetenv(name);
    }
}

void TestWatchdog::withoutServiceManagerNothingHappens()
{
    qputenv("WATCHDOG_USEC", "2000");
    ServiceManager manager;
    QVERIFY(!manager.isPresent());
    QCOMPARE(manager.watchdogTime().count(), 0);
    manager.tell("READY=1");
}

void TestWatchdog::readinessIsToldToEitherKindOfSocket_data()
{
    QTest::addColumn<int>("kind");
    QTest::newRow("path") << static_cast<int>(Manager::Name::Path);
    QTest::newRow("abstract") << static_cast<int>(Manager::Name::Abstract);
}

void TestWatchdog::readinessIsToldToEitherKindOfSocket()
{
    QFETCH(int, kind);
    Manager manager(static_cast<Manager::Name>(kind));
    Watchdog watchdog;
    watchdog.start();
    QCOMPARE(manager.next(), QByteArray("READY=1"));
    watchdog.stop();
    QCOMPARE(manager.next(), QByteArray("STOPPING=1"));
    QCOMPARE(manager.next(), QByteArray());
}

void TestWatchdog::theVariablesAreNotForChildren()
{
    const Manager manager;
    qputenv("WATCHDOG_USEC", "2000000");
    qputenv("WATCHDOG_PID", QByteArray::number(::getpid()));
    const ServiceManager told;
    QVERIFY(told.isPresent());
    QCOMPARE(told.watchdogTime().count(), 2000000);
    QVERIFY(!qEnvironmentVariableIsSet("NOTIFY_SOCKET"));
    QVERIFY(!qEnvironmentVariableIsSet("WATCHDOG_USEC"));
    QVERIFY(!qEnvironmentVariableIsSet("WATCHDOG_PID"));
}

void TestWatchdog::withoutWatchdogTimeThereAreNoSignsOfLife()
{
    Manager manager;
    Watchdog watchdog;
    watchdog.start();
    QTest::qWait(300); // longer than the interval between two signs
    QCOMPARE(manager.next(), QByteArray("READY=1"));
    QCOMPARE(manager.next(), QByteArray());
}

void TestWatchdog::anotherProcessesWatchdogIsNotOurs()
{
    const Manager manager;
    qputenv("WATCHDOG_USEC", "2000000");
    qputenv("WATCHDOG_PID", QByteArray::number(::getppid()));
    const ServiceManager told;
    QVERIFY(told.isPresent());
    QCOMPARE(told.watchdogTime().count(), 0);
}

void TestWatchdog::signsOfLifeComeInTime()
{
    Manager manager;
    qputenv("WATCHDOG_USEC", "400000");
    Worker worker;
    Watchdog watchdog;
    watchdog.watch(worker.resident(), QStringLiteral("worker"));
    watchdog.start();
    QCOMPARE(manager.next(), QByteArray("READY=1"));
    for (int i = 0; i < 8; ++i) {
        VERIFY_EVENTUALLY(manager.next() == "WATCHDOG=1");
    }
}

void TestWatchdog::aThreadThatHangsSilencesThem()
{
    LogSpy log;
    Manager manager;
    qputenv("WATCHDOG_USEC", "400000");
    Worker worker;
    Worker other;
    Watchdog watchdog;
    watchdog.watch(worker.resident(), QStringLiteral("worker"));
    watchdog.watch(other.resident(), QStringLiteral("other"));
    watchdog.start();
    VERIFY_EVENTUALLY(manager.hears("WATCHDOG=1"));

    worker.hang();
    const QString silent = QStringLiteral("Watchdog: the thread \"worker\" does not answer.");
    VERIFY_EVENTUALLY(log.contains(silent));
    while (!manager.next().isNull()) {
    }
    const int told = log.count(silent);
    QTest::qWait(500); // more than the time after which the service manager acts
    QCOMPARE(manager.next(), QByteArray());
    QCOMPARE(log.count(silent), told);

    worker.resume();
    VERIFY_EVENTUALLY(manager.hears("WATCHDOG=1"));
    QCOMPARE(log.count(QStringLiteral("Watchdog: the thread \"worker\" answers again.")), log.count(silent));
}

void TestWatchdog::anImpossibleSocketIsIgnored_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("relative") << QByteArray("notify");
    QTest::newRow("one character") << QByteArray("/");
    QTest::newRow("too long") << QByteArray(108, '/');
}

void TestWatchdog::anImpossibleSocketIsIgnored()
{
    QFETCH(QByteArray, text);
    qputenv("NOTIFY_SOCKET", text);
    const ServiceManager manager;
    QVERIFY(!manager.isPresent());
}

QTEST_GUILESS_MAIN(TestWatchdog)

#include "tst_watchdog.moc"
