#include "pairserver.h"

#include "pairserverfixture.h"

#include <QSignalSpy>
#include <QtTest>

namespace {

using namespace std::chrono_literals;

const QString NoHandleLine = QStringLiteral("Application handle was never created!");
/// Twice of what the kernel holds at most for a receiver that takes nothing.
constexpr int LargeSize = 8 * 1024 * 1024;

} // namespace

/// How an archive travels: over which connection, to slow and vanishing receivers, and what is left behind.
class TestPairServerTransfers : public QObject, private PairServerFixture
{
    Q_OBJECT

private slots:
    void init() { setUp(); }
    void cleanup() { tearDown(); }

    void startTransferBeforeAnyGetAppSaysSo();
    void transferDeliversTheArchiveAndEnds();
    void repeatAfterATransferSaysSo();
    void startTransferWithoutFileConnectionDoesNothing();
    void fileConnectionThatHasEndedCountsAsNone();
    void fileConnectionMadeJustBeforeTheRequestCounts();
    void fileConnectionIsReplacedByTheNext();
    void fileConnectionsOfTwoToolsAreToldApartByTheirOrder();
    void stalledReceiverHoldsUpNobody();
    void stalledReceiverIsDroppedInTheEnd();
    void receiverThatVanishesHalfWayLeavesNothingBehind();
    void supersededOfferIsRemoved();
    void destructionRemovesWhatWasOffered();
    void destructionDuringATransferRemovesTheArchive();

private:
    void makeLarge(const QByteArray& application) { m_unit->write(application + "/large", QByteArray(LargeSize, 'x')); }
};

void TestPairServerTransfers::startTransferBeforeAnyGetAppSaysSo()
{
    const std::unique_ptr<ToolConnection> receiver = connectReceiver();

    m_tool->send(startTransferRequest());

    QTRY_VERIFY(m_log->contains(NoHandleLine));
    QVERIFY(m_log->contains(QStringLiteral("Starting transfer of application.")));
    QVERIFY(receiver->isUp());
}

void TestPairServerTransfers::transferDeliversTheArchiveAndEnds()
{
    QSignalSpy complete(m_server.get(), &PairServer::pairingComplete);
    const std::unique_ptr<ToolConnection> receiver = connectReceiver();
    QVERIFY(m_log->contains(QStringLiteral("Got connection from \"127.0.0.1\"")));
    const Offer offer = getApp(9, "ruapp");
    QVERIFY(complete.isEmpty());
    m_log->clear();

    m_tool->send(startTransferRequest());

    QTRY_VERIFY(!receiver->isUp());
    QCOMPARE(quint64(receiver->received().size()), offer.size);
    QCOMPARE(md5(receiver->received()), offer.md5);
    QTRY_COMPARE(complete.size(), 1);
    QVERIFY(!QFile::exists(m_unit->path("ruapp.tar")));
    QCOMPARE(m_log->lines(),
             (QStringList{QStringLiteral("Starting transfer of application."), QStringLiteral("Sending application..."),
                          QStringLiteral("Sending first chunc of data"), QStringLiteral("Application sent"),
                          QStringLiteral("Transfer complete of  \"%1\"").arg(m_unit->path("ruapp.tar"))}));
    QVERIFY(m_tool->isUp());
}

void TestPairServerTransfers::repeatAfterATransferSaysSo()
{
    QSignalSpy complete(m_server.get(), &PairServer::pairingComplete);
    const std::unique_ptr<ToolConnection> receiver = connectReceiver();
    getApp(9, "rusys");
    m_tool->send(startTransferRequest());
    QTRY_VERIFY(!receiver->isUp());
    QVERIFY(!m_log->contains(NoHandleLine));
    const std::unique_ptr<ToolConnection> again = connectReceiver();

    m_tool->send(startTransferRequest());

    QTRY_COMPARE(m_log->count(NoHandleLine), 1);
    QCOMPARE(complete.size(), 1);
    QVERIFY(again->isUp());
}

