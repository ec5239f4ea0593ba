#include "pairserver.h"

#include "faketar.h"
#include "pairserverfixture.h"

#include <QProcess>
#include <QSignalSpy>
#include <QtTest>

namespace {

constexpr int RemoteUnit = 9;

} // namespace

/// What the requests of one service tool do. How connections behave is told by tst_pairserver_connections.
class TestPairServer : public QObject, private PairServerFixture
{
    Q_OBJECT

private slots:
    void init()
    {
        setUp();
        m_atFirst = m_unit->everything();
    }
    void cleanup() { tearDown(); }

    void announcesItsPorts();
    void runsWithoutPairingWhenThePortIsTaken();
    void listsButDoesNotTransferWhenTheSecondPortIsTaken();
    void takesThePortsAsSoonAsTheyAreFree_data();
    void takesThePortsAsSoonAsTheyAreFree();
    void defaultPlaceIsThePrivateNetwork();
    void slotsDoNothingWithoutAClient();
    void nobodyIsPairedWithoutANumber();
    void listsTheApplications();
    void listOfAMissingFolderIsEmpty();
    void listIsReadAnewForEachRequest();
    void unknownCommandsAreIgnored();
    void getAppWithIdZeroIsRefused();
    void refusedPathsLeaveALineAndNoArchive_data();
    void refusedPathsLeaveALineAndNoArchive();
    void systemApplicationIsOfferedWithoutNewKeys();
    void metadataIsExact();
    void userApplicationGetsTheSameKeysInAllThreePlaces();
    void knownUnitKeepsItsRow();
    void settingsOfTheBaseUnitAreCopied();
    void settingsThatTheBaseUnitLacksAreNotTouched();
    void keysAppearOnlyInTheirFilesAndOneLine();
    void twoPairingsDrawDifferentKeys();
    void applicationThatCannotBeKeyedIsNotOffered();
    void keysThatCannotBeStoredAreNotHandedOut();
    void busyArchiverRefusesBeforeAnyKeyIsDrawn();
    void withoutTarNobodyIsPairedAndLaterRequestsSucceed();
    void archiveThatTarDidNotMakeIsNotOffered();
    void tornArchiveIsNotOfferedAndNobodyPaired();
    void tarThatNeverEndsIsEnded_data();
    void tarThatNeverEndsIsEnded();
    void filesAreReplacedOnlyWhenTheArchiveStands();
    void whatSomebodyElseWritesMeanwhileIsNotLost();
    void archiveFromEarlierIsNeverOffered();

private:
    /// Waits until everything that was sent so far has been looked at: the list is answered in order.
    void waitUntilServed()
    {
        m_tool->forget();
        m_tool->send(getAppListRequest());
        waitFor([this] { return isList(m_tool->received()); });
        m_tool->forget();
    }
    QByteArray keyLine(quint16 ruId) const
    {
        for (const QByteArray& line : m_unit->read("tessaroserver/config/remotes.csv").split('\n')) {
            if (line.split(';').value(1) == QByteArray::number(ruId)) {
                return line;
            }
        }
        return {};
    }
    QByteArray applicationKeys() const
    {
        QByteArrayList words;
        for (const char* row : {"PKY1", "PKY2", "PKY3", "PKY4"}) {
            words.append(m_unit->valueOf("ruapp/config/keys.csv", row));
        }
        return words.join(';');
    }

    QMap<QString, QByteArray> m_atFirst;
};

void TestPairServer::announcesItsPorts()
{
    QVERIFY(m_server->requestPort() != 0);
    QVERIFY(m_server->fileTransferPort() != 0);
    QVERIFY(m_log->contains(QStringLiteral("pairserver: The pair server is running on IP: \"127.0.0.1\" and Port: ") +
                            QString::number(m_server->requestPort())));
    QVERIFY(m_log->contains(QStringLiteral(
        "PairServer::PairServer(Configuration*, TagDatabase*, QObject*) file transfer server running.")));
}

