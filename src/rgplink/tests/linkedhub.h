#pragma once

#include "baseunit.h"
#include "cfallback_service_c.h"
#include "gfallback_service_c.h"
#include "glinkserver.h"
#include "glinktransporttcp.h"
#include "remoteunit.h"
#include "rgpcom.h"

#include <QCoreApplication>
#include <QHostAddress>
#include <QMetaMethod>
#include <QMutex>
#include <QScopedPointer>
#include <QSet>
#include <QTcpSocket>
#include <QThread>

constexpr quint16 Unit = 5;
constexpr quint16 OtherUnit = 6;
constexpr quint8 Init = 1;
constexpr quint8 InitAck = 2;
constexpr quint8 Command = 3;
constexpr quint8 Periodic = 4;
constexpr quint8 Forward = 5;
constexpr quint8 Status = 8;
constexpr quint8 DeInit = 9;

/// An address of this process alone, so that other tests may listen on the same port meanwhile.
inline const QHostAddress ListenAddress(0x7F010000U |
                                        (static_cast<quint32>(QCoreApplication::applicationPid()) & 0xFFFFU));

inline QByteArray initFrame(quint16 remoteId, const QByteArray& checksum = QByteArray())
{
    return gLinkFrame(Init, initPayload(remoteId, BaseUnit::Identity, checksum));
}

/// A remote unit on TCP. Acknowledges what it receives, unless told not to.
class TcpUnit : public QObject
{
public:
    TcpUnit()
    {
        connect(&socket, &QTcpSocket::readyRead, this, &TcpUnit::read);
        socket.connectToHost(ListenAddress, RGPCom::GLinkPort);
    }
    void write(const QByteArray& bytes) { socket.write(bytes); }
    bool isConnected() const { return socket.state() == QAbstractSocket::ConnectedState; }

    ReceivedFrames received;
    bool isAcknowledging = true;
    QTcpSocket socket;

private:
    void read()
    {
        m_rest += socket.readAll();
        while (m_rest.size() >= 17 && m_rest.size() >= frameSize()) {
            const QByteArray frame = m_rest.left(frameSize());
            m_rest.remove(0, frame.size());
            received.frames << frame;
            if (isAcknowledging && frame.at(4) == 0) {
                write(gLinkAck(static_cast<quint8>(frame.at(3))));
            }
        }
    }
    int frameSize() const { return 17 + quint8(m_rest.at(0)) + 256 * quint8(m_rest.at(1)) + 4; }

    QByteArray m_rest;
};

/// Notes in which threads its signals are connected.
template<typename Service>
class WatchedService : public Service
{
public:
    using Service::Service;

    QSet<QThread*> connectedIn() const
    {
        const QMutexLocker lock(&m_mutex);
        return m_connectedIn;
    }

protected:
    void connectNotify(const QMetaMethod& signal) override
    {
        const QMutexLocker lock(&m_mutex);
        if (signal.name() != "destroyed") {
            m_connectedIn.insert(QThread::currentThread());
        }
    }

private:
    mutable QMutex m_mutex;
    QSet<QThread*> m_connectedIn;
};

/// Lives in the service-layer thread, with the services.
struct Services
{
    Services()
    {
        gFallback->moveToThread(&thread);
        cFallback->moveToThread(&thread);
        QObject::connect(&thread, &QThread::finished, gFallback, &QObject::deleteLater);
        QObject::connect(&thread, &QThread::finished, cFallback, &QObject::deleteLater);
        thread.start();
    }
    ~Services() { end(); }
    void end()
    {
        thread.quit();
        thread.wait();
    }
    Services(const Services&) = delete;
    Services& operator=(const Services&) = delete;

    QThread thread;
    WatchedService<GfallbackServiceC>* const gFallback = new WatchedService<GfallbackServiceC>(nullptr, 105);
    WatchedService<CFallbackServiceC>* const cFallback = new WatchedService<CFallbackServiceC>(nullptr, 104);
};

/// The hub with its services and the base controller's relay, as the server has them.
class LinkedHub
{
public:
    LinkedHub()
        : relay(services.gFallback)
        , hub(new RGPCom(&unit.tags, unit.configuration.data(), nullptr))
    {
        hub->initialize(services.gFallback, services.cFallback);
    }
    /// As the server ends: the services, which post to the hub's threads, before the hub.
    ~LinkedHub() { services.end(); }

    BaseUnit unit;
    Services services;
    FallbackRelay relay;
    QScopedPointer<RGPCom> hub;
};

/// What every test of it begins and ends with.
class LinkedHubTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { GLinkServer::setListenAddress(ListenAddress); }
    void cleanupTestCase() { GLinkServer::setListenAddress(QHostAddress()); }
    void init() { m_plant.reset(new LinkedHub); }
    void cleanup() { m_plant.reset(); }

protected:
    QScopedPointer<LinkedHub> m_plant;
};
