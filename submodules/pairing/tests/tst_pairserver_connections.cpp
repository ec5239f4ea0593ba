#include "pairserver.h"

#include "faketar.h"
#include "pairserverfixture.h"

#include <QtTest>

namespace {

const QString NoHandleLine = QStringLiteral("Application handle was never created!");

} // namespace

/// How request connections behave: whole, cut and broken requests, several tools at once.
class TestPairServerConnections : public QObject, private PairServerFixture
{
    Q_OBJECT

private slots:
    void init() { setUp(); }
    void cleanup() { tearDown(); }

    void requestMayArriveByteByByte();
    void onlyCompleteRequestsAreActedOn();
    void severalRequestsInOneSegmentAreServedInOrder();
    void requestsThatCannotBeReadCloseTheConnection_data();
    void requestsThatCannotBeReadCloseTheConnection();
    void longestRequestIsServed();
    void everyConnectionIsServed();
    void halfARequestDoesNotMixWithAnotherConnection();
    void archiveGoesToTheToolThatAskedForIt();
    void archiveNobodyIsLeftForIsRemoved();
    void toolsThatAskAtOnceAreServedInTurn();
    void toolThatLeavesGivesUpItsTurn();
    void toolThatWaitsIsRefusedAFurtherArchive();
    void applicationThatLosesItsManifestMeanwhileIsNotHandedOut();
    void offerBelongsToOneConnection();
    void offerGoesWithItsConnection();
    void whoNeverFetchesHoldsUpNobody();
    void toolThatTakesNoRepliesIsNotReadFrom();
    void connectionsThatEndAreFreed();
    void tooManyConnectionsCloseTheOldest();
    void tooManyConnectionsSpareWhoIsAtWork();
};

void TestPairServerConnections::requestMayArriveByteByByte()
{
    for (const char byte : getAppRequest(0, QStringLiteral("/x")) + getAppListRequest()) {
        QVERIFY(m_tool->received().isEmpty());
        m_tool->send(QByteArray(1, byte));
        QCoreApplication::processEvents();
    }

    QTRY_VERIFY(isList(m_tool->received()));
    QCOMPARE(m_log->lines(QtWarningMsg), QStringList{QStringLiteral("Send app, invalid ruId: 0 appPath: \"/x\"")});
}

void TestPairServerConnections::onlyCompleteRequestsAreActedOn()
{
    const QByteArray request = getAppRequest(9, m_unit->path("ruapp"));
    const QByteArray remotes = m_unit->read("tessaroserver/config/remotes.csv");

    m_tool->send(request.left(request.size() - 1));
    QTRY_VERIFY(m_server->findChild<QTcpSocket*>()->bytesAvailable() == request.size() - 1);
    QTest::qWait(20);
    QCOMPARE(m_unit->read("tessaroserver/config/remotes.csv"), remotes);
    QVERIFY(m_log->lines().filter(QStringLiteral("Send app")).isEmpty());
    m_tool->send(request.right(1));

    QTRY_VERIFY(Offer::from(m_tool->received()).whole);
}

void TestPairServerConnections::severalRequestsInOneSegmentAreServedInOrder()
{
    m_log->clear();

    m_tool->send(getAppRequest(0, QStringLiteral("/first")) + getAppListRequest() + startTransferRequest() +
                 getAppRequest(0, QStringLiteral("/second")) + getAppListRequest());

    QTRY_COMPARE(linesWith("sending applist"), 2);
    QStringList heads;
    for (const QString& line : m_log->lines()) {
        heads.append(line.left(28));
    }
    QCOMPARE(heads, (QStringList{QStringLiteral("Send app, invalid ruId: 0 appPath: \"/first\"").left(28),
                                 QStringLiteral("sending applist QVector(QMap((\"name\"").left(28),
                                 QStringLiteral("Starting transfer of application.").left(28), NoHandleLine.left(28),
                                 QStringLiteral("Send app, invalid ruId: 0 appPath: \"/second\"").left(28),
                                 QStringLiteral("sending applist QVector(QMap((\"name\"").left(28)}));
}

