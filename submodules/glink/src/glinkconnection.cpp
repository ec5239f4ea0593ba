#include "glinkconnection.h"

#include "glinkheader.h"
#include "glinktransportfallback.h"
#include "glinktransporttcp.h"

#include <QCoreApplication>
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
    if (m_isAwaitingTakeBack && GLinkClock::now() - m_awaitingSince > PatienceOnFallback) {
        m_isAwaitingTakeBack = false;
    }
    if (!hasLink()) {
        dropWithoutLink(msgId);
    } else if (isInFlight() || m_isAwaitingTakeBack || mustWaitForTcp(msgId)) {
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
    m_hasSentOverFallback = m_hasSentOverFallback || m_activeLinkType == FALLBACK;
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
