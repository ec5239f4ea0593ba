#include "uartline.h"

#include "frame_layer.h"
#include "link.h"
#include "message_layer.h"
#include "service_base.h"
#include "storedconfiguration.h"
#include "system_event_service.h"
#include "transport_layer.h"

#include <chrono>
#include <utility>

using namespace std::chrono_literals;

namespace {

constexpr auto Repetition = 50ms;
constexpr auto Patience = 150ms;

/// Of all worlds: an empty one, whose look at the network interface is not explored.
Configuration* noConfiguration()
{
    static StoredConfiguration empty{QByteArray()};
    static Configuration* const store = [] {
        for (QTimer* const timer : empty.store()->findChildren<QTimer*>()) {
            timer->stop();
        }
        return empty.store();
    }();
    return store;
}

QByteArray packetIn(const QByteArray& frame)
{
    FrameLayer framing(nullptr);
    QByteArray packet = framing.remove(frame);
    packet.chop(4);
    return packet;
}

QByteArray frameOf(QByteArray packet)
{
    MessageLayer(nullptr).add(packet);
    return FrameLayer(nullptr).add(packet);
}

bool isReset(quint8 serviceId, const QByteArray& payload)
{
    return serviceId == SERVICE_SYSTEM_EVENT && payload == QByteArray(1, SystemEventService::RESET);
}

} // namespace

UartLine::UartLine(RGPCom* hub, TagDatabase* tags, Controller controller)
    : m_controller(std::move(controller))
    , m_layer(new ServiceLayer(hub, noConfiguration(), tags, nullptr))
{
    m_layer->initialize();
    m_transport = m_layer->findChild<TransportLayer*>();
    for (QTimer* const timer : {&m_repeatTimer, &m_patience}) {
        timer->setSingleShot(true);
    }
    connectLayer();
}

UartLine::~UartLine() = default;

void UartLine::connectLayer()
{
    QObject::connect(&m_repeatTimer, &QTimer::timeout, &m_context, [this] { deliver(); });
    QObject::connect(&m_patience, &QTimer::timeout, &m_context, [this] { giveUp(); });
    QObject::connect(m_layer.data(), &ServiceLayer::readyReadFromService, &m_context, [this] { ++m_waiting; });
    QObject::connect(m_transport, &TransportLayer::internLinkFail, &m_context, [this] { m_waiting = 0; });
    QObject::connect(m_transport, &TransportLayer::sendOnInternal, &m_context,
                     [this](const QByteArray& frame) { frameToController(frame); });
    auto* const events = qobject_cast<SystemEventService*>(service(SERVICE_SYSTEM_EVENT));
    QObject::connect(events, &SystemEventService::systemStateChanged, &m_context,
                     [this](quint8 state) { m_linkState = state; });
}

// --- Choices --------------------------------------------------------------------------------------------------------

QStringList UartLine::choices() const
{
    if (m_isMute) {
        return {"talk"};
    }
    return {"drop", "miss", "late", "twice", "mute", "restart"};
}

bool UartLine::perform(const QString& choice)
{
    if (choice == "drop") {
        m_losesFrame = true;
    } else if (choice == "miss") {
        m_losesAck = true;
    } else if (choice == "late") {
        m_losesPacket = true;
    } else if (choice == "twice") {
        m_repeatsPacket = true;
    } else if (choice == "mute" || choice == "talk") {
        setMute(choice == "mute");
    } else if (choice == "restart") {
        restart();
    } else {
        return false;
    }
    return true;
}

void UartLine::calm()
{
    m_losesFrame = m_losesAck = m_losesPacket = m_repeatsPacket = false;
    setMute(false);
}

void UartLine::setMute(bool isMute)
{
    m_isMute = isMute;
    m_patience.stop();
    if (!isMute && std::exchange(m_mustRestart, false)) {
        restart();
    }
    deliver();
}

void UartLine::restart()
{
    dropPackets();
    m_controller.startOver(true);
    send(SERVICE_SYSTEM_EVENT, QByteArray(1, SystemEventService::RESET));
}

// --- To the base unit -----------------------------------------------------------------------------------------------

