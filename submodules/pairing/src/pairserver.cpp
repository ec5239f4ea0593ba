#include "pairserver.h"

#include "applicationconfig.h"
#include "applicationmanifest.h"
#include "configuration.h"
#include "filetransfer.h"
#include "pairarchive.h"
#include "pairingkeys.h"
#include "regularfile.h"
#include "tag.h"
#include "tagdatabase.h"
#include "temporaryarchive.h"

#include <QCoreApplication>
#include <QDataStream>
#include <QDebug>
#include <QDir>
#include <QFileInfo>

namespace {

/// Fixes the layout of the replies for good; the tools of every version read it.
constexpr QDataStream::Version StreamVersion = QDataStream::Qt_5_6;

/// A tool that lets its replies pile up is not read from until it has taken them.
constexpr qint64 MaxUnsentReplyBytes = 64 * 1024;

/// What Qt may read ahead on a request connection. Beyond it the sender has to wait.
constexpr qint64 ReadAheadBytes = 2 * PairRequest::MaxSize;

/// Request connections that may be open at a time, the one that is served included. Beyond it the oldest goes.
constexpr int MaxClients = 64;

const QString BuIdentityTag = QStringLiteral("bu_identity");

/// The base unit's own settings that a paired application takes over.
const QString CopiedSettings[] = {
    QStringLiteral("CCH1"), QStringLiteral("CCH2"), QStringLiteral("CCH3"),
    QStringLiteral("SID1"), QStringLiteral("WPA1"),
};

unsigned int baseUnitId(const TagDatabase& tags)
{
    const Tag* identity = tags.get(BuIdentityTag);
    return identity != nullptr ? identity->getValue().toUInt() : 0;
}

QVector<ApplicationSetting> baseUnitSettings(const Configuration& configuration, const TagDatabase& tags)
{
    QVector<ApplicationSetting> settings{{QStringLiteral("BUID"), QString::number(baseUnitId(tags))}};
    for (const QString& tag : CopiedSettings) {
        bool found = false;
        const QString value = configuration.getAppTagText(tag, &found);
        if (found) {
            settings.append({tag, value});
        }
    }
    return settings;
}

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
{
    // A timer and not a posted event, so that the sockets of everyone else get their turn between two requests.
    m_nextRequest.setInterval(0);
    m_nextRequest.setSingleShot(true);
    connect(&m_nextRequest, &QTimer::timeout, this, &PairServer::readData);
    connect(archiving, &PairArchive::createdTarReady, this, &PairServer::sendAppArchiveReady);
    listen(place);
}

PairServer::~PairServer() = default;

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
    QTcpSocket* client = tcpServer->nextPendingConnection();
    if (client == nullptr) {
        return;
    }
    retireClient();
    clientConnection = client;
    client->setReadBufferSize(ReadAheadBytes);
    connect(client, &QTcpSocket::disconnected, client, &QTcpSocket::deleteLater);
    connect(client, &QTcpSocket::readyRead, this, &PairServer::readData);
    connect(client, &QTcpSocket::bytesWritten, this, &PairServer::serveNextLater);
    limitClients();
}

/// The connection that was served so far stays open, but is not listened to any more.
void PairServer::retireClient()
{
    QTcpSocket* client = clientConnection;
    if (client == nullptr) {
        return;
    }
    client->disconnect(this);
    FileTransfer::discardReceived(client);
}

void PairServer::limitClients()
{
    const auto clients = tcpServer->findChildren<QTcpSocket*>(QString(), Qt::FindDirectChildrenOnly);
    if (clients.size() > MaxClients) {
        qWarning() << "pairserver: Too many request connections, closing the oldest";
        clients.first()->abort();
    }
}

bool PairServer::isClientOpen() const
{
    return clientConnection != nullptr && clientConnection->state() == QAbstractSocket::ConnectedState;
}

void PairServer::dropClient(const char* reason)
{
    qWarning() << "pairserver:" << reason << "from" << clientConnection->peerAddress().toString()
               << "- closing the connection";
    clientConnection->abort();
}

void PairServer::readData()
{
    if (!isClientOpen() || clientConnection->bytesToWrite() > MaxUnsentReplyBytes) {
        return;
    }
    const PairRequestDecoding decoding = decodePairRequest(clientConnection->peek(PairRequest::MaxSize));
    switch (decoding.status) {
    case PairRequestDecoding::Status::Incomplete: return;
    case PairRequestDecoding::Status::TooLong: dropClient("Request of more than 64 KiB"); return;
    case PairRequestDecoding::Status::Corrupt: dropClient("Unreadable request"); return;
    case PairRequestDecoding::Status::Complete: break;
    }
    clientConnection->skip(decoding.size);
    serve(decoding.request);
    serveNextLater();
}

