#pragma once

#include <QByteArray>
#include <QQueue>
#include <QVector>

/// One message that waits for its turn. Copies share the bytes.
struct RPGComGLinkMessage
{
    quint8 msgId = 0; ///< a GLinkMsgId
    QByteArray data;  ///< the payload, without header and CRCs
};

/// The messages of one remote unit that wait until the one in flight is acknowledged: commands first, each kind in its
/// order. A value without I/O.
///
/// Periodic data waits at most once: newer values replace those that wait, at their place in the queue.
///
/// | message       | goes out                                        | when `Capacity` of its kind wait already   |
/// |---------------|-------------------------------------------------|--------------------------------------------|
/// | CMD           | ahead of all others                             | is refused                                 |
/// | PERIODIC_DATA | where the first of the values that wait came in | the oldest that is no command goes for it  |
/// | every other   | behind what waits, or ahead of it if prepended  | the same                                   |
///
/// Of those that are no commands the answer to INIT goes last: without it the unit has no use for the rest.
///
/// Bounded, because over the fallback path an acknowledgement may stay out for ever. The bound counts messages; how
/// long they may be is the business of the transports, which drop what does not fit into a frame.
///
/// Each GLinkConnection has one, and logs what is dropped or refused: nothing here writes a line. Used by one thread.
class GLinkMessageQueue
{
public:
    /// Messages kept of each kind. At two messages of base status a second the others fill up in two minutes.
    static constexpr int Capacity = 256;

    /// What became of a message that was to be queued.
    enum class Outcome {
        Queued,         ///< nothing was lost; periodic data may have replaced its predecessor
        OldestDropped,  ///< queued, in place of the oldest message that is not a command
        CommandRefused, ///< not queued: an operator's command is not dropped for a later one
    };

    /// Commands and periodic data stay behind what waits, whatever the caller wishes.
    static bool isPrependable(quint8 msgId);

    /// @param prepend  put the message before all others of its kind, if it is prependable. Of two prepended ones the
    ///                 later goes out first.
    Outcome push(quint8 msgId, const QByteArray& data, bool prepend);

    /// Puts messages before all others of their kind, in their order: they are older than what waits. Only the answer
    /// to INIT stays ahead. Values of periodic data and base status are none of them, since newer ones follow.
    /// @return false when there was no room for all of them; the oldest are missing then.
    bool putBack(const QVector<RPGComGLinkMessage>& messages);

    /// Takes the next message. Values of periodic data that come from now on queue up at the end again.
    /// @return false, `out` untouched, when there is none.
    bool takeNext(RPGComGLinkMessage& out);

    bool isEmpty() const { return !hasCommand() && !hasOther(); }
    bool hasCommand() const { return !m_cmdMessageQueue.isEmpty(); }
    bool hasOther() const { return !m_nonCmdMessageQueue.isEmpty(); }
    bool hasInitAck() const; ///< looks at each message that waits
    int commandCount() const { return m_cmdMessageQueue.size(); }
    int otherCount() const { return m_nonCmdMessageQueue.size(); } ///< periodic data that waits counts as one

    // What is dropped goes without a trace; the rest keeps its order.
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

    QQueue<RPGComGLinkMessage> m_cmdMessageQueue;    ///< Capacity at most
    QQueue<RPGComGLinkMessage> m_nonCmdMessageQueue; ///< Capacity at most; periodic data stands in it without its bytes
    QByteArray m_periodicData;                       ///< newest periodic data, of the entry in m_nonCmdMessageQueue
    bool m_isPeriodicDataPending = false;            ///< whether there is such an entry
};
