#include "capturedlink.h"
#include "controllerpackets.h"
#include "logspy.h"

#include <QRandomGenerator>
#include <QTest>

namespace {

constexpr quint8 VrpoOnly = 4;
constexpr quint8 Everything = 7;
constexpr quint32 ThreeParts = 3 * 491;

QByteArray withCrc(QByteArray bytes)
{
    CrcStd32::add(bytes);
    return bytes;
}

} // namespace

class TestEGLinkReception : public QObject
{
    Q_OBJECT

private slots:
    void periodicDataFromTheController();
    void partsInAnyOrderAreDeliveredOnce();
    void unchangedPeriodicDataAreNotForwarded();
    void newSetDiscardsTheIncompleteOne();
    void emptyVrpoIsDropped();
    void zeroSizeNeverCompletes();
    void completeSetRestartsTheWatchdog();
    void incompleteSetsDoNotRestartTheWatchdog();
    void missingPeriodicDataGiveLinkErrorAndTimeHeals();

    void droppedDatagrams_data();
    void droppedDatagrams();
    void ownPacketsAreDroppedSilently_data();
    void ownPacketsAreDroppedSilently();
    void controllerOfAnotherOriginDisturbsNothing();
    void seededRandomDatagrams();
    void seededMutationsOfGoodPackets();
};

void TestEGLinkReception::periodicDataFromTheController()
{
    StartedLink link(VrpoOnly);
    const LogSpy log;
    link.handleDatagram(QByteArray::fromHex("5652504f00000000050003000000000000cafe5bbee7ad"));
    QCOMPARE(link.blocks(link.toRgp), QList<QByteArray>{QByteArray::fromHex("cafe")});
    QCOMPARE(link.reported(), (QList<int>{LINK_ERROR, OPERATIONAL}));
    QCOMPARE(log.lines(), QStringList());
}

void TestEGLinkReception::partsInAnyOrderAreDeliveredOnce()
{
    StartedLink link(VrpoOnly, ThreeParts);
    link.handleDatagram(vrpo(1, 0, QByteArray(491, 'a')));
    link.handleDatagram(vrpo(1, 2, "c"));
    QCOMPARE(link.toRgp.count(), 0);
    QCOMPARE(link.reported(), QList<int>{LINK_ERROR});
    link.handleDatagram(vrpo(1, 1, QByteArray(491, 'b')));
    QCOMPARE(link.blocks(link.toRgp), QList<QByteArray>{QByteArray(491, 'a') + QByteArray(491, 'b') + "c"});
}

void TestEGLinkReception::unchangedPeriodicDataAreNotForwarded()
{
    StartedLink link(VrpoOnly);
    link.handleDatagram(vrpo(1, 0, "same"));
    link.handleDatagram(vrpo(2, 0, "same"));
    QCOMPARE(link.toRgp.count(), 1);
    QCOMPARE(link.raised().count(PERIODIC_DATA), 2);
    link.handleDatagram(vrpo(3, 0, "other"));
    link.handleDatagram(vrpo(4, 0, "same"));
    QCOMPARE(link.blocks(link.toRgp), (QList<QByteArray>{"same", "other", "same"}));
}

void TestEGLinkReception::newSetDiscardsTheIncompleteOne()
{
    StartedLink link(VrpoOnly, 600);
    link.handleDatagram(vrpo(1, 0, "old"));
    const LogSpy log;
    link.handleDatagram(vrpo(2, 1, "B"));
    link.handleDatagram(vrpo(2, 0, "A"));
    QCOMPARE(log.lines(QtDebugMsg), QStringList{"Out of sequence partial VRPO received."});
    QCOMPARE(link.blocks(link.toRgp), QList<QByteArray>{"AB"});
}

void TestEGLinkReception::emptyVrpoIsDropped()
{
    StartedLink link(VrpoOnly);
    const LogSpy log;
    link.handleDatagram(ControllerPacket{"VRPO", 1, QByteArray()}.bytes());
    QCOMPARE(log.lines(QtDebugMsg), QStringList{"Empty VRPO received, ignored."});
    QCOMPARE(link.reported(), QList<int>{LINK_ERROR});
}

void TestEGLinkReception::zeroSizeNeverCompletes()
{
    StartedLink link(VrpoOnly, 0);
    const LogSpy log;
    link.handleDatagram(vrpo(1, 0, "x"));
    QCOMPARE(log.lines(QtDebugMsg), QStringList{"Out of range VRPO subpacket index received, ignored. ( 0 )"});
    QCOMPARE(link.toRgp.count(), 0);
    QCOMPARE(link.raised(), QList<int>{CONFIGURE});
}

