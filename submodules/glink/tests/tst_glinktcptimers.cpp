#include "logspy.h"
#include "transportwithpeer.h"

#include <QElapsedTimer>
#include <QTimer>

#include <algorithm>

using namespace FrameKinds;
using namespace TransportTimes;

/// When a connection is given up, when it is not, and when a heartbeat goes out.
class TestGLinkTcpTimers : public TransportWithPeer
{
    Q_OBJECT

private slots:
    void init() { begin(); }
    void cleanup() { end(); }

    void runMakesThreeTimersAndStartsNone();
    void anInitStopsTheAckTimer();
    void aMuteUnitIsNeverTimedOut();
    void silenceEndsTheLink();
    void aMissingAckEndsTheLink();
    void anAckInTimeKeepsTheLink();
    void theAckOfAHeartbeatStopsTheAckTimer();
    void heartbeatsGoOutWhenNothingIsReceived();
    void aUnitThatSendsContinuouslyGetsNoHeartbeat();
};

void TestGLinkTcpTimers::runMakesThreeTimersAndStartsNone()
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

void TestGLinkTcpTimers::anInitStopsTheAckTimer()
{
    start();
    const QTimer* const waiting = timer(Acknowledge);

    m_transport->send(1, GLINK_MSG_ID_CMD, "old", 1);
    QTRY_COMPARE(m_peer->count(CommandId, Message), 1);
    QVERIFY(waiting->isActive());
    m_peer->write(Frames::init());
    QTRY_COMPARE(m_introduced->size(), 1);
    QVERIFY(!waiting->isActive());

    m_transport->send(1, GLINK_MSG_ID_INITACK, QByteArray(42, '\0'), 2);
    QTRY_COMPARE(m_peer->count(InitAckId, Message), 1);
}

void TestGLinkTcpTimers::aMuteUnitIsNeverTimedOut()
{
    start({20ms, 50ms, 50ms, 5s, 1h});

    QTest::qWait(300);

    QCOMPARE(m_ends, QStringList());
    QVERIFY(m_peer->frames().isEmpty());
}

void TestGLinkTcpTimers::silenceEndsTheLink()
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

void TestGLinkTcpTimers::aMissingAckEndsTheLink()
{
    start();

    m_transport->send(1, GLINK_MSG_ID_CMD, "abc", 1);
    QTRY_COMPARE(m_peer->count(CommandId, Message), 1);
    m_peer->write(Frames::heartbeat() + Frames::periodicDataAck());
    QTRY_COMPARE(m_peer->count(HeartbeatId, Ack), 1);
    QVERIFY(timer(Acknowledge)->isActive());
    QCOMPARE(m_ends, QStringList());

    expire(timer(Acknowledge));
    QTRY_COMPARE(m_ends, (QStringList{"closed 0", "finished"}));
}

void TestGLinkTcpTimers::anAckInTimeKeepsTheLink()
{
    start();
    QSignalSpy sent(m_transport.data(), &GLinkTransportBase::messageSent);

    m_transport->send(1, GLINK_MSG_ID_CMD, "abc", 77);
    QVERIFY(timer(Acknowledge)->isActive());
    m_peer->write(Frames::commandAck());
    QTRY_COMPARE(sent.size(), 1);

    QCOMPARE(sent.first().at(1).toUInt(), 77U);
    QVERIFY(!timer(Acknowledge)->isActive());
    QCOMPARE(m_ends, QStringList());
}

void TestGLinkTcpTimers::theAckOfAHeartbeatStopsTheAckTimer()
{
    LogSpy log;
    GLinkTcpTimes times = Never;
    times.heartbeat = 20ms;
    start(times);

    m_peer->write(Frames::powerOff());
    QTRY_COMPARE(m_peer->count(HeartbeatId, Message), 1);
    m_transport->send(1, GLINK_MSG_ID_CMD, "abc", 1);
    QVERIFY(timer(Acknowledge)->isActive());
    m_peer->write(Frames::heartbeatAck());
    QTRY_COMPARE(m_peer->count(HeartbeatId, Message), 2); // sent because the first one was acknowledged
    QVERIFY(!timer(Acknowledge)->isActive());
    QCOMPARE(m_ends, QStringList());

    // The message itself is still in flight, and blocks the next.
    m_transport->send(1, GLINK_MSG_ID_PERIODIC_DATA, "def", 2);
    m_peer->write(Frames::commandAck());
    m_transport->send(1, GLINK_MSG_ID_PERIODIC_DATA, "def", 3);
    QTest::qWait(20);
    QCOMPARE(m_peer->count(PeriodicDataId, Message), 0);
}

void TestGLinkTcpTimers::heartbeatsGoOutWhenNothingIsReceived()
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

void TestGLinkTcpTimers::aUnitThatSendsContinuouslyGetsNoHeartbeat()
{
    start();
    QTimer* const heartbeat = timer(Heartbeat);

    for (int i = 1; i <= 40; ++i) {
        m_peer->write(Frames::powerOff());
        QTRY_COMPARE(m_received->size(), i);
        QVERIFY(heartbeat->isActive()); // started anew with each
        heartbeat->stop();
    }

    QCOMPARE(m_peer->count(HeartbeatId, Message), 0);
}

QTEST_GUILESS_MAIN(TestGLinkTcpTimers)
#include "tst_glinktcptimers.moc"
