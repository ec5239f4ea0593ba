#include "capturedlink.h"
#include "controllerpackets.h"
#include "logspy.h"

#include <QTest>

namespace {

constexpr quint8 VrpiOnly = 1;
constexpr quint8 CommandsOnly = 2;
constexpr quint8 Everything = 7;

} // namespace

class TestEGLinkCommands : public QObject
{
    Q_OBJECT

private slots:
    void commandOnTheWire();
    void commandIsSentTwentyTimesAndGivenUp();
    void resendsComeByThemselves();
    void stoppedTimerRepeatsNothing();
    void acknowledgedCommandIsNotRepeated();
    void wrongAcknowledgementKeepsTheCommandGoing();
    void acknowledgementAfterTheTimeout();
    void newerCommandAbandonsTheOlder();
    void emptyCommandIsNeverSent();
    void commandOfEveryAllowedSize();
    void commandWithDisabledChannelIsNotSent();
    void commandStoredWhileTheChannelWasOffLeavesWithTheNextTick();
    void commandIdsAreUnsigned();

    void commandFromTheController();
    void shortCommandsFromTheController_data();
    void shortCommandsFromTheController();
    void repeatedCommandIdResynchronises();
    void sameCommandDatagramTwice();
    void commandIdsWrap();
    void shortAcknowledgementIsDropped();
};

void TestEGLinkCommands::commandOnTheWire()
{
    StartedLink link(CommandsOnly);
    const LogSpy log;
    link.receiveCmd(QByteArray::fromHex("c0ffee"));
    link.receiveCmd(QByteArray::fromHex("0102"));
    QCOMPARE(link.sent.value(0).toHex(), QByteArray("56524349000034120000090000000000000000000000c0ffeeca8b8299"));
    QCOMPARE(link.sent.value(1).toHex(), QByteArray("565243490000341201000800000000000100000000000102b4d0a2f1"));
    QCOMPARE(link.sent.size(), 2);
    QCOMPARE(log.lines(QtDebugMsg).size(), 2);
    QCOMPARE(log.lines().value(1),
             QString(R"(EGLink::send() 28 "VRCI\x00\x00""4\x12\x01\x00\b\x00\x00\x00\x00\x00\x01\x00)"
                     R"(\x00\x00\x00\x00\x01\x02\xB4\xD0\xA2\xF1")"));
}

void TestEGLinkCommands::commandIsSentTwentyTimesAndGivenUp()
{
    StartedLink link(CommandsOnly);
    link.forgetSignals();
    link.receiveCmd("stop");
    for (int tick = 1; tick <= 19; ++tick) {
        link.resendVRCIMessage();
    }
    QCOMPARE(link.sent.size(), 20);
    QCOMPARE(link.sent.count(link.sent.first()), 20); // serial and id included
    QCOMPARE(link.raised(), QList<int>());

    const LogSpy log;
    link.resendVRCIMessage();
    QCOMPARE(log.lines(QtDebugMsg),
             (QStringList{"EGLink::resendVRCIMessage(): 2000 ms.", "No VRAO for 2000  ms, timeout. Timer stopped."}));
    QCOMPARE(link.sent.size(), 20);
    QCOMPARE(link.raised(), QList<int>{CMD_ACK_FAILURE});
    QCOMPARE(link.reported(), QList<int>{LINK_ERROR});
    QVERIFY(!link.timerOf(100)->isActive());
}

void TestEGLinkCommands::resendsComeByThemselves()
{
    StartedLink link(CommandsOnly);
    const LogSpy log;
    link.receiveCmd("stop");
    QTRY_VERIFY(link.sent.size() >= 3);
    QCOMPARE(log.count("EGLink::resendVRCIMessage(): 100 ms."), 1);
    QCOMPARE(log.count("EGLink::resendVRCIMessage(): 200 ms."), 1);
}

void TestEGLinkCommands::stoppedTimerRepeatsNothing()
{
    StartedLink link(CommandsOnly);
    link.receiveCmd("stop");
    link.timerOf(100)->stop();
    link.resendVRCIMessage();
    QCOMPARE(link.sent.size(), 1);
}

void TestEGLinkCommands::acknowledgedCommandIsNotRepeated()
{
    StartedLink link(CommandsOnly);
    link.forgetSignals();
    link.receiveCmd("stop");
    link.resendVRCIMessage();
    link.handleDatagram(vrao(1, 0));
    QVERIFY(!link.timerOf(100)->isActive());
    for (int tick = 1; tick <= 20; ++tick) {
        link.resendVRCIMessage(); // as a tick would that was under way when the acknowledgement came
    }
    QCOMPARE(link.sent.size(), 2);
    QCOMPARE(link.raised(), QList<int>());

    link.handleDatagram(vrao(2, 0)); // the answer to the repetition
    QCOMPARE(link.raised(), QList<int>());
}

