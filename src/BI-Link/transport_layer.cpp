#include "transport_layer.h"

#include "frame_layer.h"
#include "internallink.h"
#include "message_layer.h"
#include "myassertfunc.h"

#include <QDebug>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <utility>

namespace {

constexpr char SourceUnit[] = "src/BI-Link/transport_layer";

enum FatalLine : unsigned int {
    InvalidMessageClassReceived = 183,
};

// Header: | control byte | service id |, control byte: | message class, 2 bits | packet number, 6 bits |
constexpr int ControlByteOffset = 0;
constexpr int ServiceIdOffset = 1;
constexpr int HeaderSize = 2;
static_assert(ServiceIdOffset + 1 == HeaderSize, "the payload follows the service id directly");
constexpr int MessageClassShift = 6;
constexpr quint8 PacketNumberMask = 0x3F;
constexpr int CrcSize = 4;

// A RESET as it lies in a complete frame, behind the start byte.
constexpr int FramedServiceIdOffset = 2;
constexpr int FramedEventOffset = 3;
constexpr int FramedEventEnd = FramedEventOffset + 1;
constexpr quint8 EventReset = 0;

constexpr quint8 StateStarting = 2;

constexpr std::chrono::milliseconds RetransmissionInterval{50};
constexpr quint8 MaxTransmissions = 3;

quint8 byteAt(const QByteArray& data, int index)
{
    return index < data.size() ? static_cast<quint8>(data.at(index)) : quint8{0};
}

/// Deferred, because the timer may be the one whose time-out is just being handled.
void retire(QTimer* timer)
{
    timer->stop();
    timer->deleteLater();
}

} // namespace

TransportLayer::TransportLayer(QObject* parent)
    : TransportLayer(new InternalLink(nullptr), parent)
{}

TransportLayer::TransportLayer(InternalLink* link, QObject* parent)
    : QObject(parent)
    , internalLink(link)
    , messageLayer(new MessageLayer(this))
    , frameLayer(new FrameLayer(this))
{
    connect(internalLink, &InternalLink::readyRead, this, &TransportLayer::readDataFromInternal);
    connect(this, &TransportLayer::sendOnInternal, internalLink, &InternalLink::sendData);
    connect(this, &TransportLayer::newData, this, &TransportLayer::processSendBuffer);
}

TransportLayer::~TransportLayer()
{
    for (const bufferItem& item : qAsConst(sendBuffer)) {
        delete item.reTxTimer;
    }
    delete internalLink;
}

QByteArray TransportLayer::addHeader(QByteArray data, quint8 messageClass, quint8 serviceId, quint8 packetNumber)
{
    QByteArray packet;
    packet.reserve(HeaderSize + data.size() + CrcSize);
    packet.append(static_cast<char>((messageClass << MessageClassShift) + packetNumber));
    packet.append(static_cast<char>(serviceId));
    packet.append(data);
    return packet;
}

QByteArray TransportLayer::removeHeader(QByteArray data)
{
    data.remove(0, HeaderSize);
    return data;
}

quint8 TransportLayer::getControlByte(QByteArray data)
{
    return byteAt(data, ControlByteOffset);
}

quint8 TransportLayer::getServiceId(QByteArray data)
{
    return byteAt(data, ServiceIdOffset);
}

quint8 TransportLayer::getMessageClass(QByteArray data)
{
    return static_cast<quint8>(byteAt(data, ControlByteOffset) >> MessageClassShift);
}

quint8 TransportLayer::getPacketNumber(QByteArray data)
{
    return byteAt(data, ControlByteOffset) & PacketNumberMask;
}

bool TransportLayer::getSystemEventReset(QByteArray frame)
{
    return frame.size() >= FramedEventEnd && byteAt(frame, FramedEventOffset) == EventReset &&
           byteAt(frame, FramedServiceIdOffset) == SERVICE_SYSTEM_EVENT;
}

void TransportLayer::readDataFromInternal(QByteArray chunk)
{
    QByteArray packet = frameLayer->remove(chunk);
    if (!messageLayer->check(packet)) {
        return;
    }
    messageLayer->remove(packet);
    if (packet.size() >= HeaderSize) {
        receivePacket(std::move(packet));
    }
}

void TransportLayer::readDataFromService(QByteArray data, Link toLink, quint8 serviceId, quint8 messageClass)
{
    Q_UNUSED(toLink)
    if (messageClass != MSG_CLASS_ACK && waitingPackets[serviceId] >= MaxWaitingPackets) {
        tellOfDroppedPacket(serviceId);
        return;
    }
    const quint8 packetNumber =
        messageClass == MSG_CLASS_ACK ? serviceAckPacketNumber : packetNumberSentInternal++ & PacketNumberMask;
    sendData(data, packetNumber, serviceId, messageClass);
}

