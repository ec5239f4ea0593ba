#pragma once

#include "glinktransporttcp.h"

#include <QHash>
#include <QHostAddress>
#include <QPointer>
#include <QTcpServer>

class Configuration;
class QTcpSocket;
class QThread;
class RGPCom;
class TagDatabase;

/// Accepts the remote units' TCP connections. Each gets a GLinkTransportTcp in a thread of its own, wired to the hub.
///
/// Lives in the main thread, with the hub. A connection's thread ends only when the main thread says so, which has
/// heard the transport's last words by then. Transport and thread are freed here, in the main thread, after the thread
/// has ended: until then, whatever the hub still gets from that transport names an object that exists.
///
/// Connections are limited by the descriptors that the process may open; the limit is raised as far as the system lets
/// it. One connection too many is closed at once, since a thread that gets no descriptor for its event loop would end
/// the process.
class GLinkServer : public QTcpServer
{
    Q_OBJECT

public:
    /// @param port  0 lets the system choose one, for tests.
    GLinkServer(RGPCom* rgpCom, quint16 port, Configuration* configuration, TagDatabase* tagDatabase, QObject* parent);
    /// Ends all connections as closeConnections() does, and frees them at once: the hub must go, too, before the event
    /// loop runs again, for what it has not handled yet names freed transports.
    ~GLinkServer() override;

    /// Listens on the base unit's address in the remote units' network. Ends the process when that fails.
    void startServer();

    /// Stops listening and ends all connections and their threads; peers see their connection close. Returns when all
    /// threads have ended, after `ShutdownTime` at the latest; one that has not ended then is logged and left alone.
    /// Transports are freed by the event loop, behind what the hub still gets from them.
    void closeConnections();
    static constexpr std::chrono::milliseconds ShutdownTime{2000};

    int connectionCount() const { return m_connections.size(); }
    /// The transports of all connections, null for those that somebody else destroyed. For tests and diagnosis.
    QList<QPointer<GLinkTransportTcp>> transports() const { return m_connections.values(); }

    /// Listens elsewhere, for tests; a null address brings the default back. Before startServer().
    static void setListenAddress(const QHostAddress& address);
    /// The rhythm of the transports that are accepted from now on, for tests.
    void setTimes(const GLinkTcpTimes& times) { m_times = times; }
    /// As many connections at most, for tests; startServer() finds out what the system bears.
    void setConnectionLimit(int limit) { m_connectionLimit = limit; }

signals:
    /// Part of the interface; never emitted.
    void newConnection(QTcpSocket* ruSocket); // clazy:exclude=overloaded-signal

protected:
    void incomingConnection(qintptr socketDescriptor) override;

private:
    void wire(GLinkTransportTcp* transport, QThread* thread);
    bool hasRoom();
    void refuse(qintptr socketDescriptor);
    void connectionThreadFinished(QThread* thread);
    void resumeAcceptingSoon();

    RGPCom* m_rgpCom;
    const quint16 m_serverPort;
    Configuration* m_configuration;
    TagDatabase* m_tagDatabase;
    GLinkTcpTimes m_times;
    int m_connectionLimit;
    bool m_isFull = false; ///< the connections that are refused in a row are reported once
    /// Null when somebody else destroyed the transport; its thread ends then, too.
    QHash<QThread*, QPointer<GLinkTransportTcp>> m_connections;
};
