#pragma once

#include <QByteArray>
#include <QObject>

class QThread;
class SerialPortReadThreadWorker;

/// The UART to the base controller: 8 data bits, no parity, 1 stop bit, no flow control, in the terminal driver's
/// canonical mode with the newline as its only special byte.
///
/// Canonical mode is what cuts the byte stream: the base controller's frames end with a newline and contain none, so
/// the driver hands over whole frames. A line of more than 4095 bytes before its newline is cut by the driver, which
/// drops the rest. Parity and framing errors are not looked at: they arrive as wrong bytes, which the CRC of the packet
/// finds.
///
/// Lives in the thread that creates it and writes from there; reading happens in a thread of its own, started with the
/// object and joined by its destructor.
///
///     auto* const port = new SerialPort(parent);
///     port->setPort("ttymxc0");
///     port->start();
///     connect(port, &SerialPort::readyRead, ...);     // before the event loop has its turn: nothing is missed
class SerialPort : public QObject
{
    Q_OBJECT

public:
    /// Opens nothing yet; the reader's thread waits for a device.
    explicit SerialPort(QObject* parent = nullptr);

    /// Stops the reader and closes the device. A reader that cannot be stopped in time keeps its thread and its
    /// descriptor: neither may be taken from under a running read. Takes milliseconds, and 2 s at the most: one for the
    /// reader's loop and one for its thread.
    ~SerialPort() override;

    /// Names the device, relative to "/dev/". Call it once, before `start`: a second name is appended to the first.
    /// @return true.
    bool setPort(const char* name);

    /// The line settings. All return true. The rate is a termios speed code and takes effect with `start`; the others
    /// are kept for the record only, since the line always runs with the settings named above.
    bool setBaudRate(int rate);
    bool setStartBit(int bits);
    bool setDataBits(int bits);
    bool setStopBit(int bits);
    bool setEndOfLineByte(int byte);

    /// Opens and configures the device and begins to read. On failure a line is logged and the port stays silent for
    /// good: nothing arrives and nothing is reported upwards. Input from before the call is discarded. Once: a second
    /// call would find the reader busy with the first device.
    ///
    /// A device that was opened and could not be configured is still written to, as it is set.
    void start();

    /// Writes with one system call. What the device does not take is lost without notice; the layers above repeat what
    /// is not acknowledged. Does nothing while no device is open. Waits as long as the driver has no room. `buf` is
    /// only read from, and may be freed when this returns.
    void sendData(char* buf, unsigned int len);

signals:
    /// One received line with its newline, or one piece of at most 512 bytes of a longer one. Emitted in this object's
    /// thread, in the order of the line. Not emitted any more once the destructor has begun.
    void readyRead(QByteArray data);
    /// Hands the open device to the reader thread.
    void startReading(int handle);

private:
    bool connect();
    bool configure();
    bool stopReader(); ///< false: something of the reader still runs, and uses worker and descriptor

    QThread* readThread;                    ///< deleted here once it has ended, and left alone otherwise
    SerialPortReadThreadWorker* readWorker; ///< lives in `readThread`, whose end deletes it
    const char* portName = "";              ///< full path, inside `unixPort`; a port without a name opens nothing
    QByteArray unixPort;
    int baudRate = 4099; ///< B230400
    int startBit = 1;
    int dataBits = 8;
    int stopBit = 1;
    int endOfLineByte = 131;
    int fileHandle = -1;  ///< -1: no device is open
    bool reading = false; ///< the reader has been given a device, and its loop must be stopped
};
