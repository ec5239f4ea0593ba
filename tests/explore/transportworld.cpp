#include "transportworld.h"

#include "crc_std32.h"
#include "frame_layer.h"
#include "message_layer.h"

#include <utility>

using namespace std::chrono_literals;

namespace {

constexpr int SystemEvents = 100;
constexpr int DataService = 101;
constexpr int MaxTransmissions = 3;
constexpr int NumberOffset = 2;
constexpr int MaxWaiting = 4; ///< in the explored world; more are alike

/// A line that leads nowhere: frames are caught before they reach it.
class LineToNowhere : public InternalLink
{
public:
    LineToNowhere()
        : InternalLink("no such line", nullptr)
    {}
};

class OpenLayer : public TransportLayer
{
public:
    OpenLayer()
        : TransportLayer(new LineToNowhere, nullptr)
    {}
};

QByteArray packetIn(const QByteArray& frame)
{
    FrameLayer framing(nullptr);
    QByteArray packet = framing.remove(frame);
    packet.chop(4);
    return packet;
}

} // namespace

TransportWorld::TransportWorld(VirtualTime& time)
    : m_time(time)
    , m_layer(new OpenLayer)
{
    QObject::connect(m_layer.data(), &TransportLayer::sendOnInternal, &m_context,
                     [this](const QByteArray& frame) { frameToController(frame); });
    QObject::connect(m_layer.data(), &TransportLayer::internLinkFail, &m_context, [this] { linkFailed(); });
    QObject::connect(m_layer.data(), &TransportLayer::resetAckRecieved, &m_context, [this] { resetAcknowledged(); });
}

TransportWorld::~TransportWorld() = default;

QStringList TransportWorld::choices() const
{
    QStringList list{"wait", "lose", "miss", m_isMute ? "talk" : "mute"};
    if (m_waiting.size() < MaxWaiting) {
        list += QStringList{"send", "reset"};
    }
    if (!m_lastFrame.isEmpty()) {
        list += "stale";
    }
    return list;
}

void TransportWorld::perform(const QString& choice)
{
    if (choice == "wait") {
        m_time.advance(50ms);
    } else if (choice == "lose") {
        m_losesFrame = true;
    } else if (choice == "miss") {
        m_losesAck = true;
    } else if (choice == "mute" || choice == "talk") {
        m_isMute = choice == "mute";
    } else if (choice == "stale" && !m_lastFrame.isEmpty()) {
        acknowledge(m_lastFrame);
    } else if (choice == "send" || choice == "reset") {
        send(choice == "reset");
    }
    VirtualTime::settle();
    if (m_resetsToTell != 0) {
        violate(QStringLiteral("the acknowledgement of a RESET was not told"));
    }
}

void TransportWorld::send(bool isReset)
{
    ++m_sent;
    m_waiting.append({m_sent, isReset, 0});
    const char number[] = {static_cast<char>(isReset ? 0 : 1), static_cast<char>(m_sent)};
    m_layer->readDataFromService(QByteArray(number, sizeof(number)), Internal,
                                 static_cast<quint8>(isReset ? SystemEvents : DataService), MSG_CLASS_TRANSP_ACK);
}

void TransportWorld::frameToController(const QByteArray& frame)
{
    const QByteArray packet = packetIn(frame);
    const int number = static_cast<quint8>(packet.at(NumberOffset + 1));
    if (m_waiting.isEmpty() || static_cast<quint8>(m_waiting.first().number) != number) {
        violate(QStringLiteral("packet %1 was sent, and is not the oldest that waits").arg(number));
        return;
    }
    if (++m_waiting.first().transmissions > MaxTransmissions) {
        violate(QStringLiteral("packet %1 was sent a fourth time").arg(number));
    }
    if (m_isMute || std::exchange(m_losesFrame, false)) {
        return;
    }
    if (m_waiting.first().number < m_heard) {
        violate(QStringLiteral("packet %1 came after %2").arg(number).arg(m_heard));
    }
    m_heard = m_waiting.first().number;
    if (!std::exchange(m_losesAck, false)) {
        // Not within the sending: the line takes a moment.
        QMetaObject::invokeMethod(
            &m_context, [this, frame] { acknowledge(frame); }, Qt::QueuedConnection);
    }
}

/// By a codec of the line's own, as far as it is needed: the control byte with class 3, the same number and service.
void TransportWorld::acknowledge(const QByteArray& frame)
{
    const QByteArray packet = packetIn(frame);
    m_lastFrame = frame;
    const bool isOldest =
        !m_waiting.isEmpty() && m_waiting.first().transmissions > 0 &&
        static_cast<quint8>(m_waiting.first().number) == static_cast<quint8>(packet.at(NumberOffset + 1));
    if (isOldest) {
        m_resetsToTell += m_waiting.first().isReset ? 1 : 0;
        m_waiting.removeFirst();
    }
    QByteArray answer = packet.left(NumberOffset);
    answer[0] = static_cast<char>(answer.at(0) | 0xC0);
    MessageLayer checks(nullptr);
    checks.add(answer);
    FrameLayer framing(nullptr);
    m_layer->readDataFromInternal(framing.add(answer));
}

void TransportWorld::resetAcknowledged()
{
    if (--m_resetsToTell < 0) {
        violate(QStringLiteral("a RESET was told as acknowledged that was not"));
    }
    m_layer->clearSendBuffer(2);
    m_waiting.clear();
}

void TransportWorld::linkFailed()
{
    if (m_waiting.isEmpty() || m_waiting.first().transmissions != MaxTransmissions) {
        violate(QStringLiteral("the link failed, and nothing was sent three times in vain"));
    } else if (m_isFinishing) {
        violate(QStringLiteral("the link failed while everything was well"));
    }
    m_waiting.clear();
}

void TransportWorld::finish()
{
    m_isMute = m_losesFrame = m_losesAck = false;
    m_time.advance(500ms); // what was lost before may still fail
    m_isFinishing = true;
    send(false);
    m_time.advance(500ms);
    if (!m_waiting.isEmpty() || m_heard != m_sent) {
        violate(QStringLiteral("packet %1 never arrived").arg(m_sent));
    }
}

QByteArray TransportWorld::state() const
{
    QByteArray text;
    for (const bool flag : {m_losesFrame, m_losesAck, m_isMute, m_lastFrame.isEmpty()}) {
        text += flag ? '1' : '0';
    }
    // Numbers count, too: an acknowledgement that is late may meet the same number again, after 64.
    const int lastNumber = m_lastFrame.isEmpty() ? 0 : packetIn(m_lastFrame).at(0) & 0x3F;
    text += QByteArray::number((m_sent - lastNumber) % 64) + ',';
    for (const Packet& packet : m_waiting) {
        text += (packet.isReset ? 'r' : 'd') + QByteArray::number(packet.transmissions);
    }
    return text;
}
