#include "gfallback_service_c.h"

#include "system_event_service.h"
#include "utillityfunctions.h"

#include <QDebug>

#include <utility>

namespace {

// | remote id 2 | remaining length 2 | data |
constexpr int RemoteIdSize = 2;
constexpr int RemainingLengthSize = 2;
constexpr int BlockHeaderSize = RemoteIdSize + RemainingLengthSize;
constexpr int MaxBlockDataSize = 250;
static_assert(BlockHeaderSize == 4, "the base controller expects the data at offset 4");

constexpr int DataAckSize = 1;
constexpr int FlowControlSize = RemoteIdSize;

/// The type byte alone decides: whether the frame around it is whole is the remote unit's to judge.
bool isAcknowledgement(const QByteArray& frame)
{
    return frame.size() > GLinkFrame::MsgTypeOffset &&
           static_cast<quint8>(frame.at(GLinkFrame::MsgTypeOffset)) == GLINK_MSG_TYPE_ACK;
}

} // namespace

GfallbackServiceC::GfallbackServiceC(QObject* parent, serviceId_T id)
    : ServiceBase(parent, static_cast<signed char>(id))
{}

GfallbackServiceC::LinkStatus GfallbackServiceC::linkStatus(unsigned short remoteId) const
{
    return m_linkState.value(remoteId).linkStatus;
}

// ---------------------------------------------------------------- from the base controller

void GfallbackServiceC::readData(QByteArray data, Link fromLink, quint8 messageClass)
{
    if (fromLink != Internal) {
        qFatal("Unexpected fromLink: not Internal!");
    }
    if (messageClass != MSG_CLASS_TRANSP_ACK) {
        qFatal("Unexpected messageClass: not MSG_CLASS_TRANSP_ACK!");
    }
    QMetaObject::invokeMethod(
        this, [this, data] { readData_(data); }, Qt::QueuedConnection);
}

void GfallbackServiceC::readData_(QByteArray data)
{
    switch (data.size()) {
    case 0: qDebug() << "Empty data!"; break;
    case DataAckSize: receiveDataAck(toUint8(data)); break;
    case FlowControlSize:
        sendNext(toUint16(data, false));
        letNextTakeItsPlace(toUint16(data, false));
        break;
    default: receiveBlock(data); break;
    }
}

void GfallbackServiceC::receiveDataAck(quint8 reply)
{
    switch (reply) {
    case REJECTED: emit linkFailed(); break;
    case ACCEPTED: break;
    default: qDebug() << "Unknown one-byte ack received:" << reply; break;
    }
}

/// A waiting acknowledgement overtakes a waiting message, but never the rest of a message under way: the remote unit
/// would take its bytes for the message's.
void GfallbackServiceC::sendNext(unsigned short remoteId)
{
    LinkState& state = m_linkState[remoteId];
    if (!state.ack.isEmpty() && state.linkStatus != BUSY_MSG) {
        state.linkStatus = BUSY_ACK;
        sendDataBlock(remoteId, state.ack);
    } else if (state.txData.isEmpty()) {
        state.linkStatus = FREE;
    } else {
        state.linkStatus = BUSY_MSG;
        sendMessageBlock(remoteId, state);
    }
}

void GfallbackServiceC::receiveBlock(const QByteArray& block)
{
    const quint16 remoteId = toUint16(block, false);
    const QByteArray lengthField = block.mid(RemoteIdSize, RemainingLengthSize);
    const int remaining =
        lengthField.size() == RemainingLengthSize ? toUint16(lengthField, false) : toUnsignedChar(lengthField);

    if (m_rxId != remoteId) {
        m_rxData.clear();
        m_rxId = remoteId;
    }
    m_rxData.append(block.mid(BlockHeaderSize, remaining));
    if (m_rxData.size() > MaxRxMessageSize) {
        qDebug() << "GfallbackServiceC: endless message of remote unit" << m_rxId << "discarded.";
        m_rxData.clear();
    } else if (block.size() - BlockHeaderSize == remaining) {
        const QByteArray message = m_rxData;
        m_rxData.clear();
        emit fallbackRx(m_rxId, message);
    } else {
        qDebug() << "GfallbackServiceC::readData_()" << block.size() << m_rxData.size() << m_rxId;
    }
}

// ---------------------------------------------------------------- to the base controller

void GfallbackServiceC::fallbackTx(unsigned short remoteId, const QByteArray& data)
{
    take(remoteId, {data, GLinkClock::now()});
}

void GfallbackServiceC::take(unsigned short remoteId, const Waiting& message)
{
    const QByteArray& data = message.data;
    if (data.isEmpty()) {
        return; // no block would go out, so nothing would ever free the channel again
    }
    if (data.size() > MaxTxMessageSize) {
        qDebug() << "GfallbackServiceC: message to remote unit" << remoteId << "of" << data.size()
                 << "bytes is too long, dropped.";
        return;
    }
    LinkState& state = m_linkState[remoteId];
    const bool isAck = isAcknowledgement(data);
    if (state.linkStatus != FREE) {
        keepForLater(state, message, isAck);
        return;
    }
    state.linkStatus = isAck ? BUSY_ACK : BUSY_MSG;
    state.txData = state.message = data;
    state.messageSince = message.since;
    qDebug() << "remoteId" << remoteId << "Length" << data.size() << "status" << state.linkStatus;
    sendMessageBlock(remoteId, state);
}

