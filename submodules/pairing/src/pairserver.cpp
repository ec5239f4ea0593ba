#include "pairserver.h"

#include "applicationmanifest.h"
#include "configuration.h"
#include "filetransfer.h"
#include "pairarchive.h"
#include "pairingrecovery.h"
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
    , m_fileTransferServer(new QTcpServer(this))
    , hostAdress(place.address)
    , m_stallLimit(place.stallLimit)
    , archiving(new PairArchive(this))
    , m_configuration(configuration)
    , tagDatabase(tags)
    , m_records(configuration->remotesFile())
{
    // A timer and not a posted event, so that the sockets of everyone else get their turn between two requests.
    m_nextRequest.setInterval(0);
    m_nextRequest.setSingleShot(true);
    connect(&m_nextRequest, &QTimer::timeout, this, &PairServer::readData);
    archiving->limitPatience(place.tarPatience);
    connect(archiving, &PairArchive::createdTarReady, this, &PairServer::sendAppArchiveReady);
    connect(archiving, &PairArchive::couldNotStart, this, &PairServer::archiverCouldNotStart, Qt::QueuedConnection);
    listen(place);
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
    return m_fileTransferServer->serverPort();
}

void PairServer::listen(const PairServerPlace& place)
{
    if (!tcpServer->listen(hostAdress, place.requestPort)) {
        qDebug() << "pairserver: Unable to start pair server:" << tcpServer->errorString();
        tcpServer->close();
        return;
    }
    qDebug() << "pairserver: The pair server is running on IP:" << place.address << "and Port:" << requestPort();
    connect(tcpServer, &QTcpServer::newConnection, this, &PairServer::newClientConnection);
    listenForFileTransfers(place.fileTransferPort);
}

void PairServer::listenForFileTransfers(quint16 port)
{
    if (!m_fileTransferServer->listen(hostAdress, port)) {
        qWarning() << "pairserver: Unable to start file transfer server:" << m_fileTransferServer->errorString();
        return;
    }
    qDebug() << "PairServer::PairServer(Configuration*, TagDatabase*, QObject*)"
             << "file transfer server running.";
    connect(m_fileTransferServer, &QTcpServer::newConnection, this, &PairServer::newFileTransferConnection);
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
        return client->offer() == nullptr && !hasTurn(client);
    });
    (idle != m_clients.end() ? *idle : m_clients.first())->close();
}

/// What was on offer to it goes at once, and so does its turn.
void PairServer::forgetClient(PairClient* client)
{
    m_clients.removeOne(client);
    client->setOffer(nullptr);
    const auto isItsTurn = [client](const std::unique_ptr<ArchiveTurn>& turn) {
        return turn->client() == client;
    };
    m_waiting.erase(std::remove_if(m_waiting.begin(), m_waiting.end(), isItsTurn), m_waiting.end());
    if (m_turn != nullptr && isItsTurn(m_turn)) {
        archiving->endTar();
    }
    client->deleteLater();
}

bool PairServer::hasTurn(const PairClient* client) const
{
    const auto isItsTurn = [client](const std::unique_ptr<ArchiveTurn>& turn) {
        return turn != nullptr && turn->client() == client;
    };
    return isItsTurn(m_turn) || std::any_of(m_waiting.begin(), m_waiting.end(), isItsTurn);
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
    if (hasTurn(clientConnection)) {
        // The archiver is at work for it, or for one before it, and refuses by itself, with a line that says so.
        archiving->createTar(path);
        return;
    }
    if (m_turn != nullptr) {
        qInfo() << "pairserver:" << path << "has to wait for its turn";
    }
    m_waiting.push_back(std::make_unique<ArchiveTurn>(clientConnection, ruId, path));
    takeTurns();
}

void PairServer::takeTurns()
{
    while (m_turn == nullptr && !m_waiting.empty()) {
        m_turn = std::move(m_waiting.front());
        m_waiting.erase(m_waiting.begin());
        if (!begin(*m_turn)) {
            m_turn.reset();
        }
    }
}

/// What an earlier turn could not undo comes first: the files in its way are needed again.
bool PairServer::begin(ArchiveTurn& turn)
{
    if (!undoPairings(m_records) || !turn.prepare(*m_configuration, *tagDatabase, m_records)) {
        return false;
    }
    archiving->createTar(turn.folderToPack());
    return true;
}

void PairServer::archiverCouldNotStart()
{
    archiving->giveUp();
    endTurn();
}

void PairServer::endTurn()
{
    m_turn.reset();
    takeTurns();
}

void PairServer::sendAppArchiveReady(QString fileName, QString absolutePath)
{
    qDebug() << "SendAppArchiveReady()";
    if (m_turn == nullptr) {
        sendAppStartTransfer(fileName, absolutePath);
        return;
    }
    const QString archive = PairingAct::archiveOf(m_turn->appPath());
    const PairClient* client = m_turn->client();
    if (client == nullptr || !client->isOpen()) {
        qWarning() << "pairserver: Nobody is left to take" << archive;
    } else if (isMade(absolutePath, archive) && m_turn->complete(*m_configuration)) {
        sendAppStartTransfer(fileName, archive);
    }
    endTurn();
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
    PairClient* client = m_turn != nullptr ? m_turn->client() : clientConnection.data();
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

void PairServer::newFileTransferConnection()
{
    QTcpSocket* receiver = m_fileTransferServer->nextPendingConnection();
    if (receiver == nullptr) {
        return;
    }
    qDebug() << "Got connection from" << receiver->peerAddress().toString();
    connect(receiver, &QTcpSocket::disconnected, receiver, &QTcpSocket::deleteLater);
    FileTransfer::discardReceived(receiver);
    m_receivers.append(receiver);
    limitReceivers(receiver->peerAddress());
}

QList<QTcpSocket*> PairServer::receiversFrom(const QHostAddress& address) const
{
    QList<QTcpSocket*> receivers;
    for (QTcpSocket* receiver : m_receivers) {
        if (receiver != nullptr && receiver->state() == QAbstractSocket::ConnectedState &&
            receiver->peerAddress() == address) {
            receivers.append(receiver);
        }
    }
    return receivers;
}

/// Of a host with one tool the newest waits alone: it takes the place of one before it. Where several tools of a host
/// have asked for archives, as many wait as they are, and are told apart by their order.
void PairServer::limitReceivers(const QHostAddress& address)
{
    m_receivers.removeAll(nullptr);
    const auto tools = std::count_if(m_clients.begin(), m_clients.end(), [&](const PairClient* client) {
        return client->address() == address && (client->offer() != nullptr || hasTurn(client));
    });
    QList<QTcpSocket*> waiting = receiversFrom(address);
    while (waiting.size() > std::max(1, int(tools))) {
        waiting.takeFirst()->abort();
    }
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
    m_fileTransferServer->waitForNewConnection(0);
    const QList<QTcpSocket*> receivers = receiversFrom(clientConnection->address());
    if (receivers.isEmpty()) {
        qWarning() << "pairserver: No file connection to send the application over";
        return;
    }
    QTcpSocket* receiver = receivers.first();
    m_receivers.removeAll(receiver);
    const QString path = clientConnection->offer()->fileName();
    auto* transfer = new FileTransfer(clientConnection->takeOffer(), receiver, m_stallLimit, this);
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
