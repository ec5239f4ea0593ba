#include "apiserver.h"
#include "logspy.h"
#include "patience.h"
#include "tagdatabase.h"

#include <QHostAddress>
#include <QSignalSpy>
#include <QThread>
#include <QUdpSocket>
#include <QtTest>

#include <memory>

/// The program on the other side of the loopback interface: asks the server, and listens on the answer port.
class Client
{
public:
    Client() { m_socket.bind(QHostAddress(QHostAddress::LocalHost)); }

    quint16 port() const { return m_socket.localPort(); }
    void ask(const QByteArray& datagram, quint16 serverPort)
    {
        m_asking.writeDatagram(datagram, QHostAddress::LocalHost, serverPort);
    }
    /// The next answer; a null array when none comes within the test's patience.
    QByteArray answer()
    {
        if (!QTest::qWaitFor([this] { return m_socket.hasPendingDatagrams(); }, PatienceMs)) {
            return QByteArray();
        }
        QByteArray datagram(static_cast<int>(m_socket.pendingDatagramSize()), '\0');
        m_socket.readDatagram(datagram.data(), datagram.size());
        return datagram;
    }
    bool hasAnswer() const { return m_socket.hasPendingDatagrams(); }

private:
    QUdpSocket m_socket;
    QUdpSocket m_asking;
};

/// Runs a server as the base unit does, in a thread of its own that deletes it at the end.
class ServerThread : public QThread
{
public:
    explicit ServerThread(APIServer* server)
    {
        connect(this, &QThread::started, server, &APIServer::start);
        connect(this, &QThread::finished, server, &APIServer::deleteLater);
        server->moveToThread(this);
    }
    ~ServerThread() override
    {
        quit();
        wait();
    }
};

class TestApiServer : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void portsAreFixed();
    void statusHoldsAllMembers();
    void valuesBecomeTexts_data();
    void valuesBecomeTexts();
    void everyStatusHoldsTheValuesOfItsTime();
    void missingTagsAreNamedOnceAndEmpty();
    void nothingMissingNoWarning();

    void datagramsAreClassified_data();
    void datagramsAreClassified();
    void onlyTheTextBeforeAZeroByteIsLogged();
    void severalDatagramsAreAllAnswered();
    void aFloodLeavesOtherEventsTheirTurn();
    void aFloodIsServedAtItsPace();
    void theLargestDatagramIsAnswered();
    void answersGoToTheFixedPort();
    void missingListenerDoesNotDeafenTheServer();

    void aChangedStatusTagIsPushed();
    void everyChangeIsPushedByItself();
    void otherTagsAreNotPushed();
    void pushesComeFromTheServersThread();

    void aTakenPortLeavesTheServerDeaf();
    void nothingIsSentBeforeTheStart();

private:
    Tag* addTag(const QString& name, const QVariant& value = QVariant(0));
    void addAllTags();
    void startServer();
    quint16 serverPort() const { return m_server->findChild<QUdpSocket*>()->localPort(); }

    std::unique_ptr<TagDatabase> m_tags;
    std::unique_ptr<Client> m_client;
    std::unique_ptr<APIServer> m_server;
};

namespace {

const QStringList StatusTags{"bu_identity",   "bu_state",     "tsaps",    "unarmed_rus", "eglink_stat_out",
                             "eclink_status", "clink_status", "armed_ru", "ru_state",    "BCSR",
                             "BUID",          "IFTY",         "IVL1",     "IVL2",        "IVL3"};

const QByteArray StatusOfZeros(R"({"ARMED_RU":"0","BCSR":"0","BUID":"0","BU_ID":"0","BU_STATE":"0",)"
                               R"("C_LINK_STATUS":"0","EC_LINK_STATUS":"0","EG_LINK_STATUS":"0","IFTY":"0",)"
                               R"("IVL1":"0","IVL2":"0","IVL3":"0","RU_STATE":"0","TSAPs":"0","UNARMED_RUs":"0"})");

} // namespace

void TestApiServer::init()
{
    m_tags = std::make_unique<TagDatabase>(nullptr);
    m_client = std::make_unique<Client>();
}

void TestApiServer::cleanup()
{
    m_server.reset();
    m_client.reset();
    m_tags.reset();
}

Tag* TestApiServer::addTag(const QString& name, const QVariant& value)
{
    Tag* const tag = new Tag(name, m_tags.get());
    tag->setValue(value);
    m_tags->append(tag);
    return tag;
}

void TestApiServer::addAllTags()
{
    for (const QString& name : StatusTags) {
        addTag(name);
    }
}

void TestApiServer::startServer()
{
    m_server = std::make_unique<APIServer>(m_tags.get(), quint16(0), m_client->port(), nullptr);
    const LogSpy log;
    m_server->start();
}

