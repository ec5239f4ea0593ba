#include "eglink.h"

#include "eglinksockets.h"
#include "myassertfunc.h"

#include <QDebug>
#include <QThread>
#include <QTimer>
#include <QTimerEvent>

#include <atomic>

using EGLinkPacket::Type;

namespace {

constexpr char SourceUnit[] = "submodules/eg-link/src/eglink";

enum FatalLine : unsigned int {
    TxBindFailed = 101,
    RxBindFailed = 102,
    VrpiPayloadTooLarge = 103,
};

constexpr quint16 PortOffset = 2; ///< from the controller's port to ours

constexpr quint8 EmapVrpi = 0x01;
constexpr quint8 EmapCommands = 0x02;
constexpr quint8 EmapVrpo = 0x04;
constexpr quint8 EmapMask = EmapVrpi | EmapCommands | EmapVrpo;

constexpr quint16 ResendPeriodMs = 100;
constexpr quint16 ResendLimitMs = 2000;
constexpr quint16 NoAcknowledgement = 65535;

/// Datagrams handled in one turn of the event loop.
constexpr int DatagramBatch = 64;

/// Every tenth expiry of the watchdog is worth a line, beginning with the second.
constexpr quint32 ReportedExpiryPeriod = 10;

/// Counts for the life of the process, across links.
std::atomic<quint32> s_periodicDataTimeouts{0};

bool carriesCommandId(const QByteArray& payload, const char* name)
{
    const bool carries = payload.size() >= EGLinkPacket::CommandIdSize;
    if (!carries) {
        qDebug() << name << "payload too short, ignored. (" << payload.size() << ")";
    }
    return carries;
}

} // namespace

EGLink::EGLink(const QHostAddress& multicastAddr, quint16 remotePort, quint32 vrpoByteCount, quint8 emap,
               quint16 baseId, QObject* parent, const EGLinkTuning& tuning)
    : QObject(parent)
    , m_multicastAddr(multicastAddr)
    , m_remotePort(remotePort)
    , m_localPort(static_cast<quint16>(remotePort + PortOffset))
    , m_baseId(baseId)
    , m_tuning(tuning)
    , m_emapValue(emap)
    , m_reassembly(vrpoByteCount)
    , m_vrciLastAck(NoAcknowledgement)
{}

void EGLink::run()
{
    qDebug() << "EGLink::run() - thread started" << QThread::currentThreadId();
    createStateMachine();
    m_vrpoTimeoutTimer = createTimer(m_tuning.vrpoTimeoutMs, &EGLink::periodicDataTimeout);
    m_vrpiPeriodTimer = createTimer(m_tuning.vrpiPeriodMs, &EGLink::sendVRPIMessage);
    m_vrciResendTimer = createTimer(ResendPeriodMs, &EGLink::resendVRCIMessage);
    configureMulticastSockets();
    m_interfaceCheckTimer.start(m_tuning.interfaceCheckMs, this);

    const quint8 emap = m_emapValue;
    m_emapValue = 0;
    setEmap(emap);
}

void EGLink::createStateMachine()
{
    m_stateMachine = new StateMachine(egLinkTransitionTable(m_tuning.recoveryTimeMs), this);
    connect(this, &EGLink::EGEvent, m_stateMachine, &StateMachine::receiveEvent);
    connect(m_stateMachine, &StateMachine::stateUpdate, this, &EGLink::setEGLinkStatus);
}

QTimer* EGLink::createTimer(int intervalMs, void (EGLink::*timeout)())
{
    auto* const timer = new QTimer(this);
    timer->setInterval(intervalMs);
    connect(timer, &QTimer::timeout, this, timeout);
    return timer;
}

void EGLink::configureMulticastSockets()
{
    if (m_sockets == nullptr) {
        m_sockets = new EGLinkSockets(m_multicastAddr, m_remotePort, m_localPort, m_tuning.interfaceName, this);
        connect(m_sockets, &EGLinkSockets::readyRead, this, &EGLink::readPendingDatagrams);
    }
    switch (m_sockets->rebuild()) {
    case EGLinkSockets::Result::Bound: return;
    case EGLinkSockets::Result::TxBindFailed:
        qDebug() << "Tx QUdpSocket bind() failed";
        myAssertFunc(SourceUnit, TxBindFailed);
    case EGLinkSockets::Result::RxBindFailed:
        qDebug() << "Rx QUdpSocket bind() failed";
        myAssertFunc(SourceUnit, RxBindFailed);
    }
}

