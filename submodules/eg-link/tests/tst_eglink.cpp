#include "capturedlink.h"
#include "controllerpackets.h"
#include "fatalprobe.h"
#include "logspy.h"

#include <QTest>

namespace {

constexpr quint8 VrpiOnly = 1;
constexpr quint8 CommandsOnly = 2;
constexpr quint8 VrpoOnly = 4;
constexpr quint8 Everything = 7;

} // namespace

class TestEGLink : public QObject
{
    Q_OBJECT

private slots:
    void periodicDataTimeoutLines(); // stays first: the counter belongs to the process

    void startLines();
    void startOfEachEmap_data();
    void startOfEachEmap();
    void fixedTimes();
    void slotsBeforeTheStartOnlyStore();
    void emapBeforeTheStartIsTaken();

    void emapSwitchesTheChannels();
    void emapComparesItsLowThreeBits();
    void disabledLinkFallsBackToNotConfigured();
    void switchingPeriodicDataOffForgetsTheIncompleteSet();
    void switchingCommandsOffForgetsThem();
    void reconfigurationForgetsTheSerials();

    void periodicDataToTheController();
    void periodicDataComeEveryPeriod();
    void serialWrapsAndIsCommonToAllTypes();
    void largestPeriodicData();
    void tooLargePeriodicDataAreFatal();

    void failedSendRebuildsTheSocketsOnce();
    void failedSendIsNotRepeated();
    void failedAcknowledgementStillHandsTheCommandOn();
    void statusIsOneByte();
};

void TestEGLink::periodicDataTimeoutLines()
{
    StartedLink link(VrpoOnly);
    const LogSpy log;
    for (int i = 0; i < 22; ++i) {
        link.periodicDataTimeout();
    }
    QCOMPARE(log.lines(QtDebugMsg), (QStringList{"Periodic data timer expired. 2", "Periodic data timer expired. 12",
                                                 "Periodic data timer expired. 22"}));
    QCOMPARE(link.raised().count(NO_PERIODIC_DATA), 22);
}

void TestEGLink::startLines()
{
    CapturedLink link(Everything, 10);
    const LogSpy log;
    link.run();
    const QString started = log.lines(QtDebugMsg).value(0);
    QVERIFY2(started.startsWith("EGLink::run() - thread started 0x"), qPrintable(started));
    QCOMPARE(log.lines().mid(1), QStringList{"StateMachine::StateMachine()"});
    QCOMPARE(link.socketBuilds, 1);
}

void TestEGLink::startOfEachEmap_data()
{
    QTest::addColumn<int>("emap");
    QTest::addColumn<QList<int>>("reports");
    QTest::addColumn<bool>("sendsPeriodic");
    QTest::addColumn<bool>("expectsPeriodic");

    const QList<int> waits{LINK_ERROR};
    const QList<int> worksAtOnce{LINK_ERROR, OPERATIONAL};
    QTest::newRow("0: nothing") << 0 << QList<int>() << false << false;
    QTest::newRow("1: VRPI") << 1 << worksAtOnce << true << false;
    QTest::newRow("2: commands") << 2 << worksAtOnce << false << false;
    QTest::newRow("3: VRPI and commands") << 3 << worksAtOnce << true << false;
    QTest::newRow("4: VRPO") << 4 << waits << false << true;
    QTest::newRow("5: VRPI and VRPO") << 5 << waits << true << true;
    QTest::newRow("6: commands and VRPO") << 6 << waits << false << true;
    QTest::newRow("7: everything") << 7 << waits << true << true;
    QTest::newRow("8: a bit that does not count") << 8 << QList<int>() << false << false;
}

void TestEGLink::startOfEachEmap()
{
    QFETCH(int, emap);
    QFETCH(QList<int>, reports);
    QFETCH(bool, sendsPeriodic);
    QFETCH(bool, expectsPeriodic);

    StartedLink link(quint8(emap), 10);
    QCOMPARE(link.reported(), reports);
    QCOMPARE(link.timerOf(250)->isActive(), sendsPeriodic);
    QCOMPARE(link.timerOf(2000)->isActive(), expectsPeriodic);
    QCOMPARE(link.timerOf(100)->isActive(), false);

    link.receiveCmd("x");
    QCOMPARE(link.sent.size(), (emap & 2) != 0 ? 1 : 0);
    link.handleDatagram(vrco(1, 0, "y"));
    QCOMPARE(link.commands.count(), (emap & 2) != 0 ? 1 : 0);
    link.handleDatagram(vrpo(2, 0, "z"));
    QCOMPARE(link.toRgp.count(), (emap & 4) != 0 ? 1 : 0);
}

