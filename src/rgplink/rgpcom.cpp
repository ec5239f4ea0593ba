#include "rgpcom.h"

#include "applicationmanifest.h"
#include "basestatus.h"
#include "cfallback_service_c.h"
#include "gfallback_service_c.h"
#include "glinkconnection.h"
#include "glinkheader.h"
#include "glinkserver.h"
#include "glinktransportfallback.h"
#include "glinktransporttcp.h"
#include "myassertfunc.h"
#include "remoteunitcheck.h"
#include "tag.h"
#include "tagdatabase.h"
#include "threads.h"

#include <QCoreApplication>
#include <QDebug>
#include <QThread>
#include <QTimer>

#include <chrono>
#include <utility>

namespace {

using namespace std::chrono_literals;

constexpr char SourceUnit[] = "src/rgplink/rgpcom";

enum FatalLine : unsigned int {
    MachineStopTagsNotNumbers = 298,
};

constexpr char ArmedRuTag[] = "armed_ru";
constexpr char BuStateTag[] = "bu_state";
constexpr char TotalRusTag[] = "total_rus";

constexpr unsigned int BuStateArmed = 17;

/// Process data for the machine-controller link loses its first bytes and gets as many zeros at its end.
constexpr int ProcessDataShift = 2;

constexpr unsigned long FallbackThreadJoinMs = 1000;

/// Does something in the thread in which `sender` lives, at once if it is this one. Whoever connects a signal elsewhere
/// meets its sender, which may be emitting it.
template<typename Order>
void inThreadOf(QObject* sender, Order order)
{
    QMetaObject::invokeMethod(sender, order);
}

QString addressOf(const GLinkConnection* connection)
{
    return QString::asprintf("0x%8p", static_cast<const void*>(connection));
}

} // namespace

RGPCom::RGPCom(TagDatabase* tagDatabase, Configuration* config, QObject* parent)
    : QObject(parent)
    , m_tagDatabase(tagDatabase)
    , m_config(config)
{
    warnOfMissingTags();
    populateChecksumList();
}

RGPCom::~RGPCom()
{
    delete m_baseStatusTimer;
    delete m_gLinkServer;
    qDeleteAll(m_connection);
    stopFallbackLink();
}

// --- Start and end --------------------------------------------------------------------------------------------------

void RGPCom::initialize(GfallbackServiceC* gFallback, CFallbackServiceC* cFallback)
{
    if (m_gFallbackLink != nullptr) {
        qDebug() << "RGPCom::initialize() has been called before, ignored.";
        return;
    }
    startFallbackLink(gFallback, cFallback);
    m_gLinkServer = new GLinkServer(this, GLinkPort, m_config, m_tagDatabase, this);
    m_gLinkServer->startServer();
    startBaseStatus();
}

void RGPCom::initializeInOneThread(GfallbackServiceC* gFallback, CFallbackServiceC* cFallback)
{
    makeFallbackLink();
    connectFallback(gFallback);
    connectServiceForwards(cFallback);
    startBaseStatus();
}

void RGPCom::makeFallbackLink()
{
    m_fallbackOwner = std::make_shared<GLinkTransportFallback>(m_config, m_tagDatabase, nullptr);
    m_gFallbackLink = m_fallbackOwner.get();
}

void RGPCom::startFallbackLink(GfallbackServiceC* gFallback, CFallbackServiceC* cFallback)
{
    makeFallbackLink();
    m_fallbackThread = Threads::make("fallback");
    m_gFallbackLink->moveToThread(m_fallbackThread);
    connectFallback(gFallback);
    connectServiceForwards(cFallback);
    connect(m_fallbackThread, &QThread::started, m_gFallbackLink,
            [] { Threads::claimPriority(Threads::Role::UnitLink); });
    connect(m_fallbackThread, &QThread::finished, m_fallbackThread, &QThread::deleteLater);
    m_fallbackThread->start(QThread::InheritPriority);
}

