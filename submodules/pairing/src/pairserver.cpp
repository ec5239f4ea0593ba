#include "pairserver.h"

#include "applicationmanifest.h"
#include "configuration.h"
#include "filereceivers.h"
#include "filetransfer.h"
#include "pairarchive.h"
#include "regularfile.h"
#include "temporaryarchive.h"

#include <QCoreApplication>
#include <QDataStream>
#include <QDebug>
#include <QDir>
#include <QFileInfo>

#include <algorithm>

namespace {

/// Fixes the layout of the replies for good; the tools of every version read it.
constexpr QDataStream::Version StreamVersion = QDataStream::Qt_5_6;

/// Request connections that may be open at a time. Beyond it one that wants nothing goes.
constexpr int MaxClients = 64;

} // namespace

PairServer::PairServer(Configuration* configuration, TagDatabase* tags, QObject* parent)
    : PairServer(configuration, tags, PairServerPlace(), parent)
{}

PairServer::PairServer(Configuration* configuration, TagDatabase* tags, const PairServerPlace& place, QObject* parent)
    : QObject(parent)
    , tcpServer(new QTcpServer(this))
    , m_receivers(new FileReceivers(this))
    , m_place(place)
    , hostAdress(place.address)
    , archiving(new PairArchive(this))
    , m_configuration(configuration)
    , tagDatabase(tags)
    , m_records(configuration->remotesFile())
    , m_turns(archiving, configuration, tags, m_records)
{
    // A timer and not a posted event, so that the sockets of everyone else get their turn between two requests.
    m_nextRequest.setInterval(0);
    m_nextRequest.setSingleShot(true);
    connect(&m_nextRequest, &QTimer::timeout, this, &PairServer::readData);
    connect(tcpServer, &QTcpServer::newConnection, this, &PairServer::newClientConnection);
    connect(m_receivers, &FileReceivers::came, this, &PairServer::limitReceivers);
    archiving->limitPatience(place.tarPatience);
    connect(archiving, &PairArchive::createdTarReady, this, &PairServer::sendAppArchiveReady);
    connect(archiving, &PairArchive::couldNotStart, this, &PairServer::archiverCouldNotStart, Qt::QueuedConnection);
    m_listenAgain.setInterval(place.listenAgain);
    m_listenAgain.setSingleShot(true);
    connect(&m_listenAgain, &QTimer::timeout, this, &PairServer::listen);
    listen();
}

/// tar ends before what it packs is cleared away.
PairServer::~PairServer()
{
    delete archiving;
    qDeleteAll(m_clients);
}

quint16 PairServer::requestPort() const
{
    return tcpServer->serverPort();
}

quint16 PairServer::fileTransferPort() const
{
    return m_receivers->port();
}

/// Called again for what is missing.
void PairServer::listen()
{
    if (tcpServer->isListening() || listenForRequests()) {
        m_receivers->listen(hostAdress, m_place.fileTransferPort);
    }
    if (isPortTaken(*tcpServer) || m_receivers->isPortTaken()) {
        m_listenAgain.start();
    }
}

bool PairServer::listenForRequests()
{
    const bool isKnown = isPortTaken(*tcpServer);
    if (!tcpServer->listen(hostAdress, m_place.requestPort)) {
        if (!isKnown) {
            qDebug() << "pairserver: Unable to start pair server:" << tcpServer->errorString();
        }
        tcpServer->close();
        return false;
    }
    qDebug() << "pairserver: The pair server is running on IP:" << m_place.address << "and Port:" << requestPort();
    return true;
}

void PairServer::newClientConnection()
{
    qDebug() << "pairserver: newClientConnection()";
    QTcpSocket* socket = tcpServer->nextPendingConnection();
    if (socket == nullptr) {
        return;
    }
    auto* client = new PairClient(socket, this);
    m_clients.append(client);
    clientConnection = client;
    connect(client, &PairClient::mayBeServed, &m_nextRequest, qOverload<>(&QTimer::start));
    connect(client, &PairClient::left, this, [this, client] { forgetClient(client); });
    limitClients();
}

void PairServer::limitClients()
{
    if (m_clients.size() <= MaxClients) {
        return;
    }
    qWarning() << "pairserver: Too many request connections, closing the oldest";
    const auto idle = std::find_if(m_clients.begin(), m_clients.end(), [this](const PairClient* client) {
        return client->offer() == nullptr && !m_turns.has(client);
    });
    (idle != m_clients.end() ? *idle : m_clients.first())->close();
}

/// What was on offer to it goes at once, and so does its turn.
void PairServer::forgetClient(PairClient* client)
{
    m_clients.removeOne(client);
    client->setOffer(nullptr);
    m_turns.giveUp(client);
    client->deleteLater();
}

bool PairServer::isClientOpen() const
{
    return clientConnection != nullptr && clientConnection->isOpen();
}

/// Called in a turn of the event loop of its own, and never from within the sending of a reply.
void PairServer::readData()
{
    bool served = false;
    const QList<PairClient*> clients = m_clients;
    for (PairClient* client : clients) {
        PairRequest request;
        // One that left while another was served is not in the list any more.
        if (m_clients.contains(client) && client->takeRequest(request)) {
            clientConnection = client;
            serve(request);
            served = true;
        }
    }
    if (served) {
        m_nextRequest.start();
    }
}

void PairServer::serve(const PairRequest& request)
{
    switch (request.command) {
    case PairRequest::Command::GetApp:
        ruId = request.ruId;
        serveGetApp(request.appPath);
        break;
    case PairRequest::Command::GetAppList: sendListOfApps(); break;
    case PairRequest::Command::StartTransfer: startTransfer(); break;
    case PairRequest::Command::Unknown: break;
    }
}