/// Never at once: this is also called from within the sending of a reply.
void PairServer::serveNextLater()
{
    if (isClientOpen() && clientConnection->bytesAvailable() > 0) {
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
    clientConnection->write(reply);
    clientConnection->flush();
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
    if (!archiving->isBusy()) {
        if (isUserApp(path) && !pair(path)) {
            return;
        }
        m_archiveAsked = true;
        m_archiveClient = clientConnection;
        // An archive from earlier is not written over: a slow receiver may still be reading it.
        QFile::remove(path + QStringLiteral(".tar"));
    }
    // A busy archiver refuses by itself, with a line that says so.
    archiving->createTar(path);
}

bool PairServer::pair(const QString& appPath)
{
    if (ruId == 0) {
        qDebug() << "PairServer: invalid ruId:" << ruId;
        return false;
    }
    m_configuration->reConfig();
    const PairingKeys keys = PairingKeys::draw();
    if (!writeApplicationConfig(appPath, keys, baseUnitSettings(*m_configuration, *tagDatabase))) {
        return false;
    }
    const auto& [key1, key2, key3, key4] = keys.words;
    if (!m_configuration->updateRemotePairing(ruId, key1, key2, key3, key4)) {
        qWarning() << "pairserver: Could not store the keys of remote unit" << ruId;
        return false;
    }
    qDebug() << "PairServer generated new keys:" << ruId << "(ruid)" << key1 << "(pky1)" << key2 << "(pky2)" << key3
             << "(pky3)" << key4 << "(pky4)";
    return true;
}

void PairServer::sendAppArchiveReady(QString fileName, QString absolutePath)
{
    qDebug() << "SendAppArchiveReady()";
    sendAppStartTransfer(fileName, absolutePath);
}

/// The connection that the archive is for: the one that asked, even when a newer one is served by now.
QTcpSocket* PairServer::archiveClient() const
{
    return m_archiveAsked ? m_archiveClient : clientConnection;
}

void PairServer::sendAppStartTransfer(QString fileName, QString absolutePath)
{
    Q_UNUSED(fileName)
    qDebug() << "Attempting to send app metadata";
    m_applicationFileHandle = std::make_unique<TemporaryArchive>(absolutePath);
    m_applicationAbsolutePath = absolutePath;
    QString error;
    if (openRegularFile(absolutePath, *m_applicationFileHandle, error) != FileOpening::Opened) {
        qWarning() << "pairserver: No archive" << absolutePath << error;
        m_applicationFileHandle.reset();
        return;
    }
    QTcpSocket* client = archiveClient();
    if (client == nullptr || client->state() != QAbstractSocket::ConnectedState) {
        qWarning() << "pairserver: Nobody is left to take" << absolutePath;
        m_applicationFileHandle.reset();
        return;
    }
    QByteArray metadata;
    QDataStream out(&metadata, QIODevice::WriteOnly);
    out.setVersion(StreamVersion);
    out << QStringLiteral("app") << QFileInfo(absolutePath).fileName() << quint64(m_applicationFileHandle->size())
        << archiving->digest();
    client->write(metadata);
    qDebug() << "sending app metadata for " << absolutePath;
    client->flush();
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
    if (m_fileTransferSocket != nullptr) {
        m_fileTransferSocket->abort();
    }
    m_fileTransferSocket = receiver;
}

void PairServer::startTransfer()
{
    qDebug() << "Starting transfer of application.";
    if (m_applicationFileHandle == nullptr) {
        qDebug() << "Application handle was never created!";
        return;
    }
    // The tool has opened its file connection before it sent this request, yet both may have arrived together and the
    // request been looked at first.
    m_fileTransferServer->waitForNewConnection(0);
    if (m_fileTransferSocket == nullptr || m_fileTransferSocket->state() != QAbstractSocket::ConnectedState) {
        qWarning() << "pairserver: No file connection to send the application over";
        return;
    }
    auto* transfer = new FileTransfer(std::move(m_applicationFileHandle), m_fileTransferSocket, m_stallLimit, this);
    m_fileTransferSocket.clear();
    const QString path = m_applicationAbsolutePath;
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