void RGPCom::connectFallback(GfallbackServiceC* gFallback)
{
    GLinkTransportFallback* const link = m_gFallbackLink;
    // Queued, as between threads, even where a test has everything in one.
    const auto queued = Qt::QueuedConnection;
    connect(link, &GLinkTransportFallback::newConnection, this, &RGPCom::addFallbackLink, queued);
    connect(link, &GLinkTransportFallback::introduced, this, &RGPCom::noteFallbackIntroduction, queued);
    connect(link, &GLinkTransportFallback::closedConnection, this, &RGPCom::removeFallbackLink, queued);
    connect(link, &GLinkTransportFallback::readyReadFromGLink, this, &RGPCom::dataFromGLink, queued);
    connect(link, &GLinkTransportFallback::acknowledged, this, &RGPCom::acknowledgedOverFallback, queued);
    if (gFallback == nullptr) {
        qWarning() << "RGPCom: no fallback service, remote units can join over TCP only.";
        return;
    }
    connect(link, &GLinkTransportFallback::newConnection, gFallback, &GfallbackServiceC::reset, queued);
    connect(link, &GLinkTransportFallback::dataToServiceLayer, gFallback, &GfallbackServiceC::fallbackTxInTurn, queued);
    connect(link, &GLinkTransportFallback::withdrawn, gFallback, &GfallbackServiceC::withdraw, queued);
    connect(link, &GLinkTransportFallback::givenBack, this, &RGPCom::takeBackFromFallback, queued);
    m_isFallbackServed = true;
    inThreadOf(gFallback, [gFallback, owner = m_fallbackOwner] {
        const auto toLink = Qt::QueuedConnection;
        connect(gFallback, &GfallbackServiceC::fallbackRx, owner.get(), &GLinkTransportFallback::dataFromServiceLayer,
                toLink);
        connect(gFallback, &GfallbackServiceC::linkFailed, owner.get(), &GLinkTransportFallback::linkDown, toLink);
        connect(gFallback, &GfallbackServiceC::givenBack, owner.get(), &GLinkTransportFallback::givenBack, toLink);
    });
}

void RGPCom::connectServiceForwards(CFallbackServiceC* cFallback)
{
    if (cFallback == nullptr) {
        qWarning() << "RGPCom: no service for the remote units' service messages, they are dropped.";
        return;
    }
    connect(this, &RGPCom::sendServiceForwardToService, cFallback, &CFallbackServiceC::CFallbackRx);
    // By way of the transport, which lives until the order is carried out or dropped; this hub may not.
    connect(m_gFallbackLink, &GLinkTransportFallback::serviceForward, this, &RGPCom::recvServiceForward);
    inThreadOf(cFallback, [cFallback, owner = m_fallbackOwner] {
        connect(cFallback, &CFallbackServiceC::cFallbackTx, owner.get(), &GLinkTransportFallback::serviceForward);
    });
}

void RGPCom::startBaseStatus()
{
    m_baseStatusTimer = new QTimer(this);
    m_baseStatusTimer->setTimerType(Qt::PreciseTimer);
    connect(m_baseStatusTimer, &QTimer::timeout, this, &RGPCom::sendBaseStatusToRemote);
    m_baseStatusTimer->start(BaseStatusIntervalMs);
}

void RGPCom::stopFallbackLink()
{
    if (m_fallbackThread) {
        m_fallbackThread->quit();
        if (!m_fallbackThread->wait(FallbackThreadJoinMs)) {
            qWarning() << "RGPCom: the fallback thread did not end in time.";
            new auto(m_fallbackOwner); // what still runs cannot be deleted; the process is about to end anyway
            return;
        }
        delete m_fallbackThread;
    }
    m_fallbackOwner.reset();
}

void RGPCom::warnOfMissingTags() const
{
    if (m_tagDatabase == nullptr) {
        return;
    }
    QStringList missing = BaseStatus::missingTags(*m_tagDatabase);
    if (m_tagDatabase->get(QString::fromLatin1(TotalRusTag)) == nullptr) {
        missing.append(QString::fromLatin1(TotalRusTag));
    }
    if (!missing.isEmpty()) {
        qWarning() << "RGPCom: missing tags, read as 0:" << missing;
    }
}

// --- Links ----------------------------------------------------------------------------------------------------------

void RGPCom::addGLink(quint16 remoteId, GLinkTransportTcp* gLink)
{
    GLinkConnection* const connection = m_connection.value(remoteId);
    if (connection != nullptr) {
        connection->setGLink(gLink);
    } else {
        insertConnection(remoteId, new GLinkConnection(remoteId, gLink, m_log, this));
    }
}

void RGPCom::insertConnection(quint16 remoteId, GLinkConnection* connection)
{
    connect(connection, &GLinkConnection::connectionLost, this, &RGPCom::deleteConnection);
    connection->setTakesBack(m_isFallbackServed);
    m_connection.insert(remoteId, connection);
    showConnectionCount();
}

void RGPCom::showConnectionCount()
{
    Tag* const tag = m_tagDatabase != nullptr ? m_tagDatabase->get(QString::fromLatin1(TotalRusTag)) : nullptr;
    if (tag != nullptr) {
        tag->setValue(QVariant(m_connection.size()));
    }
}

