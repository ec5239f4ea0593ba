#include "eglinksockets.h"

#include <QDebug>
#include <QUdpSocket>

namespace {

constexpr int LargestDatagram = 65536;

/// The address by which the kernel knows the interface for multicast; null if it has none.
QHostAddress ipv4AddressOf(const QNetworkInterface& interface)
{
    const QList<QNetworkAddressEntry> entries = interface.addressEntries();
    for (const QNetworkAddressEntry& entry : entries) {
        if (entry.ip().protocol() == QAbstractSocket::IPv4Protocol) {
            return entry.ip();
        }
    }
    return QHostAddress();
}

/// Takes a socket out of service now; the object goes when no call of its own is on the stack any more.
void release(QUdpSocket* socket)
{
    if (socket != nullptr) {
        socket->disconnect();
        socket->close();
        socket->deleteLater();
    }
}

} // namespace

EGLinkSockets::EGLinkSockets(const QHostAddress& multicastAddr, quint16 remotePort, quint16 localPort,
                             const QString& interfaceName, QObject* parent)
    : QObject(parent)
    , m_multicastAddr(multicastAddr)
    , m_remotePort(remotePort)
    , m_localPort(localPort)
    , m_interfaceName(interfaceName)
    , m_rxBuffer(LargestDatagram, '\0')
{}

EGLinkSockets::Result EGLinkSockets::rebuild()
{
    release(m_txSocket);
    release(m_rxSocket);
    m_txSocket = new QUdpSocket(this);
    m_rxSocket = new QUdpSocket(this);
    m_egLinkInterface = QNetworkInterface::interfaceFromName(m_interfaceName);
    if (!rebuildTx()) {
        return Result::TxBindFailed;
    }
    return rebuildRx() ? Result::Bound : Result::RxBindFailed;
}

bool EGLinkSockets::rebuildTx()
{
    m_txReady = false;
    if (!m_txSocket->bind(QHostAddress::AnyIPv4, m_remotePort, QUdpSocket::ShareAddress)) {
        return false;
    }
    // Our own packets come back to this socket through the group, and nobody reads them: keep its queue minimal.
    m_txSocket->setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, 0);
    if (m_egLinkInterface.isValid()) {
        m_txSocket->setMulticastInterface(m_egLinkInterface);
        m_txSocket->joinMulticastGroup(m_multicastAddr, m_egLinkInterface);
        // Read back, since setting does not tell: without it the routing table would choose, perhaps the radio.
        m_txReady = m_txSocket->multicastInterface().isValid();
    }
    return true;
}

bool EGLinkSockets::rebuildRx()
{
    connect(m_rxSocket, &QUdpSocket::readyRead, this, &EGLinkSockets::readyRead);
    if (!m_rxSocket->bind(QHostAddress::AnyIPv4, m_localPort, QUdpSocket::ShareAddress)) {
        return false;
    }
    m_joined = m_egLinkInterface.isValid() && m_rxSocket->joinMulticastGroup(m_multicastAddr, m_egLinkInterface);
    reportMembership(m_joined);
    return true;
}

void EGLinkSockets::reportMembership(bool joined)
{
    if (joined) {
        qDebug() << "JOIN RX MULTICAST SUCCESS";
    } else if (!m_absenceReported) {
        qWarning() << "EGLink: waiting for multicast on" << m_interfaceName;
    }
    // Once an outage: the sockets are rebuilt with every failed send.
    m_absenceReported = !joined;
}

bool EGLinkSockets::write(const QByteArray& packet)
{
    return m_txReady && m_txSocket->writeDatagram(packet, m_multicastAddr, m_remotePort) == packet.size();
}

std::optional<QByteArray> EGLinkSockets::nextDatagram()
{
    if (m_rxSocket == nullptr) {
        return std::nullopt;
    }
    // No look ahead whether a datagram is waiting: QUdpSocket announces the next one only after a read, a vain one
    // included. Who returns unread from an announcement (the datagram was read already, or the kernel has dropped it
    // for its checksum) never hears of another.
    const qint64 size = m_rxSocket->readDatagram(m_rxBuffer.data(), m_rxBuffer.size());
    if (size < 0) {
        return std::nullopt;
    }
    return m_rxBuffer.left(static_cast<int>(size));
}

bool EGLinkSockets::needsRebuild() const
{
    const QNetworkInterface now = QNetworkInterface::interfaceFromName(m_interfaceName);
    const QHostAddress address = ipv4AddressOf(now);
    if (address.isNull()) {
        return false;
    }
    return !m_joined || !m_txReady || now.index() != m_egLinkInterface.index() ||
           address != ipv4AddressOf(m_egLinkInterface);
}
