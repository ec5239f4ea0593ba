#include "glinktransporttcp.h"

#include "tag.h"
#include "tagdatabase.h"

#include <QDebug>
#include <QNetworkInterface>
#include <QTcpSocket>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace {

using namespace std::chrono_literals;

constexpr quint32 MaxSocketFailures = 5;

/// What the socket buffers for us. Small, so that one reading yields a bounded number of messages.
constexpr qint64 ReadBufferBytes = 16 * 1024;
constexpr auto ResumeCheck = 5ms;

/// Codes of INITACK after which a remote unit gives up; with the others it stays connected.
constexpr quint16 InitErrorFatal = 3;
constexpr quint16 InitErrorFirstUnknown = 6;

/// Probes of the TCP stack find a peer that vanished without a word before it ever sent anything: no timer of ours runs
/// then, as a peer may connect and be silent as long as it likes.
struct SocketOption
{
    int name;
    int value;
};
constexpr SocketOption KeepAliveOptions[] = {
    {TCP_KEEPIDLE, 10}, // seconds
    {TCP_KEEPINTVL, 5}, // seconds
    {TCP_KEEPCNT, 3},
};

const QHostAddress& noAddress()
{
    static const QHostAddress address(QHostAddress::AnyIPv4);
    return address;
}

void restart(QTimer* timer)
{
    if (timer != nullptr) {
        timer->start();
    }
}

void halt(QTimer* timer)
{
    if (timer != nullptr) {
        timer->stop();
    }
}

bool hasAddress(const QString& interfaceName, const QHostAddress& address)
{
    const QList<QNetworkAddressEntry> entries = QNetworkInterface::interfaceFromName(interfaceName).addressEntries();
    return std::any_of(entries.begin(), entries.end(),
                       [&](const QNetworkAddressEntry& entry) { return entry.ip() == address; });
}

} // namespace

GLinkTransportTcp::GLinkTransportTcp(qintptr socketDescriptor, quint16 localId, Configuration* config,
                                     TagDatabase* tagDatabase, QObject* parent)
    : GLinkTransportBase(localId, config, tagDatabase, parent)
    , m_hostAddr(noAddress())
    , m_hostPort(0)
    , m_socketDescriptor(socketDescriptor)
{
    qRegisterMetaType<QAbstractSocket::SocketError>();
    requestChecksumList();
}

GLinkTransportTcp::GLinkTransportTcp(const QHostAddress& host, quint16 port, quint16 localId, Configuration* config,
                                     TagDatabase* tagDatabase, QObject* parent)
    : GLinkTransportBase(localId, config, tagDatabase, parent)
    , m_hostAddr(host)
    , m_hostPort(port)
    , m_socketDescriptor(-1)
{
    qRegisterMetaType<QAbstractSocket::SocketError>();
}

GLinkTransportTcp::~GLinkTransportTcp() = default;

bool GLinkTransportTcp::isClientMode() const
{
    return m_hostAddr != noAddress() || m_hostPort != 0;
}

void GLinkTransportTcp::setBacklog(const std::shared_ptr<GLinkBacklog>& backlog)
{
    m_backlog = backlog;
    connect(
        this, &GLinkTransportBase::readyReadFromGLink, this, [this] { ++*m_backlog; }, Qt::DirectConnection);
}

void GLinkTransportTcp::moveToThread(QThread* thread)
{
    QObject::moveToThread(thread);
    connect(thread, &QThread::finished, this, &GLinkTransportTcp::threadFinished);
    // Runs in the ending thread: a socket notifier and a running timer cannot be taken down from elsewhere.
    connect(thread, &QThread::finished, this, &GLinkTransportTcp::releaseLink);
}

void GLinkTransportTcp::threadFinished() {}

// --- Opening --------------------------------------------------------------------------------------------------------

void GLinkTransportTcp::run()
{
    if (isClientMode()) {
        m_connectTimer = makeTimer(m_times.connectRetry, &GLinkTransportTcp::connectLink);
    }
    m_heartbeatTimer = makeTimer(m_times.heartbeat, &GLinkTransportTcp::sendHeartbeat);
    m_heartbeatTimer->setSingleShot(false);
    m_timeoutTimer = makeTimer(m_times.silence, &GLinkTransportTcp::commTimeout);
    m_ackTimeoutTimer = makeTimer(m_times.acknowledge, &GLinkTransportTcp::commTimeout);

    m_socket = makeSocket();
    m_socket->setReadBufferSize(ReadBufferBytes);
    connect(m_socket, &QTcpSocket::readyRead, this, &GLinkTransportTcp::readyRead);
    connect(m_socket, &QTcpSocket::disconnected, this, &GLinkTransportTcp::disconnected);
    connect(m_socket, &QTcpSocket::errorOccurred, this, &GLinkTransportTcp::tcpError);
    connectLink();
}

