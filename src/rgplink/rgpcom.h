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

/// First byte of every block of periodic data that the base unit sends.
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
class RGPCom : public QObject
{
    Q_OBJECT

public:
    /// Why an INIT is refused, as remote units understand it.
    enum InitError : quint16 {
        INIT_ACCEPTED = 0,
        INIT_NOT_PAIRED = 1,
        INIT_CHECKSUM_MISMATCH = 4,
    };

    /// Port of the GLink server.
    static constexpr quint16 GLinkPort = 1147;
    static constexpr int BaseStatusIntervalMs = 500;

    /// Orders the list of application checksums, and warns of tags that BASE_STATUS lacks. Both stores outlive the hub;
    /// null ones have no units, no identity and no tags.
    RGPCom(TagDatabase* tagDatabase, Configuration* config, QObject* parent);
    /// Ends the transports' threads, each within a bound.
    ~RGPCom() override;

    /// Starts the fallback transport, the GLink server and the rhythm of BASE_STATUS. Called again it only logs. The
    /// services' own signals are connected in the services' thread, where they may be emitted at any moment.
    /// Without a service its path is missing, with a warning. A server that cannot listen is fatal.
    void initialize(GfallbackServiceC* gFallback, CFallbackServiceC* cFallback);

    /// The same for a test that runs everything in one thread, without a server: connections come by addGLink().
    void initializeInOneThread(GfallbackServiceC* gFallback, CFallbackServiceC* cFallback);

    /// The unit's connection, for tests and diagnosis; null for one that never had a link.
    const GLinkConnection* connectionOf(quint16 remoteId) const { return m_connection.value(remoteId); }

    /// Decides on an INIT and queues the answer. An INIT for an unknown unit gets none, and one that came over a link
    /// which the unit has replaced meanwhile neither. Before the first list of checksums is complete, the decision is
    /// put off until it is; and while a new list is being made, so is a refusal by the old one.
    void handleInitMsg(const GLinkInitMsg& init, GLinkTransportBase* channel);

    /// The unit whose machine stop counts.
    quint16 getCommandReceiver() const;
    /// Writes the ids of all known units to the debug log.
    void showConnected() const;

    /// Whether one of the configured remote units has that id, and whether `id` is that of this base unit.
    bool isRuPaired(quint16 ruId) const;
    bool isBuId(quint16 id) const;

    /// Looks for the remote units' application on the disk, and for its digest in the last complete list. Waits for the
    /// first list; later ones replace it when they are complete (see configChanged). The hub itself judges by what was
    /// found when a list was last made, and waits for nothing.
    /// @return false, `result` untouched, when no application for remote units is installed.
    bool getAppChecksum(QByteArray& result);
    /// Orders the list, which is made in the background.
    void populateChecksumList();

public slots:
    void addFallbackLink(quint16 remoteId);
    /// Behind addFallbackLink(): the number of that INIT among all INITs.
    void noteFallbackIntroduction(quint16 remoteId, quint64 introduction);
    void removeFallbackLink(quint16 remoteId);
    void addGLink(quint16 remoteId, GLinkTransportTcp* gLink);
    /// The unit's TCP link is gone. As a slot of a transport that another one has replaced it does nothing.
    void removeGLink(quint16 remoteId);

    void dataFromGLink(quint16 remoteId, quint8 msgId, const QByteArray& data, GLinkTransportBase* const channel);
    void messageSent(quint16 remoteId, quint32 refNr, GLinkTransportBase* channel);
    /// Of the fallback it counts who acknowledged, not whom the transport credits: messageSent would name the unit of
    /// the last send.
    void acknowledgedOverFallback(quint16 remoteId, quint8 msgId);

    void send(quint16 remoteId, quint8 msgId, const QByteArray& data);
    void sendToAll(quint8 msgId, const QByteArray& data);
    void sendCmd(const QByteArray& data);

    /// Periodic data, sent to all units and kept for those that join later. Field bus and machine controller.
    void receivePeriodicFromECLink(QByteArray data);
    void receivePeriodicFromEGLink(QByteArray data);

    /// Process data from the base controller: passed on to the machine-controller link without its first two bytes,
    /// with two zero bytes appended.
    void receiveFromService(QByteArray data);
    void recvServiceForward(QByteArray data, quint16 receiverRuId);

    /// Applications or their configuration have changed: makes the list of their checksums anew, in the background.
    /// Until it is complete INIT is accepted by the one before, and refused by the new one.
    void configChanged();

    void sendBaseStatusToRemote();
    void deleteConnection(quint16 ruId);

signals:
    void readyReadFromRGP(quint16 sender, quint8 msgId, const QByteArray& data);
    void readyReadCmdFromRGP(const QByteArray& data);
    void sendToEGLink(QByteArray data);
    void sendToService(QByteArray data);
    void sendServiceForwardToService(QByteArray data, quint16 receiver);
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
        bool isNumber;
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
    QMap<quint16, GLinkConnection*> m_connection;
    TagDatabase* const m_tagDatabase;
    GLinkServer* m_gLinkServer = nullptr;
    Configuration* const m_config;
    QByteArray m_periodicECData; ///< last block, with its origin byte
    QByteArray m_periodicEGData;
    QTimer* m_baseStatusTimer = nullptr;
    AppLog* const m_log = nullptr;
    ApplicationChecksumList m_checksumList;
    std::shared_future<ApplicationChecksumList> m_orderedList; ///< valid until the first list has been taken
    std::shared_future<ApplicationChecksumList> m_renewedList; ///< the last one that configChanged() ordered
    QMap<UndecidedKey, Undecided> m_undecided;
    int m_renewals = 0;                ///< ordered by configChanged() and not taken over yet
    quint16 m_lastReportedErrorRU = 0; ///< a unit that retries every few seconds is reported once
    QPointer<QThread> m_fallbackThread;
};