void TestPairServerTransfers::startTransferWithoutFileConnectionDoesNothing()
{
    const Offer offer = getApp(9, "rusys");

    m_tool->send(startTransferRequest());
    QTRY_COMPARE(m_log->lines(QtWarningMsg),
                 QStringList{QStringLiteral("pairserver: No file connection to send the application over")});
    QVERIFY(QFile::exists(m_unit->path("rusys.tar")));
    const std::unique_ptr<ToolConnection> receiver = connectReceiver();
    m_tool->send(startTransferRequest());

    QTRY_VERIFY(!receiver->isUp());
    QCOMPARE(md5(receiver->received()), offer.md5);
}

void TestPairServerTransfers::fileConnectionThatHasEndedCountsAsNone()
{
    getApp(9, "rusys");
    connectReceiver()->socket.disconnectFromHost();
    QTRY_COMPARE(openConnections(), 1);

    m_tool->send(startTransferRequest());

    QTRY_VERIFY(m_log->contains(QStringLiteral("pairserver: No file connection to send the application over")));
}

void TestPairServerTransfers::fileConnectionMadeJustBeforeTheRequestCounts()
{
    const Offer offer = getApp(9, "rusys");
    // No turn of the event loop between the two: the server finds both at once.
    ToolConnection receiver(m_server->fileTransferPort());
    QVERIFY(receiver.socket.waitForConnected());
    m_tool->send(startTransferRequest());

    QTRY_VERIFY(!receiver.isUp());
    QCOMPARE(md5(receiver.received()), offer.md5);
    QVERIFY(m_log->lines(QtWarningMsg).isEmpty());
}

void TestPairServerTransfers::fileConnectionIsReplacedByTheNext()
{
    const Offer offer = getApp(9, "rusys");
    const std::unique_ptr<ToolConnection> first = connectReceiver();
    const std::unique_ptr<ToolConnection> second = connectReceiver();
    QTRY_VERIFY(!first->isUp());

    m_tool->send(startTransferRequest());

    QTRY_VERIFY(!second->isUp());
    QCOMPARE(md5(second->received()), offer.md5);
    QCOMPARE(first->received(), QByteArray());
}

void TestPairServerTransfers::fileConnectionsOfTwoToolsAreToldApartByTheirOrder()
{
    const Offer firstOffer = getApp(9, "ruapp");
    const std::unique_ptr<ToolConnection> other = connectTool();
    other->send(getAppRequest(8, m_unit->path("rusys")));
    QTRY_VERIFY(Offer::from(other->received()).whole);
    const std::unique_ptr<ToolConnection> first = connectReceiver();
    const std::unique_ptr<ToolConnection> second = connectReceiver();

    m_tool->send(startTransferRequest());
    QTRY_VERIFY((first->received(), !first->isUp()));
    other->send(startTransferRequest());
    QTRY_VERIFY((second->received(), !second->isUp()));

    QCOMPARE(md5(first->received()), firstOffer.md5);
    QCOMPARE(md5(second->received()), Offer::from(other->received()).md5);
}

void TestPairServerTransfers::stalledReceiverHoldsUpNobody()
{
    makeLarge("ruapp");
    const std::unique_ptr<ToolConnection> stalled = connectReceiver();
    stalled->takeOnly(1);
    const Offer firstOffer = getApp(9, "ruapp");
    m_tool->send(startTransferRequest());
    QTRY_VERIFY(stalled->socket.bytesAvailable() > 0);

    // Meanwhile requests are answered, and the same application is packed, paired and fetched once more.
    const std::unique_ptr<ToolConnection> second = connectReceiver();
    const Offer secondOffer = getApp(9, "ruapp");
    QVERIFY(secondOffer.whole);
    QVERIFY(secondOffer.md5 != firstOffer.md5);
    m_tool->send(startTransferRequest());
    QTRY_VERIFY((second->received(), !second->isUp()));
    QCOMPARE(md5(second->received()), secondOffer.md5);
    QVERIFY(stalled->isUp());

    // And then the stalled one goes on: what it gets is still the archive that it was promised.
    stalled->takeEverything();
    QTRY_VERIFY((stalled->received(), !stalled->isUp()));
    QCOMPARE(md5(stalled->received()), firstOffer.md5);
    QVERIFY(!QFile::exists(m_unit->path("ruapp.tar")));
}