void TestPairServer::runsWithoutPairingWhenThePortIsTaken()
{
    m_log->clear();
    const PairServerPlace taken{QStringLiteral("127.0.0.1"), m_server->requestPort(), 0, std::chrono::seconds(1)};

    const PairServer second(m_unit->configuration.get(), &m_unit->tags, taken, nullptr);

    QCOMPARE(second.requestPort(), quint16(0));
    QCOMPARE(second.fileTransferPort(), quint16(0));
    QCOMPARE(m_log->lines(), QStringList{QStringLiteral("pairserver: Unable to start pair server: \"The bound address "
                                                        "is already in use\"")});
}

void TestPairServer::listsButDoesNotTransferWhenTheSecondPortIsTaken()
{
    const PairServerPlace taken{QStringLiteral("127.0.0.1"), 0, m_server->fileTransferPort(), std::chrono::seconds(1)};

    const PairServer second(m_unit->configuration.get(), &m_unit->tags, taken, nullptr);
    ToolConnection tool(second.requestPort());
    QTRY_VERIFY(tool.isUp());
    tool.send(getAppListRequest());

    QTRY_VERIFY(isList(tool.received()));
    QCOMPARE(second.fileTransferPort(), quint16(0));
    QCOMPARE(m_log->lines(QtWarningMsg), QStringList{QStringLiteral("pairserver: Unable to start file transfer server: "
                                                                    "\"The bound address is already in use\"")});
}

/// A killed server's tar that has not begun yet holds both ports for a moment.
void TestPairServer::takesThePortsAsSoonAsTheyAreFree_data()
{
    QTest::addColumn<bool>("requestPortIsTaken");
    QTest::addColumn<bool>("filePortIsTaken");

    QTest::newRow("requests") << true << false;
    QTest::newRow("files") << false << true;
    QTest::newRow("both") << true << true;
}

void TestPairServer::takesThePortsAsSoonAsTheyAreFree()
{
    QFETCH(bool, requestPortIsTaken);
    QFETCH(bool, filePortIsTaken);
    QTcpServer requestHolder;
    QTcpServer fileHolder;
    QVERIFY(requestHolder.listen(QHostAddress::LocalHost) && fileHolder.listen(QHostAddress::LocalHost));
    const quint16 requestPort = requestHolder.serverPort();
    const quint16 filePort = fileHolder.serverPort();
    PairServerPlace place{QStringLiteral("127.0.0.1"), requestPortIsTaken ? requestPort : quint16(0),
                          filePortIsTaken ? filePort : quint16(0)};
    place.listenAgain = std::chrono::milliseconds(20);

    const PairServer second(m_unit->configuration.get(), &m_unit->tags, place, nullptr);
    m_log->clear();
    QTest::qWait(200);
    QCOMPARE(m_log->lines(), QStringList()); // told once
    requestHolder.close();
    if (requestPortIsTaken && filePortIsTaken) {
        QTRY_COMPARE(second.requestPort(), requestPort);
    }
    fileHolder.close();

    QTRY_VERIFY(second.fileTransferPort() != 0);
    QVERIFY(!requestPortIsTaken || second.requestPort() == requestPort);
    QVERIFY(!filePortIsTaken || second.fileTransferPort() == filePort);
    ToolConnection tool(second.requestPort());
    QTRY_VERIFY(tool.isUp());
    tool.send(getAppListRequest());
    QTRY_VERIFY(isList(tool.received()));
}

void TestPairServer::defaultPlaceIsThePrivateNetwork()
{
    const PairServerPlace place;

    QCOMPARE(place.address, QStringLiteral("192.168.32.1"));
    QCOMPARE(place.requestPort, quint16(9123));
    QCOMPARE(place.fileTransferPort, quint16(9124));
}

void TestPairServer::slotsDoNothingWithoutAClient()
{
    const std::unique_ptr<PairServer> server = m_unit->newServer();

    server->newClientConnection();
    server->readData();
    server->sendListOfApps();
    server->sendApp(m_unit->path("ruapp"));
    m_unit->write("ruapp.tar", "abc");
    server->sendAppArchiveReady(QStringLiteral("ruapp"), m_unit->path("ruapp.tar"));

    QVERIFY(m_log->lines().filter(QStringLiteral("Start creating")).isEmpty());
    QVERIFY(!QFile::exists(m_unit->path("ruapp.tar")));
    QCOMPARE(keyLine(RemoteUnit), QByteArray());
}

