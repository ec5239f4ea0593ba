#include "eventually.h"
#include "heldline.h"
#include "linkedhub.h"
#include "logspy.h"

#include <QDir>
#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include <memory>
#include <vector>

/// The hub with its real transports and their threads: remote units on TCP, and behind the base controller's relay.
class TestRGPComLinks : public LinkedHubTest
{
    Q_OBJECT

private slots:
    void unitJoinsOverTcpAndHearsTheBaseStatus();
    void baseStatusComesEvery500Milliseconds();
    void commandsGoBothWaysOverTcp();
    void unitThatReconnectsKeepsItsNewLink();
    void reconnectStormLeavesNothingBehind();
    void servicesAreConnectedInTheirOwnThread();
    void serviceMessagesGoBothWays();
    void checksumsAreRenewedWithoutHoldingUpTheBaseStatus();
    void secondInitializeOnlyLogs();
    void missingServicesAreSurvived();
    void hubEndsWithUnitsOnBothPaths();
};

namespace {

/// Threads of that name; others come and go as they like.
int threadCount(const char* wanted = "glink-tcp")
{
    int count = 0;
    const QStringList tasks = QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& task : tasks) {
        QFile name("/proc/self/task/" + task + "/comm");
        count += name.open(QIODevice::ReadOnly) && name.readAll().trimmed() == wanted ? 1 : 0;
    }
    return count;
}

} // namespace

// --- TCP ------------------------------------------------------------------------------------------------------------

void TestRGPComLinks::unitJoinsOverTcpAndHearsTheBaseStatus()
{
    TcpUnit unit;
    unit.write(initFrame(Unit));
    VERIFY_EVENTUALLY(unit.received.count(InitAck) == 1);
    QCOMPARE(unit.received.count(Init, true), 1);
    QCOMPARE(unit.received.lastPayload(InitAck).toHex(), initAckPayload(0, "").toHex());

    m_plant->unit.setTag("bu_state", 17);
    VERIFY_EVENTUALLY(unit.received.lastPayload(Status).toHex() == QByteArray("050411000000000000"));
}

void TestRGPComLinks::baseStatusComesEvery500Milliseconds()
{
    const auto timers = m_plant->hub->findChildren<QTimer*>(QString(), Qt::FindDirectChildrenOnly);
    QVERIFY(std::any_of(timers.begin(), timers.end(), [](const QTimer* timer) { return timer->interval() == 500; }));
    TcpUnit unit;
    QElapsedTimer time;
    time.start();
    unit.write(initFrame(Unit));
    VERIFY_EVENTUALLY(unit.received.count(Status) >= 5);
    // Four periods lie between them. However late the first was, the timer keeps its beat: it makes up for one at most.
    QVERIFY2(time.elapsed() >= 1400, qPrintable(QString::number(time.elapsed())));
}

void TestRGPComLinks::commandsGoBothWaysOverTcp()
{
    QSignalSpy commands(m_plant->hub.data(), &RGPCom::readyReadCmdFromRGP);
    TcpUnit unit;
    TcpUnit other;
    unit.write(initFrame(Unit) + gLinkFrame(Command, "from 5"));
    other.write(initFrame(OtherUnit));
    VERIFY_EVENTUALLY(commands.count() == 1);
    QCOMPARE(commands.at(0).at(0).toByteArray(), QByteArray("from 5"));
    VERIFY_EVENTUALLY(unit.received.count(InitAck) == 1); // before that it has no link
    VERIFY_EVENTUALLY(other.received.count(InitAck) == 1);

    m_plant->hub->sendCmd("to all");
    VERIFY_EVENTUALLY(unit.received.lastPayload(Command) == QByteArray("to all"));
    VERIFY_EVENTUALLY(other.received.lastPayload(Command) == QByteArray("to all"));
}

// A unit that reconnects before its old, half-open connection has timed out keeps its new link; the old one is freed.
void TestRGPComLinks::unitThatReconnectsKeepsItsNewLink()
{
    TcpUnit old;
    old.write(initFrame(Unit));
    VERIFY_EVENTUALLY(old.received.count(InitAck) == 1);
    QCOMPARE(threadCount(), 1);
    old.isAcknowledging = false; // half open: nothing comes back any more

    TcpUnit current;
    current.write(initFrame(Unit));
    VERIFY_EVENTUALLY(current.received.count(InitAck) == 1);
    VERIFY_EVENTUALLY(!old.isConnected());
    VERIFY_EVENTUALLY(threadCount() == 1);

    m_plant->hub->send(Unit, Forward, "still there");
    VERIFY_EVENTUALLY(current.received.lastPayload(Forward) == QByteArray("still there"));
    QCOMPARE(m_plant->unit.tagValue("total_rus"), 1);
}

void TestRGPComLinks::reconnectStormLeavesNothingBehind()
{
    {
        std::vector<std::unique_ptr<TcpUnit>> units;
        for (int i = 0; i < 100; ++i) {
            // Every third one stays half open behind its successor, the others close.
            if (i % 3 != 0) {
                units.clear();
            }
            units.push_back(std::make_unique<TcpUnit>());
            units.back()->write(initFrame(Unit));
            VERIFY_EVENTUALLY(units.back()->received.count(InitAck) == 1);
        }
        m_plant->hub->send(Unit, Forward, "the last one");
        VERIFY_EVENTUALLY(units.back()->received.lastPayload(Forward) == QByteArray("the last one"));
        VERIFY_EVENTUALLY(threadCount() == 1);
    }
    VERIFY_EVENTUALLY(threadCount() == 0);
    QCOMPARE(m_plant->unit.tagValue("total_rus"), 1);
}

