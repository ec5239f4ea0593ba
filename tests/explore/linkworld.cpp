#include "linkworld.h"

#include "cfallback_service_c.h"
#include "gfallback_service_c.h"
#include "glinkconnection.h"
#include "glinkheader.h"
#include "remoteunit.h"

#include <QThread>

#include <chrono>

using namespace std::chrono_literals;

namespace {

constexpr quint16 Identity = 0x0405;
constexpr quint16 ArmedUnit = 21;
constexpr auto Promise = 2000ms; ///< within which the newest status and commands are there
constexpr auto Step = 100ms;
constexpr int FrameOverhead = 21;

QByteArray number16(int value)
{
    const char bytes[] = {static_cast<char>(value), static_cast<char>(value >> 8)};
    return {bytes, sizeof(bytes)};
}

int valueOf16(const QByteArray& data, int offset)
{
    return static_cast<quint8>(data.at(offset)) + 256 * static_cast<quint8>(data.at(offset + 1));
}

QByteArray initFrameOf(quint16 id)
{
    return gLinkFrame(GLINK_MSG_ID_INIT, QByteArray("\1\2") + number16(id) + number16(Identity) + QByteArray(16, '\0'));
}

} // namespace

LinkWorld::LinkWorld(VirtualTime& time, const QList<quint16>& units)
    : m_time(time)
{
    qRegisterMetaType<Link>("Link");
    m_time.advance(1h); // log lines that come once a minute are due again
    for (const char* name : {"bu_identity", "bu_state", "tsaps", "unarmed_rus", "eglink_stat_out", "eclink_status",
                             "armed_ru", "total_rus"}) {
        setTag(name, 0);
    }
    setTag("bu_identity", Identity);
    setTag("bu_state", 17);
    setTag("armed_ru", ArmedUnit);
    makeHub();
    for (const quint16 id : units) {
        m_units[id].id = id;
        performFor(m_units[id], "fb");
    }
    awaitChecksums();
}

LinkWorld::~LinkWorld()
{
    for (LinkUnit& unit : m_units) {
        delete unit.tcp.data();
    }
}

void LinkWorld::setTag(const char* name, const QVariant& value)
{
    Tag* tag = m_tags.get(name);
    if (tag == nullptr) {
        tag = new Tag(name, &m_tags);
        m_tags.append(tag);
    }
    tag->setValue(value);
}

void LinkWorld::makeHub()
{
    m_gFallback.reset(new GfallbackServiceC(nullptr, SERVICE_G_FALLBACK));
    m_cFallback.reset(new CFallbackServiceC(nullptr, SERVICE_C_FALLBACK));
    m_hub.reset(new RGPCom(&m_tags, nullptr, nullptr));
    m_hub->initializeInOneThread(m_gFallback.data(), m_cFallback.data());
    QObject::connect(m_gFallback.data(), &ServiceBase::readyReadFromService, &m_context,
                     [this](const QByteArray& block) { blockFromBase(block); });
    QObject::connect(m_hub.data(), &RGPCom::machineStopActivatedOnArmedRemote, &m_context, [this] { ++m_stopsHeard; });
    QObject::connect(m_hub.data(), &RGPCom::readyReadCmdFromRGP, &m_context, [this] { ++m_upCommandsHeard; });
}

/// The list of application checksums is made in a thread of its own, in real time. Without it no INIT is answered.
void LinkWorld::awaitChecksums()
{
    const auto areAllServed = [this] {
        for (const LinkUnit& unit : qAsConst(m_units)) {
            if (!isServed(unit)) {
                return false;
            }
        }
        return true;
    };
    for (int wait = 0; wait < 5000 && !areAllServed(); ++wait) {
        VirtualTime::settle();
        QThread::msleep(areAllServed() ? 0 : 1);
    }
    advance(Promise);
}

// --- Choices --------------------------------------------------------------------------------------------------------

QStringList LinkWorld::choices() const
{
    QStringList list{"tick", "long", "cmd", "data"};
    bool isAnyOnFallback = false;
    for (const LinkUnit& unit : m_units) {
        for (const QString& word : choicesFor(unit)) {
            list << word + QString::number(unit.id);
        }
        isAnyOnFallback = isAnyOnFallback || unit.isOnFallback;
    }
    if (isAnyOnFallback) {
        list << "reject";
    }
    return list;
}

