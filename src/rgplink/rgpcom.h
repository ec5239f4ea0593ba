#pragma once

#include "applicationchecksums.h"
#include "glinkheader.h"

#include <QByteArray>
#include <QMap>
#include <QObject>
#include <QPair>
#include <QPointer>
#include <QString>

#include <future>
#include <memory>

class AppLog;
class CFallbackServiceC;
class Configuration;
class GfallbackServiceC;
class GLinkConnection;
class GLinkInitAck;
class GLinkServer;
class GLinkTransportBase;
class GLinkTransportFallback;
class GLinkTransportTcp;
class QThread;
class QTimer;
class TagDatabase;

/// First byte of every block of periodic data that the base unit sends. Blocks that remote units send have none.
enum PeriodicDataOrigin : quint8 {
    PERIODIC_DATA_FROM_EG = 0, ///< from the machine controller
    PERIODIC_DATA_FROM_EC = 1, ///< from the base controller
};

/// The hub between the remote units and the rest of the base unit: keeps one connection per remote unit, decides
/// whether a unit's INIT is accepted, hands what units send to the rest of the system, and sends them base status,
/// periodic data and commands.
///
/// Lives in the main thread. Transports and services reach its slots through queued connections. sendCmd, the two
/// receivePeriodic slots and recvServiceForward may also be called from any thread: they only queue.
///
/// Owns the GLink server, the fallback transport and the connections. The transports live in threads of their own; one
/// of them may be given to a slot here until it is deleted, in the main thread, after it has reported its end.
///
/// A unit that is refused stays connected: it is told why, and its commands and data are passed on like any other's.
///
/// What comes from a unit, and what becomes of it here, all in the main thread and in the order of each link:
///
/// | message         | of whom                       | leads to                                                    |
/// |-----------------|-------------------------------|-------------------------------------------------------------|
/// | INIT            | a unit with a connection      | a decision (handleInitMsg) and INITACK                      |
/// | M_STOP          | the armed unit, in state 17   | machineStopActivatedOnArmedRemote(), for each one of them   |
/// | CMD             | a unit with a connection      | readyReadCmdFromRGP(): base controller, machine controller  |
/// | PERIODIC_DATA   | a unit with a connection      | readyReadFromRGP(), to which nobody in the server listens   |
/// | SERVICE_FORWARD | any                           | sendServiceForwardToService(): base controller              |
/// | anything else   | any                           | nothing                                                     |
///
/// What goes to the units is queued for each by its GLinkConnection, within bounds; a unit without a link gets nothing,
/// and nothing is kept for it but the last block of periodic data of each origin.
///
/// The hub makes a unit's connection when its first INIT comes, and keeps it until the end: "total_rus" counts units
/// that were ever there.
///
///     auto* const hub = new RGPCom(tags, configuration, parent);    // orders the checksums; listens to nobody
///     connect(hub, &RGPCom::machineStopActivatedOnArmedRemote, relay, &MsRelayControl::machineStopPressed);
///     hub->initialize(gFallback, cFallback);                        // once the base unit knows who it is
class RGPCom : public QObject
{
    Q_OBJECT

public:
    /// Why an INIT is refused, as remote units understand it. The numbers between are not used by the base unit.
    enum InitError : quint16 {
        INIT_ACCEPTED = 0,
        INIT_NOT_PAIRED = 1,        ///< the unit is not among the configured ones, or believes in another base unit
        INIT_CHECKSUM_MISMATCH = 4, ///< it runs another application than the one that is installed here
    };

    /// TCP port of the GLink server, on the base unit's address in the remote units' network.
    static constexpr quint16 GLinkPort = 1147;
    /// Rhythm of BASE_STATUS, from initialize() on. Nothing is sent earlier because a tag has changed.
    static constexpr int BaseStatusIntervalMs = 500;

    /// Orders the list of application checksums, and warns of tags that BASE_STATUS lacks. Both stores outlive the hub;
    /// null ones have no units, no identity and no tags.
    RGPCom(TagDatabase* tagDatabase, Configuration* config, QObject* parent);
    /// Ends the transports' threads, each within a bound: those of the TCP links in 2 s together, that of the fallback
    /// in 1 s. One that hangs is logged, and what it uses is left to it.
    ~RGPCom() override;

    /// Starts the fallback transport, the GLink server and the rhythm of BASE_STATUS. Called again it only logs. The
    /// services' own signals are connected in the services' thread, where they may be emitted at any moment: by a
    /// queued order, so what units send over the fallback before that thread gets to it is lost. Without a service its
    /// path is missing, with a warning. A server that cannot listen is fatal.
    void initialize(GfallbackServiceC* gFallback, CFallbackServiceC* cFallback);

    /// The same for a test that runs everything in one thread, without a server: connections come by addGLink().
    void initializeInOneThread(GfallbackServiceC* gFallback, CFallbackServiceC* cFallback);

    /// The unit's connection, for tests and diagnosis; null for one that never had a link.
    const GLinkConnection* connectionOf(quint16 remoteId) const { return m_connection.value(remoteId); }