void TestApiServer::portsAreFixed()
{
    addAllTags();
    const APIServer server(m_tags.get(), nullptr);
    QCOMPARE(server.IN_PORT, 6250);
    QCOMPARE(server.OUT_PORT, 6251);
}

void TestApiServer::statusHoldsAllMembers()
{
    for (int i = 0; i < StatusTags.size(); ++i) {
        addTag(StatusTags.at(i), 100 + i);
    }
    APIServer server(m_tags.get(), nullptr);
    QCOMPARE(server.getData(),
             QByteArray(R"({"ARMED_RU":"107","BCSR":"109","BUID":"110","BU_ID":"100","BU_STATE":"101",)"
                        R"("C_LINK_STATUS":"106","EC_LINK_STATUS":"105","EG_LINK_STATUS":"104","IFTY":"111",)"
                        R"("IVL1":"112","IVL2":"113","IVL3":"114","RU_STATE":"108","TSAPs":"102",)"
                        R"("UNARMED_RUs":"103"})"));
}

void TestApiServer::valuesBecomeTexts_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("unsigned") << QVariant(4294967295U) << QByteArray("4294967295");
    QTest::newRow("signed") << QVariant(-7) << QByteArray("-7");
    QTest::newRow("real") << QVariant(1.5F) << QByteArray("1.5");
    QTest::newRow("boolean") << QVariant(true) << QByteArray("true");
    QTest::newRow("text") << QVariant("say \"hi\"") << QByteArray("say \\\"hi\\\"");
    QTest::newRow("null text") << QVariant(QVariant::String) << QByteArray();
}

void TestApiServer::valuesBecomeTexts()
{
    QFETCH(QVariant, value);
    QFETCH(QByteArray, text);
    addAllTags();
    m_tags->get("IFTY")->setValue(value);
    APIServer server(m_tags.get(), nullptr);
    const QByteArray member = QByteArray("\"IFTY\":\"").append(text).append("\",");
    QVERIFY2(server.getData().contains(member), server.getData().constData());
}

