#pragma once

#include "glinkclock.h"
#include "glinkmessagequeue.h"
#include "onceaminute.h"

#include <QByteArray>
#include <QByteArrayList>
#include <QObject>
#include <QPointer>
#include <QVector>

#include <chrono>

class AppLog;
class GLinkTransportBase;
class GLinkTransportFallback;
class GLinkTransportTcp;

/// One remote unit as the base unit sees it: its two possible links, which of them is in use, the message in flight,
/// and the messages that wait for the acknowledgement of that one.
///
/// A link is usable once an INIT came over it. The fallback wins while it is usable: a unit that has TCP back keeps
/// using the fallback until that is closed for it, which an INIT over TCP sets going.
///
/// | INIT over the fallback | INIT over TCP | in use   | what waits                                              |
/// |------------------------|---------------|----------|---------------------------------------------------------|
/// | no                     | no            | NONE     | stays until a link is there, or the next message: that  |
/// |                        |               |          | is dropped, and what waits with it                      |
/// | no                     | yes           | TCP      | goes out, one after each acknowledgement                |
/// | yes                    | no, or before | FALLBACK | the same, in turn with the other units there            |
/// | yes                    | yes, behind   | FALLBACK | the answer to INIT and what is behind it wait for TCP,  |
/// |                        |               |          | which follows when the fallback has let go of the unit  |
///
/// Nothing is sent twice: a message that was in flight when the link in use changed, or when an INIT came over it, is
/// lost, and its late acknowledgement means nothing. What waits behind it moves to the new link. There is one
/// exception: what was handed to the fallback and never left this base unit is given back when the unit goes over to
/// TCP, if the owner sees to that (setTakesBack()), and goes out there first.
///
/// All units on the fallback share its one transport. Each has one message in flight, and its own acknowledgement lets
/// its next one go (acknowledged()). Nothing times out there, but a message that has been in flight for more than
/// `PatienceOnFallback` when the next one falls due is given up, and the unit counts as silent until it acknowledges
/// something: it gets no turn of the others, and of base status only its newest waits. Its queues are bounded (see
/// GLinkMessageQueue).
///
/// messageSent() for a message on the fallback passes a turn on, commands first, to whoever waits; the transport calls
/// the unit of the last send by that name, which need not be the one that acknowledged.
///
/// Threads and life: lives in the main thread and is used there only. The links live in threads of their own and are
/// reached through queued calls. They are held guarded: a transport is deleted in the main thread or after it has been
/// taken away here by setGLink(), and its thread ends after that, so a link that still stands here cannot vanish
/// between look and call, and what was queued to one that is gone goes with it.
class GLinkConnection : public QObject
{
    Q_OBJECT

public:
    /// The link that messages take.
    enum LinkType {
        NONE = 0,
        FALLBACK = 1, ///< the internal link to the base controller, which passes frames on
        TCP = 2,
    };

    /// Reference numbers: bits 0 to 27 count from 1 to MaxRefNr, one bit above tells the link. They never leave this
    /// process, and each unit has its own: a transport gives back with messageSent() what it was given with send(), and
    /// by the bit a late one of the other link is told apart.
    static constexpr quint32 REF_NR_INACTIVE = 0;            ///< nothing is in flight
    static constexpr quint32 MaxRefNr = 0x0FFFFFFE;          ///< 1 follows
    static constexpr quint32 TcpRefNrMask = 0x10000000;      ///< sent over TCP
    static constexpr quint32 FallbackRefNrMask = 0x20000000; ///< sent over the fallback

    /// How long a message on the fallback may stay unacknowledged before the next one stops waiting for it. Looked at
    /// when a message is handed in or a turn is given, and no timer runs: base status comes every 500 ms.
    static constexpr std::chrono::milliseconds PatienceOnFallback{1000};

    /// Knows both links but uses none before an INIT. Either may be null, and so may the log.
    ///
    /// The TCP link goes with this connection, see the destructor; the fallback is everybody's and is only used.
    /// @param peerId  the unit's id, under which its messages go out; there is one connection for each.
    GLinkConnection(quint16 peerId, GLinkTransportTcp* gLink, GLinkTransportFallback* fallbackLink, AppLog* log,
                    QObject* parent);
    GLinkConnection(quint16 peerId, GLinkTransportTcp* gLink, AppLog* log, QObject* parent);
    GLinkConnection(quint16 peerId, GLinkTransportFallback* fallbackLink, AppLog* log, QObject* parent);
    /// Schedules the TCP link for deletion, behind what it has already reported (or closes it, where its thread's end
    /// frees it), and leaves the fallback's turns.
    ~GLinkConnection() override;

