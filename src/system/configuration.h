#pragma once

#include "remotesconfigfile.h"

#include <QBitArray>
#include <QByteArray>
#include <QMap>
#include <QObject>
#include <QReadWriteLock>
#include <QString>
#include <QStringList>

#include <atomic>
#include <memory>

class ConfigFile;
struct TextFileChange;

/// Where the configuration comes from. The defaults are the unit's; tests name others.
struct ConfigurationSources
{
    QString appFile = QStringLiteral("/home/root/Applications/tessaroserver/config/app.csv");
    QString remotesFile = QStringLiteral("/home/root/Applications/tessaroserver/config/remotes.csv");
    QString keysFile = QStringLiteral("/home/root/Applications/tessaroserver/config/keys.csv");
    QString egLinkInterface = QStringLiteral("eth0"); ///< the interface towards the machine controller
};

/// The one in-memory store of the unit's configuration: app settings, keys and paired remote units.
///
/// Values are byte arrays. A cell of the remotes file is 4 bytes, least significant first, of its decimal number (0 for
/// text that is no number). In the app and keys files the "value" cell of a row whose "from" is "BC" (base controller)
/// or "RGP" (remote side) is encoded alike; every other cell is its Latin-1 text. A key in both files is taken from the
/// keys file. The app row "EGDH" holds the address of the machine-controller interface and is kept current every 2 s.
///
///     unsigned int forwarding = 0;
///     if (!configuration->getAppTag(QStringLiteral("FMAP"), &forwarding)) { ... }   // no such row, or not 4 bytes
///
/// Threads. The store lives in the main thread. Lookups and reConfig() may be called from any thread; everything that
/// rewrites a file (updateRemotePairing, writeToConfigFile, validateRemotesConfigFile) belongs to one thread: the
/// store's own, until writeFilesIn() names another.
///  - A reload reads the files into values of its own and publishes the result at once: a lookup sees the old
///    configuration or the new one, never a half-filled store. m_lock, the only lock, is held neither while a file is
///    read or written nor while the interface is asked for its address.
///  - Each reload draws a ticket before it reads. When two overlap, the older reading is dropped if it comes last.
///  - Pairing keys cannot be lost to a repair: a reload in a foreign thread that meets a misnumbered remotes file
///    corrects what it read, in memory, and leaves the file to the writing thread by a queued call.
///  - What a reload replaces is released by the next one: a lookup never has to take a large configuration down.
class Configuration : public QObject
{
    Q_OBJECT

public:
    /// Loads the unit's files and starts the 2 s check of the interface address (in the running event loop).
    /// Files that are missing leave their part of the store empty, with a critical log line each.
    explicit Configuration(QObject* parent);
    Configuration(const ConfigurationSources& sources, QObject* parent);
    ~Configuration() override;

    /// From now on the files are rewritten in the thread of `writer`, which outlives the store's use. Before other
    /// threads know the store.
    void writeFilesIn(QObject* writer) { m_writer = writer; }

    /// Reads all files anew, and waits for the disk. Any thread. Emits nothing.
    void reConfig();
    /// Whether the last reload could read the app and keys files as far as they exist. Otherwise the store lacks
    /// settings that the unit has. Any thread.
    bool hasReadSettings() const { return m_settingsRead; }

    /// The "value" cell of an app or keys row; empty with `ok` false when there is no such row.
    QByteArray getAppTag(QString key, bool* ok) const;
    /// The same as a number. @return false, `value` untouched, unless the row exists and its value has exactly 4 bytes.
    bool getAppTag(QString key, unsigned int* value) const;
    /// The same as it would read in a file: a number of the base controller or the remote side in decimal, anything
    /// else as the text that it is.
    QString getAppTagText(const QString& key, bool* ok) const;

    /// The cell `key` of the remotes row numbered `ruId` (its "ruindex", not its "RUID"). `ok` tells whether it exists.
    QByteArray getRemoteTag(unsigned short ruId, QString key, bool* ok) const;
    /// The same as a number, read from the last published snapshot without taking the lock. `column` is not used.
    /// @return false, `value` untouched, unless the cell exists and has exactly 4 bytes.
    bool getRemoteTag(unsigned short ruId, QString key, QString column, unsigned int* value) const;

