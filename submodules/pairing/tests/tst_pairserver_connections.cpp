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
    void newestClientIsServedAndTheOlderOneLeftInPeace();
    void halfARequestDoesNotMixWithAnotherConnection();
    void archiveGoesToTheToolThatAskedForIt();
    void archiveNobodyIsLeftForIsRemoved();
    void toolThatTakesNoRepliesIsNotReadFrom();
    void connectionsThatEndAreFreed();
    void tooManyConnectionsCloseTheOldest();
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

void TestPairServerConnections::newestClientIsServedAndTheOlderOneLeftInPeace()
{
    const std::unique_ptr<ToolConnection> newer = connectTool();

    m_tool->send(getAppListRequest());
    m_tool->send(QByteArray(1000000, 'x')); // not even garbage from it disturbs anyone
    newer->send(getAppListRequest());

    QTRY_VERIFY(isList(newer->received()));
    QTRY_COMPARE(m_tool->socket.bytesToWrite(), 0);
    QVERIFY(m_tool->isUp());
    QCOMPARE(m_tool->received(), QByteArray());
    QCOMPARE(linesWith("sending applist"), 1);
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
    m_tool->send(request.mid(20));
    newer->forget();
    newer->send(getAppListRequest());
    QTRY_VERIFY(isList(newer->received()));

    QVERIFY(m_tool->isUp());
    QVERIFY(m_log->lines(QtWarningMsg).isEmpty());
}

void TestPairServerConnections::archiveGoesToTheToolThatAskedForIt()
{
    const FakeTar tar(FakeTar::Waiting);
    m_tool->send(getAppRequest(9, m_unit->path("rusys")));
    QTRY_COMPARE(tar.calls().size(), 1);
    const std::unique_ptr<ToolConnection> newer = connectTool();
    m_unit->write("rusys.tar", "abc"); // in the place of what tar would have made

    tar.release();

    QTRY_VERIFY(Offer::from(m_tool->received()).whole);
    QCOMPARE(newer->received(), QByteArray());
}

void TestPairServerConnections::archiveNobodyIsLeftForIsRemoved()
{
    const FakeTar tar(FakeTar::Waiting);
    m_tool->send(getAppRequest(9, m_unit->path("rusys")));
    QTRY_COMPARE(tar.calls().size(), 1);
    m_unit->write("rusys.tar", "abc"); // in the place of what tar would have made
    m_tool->socket.disconnectFromHost();
    QTRY_COMPARE(openConnections(), 0);
    const std::unique_ptr<ToolConnection> newer = connectTool();

    tar.release();

    QTRY_COMPARE(
        m_log->lines(QtWarningMsg),
        QStringList{QStringLiteral("pairserver: Nobody is left to take \"%1\"").arg(m_unit->path("rusys.tar"))});
    QVERIFY(!QFile::exists(m_unit->path("rusys.tar")));
    QCOMPARE(newer->received(), QByteArray());
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

QTEST_GUILESS_MAIN(TestPairServerConnections)
#include "tst_pairserver_connections.moc"
