#pragma once

#include "glinkclock.h"
#include "glinkheader.h"
#include "service_base.h"

#include <QByteArrayList>
#include <QHash>
#include <QMap>
#include <QQueue>

#include <chrono>

/// Carries whole GLink messages between this base unit and remote units that have lost TCP: the base controller relays
/// them on its own channel. A message travels in blocks of at most 250 bytes, and for every remote unit the base
/// controller says when it wants the next block.
///
/// Lives in the service-layer thread; the fallback transport reaches it through queued connections. Nothing is
/// repeated here. A channel for which the base controller's word never comes is freed by the remote unit's next INIT,
/// and all are by the loss of the internal link.
///
/// Packets (message class 1 in both directions, integers least significant byte first):
///
/// | to the base controller   | meaning                                                            |
/// |--------------------------|--------------------------------------------------------------------|
/// | id 2, length 2, data     | 1 to 250 bytes of a message; length: what of it was not sent before |
///
/// | from the base controller | meaning                                                            |
/// |--------------------------|--------------------------------------------------------------------|
/// | 0                        | the fallback channel failed                                        |
/// | 1                        | no action                                                          |
/// | id 2                     | the previous block for this remote unit is through, send the next  |
/// | id 2, length 2, data     | one block of a message of this remote unit to the base unit        |
class GfallbackServiceC : public ServiceBase
{
    Q_OBJECT

public:
    /// First value of a one-byte packet.
    enum DataAck : quint8 {
        REJECTED = 0,
        ACCEPTED = 1,
    };

    /// What the channel to one remote unit is doing. Every state but FREE waits for the base controller's word that the
    /// last block is through.
    enum LinkStatus : quint8 {
        FREE = 0,
        BUSY_ACK = 1,            ///< an acknowledgement is out
        BUSY_MSG = 2,            ///< a message is out, more of its blocks wait
        BUSY_MSG_LAST_BLOCK = 3, ///< the last block of a message is out
    };

    struct LinkState
    {
        LinkStatus linkStatus = FREE;
        QByteArray txData;                  ///< rest of the message that is being sent, or the one message that waits
        QByteArray ack;                     ///< the one acknowledgement that waits
        QByteArray message;                 ///< whole, as long as something of it is in `txData`
        GLinkClock::TimePoint messageSince; ///< when it was handed over; means something with `message`
    };

    /// Longest message that can be announced to the base controller: the remaining length has 16 bits.
    static constexpr int MaxTxMessageSize = 65535;

    /// Longest message that is reassembled: the largest GLink frame. A longer one is discarded, so that a peer that
    /// never ends its message costs no more memory than this.
    static constexpr int MaxRxMessageSize = GLinkFrame::HeaderSize + GLinkFrame::MaxPayloadSize + GLinkFrame::CrcSize;

    /// Messages of one unit that fallbackTxInTurn() keeps. A turn of any unit on the fallback may bring one more.
    static constexpr int MaxWaitingMessages = 64;

    /// What has waited for longer than that is not given back by withdraw(): for its sender, which waits no longer for
    /// an acknowledgement (GLinkConnection::PatienceOnFallback), it is lost.
    static constexpr std::chrono::milliseconds WorthGivingBack{1000};

    GfallbackServiceC(QObject* parent, serviceId_T id);

    /// Sends the next block of `data` and removes it there; nothing happens when `data` is empty.
    void sendDataBlock(unsigned short remoteId, QByteArray& data);

    /// What the channel to `remoteId` is doing; FREE for a unit never heard of.
    LinkStatus linkStatus(unsigned short remoteId) const;

    /// Messages of `remoteId` that wait behind the one in its place.
    int waitingMessages(unsigned short remoteId) const { return m_waiting.value(remoteId).size(); }

public slots:
    /// A packet from the base controller; handled by `readData_` from the event loop, after the transport layer has
    /// finished with the packet. Another link than the internal one and another message class than 1 are fatal.
    void readData(QByteArray data, Link fromLink, quint8 messageClass) override;
    void readData_(QByteArray data);

    /// Sends one GLink message to a remote unit. While the unit's channel is busy, one acknowledgement and one other
    /// message wait; further ones are dropped with a debug line.
    void fallbackTx(unsigned short remoteId, const QByteArray& data);

    /// The same, but further messages wait as well, in their order, and take their turn as the places become free:
    /// several units share the fallback, and the acknowledgement of one lets the next message of another go while that
    /// one's place is still taken. Beyond `MaxWaitingMessages` they are dropped as by fallbackTx().
    void fallbackTxInTurn(unsigned short remoteId, const QByteArray& data);

    /// Forgets what is being sent to this unit and what waits. A block that the base controller has already taken is
    /// not called back.
    void reset(unsigned short remoteId);

    /// The unit is back on TCP: what waits for it, the rest of a message under way included, would reach it late here.
    /// It is given back, in all cases by one givenBack(); what has waited for too long, and acknowledgements, are
    /// dropped, the former with a debug line. The base controller's word for the last block is still awaited.
    void withdraw(unsigned short remoteId);

    /// The state of the internal link (SystemEventService::SEStates). With the link the base controller has lost the
    /// blocks that it had taken, and never asks for the next ones: all channels are free again, and what waited is
    /// dropped. Until the link runs, fallbackTxInTurn() drops what it is given, so that nothing stands between the
    /// RESETs.
    void followLinkState(quint8 state);

signals:
    /// A complete message has arrived from a remote unit.
    void fallbackRx(unsigned short remoteId, const QByteArray& data);

    /// The base controller has rejected the fallback channel.
    void linkFailed();

    /// The answer to withdraw(): whole messages in their order, of which the base controller has never got all and
    /// never will. Often none.
    void givenBack(unsigned short remoteId, const QByteArrayList& messages);

protected:
    quint16 m_rxId = 0;
    QByteArray m_rxData;
    QMap<unsigned short, LinkState> m_linkState;

private:
    struct Waiting
    {
        QByteArray data;
        GLinkClock::TimePoint since; ///< when it was handed over
    };

    void take(unsigned short remoteId, const Waiting& message);
    static bool isWorthGivingBack(GLinkClock::TimePoint since);
    void receiveDataAck(quint8 reply);
    void sendNext(unsigned short remoteId);
    void receiveBlock(const QByteArray& block);
    void keepForLater(LinkState& state, const Waiting& message, bool isAck);
    void sendMessageBlock(unsigned short remoteId, LinkState& state);
    void letNextTakeItsPlace(unsigned short remoteId);
    void tellOfNoLink();

    QHash<quint16, QQueue<Waiting>> m_waiting;
    bool m_isLinkUp = true; ///< as long as nobody says otherwise
    bool m_toldOfNoLink = false;
};
