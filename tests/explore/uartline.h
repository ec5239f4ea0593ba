#pragma once

#include "service_layer.h"

#include <QByteArray>
#include <QObject>
#include <QQueue>
#include <QScopedPointer>
#include <QTimer>

#include <functional>

class RGPCom;
class TransportLayer;

/// The internal link of an explored world: the real service layer, transport layer included, on a line to a base
/// controller that is played here. Frames of the base unit are acknowledged at once, and packets to it are sent one
/// after the other, but for what is chosen:
///
/// | choice     | what happens                                                                                    |
/// |------------|-------------------------------------------------------------------------------------------------|
/// | drop, miss | the next frame to the base controller is lost; its next acknowledgement is                      |
/// | late       | the base controller's next packet is lost, and comes 50 ms later                                |
/// | twice      | its next packet comes twice, because it heard no acknowledgement of the first                   |
/// | mute, talk | the line is cut; is whole again. A base controller that had something to say gives up after     |
/// |            | 150 ms and starts over with a RESET                                                             |
/// | restart    | the base controller has started anew, and sends a RESET                                         |
class UartLine
{
public:
    /// What the base controller does with a payload for it, with one that it will have sent once more than the world
    /// knows (1) or not at all (-1), and when it starts over, by itself or with a RESET of the base unit: it forgets
    /// what it was in the middle of.
    struct Controller
    {
        std::function<void(quint8 serviceId, const QByteArray& payload)> hear;
        std::function<void(quint8 serviceId, const QByteArray& payload, int times)> miscount;
        std::function<void(bool isByItself)> startOver;
    };

    UartLine(RGPCom* hub, TagDatabase* tags, Controller controller);
    ~UartLine();

    TransportLayer* transport() const { return m_transport; }
    ServiceBase* service(quint8 id) const { return m_layer->getServices().value(id); }

    QStringList choices() const;
    /// @return false, with nothing done, for a word that is none of the choices.
    bool perform(const QString& choice);
    /// Whatever was chosen is over.
    void calm();

    /// The base controller sends a payload.
    void send(quint8 serviceId, const QByteArray& payload);

    bool isMute() const { return m_isMute; }
    /// Nothing that the base controller has sent is under way.
    bool isIdle() const { return m_packets.isEmpty(); }
    /// The same of both sides.
    bool isQuiet() const { return isIdle() && m_waiting == 0; }
    /// Quiet, in RUN, and of what was chosen nothing has still to happen.
    bool isAtPeace() const;
    QByteArray state() const;

private:
    struct Packet
    {
        quint8 serviceId;
        QByteArray payload;
    };

    void connectLayer();
    void deliver();
    void deliverFirst();
    void giveUp();
    void restart();
    void dropPackets();
    void setMute(bool isMute);
    void frameToController(const QByteArray& frame);
    void handle(quint8 serviceId, const QByteArray& payload);
    void acknowledge(const QByteArray& packet);
    void toBaseUnit(const QByteArray& packet);

    Controller m_controller;
    QScopedPointer<ServiceLayer> m_layer;
    TransportLayer* m_transport;
    QObject m_context;
    QTimer m_repeatTimer; ///< runs while the first packet waits to be sent once more
    QTimer m_patience;    ///< runs while packets wait in vain
    QQueue<Packet> m_packets;
    quint8 m_number = 0; ///< of the base controller's next packet
    int m_lastHeard = -1;
    int m_waiting = 0; ///< packets that the transport layer has and nobody has acknowledged
    quint8 m_linkState = 0;
    bool m_losesFrame = false;
    bool m_losesAck = false;
    bool m_losesPacket = false;
    bool m_repeatsPacket = false;
    bool m_isMute = false;
    bool m_mustRestart = false;
};
