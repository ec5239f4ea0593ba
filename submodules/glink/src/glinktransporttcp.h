#pragma once

#include "glinktransportbase.h"

#include <QAbstractSocket>
#include <QHostAddress>

#include <atomic>
#include <chrono>
#include <memory>

class QTcpSocket;
class QThread;
class QTimer;

/// The rhythm of a TCP link. The defaults are what remote units expect; tests shorten them.
///
/// Heartbeat and silence count from the first byte that the peer sends, and anew from each reading: a peer that has
/// never said anything is left to the probes of the TCP stack, which give it up after 25 s without a sign of it. A
/// heartbeat that is not answered is not repeated.
struct GLinkTcpTimes
{
    std::chrono::milliseconds heartbeat{250};     ///< one goes out after so long without received data
    std::chrono::milliseconds silence{4000};      ///< the link is dead after so long without received data
    std::chrono::milliseconds acknowledge{4000};  ///< the link is dead when a message stays unacknowledged so long
    std::chrono::milliseconds connectWait{4000};  ///< client mode: one attempt to connect
    std::chrono::milliseconds connectRetry{1000}; ///< client mode: pause between attempts
};

/// Number of received messages that a transport has handed to another thread and that were not handled there yet.
/// Shared by both sides; the transport stops reading while there are too many, so that a peer that floods the base unit
/// fills its own socket and not our memory.
using GLinkBacklog = std::atomic<int>;

/// GLink over one TCP connection: owns the socket, feeds the frame parser, writes frames, and watches over the link
/// with a heartbeat, a silence time-out and an acknowledgement time-out.
///
/// Server mode serves a connection that GLinkServer accepted. Client mode connects out, and tries again until it
/// succeeds; it is the remote unit's side. Either way an object serves one connection and is not used again.
///
/// What ends a connection decides on what the layers above still hear, before closedConnection:
///
/// | the end                                | they hear all whole messages that  | what could not be sent yet       |
/// |----------------------------------------|------------------------------------|----------------------------------|
/// | the peer closes, or the socket fails   | were read or wait in the socket    | is dropped                       |
/// | silence, or a missing acknowledgement  | were read or wait in the socket    | is dropped                       |
/// | the peer does not read: MaxUnsentBytes | were read                          | is dropped                       |
/// | a damaged frame                        | came before it                     | is sent, if the silence lets it  |
/// | close()                                | were passed on already             | is dropped                       |
///
/// A message that is in flight at the end is not reported by messageSent, and nothing is ever sent twice: the remote
/// unit connects and introduces itself anew, and the layers above decide what it is told then.
///
/// Threads: constructed anywhere, moved to a thread of its own, and from run() on used there only. It ends by itself:
/// whatever closes the connection makes it emit closedConnection and finished, once and in this order, behind all whole
/// messages that it had read by then (none after a damaged frame or close()). Destroy it in its own thread, or in any
/// other after its own thread has ended; one that did not end before closes its connection then and emits nothing.
class GLinkTransportTcp : public GLinkTransportBase
{
    Q_OBJECT

public:
    /// Server mode. Orders the list of application checksums, which is made in the background.
    /// @param socketDescriptor  an accepted connection; owned by this object from run() on. One that the system does
    ///                          not let the socket take ends the transport as if the peer had closed.
    GLinkTransportTcp(qintptr socketDescriptor, quint16 localId, Configuration* config, TagDatabase* tagDatabase,
                      QObject* parent);
    /// Client mode. Each attempt to connect blocks the thread for up to `connectWait`; they go on until close().
    GLinkTransportTcp(const QHostAddress& host, quint16 port, quint16 localId, Configuration* config,
                      TagDatabase* tagDatabase, QObject* parent);
    ~GLinkTransportTcp() override;

    /// Before run().
    void setTimes(const GLinkTcpTimes& times) { m_times = times; }
    /// Makes reading depend on `backlog`, which counts up here and which whoever handles the messages counts down.
    /// Before run(); without it nothing is counted.
    void setBacklog(const std::shared_ptr<GLinkBacklog>& backlog);

    /// Whoever made it frees it, in the main thread and when its thread has ended: others only close it. Before run().
    void setFreedWithItsThread() { m_isFreedWithItsThread = true; }
    bool isFreedWithItsThread() const { return m_isFreedWithItsThread; }

    /// Also releases socket and timers in that thread when it ends, so that the peer sees its connection close even
    /// when nobody called close(); no signal tells of that. Hides QObject's: a move by that one releases nothing.
    void moveToThread(QThread* thread);