void TransportLayer::clearSendBuffer(quint8 state)
{
    if (state == StateStarting) {
        dropSendBuffer();
    }
}

void TransportLayer::processSendBuffer()
{
    // While a transmission is in flight its time-out decides, for the last transmission too: a packet that happens to
    // be queued meanwhile must not shorten the wait for the acknowledgement.
    if (sendBuffer.isEmpty() || sendBuffer.first().reTxTimer->isActive()) {
        return;
    }
    if (sendBuffer.first().reTXCount < MaxTransmissions) {
        transmit(sendBuffer.first());
    } else {
        failLink();
    }
}

void TransportLayer::tellOfDroppedPacket(quint8 serviceId)
{
    if (!toldOfDroppedPacket) {
        qDebug() << "TransportLayer:" << MaxWaitingPackets << "packets of service" << serviceId
                 << "wait, further ones are dropped.";
    }
    toldOfDroppedPacket = true;
}

void TransportLayer::sendData(const QByteArray& data, quint8 packetNumber, quint8 serviceId, quint8 messageClass)
{
    const QByteArray frame = frameOf(data, messageClass, serviceId, packetNumber);
    if (messageClass == MSG_CLASS_ACK) {
        emit sendOnInternal(frame);
        return;
    }
    auto* timer = new QTimer;
    timer->setSingleShot(true);
    timer->setTimerType(Qt::PreciseTimer);
    connect(timer, &QTimer::timeout, this, &TransportLayer::processSendBuffer);
    toldOfDroppedPacket = toldOfDroppedPacket && !sendBuffer.isEmpty();
    sendBuffer.append({frame, timer, 0, packetNumber, serviceId});
    ++waitingPackets[serviceId];
    emit newData();
}

QByteArray TransportLayer::frameOf(const QByteArray& data, quint8 messageClass, quint8 serviceId, quint8 packetNumber)
{
    QByteArray packet = addHeader(data, messageClass, serviceId, packetNumber);
    messageLayer->add(packet);
    return frameLayer->add(packet);
}

void TransportLayer::transmit(bufferItem& item)
{
    ++item.reTXCount;
    item.reTxTimer->start(RetransmissionInterval);
    // A copy: whoever listens may change the send buffer, and the item with it.
    const QByteArray frame = item.data;
    emit sendOnInternal(frame);
}

void TransportLayer::failLink()
{
    qDebug() << "Internal link fail!!!!!!!!";
    dropSendBuffer();
    emit internLinkFail();
}

void TransportLayer::dropSendBuffer()
{
    for (const bufferItem& item : qAsConst(sendBuffer)) {
        retire(item.reTxTimer);
    }
    sendBuffer.clear();
    waitingPackets.fill(0);
}

void TransportLayer::receivePacket(QByteArray packet)
{
    const quint8 serviceId = getServiceId(packet);
    const quint8 messageClass = getMessageClass(packet);
    const quint8 packetNumber = getPacketNumber(packet);
    const QByteArray payload = removeHeader(std::move(packet));

    switch (messageClass) {
    case MSG_CLASS_TRANSP_ACK:
        emit readyRead(payload, Internal, serviceId, messageClass);
        acknowledge(serviceId, packetNumber);
        break;
    case MSG_CLASS_SERVICE_ACK:
        serviceAckPacketNumber = packetNumber;
        emit readyRead(payload, Internal, serviceId, messageClass);
        break;
    case MSG_CLASS_ACK:
        handleReset(packetNumber);
        removePacket(packetNumber);
        if (!payload.isEmpty()) {
            emit readyRead(payload, Internal, serviceId, messageClass);
        }
        break;
    default: myAssertFunc(SourceUnit, InvalidMessageClassReceived);
    }
}

void TransportLayer::acknowledge(quint8 serviceId, quint8 packetNumber)
{
    internalLink->sendData(frameOf(QByteArray(), MSG_CLASS_ACK, serviceId, packetNumber));
}

void TransportLayer::handleReset(quint8 packetNumber)
{
    const int index = indexOfPacket(packetNumber);
    if (index >= 0 && getSystemEventReset(sendBuffer.at(index).data)) {
        emit resetAckRecieved();
    }
}

void TransportLayer::removePacket(quint8 packetNumber)
{
    const int index = indexOfPacket(packetNumber);
    if (index >= 0) {
        const bufferItem item = sendBuffer.takeAt(index);
        --waitingPackets[item.serviceId];
        retire(item.reTxTimer);
    }
    emit newData();
}

int TransportLayer::indexOfPacket(quint8 packetNumber) const
{
    const auto found = std::find_if(sendBuffer.cbegin(), sendBuffer.cend(), [packetNumber](const bufferItem& item) {
        return item.packetNumber == packetNumber;
    });
    return found == sendBuffer.cend() ? -1 : static_cast<int>(found - sendBuffer.cbegin());
}
