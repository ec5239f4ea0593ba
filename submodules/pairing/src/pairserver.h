#pragma once

#include "applications.h"
#include "pairrequest.h"

#include <QFile>
#include <QHostAddress>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QVector>

#include <chrono>
#include <memory>

class Configuration;
class PairArchive;
class TagDatabase;

/// Where the pairing service is reached. The defaults are the unit's; tests name others.
struct PairServerPlace
{
    QString address = QStringLiteral("192.168.32.1"); ///< the unit's address on the private network
    quint16 requestPort = 9123;                       ///< 0 takes any free port
    quint16 fileTransferPort = 9124;                  ///< 0 takes any free port
    /// A receiver that takes nothing for this long loses its connection.
    std::chrono::milliseconds stallLimit = std::chrono::seconds(60);
};

/// Lists the applications for remote units to a service tool on the private network, hands one out as an archive, and
/// in doing so pairs a remote unit with this base unit.
///
/// A tool sends requests over one connection and receives the archive over a second one; docs/pairing.md tells the
/// whole conversation. Only the newest request connection is served; an older one stays open, what it still sends is
/// thrown away.
///
/// Made and used in one thread, the one that rewrites the configuration store's files. Waits neither for a tool nor for
/// tar; it does wait for the disk, so that this is no thread that a machine's safety depends on. Whatever goes wrong is
/// a log line: there is no answer for a refused request.
class PairServer : public QObject
{
    Q_OBJECT

public:
    /// Starts to listen. When the request port cannot be had, the base unit runs without pairing.
    /// Neither pointer is owned; both objects must outlive this one.
    PairServer(Configuration* configuration, TagDatabase* tagDatabase, QObject* parent);
    PairServer(Configuration* configuration, TagDatabase* tagDatabase, const PairServerPlace& place, QObject* parent);
    /// Closes all connections; an archive that was not fetched is removed.
    ~PairServer() override;

    /// The ports that are listened on; 0 when there is none.
    quint16 requestPort() const;
    quint16 fileTransferPort() const;

public slots:
    /// Takes the next waiting request connection as the one to serve.
    void newClientConnection();
    /// Serves the first complete request that has arrived. Further ones follow when the event loop has had its turn.
    void readData();
    /// Searches for the applications and sends their list to the connection that is served.
    void sendListOfApps();
    /// Pairs remote unit `ruId` when `path` is a user application, and starts to pack it. Refused with a log line,
    /// before any key is drawn, when the path is not one to hand out or the archiver is busy.
    void sendApp(QString path);
    void sendAppArchiveReady(QString fileName, QString absolutePath);
    /// Offers the archive and sends its name, size and MD5 to the connection that asked for it.
    void sendAppStartTransfer(QString fileName, QString absolutePath);

signals:
    /// A transfer has ended, whole or broken off: the application's configuration on disk is a new one since it began.
    void pairingComplete();

private slots:
    void newFileTransferConnection();
    void serveNextLater();

private:
    void listen(const PairServerPlace& place);
    void listenForFileTransfers(quint16 port);
    void retireClient();
    void limitClients();
    void dropClient(const char* reason);
    bool isClientOpen() const;
    void serve(const PairRequest& request);
    void serveGetApp(const QString& path);
    void getListOfApps();
    bool pair(const QString& appPath);
    QTcpSocket* archiveClient() const;
    void startTransfer();
    void transferEnded(const QString& path, bool complete);

    QTcpServer* tcpServer;
    QPointer<QTcpSocket> clientConnection;
    QTcpServer* m_fileTransferServer;
    QPointer<QTcpSocket> m_fileTransferSocket;
    QHostAddress hostAdress;
    const std::chrono::milliseconds m_stallLimit;
    PairArchive* archiving;
    QVector<QString> appsWithManifest;
    QVector<QMap<QString, QString>> appsWithManifestData;
    quint16 ruId = 0;
    Configuration* m_configuration;
    TagDatabase* tagDatabase;
    std::unique_ptr<QFile> m_applicationFileHandle;
    QString m_applicationAbsolutePath;

    bool m_archiveAsked = false;          ///< `sendApp` has set the next member, at least once
    QPointer<QTcpSocket> m_archiveClient; ///< who asked for the archive that is made; null when that tool has left
    QTimer m_nextRequest;
};
