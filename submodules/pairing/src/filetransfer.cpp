#include "filetransfer.h"

#include <QDebug>

FileTransfer::FileTransfer(std::unique_ptr<QFile> file, QTcpSocket* receiver, std::chrono::milliseconds stallLimit,
                           QObject* parent)
    : QObject(parent)
    , m_file(std::move(file))
    , m_receiver(receiver)
{
    m_receiver->setParent(this);
    m_stallTimer.setSingleShot(true);
    m_stallTimer.setInterval(stallLimit);
    connect(&m_stallTimer, &QTimer::timeout, this, &FileTransfer::receiverStalled);
    connect(m_receiver, &QTcpSocket::bytesWritten, this, &FileTransfer::sendChunks);
    connect(m_receiver, &QTcpSocket::disconnected, this, &FileTransfer::receiverLeft);
}

FileTransfer::~FileTransfer() = default;

void FileTransfer::start()
{
    qDebug() << "Sending application...";
    sendChunks();
}

void FileTransfer::sendChunks()
{
    m_stallTimer.start();
    while (!m_file->atEnd() && m_receiver->bytesToWrite() < MaxPending) {
        if (!sendOneChunk()) {
            qWarning() << "pairserver: Could not send all of" << m_file->fileName();
            finish(false);
            return;
        }
    }
    if (m_file->atEnd() && m_receiver->bytesToWrite() == 0) {
        qDebug() << "Application sent";
        finish(true);
    }
}

bool FileTransfer::sendOneChunk()
{
    const QByteArray chunk = m_file->read(ChunkSize);
    if (chunk.isEmpty()) {
        return false;
    }
    if (!m_chunkSent) {
        m_chunkSent = true;
        qDebug() << "Sending first chunc of data";
    }
    return m_receiver->write(chunk) == chunk.size();
}

void FileTransfer::discardReceived(QTcpSocket* socket)
{
    connect(socket, &QTcpSocket::readyRead, socket, [socket] { socket->readAll(); });
    socket->readAll();
}

void FileTransfer::receiverLeft()
{
    qWarning() << "pairserver: The receiver left before it had all of" << m_file->fileName();
    finish(false);
}

void FileTransfer::receiverStalled()
{
    qWarning() << "pairserver: The receiver stopped taking" << m_file->fileName();
    finish(false);
}

void FileTransfer::finish(bool complete)
{
    m_stallTimer.stop();
    m_receiver->disconnect(this);
    // Before the receiver can see the end: whoever has the archive finds nothing of it here.
    m_file.reset();
    if (complete) {
        // The end of the connection is how the receiver knows the end of the file.
        m_receiver->disconnectFromHost();
    } else {
        m_receiver->abort();
    }
    emit finished(complete);
}