void TestEGLinkCommands::wrongAcknowledgementKeepsTheCommandGoing()
{
    StartedLink link(CommandsOnly);
    link.forgetSignals();
    link.receiveCmd("stop");
    const LogSpy log;
    link.handleDatagram(vrao(1, 65535));
    QCOMPARE(log.lines(QtDebugMsg), QStringList{"VRAO: expected id 0 , got 65535"});
    QCOMPARE(link.raised(), QList<int>{CMD_ACK_FAILURE});
    QVERIFY(link.timerOf(100)->isActive());
    link.resendVRCIMessage();
    QCOMPARE(link.sent.size(), 2);
    link.handleDatagram(vrao(2, 0));
    QVERIFY(!link.timerOf(100)->isActive());
    QCOMPARE(link.raised(), QList<int>{CMD_ACK_FAILURE});
}

void TestEGLinkCommands::acknowledgementAfterTheTimeout()
{
    StartedLink link(CommandsOnly);
    link.receiveCmd("stop");
    for (int tick = 1; tick <= 20; ++tick) {
        link.resendVRCIMessage();
    }
    link.forgetSignals();
    link.handleDatagram(vrao(1, 0));
    QCOMPARE(link.raised(), QList<int>());
    link.receiveCmd("go");
    QCOMPARE(link.sent.last().mid(16, 2).toHex(), QByteArray("0100"));
}

void TestEGLinkCommands::newerCommandAbandonsTheOlder()
{
    StartedLink link(CommandsOnly);
    link.receiveCmd("first");
    for (int tick = 1; tick <= 15; ++tick) {
        link.resendVRCIMessage();
    }
    link.receiveCmd("second");
    link.sent.clear();
    const LogSpy log;
    link.resendVRCIMessage();
    QCOMPARE(log.lines().value(0), QString("EGLink::resendVRCIMessage(): 100 ms.")); // time begins anew
    QCOMPARE(link.sent.value(0).mid(22, 6), QByteArray("second"));

    link.forgetSignals();
    link.handleDatagram(vrao(1, 0)); // too late: the first command is not waited for any more
    QCOMPARE(link.raised(), QList<int>{CMD_ACK_FAILURE});
    link.handleDatagram(vrao(2, 1));
    QVERIFY(!link.timerOf(100)->isActive());
}

void TestEGLinkCommands::emptyCommandIsNeverSent()
{
    StartedLink link(CommandsOnly);
    link.receiveCmd(QByteArray());
    QCOMPARE(link.sent.size(), 0);
    QVERIFY(!link.timerOf(100)->isActive());
}

void TestEGLinkCommands::commandOfEveryAllowedSize()
{
    StartedLink link(CommandsOnly);
    link.receiveCmd(QByteArray(486, 'c'));
    QCOMPARE(link.sent.value(0).size(), 512);

    const LogSpy log;
    link.receiveCmd(QByteArray(487, 'c'));
    QCOMPARE(link.sent.size(), 1);
    QCOMPARE(log.lines(QtDebugMsg), QStringList{"Command too large for the machine controller, ignored. ( 487 )"});
}

void TestEGLinkCommands::commandWithDisabledChannelIsNotSent()
{
    StartedLink link(VrpiOnly);
    link.receiveCmd("stop");
    QCOMPARE(link.sent.size(), 0);
    link.setEmap(Everything);
    QCOMPARE(link.sent.size(), 0);
    link.receiveCmd("go");
    QCOMPARE(link.sent.size(), 1);
    QCOMPARE(link.sent.value(0).mid(22, 2), QByteArray("go"));
}

void TestEGLinkCommands::commandStoredWhileTheChannelWasOffLeavesWithTheNextTick()
{
    StartedLink link(VrpiOnly);
    link.receiveCmd("older");
    link.receiveCmd("late");
    link.setEmap(Everything);
    link.resendVRCIMessage();
    QCOMPARE(link.sent.size(), 1);
    QCOMPARE(link.sent.value(0).mid(16, 10).toHex(), QByteArray("0000000000006c617465"));
    link.resendVRCIMessage();
    QCOMPARE(link.sent.value(1), link.sent.value(0)); // from then on it is repeated like any other
}

void TestEGLinkCommands::commandIdsAreUnsigned()
{
    StartedLink link(CommandsOnly);
    const LogSpy log; // 32768 lines stay off the terminal
    for (int id = 0; id < 32768; ++id) {
        link.receiveCmd("c");
    }
    link.receiveCmd("c");
    QCOMPARE(link.sent.last().mid(16, 2).toHex(), QByteArray("0080"));
    link.handleDatagram(vrao(1, 32767));
    QVERIFY(log.contains("VRAO: expected id 32768 , got 32767"));
    link.handleDatagram(vrao(2, 32768));
    QVERIFY(!link.timerOf(100)->isActive());
}

