#include "linkworld.h"

#include "gfallback_service_c.h"
#include "glinkconnection.h"

#include <chrono>

using namespace std::chrono_literals;

// --- What must hold -------------------------------------------------------------------------------------------------

bool LinkWorld::isServed(const LinkUnit& unit) const
{
    const GLinkConnection* const connection = m_hub->connectionOf(unit.id);
    return connection != nullptr && connection->activeLinkType() != GLinkConnection::NONE;
}

void LinkWorld::noteWithdrawal(LinkUnit& unit) const
{
    const GLinkConnection* const connection = m_hub->connectionOf(unit.id);
    const auto link = connection != nullptr ? connection->activeLinkType() : GLinkConnection::NONE;
    unit.isWithdrawn = link == GLinkConnection::TCP || (unit.isWithdrawn && link == GLinkConnection::NONE);
}

/// Whom the base unit has on the fallback, it cannot reach while the internal link is silent: nor a unit whose INIT
/// over the fallback took so long that its INIT over TCP was there first.
bool LinkWorld::isDisturbed(const LinkUnit& unit) const
{
    const GLinkConnection* const connection = m_hub->connectionOf(unit.id);
    const bool isHeldOnFallback = connection != nullptr && connection->activeLinkType() == GLinkConnection::FALLBACK;
    return unit.isDisturbed() || ((unit.isOnFallback || isHeldOnFallback) && m_line->isMute());
}

void LinkWorld::check()
{
    for (LinkUnit& unit : m_units) {
        noteTakenLink(unit);
        noteWithdrawal(unit);
        checkUnit(unit);
        unit.mayMissCommands = unit.mayMissCommands && !isUpToDate(unit);
    }
    if (!m_line->isIdle()) {
        return; // what the base controller has still to send counts when it has
    }
    m_rejects = 0;
    if (m_stopsHeard != m_stops) {
        violate(QStringLiteral("%1 machine stops of %2").arg(m_stopsHeard).arg(m_stops));
    }
    if (m_upCommandsHeard != m_upCommands) {
        violate(QStringLiteral("%1 commands of %2 from the units").arg(m_upCommandsHeard).arg(m_upCommands));
    }
}

/// A rejected channel takes the link from the unit of the last send.
void LinkWorld::noteTakenLink(LinkUnit& unit)
{
    const GLinkConnection* const connection = m_hub->connectionOf(unit.id);
    const bool isOnFallback = connection != nullptr && connection->activeLinkType() == GLinkConnection::FALLBACK;
    if (m_rejects > 0 && m_line->isIdle() && unit.isOnFallback && !unit.isLinkTaken && !isOnFallback) {
        unit.isLinkTaken = true;
        --m_rejects;
    }
}

/// Nothing that befell the unit has still to come to light.
bool LinkWorld::isUpToDate(const LinkUnit& unit) const
{
    const GLinkConnection* const connection = m_hub->connectionOf(unit.id);
    return m_line->isAtPeace() && m_rejects == 0 && isServed(unit) && !isDisturbed(unit) && !connection->isInFlight() &&
           connection->waiting().isEmpty() && m_gFallback->waitingMessages(unit.id) == 0 &&
           unit.lastCommand == m_commands;
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
    if (!hasWay || isDisturbed(unit) || VirtualTime::now() - unit.undisturbedSince <= Promise) {
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
    m_line->calm();
    endSilence();
    advance(300ms); // the internal link comes back, should it have been lost
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
        sendForward(unit.id, 0);
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
    QByteArray text = m_line->state();
    for (const LinkUnit& unit : m_units) {
        for (const bool flag :
             {unit.isOnFallback, !unit.tcp.isNull(), unit.isDeaf, unit.isHoldingAcks, unit.isFlowHeld,
              unit.losesNextAck, unit.losesNextBlock, unit.isLinkTaken, unit.isPartialWhole, unit.partial.isEmpty(),
              unit.mayTear(), unit.mayMissCommands, unit.lastCommand == m_commands}) {
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
