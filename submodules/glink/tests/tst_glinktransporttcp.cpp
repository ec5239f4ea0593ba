#include "fatalprobe.h"
#include "glinkframes.h"
#include "glinktransporttcp.h"
#include "logspy.h"
#include "tcppeer.h"

#include <QPointer>
#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include <algorithm>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace {

using namespace std::chrono_literals;

/// Times so long that they play no part; each test shortens the one it is about.
constexpr GLinkTcpTimes Never{1h, 1h, 1h, 5s, 1h};

constexpr int HeartbeatId = 0;
constexpr int InitId = 1;
constexpr int InitAckId = 2;
constexpr int CommandId = 3;
constexpr int PeriodicDataId = 4;
constexpr int PowerOffId = 6;
constexpr int Message = 0;
constexpr int Ack = 1;

int socketOption(qintptr descriptor, int level, int name)
{
    int value = -1;
    socklen_t size = sizeof(value);
    getsockopt(static_cast<int>(descriptor), level, name, &value, &size);
    return value;
}

void shrinkBuffer(qintptr descriptor, int name)
{
    const int size = 4096;
    setsockopt(static_cast<int>(descriptor), SOL_SOCKET, name, &size, sizeof(size));
}

} // namespace

/// Server mode, in the thread of the test; tst_glinkserver has threads.
class TestGLinkTransportTcp : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void singleBytesAndTwoFramesInOneReadAreUnderstood();
    void garbageInFrontClosesTheConnection();
    void aBadHeaderClosesOnceAndNothingBehindItIsInterpreted();
    void aBadMessageCloses();
    void aClosingPeerThatDoesNotReadIsAborted();

    void runMakesThreeTimersAndStartsNone();
    void anInitRegistersTheLink();
    void anInitUnderAnotherIdReleasesTheFirst();
    void anInitStopsTheAckTimer();
    void aReceivedInitAckIsNotCheckedInServerMode();

    void aMuteUnitIsNeverTimedOut();
    void silenceEndsTheLink();
    void aMissingAckEndsTheLink();
    void anAckInTimeKeepsTheLink();
    void theAckOfAHeartbeatStopsTheAckTimer();
    void heartbeatsGoOutWhenNothingIsReceived();
    void aUnitThatSendsContinuouslyGetsNoHeartbeat();

    void aPeerThatClosesInTheMiddleOfAFrameJustEnds();
    void aResetConnectionJustEnds();
    void aConnectionThatDiedBeforeRunJustEnds();
    void nothingHappensAfterTheEnd();
    void closeEndsWhateverTheState_data();
    void closeEndsWhateverTheState();
    void destructionClosesTheConnectionWithoutASignal();
    void theSocketOutlivesTheConnection();

    void aDescriptorThatCannotBeAdoptedEndsTheThread();
    void theFifthFailureInARowIsFatal();
    void socketOptionsAreSetForLatencyAndLostPeers();
    void aPeerThatDoesNotReadIsGivenUp();
    void readingPausesWhileTheReceiverIsBehind();
    void aFrameIsOneWrite();

private:
    void start(const GLinkTcpTimes& times = Never);
    void stopPeerReading();

    qintptr m_descriptor = -1;
    QScopedPointer<DescriptorServer> m_server;
    QScopedPointer<TcpPeer> m_peer;
    QScopedPointer<GLinkTransportTcp> m_transport;
    QScopedPointer<QSignalSpy> m_received;
    QScopedPointer<QSignalSpy> m_introduced;
    QStringList m_ends; ///< closedConnection and finished in their order
};

void TestGLinkTransportTcp::init()
{
    m_ends.clear();
    m_server.reset(new DescriptorServer);
    m_peer.reset(new TcpPeer);
    m_peer->connectTo(*m_server);
    m_descriptor = m_server->takeDescriptor();
    QVERIFY(m_descriptor >= 0);
    m_transport.reset(new GLinkTransportTcp(m_descriptor, 0, nullptr, nullptr, nullptr));
    m_received.reset(new QSignalSpy(m_transport.data(), &GLinkTransportBase::readyReadFromGLink));
    m_introduced.reset(new QSignalSpy(m_transport.data(), &GLinkTransportTcp::newConnection));
    connect(m_transport.data(), &GLinkTransportBase::closedConnection, this,
            [this](quint16 remoteId) { m_ends << QStringLiteral("closed %1").arg(remoteId); });
    connect(m_transport.data(), &GLinkTransportTcp::finished, this, [this] { m_ends << QStringLiteral("finished"); });
}

