#include "fatalprobe.h"
#include "logspy.h"
#include "transportwithpeer.h"

#include <QPointer>
#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

using namespace FrameKinds;
using namespace TransportTimes;

namespace {

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
class TestGLinkTransportTcp : public TransportWithPeer
{
    Q_OBJECT

private slots:
    void init() { begin(); }
    void cleanup() { end(); }

    void singleBytesAndTwoFramesInOneReadAreUnderstood();
    void garbageInFrontClosesTheConnection();
    void aBadHeaderClosesOnceAndNothingBehindItIsInterpreted();
    void aBadMessageCloses();
    void aClosingPeerThatDoesNotReadIsAborted();

    void anInitRegistersTheLink();
    void anInitUnderAnotherIdReleasesTheFirst();
    void aReceivedInitAckIsNotCheckedInServerMode();

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
    void stopPeerReading();
};

/// From now on little that is written to the peer leaves our side. The peer's receive buffer stays as it is: with one
/// that is too small for a segment the system drops the acknowledgement in that segment, too, and the connection
/// stands.
void TestGLinkTransportTcp::stopPeerReading()
{
    shrinkBuffer(m_descriptor, SO_SNDBUF);
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
    start();
    QByteArray moreThanTheSocketsTake(200000, 'x');
    QVERIFY(m_transport->sendMsg(moreThanTheSocketsTake));

    m_peer->write(Frames::damaged(Frames::powerOff(), 3));
    QTRY_COMPARE(log.lines(), QStringList{"Header CRC error 5"});
    QCOMPARE(m_ends, QStringList()); // the orderly end waits for what is still unsent
    QTimer writing;                  // which does not keep the connection
    connect(&writing, &QTimer::timeout, this, [this] { m_peer->write("x"); });
    writing.start(20);
    QVERIFY(timer(Silence)->isActive());
    timer(Silence)->start(200);

    QTRY_COMPARE(m_ends, (QStringList{"closed 0", "finished"}));
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
    QTRY_COMPARE(m_received->size(), messageCount);
    QCOMPARE(m_ends, QStringList());
}

void TestGLinkTransportTcp::aFrameIsOneWrite()
{
    start();
    m_transport->send(1, GLINK_MSG_ID_PERIODIC_DATA, QByteArray(1000, 'x'), 1);

    // Written and flushed when send() returns: no event loop is needed for it to arrive.
    QVERIFY(m_peer->socket.waitForReadyRead(PatienceMs));
    QCOMPARE(m_peer->socket.bytesAvailable(), qint64(17 + 1000 + 4));
}

QTEST_GUILESS_MAIN(TestGLinkTransportTcp)
#include "tst_glinktransporttcp.moc"