void TestPairServerConnections::requestsThatCannotBeReadCloseTheConnection_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("line");

    const QString tooLong =
        QStringLiteral("pairserver: Request of more than 64 KiB from \"127.0.0.1\" - closing the connection");
    QTest::newRow("a length of 4 GiB") << QByteArray::fromHex("FFFFFFFE") << tooLong;
    QTest::newRow("a length just over the bound") << QByteArray::fromHex("0000FFFE") << tooLong;
    QTest::newRow("more than 64 KiB in fact") << QByteArray::fromHex("00020000") + QByteArray(131072, 'x') << tooLong;
    QTest::newRow("an odd length") << QByteArray::fromHex("00000003616263")
                                   << QStringLiteral(
                                          "pairserver: Unreadable request from \"127.0.0.1\" - closing the connection");
}

void TestPairServerConnections::requestsThatCannotBeReadCloseTheConnection()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, line);

    m_tool->send(bytes);

    QTRY_VERIFY(!m_tool->isUp());
    QCOMPARE(m_log->lines(QtWarningMsg), QStringList{line});
    m_tool = connectTool();
    m_tool->send(getAppListRequest());
    QTRY_VERIFY(isList(m_tool->received()));
}

void TestPairServerConnections::longestRequestIsServed()
{
    m_tool->send(QByteArray::fromHex("0000FFFC") + QByteArray(0xFFFC, 'x') + getAppListRequest());

    QTRY_VERIFY(isList(m_tool->received()));
    QVERIFY(m_log->lines(QtWarningMsg).isEmpty());
}

void TestPairServerConnections::everyConnectionIsServed()
{
    const std::unique_ptr<ToolConnection> newer = connectTool(); // says nothing, and makes nobody deaf

    m_tool->send(getAppListRequest());
    QTRY_VERIFY(isList(m_tool->received()));
    newer->send(getAppListRequest());
    QTRY_VERIFY(isList(newer->received()));
    m_tool->forget();
    m_tool->send(getAppListRequest());

    QTRY_VERIFY(isList(m_tool->received()));
    QCOMPARE(linesWith("sending applist"), 3);
    QVERIFY(m_log->lines(QtWarningMsg).isEmpty());
}

void TestPairServerConnections::halfARequestDoesNotMixWithAnotherConnection()
{
    const QByteArray request = getAppRequest(0, QStringLiteral("/x"));
    m_tool->send(request.left(20));
    QTRY_COMPARE(m_server->findChild<QTcpSocket*>()->bytesAvailable(), 20);
    const std::unique_ptr<ToolConnection> newer = connectTool();

    newer->send(getAppListRequest());
    QTRY_VERIFY(isList(newer->received()));
    QVERIFY(m_log->lines(QtWarningMsg).isEmpty());
    m_tool->send(request.mid(20));

    QTRY_COMPARE(m_log->lines(QtWarningMsg), QStringList{QStringLiteral("Send app, invalid ruId: 0 appPath: \"/x\"")});
    QVERIFY(m_tool->isUp());
}

void TestPairServerConnections::archiveGoesToTheToolThatAskedForIt()
{
    const FakeTar tar(FakeTar::Waiting);
    m_tool->send(getAppRequest(9, m_unit->path("rusys")));
    QTRY_COMPARE(tar.calls().size(), 1);
    const std::unique_ptr<ToolConnection> newer = connectTool();

    tar.release();

    QTRY_VERIFY(Offer::from(m_tool->received()).whole);
    QCOMPARE(newer->received(), QByteArray());
}

void TestPairServerConnections::archiveNobodyIsLeftForIsRemoved()
{
    const QMap<QString, QByteArray> atFirst = m_unit->everything();
    const FakeTar tar(FakeTar::Waiting);
    m_tool->send(getAppRequest(9, m_unit->path("ruapp")));
    QTRY_COMPARE(tar.calls().size(), 1);
    const std::unique_ptr<ToolConnection> newer = connectTool();

    m_tool->socket.disconnectFromHost(); // and tar is not waited for

    QTRY_COMPARE(
        m_log->lines(QtWarningMsg),
        QStringList{QStringLiteral("pairserver: Nobody is left to take \"%1\"").arg(m_unit->path("ruapp.tar"))});
    QCOMPARE(m_unit->everything(), atFirst); // nobody was paired, either
    QCOMPARE(newer->received(), QByteArray());
}