    quint16 peerId() const { return m_peerId; }
    LinkType activeLinkType() const { return m_activeLinkType; }
    /// The TCP link, usable or not; null when there is none and when it has been deleted meanwhile.
    GLinkTransportTcp* gLink() const;
    /// Where events of this unit may be recorded; null when nobody keeps such a record.
    AppLog* log() const { return m_log; }
    /// Time at which the unit lost its last link, ms since the epoch; 0 while it has one, and before it had any.
    qint64 disconnectTime() const { return m_disconnectTime; }

    /// Whether a message awaits its acknowledgement, and what waits behind it. A message counts as in flight from its
    /// handing over on, before its transport's thread has seen it.
    bool isInFlight() const { return (m_activeRefNr & m_activeRefNrMask) != 0; }
    /// Means something only while isInFlight(). A further message, which a turn on the fallback may bring, does not
    /// begin it anew.
    GLinkClock::TimePoint unacknowledgedSince() const { return m_unacknowledgedSince; }
    const GLinkMessageQueue& waiting() const { return m_queue; }

    /// Hands a message to the unit: sent at once when nothing is in flight (behind what may still wait for its turn on
    /// the fallback), else queued. Without a link it is dropped, and with it whatever still waits. On the fallback,
    /// what has been in flight for too long is given up first.
    /// @param msgId  a GLinkMsgId; decides on the queue, see GLinkMessageQueue.
    /// @param data  the payload, not copied. One that no frame holds is dropped by the transport and counts as sent.
    /// @param prepend  queue it before all others; no effect on commands and periodic data.
    ///
    /// The answer to an INIT over TCP, and what follows it, waits until the fallback has let go of the unit.
    ///
    /// Never blocks and reports nothing: a command that finds its queue full is refused with a log line, at most one a
    /// minute, and so are messages dropped for newer ones.
    void enqueueMessage(quint8 msgId, const QByteArray& data, bool prepend);

    /// The message sent under that number has been acknowledged. Sends the next one; for the unit's own message on the
    /// fallback that may be another unit's. Numbers of forgotten messages are ignored.
    void messageSent(quint32 refNr);

    /// The unit itself has acknowledged a message of that id over the fallback. If it is the one in flight, the unit's
    /// next one goes out.
    void acknowledged(quint8 msgId);

    /// Attaches a link; null detaches it. A TCP link that another one replaces is told to close: of two the one whose
    /// INIT came later stays, which may be the one that is here already. A link that is attached does not become usable
    /// by that, and one that takes the place of a usable one is usable at once.
    /// @return the type of link in use from now on.
    LinkType setGLink(GLinkTransportTcp* link);
    LinkType setFallbackLink(GLinkTransportFallback* link);
    /// The unit's last INIT over the fallback was that one of all INITs: a TCP link that had its INIT before does not
    /// take the unit back.
    void setFallbackIntroduction(quint64 introduction) { m_fallbackIntroduction = introduction; }

    /// Whether the owner takes back what the fallback still has of this unit's messages, each time when the link in use
    /// has become TCP, and hands it in by takeBack(). No, until it says so.
    ///
    /// Where something may have been sent over the fallback, all other messages wait then, so that none overtakes an
    /// older one: until takeBack(), or for `PatienceOnFallback`, looked at as above.
    void setTakesBack(bool isTakingBack) { m_isTakingBack = isTakingBack; }
    /// Commands, and other messages that nothing newer replaces, go out before all that waits. Those that come too late
    /// are dropped with a log line.
    /// @param frames  whole frames as a transport made them, in their order; often none.
    void takeBack(const QByteArrayList& frames);

