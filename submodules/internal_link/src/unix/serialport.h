#pragma once

#include <QByteArray>
#include <QObject>

class QThread;
class SerialPortReadThreadWorker;

/// The UART to the base controller: 8 data bits, no parity, 1 stop bit, no flow control, in the terminal driver's
/// canonical mode with the newline as its only special byte.
///
/// Canonical mode is what cuts the byte stream: the base controller's frames end with a newline and contain none, so
/// the driver hands over whole frames. Lives in the thread that creates it and writes from there; reading happens in a
/// thread of its own, started with the object and joined by its destructor.
class SerialPort : public QObject
{
    Q_OBJECT

public:
    explicit SerialPort(QObject* parent = nullptr);

    /// Stops the reader and closes the device. A reader that cannot be stopped in time keeps its thread and its
    /// descriptor: neither may be taken from under a running read.
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
    /// good: nothing arrives and nothing is reported upwards. Input from before the call is discarded.
    void start();

    /// Writes with one system call. What the device does not take is lost without notice; the layers above repeat what
    /// is not acknowledged. Does nothing while no device is open.
    void sendData(char* buf, unsigned int len);

signals:
    /// One received line, or one piece of a long line. Emitted in this object's thread.
    void readyRead(QByteArray data);
    /// Hands the open device to the reader thread.
    void startReading(int handle);

private:
    bool connect();
    bool configure();
    bool stopReader();

    QThread* readThread;
    SerialPortReadThreadWorker* readWorker;
    const char* portName = ""; ///< full path, inside `unixPort`; a port without a name opens nothing
    QByteArray unixPort;
    int baudRate = 4099; ///< B230400
    int startBit = 1;
    int dataBits = 8;
    int stopBit = 1;
    int endOfLineByte = 131;
    int fileHandle = -1;
    bool reading = false;
};