bool EGLink::transmit(const QByteArray& packet)
{
    return m_sockets->write(packet);
}

void EGLink::timerEvent(QTimerEvent* event)
{
    if (event->timerId() != m_interfaceCheckTimer.timerId()) {
        QObject::timerEvent(event);
        return;
    }
    // A link that only listens never fails to send, so it would never learn that its interface has come back.
    if (m_sockets != nullptr && m_sockets->needsRebuild()) {
        configureMulticastSockets();
    }
}

// Channels

void EGLink::setEmap(quint8 emap)
{
    if (!isRunning()) {
        m_emapValue = emap;
        return;
    }
    const quint8 newEmap = emap & EmapMask;
    announceEmapChange(m_emapValue, newEmap);
    enableVRPI((newEmap & EmapVrpi) != 0);
    enableVRCxAx((newEmap & EmapCommands) != 0);
    enableVRPO((newEmap & EmapVrpo) != 0);
    m_emapValue = newEmap;
}

void EGLink::announceEmapChange(quint8 oldEmap, quint8 newEmap)
{
    if (oldEmap != 0 && newEmap == 0) {
        emit EGEvent(DISABLE);
    } else if (oldEmap == 0 && newEmap != 0) {
        m_headerCheck.restart();
        emit EGEvent(CONFIGURE);
    }
}

void EGLink::enableVRPI(bool enable)
{
    m_enableVRPI = enable;
    if (enable) {
        m_vrpiPeriodTimer->start();
    } else {
        m_vrpiPeriodTimer->stop();
        m_activeVRPIData.clear();
    }
}

void EGLink::enableVRCxAx(bool enable)
{
    m_enableVRCxAx = enable;
    if (enable) {
        return;
    }
    m_vrciResendTimer->stop();
    m_newVRCIData.clear();
    m_activeVRCIMessage.clear();
    m_vrciCommandId = 0;
    m_vrciExpectedAck = 0;
    m_vrciResendTimeMs = 0;
    m_expectedVRCOCommandId = 0;
    m_vrciLastAck = NoAcknowledgement;
    m_isResetVRCOId = true;
}

void EGLink::enableVRPO(bool enable)
{
    m_enableVRPO = enable;
    if (enable) {
        m_vrpoTimeoutTimer->start();
    } else {
        m_vrpoTimeoutTimer->stop();
        m_reassembly.reset();
        // Without periodic data to wait for, a freshly configured link is operational at once.
        emit EGEvent(CONFIGURE_NO_VRPO);
    }
}

void EGLink::setEGLinkStatus(const EGLinkState state)
{
    m_linkStatus = state;
    emit EGLinkStatus(static_cast<quint8>(state));
}

// Sending

QByteArray EGLink::generateIdAndHeader(Type type, int dataSize)
{
    return EGLinkPacket::header(type, m_baseId, m_txCount++, dataSize);
}

QByteArray EGLink::buildPacket(Type type, const QByteArray& payload)
{
    QByteArray packet = generateIdAndHeader(type, payload.size());
    packet.append(payload);
    CrcStd32::add(packet);
    return packet;
}

void EGLink::send(Type type, const QByteArray& packet)
{
    if (type == Type::Vrci) {
        qDebug() << "EGLink::send()" << packet.size() << packet;
    }
    if (!transmit(packet)) {
        configureMulticastSockets();
    }
}

void EGLink::receiveFromRGP(const QByteArray& data)
{
    if (data.size() > EGLinkPacket::MaxPayloadSize) {
        qDebug() << "Packet payload too large.";
        myAssertFunc(SourceUnit, VrpiPayloadTooLarge);
    }
    m_activeVRPIData = data;
}

void EGLink::sendVRPIMessage()
{
    send(Type::Vrpi, buildPacket(Type::Vrpi, m_activeVRPIData));
}

void EGLink::receiveCmd(const QByteArray& data)
{
    if (data.size() > EGLinkPacket::MaxCommandSize) {
        qDebug() << "Command too large for the machine controller, ignored. (" << data.size() << ")";
        return;
    }
    m_newVRCIData = data;
    if (isRunning() && m_enableVRCxAx) {
        sendVRCIMessage();
    }
}

void EGLink::sendVRCIMessage()
{
    if (m_newVRCIData.isEmpty()) {
        return;
    }
    m_activeVRCIMessage = buildPacket(Type::Vrci, EGLinkPacket::commandPayload(m_vrciCommandId, m_newVRCIData));
    m_newVRCIData.clear();
    m_vrciResendTimeMs = 0;
    m_vrciExpectedAck = m_vrciCommandId++;
    send(Type::Vrci, m_activeVRCIMessage);
    m_vrciResendTimer->start();
}

