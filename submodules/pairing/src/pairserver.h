#pragma once

#include "applications.h"
#include "archiveturns.h"
#include "pairclient.h"
#include "pairrequest.h"

#include <QHostAddress>
#include <QList>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTcpServer>
#include <QTimer>
#include <QVector>

#include <chrono>

class Configuration;
class FileReceivers;
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
    /// See PairArchive::limitPatience().
    std::chrono::milliseconds tarPatience = std::chrono::seconds(60);
    /// How long after a port was found taken it is asked for again.
    std::chrono::milliseconds listenAgain = std::chrono::seconds(2);
};

/// Lists the applications for remote units to a service tool on the private network, hands one out as an archive, and
/// in doing so pairs a remote unit with this base unit.
///
/// A tool sends requests over one connection and receives the archive over a second one; docs/pairing.md tells the
/// whole conversation. Every request connection is served. Requests that need the archiver are taken in turn, one of a
/// connection at a time; a tool that leaves gives up its turn, and what was on offer to it goes.
///
/// What a request sets going:
///
///     getAppList      sendListOfApps(): the answer at once
///     getApp          sendApp(): the turn waits for those before it, then ArchiveTurn::prepare(), and tar starts
///       tar is done   sendAppArchiveReady(): ArchiveTurn::complete(); the archive is offered, and the tool told so
///     startTransfer   the archive goes to the oldest file connection of the same host
///       all is sent   the archive is removed; pairingComplete()
///
/// | at most                                     | beyond it                                                    |
/// |---------------------------------------------|--------------------------------------------------------------|
/// | 64 request connections                      | the oldest that has neither turn nor offer is closed, or the |
/// |                                             | oldest of all                                                |
/// | one turn for a connection                   | the request is refused with a log line                       |
/// | one offer for a connection                  | the new archive takes the place of the old one, which goes   |
/// | a waiting file connection of a host, or one | the oldest of that host is closed                            |
/// | for each of its tools with a turn or offer  |                                                              |
///
/// What one tool may take in bytes and time stands in PairClient, PairArchive and FileTransfer.
///
/// Made and used in one thread, the one that rewrites the configuration store's files. Waits neither for a tool nor for
/// tar; it does wait for the disk, so that this is no thread that a machine's safety depends on. Whatever goes wrong is
/// a log line: there is no answer for a refused request.
class PairServer : public QObject
{
    Q_OBJECT

public:
    /// Starts to listen. Without the request port the base unit runs without pairing; without the other one it lists
    /// and packs, and sends nothing. A port that somebody else has is asked for again, silently, until it is free: it
    /// may be held by what a killed predecessor had just begun. An address that does not exist is missed until the next
    /// start. Neither pointer is owned; both objects must outlive this one.
    PairServer(Configuration* configuration, TagDatabase* tagDatabase, QObject* parent);
    PairServer(Configuration* configuration, TagDatabase* tagDatabase, const PairServerPlace& place, QObject* parent);
    /// Closes all connections; archives that were not fetched are removed, and what is not complete is undone. Waits a
    /// second at most for a tar that runs, and for the disk. In the thread in which it was used.
    ~PairServer() override;

    /// The ports that are listened on; 0 when there is none.
    quint16 requestPort() const;
    quint16 fileTransferPort() const;

public slots:
    /// Takes the next waiting request connection. Until another one is served, it is the one that the slots below mean.
    void newClientConnection();
    /// Serves the first complete request of every connection. Further ones follow when the event loop has had its turn.
    void readData();
    /// Searches for the applications and sends their list to the connection that is served. Walks the whole folder of
    /// applications each time; when that is missing, the list of the last time is sent.
    void sendListOfApps();
    /// Has `path` packed in its turn; with a user application remote unit `ruId` is paired by this. Refused with a log
    /// line, before any key is drawn, when the path is not one to hand out or the connection has a turn already. The
    /// unit is that of the last "getApp". Nothing happens when the connection that is served has closed.
    void sendApp(QString path);
    /// Puts what the archiver has made for the current turn in its place, and offers it. What tar was not content with
    /// is undone instead, and so is what nobody is left to take; either way the next turn begins.
    void sendAppArchiveReady(QString fileName, QString absolutePath);
    /// Offers the archive to the connection whose turn it is, or the one that is served, and sends it name, size and
    /// MD5: the one that the archiver computed last. The archive goes from the disk with the offer.
    void sendAppStartTransfer(QString fileName, QString absolutePath);

signals:
    /// A transfer has ended, whole or broken off: the application's configuration on disk is a new one since it began.
    /// Not for an archive that nobody fetched, though its pairing holds.
    void pairingComplete();

private slots:
    void archiverCouldNotStart();
    void limitReceivers(const QHostAddress& host);

private:
    void listen();
    bool listenForRequests();
    void limitClients();
    void forgetClient(PairClient* client);
    bool isClientOpen() const;
    void serve(const PairRequest& request);
    void serveGetApp(const QString& path);
    void getListOfApps();
    bool isMade(const QString& made, const QString& archive) const;
    void startTransfer();
    void transferEnded(const QString& path, bool complete);

    QTcpServer* tcpServer;                 ///< child
    QList<PairClient*> m_clients;          ///< children, in the order in which they came
    QPointer<PairClient> clientConnection; ///< whose request is served, otherwise the newest
    FileReceivers* m_receivers;            ///< child
    const PairServerPlace m_place;
    QHostAddress hostAdress;                              ///< both servers listen on
    PairArchive* archiving;                               ///< child
    QVector<QString> appsWithManifest;                    ///< paths of all manifests that the last search found
    QVector<QMap<QString, QString>> appsWithManifestData; ///< what the last list said
    quint16 ruId = 0;                                     ///< of the last "getApp"
    Configuration* m_configuration;                       ///< not owned
    TagDatabase* tagDatabase;                             ///< not owned

    const PairingRecords m_records;
    ArchiveTurns m_turns;
    QTimer m_nextRequest; ///< of interval 0: serves when the sockets had their turn
    QTimer m_listenAgain; ///< runs while somebody else has a port
};
