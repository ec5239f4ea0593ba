#pragma once

#include <QFile>
#include <QObject>
#include <QTcpSocket>
#include <QTimer>

#include <chrono>
#include <memory>

/// Sends one file over one connection, at the pace of the receiver, and closes the connection behind it.
///
/// Runs in its thread's event loop and never blocks it: at most `MaxPending` bytes wait in the process for a receiver
/// that is slow, and one that takes nothing at all for the stall limit is dropped. What the receiver sends is the
/// caller's business; see `discardReceived`.
class FileTransfer : public QObject
{
    Q_OBJECT

public:
    /// Bytes read from the file and handed to the socket at a time.
    static constexpr qint64 ChunkSize = 1024;
    /// Bytes handed to the socket but not yet to the kernel, at most.
    static constexpr qint64 MaxPending = 64 * ChunkSize;

    /// Takes over the open file and the connection; both go with this object.
    FileTransfer(std::unique_ptr<QFile> file, QTcpSocket* receiver, std::chrono::milliseconds stallLimit,
                 QObject* parent);
    ~FileTransfer() override;

    void start();

    /// Throws away what has arrived on a connection and what will arrive. Left unread it would eat memory or, bounded,
    /// keep the end of the connection from being noticed.
    static void discardReceived(QTcpSocket* socket);

signals:
    /// Emitted exactly once, at the end; the file object is gone by then. `complete` is true when the kernel has taken
    /// every byte of the file; false when the receiver left, stalled too long, or the file could not be read to its
    /// end.
    void finished(bool complete);

private slots:
    void sendChunks();
    void receiverLeft();
    void receiverStalled();

private:
    bool sendOneChunk();
    void finish(bool complete);

    std::unique_ptr<QFile> m_file;
    QTcpSocket* m_receiver;
    QTimer m_stallTimer;
    bool m_chunkSent = false;
};
