#pragma once

#include <QByteArray>
#include <QObject>

class SerialPort;

/// The byte pipe to the base controller: lines in, frames out. Knows nothing about their content.
///
/// Constructing the object opens the serial line; if that fails the pipe exists all the same and stays silent. All
/// calls belong into the thread that created it, and `readyRead` is emitted there.
class InternalLink : public QObject
{
    Q_OBJECT

public:
    /// Opens the base unit's UART, "/dev/ttymxc0".
    explicit InternalLink(QObject* parent);
    ~InternalLink() override;

public slots:
    /// Opens the device `name`, relative to "/dev/". The constructor has already called it.
    void start(const char* name);
    /// Reports `len` bytes at `buf` as if the line had delivered them; none if `len` is not positive.
    void readData(char* buf, int len);
    /// Writes `data` to the line. Lost without notice if the line does not take it.
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
    const char* portName;
    SerialPort* serialPort = nullptr;
};