void TestPairServer::nobodyIsPairedWithoutANumber()
{
    const QByteArray keysBefore = applicationKeys();

    m_server->sendApp(m_unit->path("ruapp")); // nobody has asked for anything yet

    QVERIFY(m_log->contains(QStringLiteral("PairServer: invalid ruId: 0")));
    QCOMPARE(applicationKeys(), keysBefore);
    QVERIFY(m_log->lines().filter(QStringLiteral("Start creating")).isEmpty());
}

void TestPairServer::listsTheApplications()
{
    m_tool->send(getAppListRequest());
    // Text, count of records; a record is a count of pairs and the pairs, in any order.
    QTRY_COMPARE(ReplyReader(m_tool->received()).text(), QStringLiteral("appList"));

    ReplyReader reply(m_tool->received());
    reply.text();
    QCOMPARE(reply.number(4), quint64(2));
    QList<QMap<QString, QString>> records;
    for (int i = 0; i < 2; ++i) {
        QMap<QString, QString> record;
        for (quint64 pairs = reply.number(4); pairs > 0 && !reply.isShort(); --pairs) {
            const QString key = reply.text();
            record.insert(key, reply.text());
        }
        records.append(record);
    }
    QVERIFY(reply.isAtEnd());
    QVERIFY(!reply.isShort());
    QCOMPARE(records.at(0),
             (QMap<QString, QString>{
                 {"target", "ru"}, {"type", "user"}, {"name", "Crane panel"}, {"pairAppPath", m_unit->path("ruapp")}}));
    QCOMPARE(records.at(1),
             (QMap<QString, QString>{{"target", "ru"}, {"type", "system"}, {"pairAppPath", m_unit->path("rusys")}}));
    QCOMPARE(m_log->lines().filter(QStringLiteral("sending applist ")).size(), 1);
}

void TestPairServer::listOfAMissingFolderIsEmpty()
{
    ApplicationManifest::setRoot(QStringLiteral("/nonexistent/Applications"));

    m_tool->send(getAppListRequest());

    const QByteArray empty = QByteArray::fromHex("0000000E 0061 0070 0070 004C 0069 0073 0074 00000000");
    QTRY_COMPARE(m_tool->received().toHex(), empty.toHex());
    QVERIFY(m_log->contains(QStringLiteral("No applicationsDirectory: \"/nonexistent/Applications\"")));
}

void TestPairServer::listIsReadAnewForEachRequest()
{
    waitUntilServed();
    QVERIFY(QFile::remove(m_unit->path("ruapp/manifest.csv")));
    QVERIFY(QFile::remove(m_unit->path("rusys/manifest.csv")));

    m_tool->send(getAppListRequest());

    const QByteArray empty = QByteArray::fromHex("0000000E 0061 0070 0070 004C 0069 0073 0074 00000000");
    QTRY_COMPARE(m_tool->received().toHex(), empty.toHex());
}

void TestPairServer::unknownCommandsAreIgnored()
{
    m_tool->send(wireText(QStringLiteral("GETAPPLIST")) + wireText(QString()) + wireText(QStringLiteral("reboot")));
    waitUntilServed();

    QVERIFY(m_tool->isUp());
    QVERIFY(m_log->lines(QtWarningMsg).isEmpty());
}

void TestPairServer::getAppWithIdZeroIsRefused()
{
    const QString app = m_unit->path("ruapp");
    const QByteArray keysBefore = applicationKeys();

    m_tool->send(getAppRequest(0, app));
    waitUntilServed();

    QCOMPARE(m_log->lines(QtWarningMsg),
             QStringList{QStringLiteral("Send app, invalid ruId: 0 appPath: ") + quoted(app)});
    QCOMPARE(applicationKeys(), keysBefore);
    QVERIFY(!m_log->contains(QStringLiteral("Start creating ") + quoted(app)));
}

