#include "glinkframes.h"
#include "glinktransporttcp.h"
#include "logspy.h"
#include "tagdatabase.h"
#include "tcppeer.h"

#include <QSignalSpy>
#include <QtTest>

namespace {

using namespace std::chrono_literals;

constexpr GLinkTcpTimes Never{1h, 1h, 1h, 30s, 1h};
constexpr char NoTagWarning[] = "Could not find g_link_cable tag, cable wireless status unavailable";

/// A client that takes the loopback interface for the cabled one.
class LoopbackClient : public GLinkTransportTcp
{
public:
    using GLinkTransportTcp::GLinkTransportTcp;
    QString interfaceName = QStringLiteral("lo");

protected:
    QString cabledInterface() const override { return interfaceName; }
};

} // namespace

/// Client mode, the remote unit's side, against the server mode of the same class.
class TestGLinkTcpClient : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void itConnectsAndAnnouncesItself();
    void bothSidesOfTheClassUnderstandEachOther();
    void anAcceptedInitStartsTheSupervision();
    void aRefusalIsLoggedAndSomeCodesDisconnect_data();
    void aRefusalIsLoggedAndSomeCodesDisconnect();
    void itTriesAgainUntilTheBaseUnitIsThere();
    void itCanBeClosedBetweenTwoAttempts();
    void aPortAloneMakesItAClient();
    void aLostConnectionIsTheEnd();
    void theCableTagTellsTheInterface_data();
    void theCableTagTellsTheInterface();
    void withoutTheCableTagThereIsAWarning();

private:
    void noteEvents();
    void connectClient(const GLinkTcpTimes& times = Never);

    QScopedPointer<LogSpy> m_log;
    QScopedPointer<DescriptorServer> m_listener;
    QScopedPointer<LoopbackClient> m_client;
    QScopedPointer<GLinkTransportTcp> m_base;
    QStringList m_events; ///< of the client
};

void TestGLinkTcpClient::init()
{
    m_log.reset(new LogSpy);
    m_events.clear();
    m_listener.reset(new DescriptorServer);
    m_client.reset(new LoopbackClient(QHostAddress(QHostAddress::LocalHost), m_listener->serverPort(), 0, nullptr,
                                      nullptr, nullptr));
    noteEvents();
}

void TestGLinkTcpClient::noteEvents()
{
    connect(m_client.data(), &GLinkTransportTcp::newConnection, this,
            [this](quint16 remoteId, GLinkTransportTcp* link) {
                const QString state = link == nullptr ? "none" : link == m_client.data() ? "itself" : "another";
                m_events << QStringLiteral("connection %1 %2").arg(remoteId).arg(state);
            });
    connect(m_client.data(), &GLinkTransportBase::closedConnection, this, [this] { m_events << "closed"; });
    connect(m_client.data(), &GLinkTransportTcp::finished, this, [this] { m_events << "finished"; });
}

void TestGLinkTcpClient::cleanup()
{
    m_client.reset();
    m_base.reset();
    m_log.reset();
}

/// Connects the client, and serves the other end of its connection.
void TestGLinkTcpClient::connectClient(const GLinkTcpTimes& times)
{
    m_client->setTimes(times);
    m_client->run();
    m_base.reset(new GLinkTransportTcp(m_listener->takeDescriptor(), 0, nullptr, nullptr, nullptr));
    m_base->setTimes(Never);
    m_base->run();
}

void TestGLinkTcpClient::itConnectsAndAnnouncesItself()
{
    connectClient();

    QCOMPARE(m_events, QStringList{"connection 0 itself"});
}

void TestGLinkTcpClient::bothSidesOfTheClassUnderstandEachOther()
{
    connectClient();
    QSignalSpy introduced(m_base.data(), &GLinkTransportTcp::newConnection);
    QSignalSpy sentByUnit(m_client.data(), &GLinkTransportBase::messageSent);
    QSignalSpy receivedByUnit(m_client.data(), &GLinkTransportBase::readyReadFromGLink);
    QSignalSpy sentByBase(m_base.data(), &GLinkTransportBase::messageSent);
    GLinkInitMsg init;
    init.remoteId = 7;

    m_client->send(7, GLINK_MSG_ID_INIT, init.serialize(), 1);
    QTRY_COMPARE(sentByUnit.size(), 1);
    QCOMPARE(introduced.value(0).value(0).toInt(), 7);
    m_base->send(7, GLINK_MSG_ID_INITACK, GLinkInitAck(0, "").serialize(), 2);
    QTRY_COMPARE(sentByBase.size(), 1);

    QCOMPARE(sentByBase.first().at(0).toInt(), 7);
    QCOMPARE(sentByBase.first().at(1).toUInt(), 2U);
    QCOMPARE(receivedByUnit.value(0).value(1).toInt(), int(GLINK_MSG_ID_INITACK));
    QCOMPARE(receivedByUnit.value(0).value(2).toByteArray(), QByteArray(42, '\0'));
}

void TestGLinkTcpClient::anAcceptedInitStartsTheSupervision()
{
    GLinkTcpTimes times = Never;
    times.silence = 100ms;
    connectClient(times);

    m_base->send(7, GLINK_MSG_ID_INITACK, GLinkInitAck(0, "").serialize(), 2);

    QTRY_COMPARE(m_events, (QStringList{"connection 0 itself", "closed", "finished"}));
}

