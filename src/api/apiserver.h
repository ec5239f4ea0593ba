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
/// | datagram with | signal                    | what the server does then          | answer            |
/// |---------------|---------------------------|------------------------------------|-------------------|
/// | GET           | –                         | –                                  | the status object |
/// | RESET         | `egResetMsgReceived`      | ECLINKRESET to the base controller | NOTIFY            |
/// | DISARM        | `ruDisarmMsgReceived`     | RELEASEARM to the base controller  | NOTIFY            |
/// | CCHANGE       | `configChangeMsgReceived` | reloads the configuration          | NOTIFY            |
/// | none of these | –                         | –                                  | the status object |
///
/// The first row that fits decides, wherever in the datagram the word stands, in upper case. NOTIFY says that a command
/// was understood, not that it has been carried out.
///
///     {"ARMED_RU":"1001","BCSR":"0", ... ,"UNARMED_RUs":"2"}      // keys in order, all values are texts
///
/// A hundred requests are served as they come, and 200 a second over time. What comes faster waits in the socket, and
/// what does not fit there is lost, as datagrams are: no local program can keep the rest of the server busy.
///
/// Constructed in the main thread after the tags are loaded, then moved to a thread of its own, whose `started` must
/// call `start`. The tags are read from that thread; they are not owned, and outlive this object. Everything but the
/// construction happens in that thread.
class APIServer : public QObject
{
    Q_OBJECT

public:
    /// Receives on port 6250 and answers to port 6251. Status tags that `tags` lacks are named in one warning; their
    /// texts are empty.
    APIServer(TagDatabase* tags, QObject* parent);
    /// The same on other ports of the loopback address; an `inPort` of 0 lets the system choose, and does not tell
    /// which. Nothing is opened before `start`.
    APIServer(TagDatabase* tags, quint16 inPort, quint16 outPort, QObject* parent);

    /// @return the status object, serialised. Only members that changed since the last time are written anew.
    QByteArray getData();
    /// Sends "NOTIFY" to whoever listens on the port for answers; before `start` nothing.
    void sendNotify();
    /// Acts on one datagram of any size, answer included, and logs it up to its first zero byte. The allowance is not
    /// touched here.
    void handleDatagram(const QByteArray& datagram);

    const int IN_PORT;  ///< where requests come in
    const int OUT_PORT; ///< where answers and pushes go, whether anybody listens or not

public slots:
    /// Opens the socket. When the port is taken, a line says so and the server stays deaf and mute. Once.
    void start();
    /// Handles the requests that wait, 32 at most and no more than the allowance permits. The rest has its turn when
    /// the event loop comes back to the socket, or when the allowance is renewed, every 50 ms.
    void readData();
    /// Sends the status object. Called for each tag that changes: an image that changes three of them makes three
    /// datagrams, which may all show the last state already. Pushes are not limited.
    void sendData();

signals:
    // Emitted in this object's thread, before the answer.

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