void TestPairServer::refusedPathsLeaveALineAndNoArchive_data()
{
    QTest::addColumn<QString>("below");

    QTest::newRow("trailing slash") << "/ruapp/";
    QTest::newRow("parent") << "/ruapp/../ruapp";
    QTest::newRow("does not exist") << "/missing";
    QTest::newRow("the server's own folder, with everyone's keys") << "/tessaroserver";
    QTest::newRow("outside") << "/..";
    QTest::newRow("the applications folder itself") << "";
}

void TestPairServer::refusedPathsLeaveALineAndNoArchive()
{
    QFETCH(QString, below);
    const QString path = m_unit->root() + below;

    m_tool->send(getAppRequest(RemoteUnit, path));
    waitUntilServed();

    QCOMPARE(m_log->lines(QtWarningMsg).size(), 1);
    QVERIFY(
        m_log->lines(QtWarningMsg).first().startsWith(QStringLiteral("pairserver: Refused to send ") + quoted(path)));
    QVERIFY(m_log->lines().filter(QStringLiteral("Start creating")).isEmpty());
    QCOMPARE(keyLine(RemoteUnit), QByteArray());
}

void TestPairServer::systemApplicationIsOfferedWithoutNewKeys()
{
    const QByteArray remotes = m_unit->read("tessaroserver/config/remotes.csv");
    QSignalSpy changed(m_unit->configuration.get(), &Configuration::configurationChanged);

    getApp(RemoteUnit, "rusys");

    QVERIFY(QFile::exists(m_unit->path("rusys.tar")));
    QCOMPARE(m_unit->read("rusys/config/keys.csv"), QByteArray("tag;value\nKey;Value\nPKY1;0\n"));
    QCOMPARE(m_unit->read("tessaroserver/config/remotes.csv"), remotes);
    QVERIFY(changed.isEmpty());
    QVERIFY(m_log->contains(QStringLiteral("Send app ruId: 9 appPath: ") + quoted(m_unit->path("rusys"))));
    const QStringList lines = m_log->lines();
    QCOMPARE(lines.mid(lines.indexOf(QStringLiteral("SendAppArchiveReady()"))),
             (QStringList{QStringLiteral("SendAppArchiveReady()"), QStringLiteral("Attempting to send app metadata"),
                          QStringLiteral("sending app metadata for  ") + quoted(m_unit->path("rusys.tar"))}));
}

void TestPairServer::metadataIsExact()
{
    const FakeTar tar(FakeTar::Writing); // an archive of the three bytes "abc"

    m_tool->send(getAppRequest(RemoteUnit, m_unit->path("rusys")));

    const QByteArray expected = QByteArray::fromHex("00000006 0061 0070 0070"
                                                    "00000012 0072 0075 0073 0079 0073 002E 0074 0061 0072"
                                                    "0000000000000003") +
                                wireText(QStringLiteral("900150983cd24fb0d6963f7d28e17f72"));
    QTRY_COMPARE(m_tool->received().toHex(), expected.toHex());
}

void TestPairServer::userApplicationGetsTheSameKeysInAllThreePlaces()
{
    QSignalSpy changed(m_unit->configuration.get(), &Configuration::configurationChanged);

    getApp(RemoteUnit, "ruapp");

    const QByteArray keys = applicationKeys();
    QCOMPARE(keyLine(RemoteUnit), "1;9;" + keys); // a new row, numbered after the last one
    QProcess unpacked;
    unpacked.start(QStringLiteral("tar"), {QStringLiteral("-xOf"), m_unit->path("ruapp.tar"), "ruapp/config/keys.csv"});
    QVERIFY(unpacked.waitForFinished());
    QCOMPARE(unpacked.readAllStandardOutput(), m_unit->read("ruapp/config/keys.csv"));
    QCOMPARE(changed.size(), 1);
    unsigned int word = 0;
    QVERIFY(m_unit->configuration->getRemoteTag(1, QStringLiteral("PKY4"), QString(), &word));
    QCOMPARE(QByteArray::number(word), keys.split(';').at(3));
    const Offer offer = Offer::from(m_tool->received());
    QFile archive(m_unit->path("ruapp.tar"));
    QVERIFY(archive.open(QIODevice::ReadOnly));
    QCOMPARE(offer.name, QStringLiteral("ruapp.tar"));
    QCOMPARE(offer.size, quint64(archive.size()));
    QCOMPARE(offer.md5, md5(archive.readAll()));
}