void TestPairServerConnections::toolsThatAskAtOnceAreServedInTurn()
{
    std::vector<std::unique_ptr<ToolConnection>> tools;
    for (quint16 unit = 11; unit < 16; ++unit) {
        tools.push_back(connectTool());
        tools.back()->send(getAppRequest(unit, m_unit->path("ruapp")));
    }

    for (const auto& tool : tools) {
        QTRY_VERIFY(Offer::from(tool->received()).whole);
    }
    QStringList order;
    for (const QString& line : m_log->lines().filter(QStringLiteral("generated new keys: "))) {
        order.append(line.section(QLatin1Char(' '), 4, 4));
    }
    QCOMPARE(order, (QStringList{"11", "12", "13", "14", "15"}));
    // Each can fetch what it was promised, in whatever order.
    for (auto tool = tools.rbegin(); tool != tools.rend(); ++tool) {
        const std::unique_ptr<ToolConnection> receiver = connectReceiver();
        (*tool)->send(startTransferRequest());
        QTRY_VERIFY((receiver->received(), !receiver->isUp()));
        QCOMPARE(md5(receiver->received()), Offer::from((*tool)->received()).md5);
    }
    QVERIFY(!QFile::exists(m_unit->path("ruapp.tar")));
    QVERIFY(!QFile::exists(m_unit->path("tessaroserver/config/.pairing")));
    QVERIFY(m_log->lines(QtWarningMsg).isEmpty());
}

void TestPairServerConnections::toolThatLeavesGivesUpItsTurn()
{
    const FakeTar tar(FakeTar::Waiting);
    m_tool->send(getAppRequest(9, m_unit->path("rusys")));
    QTRY_COMPARE(tar.calls().size(), 1);
    std::unique_ptr<ToolConnection> leaving = connectTool();
    leaving->send(getAppRequest(8, m_unit->path("ruapp")));
    QTRY_COMPARE(linesWith("has to wait for its turn"), 1);
    const std::unique_ptr<ToolConnection> staying = connectTool();
    staying->send(getAppRequest(10, m_unit->path("rusys")));
    QTRY_COMPARE(linesWith("has to wait for its turn"), 2);

    leaving->socket.disconnectFromHost();
    QTRY_COMPARE(openConnections(), 2);
    tar.release();

    QTRY_VERIFY(Offer::from(m_tool->received()).whole);
    QTRY_VERIFY(Offer::from(staying->received()).whole);
    QCOMPARE(tar.calls().size(), 2);
    QCOMPARE(linesWith("generated new keys"), 0);
}

void TestPairServerConnections::toolThatWaitsIsRefusedAFurtherArchive()
{
    const FakeTar tar(FakeTar::Waiting);
    m_tool->send(getAppRequest(9, m_unit->path("rusys")));
    QTRY_COMPARE(tar.calls().size(), 1);
    const std::unique_ptr<ToolConnection> greedy = connectTool();
    for (int i = 0; i < 100; ++i) {
        greedy->send(getAppRequest(8, m_unit->path("rusys")));
    }
    greedy->send(getAppListRequest()); // and is served otherwise
    QTRY_VERIFY(isList(greedy->received()));

    tar.release();

    QTRY_VERIFY(Offer::from(m_tool->received()).whole);
    QTRY_VERIFY(m_log->count(QStringLiteral("cretedTarReady ") + quoted(m_unit->path(".rusys.pairing/rusys.tar"))) ==
                2);
    QCOMPARE(m_log->count(QStringLiteral("pairarchive: Unable to create tar. Another process is running.")), 99);
    QCOMPARE(tar.calls().size(), 2);
}

/// Nobody knows any more that it is to be paired; packed as it is, it would bring another unit's keys.
void TestPairServerConnections::applicationThatLosesItsManifestMeanwhileIsNotHandedOut()
{
    const FakeTar tar(FakeTar::Waiting);
    m_tool->send(getAppRequest(9, m_unit->path("rusys")));
    QTRY_COMPARE(tar.calls().size(), 1);
    const std::unique_ptr<ToolConnection> newer = connectTool();
    newer->send(getAppRequest(10, m_unit->path("ruapp")));
    QTRY_COMPARE(linesWith("has to wait for its turn"), 1);
    QVERIFY(QFile::remove(m_unit->path("ruapp/manifest.csv")));

    tar.release();

    QTRY_COMPARE(m_log->lines(QtWarningMsg),
                 QStringList{QStringLiteral("pairserver: Could not prepare \"%1\" - its manifest cannot be read")
                                 .arg(m_unit->path("ruapp"))});
    QCOMPARE(tar.calls().size(), 1);
    QCOMPARE(newer->received(), QByteArray());
}

