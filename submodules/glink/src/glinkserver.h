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
///     main thread                                     thread of the connection
///     incomingConnection(): transport and thread made
///                                                     run(): takes the descriptor over
///     RGPCom::addGLink()        <- newConnection      an INIT came
///     RGPCom::dataFromGLink(),  <- readyReadFromGLink any message came; the backlog has counted up
///       then the backlog counts down
///     RGPCom::messageSent()     <- messageSent        the unit has acknowledged
///     RGPCom::removeGLink()     <- closedConnection   the end, whoever brought it about
///     thread is told to quit    <- finished           directly behind it
///     transport, thread freed   <- QThread::finished  the event loop has ended, the socket is closed
///
/// Connections are limited by the descriptors that the process may open; the limit is raised as far as the system lets
/// it. One connection too many is closed at once, since a thread that gets no descriptor for its event loop would end
/// the process.
///
/// A connection counts from its acceptance until its thread has been freed, and by socket, not by unit: one that says
/// nothing takes up as much room as one that has introduced itself, and is ended only by its peer, or by the probes of
/// the TCP stack, which find a peer that has vanished.
class GLinkServer : public QTcpServer
{
    Q_OBJECT

public:
    /// Does not listen yet. Nothing that is passed is owned; hub, configuration and tags outlive all connections.
    /// @param rgpCom  its slots get what the connections say, queued in its thread, which is this object's thread, too.
    /// @param port  0 lets the system choose one, for tests.
    GLinkServer(RGPCom* rgpCom, quint16 port, Configuration* configuration, TagDatabase* tagDatabase, QObject* parent);
    /// Ends all connections as closeConnections() does, and frees them at once: the hub must go, too, before the event
    /// loop runs again, for what it has not handled yet names freed transports.
    ~GLinkServer() override;

    /// Listens on the base unit's address in the remote units' network, 192.168.32.1, and there only. Ends the process
    /// when that fails.
    ///
    /// Raises the number of descriptors that the whole process may open to 3200 if the system allows: three for each of
    /// 1024 connections, and 128 for everything else. With fewer there are as many connections as these suffice for.
    void startServer();

    /// Stops listening and ends all connections and their threads; peers see their connection close. Returns when all
    /// threads have ended, after `ShutdownTime` at the latest; one that has not ended then is logged and left alone.
    /// Transports are freed by the event loop, behind what the hub still gets from them.
    void closeConnections();
    static constexpr std::chrono::milliseconds ShutdownTime{2000}; ///< for all threads together

    /// Those that are being wound up included.
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
    /// Never queues a connection: nextPendingConnection() has none. An error while accepting, such as too many open
    /// files, is followed by another attempt 100 ms later, for as long as it lasts.
    void incomingConnection(qintptr socketDescriptor) override;

private:
    void wire(GLinkTransportTcp* transport, QThread* thread);
    bool hasRoom();
    void refuse(qintptr socketDescriptor);
    void connectionThreadFinished(QThread* thread);
    void resumeAcceptingSoon();

    RGPCom* m_rgpCom;               ///< not owned
    const quint16 m_serverPort;     ///< as asked for; serverPort() tells the one that the system chose
    Configuration* m_configuration; ///< not owned; for the transports
    TagDatabase* m_tagDatabase;     ///< not owned; for the transports
    GLinkTcpTimes m_times;          ///< copied into each transport before it runs
    int m_connectionLimit;          ///< 1 to 1024
    bool m_isFull = false;          ///< the connections that are refused in a row are reported once
    /// Null when somebody else destroyed the transport; its thread ends then, too.
    QHash<QThread*, QPointer<GLinkTransportTcp>> m_connections;
};
