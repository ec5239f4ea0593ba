#include "glinkmessagequeue.h"

#include "glinkheader.h"

#include <algorithm>

namespace {

bool isInitAck(const RPGComGLinkMessage& message)
{
    return message.msgId == GLINK_MSG_ID_INITACK;
}

} // namespace

bool GLinkMessageQueue::isPrependable(quint8 msgId)
{
    return msgId != GLINK_MSG_ID_CMD && msgId != GLINK_MSG_ID_PERIODIC_DATA;
}

GLinkMessageQueue::Outcome GLinkMessageQueue::push(quint8 msgId, const QByteArray& data, bool prepend)
{
    switch (msgId) {
    case GLINK_MSG_ID_CMD: return pushCommand(data);
    case GLINK_MSG_ID_PERIODIC_DATA: return pushPeriodicData(data);
    default: return pushOther(msgId, data, prepend);
    }
}

GLinkMessageQueue::Outcome GLinkMessageQueue::pushCommand(const QByteArray& data)
{
    if (m_cmdMessageQueue.size() >= Capacity) {
        return Outcome::CommandRefused;
    }
    m_cmdMessageQueue.enqueue({GLINK_MSG_ID_CMD, data});
    return Outcome::Queued;
}

GLinkMessageQueue::Outcome GLinkMessageQueue::pushPeriodicData(const QByteArray& data)
{
    Outcome outcome = Outcome::Queued;
    if (!m_isPeriodicDataPending) {
        outcome = pushOther(GLINK_MSG_ID_PERIODIC_DATA, QByteArray(), false);
        m_isPeriodicDataPending = true;
    }
    m_periodicData = data;
    return outcome;
}

GLinkMessageQueue::Outcome GLinkMessageQueue::pushOther(quint8 msgId, const QByteArray& data, bool prepend)
{
    const bool isDropped = makeRoom();
    if (prepend) {
        m_nonCmdMessageQueue.prepend({msgId, data});
    } else {
        m_nonCmdMessageQueue.enqueue({msgId, data});
    }
    return isDropped ? Outcome::OldestDropped : Outcome::Queued;
}

/// Drops the oldest message that is not a command, when there is no room for one more. The answer to INIT goes last of
/// all: the unit could do nothing with the others before it has that.
bool GLinkMessageQueue::makeRoom()
{
    if (m_nonCmdMessageQueue.size() < Capacity) {
        return false;
    }
    auto oldest = std::find_if_not(m_nonCmdMessageQueue.begin(), m_nonCmdMessageQueue.end(), isInitAck);
    if (oldest == m_nonCmdMessageQueue.end()) {
        oldest = m_nonCmdMessageQueue.begin();
    }
    if (oldest->msgId == GLINK_MSG_ID_PERIODIC_DATA) {
        m_periodicData.clear();
        m_isPeriodicDataPending = false;
    }
    m_nonCmdMessageQueue.erase(oldest);
    return true;
}

bool GLinkMessageQueue::putBack(const QVector<RPGComGLinkMessage>& messages)
{
    const auto firstBehindAnswer =
        std::find_if_not(m_nonCmdMessageQueue.begin(), m_nonCmdMessageQueue.end(), isInitAck);
    const auto others = static_cast<int>(firstBehindAnswer - m_nonCmdMessageQueue.begin());
    for (auto message = messages.crbegin(); message != messages.crend(); ++message) {
        QQueue<RPGComGLinkMessage>& queue =
            message->msgId == GLINK_MSG_ID_CMD ? m_cmdMessageQueue : m_nonCmdMessageQueue;
        if (queue.size() >= Capacity) {
            return false;
        }
        queue.insert(&queue == &m_cmdMessageQueue ? 0 : others, *message);
    }
    return true;
}

bool GLinkMessageQueue::takeNext(RPGComGLinkMessage& out)
{
    if (hasCommand()) {
        out = m_cmdMessageQueue.dequeue();
        return true;
    }
    if (!hasOther()) {
        return false;
    }
    out = m_nonCmdMessageQueue.dequeue();
    if (out.msgId == GLINK_MSG_ID_PERIODIC_DATA) {
        out.data = m_periodicData;
        m_periodicData.clear();
        m_isPeriodicDataPending = false;
    }
    return true;
}

bool GLinkMessageQueue::hasInitAck() const
{
    return std::any_of(m_nonCmdMessageQueue.begin(), m_nonCmdMessageQueue.end(), isInitAck);
}

void GLinkMessageQueue::clearOthers()
{
    m_nonCmdMessageQueue.clear();
    m_periodicData.clear();
    m_isPeriodicDataPending = false;
}

void GLinkMessageQueue::dropBaseStatus()
{
    dropOthers(GLINK_MSG_BASE_STATUS);
}

void GLinkMessageQueue::dropInitAcks()
{
    dropOthers(GLINK_MSG_ID_INITACK);
}

void GLinkMessageQueue::dropOthers(quint8 msgId)
{
    const auto hasId = [msgId](const RPGComGLinkMessage& message) {
        return message.msgId == msgId;
    };
    const auto end = std::remove_if(m_nonCmdMessageQueue.begin(), m_nonCmdMessageQueue.end(), hasId);
    m_nonCmdMessageQueue.erase(end, m_nonCmdMessageQueue.end());
}
