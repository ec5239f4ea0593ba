#pragma once

#include "applicationchecksums.h"
#include "glinkheader.h"

#include <QByteArray>
#include <QMap>
#include <QObject>
#include <QString>

#include <future>

class Configuration;
class TagDatabase;

/// The protocol engine that all GLink transports share: cuts frames out of a byte stream, checks them, acknowledges
/// every message before it is passed on, frames what is sent, and keeps at most one message unacknowledged.
///
/// A transport derives from it and supplies the pipe: it appends received bytes to `m_incomingData` and calls
/// parseStream(), and it overrides sendMsg() to write frames.
///
/// What becomes of a received frame whose CRCs are good, in this order:
///
/// | type                  | id               | first                  | then         | then               |
/// |-----------------------|------------------|------------------------|--------------|--------------------|
/// | message               | INIT             | handleInitMsg()        | acknowledged | readyReadFromGLink |
/// | message               | INITACK          | handleInitAckMsg()     | acknowledged | readyReadFromGLink |
/// | message               | CMD, BASE_STATUS |                        | acknowledged | readyReadFromGLink |
/// |                       | and in between   |                        |              |                    |
/// | message               | FALLBACK_DEINIT  | handleFallbackDeInit() | acknowledged |                    |
/// | message               | HEARTBEAT, other |                        | acknowledged |                    |
/// | acknowledgement       | any              | handleAck()            |              |                    |
/// | any other             | any              |                        |              |                    |
///
/// Threads: an instance is used from the thread that it lives in, and only there; its signals carry copies. The
/// constructor alone may run in another thread before the move. Configuration and tag database may be null (nobody is
/// paired then, no base id matches); they are not owned and outlive the transport.
class GLinkTransportBase : public QObject
{
    Q_OBJECT

public:
    /// @param localId  this side's id; not sent, for the transport's users only.
    GLinkTransportBase(quint16 localId, Configuration* config, TagDatabase* tagDatabase, QObject* parent);
    ~GLinkTransportBase() override;

    /// A received INIT, in `m_payloadData`. Takes the sender's id over as both peer ids and starts the exchange anew,
    /// see restartExchange().
    /// @return whether pairing, base id and application checksum agree as far as is known; a list of checksums that is
    ///         not complete yet agrees with nothing. For information only: the hub decides. Waits for nothing.
    virtual bool handleInitMsg();

    /// A received acknowledgement, in `m_rxHeader`. One that nobody waits for changes nothing.
    /// @return true when it is that of the message in flight (reported by messageSent) or of a heartbeat in flight.
    ///
    /// Acknowledgements carry no reference number: the message id alone decides.
    virtual bool handleAck();

    /// A received INITACK, in `m_payloadData`.
    virtual void handleInitAckMsg() = 0;

    /// Completes `frame` with the message CRC; transports write it to their pipe then.
    /// @return false when the pipe did not take the whole frame.
    virtual bool sendMsg(QByteArray& frame);

    /// A frame failed its header or its message CRC. Called for both, so a frame with a bad header reports twice unless
    /// the transport stops parsing; isFrameRejected() tells the second call of one frame from the first.
    virtual void handleCrcError() = 0;

    /// The remote unit leaves the fallback path; does nothing here.
    virtual void handleFallbackDeInit();

    /// Processes all of `m_incomingData`, whatever its size; what remains afterwards is at most one incomplete frame,
    /// kept in pieces: 65556 bytes at most, however long it takes to come. There is no start mark to search for: after
    /// a damaged frame, parsing restarts with the next bytes that are received.
    ///
    /// A call from within itself, by a handler that got more bytes, returns at once: the call under way takes these.
    void parseStream();

    /// Steps of parseStream(): the header is complete; the whole frame is.
    void handleMsgHeader();
    void processMessage();

    /// Puts a header in front of `payload`, which has at most GLinkFrame::MaxPayloadSize bytes. The message CRC is not
    /// part of it, sendMsg() adds that.
    void addHeader(QByteArray& payload, quint8 msgId);

    /// Acknowledges `m_rxHeader`. Acknowledgements overtake the message in flight and are never acknowledged.
    void sendAck();

    /// Frames and sends one message; `refNr` comes back with messageSent. `remoteId` is not used for addressing: a
    /// transport talks to one peer at a time.
    /// @return false, with nothing sent, while another message is in flight, and when the pipe fails (logged).
    ///
    /// A message too long for a frame is dropped with the same log line, and reported by messageSent so that what
    /// queues behind it goes on.
    bool send_(quint16 remoteId, quint8 msgId, const QByteArray& message, quint32 refNr);

    /// Whether one of the configured remote units has that id.
    bool isRuPaired(quint16 ruId) const;
    /// Whether `id` is that of this base unit.
    bool isBuId(quint16 id) const;

