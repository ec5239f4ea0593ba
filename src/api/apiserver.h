#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QVariant>

#include <vector>

class QTimer;
class QUdpSocket;
class TagDatabase;

/// Status and commands for programs on the same machine, over UDP on the loopback address.
///
/// A datagram that contains GET, or nothing known, is answered with the status object, a compact JSON object of texts.
/// RESET, DISARM and CCHANGE emit their signal and are answered with "NOTIFY". The status object is also sent unasked
/// at every change of one of its tags. All answers go to the same port, whoever asked.
///
/// A hundred requests are served as they come, and 200 a second over time. What comes faster waits in the socket, and
/// what does not fit there is lost, as datagrams are: no local program can keep the rest of the server busy.
///
/// Constructed in the main thread after the tags are loaded, then moved to a thread of its own, whose `started` must
/// call `start`. The tags are read from that thread; they are not owned.
class APIServer : public QObject
{
    Q_OBJECT

public:
    /// Receives on port 6250 and answers to port 6251. Status tags that `tags` lacks are named in one warning; their
    /// texts are empty.
    APIServer(TagDatabase* tags, QObject* parent);
    /// The same on other ports of the loopback address; an `inPort` of 0 lets the system choose.
    APIServer(TagDatabase* tags, quint16 inPort, quint16 outPort, QObject* parent);

    /// @return the status object, serialised. Only members that changed since the last time are written anew.
    QByteArray getData();
    void sendNotify();
    /// Acts on one datagram, answer included.
    void handleDatagram(const QByteArray& datagram);

    const int IN_PORT;
    const int OUT_PORT;

public slots:
    /// Opens the socket. When the port is taken, a line says so and the server stays deaf and mute.
    void start();
    void readData();
    void sendData();

signals:
    void egResetMsgReceived();
    void ruDisarmMsgReceived();
    void configChangeMsgReceived();

private:
    /// A member of the status object as it was last written.
    struct WrittenMember
    {
        QString key;
        QString tagName;
        QString text;    ///< the value as text
        QByteArray json; ///< "key":"text"
    };

    void watchStatusTags();
    void prepareMembers();
    QString textOf(const QString& tagName) const;
    void send(const QByteArray& datagram);
    void takeAllowance();
    void regainAllowance();

    QUdpSocket* socket = nullptr;
    TagDatabase* tags;
    int m_allowance;                      ///< requests that may be read now
    QTimer* m_regain = nullptr;           ///< made with the socket; runs while the allowance is not whole
    std::vector<WrittenMember> m_members; ///< in the order of their keys, as JSON objects of Qt have them
};