void TestPairServerTransfers::stalledReceiverIsDroppedInTheEnd()
{
    makeLarge("rusys");
    m_tool.reset();
    m_server = m_unit->newServer(100ms);
    m_tool = connectTool();
    const std::unique_ptr<ToolConnection> stalled = connectReceiver();
    stalled->takeOnly(1);
    getApp(9, "rusys");

    m_tool->send(startTransferRequest());

    const QString archive = m_unit->path("rusys.tar");
    QTRY_VERIFY(m_log->contains(QStringLiteral("pairserver: The receiver stopped taking \"%1\"").arg(archive)));
    QVERIFY(!QFile::exists(archive));
}

void TestPairServerTransfers::receiverThatVanishesHalfWayLeavesNothingBehind()
{
    makeLarge("ruapp");
    QSignalSpy complete(m_server.get(), &PairServer::pairingComplete);
    std::unique_ptr<ToolConnection> receiver = connectReceiver();
    receiver->takeOnly(100000);
    getApp(9, "ruapp");
    m_tool->send(startTransferRequest());
    QTRY_VERIFY(receiver->socket.bytesAvailable() == 100000);

    receiver->socket.abort();

    const QString archive = m_unit->path("ruapp.tar");
    QTRY_VERIFY(
        m_log->contains(QStringLiteral("pairserver: The receiver left before it had all of \"%1\"").arg(archive)));
    QVERIFY(!QFile::exists(archive));
    QCOMPARE(complete.size(), 1); // the application on disk is a new one, whoever has it
    QVERIFY(!m_log->contains(QStringLiteral("Transfer complete of  \"%1\"").arg(archive)));
    QTRY_COMPARE(openConnections(), 1);
    receiver = connectReceiver();
    const Offer offer = getApp(9, "ruapp");
    m_tool->send(startTransferRequest());
    QTRY_VERIFY((receiver->received(), !receiver->isUp()));
    QCOMPARE(md5(receiver->received()), offer.md5);
}

void TestPairServerTransfers::supersededOfferIsRemoved()
{
    getApp(9, "ruapp");
    QVERIFY(QFile::exists(m_unit->path("ruapp.tar")));

    getApp(9, "rusys");

    QVERIFY(!QFile::exists(m_unit->path("ruapp.tar")));
    QVERIFY(QFile::exists(m_unit->path("rusys.tar")));
}

void TestPairServerTransfers::destructionRemovesWhatWasOffered()
{
    getApp(9, "rusys");
    QVERIFY(QFile::exists(m_unit->path("rusys.tar")));

    m_server.reset();

    QVERIFY(!QFile::exists(m_unit->path("rusys.tar")));
    QTRY_VERIFY(!m_tool->isUp());
}

void TestPairServerTransfers::destructionDuringATransferRemovesTheArchive()
{
    makeLarge("rusys");
    QSignalSpy complete(m_server.get(), &PairServer::pairingComplete);
    const std::unique_ptr<ToolConnection> receiver = connectReceiver();
    receiver->takeOnly(1);
    getApp(9, "rusys");
    m_tool->send(startTransferRequest());
    QTRY_VERIFY(receiver->socket.bytesAvailable() > 0);

    m_server.reset();

    QVERIFY(!QFile::exists(m_unit->path("rusys.tar")));
    QVERIFY(complete.isEmpty());
}

QTEST_GUILESS_MAIN(TestPairServerTransfers)
#include "tst_pairserver_transfers.moc"