void TestEGLinkReception::completeSetRestartsTheWatchdog()
{
    EGLinkTuning tuning;
    tuning.vrpoTimeoutMs = 300;
    StartedLink link(VrpoOnly, 10, tuning);
    quint16 serial = 0;
    QTimer controller;
    connect(&controller, &QTimer::timeout, &link, [&] { link.handleDatagram(vrpo(++serial, 0, "steady")); });
    controller.start(30);
    // The watchdog is due behind the controller from now on, however late both are.
    link.handleDatagram(vrpo(++serial, 0, "steady"));
    QTRY_VERIFY(serial > 20); // twice the time-out
    QCOMPARE(link.raised().count(NO_PERIODIC_DATA), 0);
    controller.stop();
    QTRY_VERIFY(link.raised().count(NO_PERIODIC_DATA) >= 1);
}

void TestEGLinkReception::incompleteSetsDoNotRestartTheWatchdog()
{
    EGLinkTuning tuning;
    tuning.vrpoTimeoutMs = 60;
    StartedLink link(VrpoOnly, 600, tuning);
    quint16 serial = 0;
    QTimer controller;
    connect(&controller, &QTimer::timeout, &link, [&] { link.handleDatagram(vrpo(++serial, 0, "torn")); });
    controller.start(10);
    const LogSpy log; // keeps the lines off the terminal
    QTRY_VERIFY(link.raised().count(NO_PERIODIC_DATA) >= 2);
}

void TestEGLinkReception::missingPeriodicDataGiveLinkErrorAndTimeHeals()
{
    EGLinkTuning tuning;
    tuning.recoveryTimeMs = 50;
    StartedLink link(VrpoOnly, 10, tuning);
    link.handleDatagram(vrpo(1, 0, "a"));
    link.periodicDataTimeout();
    link.handleDatagram(vrpo(2, 0, "b"));
    QCOMPARE(link.reported(), (QList<int>{LINK_ERROR, OPERATIONAL, LINK_ERROR}));
    QTRY_COMPARE(link.reported(), (QList<int>{LINK_ERROR, OPERATIONAL, LINK_ERROR, OPERATIONAL}));
}

void TestEGLinkReception::droppedDatagrams_data()
{
    QTest::addColumn<QByteArray>("datagram");
    QTest::addColumn<QStringList>("log");

    const QStringList crcError{"Rx CRC error: packet ignored."};
    const QStringList headerError{"Rx header error: packet ignored."};
    const auto headerErrorAfter = [&](const QString& cause) {
        return QStringList{cause} + headerError;
    };
    const QByteArray good = vrpo(1, 0, "data");
    QByteArray flipped = good;
    flipped[17] = static_cast<char>(flipped.at(17) ^ 0x01);

    QTest::newRow("an empty datagram") << QByteArray() << crcError;
    QTest::newRow("one byte") << QByteArray("V") << crcError;
    QTest::newRow("three bytes") << QByteArray("VRP") << crcError;
    QTest::newRow("a CRC of nothing") << QByteArray::fromHex("ffffffff") << headerError;
    QTest::newRow("less than a header, right CRC") << withCrc("VRPO") << headerError;
    QTest::newRow("one byte less than a header, right CRC") << withCrc(QByteArray(15, '\0')) << headerError;
    QTest::newRow("a packet without its CRC") << good.left(good.size() - 4) << crcError;
    QTest::newRow("a flipped bit") << flipped << crcError;
    QTest::newRow("a flipped bit in a packet of wrong origin")
        << ControllerPacket{"VRPO", 1, "0ab", 1}.bytes().replace(17, 1, "x") << crcError;
    QTest::newRow("513 bytes, all else right") << vrpo(1, 0, QByteArray(492, 'x')) << headerError;
    QTest::newRow("65000 bytes, right CRC") << withCrc(QByteArray(65000, 'x')) << headerError;
    QTest::newRow("65000 bytes, wrong CRC") << QByteArray(65000, 'x') << crcError;
    QTest::newRow("a size field that promises more") << ControllerPacket{"VRPO", 1, "0abc", 0, 0, 400}.bytes()
                                                     << headerErrorAfter("Wrong data size: 400 (should be 4 )");
    QTest::newRow("a size field that promises less") << ControllerPacket{"VRPO", 1, "0abc", 0, 0, 1}.bytes()
                                                     << headerErrorAfter("Wrong data size: 1 (should be 4 )");
    QTest::newRow("a negative size field") << ControllerPacket{"VRPO", 1, "0abc", 0, 0, 0xfffc}.bytes()
                                           << headerErrorAfter("Wrong data size: -4 (should be 4 )");
    QTest::newRow("origin 1") << ControllerPacket{"VRPO", 1, "0abc", 1}.bytes()
                              << headerErrorAfter("Origin not machine controller.");
    QTest::newRow("revision 1") << ControllerPacket{"VRPO", 1, "0abc", 0, 1}.bytes()
                                << headerErrorAfter("Wrong revision.");
    QTest::newRow("unknown type") << ControllerPacket{"VRPX", 1, "0abc"}.bytes()
                                  << headerErrorAfter("Wrong packet type.");
}

