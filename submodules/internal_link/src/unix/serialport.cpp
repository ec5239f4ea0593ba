#include "serialport.h"

#include "serialportreadthreadworker.h"
#include "threads.h"

#include <QDebug>
#include <QThread>

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <iterator>
#include <termios.h>
#include <unistd.h>

static_assert(B230400 == 4099, "the default rate is the speed code of 230400 baud");

namespace {

/// Far beyond what stopping takes; only a machine that gives the reader no processor time comes near it.
constexpr std::chrono::milliseconds ReaderStopBound{1000};

void setFrameLineMode(termios& settings)
{
    settings.c_iflag = 0;
    settings.c_oflag = 0;
    settings.c_cflag = CS8 | CREAD | CLOCAL;
    settings.c_lflag = ICANON;
    // 0 disables a control character: no byte but the newline is special. The two additional end-of-line characters
    // stand apart because they would cut frames.
    std::fill(std::begin(settings.c_cc), std::end(settings.c_cc), 0);
    settings.c_cc[VEOL] = 0;
    settings.c_cc[VEOL2] = 0;
}

} // namespace

SerialPort::SerialPort(QObject* parent)
    : QObject(parent)
    , readThread(Threads::make("uart-reader"))
    , readWorker(new SerialPortReadThreadWorker)
{
    QObject::connect(readThread, &QThread::finished, readWorker, &QObject::deleteLater);
    QObject::connect(this, &SerialPort::startReading, readWorker, &SerialPortReadThreadWorker::readLoop);
    // Whoever hands a device to the reader: from then on only the worker's `stop` ends it.
    QObject::connect(this, &SerialPort::startReading, this, [this] { reading = true; });
    QObject::connect(readWorker, &SerialPortReadThreadWorker::readyRead, this, &SerialPort::readyRead);
    readThread->start(QThread::InheritPriority);
    readWorker->moveToThread(readThread);
}

SerialPort::~SerialPort()
{
    if (!stopReader()) {
        return;
    }
    delete readThread;
    if (fileHandle >= 0) {
        ::close(fileHandle);
    }
}

bool SerialPort::setPort(const char* name)
{
    unixPort.append("/dev/").append(name);
    portName = unixPort.constData();
    return true;
}

bool SerialPort::setBaudRate(int rate)
{
    baudRate = rate;
    return true;
}

bool SerialPort::setStartBit(int bits)
{
    startBit = bits;
    return true;
}

bool SerialPort::setDataBits(int bits)
{
    dataBits = bits;
    return true;
}

bool SerialPort::setStopBit(int bits)
{
    stopBit = bits;
    return true;
}

bool SerialPort::setEndOfLineByte(int byte)
{
    endOfLineByte = byte;
    return true;
}

void SerialPort::start()
{
    qDebug() << "Serial_port_c: Start connection";
    if (!connect() || !configure()) {
        return;
    }
    qDebug() << "Serial_port_c: Start reading data";
    emit startReading(fileHandle);
}

void SerialPort::sendData(char* buf, unsigned int len)
{
    const ssize_t written = ::write(fileHandle, buf, len);
    Q_UNUSED(written)
}

bool SerialPort::connect()
{
    // Close-on-exec: the child processes that pack applications have no business with the machine's serial line.
    const int handle = ::open(portName, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (handle < 0) {
        qDebug() << "Serial_port_c: Failed connection to: " << portName;
        return false;
    }
    fileHandle = handle;
    qDebug() << "Serial_port_c: Successfully connected to: " << portName;
    return true;
}

bool SerialPort::configure()
{
    termios settings = {};
    if (tcgetattr(fileHandle, &settings) == -1) {
        qDebug() << "Serial_port_c: Failed on tcgetattr";
        return false;
    }
    setFrameLineMode(settings);
    if (cfsetispeed(&settings, static_cast<speed_t>(baudRate)) == -1) {
        qDebug() << "Serial_port_c: Failed to set baud rate on line-in";
    }
    if (cfsetospeed(&settings, static_cast<speed_t>(baudRate)) == -1) {
        qDebug() << "Serial_port_c: Failed to set baud rate on line-out";
    }
    tcflush(fileHandle, TCIFLUSH);
    if (tcsetattr(fileHandle, TCSANOW, &settings) == -1) {
        qDebug() << "Serial_port_c: Failed on tcsetattr";
        return false;
    }
    qDebug() << "Serial_port_c: Config success";
    return true;
}

bool SerialPort::stopReader()
{
    if (reading && !readWorker->stop(ReaderStopBound)) {
        return false;
    }
    readThread->quit();
    return readThread->wait(static_cast<unsigned long>(ReaderStopBound.count()));
}
