#include "glinkconnection.h"

#include "glinkheader.h"
#include "glinktransportfallback.h"
#include "glinktransporttcp.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDebug>
#include <QThread>

namespace {

/// Deletes a link behind all that it has told and will tell the main thread, which names it: closes it in its own
/// thread, where it says its last, and schedules its deletion when the main thread has heard that.
void deleteWhenHeard(GLinkTransportTcp* link)
{
    const auto close = [link] {
        link->close();
        const auto scheduleDeletion = [guard = QPointer<GLinkTransportTcp>(link)] {
            if (guard) {
                guard->deleteLater();
            }
        };
        QMetaObject::invokeMethod(QCoreApplication::instance(), scheduleDeletion, Qt::QueuedConnection);
    };
    QMetaObject::invokeMethod(link, close, Qt::QueuedConnection);
}

} // namespace

QVector<GLinkConnection*> GLinkConnection::s_fallbackUser;

GLinkConnection::GLinkConnection(quint16 peerId, GLinkTransportTcp* gLink, GLinkTransportFallback* fallbackLink,
                                 AppLog* log, QObject* parent)
    : QObject(parent)
    , m_peerId(peerId)
    , m_gLink(gLink)
    , m_gFallbackLink(fallbackLink)
    , m_log(log)
{}

GLinkConnection::GLinkConnection(quint16 peerId, GLinkTransportTcp* gLink, AppLog* log, QObject* parent)
    : GLinkConnection(peerId, nullptr, nullptr, log, parent)
{
    setGLink(gLink);
}

GLinkConnection::GLinkConnection(quint16 peerId, GLinkTransportFallback* fallbackLink, AppLog* log, QObject* parent)
    : GLinkConnection(peerId, nullptr, nullptr, log, parent)
{
    setFallbackLink(fallbackLink);
}

GLinkConnection::~GLinkConnection()
{
    s_fallbackUser.removeAll(this);
    if (m_gLink && m_gLink->isFreedWithItsThread()) {
        QMetaObject::invokeMethod(m_gLink, &GLinkTransportTcp::close, Qt::QueuedConnection);
    } else if (m_gLink && m_gLink->thread() != thread()) {
        deleteWhenHeard(m_gLink);
    } else if (m_gLink) {
        m_gLink->deleteLater();
    }
}

GLinkTransportTcp* GLinkConnection::gLink() const
{
    return m_gLink;
}

// --- Messages -------------------------------------------------------------------------------------------------------

void GLinkConnection::enqueueMessage(quint8 msgId, const QByteArray& data, bool prepend)
{
    if (isOverdue()) {
        giveUpMessageInFlight();
    }
    if (!hasLink()) {
        dropWithoutLink(msgId);
    } else if (isInFlight() || mustWaitForTcp(msgId)) {
        queueMessage(msgId, data, prepend);
    } else if (m_queue.isEmpty() || (prepend && GLinkMessageQueue::isPrependable(msgId))) {
        sendMessage(msgId, data);
    } else {
        sendBehindOthers(msgId, data);
    }
}

/// On the fallback another unit may have had the turn while messages of this one waited. They go first.
void GLinkConnection::sendBehindOthers(quint8 msgId, const QByteArray& data)
{
    queueMessage(msgId, data, false);
    sendOwnNextMessage();
}

void GLinkConnection::dropWithoutLink(quint8 msgId)
{
    if (m_queue.hasCommand()) {
        qDebug() << "No connection: clearing command message queue." << msgId;
        m_queue.clearCommands();
    }
    if (m_queue.hasOther()) {
        if (msgId != GLINK_MSG_BASE_STATUS) {
            qDebug() << "No connection: clearing non-command message queue." << msgId;
        }
        m_queue.clearOthers();
    }
}

/// The fallback is being closed, and would carry the answer to the INIT over TCP to a unit that has left it.
bool GLinkConnection::mustWaitForTcp(quint8 msgId) const
{
    return m_isFallbackClosing && (msgId == GLINK_MSG_ID_INITACK || m_queue.hasInitAck());
}