void TestGLinkTcpClient::aRefusalIsLoggedAndSomeCodesDisconnect_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<bool>("disconnects");

    QTest::newRow("not paired") << 1 << false;
    QTest::newRow("2") << 2 << false;
    QTest::newRow("3") << 3 << true;
    QTest::newRow("checksum mismatch") << 4 << false;
    QTest::newRow("5") << 5 << false;
    QTest::newRow("6") << 6 << true;
    QTest::newRow("highest") << 65535 << true;
}

void TestGLinkTcpClient::aRefusalIsLoggedAndSomeCodesDisconnect()
{
    QFETCH(int, code);
    QFETCH(bool, disconnects);
    connectClient();
    QSignalSpy received(m_client.data(), &GLinkTransportBase::readyReadFromGLink);
    QSignalSpy sent(m_base.data(), &GLinkTransportBase::messageSent);
    m_log->clear();

    m_base->send(7, GLINK_MSG_ID_INITACK, GLinkInitAck(static_cast<quint16>(code), "No.").serialize(), 2);
    QTRY_COMPARE(received.size(), 1);

    QCOMPARE(m_log->lines(QtWarningMsg), QStringList{QString("InitAck error %1 \"No.\"").arg(code)});
    if (disconnects) {
        QTRY_COMPARE(m_events, (QStringList{"connection 0 itself", "closed", "finished"}));
        QVERIFY(sent.isEmpty());
    } else {
        QTRY_COMPARE(sent.size(), 1);
        QCOMPARE(m_events, QStringList{"connection 0 itself"});
    }
}

void TestGLinkTcpClient::itTriesAgainUntilTheBaseUnitIsThere()
{
    // An address of this process alone, so that nobody has the port meanwhile.
    const QHostAddress own(0x7F020000U | (static_cast<quint32>(QCoreApplication::applicationPid()) & 0xFFFFU));
    m_listener->close();
    QVERIFY(m_listener->listen(own));
    const quint16 port = m_listener->serverPort();
    m_listener->close();
    m_client.reset(new LoopbackClient(own, port, 0, nullptr, nullptr, nullptr));
    noteEvents();
    GLinkTcpTimes times = Never;
    times.connectRetry = 10ms;
    m_client->setTimes(times);

    m_client->run();
    QCOMPARE(m_events, QStringList{"connection 0 none"});
    QTest::qWait(100); // several attempts, one announcement
    QCOMPARE(m_events, QStringList{"connection 0 none"});

    QVERIFY(m_listener->listen(own, port));
    QTRY_COMPARE(m_events, (QStringList{"connection 0 none", "connection 0 itself"}));
    QVERIFY(m_listener->takeDescriptor() >= 0);
}

void TestGLinkTcpClient::itCanBeClosedBetweenTwoAttempts()
{
    m_listener->close();
    GLinkTcpTimes times = Never;
    times.connectRetry = 10ms;
    m_client->setTimes(times);
    m_client->run();

    m_client->close();
    QTest::qWait(50);

    QCOMPARE(m_events, (QStringList{"connection 0 none", "closed", "finished"}));
}

// Only the address 0.0.0.0 together with port 0 stands for an accepted connection.
void TestGLinkTcpClient::aPortAloneMakesItAClient()
{
    m_client.reset(new LoopbackClient(QHostAddress(QHostAddress::AnyIPv4), m_listener->serverPort(), 0, nullptr,
                                      nullptr, nullptr));
    QSignalSpy connected(m_client.data(), &GLinkTransportTcp::newConnection);

    m_client->run();

    QCOMPARE(connected.size(), 1);
    QCOMPARE(connected.first().at(1).value<GLinkTransportTcp*>(), m_client.data());
}

void TestGLinkTcpClient::aLostConnectionIsTheEnd()
{
    GLinkTcpTimes times = Never;
    times.connectRetry = 1ms;
    connectClient(times);

    m_base->close();
    QTRY_COMPARE(m_events, (QStringList{"connection 0 itself", "closed", "finished"}));
    QTest::qWait(20);

    QCOMPARE(m_events.size(), 3);
}

void TestGLinkTcpClient::theCableTagTellsTheInterface_data()
{
    QTest::addColumn<QString>("cabledInterface");
    QTest::addColumn<int>("value");

    QTest::newRow("the address is the cabled interface's") << "lo" << 1;
    QTest::newRow("the address is another's") << "nosuchinterface" << 0;
}

void TestGLinkTcpClient::theCableTagTellsTheInterface()
{
    QFETCH(QString, cabledInterface);
    QFETCH(int, value);
    TagDatabase tags(nullptr);
    auto* const tag = new Tag("g_link_cable", &tags);
    tags.append(tag);
    tag->setValue(QVariant(5));
    LoopbackClient client(m_listener->serverAddress(), m_listener->serverPort(), 0, nullptr, &tags, nullptr);
    client.interfaceName = cabledInterface;

    client.run();

    QCOMPARE(tag->getValue().toInt(), value);
    QCOMPARE(m_log->lines(QtWarningMsg), QStringList());
}

void TestGLinkTcpClient::withoutTheCableTagThereIsAWarning()
{
    TagDatabase tags(nullptr);
    LoopbackClient client(m_listener->serverAddress(), m_listener->serverPort(), 0, nullptr, &tags, nullptr);

    client.run();

    QCOMPARE(m_log->lines(QtWarningMsg), QStringList{NoTagWarning});
}

QTEST_GUILESS_MAIN(TestGLinkTcpClient)
#include "tst_glinktcpclient.moc"
