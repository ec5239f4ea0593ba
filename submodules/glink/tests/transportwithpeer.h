#pragma once

#include "glinkframes.h"
#include "glinktransporttcp.h"
#include "tcppeer.h"

#include <QObject>
#include <QScopedPointer>
#include <QSignalSpy>
#include <QStringList>
#include <QTimer>
#include <QtTest>

/// What the tests of the TCP transport share: one in server mode, in the thread of the test, and its peer.
namespace TransportTimes {

using namespace std::chrono_literals;

/// So long that they play no part. A test looks at the timer it is about, by its time, and lets it expire: so nothing
/// depends on how long the machine takes.
constexpr auto Heartbeat = 1h;
constexpr auto Silence = 2h;
constexpr auto Acknowledge = 3h;
constexpr GLinkTcpTimes Never{Heartbeat, Silence, Acknowledge, 30s, 1h};

} // namespace TransportTimes

namespace FrameKinds {

constexpr int HeartbeatId = 0;
constexpr int InitId = 1;
constexpr int InitAckId = 2;
constexpr int CommandId = 3;
constexpr int PeriodicDataId = 4;
constexpr int PowerOffId = 6;
constexpr int MachineStopId = 7;
constexpr int Message = 0;
constexpr int Ack = 1;

} // namespace FrameKinds

/// A test program calls begin() before each test and end() after it.
class TransportWithPeer : public QObject
{
protected:
    void begin()
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
        connect(m_transport.data(), &GLinkTransportTcp::finished, this,
                [this] { m_ends << QStringLiteral("finished"); });
    }

    void end()
    {
        m_transport.reset();
        m_received.reset();
        m_introduced.reset();
    }

    void start(const GLinkTcpTimes& times = TransportTimes::Never)
    {
        m_transport->setTimes(times);
        m_transport->run();
    }

    /// The transport's timer for that of the times above.
    QTimer* timer(std::chrono::milliseconds time) const
    {
        for (QTimer* const timer : m_transport->findChildren<QTimer*>(QString(), Qt::FindDirectChildrenOnly)) {
            if (timer->intervalAsDuration() == time) {
                return timer;
            }
        }
        qFatal("there is no such timer");
    }
    static void expire(QTimer* timer) { timer->start(0); }

    qintptr m_descriptor = -1;
    QScopedPointer<DescriptorServer> m_server;
    QScopedPointer<TcpPeer> m_peer;
    QScopedPointer<GLinkTransportTcp> m_transport;
    QScopedPointer<QSignalSpy> m_received;
    QScopedPointer<QSignalSpy> m_introduced;
    QStringList m_ends; ///< closedConnection and finished in their order
};
