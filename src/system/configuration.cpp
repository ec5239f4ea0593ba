#include "configuration.h"

#include "configfile.h"
#include "myassertfunc.h"
#include "textfile.h"
#include "utillityfunctions.h"

#include <QDebug>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QNetworkInterface>
#include <QReadLocker>
#include <QSet>
#include <QThread>
#include <QTimer>
#include <QWriteLocker>

#include <array>
#include <cerrno>
#include <chrono>
#include <limits>
#include <unistd.h>
#include <utility>

namespace {

constexpr char SourceUnit[] = "src/system/configuration";

enum FatalLine : unsigned int {
    RemotesWithoutRemoteId = 358,
};

constexpr std::chrono::milliseconds AddressCheckInterval{2000};
constexpr int NumberBytes = 4;

// Rows and columns of the files that the store itself knows.
const QLatin1String EgLinkAddressKey("EGDH");
const QLatin1String RemoteIdColumn("RUID");
const QLatin1String OriginColumn("from");
const QLatin1String ValueColumn("value");
const QLatin1String TagColumn("tag");
const std::array<QLatin1String, 4> PairingKeyColumns = {QLatin1String("PKY1"), QLatin1String("PKY2"),
                                                        QLatin1String("PKY3"), QLatin1String("PKY4")};

const QLatin1String FromBaseController("BC");
const QLatin1String FromRemoteSide("RGP");

QByteArray numberBytes(unsigned int number)
{
    QByteArray bytes;
    appendUint32(bytes, number);
    return bytes;
}

bool readNumber(const QByteArray& bytes, unsigned int* value)
{
    if (bytes.size() != NumberBytes) {
        return false;
    }
    *value = toUint32(bytes, false);
    return true;
}

/// True when the values of rows of this origin are numbers, 4 bytes in the store.
bool isNumericOrigin(const QString& origin)
{
    return origin == FromBaseController || origin == FromRemoteSide;
}

/// The cell of a row, or null when row or cell does not exist. Valid as long as `rows` is not changed.
template<typename Rows, typename RowKey>
const QByteArray* findCell(const Rows& rows, const RowKey& rowKey, const QString& column)
{
    const auto row = rows.constFind(rowKey);
    if (row == rows.constEnd()) {
        return nullptr;
    }
    const auto cell = row->constFind(column);
    return cell == row->constEnd() ? nullptr : &cell.value();
}

/// Whether there is no such file, which is not the same as that it cannot be read.
bool isMissing(const QString& path)
{
    return ::access(QFile::encodeName(path).constData(), F_OK) != 0 && errno == ENOENT;
}

/// Whether the table is what the file says; one that is missing or empty says nothing.
bool wasRead(const ConfigFile& table, const QString& path)
{
    return !table.getAllColumnKeys().isEmpty() || isMissing(path) || QFileInfo(path).size() == 0;
}

/// Row key of the remote unit with this identity, or an empty string (no row has an empty key).
QString findRemote(const ConfigFile& remotes, unsigned short ruId)
{
    const QVector<QString> rowKeys = remotes.getAllTags();
    for (const QString& rowKey : rowKeys) {
        if (remotes.getValue(rowKey, RemoteIdColumn).toUInt() == ruId) {
            return rowKey;
        }
    }
    return QString();
}

/// Row key for a new remote unit: the last one plus 1. Where odd lines of the file made that key belong to another unit
/// already, the next free one, so that no unit's keys are overwritten.
QString newRemoteKey(const ConfigFile& remotes)
{
    const QVector<QString> rowKeys = remotes.getAllTags();
    const QSet<QString> taken(rowKeys.cbegin(), rowKeys.cend());
    unsigned int index = rowKeys.isEmpty() ? 0 : rowKeys.last().toUInt() + 1;
    while (taken.contains(QString::number(index))) {
        ++index;
    }
    return QString::number(index);
}

using KeyWords = std::array<unsigned int, PairingKeyColumns.size()>;

/// Sets the words in the remote unit's row, which is appended when there is none.
/// @return false when a column for a word is missing; the others are set.
bool setPairingKey(ConfigFile& remotes, unsigned short ruId, const KeyWords& words)
{
    if (!remotes.columnExists(RemoteIdColumn)) {
        myAssertFunc(SourceUnit, RemotesWithoutRemoteId);
    }
    QString rowKey = findRemote(remotes, ruId);
    if (rowKey.isEmpty()) {
        rowKey = newRemoteKey(remotes);
        remotes.setValue(rowKey, RemoteIdColumn, QString::number(ruId));
    }
    bool complete = true;
    for (std::size_t i = 0; i < words.size(); ++i) {
        complete = remotes.setValue(rowKey, PairingKeyColumns.at(i), QString::number(words.at(i))) && complete;
    }
    return complete;
}

} // namespace

Configuration::Configuration(QObject* parent)
    : Configuration(ConfigurationSources(), parent)
{}

Configuration::Configuration(const ConfigurationSources& sources, QObject* parent)
    : QObject(parent)
    , m_sources(sources)
    , m_remotesSnapshot(std::make_shared<const RemotesSnapshot>())
{
    reConfig();
    auto* addressCheck = new QTimer(this);
    connect(addressCheck, &QTimer::timeout, this, &Configuration::verifyEGLinkIp);
    addressCheck->start(AddressCheckInterval);
}

