// Which of its two links a unit's messages take.
#include "glinkconnection.h"

#include "glinkheader.h"
#include "glinktransportfallback.h"
#include "glinktransporttcp.h"

#include <QDateTime>
#include <QDebug>

#include <utility>

namespace {

constexpr int FrameOverhead = GLinkFrame::HeaderSize + GLinkFrame::CrcSize;

quint8 msgIdOf(const QByteArray& frame)
{
    return static_cast<quint8>(frame.at(GLinkFrame::MsgIdOffset));
}

QByteArray payloadOf(const QByteArray& frame)
{
    return frame.mid(GLinkFrame::HeaderSize, frame.size() - FrameOverhead);
}

/// Newer values follow by themselves; and an answer belongs to the INIT over the link that the unit has left.
bool isReplaced(quint8 msgId)
{
    return msgId == GLINK_MSG_ID_INITACK || msgId == GLINK_MSG_ID_PERIODIC_DATA || msgId == GLINK_MSG_BASE_STATUS;
}

} // namespace

GLinkConnection::LinkType GLinkConnection::setGLink(GLinkTransportTcp* link)
{
    if (link == nullptr) {
        m_isGLinkInited = false;
    } else if (m_gLink && m_gLink != link && !supersede(*link)) {
        return updateActiveLink();
    }
    m_gLink = link;
    return updateActiveLink();
}

/// The unit has connected anew before its old connection, half open perhaps, was found dead. An answer to the INIT
/// before is of no use on the new link, where the answer to its own INIT follows.
/// @return false if `link` is the old connection after all: its INIT waited for a checksum while that of the link in
///         use overtook it.
bool GLinkConnection::supersede(GLinkTransportTcp& link)
{
    const bool isStale = link.isIntroducedBefore(m_gLink->introduction());
    if (!isStale) {
        m_queue.dropInitAcks();
    }
    QMetaObject::invokeMethod(isStale ? &link : m_gLink.data(), &GLinkTransportTcp::close, Qt::QueuedConnection);
    return !isStale;
}

/// The INIT over TCP waited for a checksum until the unit gave up and went to the fallback. Dealt with now, it would
/// take the fallback from a unit that uses it.
bool GLinkConnection::isGivenUpForFallback(const GLinkTransportTcp& link) const
{
    return m_gFallbackLink && link.isIntroducedBefore(m_fallbackIntroduction);
}

GLinkConnection::LinkType GLinkConnection::setFallbackLink(GLinkTransportFallback* link)
{
    if (link == nullptr) {
        m_isFallbackLinkInited = false;
    }
    m_gFallbackLink = link;
    return updateActiveLink();
}

bool GLinkConnection::initChannel(GLinkTransportBase* channel)
{
    if (channel == nullptr) {
        qFatal("NULL channel init!");
    }
    const bool isTcp = channel == m_gLink;
    if (!isTcp && channel != m_gFallbackLink) {
        qDebug() << "INIT FOR UNKNOWN CHANNEL! IGNORED.";
        return false;
    }
    if (isTcp && isGivenUpForFallback(*m_gLink)) {
        QMetaObject::invokeMethod(m_gLink, &GLinkTransportTcp::close, Qt::QueuedConnection);
        return false;
    }
    m_queue.dropInitAcks();
    if (channel == m_activeLink) {
        forgetMessageInFlight();
    }
    (isTcp ? m_isGLinkInited : m_isFallbackLinkInited) = true;
    m_isFallbackClosing = isTcp && m_gFallbackLink && m_isFallbackLinkInited;
    updateActiveLink();
    if (isTcp && m_gFallbackLink) {
        GLinkTransportFallback* const fallback = m_gFallbackLink;
        const auto close = [fallback, peerId = m_peerId, introduction = m_gLink->introduction()] {
            fallback->closeForTcp(peerId, introduction);
        };
        QMetaObject::invokeMethod(fallback, close, Qt::QueuedConnection);
    }
    return true;
}

GLinkConnection::Route GLinkConnection::bestRoute() const
{
    if (m_gFallbackLink && m_isFallbackLinkInited) {
        return {FALLBACK, m_gFallbackLink, FallbackRefNrMask};
    }
    if (m_gLink && m_isGLinkInited) {
        return {TCP, m_gLink, TcpRefNrMask};
    }
    return {NONE, nullptr, 0};
}

GLinkConnection::LinkType GLinkConnection::updateActiveLink()
{
    const Route route = bestRoute();
    if (route.type != m_activeLinkType || route.link != m_activeLink) {
        takeRoute(route);
    }
    if (!isInFlight() && (route.type == TCP || isOnlyFallbackUser())) {
        sendNextMessage();
    }
    return m_activeLinkType;
}

void GLinkConnection::takeRoute(const Route& route)
{
    forgetMessageInFlight();
    if (m_activeLinkType == NONE) {
        m_disconnectTime = 0;
    } else if (route.type == NONE) {
        m_disconnectTime = QDateTime::currentMSecsSinceEpoch();
    }
    m_activeLinkType = route.type;
    m_activeLink = route.link;
    m_activeRefNrMask = route.refNrMask;
    if (route.type != FALLBACK) {
        m_isFallbackClosing = false;
        s_fallbackUser.removeAll(this);
    } else if (!s_fallbackUser.contains(this)) {
        s_fallbackUser.append(this);
    }
    if (route.type == TCP && m_isTakingBack && m_hasSentOverFallback) {
        beginTakingBack();
    }
}

void GLinkConnection::beginTakingBack()
{
    m_hasSentOverFallback = false;
    m_isAwaitingTakeBack = true;
    m_awaitingSince = GLinkClock::now();
}

void GLinkConnection::takeBack(const QByteArrayList& frames)
{
    QVector<RPGComGLinkMessage> messages;
    for (const QByteArray& frame : frames) {
        if (frame.size() >= FrameOverhead && !isReplaced(msgIdOf(frame))) {
            messages.append({msgIdOf(frame), payloadOf(frame)});
        }
    }
    if (!std::exchange(m_isAwaitingTakeBack, false)) {
        if (!messages.isEmpty()) {
            qDebug() << "GLinkConnection:" << messages.size() << "messages to RU" << m_peerId
                     << "dropped, the fallback gave them back too late.";
        }
        return;
    }
    if (!m_queue.putBack(messages)) {
        qDebug() << "GLinkConnection: message queue of RU" << m_peerId
                 << "is full, not all that the fallback gave back is kept.";
    }
    if (hasLink() && !isInFlight()) {
        sendOwnNextMessage();
    }
}

/// Nobody waits for its acknowledgement any more: the link in use changes, or an INIT has come over it. A TCP transport
/// that stays, for another unit perhaps, would refuse the next message until it is told so; the fallback never refuses
/// one.
void GLinkConnection::forgetMessageInFlight()
{
    if (m_activeLinkType == TCP && isInFlight() && m_activeLink) {
        GLinkTransportBase* const link = m_activeLink;
        QMetaObject::invokeMethod(
            link, [link, refNr = m_activeRefNr] { link->forgetMessage(refNr); }, Qt::QueuedConnection);
    }
    endMessageInFlight();
}