void TestPairServer::knownUnitKeepsItsRow()
{
    getApp(7, "ruapp");

    QCOMPARE(m_unit->read("tessaroserver/config/remotes.csv"),
             "ruindex;RUID;PKY1;PKY2;PKY3;PKY4\nIndex;Unit;1;2;3;4\n0;7;" + applicationKeys() + '\n');
    QVERIFY(applicationKeys() != "1;2;3;4");
}

void TestPairServer::settingsOfTheBaseUnitAreCopied()
{
    getApp(RemoteUnit, "ruapp");

    // Binary settings in decimal, text as it is, the row SID1 replaced, the others appended; VOLT untouched.
    QCOMPARE(m_unit->read("ruapp/config/app.csv"),
             QByteArray("tag;value;note\nKey;Value;Note\nVOLT;24;kept\nBUID;1001;base\nSID1;site;net\nCCH1;11;0\n"
                        "CCH2;4000000000;0\nWPA1;pass phrase;0\n"));
}

void TestPairServer::settingsThatTheBaseUnitLacksAreNotTouched()
{
    m_unit->write("tessaroserver/config/app.csv", "tag;from;value\nKey;Origin;Value\n");

    getApp(RemoteUnit, "ruapp"); // reads the configuration anew

    QCOMPARE(m_unit->read("ruapp/config/app.csv"),
             QByteArray("tag;value;note\nKey;Value;Note\nVOLT;24;kept\nBUID;1001;base\nSID1;none;net\n"));
}

void TestPairServer::keysAppearOnlyInTheirFilesAndOneLine()
{
    getApp(RemoteUnit, "ruapp");

    const QList<QByteArray> words = applicationKeys().split(';');
    const QString line =
        QStringLiteral("PairServer generated new keys: 9 (ruid) %1 (pky1) %2 (pky2) %3 (pky3) %4 (pky4)")
            .arg(words.at(0).constData(), words.at(1).constData(), words.at(2).constData(), words.at(3).constData());
    QCOMPARE(m_log->count(line), 1);
    for (const QByteArray& word : words) {
        const QRegularExpression wholeNumber(QStringLiteral("\\b%1\\b").arg(word.constData()));
        QCOMPARE(m_log->lines().filter(wholeNumber), QStringList{line});
    }
}

void TestPairServer::twoPairingsDrawDifferentKeys()
{
    getApp(RemoteUnit, "ruapp");
    const QList<QByteArray> first = applicationKeys().split(';');
    getApp(RemoteUnit, "ruapp");
    const QList<QByteArray> second = applicationKeys().split(';');

    for (int i = 0; i < 4; ++i) {
        QVERIFY(first.at(i) != second.at(i));
    }
    QCOMPARE(keyLine(RemoteUnit), "1;9;" + second.join(';'));
}

void TestPairServer::applicationThatCannotBeKeyedIsNotOffered()
{
    QVERIFY(QFile::remove(m_unit->path("ruapp/config/keys.csv")));

    m_tool->send(getAppRequest(RemoteUnit, m_unit->path("ruapp")));
    waitUntilServed();

    QCOMPARE(m_log->lines(QtWarningMsg), QStringList{QStringLiteral("pairserver: Could not write the pairing into ") +
                                                     quoted(m_unit->path("ruapp/config/keys.csv"))});
    QCOMPARE(keyLine(RemoteUnit), QByteArray());
    QVERIFY(m_log->lines().filter(QStringLiteral("Start creating")).isEmpty());
}

