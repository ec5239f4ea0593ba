#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QNetworkInterface>
#include <QObject>
#include <QString>

#include <optional>

class QUdpSocket;

/// The two UDP sockets of the link, tied to one network interface by name. The interface may be absent, down or without
/// an address at any time; nothing is ever sent through another one instead.
///
/// Lives in the thread of its creator; never blocks.
class EGLinkSockets : public QObject
{
    Q_OBJECT

public:
    enum class Result { Bound, TxBindFailed, RxBindFailed };

    /// No socket is opened yet.
    /// @param remotePort port that the machine controller listens on: packets go there.
    /// @param localPort port that this side listens on.
    EGLinkSockets(const QHostAddress& multicastAddr, quint16 remotePort, quint16 localPort,
                  const QString& interfaceName, QObject* parent);

    /// Replaces the sockets by new ones on the interface as it is now. An interface that cannot carry multicast at the
    /// moment is not a failure: the sockets are bound, and `needsRebuild` tells when to try again.
    Result rebuild();

    /// Sends one datagram to the group. @return false if it did not leave whole.
    bool write(const QByteArray& packet);

    /// Reads the next datagram whole, whatever its size. @return nothing when none is waiting.
    ///
    /// Every call arms `readyRead` again, so a reader may stop at any time and is called again while datagrams wait.
    std::optional<QByteArray> nextDatagram();

    /// @return true if the interface is usable now, but not as the sockets know it: it was absent when they were made,
    ///         has come back as another device, or its address has changed. Asks the kernel each time.
    bool needsRebuild() const;

signals:
    void readyRead();

private:
    bool rebuildTx();
    bool rebuildRx();
    void reportMembership(bool joined);

    const QHostAddress m_multicastAddr;
    const quint16 m_remotePort;
    const quint16 m_localPort;
    const QString m_interfaceName;
    QByteArray m_rxBuffer; ///< as large as a datagram can be, so that none is ever cut

    QUdpSocket* m_txSocket = nullptr;
    QUdpSocket* m_rxSocket = nullptr;
    QNetworkInterface m_egLinkInterface; ///< as it was when the sockets were made
    bool m_txReady = false;              ///< outgoing multicast is tied to the interface
    bool m_joined = false;
    bool m_absenceReported = false;
};
