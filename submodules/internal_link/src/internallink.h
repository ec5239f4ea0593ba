#pragma once

#include <QByteArray>
#include <QObject>

class SerialPort;

/// The byte pipe to the base controller: lines in, frames out. Knows nothing about their content.
///
/// Constructing the object opens the serial line; if that fails the pipe exists all the same and stays silent. All
/// calls belong into the thread that created it, and `readyRead` is emitted there. That thread needs an event loop:
/// each line comes to it by a queued call from the reader's.
///
///     in:  UART -> SerialPortReadThreadWorker (its own thread) -> SerialPort -> readyRead() -> TransportLayer
///     out: TransportLayer -> sendData() -> SerialPort -> UART, all in the caller's thread
///
/// At 230400 baud 23 bytes take a millisecond. Lines that the thread has not handled yet wait in its event queue,
/// without a bound but that pace.
class InternalLink : public QObject
{
    Q_OBJECT

public:
    /// Opens the base unit's UART, "/dev/ttymxc0".
    explicit InternalLink(QObject* parent);
    /// Closes the line and joins the reader's thread, which takes 2 s at the most (see SerialPort).
    ~InternalLink() override;

public slots:
    /// Opens the device `name`, relative to "/dev/". The constructor has already called it; once more would open a
    /// second line beside the first, with one reader each.
    void start(const char* name);
    /// Reports `len` bytes at `buf` as if the line had delivered them; none if `len` is not positive. Emits `readyRead`
    /// in any case. The bytes are copied.
    void readData(char* buf, int len);
    /// Writes `data` to the line. Lost without notice if the line does not take it. Waits while the driver's buffer is
    /// full, which is as long as the line needs for what is in it.
    void sendData(QByteArray data);
    /// Has no effect: the line stays open for as long as the object lives.
    void close();

signals:
    /// One line with its terminator, or one piece of at most 512 bytes of a longer line.
    void readyRead(QByteArray data);

protected:
    /// Opens another device, such as the near end of a pseudo terminal. `device` must outlive the object.
    InternalLink(const char* device, QObject* parent);

private:
    const char* portName;             ///< not owned
    SerialPort* serialPort = nullptr; ///< a child
};
