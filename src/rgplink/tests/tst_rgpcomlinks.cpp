#include "baseunit.h"
#include "cfallback_service_c.h"
#include "eventually.h"
#include "gfallback_service_c.h"
#include "glinkserver.h"
#include "glinktransporttcp.h"
#include "logspy.h"
#include "remoteunit.h"
#include "rgpcom.h"

#include <QDir>
#include <QElapsedTimer>
#include <QMetaMethod>
#include <QMutex>
#include <QSet>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QThread>
#include <QTimer>
#include <QtTest>

#include <algorithm>
#include <memory>
#include <vector>

/// The hub with its real transports and their threads: remote units on TCP, and behind the base controller's relay.
class TestRGPComLinks : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void unitJoinsOverTcpAndHearsTheBaseStatus();
    void baseStatusComesEvery500Milliseconds();
    void commandsGoBothWaysOverTcp();
    void unitThatReconnectsKeepsItsNewLink();
    void reconnectStormLeavesNothingBehind();
    void servicesAreConnectedInTheirOwnThread();
    void unitJoinsOverTheFallback();
    void longMessageGoesOverTheFallbackInBlocks();
    void unitLeavesTheFallback();
    void rejectedFallbackDetachesTheUnit();
    void unitGoesToTheFallbackAndReturns();
    void whatWaitsOnTheFallbackComesFirstAfterTheReturn();
    void initOverTcpWhileTheFallbackIsInUseIsAnsweredOnce();
    void initOverTcpThatWasGivenUpLeavesTheFallbackInUse();
    void commandsAreNeitherLostNorDoubledAcrossLinks();
    void vanishedUnitOnTheFallbackDoesNotStopAHealthyOne();
    void serviceMessagesGoBothWays();
    void checksumsAreRenewedWithoutHoldingUpTheBaseStatus();
    void secondInitializeOnlyLogs();
    void missingServicesAreSurvived();
    void hubEndsWithUnitsOnBothPaths();

private:
    QScopedPointer<class Plant> m_plant;
};

namespace {

constexpr quint16 Unit = 5;
constexpr quint16 OtherUnit = 6;
constexpr quint8 Init = 1;
constexpr quint8 InitAck = 2;
constexpr quint8 Command = 3;
constexpr quint8 Periodic = 4;
constexpr quint8 Forward = 5;
constexpr quint8 Status = 8;
constexpr quint8 DeInit = 9;

/// An address of this test alone, so that other tests may listen on the same port meanwhile.
const QHostAddress ListenAddress(QStringLiteral("127.0.11.47"));

QByteArray initFrame(quint16 remoteId, const QByteArray& checksum = QByteArray())
{
    return gLinkFrame(Init, initPayload(remoteId, BaseUnit::Identity, checksum));
}

int threadCount()
{
    return QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size();
}

/// A remote unit on TCP. Acknowledges what it receives, unless told not to.
class TcpUnit : public QObject
{
public:
    TcpUnit()
    {
        connect(&socket, &QTcpSocket::readyRead, this, &TcpUnit::read);
        socket.connectToHost(ListenAddress, RGPCom::GLinkPort);
    }
    void write(const QByteArray& bytes) { socket.write(bytes); }
    bool isConnected() const { return socket.state() == QAbstractSocket::ConnectedState; }

    ReceivedFrames received;
    bool isAcknowledging = true;
    QTcpSocket socket;

private:
    void read()
    {
        m_rest += socket.readAll();
        while (m_rest.size() >= 17 && m_rest.size() >= frameSize()) {
            const QByteArray frame = m_rest.left(frameSize());
            m_rest.remove(0, frame.size());
            received.frames << frame;
            if (isAcknowledging && frame.at(4) == 0) {
                write(gLinkAck(static_cast<quint8>(frame.at(3))));
            }
        }
    }
    int frameSize() const { return 17 + quint8(m_rest.at(0)) + 256 * quint8(m_rest.at(1)) + 4; }

    QByteArray m_rest;
};

/// Notes in which threads its signals are connected.
template<typename Service>
class WatchedService : public Service
{
public:
    using Service::Service;

