#pragma once

#include <QFile>
#include <QObject>
#include <QTcpSocket>
#include <QTimer>

#include <chrono>
#include <memory>

/// Sends one file over one connection, at the pace of the receiver, and closes the connection behind it.
///
/// Runs in its thread's event loop and never waits for the receiver: at most `MaxPending` bytes wait in the process for
/// one that is slow, and one that takes nothing at all for the stall limit is dropped. It does wait for the disk, for
/// `MaxPending` bytes at a time. What the receiver sends is the caller's business; see `discardReceived`.
///
/// Nothing but the bytes of the file is sent: the receiver knows size and digest from elsewhere, and the end of the
/// connection is the end of the file. A receiver that closes its own direction early counts as one that left.
///
/// | the end                          | `finished` | the connection                  |
/// |----------------------------------|------------|---------------------------------|
/// | the kernel has taken all bytes   | true       | is closed behind the last byte  |
/// | the receiver left                | false      | is gone                         |
/// | nothing taken for the stall limit| false      | is aborted                      |
/// | the file could not be read       | false      | is aborted                      |
/// | this object is deleted before    | not at all | is aborted                      |
///
/// That the kernel has taken everything does not mean that the receiver has it.
class FileTransfer : public QObject
{
    Q_OBJECT

public:
    /// Bytes read from the file and handed to the socket at a time.
    static constexpr qint64 ChunkSize = 1024;
    /// Bytes handed to the socket but not yet to the kernel, at most.
    static constexpr qint64 MaxPending = 64 * ChunkSize;

    /// Takes over the open file and the connection; both go with this object.
    /// @param file  open for reading; sent from where it stands.
    /// @param receiver  connected, in this thread.
    /// @param stallLimit  counts anew with everything that the kernel takes: a slow receiver may take for ever.
    FileTransfer(std::unique_ptr<QFile> file, QTcpSocket* receiver, std::chrono::milliseconds stallLimit,
                 QObject* parent);
    ~FileTransfer() override;

    /// Once. `finished` may come within this call: for an empty file, or a receiver that has left already.
    void start();

    /// Throws away what has arrived on a connection and what will arrive. Left unread it would eat memory or, bounded,
    /// keep the end of the connection from being noticed. Holds for the life of the socket.
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

    std::unique_ptr<QFile> m_file; ///< null after the end
    QTcpSocket* m_receiver;        ///< child
    QTimer m_stallTimer{this};     ///< runs from start() to the end
    bool m_chunkSent = false;      ///< the first one is logged
};
