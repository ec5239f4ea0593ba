#pragma once

#include "pairrequest.h"

#include <QFile>
#include <QHostAddress>
#include <QObject>
#include <QTcpSocket>

#include <memory>

/// One request connection: whole requests come out, replies go in. Also holds the archive that is on offer to the tool
/// at its other end, which goes with the connection.
class PairClient : public QObject
{
    Q_OBJECT

public:
    /// Takes over the connection.
    PairClient(QTcpSocket* socket, QObject* parent);
    ~PairClient() override;

    bool isOpen() const { return m_socket->state() == QAbstractSocket::ConnectedState; }
    QHostAddress address() const { return m_socket->peerAddress(); }

    /// The next complete request, if there is one and the tool takes its replies. What cannot be read closes the
    /// connection, with a log line.
    bool takeRequest(PairRequest& request);
    /// Whether bytes wait that may be another one.
    bool mayHaveMore() const { return isOpen() && m_socket->bytesAvailable() > 0; }
    void send(const QByteArray& reply);
    void close() { m_socket->abort(); }

    /// The archive on offer; null when there is none. A further one takes its place.
    const QFile* offer() const { return m_offer.get(); }
    void setOffer(std::unique_ptr<QFile> archive) { m_offer = std::move(archive); }
    std::unique_ptr<QFile> takeOffer() { return std::move(m_offer); }

signals:
    /// Something has arrived, or been taken by the tool.
    void mayBeServed();
    void left();

private:
    void drop(const char* reason);

    QTcpSocket* m_socket;
    std::unique_ptr<QFile> m_offer;
};