    QSet<QThread*> connectedIn() const
    {
        const QMutexLocker lock(&m_mutex);
        return m_connectedIn;
    }

protected:
    void connectNotify(const QMetaMethod& signal) override
    {
        const QMutexLocker lock(&m_mutex);
        if (signal.name() != "destroyed") {
            m_connectedIn.insert(QThread::currentThread());
        }
    }

private:
    mutable QMutex m_mutex;
    QSet<QThread*> m_connectedIn;
};

/// Lives in the service-layer thread, with the services.
struct Services
{
    Services()
    {
        gFallback->moveToThread(&thread);
        cFallback->moveToThread(&thread);
        QObject::connect(&thread, &QThread::finished, gFallback, &QObject::deleteLater);
        QObject::connect(&thread, &QThread::finished, cFallback, &QObject::deleteLater);
        thread.start();
    }
    ~Services() { end(); }
    void end()
    {
        thread.quit();
        thread.wait();
    }
    Services(const Services&) = delete;
    Services& operator=(const Services&) = delete;

    QThread thread;
    WatchedService<GfallbackServiceC>* const gFallback = new WatchedService<GfallbackServiceC>(nullptr, 105);
    WatchedService<CFallbackServiceC>* const cFallback = new WatchedService<CFallbackServiceC>(nullptr, 104);
};

} // namespace

class Plant
{
public:
    Plant()
        : relay(services.gFallback)
        , hub(new RGPCom(&unit.tags, unit.configuration.data(), nullptr))
    {
        hub->initialize(services.gFallback, services.cFallback);
    }
    /// As the server ends: the services, which post to the hub's threads, before the hub.
    ~Plant() { services.end(); }

    BaseUnit unit;
    Services services;
    FallbackRelay relay;
    QScopedPointer<RGPCom> hub;
};

void TestRGPComLinks::initTestCase()
{
    GLinkServer::setListenAddress(ListenAddress);
}

void TestRGPComLinks::cleanupTestCase()
{
    GLinkServer::setListenAddress(QHostAddress());
}

void TestRGPComLinks::init()
{
    m_plant.reset(new Plant);
}

void TestRGPComLinks::cleanup()
{
    m_plant.reset();
}

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
    TcpUnit unit;
    unit.write(initFrame(Unit));
    VERIFY_EVENTUALLY(unit.received.count(Status) == 1);
    QElapsedTimer time;
    time.start();
    VERIFY_EVENTUALLY(unit.received.count(Status) >= 4);
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
    const int threads = threadCount();
    TcpUnit old;
    old.write(initFrame(Unit));
    VERIFY_EVENTUALLY(old.received.count(InitAck) == 1);
    QCOMPARE(threadCount(), threads + 1);
    old.isAcknowledging = false; // half open: nothing comes back any more

    TcpUnit current;
    current.write(initFrame(Unit));
    VERIFY_EVENTUALLY(current.received.count(InitAck) == 1);
    VERIFY_EVENTUALLY(!old.isConnected());
    VERIFY_EVENTUALLY(threadCount() == threads + 1);

    m_plant->hub->send(Unit, Forward, "still there");
    VERIFY_EVENTUALLY(current.received.lastPayload(Forward) == QByteArray("still there"));
    QCOMPARE(m_plant->unit.tagValue("total_rus"), 1);
}

void TestRGPComLinks::reconnectStormLeavesNothingBehind()
{
    const int threads = threadCount();
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
        VERIFY_EVENTUALLY(threadCount() == threads + 1);
    }
    VERIFY_EVENTUALLY(threadCount() == threads);
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

void TestRGPComLinks::unitJoinsOverTheFallback()
{
    QSignalSpy commands(m_plant->hub.data(), &RGPCom::readyReadCmdFromRGP);
    FallbackRelay& relay = m_plant->relay;
    relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == 1);
    QCOMPARE(relay.unit(Unit).count(Init, true), 1);
    QCOMPARE(relay.unit(Unit).lastPayload(InitAck).toHex(), initAckPayload(0, "").toHex());
    m_plant->hub->sendBaseStatusToRemote();
    VERIFY_EVENTUALLY(relay.unit(Unit).count(Status) >= 1);

    relay.deliver(Unit, gLinkFrame(Command, "from 5"));
    VERIFY_EVENTUALLY(commands.count() == 1);
    VERIFY_EVENTUALLY(relay.unit(Unit).count(Command, true) == 1);
}

