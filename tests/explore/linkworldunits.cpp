#include "linkworld.h"

#include "gfallback_service_c.h"
#include "glinkconnection.h"
#include "glinkheader.h"
#include "link.h"
#include "remoteunit.h"

#include <algorithm>
#include <utility>

namespace {

constexpr int BlockHeader = 4;
constexpr int FrameOverhead = 21;

} // namespace

// --- The base controller's relay ------------------------------------------------------------------------------------

void LinkWorld::fromBase(quint8 serviceId, const QByteArray& payload)
{
    if (serviceId == SERVICE_G_FALLBACK) {
        blockFromBase(payload);
    }
}

/// Nobody tells repetitions on the internal link, so that what was sent twice counts twice; and what the base
/// controller had still to send when that link was lost, is lost.
void LinkWorld::miscount(quint8 serviceId, const QByteArray& payload, int times)
{
    if (serviceId == SERVICE_G_FALLBACK && payload.size() == 1) {
        m_rejects += times;
    } else if (serviceId == SERVICE_C_FALLBACK && times > 0) {
        m_forwardsSentTwice.insert(valueOf16(payload, 2));
    } else if (serviceId == SERVICE_G_FALLBACK && payload.size() > BlockHeader + GLinkFrame::MsgTypeOffset &&
               payload.at(BlockHeader + GLinkFrame::MsgTypeOffset) == GLINK_MSG_TYPE_MSG) {
        const auto msgId = static_cast<quint8>(payload.at(BlockHeader + 3));
        m_upCommands += msgId == GLINK_MSG_ID_CMD ? times : 0;
        LinkUnit& unit = m_units[static_cast<quint16>(valueOf16(payload, 0))];
        if (times < 0 && (msgId == GLINK_MSG_ID_INIT || msgId == GLINK_MSG_ID_FALLBACK_DEINIT)) {
            const GLinkConnection* const connection = m_hub->connectionOf(unit.id);
            unit.isOnFallback = connection != nullptr && connection->activeLinkType() == GLinkConnection::FALLBACK;
        }
        m_stops += msgId == GLINK_MSG_ID_M_STOP && unit.id == ArmedUnit ? times : 0;
    }
}

void LinkWorld::relayStartsOver(bool isByItself)
{
    for (LinkUnit& unit : m_units) {
        unit.heldFlow = 0;
        unit.forgetPartial();
        unit.isRelayNew = isByItself; // what the base unit sends begins with its RESET
    }
}

/// A channel that is rejected sends the unit back to TCP at once, while a message is still on its way to the line.
bool LinkWorld::wasHandedOverBeforeReject(const LinkUnit& unit) const
{
    return m_rejects > 0 && unit.tcpTurn == m_turn;
}

/// Told when the block has been handed to the line, which may have carried it to its end by then.
void LinkWorld::blockSetsOut(const QByteArray& block)
{
    LinkUnit& unit = m_units[static_cast<quint16>(valueOf16(block, 0))];
    if (!std::exchange(unit.isBlockThere, false)) {
        unit.blocksOnTheirWay.enqueue(wasHandedOverBeforeReject(unit));
    }
}

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
    unit.isBlockThere = unit.blocksOnTheirWay.isEmpty();
    unit.mayBeLate = unit.isBlockThere ? wasHandedOverBeforeReject(unit) : unit.blocksOnTheirWay.dequeue();
    unit.partial += block.mid(BlockHeader);
    const bool isLast = valueOf16(block, 2) == block.size() - BlockHeader;
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
    m_line->send(SERVICE_G_FALLBACK, number16(unit.id));
}

void LinkWorld::frameOverFallback(LinkUnit& unit, const QByteArray& frame)
{
    if (!m_line->isMute()) {
        m_line->send(SERVICE_G_FALLBACK, number16(unit.id) + number16(frame.size()) + frame);
    }
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
    if (isTcp) {
        unit.tcpTurn = m_turn;
        unit.mayBeLate = false;
        std::fill(unit.blocksOnTheirWay.begin(), unit.blocksOnTheirWay.end(), true);
    }
    if (frame.size() < FrameOverhead || frame.size() != valueOf16(frame, 0) + FrameOverhead) {
        noteWithdrawal(unit); // it may be of this moment
        if (!unit.mayTear()) {
            violate(QStringLiteral("unit %1 got a torn frame").arg(unit.id));
        }
        return;
    }
    if (frame.at(GLinkFrame::MsgTypeOffset) == GLINK_MSG_TYPE_MSG) {
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
    case GLINK_MSG_ID_INITACK: unit.isAwaitingAnswer = unit.isAwaitingAnswer && !m_line->isQuiet(); break;
    case GLINK_MSG_ID_CMD: commandArrived(unit, payload); break;
    case GLINK_MSG_ID_SERVICE_FORWARD: forwardArrived(unit, payload); break;
    default: break;
    }
}

void LinkWorld::commandArrived(LinkUnit& unit, const QByteArray& payload)
{
    const int number = valueOf16(payload, 1);
    if (number <= unit.lastCommand && unit.mayBeLate) {
        return;
    }
    if (number <= unit.lastCommand) {
        violate(QStringLiteral("unit %1 got command %2 after %3").arg(unit.id).arg(number).arg(unit.lastCommand));
    }
    if (number != unit.lastCommand + 1 && !unit.mayMissCommands) {
        violate(QStringLiteral("unit %1 got command %2 next to %3").arg(unit.id).arg(number).arg(unit.lastCommand));
    }
    unit.lastCommand = number;
}

void LinkWorld::forwardArrived(LinkUnit& unit, const QByteArray& payload)
{
    const int number = valueOf16(payload, 0);
    if (valueOf16(payload, 2) != unit.id) {
        violate(QStringLiteral("unit %1 got a message for unit %2").arg(unit.id).arg(valueOf16(payload, 2)));
    } else if (number <= unit.lastForward && unit.mayBeLate) {
        return;
    } else if (number == unit.lastForward && m_forwardsSentTwice.remove(number)) {
        return;
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
