#include "transportwithpeer.h"

#include <sys/socket.h>

using namespace FrameKinds;
using namespace TransportTimes;

namespace {

/// From the kernel's point of view the peer's program dies: what it has written arrives, and then the connection is
/// reset.
void resetConnection(QTcpSocket& socket)
{
    const linger resetOnClose{1, 0};
    setsockopt(static_cast<int>(socket.socketDescriptor()), SOL_SOCKET, SO_LINGER, &resetOnClose, sizeof(resetOnClose));
    socket.abort();
}

} // namespace

/// What a remote unit said last counts, whatever becomes of its connection: it may be a machine stop.
class TestGLinkTcpLastWords : public TransportWithPeer
{
    Q_OBJECT

private slots:
    void init();
    void cleanup() { end(); }

    void messagesBehindOneThatCouldNotBeAcknowledgedAreHeard();
    void anInitBehindOneThatCouldNotBeAcknowledgedComesBeforeTheEnd();
    void messagesThatWaitForTheReceiverAreHeardWhenThePeerLeaves();
    void messagesThatWaitForTheReceiverAreHeardBeforeTheTimeout();

private:
    QList<int> receivedIds() const;

    QStringList m_events; ///< introductions and ends, in their order
};

void TestGLinkTcpLastWords::init()
{
    begin();
    m_events.clear();
    connect(m_transport.data(), &GLinkTransportTcp::newConnection, this,
            [this](quint16 remoteId) { m_events << QStringLiteral("new %1").arg(remoteId); });
    connect(m_transport.data(), &GLinkTransportBase::closedConnection, this,
            [this](quint16 remoteId) { m_events << QStringLiteral("closed %1").arg(remoteId); });
}

QList<int> TestGLinkTcpLastWords::receivedIds() const
{
    QList<int> ids;
    for (const QList<QVariant>& message : *m_received) {
        ids << message.at(1).toInt();
    }
    return ids;
}

// The heartbeat is answered first, and the answer fails. That must not be the end of what was read together with it.
void TestGLinkTcpLastWords::messagesBehindOneThatCouldNotBeAcknowledgedAreHeard()
{
    m_peer->write(Frames::heartbeat() + Frames::machineStop());
    resetConnection(m_peer->socket);

    m_transport->run();

    QTRY_VERIFY(m_ends.contains("finished"));
    QCOMPARE(receivedIds(), QList<int>{MachineStopId});
}

// A hub that hears of a link after its end would keep it.
void TestGLinkTcpLastWords::anInitBehindOneThatCouldNotBeAcknowledgedComesBeforeTheEnd()
{
    m_peer->write(Frames::heartbeat() + Frames::init() + Frames::machineStop());
    resetConnection(m_peer->socket);

    m_transport->run();

    QTRY_VERIFY(m_ends.contains("finished"));
    QCOMPARE(receivedIds(), (QList<int>{InitId, MachineStopId}));
    QCOMPARE(m_events, (QStringList{"new 515", "closed 515"}));
}

void TestGLinkTcpLastWords::messagesThatWaitForTheReceiverAreHeardWhenThePeerLeaves()
{
    const auto backlog = std::make_shared<GLinkBacklog>(0);
    m_transport->setBacklog(backlog);
    *backlog = GLinkTransportTcp::MaxBacklog;
    m_transport->run();

    m_peer->write(Frames::machineStop());
    m_peer->socket.close();

    QTRY_VERIFY(m_ends.contains("finished"));
    QCOMPARE(receivedIds(), QList<int>{MachineStopId});
}

// Nothing has been read for too long, which is the receiver's doing and not the peer's.
void TestGLinkTcpLastWords::messagesThatWaitForTheReceiverAreHeardBeforeTheTimeout()
{
    const auto backlog = std::make_shared<GLinkBacklog>(0);
    m_transport->setBacklog(backlog);
    start();
    m_peer->write(Frames::init());
    QTRY_COMPARE(m_received->size(), 1);

    *backlog = GLinkTransportTcp::MaxBacklog;
    m_peer->write(Frames::machineStop());
    QTRY_VERIFY(m_transport->findChild<QTcpSocket*>()->bytesAvailable() > 0);
    QVERIFY(timer(Silence)->isActive());
    expire(timer(Silence));

    QTRY_VERIFY(m_ends.contains("finished"));
    QCOMPARE(receivedIds(), (QList<int>{InitId, MachineStopId}));
}

QTEST_GUILESS_MAIN(TestGLinkTcpLastWords)
#include "tst_glinktcplastwords.moc"