void TestApiServer::everyStatusHoldsTheValuesOfItsTime()
{
    addAllTags();
    APIServer server(m_tags.get(), nullptr);
    const QByteArray before = server.getData();
    m_tags->get("BUID")->setValue(QVariant("a;\"b"));
    m_tags->get("unarmed_rus")->setValue(QVariant(12));
    const QByteArray changed = server.getData();
    QVERIFY2(changed.contains(R"(,"BUID":"a;\"b",)"), changed.constData());
    QVERIFY2(changed.endsWith(R"(,"UNARMED_RUs":"12"})"), changed.constData());
    QCOMPARE(server.getData(), changed);

    m_tags->get("BUID")->setValue(QVariant(0));
    m_tags->get("unarmed_rus")->setValue(QVariant(0));
    QCOMPARE(server.getData(), before);
}

void TestApiServer::missingTagsAreNamedOnceAndEmpty()
{
    addTag("bu_state", 17);
    addTag("tsaps");
    const LogSpy log;
    APIServer server(m_tags.get(), nullptr);
    const QByteArray status = server.getData();
    QCOMPARE(status, QByteArray(R"({"ARMED_RU":"","BCSR":"","BUID":"","BU_ID":"","BU_STATE":"17",)"
                                R"("C_LINK_STATUS":"","EC_LINK_STATUS":"","EG_LINK_STATUS":"","IFTY":"",)"
                                R"("IVL1":"","IVL2":"","IVL3":"","RU_STATE":"","TSAPs":"0","UNARMED_RUs":""})"));
    QCOMPARE(log.lines(),
             QStringList{"APIServer: Missing status tags: \"bu_identity, unarmed_rus, eglink_stat_out, eclink_status, "
                         "clink_status, armed_ru, ru_state, BCSR, BUID, IFTY, IVL1, IVL2, IVL3\""});
    QCOMPARE(log.lines(QtWarningMsg).size(), 1);
}

void TestApiServer::nothingMissingNoWarning()
{
    addAllTags();
    const LogSpy log;
    const APIServer server(m_tags.get(), nullptr);
    QCOMPARE(log.lines(), QStringList());
}

void TestApiServer::datagramsAreClassified_data()
{
    QTest::addColumn<QByteArray>("datagram");
    QTest::addColumn<QString>("logLine");
    QTest::addColumn<QStringList>("signalled");

    const auto row = [](const char* name, const QByteArray& datagram, const char* word, const QStringList& signalled) {
        QTest::newRow(name) << datagram << QString("APIServer: Processing %1").arg(word) << signalled;
    };
    row("GET", "GET", "GET", {});
    row("GET inside a word", "TARGETED", "GET", {});
    row("GET before RESET", "GET RESET", "GET", {});
    row("GET after RESET wins all the same", "RESET GET", "GET", {});
    row("RESET", "RESET", "RESET", {"reset"});
    row("RESET amid text", "please RESET now", "RESET", {"reset"});
    row("RESET and DISARM", "DISARM RESET", "RESET", {"reset"});
    row("DISARM", "DISARM", "DISARM", {"disarm"});
    row("DISARM and CCHANGE", "CCHANGE,DISARM", "DISARM", {"disarm"});
    row("CCHANGE", "CCHANGE", "CCHANGE", {"change"});
    row("lower case is nothing known", "reset", "default", {});
    row("empty", "", "default", {});
    row("a zero byte alone", QByteArray(1, '\0'), "default", {});
    row("RESET behind a zero byte", QByteArray::fromHex("00") + "RESET", "RESET", {"reset"});
    row("a word cut by a zero byte", QByteArray("RE") + QByteArray::fromHex("00") + "SET", "default", {});
    row("bytes that are no text", QByteArray::fromHex("FFFE80"), "default", {});
}

void TestApiServer::datagramsAreClassified()
{
    QFETCH(QByteArray, datagram);
    QFETCH(QString, logLine);
    QFETCH(QStringList, signalled);
    addAllTags();
    startServer();
    QStringList seen;
    connect(m_server.get(), &APIServer::egResetMsgReceived, this, [&seen] { seen << "reset"; });
    connect(m_server.get(), &APIServer::ruDisarmMsgReceived, this, [&seen] { seen << "disarm"; });
    connect(m_server.get(), &APIServer::configChangeMsgReceived, this, [&seen] { seen << "change"; });
    const LogSpy log;
    m_client->ask(datagram, serverPort());
    QCOMPARE(m_client->answer(), signalled.isEmpty() ? StatusOfZeros : QByteArray("NOTIFY"));
    QCOMPARE(seen, signalled);
    QCOMPARE(log.lines(QtDebugMsg).size(), 2);
    QCOMPARE(log.lines().last(), logLine);
    QVERIFY(!m_client->hasAnswer());
}

void TestApiServer::onlyTheTextBeforeAZeroByteIsLogged()
{
    addAllTags();
    startServer();
    const LogSpy log;
    m_client->ask(QByteArray("hello") + QByteArray::fromHex("00") + "GET", serverPort());
    QCOMPARE(m_client->answer(), StatusOfZeros);
    QCOMPARE(log.lines(), (QStringList{"APIServer: Read UDP Data: \"hello\"", "APIServer: Processing GET"}));
}

void TestApiServer::severalDatagramsAreAllAnswered()
{
    addAllTags();
    startServer();
    const LogSpy log;
    for (const char* datagram : {"RESET", "", "GET", "CCHANGE"}) {
        m_client->ask(datagram, serverPort());
    }
    QCOMPARE(m_client->answer(), QByteArray("NOTIFY"));
    QCOMPARE(m_client->answer(), StatusOfZeros);
    QCOMPARE(m_client->answer(), StatusOfZeros);
    QCOMPARE(m_client->answer(), QByteArray("NOTIFY"));
}

void TestApiServer::aFloodLeavesOtherEventsTheirTurn()
{
    constexpr int Flood = 150; // what the system's receive buffer surely takes
    addAllTags();
    startServer();
    const LogSpy log;
    int handled = 0;
    int handledBeforeTheOtherEvent = 0;
    connect(m_server.get(), &APIServer::egResetMsgReceived, this, [&] {
        if (++handled == 1) {
            QMetaObject::invokeMethod(
                this, [&] { handledBeforeTheOtherEvent = handled; }, Qt::QueuedConnection);
        }
    });
    for (int i = 0; i < Flood; ++i) {
        m_client->ask("RESET", serverPort());
    }
    QTRY_COMPARE(handled, Flood);
    QTRY_VERIFY(handledBeforeTheOtherEvent > 0);
    QVERIFY2(handledBeforeTheOtherEvent < Flood / 2, qPrintable(QString::number(handledBeforeTheOtherEvent)));
}

// Each of these makes a packet to the base controller, which status records wait behind.
void TestApiServer::aFloodIsServedAtItsPace()
{
    constexpr int Flood = 150;
    addAllTags();
    startServer();
    const LogSpy log;
    int handled = 0;
    connect(m_server.get(), &APIServer::ruDisarmMsgReceived, this, [&] { ++handled; });
    QElapsedTimer elapsed;
    elapsed.start();
    for (int i = 0; i < Flood; ++i) {
        m_client->ask("DISARM", serverPort());
    }

    QTRY_VERIFY(handled >= 100);
    QTRY_COMPARE(handled, Flood);
    // 100 at once and ten in each 50 ms, none of them lost.
    QVERIFY2(elapsed.elapsed() >= 200, qPrintable(QString::number(elapsed.elapsed())));
}

void TestApiServer::theLargestDatagramIsAnswered()
{
    constexpr int LargestUdpPayload = 65507;
    addAllTags();
    startServer();
    const LogSpy log;
    m_client->ask(QByteArray(LargestUdpPayload - 6, '.') + "DISARM", serverPort());
    QCOMPARE(m_client->answer(), QByteArray("NOTIFY"));
}

void TestApiServer::answersGoToTheFixedPort()
{
    addAllTags();
    startServer();
    const LogSpy log;
    QUdpSocket asking;
    QVERIFY(asking.bind(QHostAddress(QHostAddress::LocalHost)));
    asking.writeDatagram("GET", QHostAddress::LocalHost, serverPort());
    QCOMPARE(m_client->answer(), StatusOfZeros);
    QVERIFY(!asking.hasPendingDatagrams());
}

void TestApiServer::missingListenerDoesNotDeafenTheServer()
{
    addAllTags();
    startServer();
    const LogSpy log;
    const quint16 answerPort = m_client->port();
    m_client.reset();
    QUdpSocket asking;
    const QSignalSpy resets(m_server.get(), &APIServer::egResetMsgReceived);
    for (int i = 0; i < 5; ++i) {
        asking.writeDatagram("RESET", QHostAddress::LocalHost, serverPort());
        QTRY_COMPARE(resets.count(), i + 1);
    }
    QUdpSocket listener;
    QVERIFY(listener.bind(QHostAddress::LocalHost, answerPort));
    asking.writeDatagram("GET", QHostAddress::LocalHost, serverPort());
    QTRY_VERIFY(listener.hasPendingDatagrams());
}

void TestApiServer::aChangedStatusTagIsPushed()
{
    addAllTags();
    startServer();
    m_tags->get("armed_ru")->setValue(QVariant(258));
    QCOMPARE(m_client->answer(), QByteArray(StatusOfZeros).replace("\"ARMED_RU\":\"0\"", "\"ARMED_RU\":\"258\""));
    m_tags->get("armed_ru")->setValue(QVariant(258));
    m_server->sendNotify();
    QCOMPARE(m_client->answer(), QByteArray("NOTIFY"));
}

void TestApiServer::everyChangeIsPushedByItself()
{
    addAllTags();
    startServer();
    for (const QString& name : StatusTags) {
        m_tags->get(name)->setValue(QVariant(1));
    }
    for (int i = 0; i < StatusTags.size(); ++i) {
        QVERIFY2(m_client->answer().startsWith("{\"ARMED_RU\":"), qPrintable(StatusTags.at(i)));
    }
    QVERIFY(!m_client->hasAnswer());
}

void TestApiServer::otherTagsAreNotPushed()
{
    addAllTags();
    Tag* const other = addTag("other");
    startServer();
    other->setValue(QVariant(1));
    m_server->sendNotify();
    QCOMPARE(m_client->answer(), QByteArray("NOTIFY"));
}

void TestApiServer::pushesComeFromTheServersThread()
{
    constexpr int Changes = 100; // few enough for the listener's receive buffer
    addAllTags();
    ServerThread thread(new APIServer(m_tags.get(), quint16(0), m_client->port(), nullptr));
    const LogSpy log;
    thread.start();
    for (int value = 1; value <= Changes; ++value) {
        m_tags->get("bu_state")->setValue(QVariant(value));
    }
    // Early pushes may carry a later value already; the last one carries the last value.
    QByteArray last;
    for (int i = 0; i < Changes; ++i) {
        last = m_client->answer();
        QVERIFY2(last.startsWith("{\"ARMED_RU\":"), qPrintable(QString::number(i)));
    }
    QVERIFY2(last.contains("\"BU_STATE\":\"100\""), last.constData());
}

void TestApiServer::aTakenPortLeavesTheServerDeaf()
{
    addAllTags();
    QUdpSocket other;
    QVERIFY(other.bind(QHostAddress(QHostAddress::LocalHost)));
    APIServer server(m_tags.get(), other.localPort(), m_client->port(), nullptr);
    const LogSpy log;
    server.start();
    QCOMPARE(log.lines(), (QStringList{"APIServer: Starting API server",
                                       QString("APIServer: Socket could not be bound to %1").arg(other.localPort())}));
    m_tags->get("BCSR")->setValue(QVariant(1));
    server.sendNotify();
    QVERIFY(server.findChild<QUdpSocket*>() == nullptr);
    QVERIFY(!m_client->hasAnswer());
}

void TestApiServer::nothingIsSentBeforeTheStart()
{
    addAllTags();
    APIServer server(m_tags.get(), quint16(0), m_client->port(), nullptr);
    m_tags->get("BCSR")->setValue(QVariant(1));
    server.sendNotify();
    server.readData();
    QVERIFY(!m_client->hasAnswer());
}

QTEST_GUILESS_MAIN(TestApiServer)
#include "tst_apiserver.moc"