void TestEGLink::fixedTimes()
{
    const EGLinkTuning tuning;
    QCOMPARE(tuning.interfaceName, QString("eth0"));
    QCOMPARE(tuning.vrpiPeriodMs, 250);
    QCOMPARE(tuning.vrpoTimeoutMs, 2000);
    QCOMPARE(int(tuning.recoveryTimeMs), 5000);
}

void TestEGLink::slotsBeforeTheStartOnlyStore()
{
    CapturedLink link(Everything, 10);
    link.receiveFromRGP("data");
    link.receiveCmd("command");
    link.readPendingDatagrams();
    QCOMPARE(link.sent.size(), 0);

    link.run();
    link.sendVRPIMessage();
    QCOMPARE(link.sent.value(0).mid(16, 4), QByteArray("data"));
}

void TestEGLink::emapBeforeTheStartIsTaken()
{
    CapturedLink link(Everything, 10);
    link.setEmap(CommandsOnly);
    QCOMPARE(link.events.count(), 0);
    link.run();
    QCOMPARE(link.raised(), (QList<int>{CONFIGURE, CONFIGURE_NO_VRPO}));
}

void TestEGLink::emapSwitchesTheChannels()
{
    StartedLink link(0);
    link.setEmap(Everything);
    QVERIFY(link.timerOf(250)->isActive());
    QVERIFY(link.timerOf(2000)->isActive());
    link.setEmap(CommandsOnly);
    QVERIFY(!link.timerOf(250)->isActive());
    QVERIFY(!link.timerOf(2000)->isActive());
    link.setEmap(VrpiOnly);
    QVERIFY(link.timerOf(250)->isActive());
    link.receiveCmd("x");
    link.handleDatagram(vrco(1, 0, "y"));
    link.handleDatagram(vrpo(2, 0, "z"));
    QCOMPARE(link.sent.size(), 0);
    QCOMPARE(link.commands.count() + link.toRgp.count(), 0);
}

void TestEGLink::emapComparesItsLowThreeBits()
{
    StartedLink link(CommandsOnly);
    link.forgetSignals();
    link.setEmap(0xf8 | CommandsOnly);
    QCOMPARE(link.raised(), QList<int>{CONFIGURE_NO_VRPO});
    link.setEmap(0xf8);
    QCOMPARE(link.raised(), (QList<int>{CONFIGURE_NO_VRPO, DISABLE, CONFIGURE_NO_VRPO}));
    QCOMPARE(link.reported(), QList<int>{NOT_CONFIGURED});
}

void TestEGLink::disabledLinkFallsBackToNotConfigured()
{
    StartedLink link(Everything);
    link.setEmap(0);
    link.setEmap(Everything);
    QCOMPARE(link.reported(), (QList<int>{LINK_ERROR, NOT_CONFIGURED, LINK_ERROR}));
    link.handleDatagram(vrpo(1, 0, "a"));
    QCOMPARE(link.reported(), (QList<int>{LINK_ERROR, NOT_CONFIGURED, LINK_ERROR, OPERATIONAL}));
}

void TestEGLink::switchingPeriodicDataOffForgetsTheIncompleteSet()
{
    StartedLink link(Everything, 600);
    link.handleDatagram(vrpo(1, 0, "stale"));
    link.receiveFromRGP("outgoing");
    link.setEmap(CommandsOnly);
    link.setEmap(Everything);

    link.handleDatagram(vrpo(1, 1, "b"));
    QCOMPARE(link.toRgp.count(), 0);
    link.handleDatagram(vrpo(1, 0, "a"));
    QCOMPARE(link.blocks(link.toRgp), QList<QByteArray>{"ab"});

    link.sendVRPIMessage();
    QCOMPARE(link.sent.last().size(), 20); // the data of before were forgotten, too
}

void TestEGLink::switchingCommandsOffForgetsThem()
{
    StartedLink link(Everything);
    link.receiveCmd("first");
    link.receiveCmd("second");
    link.handleDatagram(vrco(1, 40, "x"));
    link.setEmap(VrpiOnly);
    QVERIFY(!link.timerOf(100)->isActive());
    link.setEmap(Everything);
    link.sent.clear();
    link.forgetSignals();

    for (int tick = 1; tick <= 20; ++tick) {
        link.resendVRCIMessage();
    }
    QCOMPARE(link.sent.size(), 0);
    QCOMPARE(link.raised(), QList<int>());
    link.receiveCmd("third");
    QCOMPARE(link.sent.value(0).mid(16, 6).toHex(), QByteArray("000000000000")); // ids begin with 0 again
    link.handleDatagram(vrco(2, 77, "y"));                                       // and so any id of theirs is accepted
    QCOMPARE(link.blocks(link.commands), (QList<QByteArray>{"x", "y"}));
}