void TestRGPComLinks::longMessageGoesOverTheFallbackInBlocks()
{
    QSignalSpy periodic(m_plant->hub.data(), &RGPCom::readyReadFromRGP);
    FallbackRelay& relay = m_plant->relay;
    relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == 1);
    QByteArray values(1000, '\0');
    for (int i = 0; i < values.size(); ++i) {
        values[i] = char(i * 7);
    }
    m_plant->hub->send(Unit, Forward, values);
    VERIFY_EVENTUALLY(relay.unit(Unit).lastPayload(Forward) == values);
    relay.deliver(Unit, gLinkFrame(Periodic, values));
    VERIFY_EVENTUALLY(periodic.count() == 1);
    QCOMPARE(periodic.at(0).at(2).toByteArray(), values);
}

void TestRGPComLinks::unitLeavesTheFallback()
{
    FallbackRelay& relay = m_plant->relay;
    relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == 1);
    relay.deliver(Unit, gLinkFrame(DeInit, QByteArray()));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(DeInit, true) == 1);
    m_plant->hub->send(Unit, Forward, "dropped");
    relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == 2);
    QCOMPARE(relay.unit(Unit).count(Forward), 0);
}

void TestRGPComLinks::rejectedFallbackDetachesTheUnit()
{
    LogSpy log;
    FallbackRelay& relay = m_plant->relay;
    relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == 1);
    relay.reject();
    VERIFY_EVENTUALLY(log.count("RGPCom::removeFallbackLink 5") == 1);
    const int frames = relay.unit(Unit).frames.size();
    m_plant->hub->send(Unit, Forward, "dropped");

    relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == 2);
    QVERIFY(relay.unit(Unit).frames.size() > frames);
    QCOMPARE(relay.unit(Unit).count(Forward), 0);
}

void TestRGPComLinks::unitGoesToTheFallbackAndReturns()
{
    FallbackRelay& relay = m_plant->relay;
    auto tcp = std::make_unique<TcpUnit>();
    tcp->write(initFrame(Unit));
    VERIFY_EVENTUALLY(tcp->received.count(InitAck) == 1);
    tcp.reset();

    relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == 1);
    m_plant->hub->send(Unit, Forward, "over the fallback");
    VERIFY_EVENTUALLY(relay.unit(Unit).lastPayload(Forward) == QByteArray("over the fallback"));

    tcp = std::make_unique<TcpUnit>();
    tcp->write(initFrame(Unit));
    VERIFY_EVENTUALLY(tcp->received.count(InitAck) == 1);
    m_plant->hub->send(Unit, Forward, "over TCP");
    VERIFY_EVENTUALLY(tcp->received.lastPayload(Forward) == QByteArray("over TCP"));
    const int framesOverFallback = relay.unit(Unit).frames.size();
    m_plant->hub->sendBaseStatusToRemote();
    VERIFY_EVENTUALLY(tcp->received.count(Status) >= 1);
    QCOMPARE(relay.unit(Unit).frames.size(), framesOverFallback);
}

// The base controller is slow to ask, or the unit quick to return: nothing is lost, late or out of order.
void TestRGPComLinks::whatWaitsOnTheFallbackComesFirstAfterTheReturn()
{
    const LogSpy log;
    FallbackRelay& relay = m_plant->relay;
    relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == 1);
    relay.isAsking = false;
    m_plant->hub->send(Unit, Forward, "taken");
    VERIFY_EVENTUALLY(relay.unit(Unit).count(Forward) == 1);
    const int queued = log.count("Link BUSY, Tx message queued.");
    m_plant->hub->sendCmd("not asked for");
    VERIFY_EVENTUALLY(log.count("Link BUSY, Tx message queued.") > queued);
    m_plant->hub->sendCmd("behind it");

    TcpUnit tcp;
    tcp.write(initFrame(Unit));
    VERIFY_EVENTUALLY(tcp.received.count(InitAck) == 1 && tcp.received.count(Command) == 2);
    QCOMPARE(tcp.received.payloads(Command), (QByteArrayList{"not asked for", "behind it"}));
    relay.isAsking = true;
    relay.ask(Unit);
    relay.deliver(OtherUnit, initFrame(OtherUnit));
    VERIFY_EVENTUALLY(relay.unit(OtherUnit).count(InitAck) == 1);
    QCOMPARE(relay.unit(Unit).count(Command), 0);
}

