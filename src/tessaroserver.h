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
QString BuStateToString(int state);

/// The root of the object tree: builds every long-lived component in a fixed order, starts the worker threads and makes
/// every connection between components. Lives in the main thread; what waits for a disk it puts into the file thread.
///
/// The constructor returns when the internal-link stack is up in its thread and knows its receivers; by then it has
/// told the service manager, if there is one, that the server is ready. The destructor opens the machine-stop relay,
/// asks every worker thread to quit and joins each within ThreadJoinTimeoutMs, then releases the components in the
/// reverse order of their making. If a thread does not end in time, that is logged and the process ends at once, with
/// exit code 0 and nothing released.
class TessaroServer : public QObject
{
    Q_OBJECT

public:
    static constexpr unsigned long ThreadJoinTimeoutMs = 1000;
    /// How long the end waits for the relay's thread before it opens the relay itself.
    static constexpr int RelayPatienceMs = 100;

    explicit TessaroServer(QObject* parent = nullptr);
    ~TessaroServer() override;

    /// Size in bytes of the output image that the machine controller sends: the end of the EGOT tag with the highest
    /// start byte. The first of several tags with that start byte decides; tags at byte 0 never do. An empty tag table
    /// is a fatal assertion.
    quint32 getVRPOByteCount();
    static quint32 vrpoByteCountOf(TagDatabase& tags);

public slots:
    /// Shows the state of the machine-controller link in the tag "eglink_status".
    void updateEgLinkStatus(quint8 value);
    /// Creates the machine-controller link at the first non-zero identity; a second one is a fatal assertion.
    void initializeEgLink(QVariant buIdentity);
    /// Starts the hub, whatever the identity is.
    void initializeRgpCom(QVariant buIdentity);
    /// Tells the state in the log, by its name.
    void buStateChanged(QVariant buState);

private:
    void createFileThread();
    void createConfiguration();
    void createPairServer();
    template<typename Step>
    void inFileThread(Step step);
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
    static bool joinThread(QThread* thread, const char* name);

    template<typename Service>
    Service* service(unsigned char id);

    // What lives in another thread is reached by queued calls only; docs/architecture.md has the table of who frees
    // what.
    TagDatabase* tagDatabase = nullptr;
    RGPCom* rgpCom = nullptr;
    TransportLayer* transportLayer = nullptr; ///< owned and used by the service layer alone
    Configuration* myConfiguration = nullptr;
    EGLink* egLink = nullptr; ///< null before the first identity; without a thread when the key EMAP is 0
    MsRelayControl* msRelayControl = nullptr;
    ServiceLayer* serviceLayer = nullptr;
    SystemEventService* eventService = nullptr;
    ConfigurationService* configurationService = nullptr;
    FbPeriodicService* fbPeriodicService = nullptr;
    FbCmdService* fbCmdService = nullptr;
    GfallbackServiceC* gFallbackService = nullptr;
    CFallbackServiceC* cFallbackService = nullptr;
    PairServer* pairServer = nullptr;
    QMap<unsigned char, ServiceBase*> services; ///< by id; filled once, in the service-layer thread, which owns them
    GLinkServer* gLinkServer = nullptr;         ///< owned and used by the hub alone
    APIServer* apiServer = nullptr;

    ConfigurationReload* m_reload = nullptr;
    QObject* m_fileWork = nullptr; ///< parent of what lives in the file thread: the reload and the pair server

    QThread* m_fileThread = nullptr;
    Watchdog* m_watchdog = nullptr;
    QThread* m_relayThread = nullptr;
    QThread* m_apiThread = nullptr;
    QThread* m_serviceThread = nullptr;
    QPointer<QThread> m_egLinkThread; ///< deletes itself when it finishes
};