QStringList LinkWorld::choicesFor(const LinkUnit& unit) const
{
    QStringList words{"fb", "fwd", unit.isHoldingAcks ? "free" : "hold", unit.isDeaf ? "hear" : "deaf"};
    if (unit.isOnFallback) {
        words += QStringList{"lose", "block", "deinit", unit.isFlowHeld ? "flow" : "stall"};
    }
    words += unit.tcp ? "cut" : "tcp";
    if (!unit.isDisturbed() && isServed(unit)) {
        words += QStringList{"up", "stop"};
    }
    return words;
}

void LinkWorld::perform(const QString& choice)
{
    if (!choices().contains(choice)) {
        return;
    }
    const QString what = choice.left(choice.size() - 2);
    const auto unit = m_units.find(static_cast<quint16>(choice.rightRef(2).toUInt()));
    if (unit == m_units.end()) {
        performGlobal(choice);
    } else {
        performFor(*unit, what);
    }
    VirtualTime::settle();
    check();
}

void LinkWorld::performGlobal(const QString& what)
{
    if (what == "tick") {
        advance(500ms);
    } else if (what == "long") {
        advance(2100ms);
    } else if (what == "cmd") {
        sendCommand();
    } else if (what == "data") {
        m_hub->receivePeriodicFromECLink(QByteArray("data"));
    } else if (what == "reject") {
        m_gFallback->readData(QByteArray(1, '\0'), Internal, MSG_CLASS_TRANSP_ACK);
        VirtualTime::settle();
        for (LinkUnit& unit : m_units) {
            const GLinkConnection* const connection = m_hub->connectionOf(unit.id);
            const bool isTaken = unit.isOnFallback && connection->activeLinkType() != GLinkConnection::FALLBACK;
            unit.isLinkTaken = unit.isLinkTaken || isTaken;
            unit.heldFlow = isTaken ? 0 : unit.heldFlow;
        }
    }
}

void LinkWorld::performFor(LinkUnit& unit, const QString& what)
{
    if (what == "up") {
        ++m_upCommands;
        sendUp(unit, GLINK_MSG_ID_CMD, "up");
        return;
    }
    if (what == "stop") {
        m_stops += unit.id == ArmedUnit ? 1 : 0;
        sendUp(unit, GLINK_MSG_ID_M_STOP, QByteArray());
        return;
    }
    if (what == "fwd") {
        sendForward(unit.id);
        return;
    }
    if (!unit.isDeaf && (what == "fb" || what == "deinit" || what == "tcp")) {
        // The base controller forgets the unit's blocks. Else, what it has not asked for by now would come late.
        unit.heldFlow = 0;
    }
    if (what == "fb" && !unit.isDeaf) {
        unit.isOnFallback = true;
        unit.isLinkTaken = false;
        frameOverFallback(unit, initFrameOf(unit.id));
    } else if (what == "deinit" && !unit.isDeaf) {
        frameOverFallback(unit, gLinkFrame(GLINK_MSG_ID_FALLBACK_DEINIT, QByteArray()));
        unit.isOnFallback = false;
    } else if (what == "tcp" && !unit.isDeaf) {
        connectTcp(unit);
    } else if (what == "cut") {
        unit.tcp->end();
    } else if (what == "lose") {
        unit.losesNextAck = true;
    } else if (what == "block") {
        unit.losesNextBlock = true;
    } else if (what == "hold") {
        unit.isHoldingAcks = true;
    } else if (what == "stall") {
        unit.isFlowHeld = true;
    } else if (what == "deaf") {
        unit.isDeaf = true;
    } else {
        endDisturbance(unit, what);
    }
    unit.undisturbedSince = VirtualTime::now();
}

void LinkWorld::endDisturbance(LinkUnit& unit, const QString& what)
{
    if (what == "flow") {
        unit.isFlowHeld = false;
        for (; unit.heldFlow > 0; --unit.heldFlow) {
            askForNext(unit);
        }
    } else if (what == "free") {
        unit.isHoldingAcks = false;
        while (!unit.heldFrames.isEmpty()) {
            frameOverFallback(unit, unit.heldFrames.takeFirst());
        }
        while (!unit.heldBytes.isEmpty() && unit.tcp) {
            unit.tcp->arrive(unit.heldBytes.takeFirst());
        }
        unit.heldBytes.clear();
    } else if (what == "hear") {
        unit.isDeaf = false;
        while (!unit.unheardBytes.isEmpty()) {
            bytesOverTcp(unit, unit.unheardBytes.takeFirst());
        }
    }
}

