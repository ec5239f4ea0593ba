#include "glinktransportbase.h"

#include "applicationmanifest.h"
#include "crc_std32.h"
#include "remoteunitcheck.h"

#include <QDebug>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <utility>

namespace {

constexpr quint8 CommandStream = 0;
constexpr quint8 DataStream = 1;
constexpr int HeartbeatSize = 4;
constexpr int LoggedIncomingBytes = 30;

/// Messages that concern more than the transport itself.
constexpr bool isPassedOn(quint8 msgId)
{
    return msgId >= GLINK_MSG_ID_INIT && msgId <= GLINK_MSG_BASE_STATUS;
}

} // namespace

GLinkTransportBase::GLinkTransportBase(quint16 localId, Configuration* config, TagDatabase* tagDatabase,
                                       QObject* parent)
    : QObject(parent)
    , m_localId(localId)
    , m_config(config)
    , m_tagDatabase(tagDatabase)
    , m_applicationsRoot(ApplicationManifest::root())
{}

GLinkTransportBase::~GLinkTransportBase() = default;

// --- Receiving ------------------------------------------------------------------------------------------------------

void GLinkTransportBase::parseStream()
{
    // A handler that delivers bytes while a message is processed only adds to what the outer loop consumes.
    if (m_isParsing) {
        return;
    }
    m_isParsing = true;
    while (!m_isParsingStopped && unconsumed() > 0 && assembleFrame()) {
    }
    m_isParsing = false;
    dropConsumed();
}

/// @return true when a frame was completed and processed, false when more bytes are needed.
bool GLinkTransportBase::assembleFrame()
{
    const bool isHeaderKnown = m_headerData.size() == GLinkFrame::HeaderSize;
    if (!fill(m_headerData, GLinkFrame::HeaderSize)) {
        return false;
    }
    if (!isHeaderKnown) {
        handleMsgHeader();
    }
    if (m_isParsingStopped || !fill(m_payloadData, m_payloadSize) || !fill(m_crcData, GLinkFrame::CrcSize)) {
        return false;
    }
    processMessage();
    return true;
}

/// Moves received bytes to `piece` until it has `size` bytes. @return whether it has.
bool GLinkTransportBase::fill(QByteArray& piece, int size)
{
    const int count = std::min(size - piece.size(), unconsumed());
    piece.append(m_incomingData.constData() + m_consumed, count);
    m_consumed += count;
    return piece.size() == size;
}

void GLinkTransportBase::dropConsumed()
{
    if (m_isParsingStopped) {
        discardIncoming();
    }
    m_incomingData.remove(0, m_consumed);
    m_consumed = 0;
}

void GLinkTransportBase::discardIncoming()
{
    m_incomingData.clear();
    m_consumed = 0;
    clearFrame();
}

void GLinkTransportBase::clearFrame()
{
    m_headerData.clear();
    m_payloadData.clear();
    m_crcData.clear();
    m_payloadSize = 0;
    m_isFrameRejected = false;
}

void GLinkTransportBase::stopParsing()
{
    m_isParsingStopped = true;
}

void GLinkTransportBase::handleMsgHeader()
{
    m_rxHeader = GLinkHeader(m_headerData);
    if (m_rxHeader.m_isCrcOk) {
        m_payloadSize = m_rxHeader.size;
        return;
    }
    qDebug() << "Header CRC error" << unconsumed();
    rejectFrame();
}

void GLinkTransportBase::processMessage()
{
    QByteArray frame = m_headerData + m_payloadData + m_crcData;
    if (!CrcStd32::checkAndRemove(frame) || m_isFrameRejected) {
        logCrcError();
        rejectFrame();
        m_incomingData.clear();
        m_consumed = 0;
    } else if (m_rxHeader.msgType == GLINK_MSG_TYPE_MSG) {
        dispatchMessage();
    } else if (m_rxHeader.msgType == GLINK_MSG_TYPE_ACK) {
        handleAck();
    }
    clearFrame();
}

void GLinkTransportBase::rejectFrame()
{
    dropConsumed(); // the transport may look at what is left, or clear it
    handleCrcError();
    m_isFrameRejected = true;
}

void GLinkTransportBase::logCrcError() const
{
    const QByteArray rest = m_incomingData.mid(m_consumed, LoggedIncomingBytes);
    qDebug() << "GLinkTransportBase::processMessage() - CRC error";
    qDebug() << "  Header:" << m_headerData.size() << "-" << m_headerData.toHex();
    qDebug() << "  Payload:" << m_payloadData.size();
    QDebug line = qDebug();
    line << "  IncomingData:" << unconsumed() << rest.toHex();
    if (unconsumed() > LoggedIncomingBytes) {
        line << "...";
    }
}

void GLinkTransportBase::dispatchMessage()
{
    switch (m_rxHeader.msgId) {
    case GLINK_MSG_ID_INIT: handleInitMsg(); break;
    case GLINK_MSG_ID_INITACK: handleInitAckMsg(); break;
    case GLINK_MSG_ID_FALLBACK_DEINIT: handleFallbackDeInit(); break;
    default: break;
    }
    // The peer's time-out runs: it gets its acknowledgement before anybody here works on the message.
    sendAck();
    if (isPassedOn(m_rxHeader.msgId)) {
        emit readyReadFromGLink(m_rxPeerId, m_rxHeader.msgId, m_payloadData, this);
    }
}

