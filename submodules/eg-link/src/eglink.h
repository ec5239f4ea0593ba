#pragma once

#include "eglinkheadercheck.h"
#include "statemachine.h"
#include "vrporeassembly.h"

#include <QBasicTimer>
#include <QByteArray>
#include <QHostAddress>
#include <QObject>
#include <QString>

class EGLinkSockets;
class QTimer;

/// What is fixed in the field and different only in unit tests.
struct EGLinkTuning
{
    QString interfaceName = QStringLiteral("eth0"); ///< the wired interface towards the machine controller
    int vrpiPeriodMs = 250;                         ///< period of the data to the controller
    int vrpoTimeoutMs = 2000;                       ///< silence after which data from the controller are missing
    int interfaceCheckMs = 2000;                    ///< how often a vanished interface is looked for
    quint16 recoveryTimeMs = EGLinkRecoveryTimeMs;  ///< quiet time after which an error state is left
};

/// The link to the machine controller: UDP multicast, with three independent channels that the enable map (emap)
/// switches.
///
/// | emap bit | channel                                                                    |
/// |----------|----------------------------------------------------------------------------|
/// | 0        | VRPI: periodic data to the controller                                      |
/// | 1        | commands: VRCI acknowledged by VRAO, VRCO acknowledged by VRAI             |
/// | 2        | VRPO: periodic data from the controller                                    |
///
/// Created in the main thread, then moved to a thread of its own, whose `started` calls `run`; everything the link owns
/// is created there, and the link must be deleted there. The slots for other threads are reached through queued
/// connections; before `run` they only store what they are given.
///
/// A command that nobody acknowledges, and a controller that falls silent, each in an OPERATIONAL link:
///
/// | ms          | command                        | ms             | controller                                   |
/// |-------------|--------------------------------|----------------|----------------------------------------------|
/// | 0           | sent                           | 0              | last whole set                               |
/// | 100 to 1900 | the same bytes again, 19 times | 2000           | LINK_ERROR                                   |
/// | 2000        | given up; LINK_ERROR           | 4000, 6000 ... | still silent: the recovery time begins anew  |
/// | 7000        | OPERATIONAL                    | 5000 more      | OPERATIONAL, since sets have come again      |
///
/// A link that has just begun does not recover by time: it is LINK_ERROR until the first whole set, or OPERATIONAL at
/// once if VRPO is off. VRPI goes out in every state.
///
/// A command of the controller is acknowledged and handed on if its id is one more than the last one's, or if the last
/// one was refused, or none has come since the channel was switched on. So one whose acknowledgement got lost is
/// refused when it is repeated, and handed on a second time when it is repeated once more.
///
/// Whatever arrives from the network costs at most a debug line and the packet. Fatal are: a port that cannot be bound,
/// and periodic data too large for a packet. A missing interface is not: the link waits for it.
class EGLink : public QObject
{
    Q_OBJECT

public:
    /// @param multicastAddr group of both directions.
    /// Opens nothing, starts nothing.
    /// @param remotePort port of the controller; this side listens on the second port above it.
    /// @param vrpoByteCount size of the controller's periodic data in bytes; with 0 no set is ever whole.
    /// @param emap enabled channels, low three bits. With none of them the link keeps silent, and never tells a status.
    /// @param baseId the base unit's id, origin of all sent packets.
    EGLink(const QHostAddress& multicastAddr, quint16 remotePort, quint32 vrpoByteCount, quint8 emap, quint16 baseId,
           QObject* parent = nullptr, const EGLinkTuning& tuning = EGLinkTuning());

public slots:
    /// Opens the sockets and configures the channels; once, in the link's own thread.
    void run();
    /// New data for the periodic packets to the controller, at most 492 bytes; more is a fatal assertion. They go with
    /// the next packet and all after it; what is replaced between two packets is never sent. Before the first call the
    /// packets have no data.
    void receiveFromRGP(const QByteArray& data);
    /// A command for the controller. It supersedes the one before it, acknowledged or not. Empty commands are not sent,
    /// and commands of more than 486 bytes are dropped with a debug line. One that comes while the channel is off is
    /// never sent. Nobody is told of the acknowledgement; a command that is given up shows in the status.
    void receiveCmd(const QByteArray& data);
    /// Enables exactly the channels in the low three bits. From none to some starts the link anew. A channel that is
    /// switched off forgets what it holds: periodic data to send, a command with its counts, an incomplete set.
    void setEmap(quint8 emap);
    /// From the state machine: keeps the status and tells the outside.
    void setEGLinkStatus(const EGLinkState state);