void TestGLinkTransportTcp::cleanup()
{
    m_transport.reset();
    m_received.reset();
    m_introduced.reset();
}

void TestGLinkTransportTcp::start(const GLinkTcpTimes& times)
{
    m_transport->setTimes(times);
    m_transport->run();
}

/// From now on next to nothing that is written to the peer leaves our side.
void TestGLinkTransportTcp::stopPeerReading()
{
    shrinkBuffer(m_descriptor, SO_SNDBUF);
    shrinkBuffer(m_peer->socket.socketDescriptor(), SO_RCVBUF);
    m_peer->socket.setReadBufferSize(1);
}

void TestGLinkTransportTcp::singleBytesAndTwoFramesInOneReadAreUnderstood()
{
    start();
    const QByteArray bytes = Frames::periodicData() + Frames::powerOff();
    for (const char byte : bytes) {
        m_peer->write(QByteArray(1, byte));
        QCoreApplication::processEvents();
    }
    QTRY_COMPARE(m_received->size(), 2);

    m_peer->write(bytes);
    QTRY_COMPARE(m_received->size(), 4);
    QTRY_COMPARE(m_peer->frames().size(), 4);

    QCOMPARE(m_received->at(3).at(1).toInt(), PowerOffId);
    QCOMPARE(m_received->at(3).at(2).toByteArray(), QByteArray("\xbb"));
    QCOMPARE(m_peer->frames().last().left(5).toHex(), QByteArray("0000010601"));
}

void TestGLinkTransportTcp::garbageInFrontClosesTheConnection()
{
    LogSpy log;
    start();

    m_peer->write("garbage" + Frames::init());

    QTRY_COMPARE(m_ends, (QStringList{"closed 0", "finished"}));
    QTRY_VERIFY(!m_peer->isConnected());
    QVERIFY(m_received->isEmpty());
}

void TestGLinkTransportTcp::aBadHeaderClosesOnceAndNothingBehindItIsInterpreted()
{
    LogSpy log;
    start();

    m_peer->write(Frames::periodicData() + Frames::damaged(Frames::powerOff(), 3) + Frames::init());
    QTRY_COMPARE(m_ends, (QStringList{"closed 0", "finished"}));
    m_peer->write(Frames::init());
    QTRY_VERIFY(!m_peer->isConnected());

    QCOMPARE(m_received->size(), 1);
    QVERIFY(m_introduced->isEmpty());
    QCOMPARE(m_ends.size(), 2);
    QCOMPARE(log.lines(), QStringList{"Header CRC error 48"});
}

void TestGLinkTransportTcp::aBadMessageCloses()
{
    LogSpy log;
    start();

    m_peer->write(Frames::init() + Frames::damaged(Frames::command(), 18) + Frames::command());

    QTRY_COMPARE(m_ends, (QStringList{"closed 515", "finished"}));
    QCOMPARE(m_received->size(), 1);
    QCOMPARE(log.count("GLinkTransportBase::processMessage() - CRC error"), 1);
}

void TestGLinkTransportTcp::aClosingPeerThatDoesNotReadIsAborted()
{
    LogSpy log;
    stopPeerReading();
    GLinkTcpTimes times = Never;
    times.silence = 200ms;
    start(times);
    QByteArray moreThanTheSocketsTake(200000, 'x');
    QVERIFY(m_transport->sendMsg(moreThanTheSocketsTake));

    m_peer->write(Frames::damaged(Frames::powerOff(), 3));
    QTRY_COMPARE(log.lines(), QStringList{"Header CRC error 5"});
    QCOMPARE(m_ends, QStringList()); // the orderly end waits for what is still unsent
    QTimer writing;                  // which does not keep the connection
    connect(&writing, &QTimer::timeout, this, [this] { m_peer->write("x"); });
    writing.start(20);

    QTRY_COMPARE(m_ends, (QStringList{"closed 0", "finished"}));
}