    /// Decides on an INIT and queues the answer. An INIT for an unknown unit gets none, and one that came over a link
    /// which the unit has replaced meanwhile neither. Before the first list of checksums is complete, the decision is
    /// put off until it is; and while a new list is being made, so is a refusal by the old one.
    ///
    /// | unit configured, and base id ours | list of checksums           | its checksum | answer                   |
    /// |-----------------------------------|-----------------------------|--------------|--------------------------|
    /// | no                                | –                           | –            | 1, at once               |
    /// | yes                               | the first is being made     | –            | put off until it is      |
    /// | yes                               | has no application of units | –            | 0                        |
    /// | yes                               | complete                    | equal        | 0                        |
    /// | yes                               | complete, a new one is made | another      | put off, then by the new |
    /// | yes                               | complete                    | another      | 4                        |
    ///
    /// Whatever the answer, the link it came over is usable from the decision on. The answer goes before all that waits
    /// for the unit, and after an accepting one the kept periodic data, the machine controller's if there is any and
    /// the base controller's otherwise: of periodic data only the newest waits. Of several INITs whose decision is put
    /// off, the last one of each unit and link counts. Never waits.
    void handleInitMsg(const GLinkInitMsg& init, GLinkTransportBase* channel);

    /// The unit whose machine stop counts: the low 16 bits of the tag "armed_ru", 0 when there is none.
    quint16 getCommandReceiver() const;
    /// Writes the ids of all known units to the debug log, a line each, or "  none".
    void showConnected() const;

    /// Whether one of the configured remote units has that id, and whether `id` is that of this base unit.
    bool isRuPaired(quint16 ruId) const;
    bool isBuId(quint16 id) const;

    /// Looks for the remote units' application on the disk, and for its digest in the last complete list. Waits for the
    /// first list; later ones replace it when they are complete (see configChanged). The hub itself judges by what was
    /// found when a list was last made, and waits for nothing.
    /// @return false, `result` untouched, when no application for remote units is installed. Otherwise `result` has 16
    ///         bytes, or none for an application that the list does not have: no unit's checksum equals that.
    bool getAppChecksum(QByteArray& result);
    /// Orders the list, which is made in the background. Without an application object nothing is ordered.
    void populateChecksumList();

public slots:
    // From the transports, queued, in the order in which each transport tells it. A link must be added before data come
    // over it.

    /// The unit has introduced itself over the fallback. Its link is known, and used only after handleInitMsg().
    void addFallbackLink(quint16 remoteId);
    /// Behind addFallbackLink(): the number of that INIT among all INITs.
    void noteFallbackIntroduction(quint16 remoteId, quint64 introduction);
    /// The unit has left the fallback. If it is on TCP by now, what waits for it on the fallback is dropped there.
    void removeFallbackLink(quint16 remoteId);
    /// The unit has introduced itself over this transport, which stays the GLink server's. An older one of the same
    /// unit is told to close.
    void addGLink(quint16 remoteId, GLinkTransportTcp* gLink);
    /// The unit's TCP link is gone. As a slot of a transport that another one has replaced it does nothing.
    void removeGLink(quint16 remoteId);

    /// One message, by the table above. `data` is the payload without header and CRCs, unchecked: the receivers judge
    /// its size. A machine stop while "armed_ru" or "bu_state" holds what is no number is a fatal assertion; a missing
    /// one of them reads as 0.
    void dataFromGLink(quint16 remoteId, quint8 msgId, const QByteArray& data, GLinkTransportBase* const channel);
    /// The unit has acknowledged the message in flight, if that has the number `refNr`: its next one goes out.
    /// `channel` is not looked at.
    void messageSent(quint16 remoteId, quint32 refNr, GLinkTransportBase* channel);
    /// Of the fallback it counts who acknowledged, not whom the transport credits: messageSent would name the unit of
    /// the last send.
    void acknowledgedOverFallback(quint16 remoteId, quint8 msgId);

    /// Hands a message to one unit: out at once if nothing of it is in flight, else queued. For a unit without a link
    /// it is dropped, with all that still waits. Main thread.
    /// @param data  at most 65535 bytes, which is what a frame can carry; more is dropped by the transport.
    void send(quint16 remoteId, quint8 msgId, const QByteArray& data);
    /// The same for every unit that has a connection, by rising id. The bytes are shared and not copied for each.
    void sendToAll(quint8 msgId, const QByteArray& data);
    /// A command to all units, in a later turn of the event loop. Any thread; commands stay in the order of the calls.
    void sendCmd(const QByteArray& data);

    /// Periodic data, sent to all units and kept for those that join later. Field bus and machine controller. Any
    /// thread; the origin's byte is put in front here. A unit that is slow in acknowledging misses all but the newest
    /// block.
    void receivePeriodicFromECLink(QByteArray data);
    void receivePeriodicFromEGLink(QByteArray data);

