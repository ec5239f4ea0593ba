#pragma once

#include "glinktransportbase.h"

#include <QByteArrayList>
#include <QHash>

/// GLink through the base controller, for remote units whose TCP link is gone. One instance serves all of them: its
/// pipe is the fallback service of the internal link, which carries frames tagged with the id of the remote unit.
///
/// A unit joins with INIT and leaves with FALLBACK_DEINIT, when its TCP link has taken over (close()), when a frame is
/// corrupt, or when the base controller rejects the channel. There are no heartbeats and no time-outs here: the
/// connections of the units, which alone know what is in flight for whom, see to it that none waits for another.
///
/// Two units are of interest at any moment, and most of what looks odd here comes of that:
///
/// | unit                  | changes with                       | decides on                                          |
/// |-----------------------|------------------------------------|-----------------------------------------------------|
/// | whose bytes came last | each block of bytes, INIT, close() | whose messages are passed on and acknowledged       |
/// | of the last send      | send(), INIT of any unit           | who loses its link to a damaged frame or linkDown() |
/// |                       |                                    | whose name messageSent() bears                      |
///
/// Threads and life: made by the hub and moved to a thread of its own; reached by queued calls only. The hub deletes it
/// in the main thread, after its thread has ended.
class GLinkTransportFallback : public GLinkTransportBase
{
    Q_OBJECT

public:
    /// Makes no list of application checksums: the verdict of handleInitMsg() is for information, the hub has its own.
    GLinkTransportFallback(Configuration* config, TagDatabase* tagDatabase, QObject* parent);

    bool handleInitMsg() override;
    /// Matched by message id alone, as everywhere: of several units' messages in flight, that of the last send counts
    /// as acknowledged, whoever did it. acknowledged() tells the truth before.
    bool handleAck() override;
    void handleInitAckMsg() override;
    /// Hands the complete frame to the fallback service: an acknowledgement for the unit whose message it acknowledges,
    /// every other frame for the unit of the last send. @return true: the service drops what it cannot carry.
    bool sendMsg(QByteArray& frame) override;
    /// Takes the link from the unit of the last send, which is not always the one whose frame was corrupt.
    void handleCrcError() override;
    void handleFallbackDeInit() override;

public slots:
    void run() override; ///< does nothing: there is nothing to open
    /// Sends at once, whatever is in flight: the connections of the units take turns among themselves. What was in
    /// flight before is no longer reported by messageSent(), but still by acknowledged().
    void send(quint16 remoteId, quint8 msgId, const QByteArray& message, quint32 refNr) override;
    void sendHeartbeat() override; ///< does nothing

    /// Bytes of a unit, a whole frame or a part of one, in the order in which it sent them. They are never joined with
    /// another unit's: what is kept of a frame of that one is dropped.
    void dataFromServiceLayer(quint16 remoteId, const QByteArray& data);
    /// The base controller has rejected the channel: the unit of the last send loses its link.
    void linkDown();
    /// The unit has a better link. Its message in flight, if it was the last one sent, counts as sent.
    void close(quint16 remoteId);
    /// The same because the unit has introduced itself over TCP, by that one of all INITs (0: nobody knows by which).
    /// Ignored when it has introduced itself here since: it would lose the link that it uses.
    void closeForTcp(quint16 remoteId, quint64 introduction);
    /// The unit is back on TCP: what is behind this transport gives back what waits for it, by givenBack().
    void withdraw(quint16 remoteId);

signals:
    /// That unit introduced itself over the fallback.
    void newConnection(quint16 remoteId);
    /// The same INIT's number among all INITs, behind newConnection(). See GLinkTransportTcp::isIntroducedBefore().
    void introduced(quint16 remoteId, quint64 introduction);
    void readyRead(); ///< part of the interface; never emitted
    /// That unit has acknowledged a message of that id. Also: one to it could not be sent and is done with.
    void acknowledged(quint16 remoteId, quint8 msgId);
    /// A service message for that unit, which came beside the frames; for the hub.
    void serviceForward(QByteArray data, unsigned short remoteId);
    /// A frame for that unit.
    void dataToServiceLayer(quint16 remoteId, const QByteArray& data);
    /// Of the frames for that unit that were handed over before, none is to go out any more.
    void withdrawn(quint16 remoteId);
    /// The answer to that: frames for that unit, handed over before, that never went out whole. From what is behind
    /// this transport, for the hub.
    void givenBack(quint16 remoteId, const QByteArrayList& frames);

protected:
    /// What another unit has in flight counts as sent, so that its queue goes on.
    void restartExchange(quint16 remoteId) override;

private:
    void releaseUnit();
    void closeUnitOfLastSend();

    QHash<quint16, quint64> m_introductions; ///< the last of each unit; kept when it leaves
    quint16 m_incomingPeerId = 0; ///< unit of the partial frame that is kept; m_rxPeerId changes with close() and INIT
};