Configuration::~Configuration() = default;

void Configuration::reConfig()
{
    qDebug() << "------------------------- RECONFIG -------------------------";
    const quint64 ticket = ++m_lastTicket;

    const RemotesCheck check = checkRemotes();
    const ConfigFile app(m_sources.appFile, nullptr);
    const ConfigFile remotes = check.repaired ? ConfigFile(check.content, m_sources.remotesFile, nullptr)
                                              : ConfigFile(m_sources.remotesFile, nullptr);
    const ConfigFile keys(m_sources.keysFile, nullptr);
    m_settingsRead = wasRead(app, m_sources.appFile) && wasRead(keys, m_sources.keysFile);

    RemoteRows remoteRows;
    populateRemoteDb(remotes, remoteRows);
    AppRows appRows;
    populateAppDb(app, appRows);
    populateAppDb(keys, appRows);
    // Set before publishing, so that no address check meets the file's outdated address ...
    if (appRows.contains(EgLinkAddressKey)) {
        appRows[EgLinkAddressKey].insert(ValueColumn, getEGLinkIp());
    }
    publish(ticket, std::move(appRows), std::move(remoteRows));
    // ... and asked once more after it, in case the interface changed meanwhile.
    setAppTag(EgLinkAddressKey, getEGLinkIp());
}

RemotesCheck Configuration::checkRemotes()
{
    const QString path = m_sources.remotesFile;
    RemotesCheck check = checkRemotesConfigFile(path);
    if (QThread::currentThread() == m_writer->thread()) {
        writeRepairedRemotes(path, check);
    } else if (check.repaired) {
        QMetaObject::invokeMethod(
            m_writer, [path] { validateRemotesConfigFile(path); }, Qt::QueuedConnection);
    }
    return check;
}

void Configuration::populateRemoteDb(const ConfigFile& file, RemoteRows& rows)
{
    const QVector<QString> rowKeys = file.getAllTags();
    const QVector<QString> columnKeys = file.getAllColumnKeys();
    for (const QString& rowKey : rowKeys) {
        Cells cells;
        for (const QString& columnKey : columnKeys) {
            cells.insert(columnKey, numberBytes(file.getValue(rowKey, columnKey).toUInt()));
        }
        rows.insert(rowKey.toUInt(), cells);
    }
}

void Configuration::populateAppDb(const ConfigFile& file, AppRows& rows)
{
    const QVector<QString> rowKeys = file.getAllTags();
    const QVector<QString> columnKeys = file.getAllColumnKeys();
    for (const QString& rowKey : rowKeys) {
        const bool numeric = isNumericOrigin(file.getValue(rowKey, OriginColumn));
        Cells cells;
        for (const QString& columnKey : columnKeys) {
            const QString text = file.getValue(rowKey, columnKey);
            cells.insert(columnKey, numeric && columnKey == ValueColumn ? numberBytes(text.toUInt()) : text.toLatin1());
        }
        rows.insert(rowKey, cells);
    }
}

QBitArray Configuration::knownIdsOf(const RemoteRows& rows)
{
    constexpr unsigned int rowNumbers = std::numeric_limits<unsigned short>::max() + 1U;
    QBitArray known(static_cast<int>(rowNumbers));
    for (unsigned int row = 0; row < rowNumbers; ++row) {
        const QByteArray* const cell = findCell(rows, row, RemoteIdColumn);
        unsigned int id = 0;
        if (cell == nullptr || !readNumber(*cell, &id)) {
            break;
        }
        if (id < rowNumbers) {
            known.setBit(static_cast<int>(id));
        }
    }
    return known;
}

/// The lock is held for a handful of swaps. What they replace, be it large, is released after it: the rows that were
/// published before the last ones, here at the end, and the last ones by the next reload.
void Configuration::publish(quint64 ticket, AppRows appRows, RemoteRows remoteRows)
{
    std::shared_ptr<const RemotesSnapshot> snapshot =
        std::make_shared<const RemotesSnapshot>(RemotesSnapshot{remoteRows, knownIdsOf(remoteRows)});
    const QWriteLocker locker(&m_lock);
    if (ticket < m_publishedTicket) {
        return; // a reload that began later, and so read newer files, was faster
    }
    m_publishedTicket = ticket;
    appConfigParam.swap(appRows);
    remotesConfigParameters.swap(remoteRows);
    snapshot = std::atomic_exchange(&m_remotesSnapshot, std::move(snapshot));
    m_replacedSnapshot.swap(snapshot);
}

QByteArray Configuration::getAppTag(QString key, bool* ok) const
{
    const QReadLocker locker(&m_lock);
    const auto row = appConfigParam.constFind(key);
    *ok = row != appConfigParam.constEnd();
    return *ok ? row->value(ValueColumn) : QByteArray();
}

bool Configuration::getAppTag(QString key, unsigned int* value) const
{
    bool found = false;
    const QByteArray bytes = getAppTag(key, &found);
    return found && readNumber(bytes, value);
}