void TestGLinkTransportTcp::runMakesThreeTimersAndStartsNone()
{
    m_transport->run();

    QList<int> intervals;
    const auto timers = m_transport->findChildren<QTimer*>(QString(), Qt::FindDirectChildrenOnly);
    for (const QTimer* const timer : timers) {
        QVERIFY(!timer->isActive());
        intervals << timer->interval();
    }
    std::sort(intervals.begin(), intervals.end());
    QCOMPARE(intervals, (QList<int>{250, 4000, 4000})); // heartbeat, silence, acknowledgement; ms
}

void TestGLinkTransportTcp::anInitRegistersTheLink()
{
    start();

    m_peer->write(Frames::init());

    QTRY_COMPARE(m_received->size(), 1);
    QCOMPARE(m_introduced->size(), 1);
    QCOMPARE(m_introduced->first().at(0).toInt(), 0x0203);
    QCOMPARE(m_introduced->first().at(1).value<GLinkTransportTcp*>(), m_transport.data());
    QTRY_COMPARE(m_peer->count(InitId, Ack), 1);
}

void TestGLinkTransportTcp::anInitUnderAnotherIdReleasesTheFirst()
{
    start();
    QByteArray other = QByteArray::fromHex("010207000504") + QByteArray(16, 'x');
    m_transport->addHeader(other, GLINK_MSG_ID_INIT);
    CrcStd32::add(other);

    m_peer->write(Frames::init() + Frames::init());
    QTRY_COMPARE(m_introduced->size(), 2);
    QCOMPARE(m_ends, QStringList());
    m_peer->write(other);
    QTRY_COMPARE(m_introduced->size(), 3);
    QCOMPARE(m_ends, QStringList{"closed 515"});
    m_peer->socket.close();

    QTRY_COMPARE(m_ends, (QStringList{"closed 515", "closed 7", "finished"}));
}

void TestGLinkTransportTcp::anInitStopsTheAckTimer()
{
    GLinkTcpTimes times = Never;
    times.acknowledge = 300ms;
    start(times);

    m_transport->send(1, GLINK_MSG_ID_CMD, "old", 1);
    QTRY_COMPARE(m_peer->count(CommandId, Message), 1);
    m_peer->write(Frames::init());
    QTRY_COMPARE(m_introduced->size(), 1);
    QTest::qWait(500);

    QCOMPARE(m_ends, QStringList());
    m_transport->send(1, GLINK_MSG_ID_INITACK, QByteArray(42, '\0'), 2);
    QTRY_COMPARE(m_peer->count(InitAckId, Message), 1);
}

void TestGLinkTransportTcp::aReceivedInitAckIsNotCheckedInServerMode()
{
    LogSpy log;
    start();
    QByteArray refusal = GLinkInitAck(7, "Go away.").serialize();
    m_transport->addHeader(refusal, GLINK_MSG_ID_INITACK);
    CrcStd32::add(refusal);

    m_peer->write(refusal + Frames::powerOff());

    QTRY_COMPARE(m_received->size(), 2);
    QCOMPARE(m_received->first().at(1).toInt(), InitAckId);
    QTRY_COMPARE(m_peer->count(InitAckId, Ack), 1);
    QCOMPARE(m_ends, QStringList());
    QCOMPARE(log.lines(QtWarningMsg), QStringList());
}

void TestGLinkTransportTcp::aMuteUnitIsNeverTimedOut()
{
    start({20ms, 50ms, 50ms, 5s, 1h});

    QTest::qWait(300);

    QCOMPARE(m_ends, QStringList());
    QVERIFY(m_peer->frames().isEmpty());
}