QTimer* GLinkTransportTcp::makeTimer(std::chrono::milliseconds interval, void (GLinkTransportTcp::*slot)())
{
    auto* const timer = new QTimer(this);
    timer->setSingleShot(true);
    timer->setTimerType(Qt::PreciseTimer);
    timer->setInterval(interval);
    connect(timer, &QTimer::timeout, this, slot);
    return timer;
}

void GLinkTransportTcp::connectLink()
{
    if (isClientMode()) {
        connectToPeer();
    } else {
        adoptDescriptor();
    }
}

void GLinkTransportTcp::adoptDescriptor()
{
    if (m_socket != nullptr && !m_hasEnded &&
        m_socket->setSocketDescriptor(m_socketDescriptor, QAbstractSocket::ConnectedState, QIODevice::ReadWrite)) {
        m_socketFailCount = 0;
        setSocketOptions();
        return;
    }
    ++m_socketFailCount;
    if (m_socketFailCount >= MaxSocketFailures) {
        qFatal("Failure limit reached when trying to set socket descriptor. Exiting.");
    }
    // There is no connection and there will be none: the thread must not wait for its end.
    disconnected();
}

void GLinkTransportTcp::connectToPeer()
{
    if (m_socket == nullptr || m_hasEnded) {
        return;
    }
    ++m_connectTryCount;
    m_socket->connectToHost(m_hostAddr, m_hostPort, QIODevice::ReadWrite);
    if (m_socket->waitForConnected(static_cast<int>(m_times.connectWait.count()))) {
        m_connectTryCount = 0;
        setSocketOptions();
        setCableStatus();
        emit newConnection(m_txPeerId, this);
        return;
    }
    abortSocket();
    if (m_connectTryCount == 1) {
        emit newConnection(m_txPeerId, nullptr);
    }
    restart(m_connectTimer);
}

void GLinkTransportTcp::setSocketOptions()
{
    m_socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    m_socket->setSocketOption(QAbstractSocket::KeepAliveOption, 1);
    const int descriptor = static_cast<int>(m_socket->socketDescriptor());
    for (const SocketOption& option : KeepAliveOptions) {
        ::setsockopt(descriptor, IPPROTO_TCP, option.name, &option.value, sizeof(option.value));
    }
}

QTcpSocket* GLinkTransportTcp::makeSocket()
{
    return new QTcpSocket(this);
}

QString GLinkTransportTcp::cabledInterface() const
{
    return QStringLiteral("eth0");
}

void GLinkTransportTcp::setCableStatus()
{
    Tag* const tag = m_tagDatabase != nullptr ? m_tagDatabase->get(QStringLiteral("g_link_cable")) : nullptr;
    if (tag == nullptr) {
        qWarning() << "Could not find g_link_cable tag, cable wireless status unavailable";
        return;
    }
    // Whether another address is that of "wlan0" or of nothing makes no difference to the tag.
    const bool isCabled = m_socket != nullptr && hasAddress(cabledInterface(), m_socket->localAddress());
    tag->setValue(QVariant(isCabled ? 1U : 0U));
}

// --- Receiving ------------------------------------------------------------------------------------------------------

void GLinkTransportTcp::readyRead()
{
    if (m_socket == nullptr || !m_socket->isOpen() || mustPauseReading()) {
        return;
    }
    resetTimers();
    m_incomingData.append(m_socket->readAll());
    parseStream();
}

bool GLinkTransportTcp::mustPauseReading()
{
    if (!m_backlog || *m_backlog < MaxBacklog) {
        return false;
    }
    if (m_resumeTimer == nullptr) {
        m_resumeTimer = makeTimer(ResumeCheck, &GLinkTransportTcp::readyRead);
    }
    m_resumeTimer->start();
    return true;
}

void GLinkTransportTcp::resetTimers()
{
    restart(m_heartbeatTimer);
    restart(m_timeoutTimer);
}

bool GLinkTransportTcp::handleInitMsg()
{
    const quint16 previousId = m_rxPeerId;
    const bool wasIntroduced = m_introduction.exchange(nextIntroduction()) != 0;
    const bool isAsConfigured = GLinkTransportBase::handleInitMsg();
    if (wasIntroduced && previousId != m_rxPeerId) {
        // The same connection now speaks for another unit: the one before has no link any more.
        emit closedConnection(previousId);
    }
    emit newConnection(m_rxPeerId, this);
    return isAsConfigured;
}