void RGPCom::removeGLink(quint16 remoteId)
{
    GLinkConnection* const connection = m_connection.value(remoteId);
    if (connection == nullptr) {
        qDebug() << "Connection for RU" << remoteId << "not found.";
        return;
    }
    if (sender() != nullptr && sender() != connection->gLink()) {
        return; // the end of a transport that another one has replaced meanwhile
    }
    if (connection->setGLink(nullptr) == GLinkConnection::TCP) {
        qDebug() << "GLink state error: " << addressOf(connection);
    }
}

void RGPCom::addFallbackLink(quint16 remoteId)
{
    qDebug() << "RGPCom::addFallbackLink" << remoteId;
    if (!m_connection.contains(remoteId)) {
        insertConnection(remoteId, new GLinkConnection(remoteId, m_gFallbackLink, m_log, this));
    }
    m_connection.value(remoteId)->setFallbackLink(m_gFallbackLink);
}

void RGPCom::noteFallbackIntroduction(quint16 remoteId, quint64 introduction)
{
    if (GLinkConnection* const connection = m_connection.value(remoteId)) {
        connection->setFallbackIntroduction(introduction);
    }
}

void RGPCom::removeFallbackLink(quint16 remoteId)
{
    qDebug() << "RGPCom::removeFallbackLink" << remoteId;
    GLinkConnection* const connection = m_connection.value(remoteId);
    if (connection == nullptr) {
        qDebug() << "Connection for RU" << remoteId << "not found.";
        return;
    }
    if (connection->setFallbackLink(nullptr) == GLinkConnection::FALLBACK) {
        qDebug() << "GLink state error: " << addressOf(connection);
    }
    withdrawFromFallback(connection);
}

/// A unit on TCP does not get late what the base controller has not asked for yet, but first, and there. Asked behind
/// all that was sent to it over the fallback.
void RGPCom::withdrawFromFallback(const GLinkConnection* connection)
{
    if (m_gFallbackLink != nullptr && connection->activeLinkType() == GLinkConnection::TCP) {
        GLinkTransportFallback* const link = m_gFallbackLink;
        QMetaObject::invokeMethod(
            link, [link, remoteId = connection->peerId()] { link->withdraw(remoteId); }, Qt::QueuedConnection);
    }
}

// What one still awaits, the other still gives back.
static_assert(GfallbackServiceC::WorthGivingBack == GLinkConnection::PatienceOnFallback);

void RGPCom::takeBackFromFallback(quint16 remoteId, const QByteArrayList& frames)
{
    if (GLinkConnection* const connection = m_connection.value(remoteId)) {
        connection->takeBack(frames);
    }
}

void RGPCom::deleteConnection(quint16 ruId)
{
    GLinkConnection* const connection = m_connection.take(ruId);
    if (connection == nullptr) {
        qDebug() << "Request to delete unknown GlinkConnection.";
        return;
    }
    connection->deleteLater(); // not at once: it may be the sender
    showConnectionCount();
}

void RGPCom::messageSent(quint16 remoteId, quint32 refNr, GLinkTransportBase* channel)
{
    Q_UNUSED(channel)
    GLinkConnection* const connection = m_connection.value(remoteId);
    if (connection == nullptr) {
        qDebug() << "RGPCom::messageSent(): UNKNOWN CONNECTION!";
        return;
    }
    connection->messageSent(refNr);
}

void RGPCom::acknowledgedOverFallback(quint16 remoteId, quint8 msgId)
{
    if (GLinkConnection* const connection = m_connection.value(remoteId)) {
        connection->acknowledged(msgId);
    }
}

void RGPCom::showConnected() const
{
    if (m_connection.isEmpty()) {
        qDebug() << "  none";
    }
    for (auto unit = m_connection.constBegin(); unit != m_connection.constEnd(); ++unit) {
        qDebug() << "  " << unit.key();
    }
}

// --- From remote units ----------------------------------------------------------------------------------------------

void RGPCom::dataFromGLink(quint16 remoteId, quint8 msgId, const QByteArray& data, GLinkTransportBase* const channel)
{
    switch (msgId) {
    case GLINK_MSG_ID_INIT: handleInitMsg(GLinkInitMsg(data), channel); break;
    case GLINK_MSG_ID_INITACK: qDebug() << "Received initack. WHY?"; break;
    case GLINK_MSG_ID_SERVICE_FORWARD: emit sendServiceForwardToService(data, remoteId); break;
    case GLINK_MSG_ID_M_STOP: handleMachineStop(remoteId); break;
    case GLINK_MSG_ID_PERIODIC_DATA:
        if (m_connection.contains(remoteId)) {
            emit readyReadFromRGP(remoteId, msgId, data);
        }
        break;
    case GLINK_MSG_ID_CMD:
        if (m_connection.contains(remoteId)) {
            emit readyReadCmdFromRGP(data);
        }
        break;
    default: break;
    }
}