void TestGLinkTransportTcp::silenceEndsTheLink()
{
    GLinkTcpTimes times = Never;
    times.silence = 100ms;
    start(times);
    QElapsedTimer sinceReceipt;

    sinceReceipt.start();
    m_peer->write("x"); // any byte counts, a whole frame is not needed

    QTRY_COMPARE(m_ends, (QStringList{"closed 0", "finished"}));
    QVERIFY(sinceReceipt.elapsed() >= 95);
    QTRY_VERIFY(!m_peer->isConnected());
}

void TestGLinkTransportTcp::aMissingAckEndsTheLink()
{
    GLinkTcpTimes times = Never;
    times.acknowledge = 100ms;
    start(times);

    m_transport->send(1, GLINK_MSG_ID_CMD, "abc", 1);
    QTRY_COMPARE(m_peer->count(CommandId, Message), 1);
    m_peer->write(Frames::heartbeat() + Frames::periodicDataAck());

    QTRY_COMPARE(m_ends, (QStringList{"closed 0", "finished"}));
    QCOMPARE(m_peer->count(HeartbeatId, Ack), 1);
}

void TestGLinkTransportTcp::anAckInTimeKeepsTheLink()
{
    GLinkTcpTimes times = Never;
    times.acknowledge = 300ms;
    start(times);
    QSignalSpy sent(m_transport.data(), &GLinkTransportBase::messageSent);

    m_transport->send(1, GLINK_MSG_ID_CMD, "abc", 77);
    m_peer->write(Frames::commandAck());
    QTRY_COMPARE(sent.size(), 1);
    QTest::qWait(500);

    QCOMPARE(sent.first().at(1).toUInt(), 77U);
    QCOMPARE(m_ends, QStringList());
}

void TestGLinkTransportTcp::theAckOfAHeartbeatStopsTheAckTimer()
{
    LogSpy log;
    GLinkTcpTimes times = Never;
    times.heartbeat = 20ms;
    times.acknowledge = 400ms;
    start(times);

    m_peer->write(Frames::powerOff());
    QTRY_COMPARE(m_peer->count(HeartbeatId, Message), 1);
    m_transport->send(1, GLINK_MSG_ID_CMD, "abc", 1);
    m_peer->write(Frames::heartbeatAck());
    QTRY_COMPARE(m_peer->count(HeartbeatId, Message), 2); // sent because the first one was acknowledged
    QTest::qWait(600);
    QCOMPARE(m_ends, QStringList());

    // The message itself is still in flight, and blocks the next.
    m_transport->send(1, GLINK_MSG_ID_PERIODIC_DATA, "def", 2);
    m_peer->write(Frames::commandAck());
    m_transport->send(1, GLINK_MSG_ID_PERIODIC_DATA, "def", 3);
    QTest::qWait(20);
    QCOMPARE(m_peer->count(PeriodicDataId, Message), 0);
}

void TestGLinkTransportTcp::heartbeatsGoOutWhenNothingIsReceived()
{
    GLinkTcpTimes times = Never;
    times.heartbeat = 20ms;
    start(times);

    m_peer->write(Frames::powerOff());
    for (int sent = 1; sent <= 5; ++sent) {
        QTRY_COMPARE(m_peer->count(HeartbeatId, Message), sent);
        QTest::qWait(30);
        QCOMPARE(m_peer->count(HeartbeatId, Message), sent); // unacknowledged, it stays the only one
        m_peer->write(Frames::heartbeatAck());
    }
    QCOMPARE(m_peer->frames().last().size(), 25);
}

void TestGLinkTransportTcp::aUnitThatSendsContinuouslyGetsNoHeartbeat()
{
    GLinkTcpTimes times = Never;
    times.heartbeat = 100ms;
    start(times);
    QElapsedTimer gap;
    qint64 longestGap = 0;

    m_peer->write(Frames::powerOff());
    for (int i = 0; i < 40; ++i) {
        gap.start();
        QTest::qWait(10);
        m_peer->write(Frames::powerOff());
        longestGap = qMax(longestGap, gap.elapsed());
    }
    QTRY_COMPARE(m_received->size(), 41);

    // On a machine too busy to send every 100 ms the test has nothing to say.
    QVERIFY(m_peer->count(HeartbeatId, Message) == 0 || longestGap > 80);
}