void TestEGLink::reconfigurationForgetsTheSerials()
{
    StartedLink link(Everything);
    link.handleDatagram(vrao(9, 0));
    link.setEmap(0);
    link.setEmap(Everything);
    const LogSpy log;
    link.handleDatagram(vrao(9, 0));
    QCOMPARE(log.lines(), QStringList());
    link.handleDatagram(vrao(9, 0));
    QCOMPARE(log.count("Sequence number error."), 1);
}

void TestEGLink::periodicDataToTheController()
{
    StartedLink link(VrpiOnly);
    const LogSpy log;
    link.sendVRPIMessage();
    link.receiveFromRGP(QByteArray::fromHex("112233"));
    link.sendVRPIMessage();
    QCOMPARE(link.sent.value(0).toHex(), QByteArray("565250490000341200000000000000006cd4f6a7"));
    QCOMPARE(link.sent.value(1).toHex(), QByteArray("5652504900003412010003000000000011223348063ab5"));
    QCOMPARE(log.lines(), QStringList());
}

void TestEGLink::periodicDataComeEveryPeriod()
{
    EGLinkTuning tuning;
    tuning.vrpiPeriodMs = 10;
    StartedLink link(3, 10, tuning);
    QTRY_VERIFY(link.sent.size() >= 3);
    link.setEmap(CommandsOnly);
    const int sent = link.sent.size();
    QTest::qWait(50); // five periods in which nothing may be sent
    QCOMPARE(link.sent.size(), sent);
}

void TestEGLink::serialWrapsAndIsCommonToAllTypes()
{
    StartedLink link(Everything);
    for (int i = 0; i < 65535; ++i) {
        link.sendVRPIMessage();
        link.sent.clear();
    }
    link.sendVRPIMessage();
    QCOMPARE(link.sent.value(0).toHex(), QByteArray("5652504900003412ffff00000000000007e6488a"));
    link.receiveCmd(QByteArray::fromHex("c0ffee"));
    QCOMPARE(link.sent.value(1).mid(8, 2).toHex(), QByteArray("0000"));
    link.handleDatagram(vrco(1, 0, "x"));
    QCOMPARE(link.sent.value(2).mid(8, 2).toHex(), QByteArray("0100"));
}

void TestEGLink::largestPeriodicData()
{
    StartedLink link(VrpiOnly);
    link.receiveFromRGP(QByteArray(492, 'p'));
    link.sendVRPIMessage();
    QCOMPARE(link.sent.value(0).size(), 512);
    QCOMPARE(link.sent.value(0).mid(10, 2).toHex(), QByteArray("ec01"));
}

void TestEGLink::tooLargePeriodicDataAreFatal()
{
    constexpr unsigned int line = 103;
    StartedLink link(VrpiOnly);
    VERIFY_FATAL("submodules/eg-link/src/eglink", line, link.receiveFromRGP(QByteArray(493, 'p')));
    const FatalOutcome outcome = outcomeOf([&link] { link.receiveFromRGP(QByteArray(493, 'p')); });
    QVERIFY2(outcome.log.startsWith("Packet payload too large.\n"), qPrintable(outcome.log));
}

void TestEGLink::failedSendRebuildsTheSocketsOnce()
{
    StartedLink link(Everything);
    link.networkWorks = false;
    link.sendVRPIMessage();
    QCOMPARE(link.socketBuilds, 2); // the first at the start
    link.receiveCmd("stop");
    QCOMPARE(link.socketBuilds, 3);
    link.resendVRCIMessage();
    QCOMPARE(link.socketBuilds, 4);
    link.networkWorks = true;
    link.resendVRCIMessage();
    QCOMPARE(link.socketBuilds, 4);
    QCOMPARE(link.sent.size(), 1);
}

void TestEGLink::failedSendIsNotRepeated()
{
    StartedLink link(VrpiOnly);
    link.networkWorks = false;
    link.sendVRPIMessage();
    link.networkWorks = true;
    link.sendVRPIMessage();
    QCOMPARE(link.sent.size(), 1);
    QCOMPARE(link.sent.value(0).mid(8, 2).toHex(), QByteArray("0100")); // the serial of the lost one is spent
}

void TestEGLink::failedAcknowledgementStillHandsTheCommandOn()
{
    StartedLink link(CommandsOnly);
    link.networkWorks = false;
    link.handleDatagram(vrco(1, 5, "a"));
    QCOMPARE(link.blocks(link.commands), QList<QByteArray>{"a"});
    QCOMPARE(link.socketBuilds, 2);
}

void TestEGLink::statusIsOneByte()
{
    StartedLink link(0);
    link.setEGLinkStatus(LINK_ERROR_INITIAL); // never reported by the machine; shows the truncation
    QCOMPARE(link.reported(), QList<int>{18});
}

QTEST_GUILESS_MAIN(TestEGLink)
#include "tst_eglink.moc"
