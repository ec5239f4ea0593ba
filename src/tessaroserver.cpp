#include "tessaroserver.h"

#include "apiserver.h"
#include "applicationchecksums.h"
#include "cfallback_service_c.h"
#include "configuration.h"
#include "configuration_service.h"
#include "configurationreload.h"
#include "eglink.h"
#include "fb_cmd_service.h"
#include "fb_periodic_service.h"
#include "gfallback_service_c.h"
#include "logwriter.h"
#include "msrelaycontrol.h"
#include "myassertfunc.h"
#include "pairingrecovery.h"
#include "pairserver.h"
#include "rgpcom.h"
#include "service_layer.h"
#include "system_event_service.h"
#include "tagdatabase.h"
#include "threads.h"
#include "watchdog.h"

#include <QDebug>
#include <QHostAddress>
#include <QSemaphore>
#include <QStringList>
#include <QThread>

#include <chrono>
#include <cstdlib>
#include <memory>

namespace {

constexpr char SourceUnit[] = "src/tessaroserver";

enum FatalLine : unsigned int {
    EnableMapMissing = 119,
    EgLinkCreatedTwice = 168,
    TagTableEmpty = 186,
};

const QString BuIdentityTag = QStringLiteral("bu_identity");
const QString BuStateTag = QStringLiteral("bu_state");
const QString EgLinkStatusTag = QStringLiteral("eglink_status");

const QString EnableMapKey = QStringLiteral("EMAP");
const QString MulticastGroupKey = QStringLiteral("MCIP");
const QString MulticastPortKey = QStringLiteral("MCPT");

const QString DefaultMulticastGroup = QStringLiteral("239.255.42.20");
constexpr quint16 DefaultMulticastPort = 5825;

struct BuStateName
{
    int state;
    const char* name;
};

constexpr BuStateName BuStateNames[] = {
    {0, "INITIAL"},   {1, "STOPPED"}, {2, "EXTERNAL_LINK_ERROR"}, {3, "BLOCKED"}, {4, "FAILED"},
    {16, "DISARMED"}, {17, "ARMED"},
};

QHostAddress multicastGroup(Configuration& configuration)
{
    bool found = false;
    const QByteArray text = configuration.getAppTag(MulticastGroupKey, &found);
    return QHostAddress(found ? QString::fromLatin1(text) : DefaultMulticastGroup);
}

quint16 multicastPort(Configuration& configuration)
{
    bool found = false;
    const QByteArray text = configuration.getAppTag(MulticastPortKey, &found);
    return found ? static_cast<quint16>(text.toUInt(nullptr, 10)) : DefaultMulticastPort;
}

quint16 enableMap(Configuration& configuration)
{
    bool found = false;
    const QByteArray text = configuration.getAppTag(EnableMapKey, &found);
    if (!found) {
        myAssertFunc(SourceUnit, EnableMapMissing);
    }
    return static_cast<quint16>(text.toUInt(nullptr, 10));
}

} // namespace

QString BuStateToString(int state)
{
    for (const BuStateName& known : BuStateNames) {
        if (known.state == state) {
            return QString::fromLatin1(known.name);
        }
    }
    return QStringLiteral("UNKNOWN");
}

TessaroServer::TessaroServer(QObject* parent)
    : QObject(parent)
{
    qInfo() << "Starting TZ-400 Tessaro Server [ build of " << __DATE__ << " " << __TIME__ << "]";
    createRelayControl();
    tagDatabase = new TagDatabase(this);
    tagDatabase->prePopulate();
    createFileThread();
    createApiServer();
    rgpCom = new RGPCom(tagDatabase, myConfiguration, this);
    connectTagUpdates(BuIdentityTag, SLOT(initializeRgpCom(QVariant)));
    connectTagUpdates(BuStateTag, SLOT(buStateChanged(QVariant)));
    createServiceLayer();
    inFileThread([this] { createPairServer(); });
    claimRights();
    startWatchdog();
}

TessaroServer::~TessaroServer()
{
    // The safe state first: whatever follows may take a moment.
    openRelay();
    m_watchdog->stop();

    // The producers of the main thread's work end before what they work on.
    if (!joinThreads()) {
        // Nothing may be released under a thread that still runs, neither here nor by the C library at its exit.
        LogWriter::flushInstalled();
        std::_Exit(EXIT_SUCCESS);
    }
    delete rgpCom;
    delete myConfiguration;
    delete tagDatabase;
}