// --- Fallback -------------------------------------------------------------------------------------------------------

// They may be emitting, and a connection made elsewhere would meet them there.
void TestRGPComLinks::servicesAreConnectedInTheirOwnThread()
{
    Services services;
    {
        GLinkServer::setListenAddress(QHostAddress("127.0.0.2"));
        RGPCom hub(&m_plant->unit.tags, m_plant->unit.configuration.data(), nullptr);
        hub.initialize(services.gFallback, services.cFallback);
        GLinkServer::setListenAddress(ListenAddress);
        const QSet<QThread*> itsThread{&services.thread};
        VERIFY_EVENTUALLY(services.gFallback->connectedIn() == itsThread);
        VERIFY_EVENTUALLY(services.cFallback->connectedIn() == itsThread);
    }
}

void TestRGPComLinks::serviceMessagesGoBothWays()
{
    CFallbackServiceC* const service = m_plant->services.cFallback;
    QObject here;
    QList<QByteArray> toController;
    connect(service, &ServiceBase::readyReadFromService, &here,
            [&toController](const QByteArray& packet) { toController << packet; });
    TcpUnit unit;
    unit.write(initFrame(Unit) + gLinkFrame(Forward, "question"));
    VERIFY_EVENTUALLY(toController.size() == 1);
    QCOMPARE(toController.first(), QByteArray::fromHex("0500") + "question");
    VERIFY_EVENTUALLY(unit.received.count(InitAck) == 1); // before that it has no link

    const auto answer = [service] {
        service->readData(QByteArray::fromHex("0500") + "answer", Internal, MSG_CLASS_TRANSP_ACK);
    };
    QMetaObject::invokeMethod(service, answer, Qt::QueuedConnection);
    VERIFY_EVENTUALLY(unit.received.lastPayload(Forward) == QByteArray("answer"));
}

// --- Start, end, load -----------------------------------------------------------------------------------------------

// An application is being hashed for as long as one likes, and units reconnect all the time: the base status goes on.
void TestRGPComLinks::checksumsAreRenewedWithoutHoldingUpTheBaseStatus()
{
    m_plant.reset(); // its hub has made its list already
    const LogSpy quiet;
    BaseUnit base;
    const QByteArray checksum = base.installApplication("Panel { }");
    RGPCom hub(&base.tags, base.configuration.data(), nullptr);
    QByteArray result;
    hub.getAppChecksum(result);
    hub.initialize(nullptr, nullptr);
    TcpUnit healthy;
    healthy.write(initFrame(OtherUnit, checksum));
    VERIFY_EVENTUALLY(healthy.received.lastPayload(InitAck).toHex() == initAckPayload(0, "").toHex());

    base.addDevice();
    HeldLine hashing(BaseUnit::DeviceLine);
    const int seen = healthy.received.count(Status);
    for (int round = 0; round < 10; ++round) {
        hub.configChanged();
        TcpUnit reconnecting;
        reconnecting.write(initFrame(Unit, checksum));
        VERIFY_EVENTUALLY(reconnecting.received.count(Init, true) == 1); // its thread waits for the checksum now
    }
    VERIFY_EVENTUALLY(healthy.received.count(Status) >= seen + 3);
    QVERIFY(hashing.isHeld());
}

void TestRGPComLinks::secondInitializeOnlyLogs()
{
    VERIFY_EVENTUALLY(threadCount("fallback") == 1);
    LogSpy log;
    m_plant->hub->initialize(m_plant->services.gFallback, m_plant->services.cFallback);
    QCOMPARE(log.lines(), QStringList{"RGPCom::initialize() has been called before, ignored."});
    QCOMPARE(m_plant->hub->findChildren<GLinkServer*>().size(), 1);

    FallbackRelay& relay = m_plant->relay;
    relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == 1);
    QCOMPARE(relay.unit(Unit).count(Init, true), 1);
    QCOMPARE(threadCount("fallback"), 1);
}

void TestRGPComLinks::missingServicesAreSurvived()
{
    m_plant->hub.reset();
    LogSpy log;
    RGPCom hub(&m_plant->unit.tags, m_plant->unit.configuration.data(), nullptr);
    hub.initialize(nullptr, nullptr);
    QCOMPARE(log.lines(QtWarningMsg),
             (QStringList{"RGPCom: no fallback service, remote units can join over TCP only.",
                          "RGPCom: no service for the remote units' service messages, they are dropped."}));
    TcpUnit unit;
    unit.write(initFrame(Unit));
    VERIFY_EVENTUALLY(unit.received.count(InitAck) == 1);
}

void TestRGPComLinks::hubEndsWithUnitsOnBothPaths()
{
    LogSpy log;
    TcpUnit tcp;
    tcp.write(initFrame(OtherUnit));
    FallbackRelay& relay = m_plant->relay;
    relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(tcp.received.count(InitAck) == 1);
    VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == 1);
    for (int i = 0; i < 100; ++i) {
        m_plant->hub->sendToAll(Forward, "on its way while the hub ends");
    }
    m_plant->services.end();
    m_plant->hub.reset();
    VERIFY_EVENTUALLY(!tcp.isConnected());
    QCOMPARE(log.lines(QtWarningMsg), QStringList()); // one for each thread that did not end in time
}

QTEST_GUILESS_MAIN(TestRGPComLinks)
#include "tst_rgpcomlinks.moc"
