#pragma once

#include "virtualtime.h"
#include "world.h"

#include "internallink.h"
#include "transport_layer.h"

#include <QList>
#include <QScopedPointer>

/// The transport layer of the internal link on a line to a base controller that is played here. Everything goes well,
/// and at once, but for what is chosen:
///
/// | choice      | what happens                                                                               |
/// |-------------|--------------------------------------------------------------------------------------------|
/// | send, reset | the base unit sends a packet; a RESET, whose acknowledgement clears what waits             |
/// | lose, miss  | the next frame to the base controller is lost; its next acknowledgement is                 |
/// | mute, talk  | the base controller hears nothing; does again                                              |
/// | stale       | an acknowledgement arrives once more, late                                                 |
/// | wait        | 50 ms pass                                                                                 |
class TransportWorld : public World
{
public:
    explicit TransportWorld(VirtualTime& time);
    ~TransportWorld() override;

    QStringList choices() const override;
    void perform(const QString& choice) override;
    QByteArray state() const override;
    void finish() override;

private:
    struct Packet
    {
        int number; ///< as handed in, from 1
        bool isReset;
        int transmissions;
    };

    void send(bool isReset);
    void frameToController(const QByteArray& frame);
    void acknowledge(const QByteArray& frame);
    void linkFailed();
    void resetAcknowledged();

    VirtualTime& m_time;
    QScopedPointer<TransportLayer> m_layer;
    QObject m_context;
    QList<Packet> m_waiting; ///< what the layer has and nobody has acknowledged, oldest first
    QByteArray m_lastFrame;  ///< that the controller acknowledged
    int m_sent = 0;
    int m_heard = 0; ///< number of the last packet that came to the controller
    int m_resetsToTell = 0;
    bool m_losesFrame = false;
    bool m_losesAck = false;
    bool m_isMute = false;
    bool m_isFinishing = false;
};