void RGPCom::handleMachineStop(quint16 remoteId)
{
    const TagNumber armedRu = tagNumber(ArmedRuTag);
    const TagNumber buState = tagNumber(BuStateTag);
    if (!armedRu.isNumber || !buState.isNumber) {
        myAssertFunc(SourceUnit, MachineStopTagsNotNumbers);
    }
    if (armedRu.value == remoteId && buState.value == BuStateArmed) {
        emit machineStopActivatedOnArmedRemote();
    }
}

RGPCom::TagNumber RGPCom::tagNumber(const char* tagName) const
{
    const Tag* const tag = m_tagDatabase != nullptr ? m_tagDatabase->get(QString::fromLatin1(tagName)) : nullptr;
    if (tag == nullptr) {
        return {0, true};
    }
    bool isNumber = false;
    const unsigned int value = tag->getValue().toUInt(&isNumber);
    return {value, isNumber};
}

quint16 RGPCom::getCommandReceiver() const
{
    return static_cast<quint16>(tagNumber(ArmedRuTag).value);
}

// --- INIT -----------------------------------------------------------------------------------------------------------

void RGPCom::handleInitMsg(const GLinkInitMsg& init, GLinkTransportBase* channel)
{
    if (channel != nullptr && m_connection.contains(init.remoteId) && mustAwaitChecksums(init)) {
        decideLater(init, channel);
    } else {
        decide(init, channel);
    }
}

void RGPCom::decide(const GLinkInitMsg& init, GLinkTransportBase* channel)
{
    GLinkConnection* const connection = m_connection.value(init.remoteId);
    if (connection == nullptr) {
        qDebug() << "No glink connection, GLINK_MSG_ID_INITACK RU" << init.remoteId;
        return;
    }
    const GLinkInitAck answer = verdictOn(init);
    if (!connection->initChannel(channel)) {
        return;
    }
    withdrawFromFallback(connection);
    connection->enqueueMessage(GLINK_MSG_ID_INITACK, answer.serialize(), true);
    if (answer.errorCode == INIT_ACCEPTED) {
        sendKeptPeriodicData(connection);
        m_lastReportedErrorRU = 0;
    } else {
        reportRefusal(init.remoteId, answer);
    }
}

/// The main thread hears the machine stops of all units. It does not wait for an application to be hashed: a unit does,
/// when there is no list yet or when only a list that is being made could speak for it.
bool RGPCom::mustAwaitChecksums(const GLinkInitMsg& init)
{
    if (!belongsHere(init)) {
        return false;
    }
    const bool hasList = !m_orderedList.valid() || m_orderedList.wait_for(0ms) == std::future_status::ready;
    return !hasList || (m_renewals > 0 && verdictOn(init).errorCode == INIT_CHECKSUM_MISMATCH);
}

/// One decision for all INITs of a unit that come over a channel meanwhile: it may send any number of them.
void RGPCom::decideLater(const GLinkInitMsg& init, GLinkTransportBase* channel)
{
    const UndecidedKey key(init.remoteId, channel);
    const bool isAwaited = m_undecided.contains(key);
    m_undecided.insert(key, {init, channel});
    if (isAwaited) {
        return;
    }
    const auto decideNow = [this, key](const ApplicationChecksumList&) {
        const Undecided last = m_undecided.take(key);
        if (last.channel) {
            handleInitMsg(last.init, last.channel);
        }
    };
    // Behind the taking over of the same list.
    ApplicationChecksums::whenReady(m_renewals > 0 ? m_renewedList : m_orderedList, this, decideNow);
}

bool RGPCom::belongsHere(const GLinkInitMsg& init) const
{
    return isRuPaired(init.remoteId) && isBuId(init.baseId);
}

GLinkInitAck RGPCom::verdictOn(const GLinkInitMsg& init)
{
    if (!belongsHere(init)) {
        return {INIT_NOT_PAIRED, "This RU is not paired to this BU."};
    }
    takeOrderedList();
    QByteArray checksum;
    if (ApplicationChecksums::findPublished(ApplicationManifest::root(), m_checksumList, checksum) &&
        checksum != init.checksum()) {
        return {INIT_CHECKSUM_MISMATCH, "Application SW checksum mismatch."};
    }
    return {INIT_ACCEPTED, QByteArray()};
}