    /// Looks for the remote units' application and for its digest in the list that was made before. Walks the disk, and
    /// waits for the list if it is still being made: not for a thread that remote units are served by.
    /// @param result  the 16-byte MD5; empty, which never matches, for an application that the list does not have.
    /// @return false, `result` untouched, when no application for remote units is installed.
    bool getAppChecksum(QByteArray& result);

    /// Makes the list of the installed applications' digests, and waits for it: seconds, where large applications have
    /// not been hashed yet.
    void populateChecksumList();

public slots:
    /// Opens the pipe, once, when the object is in its thread.
    virtual void run() = 0;
    /// Sends one message, see send_(). From other threads by a queued call.
    virtual void send(quint16 remoteId, quint8 msgId, const QByteArray& message, quint32 refNr) = 0;
    /// Sends a heartbeat unless one is in flight. Independent of the message in flight.
    virtual void sendHeartbeat();
    /// Nobody waits for the acknowledgement of that message any more. If it is still in flight the way is free for the
    /// next one; otherwise nothing happens. Ordered with the calls of send() around it.
    void forgetMessage(quint32 refNr);

signals:
    /// The link to that remote unit is gone.
    void closedConnection(quint16 remoteId);
    /// A valid message arrived that is meant for the layers above (ids 1 to 8). Already acknowledged.
    void readyReadFromGLink(quint16 remoteId, quint8 msgId, const QByteArray& data, GLinkTransportBase* channel);
    /// The message that was sent under this reference number has been acknowledged.
    void messageSent(quint16 remoteId, quint32 refNr, GLinkTransportBase* self);
    void error(const QString& text); ///< part of the interface; never emitted

protected:
    /// Value of `m_expectedAck` while nothing is in flight; no message id reaches it.
    static constexpr quint16 NoAckExpected = 0xFFFF;

    /// An INIT came from `remoteId`: forgets what was in flight, so that the answer is not refused. A transport that
    /// several units share overrides it to keep what is in flight for another unit.
    virtual void restartExchange(quint16 remoteId);

    /// The number of an INIT that has just come: higher than those of all INITs before, over whatever transport. Any
    /// thread.
    static quint64 nextIntroduction();

    /// Makes the list in the background; getAppChecksum() waits for it. Any thread.
    void requestChecksumList();

    /// The unit for which the frame now handed to sendMsg() is meant: that of the message being acknowledged, or that
    /// of the send. Differs from `m_txPeerId` only where one transport serves several units.
    quint16 frameReceiver() const { return m_isSendingAck ? m_rxPeerId : m_txPeerId; }

    /// True from the first handleCrcError() of a damaged frame to the end of that frame.
    bool isFrameRejected() const { return m_isFrameRejected; }

    /// Drops everything received and not yet passed on: the unconsumed bytes and all pieces of the frame being
    /// assembled.
    void discardIncoming();

    /// The link is being closed: from now on received bytes are dropped unseen. Also ends a parseStream() under way.
    void stopParsing();
    bool isParsingStopped() const { return m_isParsingStopped; }
    /// True while parseStream() is under way, within all that it calls.
    bool isParsing() const { return m_isParsing; }

    const quint16 m_localId;
    quint16 m_txPeerId = 0; ///< reported with messageSent
    quint16 m_rxPeerId = 0; ///< reported with received data and closedConnection
    quint32 m_txMsgRef = 0; ///< reference number of the message in flight
    quint16 m_expectedAck = NoAckExpected;
    QByteArray m_incomingData; ///< received; consumed from the front by parseStream()
    QByteArray m_headerData;   ///< pieces of the frame being assembled
    QByteArray m_payloadData;
    quint16 m_payloadSize = 0; ///< announced by the header
    QByteArray m_crcData;
    GLinkHeader m_rxHeader;
    const Configuration* m_config;
    const TagDatabase* m_tagDatabase;
    bool m_isHeartbeatSent = false;
    QMap<QString, QByteArray> m_checksumList; ///< application folder to MD5

private:
    int unconsumed() const { return m_incomingData.size() - m_consumed; }
    bool fill(QByteArray& piece, int size);
    bool agreesWithApplication(const QByteArray& checksum);
    bool assembleFrame();
    void dropConsumed();
    void clearFrame();
    void rejectFrame();
    void logCrcError() const;
    void dispatchMessage();

    int m_consumed = 0; ///< bytes at the front of m_incomingData that parseStream() is done with
    bool m_isParsing = false;
    bool m_isParsingStopped = false;
    bool m_isFrameRejected = false;
    bool m_isSendingAck = false;
    const QString m_applicationsRoot;
    std::shared_future<ApplicationChecksumList> m_orderedList; ///< valid while the list is being made
};
