#pragma once

#include "link.h"

#include <QByteArray>
#include <QList>
#include <QObject>

#include <array>

class FrameLayer;
class InternalLink;
class MessageLayer;
class QTimer;

/// The reliable, ordered packet channel to the base controller.
///
/// Sending is stop-and-wait: one packet is in flight, up to three times 50 ms apart; the ones behind it wait untouched.
/// A packet still unacknowledged 50 ms after its third transmission means that the link has failed: everything that
/// waits is dropped and `internLinkFail` tells. Nothing else is reset, the next packet is sent as usual.
///
/// | ms  | a packet that nobody acknowledges, and that nothing is in front of                         |
/// |-----|--------------------------------------------------------------------------------------------|
/// | 0   | goes out                                                                                   |
/// | 50  | goes out again                                                                             |
/// | 100 | goes out for the last time                                                                 |
/// | 150 | is dropped with all that wait behind it; `internLinkFail`, by which the relay opens in RUN |
///
/// Received packets are checked, acknowledged as their message class demands, and handed up. Damaged ones are dropped
/// without a word, repeated ones are handed up again: the base controller repeats what it has seen no answer to.
///
/// Header, the first two bytes of every packet (before CRC and framing):
///
/// | byte 0: message class (bits 7-6), packet number (bits 5-0) | byte 1: service id |
///
/// Everything happens in the thread that creates the object, which must run an event loop for the timers.
class TransportLayer : public QObject
{
    Q_OBJECT

public:
    /// One outgoing packet that awaits its acknowledgement.
    struct bufferItem
    {
        QByteArray data;     ///< the complete frame as it goes on the line
        QTimer* reTxTimer;   ///< active while a transmission awaits its acknowledgement; owned by the send buffer
        quint8 reTXCount;    ///< transmissions so far
        quint8 packetNumber; ///< 0 to 63
        quint8 serviceId;    ///< whose packet it is
    };

    /// Packets of one service that wait, the one in flight included. More are dropped: remote units may send commands
    /// faster than the line carries them, and neither memory nor the other services' packets may suffer from that. At
    /// the line's pace this is a second or two; whatever waits longer is worth little.
    static constexpr int MaxWaitingPackets = 512;

    /// Opens the serial line of the base controller. If that fails the channel exists all the same: what is sent is
    /// lost, and so the link fails in time.
    explicit TransportLayer(QObject* parent);
    ~TransportLayer() override;

    /// Header operations on packets without CRC and framing. Readers give 0 for a byte that is not there.
    static QByteArray addHeader(QByteArray data, quint8 messageClass, quint8 serviceId, quint8 packetNumber);
    static QByteArray removeHeader(QByteArray data);
    static quint8 getControlByte(QByteArray data);
    static quint8 getServiceId(QByteArray data);
    static quint8 getMessageClass(QByteArray data);
    static quint8 getPacketNumber(QByteArray data);

    /// @return whether a complete frame carries a RESET of the system event service. Looks at fixed places of the
    /// escaped frame, which holds because no control byte of class 1, in which events are sent, is ever escaped.
    static bool getSystemEventReset(QByteArray frame);

public slots:
    /// One line as the serial port delivered it. A packet of message class 0 is a fatal assertion; a damaged one, or
    /// one without a whole header, is dropped.
    void readDataFromInternal(QByteArray chunk);

    /// Sends a payload to the service `serviceId` of the base controller; there is no other receiver, whatever `toLink`
    /// says. Class 3 goes out at once, numbered like the last packet of class 2 that was received, and is never
    /// repeated. Every other class is queued until it is acknowledged, or dropped while `MaxWaitingPackets` of the
    /// service wait.
    void readDataFromService(QByteArray data, Link toLink, quint8 serviceId, quint8 messageClass);

    /// Drops all waiting packets if `state` is 2, the system event service's STARTING. That service tells RUN in its
    /// place, so that in the server the start of the link drops nothing.
    void clearSendBuffer(quint8 state);

    /// Sends the oldest waiting packet if it is due, or declares the link failed if it is overdue.
    void processSendBuffer();

signals:
    /// A received payload; `fromLink` is always `Internal`. Not emitted for acknowledgements without payload.
    void readyRead(QByteArray data, Link fromLink, quint8 serviceId, quint8 messageClass);
    /// A frame to write to the line. Acknowledgements of class 1 do not pass here but go to the line directly.
    void sendOnInternal(QByteArray frame);
    /// The base controller has acknowledged a RESET of the system event service that waited in the send buffer.
    void resetAckRecieved();
    /// A packet was sent three times and never acknowledged.
    void internLinkFail();
    /// The send buffer has changed.
    void newData();

protected:
    /// Works on a line that is already open, and owns it.
    TransportLayer(InternalLink* link, QObject* parent);

private:
    void tellOfDroppedPacket(quint8 serviceId);
    void sendData(const QByteArray& data, quint8 packetNumber, quint8 serviceId, quint8 messageClass);
    QByteArray frameOf(const QByteArray& data, quint8 messageClass, quint8 serviceId, quint8 packetNumber);
    void transmit(bufferItem& item);
    void failLink();
    void dropSendBuffer();
    void receivePacket(QByteArray packet);
    void acknowledge(quint8 serviceId, quint8 packetNumber);
    void handleReset(quint8 packetNumber);
    void removePacket(quint8 packetNumber);
    int indexOfPacket(quint8 packetNumber) const;

    quint8 packetNumberSentInternal = 0;   ///< counts on through all 8 bits; the line sees the lower six
    quint8 serviceAckPacketNumber = 0;     ///< number of the last received packet of class 2
    QList<bufferItem> sendBuffer;          ///< oldest first
    std::array<int, 256> waitingPackets{}; ///< packets in the send buffer, by service id
    bool toldOfDroppedPacket = false;      ///< once a flood, which ends when everything has gone out
    InternalLink* internalLink;
    MessageLayer* messageLayer;
    FrameLayer* frameLayer;
};