// An INIT over TCP while the fallback is in use yields exactly one INITACK, on either path, under load too.
void TestRGPComLinks::initOverTcpWhileTheFallbackIsInUseIsAnsweredOnce()
{
    FallbackRelay& relay = m_plant->relay;
    for (int round = 1; round <= 20; ++round) {
        relay.deliver(Unit, initFrame(Unit));
        VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == round);
        TcpUnit tcp;
        tcp.write(initFrame(Unit));
        for (int i = 0; i < 10; ++i) {
            m_plant->hub->send(Unit, Forward, "load");
            QCoreApplication::processEvents();
        }
        VERIFY_EVENTUALLY(tcp.received.count(InitAck) + relay.unit(Unit).count(InitAck) == round + 1);
        m_plant->hub->send(Unit, Forward, "the last one");
        VERIFY_EVENTUALLY(tcp.received.lastPayload(Forward) == QByteArray("the last one"));
        QCOMPARE(tcp.received.count(InitAck) + relay.unit(Unit).count(InitAck), round + 1);
    }
}

// An INIT over TCP waits for a large application to be hashed. The unit does not, and goes to the fallback meanwhile.
void TestRGPComLinks::initOverTcpThatWasGivenUpLeavesTheFallbackInUse()
{
    ReceivedFrames& received = m_plant->relay.unit(Unit);
    GLinkTransportTcp givenUp(-1, 0, nullptr, nullptr, nullptr);
    const QSignalSpy ended(&givenUp, &GLinkTransportTcp::finished);
    givenUp.handleInitMsg();
    m_plant->relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(received.count(InitAck) == 1);

    m_plant->hub->addGLink(Unit, &givenUp);
    m_plant->hub->dataFromGLink(Unit, Init, initPayload(Unit, BaseUnit::Identity), &givenUp);
    m_plant->hub->send(Unit, Forward, "still there");

    VERIFY_EVENTUALLY(received.lastPayload(Forward) == "still there");
    VERIFY_EVENTUALLY(ended.count() == 1);
    QCOMPARE(received.count(InitAck), 1);
}

// Fallback and return under load, without a lost or doubled command. A command is accepted for a unit that has a link,
// so the test sends while it knows of one.
void TestRGPComLinks::commandsAreNeitherLostNorDoubledAcrossLinks()
{
    FallbackRelay& relay = m_plant->relay;
    QList<QByteArray> overTcp;
    int number = 0;
    const auto sendSome = [&] {
        for (int i = 0; i < 20; ++i) {
            m_plant->hub->send(Unit, Command, QByteArray::number(number++));
        }
    };
    relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == 1);
    for (int round = 0; round < 5; ++round) {
        sendSome();
        TcpUnit tcp;
        tcp.write(initFrame(Unit));
        VERIFY_EVENTUALLY(tcp.received.count(InitAck) == 1);
        sendSome();
        m_plant->hub->send(Unit, Forward, "all sent");
        VERIFY_EVENTUALLY(tcp.received.count(Forward) == 1);
        for (const QByteArray& frame : qAsConst(tcp.received.frames)) {
            if (frame.at(3) == Command && frame.at(4) == 0) {
                overTcp << ReceivedFrames::payloadOf(frame);
            }
        }
        // The unit prefers the fallback again while TCP still stands.
        const int answers = relay.unit(Unit).count(InitAck);
        relay.deliver(Unit, initFrame(Unit));
        VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == answers + 1);
    }
    QList<int> arrived;
    for (const QByteArray& payload : qAsConst(overTcp)) {
        arrived << payload.toInt();
    }
    for (const QByteArray& frame : qAsConst(relay.unit(Unit).frames)) {
        if (frame.at(3) == Command && frame.at(4) == 0) {
            arrived << ReceivedFrames::payloadOf(frame).toInt();
        }
    }
    std::sort(arrived.begin(), arrived.end());
    QList<int> sent;
    for (int i = 0; i < number; ++i) {
        sent << i;
    }
    QCOMPARE(arrived, sent);
}