    /// Process data from the base controller: passed on to the machine-controller link without its first two bytes,
    /// with two zero bytes appended. So its size stays the same, from two bytes on, and what that link cannot carry
    /// (more than 492 bytes) is fatal there, if it runs.
    void receiveFromService(QByteArray data);
    /// A service message of the base controller for one unit, in a later turn of the event loop. Any thread.
    void recvServiceForward(QByteArray data, quint16 receiverRuId);

    /// Applications or their configuration have changed: makes the list of their checksums anew, in the background.
    /// Until it is complete INIT is accepted by the one before, and refused by the new one.
    void configChanged();

    /// Reads the tags now and sends the record of `BaseStatus` to all units in a later turn of the event loop.
    void sendBaseStatusToRemote();
    /// Forgets a unit, and lowers "total_rus". The connection goes by the event loop, since it may be the caller.
    void deleteConnection(quint16 ruId);

signals:
    // All emitted in the main thread.

    /// Periodic data of a unit. Nobody in the server listens.
    void readyReadFromRGP(quint16 sender, quint8 msgId, const QByteArray& data);
    /// A command of a unit, armed or not; who sent it is not told. Wakes the service-layer thread, and that of the
    /// machine-controller link if it runs.
    void readyReadCmdFromRGP(const QByteArray& data);
    /// See receiveFromService().
    void sendToEGLink(QByteArray data);
    /// Declared for listeners of long standing; never emitted.
    void sendToService(QByteArray data);
    /// A service message of the unit `receiver`, which is its sender in truth.
    void sendServiceForwardToService(QByteArray data, quint16 receiver);
    /// Wakes the relay thread, which looks a second later whether the relay has opened. How soon after the message this
    /// is emitted, whatever else stands still, is told in docs/safety.md.
    void machineStopActivatedOnArmedRemote();

private:
    /// An INIT that waits for a list of checksums, by unit and channel: the last one.
    struct Undecided
    {
        GLinkInitMsg init;
        QPointer<GLinkTransportBase> channel;
    };
    using UndecidedKey = QPair<quint16, GLinkTransportBase*>;

    struct TagNumber
    {
        unsigned int value;
        bool isNumber; ///< a missing tag is the number 0
    };
    TagNumber tagNumber(const char* tagName) const;
    void warnOfMissingTags() const;
    void showConnectionCount();

    void makeFallbackLink();
    void startFallbackLink(GfallbackServiceC* gFallback, CFallbackServiceC* cFallback);
    void connectFallback(GfallbackServiceC* gFallback);
    void connectServiceForwards(CFallbackServiceC* cFallback);
    void startBaseStatus();
    void stopFallbackLink();

    void insertConnection(quint16 remoteId, GLinkConnection* connection);
    void withdrawFromFallback(const GLinkConnection* connection);
    void takeBackFromFallback(quint16 remoteId, const QByteArrayList& frames);
    void handleMachineStop(quint16 remoteId);
    bool belongsHere(const GLinkInitMsg& init) const;
    bool mustAwaitChecksums(const GLinkInitMsg& init);
    void decide(const GLinkInitMsg& init, GLinkTransportBase* channel);
    void takeOrderedList();
    void decideLater(const GLinkInitMsg& init, GLinkTransportBase* channel);
    GLinkInitAck verdictOn(const GLinkInitMsg& init);
    void sendKeptPeriodicData(GLinkConnection* connection);
    void reportRefusal(quint16 remoteId, const GLinkInitAck& answer);
    void relayPeriodicData(PeriodicDataOrigin origin, QByteArray data, QByteArray RGPCom::*kept);

    GLinkTransportFallback* m_gFallbackLink = nullptr;
    /// Keeps m_gFallbackLink. Shared with the order to connect the services to it, which their thread carries out.
    std::shared_ptr<GLinkTransportFallback> m_fallbackOwner;
    bool m_isFallbackServed = false;              ///< there is a service that gives back what is withdrawn
    QMap<quint16, GLinkConnection*> m_connection; ///< by remote id; owned
    TagDatabase* const m_tagDatabase;             ///< not owned; may be null
    GLinkServer* m_gLinkServer = nullptr;         ///< owned; from initialize() on
    Configuration* const m_config;                ///< not owned; may be null
    QByteArray m_periodicECData;                  ///< last block, with its origin byte; empty before the first
    QByteArray m_periodicEGData;                  ///< the same
    QTimer* m_baseStatusTimer = nullptr;
    AppLog* const m_log = nullptr;          ///< nobody keeps records of single units
    ApplicationChecksumList m_checksumList; ///< the last complete one; empty before the first has been taken
    std::shared_future<ApplicationChecksumList> m_orderedList; ///< valid until the first list has been taken
    std::shared_future<ApplicationChecksumList> m_renewedList; ///< the last one that configChanged() ordered
    QMap<UndecidedKey, Undecided> m_undecided;                 ///< at most one for each unit and link
    int m_renewals = 0;                                        ///< ordered by configChanged() and not taken over yet
    quint16 m_lastReportedErrorRU = 0;  ///< a unit that retries every few seconds is reported once
    QPointer<QThread> m_fallbackThread; ///< null when everything runs in one thread
};