void EGLink::resendVRCIMessage()
{
    qDebug() << "EGLink::resendVRCIMessage():" << m_vrciResendTimeMs + ResendPeriodMs << "ms.";
    if (!m_newVRCIData.isEmpty()) {
        sendVRCIMessage();
    } else if (!m_activeVRCIMessage.isEmpty()) {
        repeatVRCIMessage();
    }
}

void EGLink::repeatVRCIMessage()
{
    m_vrciResendTimeMs += ResendPeriodMs;
    if (m_vrciResendTimeMs >= ResendLimitMs) {
        m_vrciResendTimer->stop();
        qDebug() << "No VRAO for" << ResendLimitMs << " ms, timeout. Timer stopped.";
        emit EGEvent(CMD_ACK_FAILURE);
    } else if (m_vrciResendTimer->isActive()) {
        send(Type::Vrci, m_activeVRCIMessage);
    }
}

// Receiving

void EGLink::readPendingDatagrams()
{
    if (m_sockets == nullptr) {
        return;
    }
    for (int handled = 0; handled < DatagramBatch; ++handled) {
        const std::optional<QByteArray> datagram = m_sockets->nextDatagram();
        if (!datagram) {
            return;
        }
        handleDatagram(*datagram);
    }
}

void EGLink::handleDatagram(QByteArray packet)
{
    if (!CrcStd32::checkAndRemove(packet)) {
        qDebug() << "Rx CRC error: packet ignored.";
        return;
    }
    quint16 serial = 0;
    const Type type = m_headerCheck.checkAndRemoveHeader(packet, serial);
    dispatch(type, serial, packet);
}

void EGLink::dispatch(Type type, quint16 serial, const QByteArray& payload)
{
    if (type == Type::None) {
        qDebug() << "Rx header error: packet ignored.";
    } else if (type == Type::Vrpo && m_enableVRPO) {
        handleVRPOMessage(serial, payload);
    } else if (type == Type::Vrco && m_enableVRCxAx) {
        handleVRCOMessage(payload);
    } else if (type == Type::Vrao && m_enableVRCxAx) {
        handleVRAOMessage(payload);
    }
    // The rest, our own types and disabled channels, is nobody's fault and not worth a line.
}

void EGLink::handleVRAOMessage(const QByteArray& payload)
{
    if (!carriesCommandId(payload, "VRAO")) {
        return;
    }
    const quint16 id = EGLinkPacket::commandIdOf(payload);
    if (id != m_vrciExpectedAck) {
        qDebug() << "VRAO: expected id" << m_vrciExpectedAck << ", got" << id;
        emit EGEvent(CMD_ACK_FAILURE);
        return;
    }
    m_vrciLastAck = id;
    m_activeVRCIMessage.clear();
    m_vrciResendTimer->stop();
}

void EGLink::handleVRCOMessage(const QByteArray& payload)
{
    if (!carriesCommandId(payload, "VRCO")) {
        return;
    }
    const quint16 id = EGLinkPacket::commandIdOf(payload);
    if (!m_isResetVRCOId && id != m_expectedVRCOCommandId) {
        qDebug() << "Unexpected VRCO command id" << m_expectedVRCOCommandId << "got" << id;
        m_isResetVRCOId = true;
        return;
    }
    m_isResetVRCOId = false;
    m_expectedVRCOCommandId = static_cast<quint16>(id + 1);
    send(Type::Vrai, buildPacket(Type::Vrai, EGLinkPacket::acknowledgementPayload(id)));
    emit sendCmd(payload.mid(EGLinkPacket::CommandOffset));
}

void EGLink::handleVRPOMessage(quint16 serial, const QByteArray& payload)
{
    const std::optional<QByteArray> data = m_reassembly.add(serial, payload);
    if (!data) {
        return;
    }
    m_vrpoTimeoutTimer->start();
    emit EGEvent(PERIODIC_DATA);
    if (*data != m_currentVRPOData) {
        m_currentVRPOData = *data;
        emit sendToRGP(m_currentVRPOData);
    }
}

void EGLink::periodicDataTimeout()
{
    const quint32 before = s_periodicDataTimeouts.fetch_add(1);
    if (before % ReportedExpiryPeriod == 1) {
        qDebug() << "Periodic data timer expired." << before + 1;
    }
    emit EGEvent(NO_PERIODIC_DATA);
}
