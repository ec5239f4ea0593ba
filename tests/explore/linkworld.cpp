#include "linkworld.h"

#include "cfallback_service_c.h"
#include "gfallback_service_c.h"
#include "glinkconnection.h"
#include "glinkheader.h"
#include "link.h"
#include "remoteunit.h"
#include "transport_layer.h"

#include <QThread>

#include <chrono>

using namespace std::chrono_literals;

namespace {

constexpr quint16 Identity = 0x0405;
constexpr int LongMessage = 300; ///< more than one block over the fallback

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
    advance(200ms); // the internal link starts
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
    m_hub.reset(new RGPCom(&m_tags, nullptr, nullptr));
    m_line.reset(
        new UartLine(m_hub.data(), &m_tags,
                     {[this](quint8 id, const QByteArray& payload) { fromBase(id, payload); },
                      [this](quint8 id, const QByteArray& payload, int times) { miscount(id, payload, times); },
                      [this](bool isByItself) {
                          relayStartsOver(isByItself);
                      }}));
    m_gFallback = qobject_cast<GfallbackServiceC*>(m_line->service(SERVICE_G_FALLBACK));
    m_hub->initializeInOneThread(m_gFallback, qobject_cast<CFallbackServiceC*>(m_line->service(SERVICE_C_FALLBACK)));
    QObject::connect(m_gFallback, &ServiceBase::readyReadFromService, &m_context,
                     [this](const QByteArray& block) { blockSetsOut(block); });
    QObject::connect(m_line->transport(), &TransportLayer::internLinkFail, &m_context, [this] {
        for (LinkUnit& unit : m_units) {
            unit.blocksOnTheirWay.clear();
            unit.undisturbedSince = VirtualTime::now(); // the promise counts from the link's return
        }
    });
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
    QStringList list = QStringList{"tick", "long", "cmd", "data"} + m_line->choices();
    bool isAnyOnFallback = false;
    for (const LinkUnit& unit : m_units) {
        for (const QString& word : choicesFor(unit)) {
            list << word + QString::number(unit.id);
        }
        isAnyOnFallback = isAnyOnFallback || unit.isOnFallback;
    }
    if (isAnyOnFallback && !m_line->isMute()) {
        list << "reject";
    }
    return list;
}

QStringList LinkWorld::choicesFor(const LinkUnit& unit) const
{
    QStringList words{unit.isHoldingAcks ? "free" : "hold", unit.isDeaf ? "hear" : "deaf"};
    if (!m_line->isMute()) {
        words += QStringList{"fb", "fwd", "big"};
    }
    if (unit.isOnFallback) {
        words += QStringList{"lose", "block", unit.isFlowHeld ? "flow" : "stall"};
    }
    if (unit.isOnFallback && !m_line->isMute()) {
        words += "deinit";
    }
    words += unit.tcp ? "cut" : "tcp";
    if ((unit.tcp || unit.isOnFallback) && !isDisturbed(unit) && isServed(unit)) {
        words += QStringList{"up", "stop"};
    }
    return words;
}

void LinkWorld::perform(const QString& choice)
{
    if (!choices().contains(choice)) {
        return;
    }
    ++m_turn;
    const QString what = choice.left(choice.size() - 2);
    const auto unit = m_units.find(static_cast<quint16>(choice.rightRef(2).toUInt()));
    if (unit == m_units.end()) {
        noteLossesOf(choice);
        performGlobal(choice);
    } else {
        unit->mayMissCommands = unit->mayMissCommands || mayCostCommands(what, *unit);
        performFor(*unit, what);
    }
    VirtualTime::settle();
    check();
}

void LinkWorld::noteLossesOf(const QString& what)
{
    for (LinkUnit& unit : m_units) {
        unit.mayMissCommands = unit.mayMissCommands || mayCostCommands(what, unit);
    }
}

/// A change of the link costs none, however slowly the base controller asks, if that takes less than a second; and what
/// befalls one unit costs the others none.
bool LinkWorld::mayCostCommands(const QString& what, const LinkUnit& unit)
{
    static const QStringList harmless{"cmd", "data", "fwd", "big", "stall", "flow", "tcp", "up", "stop"};
    const bool isTime = what == "tick" || what == "long";
    return isTime ? unit.isFlowHeld : !harmless.contains(what);
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
        ++m_rejects;
        m_line->send(SERVICE_G_FALLBACK, QByteArray(1, '\0'));
    } else if (m_line->perform(what) && what == "talk") {
        endSilence();
    }
}

void LinkWorld::endSilence()
{
    for (LinkUnit& unit : m_units) {
        unit.undisturbedSince = VirtualTime::now();
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
    if (what == "fwd" || what == "big") {
        sendForward(unit.id, what == "big" ? LongMessage : 0);
        return;
    }
    if (what == "fb" && !unit.isDeaf) {
        unit.isOnFallback = true;
        unit.isLinkTaken = false;
        unit.forgetPartial(); // it starts with a whole answer
        unit.isAwaitingAnswer = true;
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
        ++m_turn;
        m_time.advance(qMin(Step, time - passed));
        VirtualTime::settle();
        check();
    }
}

void LinkWorld::sendCommand()
{
    m_hub->sendCmd("c" + number16(++m_commands));
}

void LinkWorld::sendForward(quint16 id, int padding)
{
    const QByteArray payload = number16(++m_forwards) + number16(id) + QByteArray(padding, 'p');
    m_line->send(SERVICE_C_FALLBACK, number16(id) + payload);
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
