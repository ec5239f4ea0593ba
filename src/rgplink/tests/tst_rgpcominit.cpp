#include "eventually.h"
#include "heldline.h"
#include "hubwithunit.h"
#include "logspy.h"

#include <QSignalSpy>
#include <QtTest>

class TestRGPComInit : public QObject
{
    Q_OBJECT

private slots:
    void init() { m_unit.reset(new BaseUnit); }
    void cleanup() { m_unit.reset(); }

    void initIsJudged_data();
    void initIsJudged();
    void refusedUnitIsServedAllTheSame();
    void initOfAnUnknownUnitGetsNoAnswer();
    void initOverAReplacedLinkGetsNoAnswer();
    void refusalIsLoggedOncePerUnit();
    void checksumIsComparedWhenAnApplicationIsInstalled();
    void unchangedApplicationIsNotHashedForEachInit();
    void firstInitDoesNotWaitForTheHashing();
    void initsOfAUnitThatWaitAreDecidedOnce();
    void configChangedRenewsTheChecksumsInTheBackground();
    void refusalByAnOldListWaitsForTheNewOne();
    void keptPeriodicDataFollowsTheAnswer_data();
    void keptPeriodicDataFollowsTheAnswer();

private:
    QScopedPointer<BaseUnit> m_unit;
};

namespace {

constexpr char Mismatch[] = "Application SW checksum mismatch.";

} // namespace

void TestRGPComInit::initIsJudged_data()
{
    QTest::addColumn<int>("remoteId");
    QTest::addColumn<int>("baseId");
    QTest::addColumn<QByteArray>("answer");

    QTest::newRow("paired, this base unit") << 5 << 0x0405 << initAckPayload(0, "");
    QTest::newRow("second paired unit") << 6 << 0x0405 << initAckPayload(0, "");
    QTest::newRow("not paired") << 7 << 0x0405 << initAckPayload(1, NotPaired);
    QTest::newRow("paired to another base unit") << 5 << 0x0504 << initAckPayload(1, NotPaired);
}

void TestRGPComInit::initIsJudged()
{
    QFETCH(int, remoteId);
    QFETCH(int, baseId);
    QFETCH(QByteArray, answer);
    const auto id = static_cast<quint16>(remoteId);
    Hub h(*m_unit);
    h.hub.addGLink(id, &h.link);

    h.hub.dataFromGLink(id, Init, initPayload(id, static_cast<quint16>(baseId)), &h.link);

    QCOMPARE(h.link.sent.count(InitAck), 1);
    QCOMPARE(h.link.sent.all.size(), 1);
    QCOMPARE(h.link.sent.all.first().remoteId, id);
    QCOMPARE(h.link.sent.all.first().data.toHex(), answer.toHex());
}

void TestRGPComInit::refusedUnitIsServedAllTheSame()
{
    Hub h(*m_unit);
    QSignalSpy commands(&h.hub, &RGPCom::readyReadCmdFromRGP);
    QSignalSpy periodic(&h.hub, &RGPCom::readyReadFromRGP);
    h.hub.dataFromGLink(Unit, Init, initPayload(Unit, 1), &h.link);
    QCOMPARE(h.link.sent.all.size(), 0);
    QCOMPARE(h.link.sent.count(InitAck), 1);
    h.acknowledge();

    h.hub.dataFromGLink(Unit, Command, "c", &h.link);
    h.hub.dataFromGLink(Unit, Periodic, "p", &h.link);
    QCOMPARE(commands.count(), 1);
    QCOMPARE(periodic.count(), 1);
    h.hub.sendToAll(Status, "s");
    QCOMPARE(h.link.sent.texts().last(), QString("8:s"));
}

void TestRGPComInit::initOfAnUnknownUnitGetsNoAnswer()
{
    LogSpy log;
    Hub h(*m_unit);
    h.hub.dataFromGLink(Stranger, Init, initPayload(Stranger, BaseUnit::Identity), &h.link);
    QVERIFY(log.contains("No glink connection, GLINK_MSG_ID_INITACK RU 77"));
    QCOMPARE(h.link.sent.texts(), QStringList());
}

void TestRGPComInit::initOverAReplacedLinkGetsNoAnswer()
{
    Hub h(*m_unit);
    h.join();
    FakeTcpLink current;
    h.hub.addGLink(Unit, &current);
    h.hub.dataFromGLink(Unit, Init, initPayload(Unit, BaseUnit::Identity), &h.link);
    QCOMPARE(current.sent.count(InitAck), 0);
    h.hub.dataFromGLink(Unit, Init, initPayload(Unit, BaseUnit::Identity), &current);
    QCOMPARE(current.sent.count(InitAck), 1);
    QCOMPARE(h.link.sent.count(InitAck), 0);
}