    /// An INIT came over `channel`: the link becomes usable, and what was in flight on it is forgotten on both sides.
    /// Answers to INITs before this one that still wait are dropped: the caller hands in the one that counts. Whether
    /// the unit is accepted is its business, too; a refused one is served like any other.
    ///
    /// Null is fatal.
    /// @return false, with nothing done, for a channel that is not (or no longer) one of this unit's links. A TCP link
    ///         that the unit gave up for the fallback while its INIT waited is told to close.
    bool initChannel(GLinkTransportBase* channel);

signals:
    /// Not emitted by the connection itself.
    void connectionLost(quint16 ruId);

protected:
    /// Numbers the message that is about to be sent, which becomes the one in flight. @return its number.
    quint32 updateRefNr();
    void sendMessage(quint8 msgId, const QByteArray& data);
    /// Takes this unit's next message. @return this, or null when nothing waits.
    GLinkConnection* getNextMessage(RPGComGLinkMessage& out);
    /// Takes the next message of the units on the fallback, starting with the one after this. @return its unit, or
    /// null.
    GLinkConnection* getNextFallbackMessage(RPGComGLinkMessage& out);
    void sendNextMessage();
    LinkType updateActiveLink();

    quint32 m_nextRefNr = 1;

private:
    struct Route
    {
        LinkType type;
        GLinkTransportBase* link;
        quint32 refNrMask;
    };
    Route bestRoute() const;
    void takeRoute(const Route& route);

    bool hasLink() const { return !m_activeLink.isNull(); }
    bool isOnlyFallbackUser() const;
    bool isOverdue() const;
    /// What waits goes out in a moment, when the fallback has let go of the unit and given back what it had.
    bool isHeldBack() const { return m_isFallbackClosing || m_isAwaitingTakeBack; }
    bool mayTakeTurn() const;
    bool mustWaitForTcp(quint8 msgId) const;
    void dropWithoutLink(quint8 msgId);
    void sendBehindOthers(quint8 msgId, const QByteArray& data);
    void queueMessage(quint8 msgId, const QByteArray& data, bool prepend);
    void forgetMessageInFlight();
    void giveUpMessageInFlight();
    void passTurnOn();
    void endMessageInFlight();
    void sendOwnNextMessage();
    bool supersede(GLinkTransportTcp& link);
    bool isGivenUpForFallback(const GLinkTransportTcp& link) const;
    void beginTakingBack();
    void logInvalidIndex() const;

    static GLinkConnection* takeFromFallbackUsers(int startIndex, RPGComGLinkMessage& out);
    static void continueFallback();

    /// Connections whose link in use is the fallback, in order of joining. Main thread only.
    static QVector<GLinkConnection*> s_fallbackUser;

    const quint16 m_peerId;
    QPointer<GLinkTransportTcp> m_gLink;              ///< null also when it was deleted elsewhere
    bool m_isGLinkInited = false;                     ///< an INIT came over TCP
    QPointer<GLinkTransportFallback> m_gFallbackLink; ///< everybody's
    bool m_isFallbackLinkInited = false;              ///< an INIT of this unit came over the fallback
    quint64 m_fallbackIntroduction = 0;               ///< number of the last one; 0 before the first
    bool m_isFallbackClosing = false;                 ///< TCP is there again, and the fallback has been asked to let go
    QPointer<GLinkTransportBase> m_activeLink;        ///< one of the two, or null
    LinkType m_activeLinkType = NONE;
    quint32 m_activeRefNrMask = 0; ///< of the link in use; 0 without one
    qint64 m_disconnectTime = 0;   ///< ms since the epoch
    GLinkMessageQueue m_queue;
    quint32 m_activeRefNr = REF_NR_INACTIVE;     ///< of the message in flight
    quint8 m_msgIdInFlight = 0;                  ///< means something while a message is in flight
    GLinkClock::TimePoint m_unacknowledgedSince; ///< while a message is in flight
    bool m_isSilent = false;               ///< on the fallback: a message was given up, and nothing acknowledged since
    bool m_isTakingBack = false;           ///< the owner does so
    bool m_hasSentOverFallback = false;    ///< since what was sent there was taken back last
    bool m_isAwaitingTakeBack = false;     ///< nothing is sent meanwhile
    GLinkClock::TimePoint m_awaitingSince; ///< means something with the last
    OnceAMinute m_givenUpLine;             ///< a message given up on the fallback
    OnceAMinute m_droppedLine;             ///< a message dropped for a newer one
    OnceAMinute m_refusedLine;             ///< a command refused
    AppLog* m_log;                         ///< not owned; may be null
};