QString Configuration::getAppTagText(const QString& key, bool* ok) const
{
    const QReadLocker locker(&m_lock);
    const auto row = appConfigParam.constFind(key);
    *ok = row != appConfigParam.constEnd();
    if (!*ok) {
        return QString();
    }
    const QByteArray value = row->value(ValueColumn);
    unsigned int number = 0;
    const bool isNumber = isNumericOrigin(QString::fromLatin1(row->value(OriginColumn))) && readNumber(value, &number);
    return isNumber ? QString::number(number) : QString::fromLatin1(value);
}

QByteArray Configuration::getRemoteTag(unsigned short ruId, QString key, bool* ok) const
{
    const QReadLocker locker(&m_lock);
    const QByteArray* cell = findCell(remotesConfigParameters, ruId, key);
    *ok = cell != nullptr;
    return *ok ? *cell : QByteArray();
}

bool Configuration::getRemoteTag(unsigned short ruId, QString key, QString column, unsigned int* value) const
{
    Q_UNUSED(column)
    const std::shared_ptr<const RemotesSnapshot> snapshot = std::atomic_load(&m_remotesSnapshot);
    const QByteArray* cell = findCell(snapshot->rows, ruId, key);
    return cell != nullptr && readNumber(*cell, value);
}

bool Configuration::isRemoteKnown(unsigned short ruId) const
{
    const std::shared_ptr<const RemotesSnapshot> snapshot = std::atomic_load(&m_remotesSnapshot);
    return ruId < snapshot->knownIds.size() && snapshot->knownIds.testBit(ruId);
}

void Configuration::setAppTag(QString key, QByteArray value)
{
    qDebug() << "KEY: " << key << " value " << value;
    const QWriteLocker locker(&m_lock);
    const auto row = appConfigParam.find(key);
    if (row != appConfigParam.end()) {
        row->insert(ValueColumn, value);
    }
}

bool Configuration::isRemotePaired(unsigned short ruId) const
{
    const QReadLocker locker(&m_lock);
    for (const Cells& remote : remotesConfigParameters) {
        if (remote.value(RemoteIdColumn).toUInt() == ruId) {
            return true;
        }
    }
    return false;
}

bool Configuration::updateRemotePairing(unsigned short ruId, unsigned int k1, unsigned int k2, unsigned int k3,
                                        unsigned int k4)
{
    const bool stored = writeToConfigFile(ruId, k1, k2, k3, k4);
    remotePairingStored();
    return stored;
}

bool Configuration::writeToConfigFile(unsigned short ruId, unsigned int k1, unsigned int k2, unsigned int k3,
                                      unsigned int k4)
{
    ConfigFile remotes(m_sources.remotesFile, nullptr);
    // All four words reach the file in one step: no power cut leaves a unit with words of two pairings.
    const bool complete = setPairingKey(remotes, ruId, {k1, k2, k3, k4});
    return remotes.writeData() && complete;
}

bool Configuration::prepareRemotePairing(unsigned short ruId, unsigned int k1, unsigned int k2, unsigned int k3,
                                         unsigned int k4, TextFileChange* change)
{
    QByteArray content;
    QString error;
    const bool readable = readTextFile(m_sources.remotesFile, content, error);
    if (!readable) {
        qCritical() << "Load Configurations File Error: " << m_sources.remotesFile << error;
        if (!isMissing(m_sources.remotesFile)) {
            return false; // a disk that fails is no broken installation
        }
    }
    ConfigFile remotes(content, m_sources.remotesFile, nullptr);
    QByteArray rewritten;
    if (!setPairingKey(remotes, ruId, {k1, k2, k3, k4}) || !remotes.rewrite(content, rewritten)) {
        return false;
    }
    *change = {QFileInfo(m_sources.remotesFile).canonicalFilePath(), content, rewritten};
    return true;
}

void Configuration::remotePairingStored()
{
    reConfig();
    emit configurationChanged();
}

QByteArray Configuration::getEGLinkIp() const
{
    const QList<QNetworkAddressEntry> entries =
        QNetworkInterface::interfaceFromName(m_sources.egLinkInterface).addressEntries();
    for (const QNetworkAddressEntry& entry : entries) {
        if (entry.ip().protocol() == QAbstractSocket::IPv4Protocol) {
            return numberBytes(entry.ip().toIPv4Address());
        }
    }
    return numberBytes(0);
}

void Configuration::verifyEGLinkIp()
{
    const QByteArray address = getEGLinkIp();
    bool found = false;
    const QByteArray stored = getAppTag(EgLinkAddressKey, &found);
    if (found && stored == address) {
        return;
    }
    setAppTag(EgLinkAddressKey, address);
    emit eglinkIpChanged();
}

QStringList Configuration::getAppConfigKeysFromBC() const
{
    const QReadLocker locker(&m_lock);
    QStringList keys;
    for (const Cells& row : appConfigParam) {
        if (row.value(OriginColumn) == FromBaseController.data()) {
            keys.append(QString::fromLatin1(row.value(TagColumn)));
        }
    }
    return keys;
}
