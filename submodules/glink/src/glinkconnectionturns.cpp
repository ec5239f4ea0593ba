// How the units on the fallback share it: a silent one gives up its messages, and the others take turns.
#include "glinkconnection.h"

#include "glinktransportfallback.h"
#include "glinktransporttcp.h"

#include <QDebug>

QVector<GLinkConnection*> GLinkConnection::s_fallbackUser;

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

/// A silent unit would not give back what it is given, and one that awaits older messages would not send it.
bool GLinkConnection::mayTakeTurn() const
{
    return !m_isAwaitingTakeBack && (!isInFlight() || (!m_isSilent && !isOverdue()));
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
    if (isHeldBack()) {
        return;
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
    if (!isHeldBack() && m_queue.takeNext(message)) {
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