void TestPairServer::keysThatCannotBeStoredAreNotHandedOut()
{
    // The only way to lack a column for a word without being a broken installation: an older table.
    m_unit->write("tessaroserver/config/remotes.csv", "ruindex;RUID;PKY1;PKY2;PKY3\nIndex;Unit;1;2;3\n");

    m_tool->send(getAppRequest(RemoteUnit, m_unit->path("ruapp")));
    waitUntilServed();

    QCOMPARE(m_log->lines(QtWarningMsg),
             QStringList{QStringLiteral("pairserver: Could not store the keys of remote unit 9")});
    QVERIFY(m_log->lines().filter(QStringLiteral("Start creating")).isEmpty());
}

void TestPairServer::busyArchiverRefusesBeforeAnyKeyIsDrawn()
{
    const FakeTar tar(FakeTar::Waiting);
    m_tool->send(getAppRequest(RemoteUnit, m_unit->path("rusys")));
    QTRY_COMPARE(tar.calls().size(), 1);
    const QByteArray keysBefore = applicationKeys();

    m_tool->send(getAppRequest(RemoteUnit, m_unit->path("ruapp")));
    waitUntilServed();
    tar.release();

    QCOMPARE(m_log->count(QStringLiteral("pairarchive: Unable to create tar. Another process is running.")), 1);
    QCOMPARE(applicationKeys(), keysBefore);
    QCOMPARE(keyLine(RemoteUnit), QByteArray());
}

void TestPairServer::withoutTarNobodyIsPairedAndLaterRequestsSucceed()
{
    const QByteArray keysBefore = applicationKeys();
    {
        const FakeTar tar(FakeTar::Missing);
        m_tool->send(getAppRequest(RemoteUnit, m_unit->path("ruapp")));
        QTRY_COMPARE(m_log->lines(QtWarningMsg).size(), 1);
        waitUntilServed();
    }
    QVERIFY(m_log->lines(QtWarningMsg).first().startsWith(QStringLiteral("pairarchive: Could not start tar: ")));
    QCOMPARE(applicationKeys(), keysBefore);
    QCOMPARE(keyLine(RemoteUnit), QByteArray());
    QCOMPARE(m_unit->everything(), m_atFirst);

    QVERIFY(getApp(RemoteUnit, "ruapp").whole);
    QCOMPARE(keyLine(RemoteUnit), "1;9;" + applicationKeys());
}

void TestPairServer::archiveThatTarDidNotMakeIsNotOffered()
{
    const FakeTar tar(FakeTar::Failing);

    m_tool->send(getAppRequest(RemoteUnit, m_unit->path("rusys")));
    QTRY_COMPARE(m_log->lines(QtWarningMsg).size(), 1);

    QVERIFY(m_log->lines(QtWarningMsg)
                .first()
                .startsWith(QStringLiteral("pairserver: No archive ") + quoted(m_unit->path("rusys.tar"))));
    QVERIFY(m_tool->received().isEmpty());
    m_tool->send(startTransferRequest());
    QTRY_VERIFY(m_log->contains(QStringLiteral("Application handle was never created!")));
}

void TestPairServer::tornArchiveIsNotOfferedAndNobodyPaired()
{
    {
        const FakeTar tar(FakeTar::Torn); // as on a full disk
        m_tool->send(getAppRequest(RemoteUnit, m_unit->path("ruapp")));
        QTRY_COMPARE(m_log->lines(QtWarningMsg),
                     QStringList{QStringLiteral("pairserver: No archive %1 \"tar was not content\"")
                                     .arg(quoted(m_unit->path("ruapp.tar")))});
    }
    QVERIFY(m_tool->received().isEmpty());
    QCOMPARE(m_unit->everything(), m_atFirst);

    QVERIFY(getApp(RemoteUnit, "ruapp").whole);
}

void TestPairServer::tarThatNeverEndsIsEnded_data()
{
    QTest::addColumn<int>("kind");

    QTest::newRow("makes nothing") << int(FakeTar::Hanging);
    QTest::newRow("makes ever more") << int(FakeTar::Growing);
}