void TestEGLinkCommands::commandFromTheController()
{
    StartedLink link(CommandsOnly);
    const LogSpy log;
    link.handleDatagram(QByteArray::fromHex("5652434f000000000100080000000000070000000000aabb326ff92d"));
    QCOMPARE(link.blocks(link.commands), QList<QByteArray>{QByteArray::fromHex("aabb")});
    link.handleDatagram(vrco(2, 8, "next"));
    QCOMPARE(link.sent.size(), 2);
    QCOMPARE(link.sent.value(0).left(18).toHex(), QByteArray("565241490000341200000200000000000700"));
    QCOMPARE(link.sent.value(1).left(18).toHex(), QByteArray("565241490000341201000200000000000800"));
    QCOMPARE(log.lines(), QStringList());
}

void TestEGLinkCommands::shortCommandsFromTheController_data()
{
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<bool>("acknowledged");
    QTest::addColumn<QStringList>("log");
    QTest::newRow("nothing") << QByteArray() << false << QStringList{"VRCO payload too short, ignored. ( 0 )"};
    QTest::newRow("half an id") << QByteArray("1") << false << QStringList{"VRCO payload too short, ignored. ( 1 )"};
    QTest::newRow("an id alone is an empty command") << QByteArray("12") << true << QStringList();
    QTest::newRow("three bytes are an empty command") << QByteArray("123") << true << QStringList();
    QTest::newRow("five bytes are an empty command") << QByteArray("12345") << true << QStringList();
    QTest::newRow("six bytes are an empty command") << QByteArray("123456") << true << QStringList();
}

void TestEGLinkCommands::shortCommandsFromTheController()
{
    QFETCH(QByteArray, payload);
    QFETCH(bool, acknowledged);
    QFETCH(QStringList, log);
    StartedLink link(CommandsOnly);
    const LogSpy spy;
    link.handleDatagram(ControllerPacket{"VRCO", 1, payload}.bytes());
    QCOMPARE(link.blocks(link.commands), acknowledged ? QList<QByteArray>{QByteArray()} : QList<QByteArray>());
    QCOMPARE(link.sent.size(), acknowledged ? 1 : 0);
    QCOMPARE(spy.lines(QtDebugMsg), log);
}

void TestEGLinkCommands::repeatedCommandIdResynchronises()
{
    StartedLink link(CommandsOnly);
    link.handleDatagram(vrco(1, 5, "a"));
    const LogSpy log;
    link.handleDatagram(vrco(2, 5, "b"));
    QCOMPARE(log.lines(QtDebugMsg), QStringList{"Unexpected VRCO command id 6 got 5"});
    QCOMPARE(link.sent.size(), 1);
    link.handleDatagram(vrco(3, 900, "c"));
    QCOMPARE(link.blocks(link.commands), (QList<QByteArray>{"a", "c"}));
    link.handleDatagram(vrco(4, 900, "d")); // in step again, so the id counts again
    QCOMPARE(link.commands.count(), 2);
}

void TestEGLinkCommands::sameCommandDatagramTwice()
{
    StartedLink link(CommandsOnly);
    const QByteArray datagram = vrco(3, 5, "a");
    link.handleDatagram(datagram);
    const LogSpy log;
    link.handleDatagram(datagram);
    QCOMPARE(log.lines(QtDebugMsg),
             (QStringList{"Packet serial: 3 Prev: 3 Prev VRPO0: 2 Packet type: \"VRCO\" data[0]: 5",
                          "Sequence number error.", "Unexpected VRCO command id 6 got 5"}));
    QCOMPARE(link.commands.count(), 1);
}

void TestEGLinkCommands::commandIdsWrap()
{
    StartedLink link(CommandsOnly);
    const LogSpy log;
    link.handleDatagram(vrco(65534, 32767, "a"));
    link.handleDatagram(vrco(65535, 32768, "b"));
    link.handleDatagram(vrco(0, 60000, "dropped"));
    link.handleDatagram(vrco(1, 65535, "c"));
    link.handleDatagram(vrco(2, 0, "d"));
    QCOMPARE(link.blocks(link.commands), (QList<QByteArray>{"a", "b", "c", "d"}));
    QCOMPARE(log.lines(), QStringList{"Unexpected VRCO command id 32769 got 60000"});
}

void TestEGLinkCommands::shortAcknowledgementIsDropped()
{
    StartedLink link(CommandsOnly);
    link.receiveCmd("stop");
    link.forgetSignals();
    const LogSpy log;
    link.handleDatagram(ControllerPacket{"VRAO", 1, QByteArray(1, '\0')}.bytes());
    QCOMPARE(log.lines(QtDebugMsg), QStringList{"VRAO payload too short, ignored. ( 1 )"});
    QCOMPARE(link.raised(), QList<int>());
    QVERIFY(link.timerOf(100)->isActive());
}

QTEST_GUILESS_MAIN(TestEGLinkCommands)
#include "tst_eglinkcommands.moc"
