#pragma once

#include "pairrequest.h"

#include <QFile>
#include <QHostAddress>
#include <QObject>
#include <QTcpSocket>

#include <memory>

/// One request connection: whole requests come out, replies go in. Also holds the archive that is on offer to the tool
/// at its other end, which goes with the connection.
///
/// PairServer makes one for each tool and serves it when it asks to be:
///
///     mayBeServed -> takeRequest() until it gives none -> send() for the answer
///     left        -> whatever was begun for the tool is given up
///
/// A tool holds up nobody and fills no memory: 128 KiB of requests are read ahead, and while it leaves 64 KiB of
/// answers untaken its requests stay where they are. One answer may be longer than that. How long a tool says nothing
/// is not limited.
///
/// Lives in the thread of its owner; nothing here blocks.
class PairClient : public QObject
{
    Q_OBJECT

public:
    /// Takes over the connection, which is closed and freed with this object.
    PairClient(QTcpSocket* socket, QObject* parent);
    /// Emits nothing; an archive that is still on offer is removed from the disk.
    ~PairClient() override;

    /// False once the connection is closed, while this object may still be there.
    bool isOpen() const { return m_socket->state() == QAbstractSocket::ConnectedState; }
    QHostAddress address() const { return m_socket->peerAddress(); } ///< null once the connection is closed

    /// The next complete request, if there is one and the tool takes its replies. What cannot be read closes the
    /// connection, with a log line.
    /// @return false, `request` untouched, when there is none to be served now; mayBeServed() tells when to ask again.
    bool takeRequest(PairRequest& request);
    /// Whether bytes wait that may be another one.
    bool mayHaveMore() const { return isOpen() && m_socket->bytesAvailable() > 0; }
    /// Hands over as much as the kernel takes and keeps the rest, however much that is. On a closed connection nothing
    /// is sent.
    void send(const QByteArray& reply);
    /// Closes at once, without sending what is still kept. left() comes within this call.
    void close() { m_socket->abort(); }

    /// The archive on offer; null when there is none. A further one takes its place, and the one before goes from the
    /// disk, as does one that is replaced by null. What has been taken is the taker's.
    const QFile* offer() const { return m_offer.get(); }
    void setOffer(std::unique_ptr<QFile> archive) { m_offer = std::move(archive); }
    std::unique_ptr<QFile> takeOffer() { return std::move(m_offer); }

signals:
    /// Something has arrived, or been taken by the tool. May come from within send().
    void mayBeServed();
    /// The connection is closed, by whichever side. Once; whoever hears it deletes this object, but not at once.
    void left();

private:
    void drop(const char* reason);

    QTcpSocket* m_socket;           ///< child
    std::unique_ptr<QFile> m_offer; ///< a TemporaryArchive, which goes from the disk with the object
};