void TestRGPComLinks::vanishedUnitOnTheFallbackDoesNotStopAHealthyOne()
{
    FallbackRelay& relay = m_plant->relay;
    relay.deliver(OtherUnit, initFrame(OtherUnit));
    VERIFY_EVENTUALLY(relay.unit(OtherUnit).count(InitAck) == 1);
    relay.isAcknowledging = false;
    m_plant->hub->send(OtherUnit, Forward, "never acknowledged");
    VERIFY_EVENTUALLY(relay.unit(OtherUnit).count(Forward) == 1);
    relay.isAcknowledging = true;

    relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == 1);
    for (int i = 1; i <= 5; ++i) {
        m_plant->hub->sendBaseStatusToRemote();
        VERIFY_EVENTUALLY(relay.unit(Unit).count(Status) >= i);
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

// With a 64 MiB application that changes and units that reconnect all the time, the base status keeps its rhythm.
void TestRGPComLinks::checksumsAreRenewedWithoutHoldingUpTheBaseStatus()
{
    m_plant.reset(); // its hub has made its list already
    BaseUnit base;
    const QByteArray checksum = base.installApplication(QByteArray(64 * 1024 * 1024, 'x'));
    RGPCom hub(&base.tags, base.configuration.data(), nullptr);
    QByteArray result;
    hub.getAppChecksum(result);
    hub.initialize(nullptr, nullptr);
    TcpUnit healthy;
    healthy.write(initFrame(OtherUnit, checksum));
    VERIFY_EVENTUALLY(healthy.received.lastPayload(InitAck).toHex() == initAckPayload(0, "").toHex());

    qint64 longestPause = 0;
    QElapsedTimer sinceStatus;
    sinceStatus.start();
    int seen = 0;
    for (int round = 0; round < 10; ++round) {
        hub.configChanged();
        TcpUnit reconnecting;
        reconnecting.write(initFrame(Unit, checksum));
        VERIFY_EVENTUALLY(reconnecting.received.count(InitAck) == 1);
        const int statuses = healthy.received.count(Status);
        if (statuses > seen) {
            longestPause = qMax(longestPause, sinceStatus.restart());
            seen = statuses;
        }
    }
    VERIFY_EVENTUALLY(healthy.received.count(Status) > seen);
    longestPause = qMax(longestPause, sinceStatus.elapsed());
    QVERIFY2(longestPause < 1500, qPrintable(QString::number(longestPause)));
}

void TestRGPComLinks::secondInitializeOnlyLogs()
{
    LogSpy log;
    const int threads = threadCount();
    m_plant->hub->initialize(m_plant->services.gFallback, m_plant->services.cFallback);
    QCOMPARE(log.lines(), QStringList{"RGPCom::initialize() has been called before, ignored."});
    QCOMPARE(threadCount(), threads);
    QCOMPARE(m_plant->hub->findChildren<GLinkServer*>().size(), 1);

    FallbackRelay& relay = m_plant->relay;
    relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == 1);
    QCOMPARE(relay.unit(Unit).count(Init, true), 1);
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
    QElapsedTimer time;
    time.start();
    m_plant->services.end();
    m_plant->hub.reset();
    QVERIFY2(time.elapsed() < 1000, qPrintable(QString::number(time.elapsed())));
    VERIFY_EVENTUALLY(!tcp.isConnected());
    QCOMPARE(log.lines(QtWarningMsg), QStringList());
}

QTEST_GUILESS_MAIN(TestRGPComLinks)
#include "tst_rgpcomlinks.moc"