/// In small steps, so that a promise is looked after when it falls due.
void LinkWorld::advance(std::chrono::milliseconds time)
{
    VirtualTime::settle();
    for (auto passed = 0ms; passed < time; passed += Step) {
        m_time.advance(qMin(Step, time - passed));
        VirtualTime::settle();
        check();
    }
}

void LinkWorld::sendCommand()
{
    m_hub->sendCmd("c" + number16(++m_commands));
}

void LinkWorld::sendForward(quint16 id)
{
    m_hub->recvServiceForward(number16(++m_forwards) + number16(id), id);
}

void LinkWorld::connectTcp(LinkUnit& unit)
{
    const auto written = [this, &unit](const QByteArray& bytes) {
        bytesOverTcp(unit, bytes);
    };
    auto* const transport = new PipedTransport(written, nullptr, &m_tags);
    unit.isOnFallback = unit.isLinkTaken = false; // the base unit closes the fallback for a unit that joins over TCP
    unit.tcp = transport;
    unit.stream.clear();
    unit.heldBytes.clear();
    unit.unheardBytes.clear();
    const auto queued = Qt::QueuedConnection;
    RGPCom* const hub = m_hub.data();
    QObject::connect(transport, &GLinkTransportTcp::newConnection, hub, &RGPCom::addGLink, queued);
    QObject::connect(transport, &GLinkTransportBase::closedConnection, hub, &RGPCom::removeGLink, queued);
    QObject::connect(transport, &GLinkTransportBase::readyReadFromGLink, hub, &RGPCom::dataFromGLink, queued);
    QObject::connect(transport, &GLinkTransportBase::messageSent, hub, &RGPCom::messageSent, queued);
    QObject::connect(
        transport, &GLinkTransportTcp::finished, &m_context, [transport] { delete transport; }, queued);
    transport->run();
    sendUp(unit, GLINK_MSG_ID_INIT, initFrameOf(unit.id).mid(17).chopped(4));
}

/// TCP, if the unit has it, is its first choice.
void LinkWorld::sendUp(LinkUnit& unit, quint8 msgId, const QByteArray& payload)
{
    const QByteArray frame = gLinkFrame(msgId, payload);
    if (unit.tcp) {
        unit.tcp->arrive(frame);
    } else {
        frameOverFallback(unit, frame);
    }
}

// --- The base controller's relay ------------------------------------------------------------------------------------

void LinkWorld::blockFromBase(const QByteArray& block)
{
    const auto id = static_cast<quint16>(valueOf16(block, 0));
    const auto found = m_units.find(id);
    if (found == m_units.end()) {
        violate(QStringLiteral("a block for unit %1, which does not exist").arg(id));
        return;
    }
    LinkUnit& unit = *found;
    if (std::exchange(unit.losesNextBlock, false)) {
        unit.isPartialWhole = false;
        unit.undisturbedSince = VirtualTime::now();
    }
    unit.partial += block.mid(4);
    const bool isLast = valueOf16(block, 2) == block.size() - 4;
    if (isLast && std::exchange(unit.isPartialWhole, true) && !unit.isDeaf) {
        frameToUnit(unit, unit.partial, false);
    }
    if (isLast) {
        unit.partial.clear();
    }
    if (unit.isFlowHeld) {
        ++unit.heldFlow;
    } else {
        askForNext(unit);
    }
}

void LinkWorld::askForNext(LinkUnit& unit)
{
    m_gFallback->readData(number16(unit.id), Internal, MSG_CLASS_TRANSP_ACK);
}

void LinkWorld::frameOverFallback(LinkUnit& unit, const QByteArray& frame)
{
    m_gFallback->readData(number16(unit.id) + number16(frame.size()) + frame, Internal, MSG_CLASS_TRANSP_ACK);
}

// --- The units ------------------------------------------------------------------------------------------------------