/// Makes the control in its own thread, which has nothing else to do, and waits until the relay is set up.
void TessaroServer::createRelayControl()
{
    m_relayThread = Threads::make("relay");
    QObject messenger;
    messenger.moveToThread(m_relayThread);
    m_relayThread->start(QThread::InheritPriority);
    const auto create = [this, &messenger] {
        Threads::claimPriority(Threads::Role::Relay);
        msRelayControl = new MsRelayControl(nullptr);
        msRelayControl->openOnCrash();
        connect(m_relayThread, &QThread::finished, msRelayControl, &MsRelayControl::deleteLater);
        messenger.moveToThread(thread());
    };
    QMetaObject::invokeMethod(&messenger, create, Qt::BlockingQueuedConnection);
}

/// Once the start is over, nothing that waits for a disk is done in any other thread of ours. Whatever holds this one
/// up holds up configuration and pairing, and nobody else.
void TessaroServer::createFileThread()
{
    m_fileThread = Threads::make("files");
    m_fileWork = new QObject;
    m_fileWork->moveToThread(m_fileThread);
    connect(m_fileThread, &QThread::started, m_fileWork, [] { Threads::claimPriority(Threads::Role::Background); });
    connect(m_fileThread, &QThread::finished, m_fileWork, &QObject::deleteLater);
    m_fileThread->start(QThread::InheritPriority);
    inFileThread([this] { createConfiguration(); });
    myConfiguration->setParent(this);
}

/// Runs in the file thread. What an interrupted pairing has left is cleared away before it is read. The rows that are
/// loaded here are freed here, after a reload: a large configuration that the main thread had allocated would keep the
/// main thread's heap locked meanwhile.
void TessaroServer::createConfiguration()
{
    recoverPairings(ConfigurationSources().remotesFile);
    myConfiguration = new Configuration(nullptr);
    myConfiguration->writeFilesIn(m_fileWork);
    m_reload = new ConfigurationReload(myConfiguration, ConfigurationReload::Rest, m_fileWork);
    myConfiguration->moveToThread(thread());
}

/// Runs in the file thread, where the server lives with its sockets.
void TessaroServer::createPairServer()
{
    pairServer = new PairServer(myConfiguration, tagDatabase, m_fileWork);
    connect(pairServer, &PairServer::pairingComplete, rgpCom, &RGPCom::configChanged);
}

/// For the start: the main thread waits.
template<typename Step>
void TessaroServer::inFileThread(Step step)
{
    QMetaObject::invokeMethod(m_fileWork, step, Qt::BlockingQueuedConnection);
}

void TessaroServer::createApiServer()
{
    apiServer = new APIServer(tagDatabase, nullptr);
    m_apiThread = Threads::make("api");
    connect(m_apiThread, &QThread::started, apiServer, &APIServer::start);
    connect(m_apiThread, &QThread::finished, apiServer, &APIServer::deleteLater);
    apiServer->moveToThread(m_apiThread);
    m_apiThread->start(QThread::InheritPriority);
}

void TessaroServer::createServiceLayer()
{
    m_serviceThread = Threads::make("service-layer");
    serviceLayer = new ServiceLayer(rgpCom, myConfiguration, tagDatabase, nullptr);
    serviceLayer->moveToThread(m_serviceThread);
    connect(m_serviceThread, &QThread::finished, serviceLayer, &ServiceLayer::deleteLater);
    m_serviceThread->start(QThread::InheritPriority);
    QMetaObject::invokeMethod(
        serviceLayer, [this] { bringUpServices(); }, Qt::BlockingQueuedConnection);
}

/// Runs in the service layer's thread while the main thread waits. Nothing that the base controller answers can be
/// handled before this returns, so every connection is in place by then: a link that reaches RUN while the start is
/// still busy would otherwise announce it to nobody, and the configuration would never be fetched.
void TessaroServer::bringUpServices()
{
    Threads::claimPriority(Threads::Role::ServiceLayer);
    serviceLayer->initialize();
    services = serviceLayer->getServices();
    resolveServices();
    connectComponents();
}

template<typename Service>
Service* TessaroServer::service(unsigned char id)
{
    return qobject_cast<Service*>(services[id]);
}

void TessaroServer::resolveServices()
{
    eventService = service<SystemEventService>(SERVICE_SYSTEM_EVENT);
    configurationService = service<ConfigurationService>(SERVICE_CONFIGURATION);
    fbPeriodicService = service<FbPeriodicService>(SERVICE_FB_PERIODIC);
    fbCmdService = service<FbCmdService>(SERVICE_FB_CMD);
    gFallbackService = service<GfallbackServiceC>(SERVICE_G_FALLBACK);
    cFallbackService = service<CFallbackServiceC>(SERVICE_C_FALLBACK);
}