bool GLinkTransportBase::handleAck()
{
    if (m_rxHeader.msgId == GLINK_MSG_ID_HEARTBEAT) {
        return std::exchange(m_isHeartbeatSent, false);
    }
    if (m_rxHeader.msgId != m_expectedAck) {
        return false;
    }
    m_expectedAck = NoAckExpected;
    emit messageSent(m_txPeerId, m_txMsgRef, this);
    return true;
}

void GLinkTransportBase::handleFallbackDeInit() {}

// --- INIT -----------------------------------------------------------------------------------------------------------

bool GLinkTransportBase::handleInitMsg()
{
    const GLinkInitMsg init(m_payloadData);
    m_rxPeerId = init.remoteId;
    restartExchange(init.remoteId);

    return agreesWithApplication(init.checksum()) && isBuId(init.baseId) && isRuPaired(init.remoteId);
}

/// From what is known at this moment. Behind the INIT there may be a machine stop, and what is in the way of the list
/// must not be in the way of that.
bool GLinkTransportBase::agreesWithApplication(const QByteArray& checksum)
{
    if (m_orderedList.valid()) {
        if (m_orderedList.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
            return false;
        }
        m_checksumList = m_orderedList.get();
        m_orderedList = {};
    }
    QByteArray expected;
    return !ApplicationChecksums::findPublished(m_applicationsRoot, m_checksumList, expected) || expected == checksum;
}

quint64 GLinkTransportBase::nextIntroduction()
{
    static std::atomic<quint64> introductions{0};
    return ++introductions;
}

void GLinkTransportBase::restartExchange(quint16 remoteId)
{
    m_txPeerId = remoteId;
    m_expectedAck = NoAckExpected;
}

bool GLinkTransportBase::isRuPaired(quint16 ruId) const
{
    return RemoteUnitCheck::isRuPaired(m_config, ruId);
}

bool GLinkTransportBase::isBuId(quint16 id) const
{
    return RemoteUnitCheck::isBuId(m_tagDatabase, id);
}

bool GLinkTransportBase::getAppChecksum(QByteArray& result)
{
    if (m_orderedList.valid()) {
        m_checksumList = ApplicationChecksums::waitFor(m_orderedList);
        m_orderedList = {};
    }
    return ApplicationChecksums::find(m_applicationsRoot, m_checksumList, result);
}

void GLinkTransportBase::requestChecksumList()
{
    m_orderedList = ApplicationChecksums::request(m_applicationsRoot);
}

void GLinkTransportBase::populateChecksumList()
{
    m_checksumList = ApplicationChecksums::waitFor(ApplicationChecksums::request(m_applicationsRoot));
}

// --- Sending --------------------------------------------------------------------------------------------------------

void GLinkTransportBase::addHeader(QByteArray& payload, quint8 msgId)
{
    GLinkHeader header;
    header.size = static_cast<quint16>(payload.size());
    header.stream = msgId == GLINK_MSG_ID_CMD ? CommandStream : DataStream;
    header.msgId = msgId;
    header.msgType = GLINK_MSG_TYPE_MSG;
    header.time = GLinkHeader::timeStamp();
    header.m_isCrcOk = true;
    payload.prepend(header.serialize());
}

bool GLinkTransportBase::send_(quint16 remoteId, quint8 msgId, const QByteArray& message, quint32 refNr)
{
    Q_UNUSED(remoteId)
    if (m_expectedAck < NoAckExpected) {
        return false;
    }
    m_txMsgRef = refNr;
    if (message.size() > GLinkFrame::MaxPayloadSize) {
        qDebug() << "SENDING FAILED!";
        emit messageSent(m_txPeerId, m_txMsgRef, this);
        return false;
    }
    QByteArray frame = message;
    addHeader(frame, msgId);
    if (!sendMsg(frame)) {
        qDebug() << "SENDING FAILED!";
        return false;
    }
    m_expectedAck = msgId;
    return true;
}

void GLinkTransportBase::forgetMessage(quint32 refNr)
{
    if (m_expectedAck != NoAckExpected && m_txMsgRef == refNr) {
        restartExchange(m_txPeerId);
    }
}

bool GLinkTransportBase::sendMsg(QByteArray& frame)
{
    CrcStd32::add(frame);
    return true;
}

void GLinkTransportBase::sendAck()
{
    QByteArray frame = GLinkAck(m_rxHeader).serialize();
    m_isSendingAck = true;
    sendMsg(frame);
    m_isSendingAck = false;
}

void GLinkTransportBase::sendHeartbeat()
{
    if (m_isHeartbeatSent) {
        return;
    }
    QByteArray frame(HeartbeatSize, '\0');
    addHeader(frame, GLINK_MSG_ID_HEARTBEAT);
    m_isHeartbeatSent = true;
    sendMsg(frame);
}