void TestGLinkTransportTcp::aPeerThatClosesInTheMiddleOfAFrameJustEnds()
{
    LogSpy log;
    start();

    m_peer->write(Frames::init() + Frames::command().left(20));
    QTRY_COMPARE(m_received->size(), 1);
    m_peer->socket.close();

    QTRY_COMPARE(m_ends, (QStringList{"closed 515", "finished"}));
    QCOMPARE(m_received->size(), 1);
    QCOMPARE(log.lines(), QStringList());
}

void TestGLinkTransportTcp::aResetConnectionJustEnds()
{
    LogSpy log;
    start();
    const linger resetOnClose{1, 0};
    setsockopt(static_cast<int>(m_peer->socket.socketDescriptor()), SOL_SOCKET, SO_LINGER, &resetOnClose,
               sizeof(resetOnClose));

    m_peer->socket.abort();

    QTRY_COMPARE(m_ends, (QStringList{"closed 0", "finished"}));
    QCOMPARE(log.lines(), QStringList());
}

void TestGLinkTransportTcp::aConnectionThatDiedBeforeRunJustEnds()
{
    m_peer->socket.abort();

    start();

    QTRY_COMPARE(m_ends, (QStringList{"closed 0", "finished"}));
}

void TestGLinkTransportTcp::nothingHappensAfterTheEnd()
{
    LogSpy log;
    start({1ms, 1ms, 1ms, 5s, 1ms});
    m_peer->write(Frames::init());
    QTRY_COMPARE(m_ends.size(), 2);
    log.clear();
    m_received->clear();

    m_transport->readyRead();
    m_transport->commTimeout();
    m_transport->tcpError(QAbstractSocket::UnknownSocketError);
    m_transport->disconnected();
    m_transport->handleCrcError();
    m_transport->sendHeartbeat();
    m_transport->resetTimers();
    m_transport->close();
    m_transport->send(1, GLINK_MSG_ID_CMD, "abc", 1);
    QTest::qWait(20);

    QCOMPARE(m_ends.size(), 2);
    QVERIFY(m_received->isEmpty());
    QCOMPARE(log.lines(), QStringList{"SENDING FAILED!"});
}

void TestGLinkTransportTcp::closeEndsWhateverTheState_data()
{
    QTest::addColumn<bool>("isRun");
    QTest::addColumn<bool>("isIntroduced");

    QTest::newRow("before run") << false << false;
    QTest::newRow("connected") << true << false;
    QTest::newRow("introduced") << true << true;
}

void TestGLinkTransportTcp::closeEndsWhateverTheState()
{
    QFETCH(bool, isRun);
    QFETCH(bool, isIntroduced);
    if (isRun) {
        start();
    }
    if (isIntroduced) {
        m_peer->write(Frames::init());
        QTRY_COMPARE(m_introduced->size(), 1);
    }

    m_transport->close();
    m_transport->close();

    QCOMPARE(m_ends, (QStringList{isIntroduced ? "closed 515" : "closed 0", "finished"}));
}

void TestGLinkTransportTcp::destructionClosesTheConnectionWithoutASignal()
{
    start();

    m_transport.reset();

    // A signal from the destructor would find receivers that derive from the transport destroyed in part.
    QCOMPARE(m_ends, QStringList());
    QTRY_VERIFY(!m_peer->isConnected());
}

void TestGLinkTransportTcp::theSocketOutlivesTheConnection()
{
    start();
    const QPointer<QTcpSocket> socket = m_transport->findChild<QTcpSocket*>();
    QVERIFY(socket);

    m_peer->socket.abort();
    QTRY_COMPARE(m_ends.size(), 2);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);

    QVERIFY(socket);
    QCOMPARE(socket->state(), QAbstractSocket::UnconnectedState);
    QVERIFY(!socket->isOpen());
}