void TessaroServer::connectComponents()
{
    connect(rgpCom, &RGPCom::machineStopActivatedOnArmedRemote, msRelayControl, &MsRelayControl::machineStopPressed);
    connect(eventService, &SystemEventService::systemStateChanged, msRelayControl, &MsRelayControl::systemStateSlot);
    connect(msRelayControl, &MsRelayControl::bcMachineStopFail, eventService, &SystemEventService::internalLinkFailed);
    connectTagUpdates(BuIdentityTag, SLOT(initializeEgLink(QVariant)));
    connect(fbPeriodicService, SIGNAL(sendToRGP(QByteArray)), rgpCom, SLOT(receivePeriodicFromECLink(QByteArray)));
    connect(fbCmdService, SIGNAL(sendCmdToRGPCom(QByteArray)), rgpCom, SLOT(sendCmd(QByteArray)));
    connect(rgpCom, SIGNAL(readyReadCmdFromRGP(QByteArray)), fbCmdService, SLOT(sendCmd(QByteArray)));
    // What answers a request before what makes one, which may come at once. Requests are direct: however many come,
    // they wake the file thread alone, and at its own pace.
    connect(m_reload, &ConfigurationReload::reloaded, eventService, &SystemEventService::sendReconfig);
    connect(m_reload, &ConfigurationReload::reloaded, rgpCom, &RGPCom::configChanged);
    connect(apiServer, &APIServer::configChangeMsgReceived, m_reload, &ConfigurationReload::request,
            Qt::DirectConnection);
    connect(apiServer, &APIServer::ruDisarmMsgReceived, eventService, &SystemEventService::releaseArm);
    connect(apiServer, &APIServer::egResetMsgReceived, eventService, &SystemEventService::sendECLinkReset);
    connect(eventService, &SystemEventService::BCConfigChanged, configurationService,
            &ConfigurationService::readBCConfig);
    connect(myConfiguration, &Configuration::configurationChanged, m_reload, &ConfigurationReload::request,
            Qt::DirectConnection);
    connect(myConfiguration, &Configuration::eglinkIpChanged, eventService, &SystemEventService::sendEGReconfig);
}

void TessaroServer::connectTagUpdates(const QString& tagName, const char* slot)
{
    Tag* const tag = tagDatabase->get(tagName);
    if (tag == nullptr) {
        qWarning() << "TessaroServer: missing tag" << tagName;
        return;
    }
    connect(tag, SIGNAL(valueUpdated(QVariant)), this, slot);
}

void TessaroServer::initializeRgpCom(QVariant buIdentity)
{
    Q_UNUSED(buIdentity)
    qDebug() << "TessaroServer::initializeRgpCom";
    rgpCom->initialize(gFallbackService, cFallbackService);
}

void TessaroServer::initializeEgLink(QVariant buIdentity)
{
    const unsigned int identity = buIdentity.toUInt();
    if (identity == 0) {
        return;
    }
    const quint16 emap = enableMap(*myConfiguration);
    const QHostAddress group = multicastGroup(*myConfiguration);
    const quint16 port = multicastPort(*myConfiguration);
    if (egLink != nullptr) {
        myAssertFunc(SourceUnit, EgLinkCreatedTwice);
    }
    qDebug() << "Initializing EGLink, datasize" << getVRPOByteCount() << "bytes";
    egLink =
        new EGLink(group, port, getVRPOByteCount(), static_cast<quint8>(emap), static_cast<quint16>(identity), nullptr);
    // All 16 bits decide here while the link was given the low 8: a map of 256 starts a link with nothing enabled.
    if (emap == 0) {
        qDebug() << "EGLink not started.";
        return;
    }
    startEgLinkThread();
    qDebug() << "EGLink started";
}

