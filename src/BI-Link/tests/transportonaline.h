#pragma once

#include "internallink.h"
#include "logspy.h"
#include "patience.h"
#include "pseudoterminal.h"
#include "transport_layer.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QSignalSpy>

#include <memory>

/// The transport layer on a line whose far end the test plays, and packets that were computed apart from it.
namespace TransportPackets {

inline QByteArray bytes(const char* hex)
{
    return QByteArray::fromHex(hex);
}

// Packets of ours, each with the acknowledgement that the base controller answers it with.
const QByteArray Reset0 = bytes("82406400E58E27030A");
const QByteArray Reset0Ack = bytes("82C0647CDC60E20A");
const QByteArray Data0 = bytes("824065117F4720180A"); // service 101, payload 11
const QByteArray Data0Ack = bytes("82C065781D7D550A");
const QByteArray Data1 = bytes("82416522A7EEC7D60A"); // service 101, payload 22
const QByteArray Data1Ack = bytes("82C165AA04BC890A");
const QByteArray Data2 = bytes("82426533ED57F4980A"); // service 101, payload 33

// A packet of the test's own, told from all others by its service id.
constexpr quint8 MarkerService = 107;
constexpr int ServiceIdInFrame = 2;

} // namespace TransportPackets

class PseudoTerminalLink : public InternalLink
{
public:
    explicit PseudoTerminalLink(const PseudoTerminal& line)
        : InternalLink(line.portName().constData(), nullptr)
    {}
};

class OpenTransportLayer : public TransportLayer
{
public:
    explicit OpenTransportLayer(const PseudoTerminal& line)
        : TransportLayer(new PseudoTerminalLink(line), nullptr)
    {}
};

/// What the tests of sending and of receiving share. A test program calls begin() before each test and end() after it.
class TransportOnALine : public QObject
{
protected:
    void begin()
    {
        m_log = std::make_unique<LogSpy>();
        m_line = std::make_unique<PseudoTerminal>();
        m_layer = std::make_unique<OpenTransportLayer>(*m_line);
        m_sent.clear();
        m_failures = 0;
        m_resetAcks = 0;
        connect(m_layer.get(), &TransportLayer::sendOnInternal, this,
                [this](const QByteArray& frame) { m_sent.append(frame); });
        connect(m_layer.get(), &TransportLayer::internLinkFail, this, [this] { ++m_failures; });
        connect(m_layer.get(), &TransportLayer::resetAckRecieved, this, [this] { ++m_resetAcks; });
    }

    void end()
    {
        m_layer.reset();
        m_line.reset();
        m_log.reset();
    }

    void send(const char* payloadHex, quint8 serviceId = 101, quint8 messageClass = 1)
    {
        m_layer->readDataFromService(TransportPackets::bytes(payloadHex), Internal, serviceId, messageClass);
    }

    bool waitForFailure() { return QSignalSpy(m_layer.get(), &TransportLayer::internLinkFail).wait(PatienceMs); }

    /// Lets another packet fail, so that everything due before has happened; returns the frames of the other packets.
    QList<QByteArray> framesUpToLaterFailure()
    {
        send("FF", TransportPackets::MarkerService);
        waitForFailure();
        QList<QByteArray> others;
        for (const QByteArray& frame : qAsConst(m_sent)) {
            if (static_cast<quint8>(frame.at(TransportPackets::ServiceIdInFrame)) != TransportPackets::MarkerService) {
                others.append(frame);
            }
        }
        return others;
    }

    std::unique_ptr<PseudoTerminal> m_line;
    std::unique_ptr<OpenTransportLayer> m_layer;
    QList<QByteArray> m_sent; ///< all frames of `sendOnInternal`
    int m_failures = 0;
    int m_resetAcks = 0;
    std::unique_ptr<LogSpy> m_log;
};