void UartLine::send(quint8 serviceId, const QByteArray& payload)
{
    m_packets.enqueue({serviceId, payload});
    // Not within what the base unit is just doing: the line takes a moment.
    QMetaObject::invokeMethod(
        &m_context, [this] { deliver(); }, Qt::QueuedConnection);
}

void UartLine::deliver()
{
    if (m_isMute && !m_packets.isEmpty() && !m_patience.isActive()) {
        m_patience.start(Patience);
    }
    while (!m_isMute && !m_packets.isEmpty() && !m_repeatTimer.isActive()) {
        if (std::exchange(m_losesPacket, false)) {
            m_repeatTimer.start(Repetition);
        } else {
            deliverFirst();
        }
    }
}

void UartLine::deliverFirst()
{
    const Packet first = m_packets.dequeue();
    const QByteArray packet = TransportLayer::addHeader(first.payload, MSG_CLASS_TRANSP_ACK, first.serviceId, m_number);
    m_number = (m_number + 1) % 64;
    if (std::exchange(m_repeatsPacket, false)) {
        m_controller.miscount(first.serviceId, first.payload, 1);
        toBaseUnit(packet);
    }
    toBaseUnit(packet);
}

void UartLine::giveUp()
{
    dropPackets();
    m_mustRestart = true;
}

void UartLine::dropPackets()
{
    m_repeatTimer.stop();
    while (!m_packets.isEmpty()) {
        const Packet lost = m_packets.dequeue();
        m_controller.miscount(lost.serviceId, lost.payload, -1);
    }
}

void UartLine::toBaseUnit(const QByteArray& packet)
{
    m_transport->readDataFromInternal(frameOf(packet));
}

// --- From the base unit ---------------------------------------------------------------------------------------------

void UartLine::frameToController(const QByteArray& frame)
{
    const QByteArray packet = packetIn(frame);
    if (m_isMute || std::exchange(m_losesFrame, false) || TransportLayer::getMessageClass(packet) == MSG_CLASS_ACK) {
        return;
    }
    // Numbers are few: after a long silence a RESET may bear that of the last packet, which it does not repeat.
    const int number = TransportLayer::getPacketNumber(packet);
    const quint8 serviceId = TransportLayer::getServiceId(packet);
    const QByteArray payload = TransportLayer::removeHeader(packet);
    if (std::exchange(m_lastHeard, number) != number || isReset(serviceId, payload)) {
        handle(serviceId, payload);
    }
    if (!std::exchange(m_losesAck, false)) {
        QMetaObject::invokeMethod(
            &m_context, [this, packet] { acknowledge(packet); }, Qt::QueuedConnection);
    }
}

void UartLine::handle(quint8 serviceId, const QByteArray& payload)
{
    if (isReset(serviceId, payload)) {
        m_controller.startOver(false);
    } else {
        m_controller.hear(serviceId, payload);
    }
}

void UartLine::acknowledge(const QByteArray& packet)
{
    if (!m_isMute) {
        m_waiting = qMax(0, m_waiting - 1);
        toBaseUnit(TransportLayer::addHeader(QByteArray(), MSG_CLASS_ACK, TransportLayer::getServiceId(packet),
                                             TransportLayer::getPacketNumber(packet)));
    }
}

bool UartLine::isAtPeace() const
{
    const bool isSomethingAhead = m_losesFrame || m_losesAck || m_losesPacket || m_repeatsPacket || m_isMute ||
                                  m_mustRestart || m_repeatTimer.isActive() || m_patience.isActive();
    return isQuiet() && !isSomethingAhead && m_linkState == SystemEventService::RUN;
}

QByteArray UartLine::state() const
{
    QByteArray text;
    for (const bool flag : {m_losesFrame, m_losesAck, m_losesPacket, m_repeatsPacket, m_isMute, m_mustRestart,
                            m_repeatTimer.isActive(), m_patience.isActive()}) {
        text += flag ? '1' : '0';
    }
    return text + QByteArray::number(m_linkState) + QByteArray::number(m_packets.size()) + ',' +
           QByteArray::number(m_waiting);
}
