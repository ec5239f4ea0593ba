#include "pairclient.h"

#include <QDebug>

namespace {

/// A tool that lets its replies pile up is not read from until it has taken them.
constexpr qint64 MaxUnsentReplyBytes = 64 * 1024;

/// What Qt may read ahead on a request connection. Beyond it the sender has to wait.
constexpr qint64 ReadAheadBytes = 2 * PairRequest::MaxSize;

} // namespace

PairClient::PairClient(QTcpSocket* socket, QObject* parent)
    : QObject(parent)
    , m_socket(socket)
{
    m_socket->setParent(this);
    m_socket->setReadBufferSize(ReadAheadBytes);
    connect(m_socket, &QTcpSocket::readyRead, this, &PairClient::mayBeServed);
    connect(m_socket, &QTcpSocket::bytesWritten, this, &PairClient::mayBeServed);
    connect(m_socket, &QTcpSocket::disconnected, this, &PairClient::left);
}

PairClient::~PairClient()
{
    m_socket->disconnect(this);
}

bool PairClient::takeRequest(PairRequest& request)
{
    if (!isOpen() || m_socket->bytesToWrite() > MaxUnsentReplyBytes) {
        return false;
    }
    const PairRequestDecoding decoding = decodePairRequest(m_socket->peek(PairRequest::MaxSize));
    switch (decoding.status) {
    case PairRequestDecoding::Status::Incomplete: return false;
    case PairRequestDecoding::Status::TooLong: drop("Request of more than 64 KiB"); return false;
    case PairRequestDecoding::Status::Corrupt: drop("Unreadable request"); return false;
    case PairRequestDecoding::Status::Complete: break;
    }
    m_socket->skip(decoding.size);
    request = decoding.request;
    return true;
}

void PairClient::send(const QByteArray& reply)
{
    m_socket->write(reply);
    m_socket->flush();
}

void PairClient::drop(const char* reason)
{
    qWarning() << "pairserver:" << reason << "from" << address().toString() << "- closing the connection";
    close();
}