void GfallbackServiceC::fallbackTxInTurn(unsigned short remoteId, const QByteArray& data)
{
    if (!m_isLinkUp) {
        tellOfNoLink();
        return;
    }
    QQueue<Waiting>& waiting = m_waiting[remoteId];
    const bool isPlaceFree = waiting.isEmpty() && m_linkState.value(remoteId).txData.isEmpty();
    if (isPlaceFree || isAcknowledgement(data) || waiting.size() >= MaxWaitingMessages) {
        fallbackTx(remoteId, data);
    } else {
        waiting.enqueue({data, GLinkClock::now()});
    }
}

void GfallbackServiceC::letNextTakeItsPlace(unsigned short remoteId)
{
    const auto waiting = m_waiting.find(remoteId);
    while (waiting != m_waiting.end() && !waiting->isEmpty() && m_linkState.value(remoteId).txData.isEmpty()) {
        take(remoteId, waiting->dequeue());
    }
}

void GfallbackServiceC::keepForLater(LinkState& state, const Waiting& message, bool isAck)
{
    QByteArray& place = isAck ? state.ack : state.txData;
    if (!place.isEmpty()) {
        qDebug() << (isAck ? "Link BUSY, ACK LOST!" : "Link BUSY, Tx message LOST!");
        return;
    }
    place = message.data;
    if (!isAck) {
        state.message = message.data;
        state.messageSince = message.since;
    }
    qDebug() << (isAck ? "Link BUSY, ack queued." : "Link BUSY, Tx message queued.");
}

void GfallbackServiceC::sendMessageBlock(unsigned short remoteId, LinkState& state)
{
    sendDataBlock(remoteId, state.txData);
    if (!state.txData.isEmpty()) {
        return;
    }
    state.message.clear();
    if (state.linkStatus == BUSY_MSG) {
        state.linkStatus = BUSY_MSG_LAST_BLOCK;
    }
}

void GfallbackServiceC::sendDataBlock(unsigned short remoteId, QByteArray& data)
{
    if (data.isEmpty()) {
        return;
    }
    QByteArray block;
    block.reserve(BlockHeaderSize + MaxBlockDataSize);
    appendUint16(block, remoteId);
    appendUint16(block, static_cast<unsigned short>(data.size()));
    block.append(data.constData(), qMin(data.size(), MaxBlockDataSize));
    data.remove(0, MaxBlockDataSize);
    emit readyReadFromService(block, Internal, serviceId, MSG_CLASS_TRANSP_ACK);
}

void GfallbackServiceC::reset(unsigned short remoteId)
{
    m_waiting.remove(remoteId);
    const auto state = m_linkState.find(remoteId);
    if (state != m_linkState.end()) {
        *state = LinkState();
    }
}

// ---------------------------------------------------------------- what is not to be sent any more

void GfallbackServiceC::withdraw(unsigned short remoteId)
{
    QQueue<Waiting> withdrawn = m_waiting.take(remoteId);
    const auto state = m_linkState.find(remoteId);
    if (state != m_linkState.end()) {
        if (!state->txData.isEmpty()) {
            withdrawn.prepend({state->message, state->messageSince});
        }
        state->txData.clear();
        state->message.clear();
        state->ack.clear();
        state->linkStatus = state->linkStatus == BUSY_MSG ? BUSY_MSG_LAST_BLOCK : state->linkStatus;
    }
    QByteArrayList messages;
    for (const Waiting& message : qAsConst(withdrawn)) {
        if (isWorthGivingBack(message.since)) {
            messages.append(message.data);
        }
    }
    if (messages.size() != withdrawn.size()) {
        qDebug() << "GfallbackServiceC:" << withdrawn.size() - messages.size() << "messages to remote unit" << remoteId
                 << "dropped, it is back on TCP.";
    }
    emit givenBack(remoteId, messages);
}

bool GfallbackServiceC::isWorthGivingBack(GLinkClock::TimePoint since)
{
    return GLinkClock::now() - since <= WorthGivingBack;
}

void GfallbackServiceC::followLinkState(quint8 state)
{
    const bool isUp = state == SystemEventService::RUN;
    if (!isUp || !m_isLinkUp) {
        m_waiting.clear();
        m_rxData.clear();
        for (LinkState& channel : m_linkState) {
            channel = LinkState();
        }
    }
    m_isLinkUp = isUp;
    m_toldOfNoLink = false;
}

void GfallbackServiceC::tellOfNoLink()
{
    if (!std::exchange(m_toldOfNoLink, true)) {
        qDebug() << "GfallbackServiceC: no internal link, messages to remote units are dropped.";
    }
}