    /// Announces the unit by newConnection, behind closedConnection for another unit that spoke over this connection
    /// before.
    bool handleInitMsg() override;
    /// Also stops the time-out of the message in flight. So does the acknowledgement of a heartbeat: a unit that goes
    /// on answering these is not given up for a message that it does not answer.
    bool handleAck() override;
    /// Client mode: a refusal is logged, and closes the connection where trying on makes no sense. Nothing in server
    /// mode.
    void handleInitAckMsg() override;
    /// Writes the frame in one piece, and at once as far as the kernel takes it: small frames are not held back to be
    /// joined. Never blocks. A peer that does not take what is written to it is given up, see MaxUnsentBytes.
    /// @return false without a connection, too.
    bool sendMsg(QByteArray& frame) override;
    /// Closes the connection; no more of its bytes are looked at.
    void handleCrcError() override;

    /// The number of the last INIT here among all INITs; 0 before the first. From any thread.
    quint64 introduction() const { return m_introduction; }
    /// Whether the last INIT came here before the one of that number came elsewhere. Of two links that name the same
    /// unit the unit uses the one with the later INIT, whichever was dealt with first. From any thread.
    bool isIntroducedBefore(quint64 introduction) const;

    /// Received data: the next heartbeat and the silence time-out count from now. Nothing before run().
    void resetTimers();

    /// Client mode: sets the tag "g_link_cable" to 1 on a cabled connection ("eth0"), else to 0. Without that tag, or
    /// without a database, a warning and nothing else.
    void setCableStatus();

    /// A connection whose peer leaves so many bytes unread is closed. One message, one heartbeat and the
    /// acknowledgements of what the peer sends are all that can pile up.
    static constexpr qint64 MaxUnsentBytes = 256 * 1024;
    /// Reading pauses while the backlog has so many messages, and looks again every 5 ms. One reading, of 16 KiB, can
    /// take it beyond by some 780 of the shortest messages. A pause counts as silence: whoever handles the messages
    /// must not stand still for longer than GLinkTcpTimes::silence.
    static constexpr int MaxBacklog = 64;

public slots:
    /// Once, in the thread in which the transport lives from then on. Makes socket and timers, and takes the
    /// connection over or begins to connect.
    void run() override;
    /// While another message is in flight, and without a connection, the message is dropped and nothing reports it:
    /// the caller waits for messageSent or closedConnection before it sends the next one.
    void send(quint16 remoteId, quint8 msgId, const QByteArray& message, quint32 refNr) override;

    // For the transport's own socket and timers.
    void readyRead();
    void disconnected();   ///< the one place from which the end is told; called again it does nothing
    void commTimeout();    ///< of silence or acknowledgement
    void threadFinished(); ///< does nothing
    void connectLink();
    void tcpError(QAbstractSocket::SocketError socketError); ///< whatever the error, the end of the connection

    /// Ends this transport, whatever state it is in: before run() and after the end, too. The end is told within this
    /// call or, if a frame is being processed, by the event loop behind it.
    void close();

signals:
    /// Server mode: that remote unit introduced itself on `link`. Client mode: connected, or, with null and for the
    /// first failed attempt only, not connected.
    void newConnection(quint16 remoteId, GLinkTransportTcp* link);
    /// The connection is over and this object has nothing left to do. Its socket is closed and its timers rest by now;
    /// the thread goes on until it is told to quit.
    void finished();

protected:
    void restartExchange(quint16 remoteId) override;
    virtual QString cabledInterface() const; ///< "eth0"; tests name one of theirs
    /// The pipe, as a child of this object, not open yet. Tests put another one in its place.
    virtual QTcpSocket* makeSocket();

private:
    bool isClientMode() const;
    QTimer* makeTimer(std::chrono::milliseconds interval, void (GLinkTransportTcp::*slot)());
    void adoptDescriptor();
    void connectToPeer();
    void setSocketOptions();
    void abortSocket();
    void hearTheRest();
    void disconnectFromPeer();
    void releaseLink();
    bool mustPauseReading();

    QHostAddress m_hostAddr;        ///< client mode; any address and port 0 mean server mode
    quint16 m_hostPort;             ///< client mode
    QTcpSocket* m_socket = nullptr; ///< child, made in run(); closed after the end
    qintptr m_socketDescriptor;     ///< server mode; its maker's until run() hands it to the socket
    quint32 m_socketFailCount = 0;
    quint32 m_connectTryCount = 0;    ///< client mode: since the last success
    QTimer* m_connectTimer = nullptr; ///< timers: children, made in run(); this one in client mode only
    QTimer* m_heartbeatTimer = nullptr;
    QTimer* m_timeoutTimer = nullptr;
    QTimer* m_ackTimeoutTimer = nullptr; ///< from send() to handleAck()

    GLinkTcpTimes m_times;
    QTimer* m_resumeTimer = nullptr;         ///< child, made when reading pauses for the first time
    std::shared_ptr<GLinkBacklog> m_backlog; ///< null when nothing is counted
    std::atomic<quint64> m_introduction{0};  ///< written by the transport's thread only
    bool m_isFreedWithItsThread = false;
    bool m_isAborting = false; ///< within QTcpSocket::abort(), which may report an error
    bool m_hasEnded = false;   ///< the end has been told
};