void TestPairServer::tarThatNeverEndsIsEnded()
{
    QFETCH(int, kind);
    m_server.reset();
    m_server = m_unit->newServer(std::chrono::seconds(60), std::chrono::milliseconds(500));
    m_tool = connectTool();
    {
        const FakeTar tar{FakeTar::Kind(kind)};
        m_tool->send(getAppRequest(RemoteUnit, m_unit->path("ruapp")));
        QTRY_VERIFY(linesWith("pairarchive: tar does not come to its end with ") == 1);
        QTRY_VERIFY(linesWith("pairserver: No archive ") == 1);
    }
    QCOMPARE(m_unit->everything(), m_atFirst);

    // Who asks again is served, though the system's own tar, too, may take longer than that on a busy machine.
    const QDeadlineTimer deadline(PatienceMs);
    bool isServed = false;
    while (!isServed && !deadline.hasExpired()) {
        const int refused = linesWith("pairserver: No archive ");
        m_tool->forget();
        m_tool->send(getAppRequest(RemoteUnit, m_unit->path("ruapp")));
        QTRY_VERIFY(Offer::from(m_tool->received()).whole || linesWith("pairserver: No archive ") > refused);
        isServed = Offer::from(m_tool->received()).whole;
    }
    QVERIFY(isServed);
}

void TestPairServer::filesAreReplacedOnlyWhenTheArchiveStands()
{
    const FakeTar tar(FakeTar::Waiting);
    const QByteArray settingsBefore = m_unit->read("ruapp/config/app.csv");
    const QByteArray keysBefore = m_unit->read("ruapp/config/keys.csv");
    const QByteArray remotesBefore = m_unit->read("tessaroserver/config/remotes.csv");

    m_tool->send(getAppRequest(7, m_unit->path("ruapp")));
    QTRY_COMPARE(tar.calls().size(), 1);
    QCOMPARE(m_unit->read("ruapp/config/app.csv"), settingsBefore);
    QCOMPARE(m_unit->read("ruapp/config/keys.csv"), keysBefore);
    QCOMPARE(m_unit->read("tessaroserver/config/remotes.csv"), remotesBefore);
    tar.release();

    QTRY_VERIFY(Offer::from(m_tool->received()).whole);
    QVERIFY(m_unit->read("ruapp/config/app.csv") != settingsBefore);
    QVERIFY(m_unit->read("ruapp/config/keys.csv") != keysBefore);
    QCOMPARE(keyLine(7), "0;7;" + applicationKeys());
}

void TestPairServer::whatSomebodyElseWritesMeanwhileIsNotLost()
{
    const QByteArray byHand = "ruindex;RUID;PKY1;PKY2;PKY3;PKY4\nIndex;Unit;1;2;3;4\n0;7;5;6;7;8\n";
    const QByteArray keysBefore = m_unit->read("ruapp/config/keys.csv");
    const FakeTar tar(FakeTar::Waiting);
    m_tool->send(getAppRequest(RemoteUnit, m_unit->path("ruapp")));
    QTRY_COMPARE(tar.calls().size(), 1);
    m_unit->write("tessaroserver/config/remotes.csv", byHand);

    tar.release();

    QTRY_COMPARE(linesWith("pairserver: Nothing has changed with "), 1);
    QCOMPARE(m_unit->read("tessaroserver/config/remotes.csv"), byHand);
    QCOMPARE(m_unit->read("ruapp/config/keys.csv"), keysBefore);
    QVERIFY(m_tool->received().isEmpty());
    QVERIFY(getApp(RemoteUnit, "ruapp").whole);
}

void TestPairServer::archiveFromEarlierIsNeverOffered()
{
    m_unit->write("rusys.tar", "left over, with old keys");
    const FakeTar tar(FakeTar::Failing);

    m_tool->send(getAppRequest(RemoteUnit, m_unit->path("rusys")));
    QTRY_COMPARE(m_log->lines(QtWarningMsg).size(), 1);

    QVERIFY(!QFile::exists(m_unit->path("rusys.tar")));
    QVERIFY(m_tool->received().isEmpty());
}

QTEST_GUILESS_MAIN(TestPairServer)
#include "tst_pairserver.moc"
