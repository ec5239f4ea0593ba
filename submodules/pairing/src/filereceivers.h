#pragma once

#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>

/// Whether a server does not listen because somebody else had the port at its last attempt.
inline bool isPortTaken(const QTcpServer& server)
{
    return !server.isListening() && server.serverError() == QAbstractSocket::AddressInUseError;
}

/// The connections to the file port that wait for an archive, in the order in which they came. What one of them sends
/// is thrown away.
///
///     came -> keepNewest() if too many wait -> take() for an archive that is to be sent
///
/// Lives in the thread of its owner; nothing here blocks.
class FileReceivers : public QObject
{
    Q_OBJECT

public:
    /// Does not listen yet.
    explicit FileReceivers(QObject* parent);

    /// Begins to listen, unless it does already, with a log line; another one when the port cannot be had, the first
    /// time.
    /// @param port  0 takes any free port.
    void listen(const QHostAddress& address, quint16 port);
    /// Whether somebody else has the port.
    bool isPortTaken() const { return ::isPortTaken(*m_server); }
    /// The port that is listened on; 0 when there is none.
    quint16 port() const { return m_server->serverPort(); }

    /// Closes the oldest of this host until no more than `most` wait.
    void keepNewest(const QHostAddress& host, int most);
    /// The oldest of this host, which waits no longer; null when there is none. Also one counts that has just connected
    /// and has not been accepted yet. Until the taker makes it its own, this object frees it.
    QTcpSocket* take(const QHostAddress& host);

signals:
    /// A further one of this host waits.
    void came(const QHostAddress& host);

private slots:
    void newConnection();

private:
    QList<QTcpSocket*> waitingOf(const QHostAddress& host) const;

    QTcpServer* m_server;                  ///< child
    QList<QPointer<QTcpSocket>> m_sockets; ///< children of the server; null when one has left
};
