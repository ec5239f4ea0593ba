#include "internallink.h"

#include "serialport.h"

namespace {
/// The UART that the board's hardware connects to the base controller.
constexpr char BaseControllerPort[] = "ttymxc0";
} // namespace

InternalLink::InternalLink(QObject* parent)
    : InternalLink(BaseControllerPort, parent)
{}

InternalLink::InternalLink(const char* device, QObject* parent)
    : QObject(parent)
    , portName(device)
{
    start(portName);
}

InternalLink::~InternalLink()
{
    close();
}

void InternalLink::start(const char* name)
{
    // Called once, by the constructor; a child is freed with its parent in any case.
    // cppcheck-suppress publicAllocationError
    serialPort = new SerialPort(this);
    serialPort->setPort(name);
    connect(serialPort, &SerialPort::readyRead, this, &InternalLink::readyRead);
    serialPort->start();
}

void InternalLink::readData(char* buf, int len)
{
    emit readyRead(len > 0 ? QByteArray(buf, len) : QByteArray());
}

void InternalLink::sendData(QByteArray data)
{
    // Only read from; `data()` would copy the bytes, which the send buffer shares.
    serialPort->sendData(const_cast<char*>(data.constData()), static_cast<unsigned int>(data.size()));
}

void InternalLink::close() {}