void TessaroServer::startEgLinkThread()
{
    m_egLinkThread = Threads::make("eglink");
    connect(m_egLinkThread, SIGNAL(started()), egLink, SLOT(run()));
    connect(m_egLinkThread, SIGNAL(finished()), egLink, SLOT(deleteLater()));
    connect(m_egLinkThread, SIGNAL(finished()), m_egLinkThread, SLOT(deleteLater()));
    connect(egLink, SIGNAL(EGLinkStatus(quint8)), this, SLOT(updateEgLinkStatus(quint8)));
    connect(rgpCom, SIGNAL(sendToEGLink(QByteArray)), egLink, SLOT(receiveFromRGP(QByteArray)));
    connect(rgpCom, SIGNAL(readyReadCmdFromRGP(QByteArray)), egLink, SLOT(receiveCmd(QByteArray)));
    connect(egLink, SIGNAL(sendToRGP(QByteArray)), rgpCom, SLOT(receivePeriodicFromEGLink(QByteArray)));
    connect(egLink, SIGNAL(sendCmd(QByteArray)), rgpCom, SLOT(sendCmd(QByteArray)));
    egLink->moveToThread(m_egLinkThread);
    m_egLinkThread->start(QThread::InheritPriority);
}

void TessaroServer::buStateChanged(QVariant buState)
{
    qDebug() << "BU State changed to" << BuStateToString(buState.toInt());
}

void TessaroServer::updateEgLinkStatus(quint8 value)
{
    Tag* const tag = tagDatabase->get(EgLinkStatusTag);
    if (tag != nullptr) {
        tag->setValue(QVariant(value));
    }
}

quint32 TessaroServer::getVRPOByteCount()
{
    return vrpoByteCountOf(*tagDatabase);
}

quint32 TessaroServer::vrpoByteCountOf(TagDatabase& tags)
{
    const Tag* tag = tags.at(0);
    if (tag == nullptr) {
        myAssertFunc(SourceUnit, TagTableEmpty);
    }
    int highestStart = 0;
    int sizeThere = 0;
    for (int index = 0; tag != nullptr; tag = tags.at(++index)) {
        if (tag->getHostLink() == Tag::EGOT && tag->getStartByte() > highestStart) {
            highestStart = tag->getStartByte();
            sizeThere = tag->getByteSize();
        }
    }
    return static_cast<quint32>(highestStart + sizeThere);
}

/// At the end of the start, which may take its time and reads much that is never needed again.
void TessaroServer::claimRights()
{
    QStringList refused;
    if (!Threads::claimPriority(Threads::Role::Hub)) {
        refused.append(QStringLiteral("real-time priority"));
    }
    if (!Threads::lockMemory()) {
        refused.append(QStringLiteral("locked memory"));
    }
    if (!refused.isEmpty()) {
        qInfo().noquote() << "TessaroServer: not allowed:" << refused.join(QStringLiteral(", "))
                          << "- deadlines hold while processors and memory are free.";
    }
}

void TessaroServer::startWatchdog()
{
    m_watchdog = new Watchdog(this);
    m_watchdog->watch(serviceLayer, QStringLiteral("service layer"));
    m_watchdog->watch(msRelayControl, QStringLiteral("relay"));
    m_watchdog->watch(apiServer, QStringLiteral("API"));
    m_watchdog->start();
}

/// In the relay's own thread, behind what that is just doing; nothing closes the relay after it.
void TessaroServer::openRelay()
{
    const auto isOpen = std::make_shared<QSemaphore>();
    const auto open = [this, isOpen] {
        msRelayControl->openForShutdown();
        isOpen->release();
    };
    QMetaObject::invokeMethod(msRelayControl, open, Qt::QueuedConnection);
    if (!isOpen->tryAcquire(1, RelayPatienceMs)) {
        msRelayControl->openFromOutside();
    }
}

bool TessaroServer::joinThreads()
{
    bool allEnded = true;
    if (m_egLinkThread != nullptr) {
        allEnded = joinThread(m_egLinkThread, "EGLink"); // which takes the link along
    } else {
        delete egLink;
    }
    allEnded = joinThread(m_apiThread, "API") && allEnded;
    // Behind the local interface, which calls into the reload directly.
    allEnded = joinThread(m_fileThread, "File") && allEnded;
    allEnded = joinThread(m_serviceThread, "Service layer") && allEnded;
    allEnded = joinThread(m_relayThread, "Relay") && allEnded;
    return stopChecksums() && allEnded;
}

bool TessaroServer::stopChecksums()
{
    if (!ApplicationChecksums::stop(std::chrono::milliseconds(ThreadJoinTimeoutMs))) {
        qWarning() << "TessaroServer:"
                   << "Checksum thread did not end in time.";
        return false;
    }
    return true;
}

bool TessaroServer::joinThread(QThread* thread, const char* name)
{
    thread->quit();
    if (!thread->wait(ThreadJoinTimeoutMs)) {
        qWarning() << "TessaroServer:" << name << "thread did not end in time.";
        return false;
    }
    delete thread;
    return true;
}