    // The timers', in the link's own thread.

    /// Sends one VRPI, every 250 ms.
    void sendVRPIMessage();
    /// Every 100 ms from a command's sending until its acknowledgement: sends it once more, or gives it up.
    void resendVRCIMessage();
    /// Handles what is waiting, but at most a batch: the rest follows in a later turn of the event loop, so that a
    /// flood does not hold up the timers.
    void readPendingDatagrams();
    /// No whole set for 2000 ms; comes again every 2000 ms until there is one. Counts for the whole process, and writes
    /// a debug line for the second and each tenth after it.
    void periodicDataTimeout();

signals:
    // All emitted in the link's own thread.

    /// The status as the outside sees it, an EGLinkState below 256. Emitted at each change: the first one is
    /// LINK_ERROR, when the link begins.
    void EGLinkStatus(quint8 status);
    /// A complete set of periodic data from the controller that differs from the one before it, which is remembered for
    /// as long as the link lives.
    void sendToRGP(const QByteArray& data);
    /// A command from the controller, without id and reserved bytes; may be empty.
    void sendCmd(QByteArray command);
    /// For the state machine.
    void EGEvent(const EGLinkEvent event);

protected:
    // The border to the network; unit tests put themselves in its place.

    /// (Re)opens the sockets. A port that cannot be bound ends the process.
    virtual void configureMulticastSockets();
    /// Sends one datagram to the group. @return false if it did not leave whole.
    virtual bool transmit(const QByteArray& packet);
    /// Handles one received datagram, header to CRC.
    void handleDatagram(QByteArray packet);

    void timerEvent(QTimerEvent* event) override;

private:
    void createStateMachine();
    QTimer* createTimer(int intervalMs, void (EGLink::*timeout)());
    bool isRunning() const { return m_stateMachine != nullptr; }

    void announceEmapChange(quint8 oldEmap, quint8 newEmap);
    void enableVRPI(bool enable);
    void enableVRCxAx(bool enable);
    void enableVRPO(bool enable);

    QByteArray generateIdAndHeader(EGLinkPacket::Type type, int dataSize);
    QByteArray buildPacket(EGLinkPacket::Type type, const QByteArray& payload);
    void send(EGLinkPacket::Type type, const QByteArray& packet);

    void sendVRCIMessage();
    void repeatVRCIMessage();
    void handleVRAOMessage(const QByteArray& payload);
    void handleVRCOMessage(const QByteArray& payload);
    void handleVRPOMessage(quint16 serial, const QByteArray& payload);
    void dispatch(EGLinkPacket::Type type, quint16 serial, const QByteArray& payload);

    const QHostAddress m_multicastAddr;
    const quint16 m_remotePort;
    const quint16 m_localPort;
    const quint16 m_baseId;
    const EGLinkTuning m_tuning;

    EGLinkSockets* m_sockets = nullptr;
    StateMachine* m_stateMachine = nullptr; ///< from `run` on
    QBasicTimer m_interfaceCheckTimer;
    EGLinkState m_linkStatus = NOT_CONFIGURED; ///< last reported status
    quint16 m_txCount = 0;                     ///< serial of the next sent packet, common to all types
    EGLinkHeaderCheck m_headerCheck;
    quint8 m_emapValue;

    bool m_enableVRPO = true;
    VrpoReassembly m_reassembly;
    QTimer* m_vrpoTimeoutTimer = nullptr;
    QByteArray m_currentVRPOData; ///< last complete set

    bool m_enableVRCxAx = true;
    quint16 m_expectedVRCOCommandId = 0;
    bool m_isResetVRCOId = true; ///< the next VRCO is accepted whatever its id

    bool m_enableVRPI = true;
    QByteArray m_activeVRPIData;
    QTimer* m_vrpiPeriodTimer = nullptr;

    QByteArray m_newVRCIData;       ///< command waiting to be sent
    QByteArray m_activeVRCIMessage; ///< complete packet awaiting its acknowledgement; kept after the timeout
    quint16 m_vrciCommandId = 0;    ///< id of the next VRCI
    quint16 m_vrciExpectedAck = 0;
    quint16 m_vrciLastAck;
    QTimer* m_vrciResendTimer = nullptr;
    quint16 m_vrciResendTimeMs = 0;
};