void TestEGLinkReception::droppedDatagrams()
{
    QFETCH(QByteArray, datagram);
    QFETCH(QStringList, log);
    StartedLink link(Everything);
    link.forgetSignals();
    {
        const LogSpy spy;
        link.handleDatagram(datagram);
        QCOMPARE(spy.lines(QtDebugMsg), log);
    }
    QCOMPARE(link.toRgp.count() + link.commands.count() + link.events.count() + link.sent.size(), 0);

    link.handleDatagram(vrpo(77, 0, "alive"));
    QCOMPARE(link.blocks(link.toRgp), QList<QByteArray>{"alive"});
}

void TestEGLinkReception::ownPacketsAreDroppedSilently_data()
{
    QTest::addColumn<QByteArray>("type");
    QTest::newRow("VRPI") << QByteArray("VRPI");
    QTest::newRow("VRCI") << QByteArray("VRCI");
    QTest::newRow("VRAI") << QByteArray("VRAI");
}

void TestEGLinkReception::ownPacketsAreDroppedSilently()
{
    QFETCH(QByteArray, type);
    StartedLink link(Everything);
    link.forgetSignals();
    const LogSpy log;
    link.handleDatagram(ControllerPacket{type, 1, QByteArray("\0\0", 2)}.bytes());
    QCOMPARE(log.lines(), QStringList());
    QCOMPARE(link.toRgp.count() + link.commands.count() + link.events.count() + link.sent.size(), 0);

    // With our origin they are no packets of a machine controller, and that is told.
    link.handleDatagram(ControllerPacket{type, 2, QByteArray("\0\0", 2), CapturedLink::BaseId}.bytes());
    QCOMPARE(log.lines(), (QStringList{"Origin not machine controller.", "Rx header error: packet ignored."}));
}

void TestEGLinkReception::controllerOfAnotherOriginDisturbsNothing()
{
    StartedLink link(Everything, 600);
    const LogSpy log;
    link.receiveCmd("stop");
    link.handleDatagram(vrpo(1, 0, "a"));
    link.handleDatagram(ControllerPacket{"VRPO", 9, QByteArray("\1X", 2), 2}.bytes());
    link.handleDatagram(ControllerPacket{"VRAO", 10, QByteArray("\0\0", 2), 2}.bytes());
    link.handleDatagram(ControllerPacket{"VRCO", 11, QByteArray("\0\0\0\0\0\0X", 7), 2}.bytes());
    QVERIFY(link.timerOf(100)->isActive());
    QCOMPARE(link.commands.count(), 0);
    link.handleDatagram(vrpo(1, 1, "b"));
    QCOMPARE(link.blocks(link.toRgp), QList<QByteArray>{"ab"});
    QCOMPARE(log.count("Origin not machine controller."), 3);
}

void TestEGLinkReception::seededRandomDatagrams()
{
    StartedLink link(Everything, ThreeParts);
    const LogSpy log; // keeps the lines off the terminal
    QRandomGenerator random(5825);
    for (int round = 0; round < 20000; ++round) {
        QByteArray datagram(random.bounded(600), '\0');
        for (char& byte : datagram) {
            byte = static_cast<char>(random.generate());
        }
        if (random.bounded(2) == 0) {
            CrcStd32::add(datagram);
        }
        link.handleDatagram(datagram);
    }
    QCOMPARE(link.toRgp.count() + link.commands.count(), 0);
    link.handleDatagram(vrco(1, 1, "alive"));
    QCOMPARE(link.blocks(link.commands), QList<QByteArray>{"alive"});
}

void TestEGLinkReception::seededMutationsOfGoodPackets()
{
    const QList<QByteArray> types{"VRPI", "VRPO", "VRCI", "VRCO", "VRAI", "VRAO"};
    StartedLink link(Everything, ThreeParts);
    const LogSpy log; // keeps the lines off the terminal
    QRandomGenerator random(5827);
    for (int round = 0; round < 50000; ++round) {
        QByteArray payload(random.bounded(12), '\0');
        for (char& byte : payload) {
            byte = static_cast<char>(random.bounded(4));
        }
        ControllerPacket packet{types.at(random.bounded(types.size())), quint16(random.bounded(4)), payload};
        packet.origin = quint16(random.bounded(8) == 0);
        packet.dataSize = random.bounded(8) == 0 ? random.bounded(65536) : -1;
        link.handleDatagram(packet.bytes());
    }
    // Clean packets were among them, and whatever state they left, the link is back in step after at most one command.
    const int before = link.commands.count();
    QVERIFY(before > 0);
    QVERIFY(link.toRgp.count() > 0);
    for (quint16 id = 500; id < 503; ++id) {
        link.handleDatagram(vrco(id, id, "alive"));
    }
    QVERIFY(link.commands.count() >= before + 2);
}

QTEST_GUILESS_MAIN(TestEGLinkReception)
#include "tst_eglinkreception.moc"