void PairServer::serveGetApp(const QString& path)
{
    if (ruId == 0) {
        qWarning() << "Send app, invalid ruId:" << ruId << "appPath:" << path;
        return;
    }
    qDebug() << "Send app ruId:" << ruId << "appPath:" << path;
    sendApp(path);
}

void PairServer::sendListOfApps()
{
    getListOfApps();
    if (!isClientOpen()) {
        return;
    }
    QByteArray reply;
    QDataStream out(&reply, QIODevice::WriteOnly);
    out.setVersion(StreamVersion);
    out << QStringLiteral("appList") << appsWithManifestData;
    clientConnection->send(reply);
    qDebug() << "sending applist" << appsWithManifestData;
}

void PairServer::getListOfApps()
{
    const QString root = ApplicationManifest::root();
    if (!QDir(root).exists()) {
        qDebug() << "No applicationsDirectory:" << root;
        return;
    }
    const ApplicationList list = listApplications(root);
    appsWithManifest = list.manifests;
    appsWithManifestData = list.records;
}

void PairServer::sendApp(QString path)
{
    if (!isClientOpen()) {
        return;
    }
    const QString refusal = refusalReason(ApplicationManifest::root(), QCoreApplication::applicationDirPath(), path);
    if (!refusal.isEmpty()) {
        qWarning() << "pairserver: Refused to send" << path << "-" << qPrintable(refusal);
        return;
    }
    if (m_turns.has(clientConnection)) {
        // The archiver is at work for it, or for one before it, and refuses by itself, with a line that says so.
        archiving->createTar(path);
        return;
    }
    m_turns.add(clientConnection, ruId, path);
}

void PairServer::archiverCouldNotStart()
{
    archiving->giveUp();
    m_turns.next();
}

void PairServer::sendAppArchiveReady(QString fileName, QString absolutePath)
{
    qDebug() << "SendAppArchiveReady()";
    ArchiveTurn* turn = m_turns.current();
    if (turn == nullptr) {
        sendAppStartTransfer(fileName, absolutePath);
        return;
    }
    const QString archive = PairingAct::archiveOf(turn->appPath());
    const PairClient* client = turn->client();
    if (client == nullptr || !client->isOpen()) {
        qWarning() << "pairserver: Nobody is left to take" << archive;
    } else if (isMade(absolutePath, archive) && turn->complete(*m_configuration)) {
        sendAppStartTransfer(fileName, archive);
    }
    m_turns.next();
}

bool PairServer::isMade(const QString& made, const QString& archive) const
{
    QFile file;
    QString error = QStringLiteral("tar was not content");
    if (archiving->wasTarContent() && openRegularFile(made, file, error) == FileOpening::Opened) {
        return true;
    }
    qWarning() << "pairserver: No archive" << archive << error;
    return false;
}

void PairServer::sendAppStartTransfer(QString fileName, QString absolutePath)
{
    Q_UNUSED(fileName)
    qDebug() << "Attempting to send app metadata";
    auto archive = std::make_unique<TemporaryArchive>(absolutePath, m_records);
    QString error;
    if (openRegularFile(absolutePath, *archive, error) != FileOpening::Opened) {
        qWarning() << "pairserver: No archive" << absolutePath << error;
        return;
    }
    PairClient* client = m_turns.current() != nullptr ? m_turns.current()->client() : clientConnection.data();
    if (client == nullptr || !client->isOpen()) {
        qWarning() << "pairserver: Nobody is left to take" << absolutePath;
        return;
    }
    QByteArray metadata;
    QDataStream out(&metadata, QIODevice::WriteOnly);
    out.setVersion(StreamVersion);
    out << QStringLiteral("app") << QFileInfo(absolutePath).fileName() << quint64(archive->size())
        << archiving->digest();
    client->setOffer(std::move(archive));
    qDebug() << "sending app metadata for " << absolutePath;
    client->send(metadata);
}

/// Of a host with one tool the newest waits alone: it takes the place of one before it. Where several tools of a host
/// have asked for archives, as many wait as they are, and are told apart by their order.
void PairServer::limitReceivers(const QHostAddress& host)
{
    const auto tools = std::count_if(m_clients.begin(), m_clients.end(), [&](const PairClient* client) {
        return client->address() == host && (client->offer() != nullptr || m_turns.has(client));
    });
    m_receivers->keepNewest(host, std::max(1, int(tools)));
}

void PairServer::startTransfer()
{
    qDebug() << "Starting transfer of application.";
    if (clientConnection->offer() == nullptr) {
        qDebug() << "Application handle was never created!";
        return;
    }
    // The tool has opened its file connection before it sent this request, yet both may have arrived together and the
    // request been looked at first.
    QTcpSocket* receiver = m_receivers->take(clientConnection->address());
    if (receiver == nullptr) {
        qWarning() << "pairserver: No file connection to send the application over";
        return;
    }
    const QString path = clientConnection->offer()->fileName();
    auto* transfer = new FileTransfer(clientConnection->takeOffer(), receiver, m_place.stallLimit, this);
    connect(transfer, &FileTransfer::finished, this, [this, path](bool complete) { transferEnded(path, complete); });
    connect(transfer, &FileTransfer::finished, transfer, &FileTransfer::deleteLater);
    transfer->start();
}

void PairServer::transferEnded(const QString& path, bool complete)
{
    emit pairingComplete();
    if (complete) {
        qDebug() << "Transfer complete of " << path;
    }
}