void RGPCom::sendKeptPeriodicData(GLinkConnection* connection)
{
    for (const QByteArray& block : {m_periodicECData, m_periodicEGData}) {
        if (!block.isEmpty()) {
            connection->enqueueMessage(GLINK_MSG_ID_PERIODIC_DATA, block, true);
        }
    }
}

void RGPCom::reportRefusal(quint16 remoteId, const GLinkInitAck& answer)
{
    if (remoteId == m_lastReportedErrorRU) {
        return;
    }
    qDebug() << "GLINK_MSG_ID_INITACK RU" << remoteId << "Error" << answer.errorCode << answer.errorString;
    m_lastReportedErrorRU = remoteId;
}

bool RGPCom::isRuPaired(quint16 ruId) const
{
    return RemoteUnitCheck::isRuPaired(m_config, ruId);
}

bool RGPCom::isBuId(quint16 id) const
{
    return RemoteUnitCheck::isBuId(m_tagDatabase, id);
}

bool RGPCom::getAppChecksum(QByteArray& result)
{
    takeOrderedList();
    return ApplicationChecksums::find(ApplicationManifest::root(), m_checksumList, result);
}

void RGPCom::takeOrderedList()
{
    if (m_orderedList.valid()) {
        m_checksumList = ApplicationChecksums::waitFor(m_orderedList);
        m_orderedList = {};
    }
}

void RGPCom::populateChecksumList()
{
    if (QCoreApplication::instance() != nullptr) {
        m_orderedList = ApplicationChecksums::request(ApplicationManifest::root());
    }
}

void RGPCom::configChanged()
{
    const auto takeOver = [this](const ApplicationChecksumList& list) {
        m_checksumList = list;
        m_orderedList = {};
        --m_renewals;
    };
    ++m_renewals;
    m_renewedList = ApplicationChecksums::request(ApplicationManifest::root());
    ApplicationChecksums::whenReady(m_renewedList, this, takeOver);
}

// --- To remote units ------------------------------------------------------------------------------------------------

void RGPCom::send(quint16 remoteId, quint8 msgId, const QByteArray& data)
{
    GLinkConnection* const connection = m_connection.value(remoteId);
    if (connection == nullptr) {
        qDebug() << "Unknown receiver" << remoteId;
        return;
    }
    connection->enqueueMessage(msgId, data, false);
}

void RGPCom::sendToAll(quint8 msgId, const QByteArray& data)
{
    for (GLinkConnection* const connection : qAsConst(m_connection)) {
        connection->enqueueMessage(msgId, data, false);
    }
}

void RGPCom::sendCmd(const QByteArray& data)
{
    QMetaObject::invokeMethod(
        this, [this, data] { sendToAll(GLINK_MSG_ID_CMD, data); }, Qt::QueuedConnection);
}

void RGPCom::receivePeriodicFromEGLink(QByteArray data)
{
    relayPeriodicData(PERIODIC_DATA_FROM_EG, data, &RGPCom::m_periodicEGData);
}

void RGPCom::receivePeriodicFromECLink(QByteArray data)
{
    relayPeriodicData(PERIODIC_DATA_FROM_EC, data, &RGPCom::m_periodicECData);
}

void RGPCom::relayPeriodicData(PeriodicDataOrigin origin, QByteArray data, QByteArray RGPCom::*kept)
{
    data.prepend(static_cast<char>(origin));
    const auto keepAndSend = [this, data, kept] {
        this->*kept = data;
        sendToAll(GLINK_MSG_ID_PERIODIC_DATA, data);
    };
    QMetaObject::invokeMethod(this, keepAndSend, Qt::QueuedConnection);
}

void RGPCom::receiveFromService(QByteArray data)
{
    data.remove(0, ProcessDataShift);
    data.append(ProcessDataShift, '\0');
    emit sendToEGLink(data);
}

void RGPCom::recvServiceForward(QByteArray data, quint16 receiverRuId)
{
    const auto sendOn = [this, data, receiverRuId] {
        send(receiverRuId, GLINK_MSG_ID_SERVICE_FORWARD, data);
    };
    QMetaObject::invokeMethod(this, sendOn, Qt::QueuedConnection);
}

void RGPCom::sendBaseStatusToRemote()
{
    const QByteArray status = BaseStatus::payload(m_tagDatabase);
    QMetaObject::invokeMethod(
        this, [this, status] { sendToAll(GLINK_MSG_BASE_STATUS, status); }, Qt::QueuedConnection);
}
