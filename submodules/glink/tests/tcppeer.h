#pragma once

#include "patience.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QList>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

/// Runs the event loop until the condition holds, for `PatienceMs` at most. Looks after every event, where QTRY_VERIFY
/// looks every 50 ms.
template<typename Condition>
bool waitUntil(Condition condition)
{
    QTimer wakeUp;
    wakeUp.start(1);
    const QDeadlineTimer deadline(PatienceMs);
    while (!condition() && !deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
    }
    return condition();
}

/// Keeps the descriptors of accepted connections, as GLinkServer does before it makes a transport of them.
class DescriptorServer : public QTcpServer
{
public:
    DescriptorServer() { listen(QHostAddress::LocalHost); }

    /// The next accepted descriptor; -1 when none comes.
    qintptr takeDescriptor()
    {
        while (m_descriptors.isEmpty() && waitForNewConnection(PatienceMs)) {
        }
        return m_descriptors.isEmpty() ? -1 : m_descriptors.takeFirst();
    }

protected:
    void incomingConnection(qintptr descriptor) override { m_descriptors.append(descriptor); }
    bool hasPendingConnections() const override { return !m_descriptors.isEmpty(); }

private:
    QList<qintptr> m_descriptors;
};

/// The remote unit's end of a connection: writes bytes as told, cuts what arrives into frames by their length field.
class TcpPeer
{
public:
    void connectTo(const QTcpServer& server)
    {
        socket.connectToHost(server.serverAddress(), server.serverPort());
        socket.waitForConnected(PatienceMs);
    }

    void write(const QByteArray& bytes)
    {
        socket.write(bytes);
        socket.flush();
    }

    /// All whole frames so far.
    const QList<QByteArray>& frames()
    {
        m_rest += socket.readAll();
        while (m_rest.size() >= HeaderSize && m_rest.size() >= frameSize()) {
            m_frames.append(m_rest.left(frameSize()));
            m_rest.remove(0, frameSize());
        }
        return m_frames;
    }

    /// Frames with that id and type (0 message, 1 acknowledgement).
    int count(int msgId, int msgType)
    {
        int matching = 0;
        for (const QByteArray& frame : frames()) {
            matching += quint8(frame.at(3)) == msgId && frame.at(4) == msgType ? 1 : 0;
        }
        return matching;
    }

    bool isConnected() const { return socket.state() == QAbstractSocket::ConnectedState; }

    QTcpSocket socket;

private:
    static constexpr int HeaderSize = 17;

    int frameSize() const { return HeaderSize + quint8(m_rest.at(0)) + 256 * quint8(m_rest.at(1)) + 4; }

    QByteArray m_rest;
    QList<QByteArray> m_frames;
};