bool GLinkTransportTcp::isIntroducedBefore(quint64 introduction) const
{
    const quint64 own = m_introduction;
    return own != 0 && own < introduction;
}

void GLinkTransportTcp::restartExchange(quint16 remoteId)
{
    GLinkTransportBase::restartExchange(remoteId);
    halt(m_ackTimeoutTimer);
}

bool GLinkTransportTcp::handleAck()
{
    if (!GLinkTransportBase::handleAck()) {
        return false;
    }
    halt(m_ackTimeoutTimer);
    return true;
}

void GLinkTransportTcp::handleInitAckMsg()
{
    if (!isClientMode()) {
        return;
    }
    const GLinkInitAck answer(m_payloadData);
    if (answer.errorCode == 0) {
        resetTimers();
        return;
    }
    const QByteArray text(answer.errorString.constData()); // without the zero padding
    qWarning() << "InitAck error" << answer.errorCode << text;
    if (answer.errorCode == InitErrorFatal || answer.errorCode >= InitErrorFirstUnknown) {
        disconnectFromPeer();
    }
}

// --- Sending --------------------------------------------------------------------------------------------------------

void GLinkTransportTcp::send(quint16 remoteId, quint8 msgId, const QByteArray& message, quint32 refNr)
{
    if (send_(remoteId, msgId, message, refNr)) {
        restart(m_ackTimeoutTimer);
    }
}

bool GLinkTransportTcp::sendMsg(QByteArray& frame)
{
    if (!GLinkTransportBase::sendMsg(frame) || m_socket == nullptr ||
        m_socket->state() != QAbstractSocket::ConnectedState) {
        return false;
    }
    if (m_socket->bytesToWrite() + frame.size() > MaxUnsentBytes) {
        qDebug() << "GLinkTransportTcp: remote unit" << m_rxPeerId << "does not read, closing";
        abortSocket();
        return false;
    }
    if (m_socket->write(frame) < frame.size()) {
        return false;
    }
    m_socket->flush();
    return true;
}

// --- Closing --------------------------------------------------------------------------------------------------------

void GLinkTransportTcp::handleCrcError()
{
    disconnectFromPeer();
}

void GLinkTransportTcp::disconnectFromPeer()
{
    stopParsing();
    if (m_socket != nullptr) {
        // Waits for what we wrote last to be sent. The silence time-out, which nothing restarts any more, bounds that.
        m_socket->disconnectFromHost();
    }
}

void GLinkTransportTcp::commTimeout()
{
    hearTheRest();
    abortSocket();
}

void GLinkTransportTcp::tcpError(QAbstractSocket::SocketError socketError)
{
    Q_UNUSED(socketError)
    hearTheRest();
    abortSocket();
}

/// Aborting would drop what waits in the socket while reading pauses, and the last of it may be a machine stop.
void GLinkTransportTcp::hearTheRest()
{
    if (m_socket != nullptr && m_socket->isOpen()) {
        m_incomingData.append(m_socket->readAll());
        parseStream();
    }
}

void GLinkTransportTcp::close()
{
    stopParsing();
    abortSocket();
    disconnected();
}

void GLinkTransportTcp::abortSocket()
{
    halt(m_heartbeatTimer);
    halt(m_timeoutTimer);
    // Aborting may report an error, which would come back here.
    if (m_socket != nullptr && !std::exchange(m_isAborting, true)) {
        m_socket->abort();
        m_isAborting = false;
    }
}

void GLinkTransportTcp::disconnected()
{
    if (isParsing()) {
        // An acknowledgement could not be sent. The messages behind that one count, too, and come before the end.
        QMetaObject::invokeMethod(this, &GLinkTransportTcp::disconnected, Qt::QueuedConnection);
        return;
    }
    if (std::exchange(m_hasEnded, true)) {
        return;
    }
    stopParsing();
    releaseLink();
    emit closedConnection(m_rxPeerId);
    emit finished();
}

void GLinkTransportTcp::releaseLink()
{
    for (QTimer* const timer : {m_connectTimer, m_heartbeatTimer, m_timeoutTimer, m_ackTimeoutTimer, m_resumeTimer}) {
        halt(timer);
    }
    if (m_socket != nullptr) {
        m_socket->disconnect(this);
        m_socket->abort();
        m_socket->close(); // what the peer sent last and nobody read keeps a socket open
    }
}