void GLinkConnection::queueMessage(quint8 msgId, const QByteArray& data, bool prepend)
{
    if (m_isSilent && msgId == GLINK_MSG_BASE_STATUS) {
        m_queue.dropBaseStatus(); // a unit that hears again after a while wants to know what is the case now
    }
    switch (m_queue.push(msgId, data, prepend)) {
    case GLinkMessageQueue::Outcome::Queued: break;
    case GLinkMessageQueue::Outcome::OldestDropped:
        if (m_droppedLine.permits()) {
            qDebug() << "GLinkConnection: message queue of RU" << m_peerId << "is full, oldest message dropped.";
        }
        break;
    case GLinkMessageQueue::Outcome::CommandRefused:
        if (m_refusedLine.permits()) {
            qDebug() << "GLinkConnection: command queue of RU" << m_peerId << "is full, command refused.";
        }
        break;
    }
}

quint32 GLinkConnection::updateRefNr()
{
    m_activeRefNr = m_nextRefNr;
    m_nextRefNr = m_nextRefNr < MaxRefNr ? m_nextRefNr + 1 : 1;
    if (m_activeLinkType == NONE) {
        qWarning() << "GLinkConnection::updateRefNr() CALLED WITHOUT ACTIVE LINK!";
    }
    m_activeRefNr |= m_activeRefNrMask;
    return m_activeRefNr;
}

void GLinkConnection::sendMessage(quint8 msgId, const QByteArray& data)
{
    GLinkTransportBase* const link = m_activeLink;
    if (link == nullptr) {
        return;
    }
    if (!isInFlight()) {
        m_unacknowledgedSince = GLinkClock::now();
    }
    m_msgIdInFlight = msgId;
    const quint32 refNr = updateRefNr();
    const auto send = [link, peerId = m_peerId, msgId, data, refNr] {
        link->send(peerId, msgId, data, refNr);
    };
    QMetaObject::invokeMethod(link, send, Qt::QueuedConnection);
}

void GLinkConnection::messageSent(quint32 refNr)
{
    if (isInFlight() && refNr == m_activeRefNr) {
        endMessageInFlight();
        sendNextMessage();
    } else if ((refNr & m_activeRefNrMask) == 0) {
        // Of a link that is no longer in use. If it was the fallback, that one is free for the others now.
        if ((refNr & FallbackRefNrMask) != 0) {
            continueFallback();
        }
    } else if (isInFlight()) {
        qDebug() << "Reference number mismatch in slot messageSent(): expected" << m_activeRefNr << ","
                 << "got" << refNr;
    } else {
        qDebug() << "Slot messageSent() called with refNr" << refNr
                 << ", but this->m_activeRefNr == REF_NR_INACTIVE! IGNORED.";
    }
}

void GLinkConnection::acknowledged(quint8 msgId)
{
    if (m_activeLinkType != FALLBACK) {
        return;
    }
    m_isSilent = false;
    if (isInFlight() && msgId == m_msgIdInFlight) {
        endMessageInFlight();
        sendOwnNextMessage();
    }
}

void GLinkConnection::endMessageInFlight()
{
    m_activeRefNr = REF_NR_INACTIVE;
    m_isSilent = false;
}

// --- Silence on the fallback ----------------------------------------------------------------------------------------

bool GLinkConnection::isOverdue() const
{
    return m_activeLinkType == FALLBACK && isInFlight() &&
           GLinkClock::now() - m_unacknowledgedSince > PatienceOnFallback;
}

void GLinkConnection::giveUpMessageInFlight()
{
    if (m_givenUpLine.permits()) {
        qDebug().noquote() << QStringLiteral("GLinkConnection: message to RU %1 given up, not acknowledged over the "
                                             "fallback.")
                                  .arg(m_peerId);
    }
    m_activeRefNr = REF_NR_INACTIVE;
    m_isSilent = true;
    passTurnOn();
}