void TestRGPComInit::refusalIsLoggedOncePerUnit()
{
    const QString line = "GLINK_MSG_ID_INITACK RU 5 Error 1 \"This RU is not paired to this BU.\"";
    LogSpy log;
    Hub h(*m_unit);
    for (int i = 0; i < 3; ++i) {
        h.hub.dataFromGLink(Unit, Init, initPayload(Unit, 1), &h.link);
    }
    QCOMPARE(log.count(line), 1);

    h.hub.dataFromGLink(Unit, Init, initPayload(Unit, BaseUnit::Identity), &h.link);
    h.hub.dataFromGLink(Unit, Init, initPayload(Unit, 1), &h.link);
    QCOMPARE(log.count(line), 2);

    h.hub.addGLink(OtherUnit, &h.link);
    h.hub.dataFromGLink(OtherUnit, Init, initPayload(OtherUnit, 1), &h.link);
    h.hub.dataFromGLink(Unit, Init, initPayload(Unit, 1), &h.link);
    QCOMPARE(log.count(line), 3);
}

void TestRGPComInit::checksumIsComparedWhenAnApplicationIsInstalled()
{
    const QByteArray checksum = m_unit->installApplication("Panel { }");
    Hub h(*m_unit);
    h.hub.dataFromGLink(Unit, Init, initPayload(Unit, BaseUnit::Identity, checksum), &h.link);
    h.acknowledge();
    h.hub.dataFromGLink(Unit, Init, initPayload(Unit, BaseUnit::Identity, QByteArray(16, 'x')), &h.link);
    h.acknowledge();
    h.hub.dataFromGLink(Unit, Init, initPayload(Unit, 1, QByteArray(16, 'x')), &h.link);

    QCOMPARE(h.link.sent.count(InitAck), 3);
    QCOMPARE(h.link.sent.all.at(0).data.toHex(), initAckPayload(0, "").toHex());
    QCOMPARE(h.link.sent.all.at(1).data.toHex(), initAckPayload(4, Mismatch).toHex());
    QCOMPARE(h.link.sent.all.at(2).data.toHex(), initAckPayload(1, NotPaired).toHex());
}

// The list must not be hashed in the main thread at each connection; verdicts stay as they are.
void TestRGPComInit::unchangedApplicationIsNotHashedForEachInit()
{
    const QByteArray checksum = m_unit->installApplication(QByteArray(1024 * 1024, 'x'));
    Hub h(*m_unit);
    QByteArray result;
    QVERIFY(h.hub.getAppChecksum(result));
    QCOMPARE(result.toHex(), checksum.toHex());

    const quint64 hashed = ApplicationChecksums::hashCount();
    for (int i = 0; i < 100; ++i) {
        h.hub.dataFromGLink(Unit, Init, initPayload(Unit, BaseUnit::Identity, checksum), &h.link);
        h.acknowledge();
    }
    QCOMPARE(ApplicationChecksums::hashCount(), hashed);
    QCOMPARE(h.link.sent.all.last().data.toHex(), initAckPayload(0, "").toHex());
}

// Machine stops and the relay are served by the same thread as the INIT.
void TestRGPComInit::firstInitDoesNotWaitForTheHashing()
{
    const LogSpy quiet;
    const QByteArray checksum = m_unit->installApplication("Panel { }");
    m_unit->addDevice();
    HeldLine hashing(BaseUnit::DeviceLine);
    Hub h(*m_unit, Hub::Ordered);
    for (int i = 0; i < 3; ++i) {
        h.hub.dataFromGLink(Unit, Init, initPayload(Unit, BaseUnit::Identity, checksum), &h.link);
    }
    h.hub.dataFromGLink(Unit, Command, "served meanwhile", &h.link);
    VERIFY_EVENTUALLY(hashing.isReached());
    QVERIFY(hashing.isHeld()); // all of that before the list is complete
    QCOMPARE(h.link.sent.count(InitAck), 0);

    hashing.release();
    VERIFY_EVENTUALLY(h.link.sent.count(InitAck) >= 1);
    for (const SentMessage& message : qAsConst(h.link.sent.all)) {
        QCOMPARE(message.data.toHex(), initAckPayload(0, "").toHex());
    }
}

// A unit may send INITs as fast as the network carries them while an application is hashed. They must not pile up.
void TestRGPComInit::initsOfAUnitThatWaitAreDecidedOnce()
{
    const LogSpy quiet;
    const QByteArray checksum = m_unit->installApplication("Panel { }");
    m_unit->addDevice();
    HeldLine hashing(BaseUnit::DeviceLine);
    Hub h(*m_unit, Hub::Ordered);
    for (int i = 0; i < 1000; ++i) {
        h.hub.dataFromGLink(Unit, Init, initPayload(Unit, BaseUnit::Identity, QByteArray(16, 'o')), &h.link);
    }
    h.hub.dataFromGLink(Unit, Init, initPayload(Unit, BaseUnit::Identity, checksum), &h.link);
    VERIFY_EVENTUALLY(hashing.isReached());
    QCOMPARE(h.link.sent.count(InitAck), 0);

    hashing.release();
    bool isOver = false;
    const auto list = ApplicationChecksums::request(ApplicationManifest::root());
    ApplicationChecksums::whenReady(list, this, [&](const ApplicationChecksumList&) { isOver = true; });
    VERIFY_EVENTUALLY(isOver);
    QCOMPARE(h.link.sent.count(InitAck), 1);
    QCOMPARE(h.link.sent.all.last().data.toHex(), initAckPayload(0, "").toHex());
}