void LinkWorld::bytesOverTcp(LinkUnit& unit, const QByteArray& bytes)
{
    if (unit.isDeaf) {
        unit.unheardBytes << bytes;
        return;
    }
    unit.stream += bytes;
    while (unit.stream.size() >= FrameOverhead && unit.stream.size() >= valueOf16(unit.stream, 0) + FrameOverhead) {
        const QByteArray frame = unit.stream.left(valueOf16(unit.stream, 0) + FrameOverhead);
        unit.stream.remove(0, frame.size());
        frameToUnit(unit, frame, true);
    }
}

void LinkWorld::frameToUnit(LinkUnit& unit, const QByteArray& frame, bool isTcp)
{
    if (gLinkFrame(0, QByteArray()).size() > frame.size()) {
        violate(QStringLiteral("unit %1 got a torn frame").arg(unit.id));
    } else if (frame.at(GLinkFrame::MsgTypeOffset) == GLINK_MSG_TYPE_MSG) {
        const auto msgId = static_cast<quint8>(frame.at(3));
        messageToUnit(unit, msgId, frame.mid(17).chopped(4));
        acknowledge(unit, msgId, isTcp);
    }
}

void LinkWorld::messageToUnit(LinkUnit& unit, quint8 msgId, const QByteArray& payload)
{
    switch (msgId) {
    case GLINK_MSG_BASE_STATUS:
        unit.lastStatus = VirtualTime::now();
        unit.lastMark = qMax(unit.lastMark, static_cast<int>(static_cast<quint8>(payload.at(3))));
        break;
    case GLINK_MSG_ID_CMD: commandArrived(unit, payload); break;
    case GLINK_MSG_ID_SERVICE_FORWARD: forwardArrived(unit, payload); break;
    default: break;
    }
}

void LinkWorld::commandArrived(LinkUnit& unit, const QByteArray& payload)
{
    const int number = valueOf16(payload, 1);
    if (number <= unit.lastCommand) {
        violate(QStringLiteral("unit %1 got command %2 after %3").arg(unit.id).arg(number).arg(unit.lastCommand));
    }
    unit.lastCommand = number;
}

void LinkWorld::forwardArrived(LinkUnit& unit, const QByteArray& payload)
{
    const int number = valueOf16(payload, 0);
    if (valueOf16(payload, 2) != unit.id) {
        violate(QStringLiteral("unit %1 got a message for unit %2").arg(unit.id).arg(valueOf16(payload, 2)));
    } else if (number <= unit.lastForward) {
        violate(QStringLiteral("unit %1 got message %2 after %3").arg(unit.id).arg(number).arg(unit.lastForward));
    }
    unit.lastForward = number;
}

void LinkWorld::acknowledge(LinkUnit& unit, quint8 msgId, bool isTcp)
{
    const QByteArray frame = gLinkAck(msgId);
    if (!isTcp && std::exchange(unit.losesNextAck, false)) {
        unit.undisturbedSince = VirtualTime::now();
    } else if (unit.isHoldingAcks) {
        (isTcp ? unit.heldBytes : unit.heldFrames) << frame;
    } else if (!isTcp) {
        frameOverFallback(unit, frame);
    } else {
        // Not within the writing of the message: the other end takes a moment.
        QMetaObject::invokeMethod(
            unit.tcp, [transport = unit.tcp, frame] { transport->arrive(frame); }, Qt::QueuedConnection);
    }
}

// --- What must hold -------------------------------------------------------------------------------------------------

bool LinkWorld::isServed(const LinkUnit& unit) const
{
    const GLinkConnection* const connection = m_hub->connectionOf(unit.id);
    return connection != nullptr && connection->activeLinkType() != GLinkConnection::NONE;
}

void LinkWorld::violate(const QString& text)
{
    if (m_violation.isEmpty()) {
        m_violation = text;
    }
}

void LinkWorld::check()
{
    for (const LinkUnit& unit : qAsConst(m_units)) {
        checkUnit(unit);
    }
    if (m_stopsHeard != m_stops) {
        violate(QStringLiteral("%1 machine stops of %2").arg(m_stopsHeard).arg(m_stops));
    }
    if (m_upCommandsHeard != m_upCommands) {
        violate(QStringLiteral("%1 commands of %2 from the units").arg(m_upCommandsHeard).arg(m_upCommands));
    }
}

