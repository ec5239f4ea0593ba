#pragma once

#include <QByteArray>
#include <QQueue>

/// One message that waits for its turn.
struct RPGComGLinkMessage
{
    quint8 msgId = 0;
    QByteArray data;
};

/// The messages of one remote unit that wait until the one in flight is acknowledged: commands first, each kind in its
/// order. A value without I/O.
///
/// Periodic data waits at most once: newer values replace those that wait, at their place in the queue.
///
/// Bounded, because over the fallback path an acknowledgement may stay out for ever.
class GLinkMessageQueue
{
public:
    /// Messages kept of each kind. At two messages of base status a second the others fill up in two minutes.
    static constexpr int Capacity = 256;

    enum class Outcome {
        Queued,
        OldestDropped,  ///< queued, in place of the oldest message that is not a command
        CommandRefused, ///< not queued: an operator's command is not dropped for a later one
    };

    /// Commands and periodic data stay behind what waits, whatever the caller wishes.
    static bool isPrependable(quint8 msgId);

    /// @param prepend  put the message before all others of its kind, if it is prependable.
    Outcome push(quint8 msgId, const QByteArray& data, bool prepend);

    /// Takes the next message. @return false, `out` untouched, when there is none.
    bool takeNext(RPGComGLinkMessage& out);

    bool isEmpty() const { return !hasCommand() && !hasOther(); }
    bool hasCommand() const { return !m_cmdMessageQueue.isEmpty(); }
    bool hasOther() const { return !m_nonCmdMessageQueue.isEmpty(); }
    bool hasInitAck() const;
    int commandCount() const { return m_cmdMessageQueue.size(); }
    int otherCount() const { return m_nonCmdMessageQueue.size(); }

    void clearCommands() { m_cmdMessageQueue.clear(); }
    void clearOthers();
    /// Drops base status that waits, because newer follows.
    void dropBaseStatus();
    /// Drops answers to an earlier INIT.
    void dropInitAcks();

private:
    Outcome pushCommand(const QByteArray& data);
    Outcome pushPeriodicData(const QByteArray& data);
    Outcome pushOther(quint8 msgId, const QByteArray& data, bool prepend);
    bool makeRoom();
    void dropOthers(quint8 msgId);

    QQueue<RPGComGLinkMessage> m_cmdMessageQueue;
    QQueue<RPGComGLinkMessage> m_nonCmdMessageQueue;
    QByteArray m_periodicData; ///< newest periodic data, of the entry in m_nonCmdMessageQueue
    bool m_isPeriodicDataPending = false;
};
