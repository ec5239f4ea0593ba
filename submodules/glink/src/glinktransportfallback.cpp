#include "glinktransportfallback.h"

#include <QDebug>

GLinkTransportFallback::GLinkTransportFallback(Configuration* config, TagDatabase* tagDatabase, QObject* parent)
    : GLinkTransportBase(0, config, tagDatabase, parent)
{}

void GLinkTransportFallback::run() {}

void GLinkTransportFallback::sendHeartbeat() {}

// --- Receiving ------------------------------------------------------------------------------------------------------

void GLinkTransportFallback::dataFromServiceLayer(quint16 remoteId, const QByteArray& data)
{
    if (m_incomingPeerId != remoteId) {
        discardIncoming();
    }
    m_incomingPeerId = remoteId;
    m_rxPeerId = remoteId;
    m_incomingData.append(data);
    parseStream();
}

bool GLinkTransportFallback::handleInitMsg()
{
    const quint64 introduction = nextIntroduction();
    const bool isAcceptable = GLinkTransportBase::handleInitMsg();
    m_introductions.insert(m_rxPeerId, introduction);
    emit newConnection(m_rxPeerId);
    emit introduced(m_rxPeerId, introduction);
    return isAcceptable;
}

void GLinkTransportFallback::restartExchange(quint16 remoteId)
{
    const quint16 peerInFlight = m_txPeerId;
    const bool isOtherUnitWaiting = m_expectedAck != NoAckExpected && peerInFlight != remoteId;
    GLinkTransportBase::restartExchange(remoteId);
    if (isOtherUnitWaiting) {
        emit messageSent(peerInFlight, m_txMsgRef, this);
    }
}

bool GLinkTransportFallback::handleAck()
{
    emit acknowledged(m_rxPeerId, m_rxHeader.msgId);
    return GLinkTransportBase::handleAck();
}

void GLinkTransportFallback::handleInitAckMsg() {}

void GLinkTransportFallback::handleFallbackDeInit()
{
    releaseUnit();
}

void GLinkTransportFallback::handleCrcError()
{
    if (!isFrameRejected()) {
        closeUnitOfLastSend();
    }
}

// --- Sending --------------------------------------------------------------------------------------------------------

void GLinkTransportFallback::send(quint16 remoteId, quint8 msgId, const QByteArray& message, quint32 refNr)
{
    m_expectedAck = NoAckExpected;
    m_txPeerId = remoteId;
    if (!send_(remoteId, msgId, message, refNr)) {
        qDebug() << "GLinkTransportFallback::send_() failed" << remoteId << "msgId:" << msgId << "refNr:" << refNr
                 << "size:" << message.size();
        emit acknowledged(remoteId, msgId);
    }
}

bool GLinkTransportFallback::sendMsg(QByteArray& frame)
{
    GLinkTransportBase::sendMsg(frame);
    emit dataToServiceLayer(frameReceiver(), frame);
    return true;
}

// --- End of a unit's link -------------------------------------------------------------------------------------------

void GLinkTransportFallback::close(quint16 remoteId)
{
    if (m_incomingPeerId == remoteId) {
        discardIncoming(); // should the unit come back, it starts with a whole INIT
    }
    m_rxPeerId = remoteId;
    releaseUnit();
}

void GLinkTransportFallback::closeForTcp(quint16 remoteId, quint64 introduction)
{
    if (introduction == 0 || introduction > m_introductions.value(remoteId)) {
        close(remoteId);
    }
}

void GLinkTransportFallback::withdraw(quint16 remoteId)
{
    emit withdrawn(remoteId);
}

void GLinkTransportFallback::releaseUnit()
{
    emit closedConnection(m_rxPeerId);
    if (m_rxPeerId == m_txPeerId) {
        m_expectedAck = NoAckExpected;
        emit messageSent(m_txPeerId, m_txMsgRef, this);
    }
}

void GLinkTransportFallback::linkDown()
{
    closeUnitOfLastSend();
}

void GLinkTransportFallback::closeUnitOfLastSend()
{
    m_expectedAck = NoAckExpected;
    emit closedConnection(m_txPeerId);
}