void LinkWorld::checkUnit(const LinkUnit& unit)
{
    const GLinkConnection* const connection = m_hub->connectionOf(unit.id);
    if (connection == nullptr) {
        return;
    }
    if (connection->gLink() != nullptr && connection->gLink() != unit.tcp) {
        violate(QStringLiteral("unit %1 keeps a link that has ended").arg(unit.id));
    }
    if (connection->waiting().commandCount() > GLinkMessageQueue::Capacity ||
        connection->waiting().otherCount() > GLinkMessageQueue::Capacity ||
        m_gFallback->waitingMessages(unit.id) > GfallbackServiceC::MaxWaitingMessages) {
        violate(QStringLiteral("more waits for unit %1 than may").arg(unit.id));
    }
    const bool hasWay = unit.tcp || unit.isOnFallback;
    if (!hasWay || unit.isDisturbed() || VirtualTime::now() - unit.undisturbedSince <= Promise) {
        return;
    }
    if (!isServed(unit)) {
        violate(QStringLiteral("unit %1 has no link, and nobody took it").arg(unit.id));
    } else if (VirtualTime::now() - unit.lastStatus > Promise) {
        violate(QStringLiteral("unit %1 is there, acknowledges, and gets no base status").arg(unit.id));
    }
}

/// The world turns benign. A unit that is still there goes on where it was; one without a link joins again.
void LinkWorld::finish()
{
    for (LinkUnit& unit : m_units) {
        unit.losesNextAck = unit.losesNextBlock = false;
        for (const char* what : {"hear", "flow", "free"}) {
            performFor(unit, what);
        }
    }
    VirtualTime::settle();
    advance(100ms);
    for (LinkUnit& unit : m_units) {
        if ((!unit.tcp && !unit.isOnFallback) || unit.isLinkTaken) {
            performFor(unit, "fb");
        }
    }
    advance(100ms);
    setTag("tsaps", m_mark = 77);
    sendCommand();
    for (const LinkUnit& unit : qAsConst(m_units)) {
        sendForward(unit.id);
    }
    advance(Promise + 500ms); // what is promised counts from a base status that says so
    checkEnd();
}

void LinkWorld::checkEnd()
{
    int forward = m_forwards - m_units.size();
    for (const LinkUnit& unit : qAsConst(m_units)) {
        ++forward;
        if (unit.lastMark != m_mark) {
            violate(QStringLiteral("unit %1 never got the newest base status").arg(unit.id));
        } else if (unit.lastCommand != m_commands) {
            violate(QStringLiteral("unit %1 never got the last command").arg(unit.id));
        } else if (unit.lastForward != forward) {
            violate(QStringLiteral("unit %1 never got its last message").arg(unit.id));
        }
    }
}

QByteArray LinkWorld::state() const
{
    const auto age = [](GLinkClock::TimePoint since) {
        const auto passed = std::chrono::duration_cast<std::chrono::milliseconds>(VirtualTime::now() - since);
        return QByteArray::number(static_cast<qint64>(qMin(passed, Promise + Step) / Step)) + ',';
    };
    QByteArray text;
    for (const LinkUnit& unit : m_units) {
        for (const bool flag : {unit.isOnFallback, !unit.tcp.isNull(), unit.isDeaf, unit.isHoldingAcks, unit.isFlowHeld,
                                unit.losesNextAck, unit.losesNextBlock, unit.isLinkTaken, unit.isPartialWhole}) {
            text += flag ? '1' : '0';
        }
        for (const QByteArray& frame : unit.heldFrames + unit.heldBytes + unit.unheardBytes) {
            text += 'h' + QByteArray::number(frame.at(3) + 0);
        }
        text += QByteArray::number(unit.heldFlow) + age(unit.lastStatus) + age(unit.undisturbedSince);
        text += QByteArray::number(m_gFallback->linkStatus(unit.id)) +
                QByteArray::number(m_gFallback->waitingMessages(unit.id));
        if (const GLinkConnection* const connection = m_hub->connectionOf(unit.id)) {
            text += 't' + QByteArray::number(connection->activeLinkType());
            text += connection->isInFlight() ? age(connection->unacknowledgedSince()) : QByteArray("-");
            text += QByteArray::number(connection->waiting().commandCount()) + ';' +
                    QByteArray::number(connection->waiting().otherCount());
        }
        text += '/';
    }
    return text;
}
