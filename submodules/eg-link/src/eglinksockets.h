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
/// | socket    | bound to                  | carries                                                          |
/// |-----------|---------------------------|------------------------------------------------------------------|
/// | sending   | any address, `remotePort` | out, to group and `remotePort`; what comes in there is not read  |
/// | receiving | any address, `localPort`  | in, from the group and from whoever sends to that port directly  |
///
/// Both are in the group. Other programs may use the same ports beside them. Datagrams stay in the network at that
/// interface: no router passes them on.
///
///     interface absent: rebuild() gives Bound, and nothing leaves or comes in
///     it comes: needsRebuild() turns true; another rebuild(), and datagrams go both ways
///
/// Lives in the thread of its creator; never blocks. The destructor leaves the group and drops what has not been read.
class EGLinkSockets : public QObject
{
    Q_OBJECT

public:
    /// What became of the ports; says nothing about the interface.
    enum class Result { Bound, TxBindFailed, RxBindFailed };

    /// No socket is opened yet.
    /// @param remotePort port that the machine controller listens on: packets go there.
    /// @param localPort port that this side listens on.
    EGLinkSockets(const QHostAddress& multicastAddr, quint16 remotePort, quint16 localPort,
                  const QString& interfaceName, QObject* parent);

    /// Replaces the sockets by new ones on the interface as it is now. An interface that cannot carry multicast at the
    /// moment is not a failure: the sockets are bound, and `needsRebuild` tells when to try again. Datagrams that
    /// waited in the old sockets are lost. Logs the joining of the group, and the absence of the interface once an
    /// outage.
    /// @return the first failure; the sockets are then good for nothing but another rebuild().
    Result rebuild();

    /// Sends one datagram to the group, at once: nothing is queued here. @return false if it did not leave whole, and
    ///         before the first `rebuild`. What leaves may still be lost on the way.
    bool write(const QByteArray& packet);

    /// Reads the next datagram whole, whatever its size. @return nothing when none is waiting.
    ///
    /// Every call arms `readyRead` again, so a reader may stop at any time and is called again while datagrams wait.
    /// From whom a datagram is, is not told: everybody in the network may send to the group.
    std::optional<QByteArray> nextDatagram();

    /// @return true if the interface is usable now, but not as the sockets know it: it was absent when they were made,
    ///         has come back as another device, or its address has changed. Asks the kernel each time.
    bool needsRebuild() const;

signals:
    /// Datagrams wait. Told once, until `nextDatagram` is called.
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
    bool m_joined = false;               ///< the receiving socket is in the group
    bool m_absenceReported = false;      ///< since the interface was last there
};