void TestGLinkTransportTcp::aDescriptorThatCannotBeAdoptedEndsTheThread()
{
    GLinkTransportTcp transport(-1, 0, nullptr, nullptr, nullptr);
    QSignalSpy closed(&transport, &GLinkTransportBase::closedConnection);
    QSignalSpy finished(&transport, &GLinkTransportTcp::finished);

    transport.run();

    QCOMPARE(closed.size(), 1);
    QCOMPARE(finished.size(), 1);
}

void TestGLinkTransportTcp::theFifthFailureInARowIsFatal()
{
    const auto failTimes = [](int times) {
        GLinkTransportTcp transport(-1, 0, nullptr, nullptr, nullptr);
        transport.run();
        for (int failed = 1; failed < times; ++failed) {
            transport.connectLink();
        }
    };

    QCOMPARE(outcomeOf([&] { failTimes(4); }).exitCode, 0);
    const FatalOutcome outcome = outcomeOf([&] { failTimes(5); });
    QVERIFY(outcome.diedOfAbort);
    QVERIFY2(outcome.log.endsWith("Failure limit reached when trying to set socket descriptor. Exiting.\n"),
             qPrintable(outcome.log));
}

void TestGLinkTransportTcp::socketOptionsAreSetForLatencyAndLostPeers()
{
    start();

    QCOMPARE(socketOption(m_descriptor, IPPROTO_TCP, TCP_NODELAY), 1);
    QCOMPARE(socketOption(m_descriptor, SOL_SOCKET, SO_KEEPALIVE), 1);
    QCOMPARE(socketOption(m_descriptor, IPPROTO_TCP, TCP_KEEPIDLE), 10);
    QCOMPARE(socketOption(m_descriptor, IPPROTO_TCP, TCP_KEEPINTVL), 5);
    QCOMPARE(socketOption(m_descriptor, IPPROTO_TCP, TCP_KEEPCNT), 3);
}

void TestGLinkTransportTcp::aPeerThatDoesNotReadIsGivenUp()
{
    LogSpy log;
    stopPeerReading();
    start();
    const QByteArray heartbeats = Frames::heartbeat().repeated(100);

    for (int i = 0; i < 1000 && m_ends.isEmpty(); ++i) {
        m_peer->write(heartbeats);
        QCoreApplication::processEvents();
    }

    QTRY_COMPARE(m_ends, (QStringList{"closed 0", "finished"}));
    QCOMPARE(log.lines(), QStringList{"GLinkTransportTcp: remote unit 0 does not read, closing"});
}

void TestGLinkTransportTcp::readingPausesWhileTheReceiverIsBehind()
{
    const auto backlog = std::make_shared<GLinkBacklog>(0);
    m_transport->setBacklog(backlog);
    start();
    const int messageCount = 20000;

    m_peer->write(Frames::powerOff().repeated(messageCount));
    QTRY_VERIFY(m_received->size() >= GLinkTransportTcp::MaxBacklog);
    QTest::qWait(50);
    // One reading of 16 KiB at most on top of the limit.
    QVERIFY2(m_received->size() < GLinkTransportTcp::MaxBacklog + 16 * 1024 / 22 + 1,
             qPrintable(QString::number(m_received->size())));
    QCOMPARE(backlog->load(), m_received->size());

    QTimer receiver;
    connect(&receiver, &QTimer::timeout, this, [&] { *backlog = 0; });
    receiver.start(1);
    QTRY_COMPARE_WITH_TIMEOUT(m_received->size(), messageCount, 20000);
    QCOMPARE(m_ends, QStringList());
}

void TestGLinkTransportTcp::aFrameIsOneWrite()
{
    start();
    m_transport->send(1, GLINK_MSG_ID_PERIODIC_DATA, QByteArray(1000, 'x'), 1);

    // Written and flushed when send() returns: no event loop is needed for it to arrive.
    QVERIFY(m_peer->socket.waitForReadyRead(5000));
    QCOMPARE(m_peer->socket.bytesAvailable(), qint64(17 + 1000 + 4));
}

QTEST_GUILESS_MAIN(TestGLinkTransportTcp)
#include "tst_glinktransporttcp.moc"
