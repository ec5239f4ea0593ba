#include "filereceivers.h"

#include "filetransfer.h"

#include <QDebug>

FileReceivers::FileReceivers(QObject* parent)
    : QObject(parent)
    , m_server(new QTcpServer(this))
{
    connect(m_server, &QTcpServer::newConnection, this, &FileReceivers::newConnection);
}

void FileReceivers::listen(const QHostAddress& address, quint16 port)
{
    if (m_server->isListening()) {
        return;
    }
    const bool isKnown = isPortTaken();
    if (!m_server->listen(address, port)) {
        if (!isKnown) {
            qWarning() << "pairserver: Unable to start file transfer server:" << m_server->errorString();
        }
        return;
    }
    qDebug() << "PairServer::PairServer(Configuration*, TagDatabase*, QObject*)"
             << "file transfer server running.";
}

void FileReceivers::newConnection()
{
    QTcpSocket* receiver = m_server->nextPendingConnection();
    if (receiver == nullptr) {
        return;
    }
    qDebug() << "Got connection from" << receiver->peerAddress().toString();
    connect(receiver, &QTcpSocket::disconnected, receiver, &QTcpSocket::deleteLater);
    FileTransfer::discardReceived(receiver);
    m_sockets.removeAll(nullptr);
    m_sockets.append(receiver);
    emit came(receiver->peerAddress());
}

QList<QTcpSocket*> FileReceivers::waitingOf(const QHostAddress& host) const
{
    QList<QTcpSocket*> waiting;
    for (QTcpSocket* receiver : m_sockets) {
        if (receiver != nullptr && receiver->state() == QAbstractSocket::ConnectedState &&
            receiver->peerAddress() == host) {
            waiting.append(receiver);
        }
    }
    return waiting;
}

void FileReceivers::keepNewest(const QHostAddress& host, int most)
{
    QList<QTcpSocket*> waiting = waitingOf(host);
    while (waiting.size() > most) {
        waiting.takeFirst()->abort();
    }
}

QTcpSocket* FileReceivers::take(const QHostAddress& host)
{
    m_server->waitForNewConnection(0);
    QTcpSocket* receiver = waitingOf(host).value(0);
    m_sockets.removeAll(receiver);
    return receiver;
}