void TestRGPComInit::configChangedRenewsTheChecksumsInTheBackground()
{
    const QByteArray before = m_unit->installApplication("before");
    Hub h(*m_unit);
    QByteArray result;
    h.hub.getAppChecksum(result);
    QCOMPARE(result.toHex(), before.toHex());

    const LogSpy quiet;
    const QByteArray after = m_unit->installApplication("after pairing");
    m_unit->addDevice();
    HeldLine hashing(BaseUnit::DeviceLine);
    h.hub.configChanged();
    VERIFY_EVENTUALLY(hashing.isReached());
    h.hub.getAppChecksum(result);
    QCOMPARE(result.toHex(), before.toHex());
    hashing.release();
    VERIFY_EVENTUALLY(h.hub.getAppChecksum(result) && result == after);
    QCOMPARE(h.link.sent.texts(), QStringList()); // and nothing else was done
}

// A unit that has got the new application already is not sent away only because the new list is not complete yet.
void TestRGPComInit::refusalByAnOldListWaitsForTheNewOne()
{
    const QByteArray before = m_unit->installApplication("before");
    FakeTcpLink other;
    Hub h(*m_unit);
    const LogSpy quiet;
    const QByteArray after = m_unit->installApplication("after");
    m_unit->addDevice();
    HeldLine hashing(BaseUnit::DeviceLine);
    h.hub.configChanged();

    h.hub.dataFromGLink(Unit, Init, initPayload(Unit, BaseUnit::Identity, after), &h.link);
    QCOMPARE(h.link.sent.count(InitAck), 0);
    h.hub.addGLink(OtherUnit, &other);
    h.hub.dataFromGLink(OtherUnit, Init, initPayload(OtherUnit, BaseUnit::Identity, before), &other);
    QCOMPARE(other.sent.count(InitAck), 1);
    QCOMPARE(other.sent.all.last().data.toHex(), initAckPayload(0, "").toHex()); // accepted at once

    VERIFY_EVENTUALLY(hashing.isReached());
    QCOMPARE(h.link.sent.count(InitAck), 0);
    hashing.release();
    VERIFY_EVENTUALLY(h.link.sent.count(InitAck) == 1);
    QCOMPARE(h.link.sent.all.first().data.toHex(), initAckPayload(0, "").toHex());
    h.acknowledge();
    h.hub.dataFromGLink(Unit, Init, initPayload(Unit, BaseUnit::Identity, before), &h.link);
    QCOMPARE(h.link.sent.count(InitAck), 2);
    QCOMPARE(h.link.sent.all.last().data.toHex(), initAckPayload(4, Mismatch).toHex());
}

void TestRGPComInit::keptPeriodicDataFollowsTheAnswer_data()
{
    QTest::addColumn<bool>("fromEC");
    QTest::addColumn<bool>("fromEG");
    QTest::addColumn<QByteArray>("block");

    QTest::newRow("none kept") << false << false << QByteArray();
    QTest::newRow("from the field bus") << true << false
                                        << QByteArray("\x01"
                                                      "EC");
    QTest::newRow("from the machine controller") << false << true
                                                 << QByteArray("\x00"
                                                               "EG",
                                                               3);
    QTest::newRow("both: the machine controller's") << true << true
                                                    << QByteArray("\x00"
                                                                  "EG",
                                                                  3);
}

void TestRGPComInit::keptPeriodicDataFollowsTheAnswer()
{
    QFETCH(bool, fromEC);
    QFETCH(bool, fromEG);
    QFETCH(QByteArray, block);
    Hub h(*m_unit);
    if (fromEG) {
        h.hub.receivePeriodicFromEGLink("EG");
    }
    if (fromEC) {
        h.hub.receivePeriodicFromECLink("EC");
    }
    QCoreApplication::processEvents();

    h.hub.dataFromGLink(Unit, Init, initPayload(Unit, BaseUnit::Identity), &h.link);
    QCOMPARE(h.link.sent.count(InitAck), 1);
    QCOMPARE(h.link.sent.all.size(), 1);
    h.acknowledge();
    h.acknowledge();
    QCOMPARE(h.link.sent.count(Periodic), block.isEmpty() ? 0 : 1);
    if (!block.isEmpty()) {
        QCOMPARE(h.link.sent.all.at(1).data.toHex(), block.toHex());
    }
}

QTEST_GUILESS_MAIN(TestRGPComInit)
#include "tst_rgpcominit.moc"