    /// Sets the "value" cell of an existing app row, in memory only; an unknown key is ignored. Any thread.
    void setAppTag(QString key, QByteArray value);

    /// Compares `ruId` with each remote's stored "RUID" read as decimal text. The cells are 4 binary bytes, so the
    /// reading normally yields 0 and only 0 matches. This is known and meant to stay: who needs the true answer
    /// compares the numbers of getRemoteTag.
    bool isRemotePaired(unsigned short ruId) const;

    /// Whether one of the rows 0, 1, 2, … of the remotes file, up to the first number that is missing or has no "RUID",
    /// holds that identity. Takes the same short time however many rows there are.
    bool isRemoteKnown(unsigned short ruId) const;

    /// Stores a remote unit's pairing key on disk, reloads and emits configurationChanged(). Writing thread only.
    /// @return what writeToConfigFile said.
    bool updateRemotePairing(unsigned short ruId, unsigned int k1, unsigned int k2, unsigned int k3, unsigned int k4);

    /// Writes the four words of a pairing key into the remote unit's row, which is appended when there is none; the
    /// store in memory is unchanged. The file is replaced in one step. Writing thread only.
    /// A remotes file without "RUID" column (a missing one included) is a fatal assertion.
    /// @return false when a column for a word is missing (the others are written) or the file could not be replaced.
    bool writeToConfigFile(unsigned short ruId, unsigned int k1, unsigned int k2, unsigned int k3, unsigned int k4);

    /// What writeToConfigFile would write, for a pairing that replaces the remotes file together with other files: its
    /// content now and the one with the key. Touches no file. The same assertion.
    /// @return false when a column for a word is missing, or the file is there and cannot be read, or lacks its header
    ///         lines.
    bool prepareRemotePairing(unsigned short ruId, unsigned int k1, unsigned int k2, unsigned int k3, unsigned int k4,
                              TextFileChange* change);
    /// That has been done: reloads and emits configurationChanged(). Writing thread only.
    void remotePairingStored();
    /// Where the remotes file lies.
    QString remotesFile() const { return m_sources.remotesFile; }

    /// First IPv4 address of the machine-controller interface, 4 bytes, least significant first; 4 zero bytes when the
    /// interface has none or does not exist. Any thread.
    QByteArray getEGLinkIp() const;

    /// The 2 s tick: brings "EGDH" up to date and emits eglinkIpChanged() when it differed. Without an "EGDH" row the
    /// address cannot be stored, and every tick emits.
    void verifyEGLinkIp();

    /// The settings that the base controller supplies: "tag" cells of the rows from "BC", in key order.
    QStringList getAppConfigKeysFromBC() const;

signals:
    void configurationChanged();
    void eglinkIpChanged();

private:
    using Cells = QMap<QString, QByteArray>;
    using RemoteRows = QMap<unsigned int, Cells>;
    using AppRows = QMap<QString, Cells>;

    /// The published remote rows for lookups without lock, and the identities that they hold.
    struct RemotesSnapshot
    {
        RemoteRows rows;
        QBitArray knownIds; ///< see isRemoteKnown(); shorter than any identity that it does not have
    };

    static void populateRemoteDb(const ConfigFile& file, RemoteRows& rows);
    static void populateAppDb(const ConfigFile& file, AppRows& rows);

    RemotesCheck checkRemotes();
    static QBitArray knownIdsOf(const RemoteRows& rows);
    void publish(quint64 ticket, AppRows appRows, RemoteRows remoteRows);

    const ConfigurationSources m_sources;
    QObject* m_writer = this; ///< its thread rewrites the files
    std::atomic<quint64> m_lastTicket{0};
    std::atomic<bool> m_settingsRead{false};

    mutable QReadWriteLock m_lock; ///< guards the four members below
    RemoteRows remotesConfigParameters;
    AppRows appConfigParam;
    quint64 m_publishedTicket = 0;
    /// What the last reload replaced. A lookup without lock may still be reading it, and must not be left its last
    /// owner.
    std::shared_ptr<const RemotesSnapshot> m_replacedSnapshot;

    std::shared_ptr<const RemotesSnapshot> m_remotesSnapshot; ///< swapped atomically; shares the memory of the rows
};
