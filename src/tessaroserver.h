#pragma once

#include <QMap>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QVariant>

class APIServer;
class CFallbackServiceC;
class Configuration;
class ConfigurationReload;
class ConfigurationService;
class EGLink;
class FbCmdService;
class FbPeriodicService;
class GfallbackServiceC;
class GLinkServer;
class MsRelayControl;
class PairServer;
class QThread;
class RGPCom;
class ServiceBase;
class ServiceLayer;
class SystemEventService;
class Tag;
class TagDatabase;
class TransportLayer;
class Watchdog;

/// The name of a base-unit state, a value of the tag "bu_state". The armed states are numbered from 16.
///
/// | state | name    | state | name                | state | name   | state | name     |
/// |------:|---------|------:|---------------------|------:|--------|------:|----------|
/// |     0 | INITIAL |     2 | EXTERNAL_LINK_ERROR |     4 | FAILED |    16 | DISARMED |
/// |     1 | STOPPED |     3 | BLOCKED             |       |        |    17 | ARMED    |
///
/// @return "UNKNOWN" for any other number.
QString BuStateToString(int state);

/// The root of the object tree: builds every long-lived component in a fixed order, starts the worker threads and makes
/// every connection between components. Lives in the main thread; what waits for a disk it puts into the file thread.
///
/// The constructor returns when the internal-link stack is up in its thread and knows its receivers; by then it has
/// told the service manager, if there is one, that the server is ready. The destructor opens the machine-stop relay,
/// asks every worker thread to quit and joins each within ThreadJoinTimeoutMs, then releases the components in the
/// reverse order of their making. If a thread does not end in time, that is logged and the process ends at once, with
/// exit code 0 and nothing released.
///
/// The start, in order. Whatever fails in it is fatal, logged and left out, or tried again later, as the header of the
/// component says; the server as a whole knows no failed start.
///
/// | step                                                              | in the thread | main thread             |
/// |-------------------------------------------------------------------|---------------|-------------------------|
/// | set the GPIO lines up, close the relay, have it opened by a crash | relay         | waits                   |
/// | load the tags                                                     | main          | waits for the disk      |
/// | undo pairings that were cut short, read the configuration         | file          | waits, for the disk too |
/// | start the local interface                                         | API           | goes on                 |
/// | make the hub, which orders the checksums of applications          | main          |                         |
/// | open the UART, build the services, connect all components         | service layer | waits                   |
/// | make the pairing service                                          | file          | waits                   |
/// | ask for priorities and locked memory, tell the service manager    | main          |                         |
///
/// What the base controller says later, by the tag "bu_identity", does the rest: hub and machine-controller link start.
///
/// The end, in order: relay open (its own thread has RelayPatienceMs for that), STOPPING=1, then the threads of the
/// machine-controller link, the local interface, the files, the service layer, the relay and the checksums, one after
/// the other, then the hub with the threads of its links, configuration and tags. A thread that hangs costs its second,
/// and the others are joined all the same.
///
/// One per process: it takes the UART, the GPIO lines and fixed ports. The application object exists before it and
/// outlives it.
class TessaroServer : public QObject
{
    Q_OBJECT

public:
    /// How long the end waits for each worker thread. Only one that hangs, at a disk for instance, comes near it.
    static constexpr unsigned long ThreadJoinTimeoutMs = 1000;
    /// How long the end waits for the relay's thread before it opens the relay itself.
    static constexpr int RelayPatienceMs = 100;

    /// In the main thread. Writes the banner, then goes through the steps of the table; nothing of what other threads
    /// send is handled here before control is back in the event loop.
    explicit TessaroServer(QObject* parent = nullptr);
    /// In the main thread, behind the end of its event loop. May not return: see above.
    ~TessaroServer() override;

    /// Size in bytes of the output image that the machine controller sends: the end of the EGOT tag with the highest
    /// start byte. The first of several tags with that start byte decides; tags at byte 0 never do. An empty tag table
    /// is a fatal assertion.
    ///
    ///     EGOT tags at byte 4, of 4 bytes, and at byte 10, of 2 bytes: 12
    ///     only one, at byte 0, of 8 bytes, or none: 0, and no set of data will ever be complete
    ///
    /// Asked once, when the machine-controller link is made; goes through all tags.
    quint32 getVRPOByteCount();
    /// The same of another table, which is only read.
    static quint32 vrpoByteCountOf(TagDatabase& tags);

public slots:
    // Reached by queued signals of other threads or by tags; all run in the main thread.