/// To all others that have nothing in flight and yet wait: their turn was this unit's to give.
void GLinkConnection::passTurnOn()
{
    const QVector<GLinkConnection*> users = s_fallbackUser;
    for (GLinkConnection* const user : users) {
        if (user != this && !user->isInFlight()) {
            user->sendOwnNextMessage();
        }
    }
}

/// A silent unit would not give back what it is given.
bool GLinkConnection::mayTakeTurn() const
{
    return !isInFlight() || (!m_isSilent && !isOverdue());
}

// --- Turns ----------------------------------------------------------------------------------------------------------

GLinkConnection* GLinkConnection::getNextMessage(RPGComGLinkMessage& out)
{
    return m_queue.takeNext(out) ? this : nullptr;
}

GLinkConnection* GLinkConnection::getNextFallbackMessage(RPGComGLinkMessage& out)
{
    int startIndex = s_fallbackUser.indexOf(this) + 1;
    if (startIndex == 0) {
        logInvalidIndex();
        startIndex = 1;
    }
    return takeFromFallbackUsers(startIndex, out);
}

GLinkConnection* GLinkConnection::takeFromFallbackUsers(int startIndex, RPGComGLinkMessage& out)
{
    const int count = s_fallbackUser.size();
    const int first = startIndex < count ? startIndex : 0;
    for (const bool isAnyKind : {false, true}) {
        for (int i = 0; i < count; ++i) {
            GLinkConnection* const user = s_fallbackUser.at((first + i) % count);
            const bool hasMessage = user->m_queue.hasCommand() || (isAnyKind && user->m_queue.hasOther());
            if (hasMessage && user->mayTakeTurn()) {
                return user->getNextMessage(out);
            }
        }
    }
    return nullptr;
}

void GLinkConnection::logInvalidIndex() const
{
    qDebug() << "GLinkConnection::getNextFallbackMessage: Invalid index, resetting...";
    qDebug() << "GLinkConnection::getNextFallbackMessage: Searched for index of" << m_peerId;
    qDebug() << "GLinkConnection::getNextFallbackMessage:  Fallback user count" << s_fallbackUser.size();
    qDebug() << "GLinkConnection::getNextFallbackMessage:  Fallback user list:";
    for (const GLinkConnection* user : qAsConst(s_fallbackUser)) {
        qDebug() << "GLinkConnection::getNextFallbackMessage: " << user->m_peerId;
    }
    qDebug() << "GLinkConnection::getNextFallbackMessage:  End of fallback user list.";
}

void GLinkConnection::sendNextMessage()
{
    if (m_isFallbackClosing) {
        return; // what waits goes out over TCP in a moment
    }
    RPGComGLinkMessage message;
    GLinkConnection* const sender = m_gLink ? getNextMessage(message) : getNextFallbackMessage(message);
    if (sender != nullptr) {
        sender->sendMessage(message.msgId, message.data);
    }
}

void GLinkConnection::sendOwnNextMessage()
{
    RPGComGLinkMessage message;
    if (!m_isFallbackClosing && m_queue.takeNext(message)) {
        sendMessage(message.msgId, message.data);
    }
}

void GLinkConnection::continueFallback()
{
    RPGComGLinkMessage message;
    GLinkConnection* const sender = takeFromFallbackUsers(0, message);
    if (sender != nullptr) {
        sender->sendMessage(message.msgId, message.data);
    }
}

bool GLinkConnection::isOnlyFallbackUser() const
{
    return s_fallbackUser.size() == 1 && s_fallbackUser.first() == this;
}

// --- Links ----------------------------------------------------------------------------------------------------------

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
        QMetaObject::invokeMethod(
            fallback, [fallback, peerId = m_peerId] { fallback->close(peerId); }, Qt::QueuedConnection);
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