void TestPairServerConnections::offerBelongsToOneConnection()
{
    getApp(9, "rusys");
    const std::unique_ptr<ToolConnection> other = connectTool();
    const std::unique_ptr<ToolConnection> receiver = connectReceiver();

    other->send(startTransferRequest());

    QTRY_VERIFY(m_log->contains(NoHandleLine));
    QVERIFY(receiver->isUp());
    QCOMPARE(receiver->received(), QByteArray());
}

void TestPairServerConnections::offerGoesWithItsConnection()
{
    getApp(9, "rusys");
    QVERIFY(QFile::exists(m_unit->path("rusys.tar")));

    m_tool->socket.disconnectFromHost();

    QTRY_VERIFY(!QFile::exists(m_unit->path("rusys.tar")));
    QVERIFY(!QFile::exists(m_unit->path("tessaroserver/config/.pairing")));
}

void TestPairServerConnections::whoNeverFetchesHoldsUpNobody()
{
    getApp(9, "rusys");
    const std::unique_ptr<ToolConnection> other = connectTool();

    other->send(getAppRequest(8, m_unit->path("ruapp")));

    QTRY_VERIFY(Offer::from(other->received()).whole);
    QVERIFY(QFile::exists(m_unit->path("rusys.tar")));
    QVERIFY(QFile::exists(m_unit->path("ruapp.tar")));
}

void TestPairServerConnections::toolThatTakesNoRepliesIsNotReadFrom()
{
    // Replies of some 200 KiB, so that a few of them fill every buffer.
    m_unit->write("ruapp/manifest.csv", "target;ru\nname;" + QByteArray(60000, 'n') + '\n');
    m_tool->takeOnly(1);
    constexpr int Requests = 200;
    for (int i = 0; i < Requests; ++i) {
        m_tool->send(getAppListRequest());
    }
    const auto served = [this] {
        return linesWith("sending applist");
    };
    int servedBefore = -1;
    while (servedBefore != served()) {
        servedBefore = served();
        QTest::qWait(100); // a server that can go on would have gone on
    }
    QVERIFY(served() < Requests);
    QVERIFY(m_server->findChild<QTcpSocket*>()->bytesToWrite() < 64 * 1024 + 200 * 1024);

    m_tool->takeEverything();
    QTRY_VERIFY((m_tool->received(), served() == Requests));
}

void TestPairServerConnections::connectionsThatEndAreFreed()
{
    for (int i = 0; i < 20; ++i) {
        connectTool()->send(getAppListRequest());
        connectReceiver()->send("noise");
    }

    QTRY_COMPARE(openConnections(), 1);
    QVERIFY(m_tool->isUp());
}

void TestPairServerConnections::tooManyConnectionsCloseTheOldest()
{
    std::vector<std::unique_ptr<ToolConnection>> tools;
    tools.reserve(64);
    for (int i = 0; i < 64; ++i) {
        tools.push_back(connectTool());
    }

    QTRY_VERIFY(!m_tool->isUp());
    QCOMPARE(m_log->lines(QtWarningMsg),
             QStringList{QStringLiteral("pairserver: Too many request connections, closing the oldest")});
    QVERIFY(std::all_of(tools.begin(), tools.end(), [](const auto& tool) { return tool->isUp(); }));
    tools.back()->send(getAppListRequest());
    QTRY_VERIFY(isList(tools.back()->received()));
}

void TestPairServerConnections::tooManyConnectionsSpareWhoIsAtWork()
{
    getApp(9, "rusys");
    std::vector<std::unique_ptr<ToolConnection>> idle;
    for (int i = 0; i < 64; ++i) {
        idle.push_back(connectTool());
    }

    QTRY_VERIFY(!idle.front()->isUp());
    QVERIFY(m_tool->isUp());
    QVERIFY(QFile::exists(m_unit->path("rusys.tar")));
}

QTEST_GUILESS_MAIN(TestPairServerConnections)
#include "tst_pairserver_connections.moc"