    /// Shows the state of the machine-controller link in the tag "eglink_status", from which the status record to the
    /// base controller takes it. Without that tag nothing happens.
    /// @param value  an EGLinkState as the link reports it.
    void updateEgLinkStatus(quint8 value);

    /// Creates the machine-controller link at the first non-zero identity; a second one is a fatal assertion, and so is
    /// the first one again after a 0: the restarted process begins with the new one. A configuration without "EMAP" is
    /// a fatal assertion, too.
    ///
    /// Group and port are those of "MCIP" and "MCPT" at this moment; a later change has no effect before the next start
    /// of the process. The link runs only if "EMAP" is not 0.
    void initializeEgLink(QVariant buIdentity);

    /// Starts the hub, whatever the identity is. Called at each change of the identity; only the first call counts.
    void initializeRgpCom(QVariant buIdentity);

    /// Tells the state in the log, by its name, or as UNKNOWN. What is no number counts as 0.
    void buStateChanged(QVariant buState);

private:
    void createFileThread();
    void createConfiguration();
    void createPairServer();
    template<typename Step>
    void inFileThread(Step step); ///< returns when the step is done
    void createRelayControl();
    void createApiServer();
    void createServiceLayer();
    void bringUpServices();
    void resolveServices();
    void connectComponents();
    void connectTagUpdates(const QString& tagName, const char* slot);
    void startEgLinkThread();
    void claimRights();
    void startWatchdog();
    void openRelay();
    bool joinThreads();
    static bool stopChecksums();
    static bool joinThread(QThread* thread, const char* name); ///< deletes the thread that has ended

    template<typename Service>
    Service* service(unsigned char id); ///< null where `services` has none of that id or type

    // What lives in another thread is reached by queued calls only; docs/architecture.md has the table of who frees
    // what.
    TagDatabase* tagDatabase = nullptr;       ///< main thread; its values may be read in any
    RGPCom* rgpCom = nullptr;                 ///< main thread; listens from the first identity on
    TransportLayer* transportLayer = nullptr; ///< owned and used by the service layer alone
    Configuration* myConfiguration = nullptr; ///< main thread; looked up in any, reloaded in the file thread
    EGLink* egLink = nullptr; ///< null before the first identity; without a thread when the key EMAP is 0
    MsRelayControl* msRelayControl = nullptr; ///< relay thread, whose end deletes it
    ServiceLayer* serviceLayer = nullptr;     ///< service-layer thread, whose end deletes it with all its services

    // Children of the service layer, from `services`; in its thread.
    SystemEventService* eventService = nullptr;
    ConfigurationService* configurationService = nullptr;
    FbPeriodicService* fbPeriodicService = nullptr;
    FbCmdService* fbCmdService = nullptr;
    GfallbackServiceC* gFallbackService = nullptr;
    CFallbackServiceC* cFallbackService = nullptr;

    PairServer* pairServer = nullptr;           ///< child of m_fileWork
    QMap<unsigned char, ServiceBase*> services; ///< by id; filled once, in the service-layer thread, which owns them
    GLinkServer* gLinkServer = nullptr;         ///< owned and used by the hub alone
    APIServer* apiServer = nullptr;             ///< API thread, whose end deletes it

    ConfigurationReload* m_reload = nullptr; ///< child of m_fileWork; request() is called from any thread
    QObject* m_fileWork = nullptr; ///< parent of what lives in the file thread: the reload and the pair server

    QThread* m_fileThread = nullptr;
    Watchdog* m_watchdog = nullptr; ///< main thread; watches the relay, API and service-layer threads
    QThread* m_relayThread = nullptr;
    QThread* m_apiThread = nullptr;
    QThread* m_serviceThread = nullptr;
    QPointer<QThread> m_egLinkThread; ///< deletes itself when it finishes
};
