#include "controllerpackets.h"
#include "eglinkheadercheck.h"
#include "eglinkpacket.h"
#include "logspy.h"

#include <QRandomGenerator>
#include <QTest>

using namespace EGLinkPacket;

Q_DECLARE_METATYPE(EGLinkPacket::Type)

class TestEGLinkPacket : public QObject
{
    Q_OBJECT

private slots:
    void builtHeader_data();
    void builtHeader();
    void builtPayloads();
    void parsedHeader();
    void namesOfTypes_data();
    void namesOfTypes();

    void checkedHeader_data();
    void checkedHeader();
    void sparesAreIgnored();
    void payloadAndSerialRemain();
    void everyFaultOfAPacketIsTold();
    void packetsThatCannotBeOnes_data();
    void packetsThatCannotBeOnes();
    void largestPacketPasses();

    void sequence_data();
    void sequence();
    void sequenceLineTellsAllThereIs();
    void sequenceLineOfAnEmptyPayload();
    void faultyPacketsCountForTheSequence();
    void impossiblePacketsDoNotCountForTheSequence();
    void restartForgetsTheSerials();

    void seededRandomHeadersNeverPassByChance();
};

void TestEGLinkPacket::builtHeader_data()
{
    QTest::addColumn<EGLinkPacket::Type>("type");
    QTest::addColumn<int>("origin");
    QTest::addColumn<int>("serial");
    QTest::addColumn<int>("dataSize");
    QTest::addColumn<QByteArray>("bytes");

    QTest::newRow("periodic data") << Type::Vrpi << 0x1234 << 0 << 0
                                   << QByteArray::fromHex("56525049 0000 3412 0000 0000 00000000");
    QTest::newRow("command") << Type::Vrci << 1 << 0x0201 << 492
                             << QByteArray::fromHex("56524349 0000 0100 0102 ec01 00000000");
    QTest::newRow("acknowledgement") << Type::Vrai << 0xfffe << 0xffff << 2
                                     << QByteArray::fromHex("56524149 0000 feff ffff 0200 00000000");
}

void TestEGLinkPacket::builtHeader()
{
    QFETCH(EGLinkPacket::Type, type);
    QFETCH(int, origin);
    QFETCH(int, serial);
    QFETCH(int, dataSize);
    QFETCH(QByteArray, bytes);
    QCOMPARE(header(type, quint16(origin), quint16(serial), dataSize).toHex(), bytes.toHex());
}

void TestEGLinkPacket::builtPayloads()
{
    QCOMPARE(commandPayload(0xfedc, QByteArray::fromHex("c0ffee")).toHex(), QByteArray("dcfe00000000c0ffee"));
    QCOMPARE(commandPayload(1, QByteArray()).toHex(), QByteArray("010000000000"));
    QCOMPARE(acknowledgementPayload(0x8001).toHex(), QByteArray("0180"));
    QCOMPARE(commandIdOf(QByteArray::fromHex("0180")), quint16(0x8001));
}

void TestEGLinkPacket::parsedHeader()
{
    const Header parsed = parseHeader(QByteArray::fromHex("5652434f 0180 feff 0080 ffff 11223344 aa"));
    QCOMPARE(parsed.type, Type::Vrco);
    QCOMPARE(parsed.revision, quint16(0x8001));
    QCOMPARE(parsed.origin, quint16(0xfffe));
    QCOMPARE(parsed.serial, quint16(32768));
    QCOMPARE(parsed.dataSize, qint16(-1));
}

void TestEGLinkPacket::namesOfTypes_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<EGLinkPacket::Type>("type");
    QTest::newRow("VRPI") << QByteArray("VRPI") << Type::Vrpi;
    QTest::newRow("VRPO") << QByteArray("VRPO") << Type::Vrpo;
    QTest::newRow("VRCI") << QByteArray("VRCI") << Type::Vrci;
    QTest::newRow("VRCO") << QByteArray("VRCO") << Type::Vrco;
    QTest::newRow("VRAI") << QByteArray("VRAI") << Type::Vrai;
    QTest::newRow("VRAO") << QByteArray("VRAO") << Type::Vrao;
    QTest::newRow("lower case") << QByteArray("vrpo") << Type::None;
    QTest::newRow("zero bytes") << QByteArray(4, '\0') << Type::None;
    QTest::newRow("a name and a zero byte") << QByteArray("VRP\0", 4) << Type::None;
    QTest::newRow("the name of no type") << QByteArray("NONE") << Type::None;
}

void TestEGLinkPacket::namesOfTypes()
{
    QFETCH(QByteArray, name);
    QFETCH(EGLinkPacket::Type, type);
    QCOMPARE(typeOf(name), type);
    QCOMPARE(nameOf(type), type == Type::None ? QByteArray("NONE") : name);
}

void TestEGLinkPacket::checkedHeader_data()
{
    QTest::addColumn<QByteArray>("packet");
    QTest::addColumn<EGLinkPacket::Type>("type");
    QTest::addColumn<QStringList>("log");

    const QByteArray payload = QByteArray::fromHex("0011");
    QTest::newRow("clean VRPO") << ControllerPacket{"VRPO", 7, payload}.withoutCrc() << Type::Vrpo << QStringList();
    QTest::newRow("clean VRCO") << ControllerPacket{"VRCO", 7, payload}.withoutCrc() << Type::Vrco << QStringList();
    QTest::newRow("clean VRAO") << ControllerPacket{"VRAO", 7, payload}.withoutCrc() << Type::Vrao << QStringList();
    QTest::newRow("clean VRPI, one of our own types")
        << ControllerPacket{"VRPI", 7, payload}.withoutCrc() << Type::Vrpi << QStringList();
    QTest::newRow("no payload at all") << ControllerPacket{"VRPO", 7, {}}.withoutCrc() << Type::Vrpo << QStringList();
    QTest::newRow("unknown type") << ControllerPacket{"VRXX", 7, payload}.withoutCrc() << Type::None
                                  << QStringList{"Wrong packet type."};
    QTest::newRow("revision 1") << ControllerPacket{"VRPO", 7, payload, 0, 1}.withoutCrc() << Type::None
                                << QStringList{"Wrong revision."};
    QTest::newRow("revision in the high byte")
        << ControllerPacket{"VRPO", 7, payload, 0, 0x0100}.withoutCrc() << Type::None << QStringList{"Wrong revision."};
    QTest::newRow("origin 1") << ControllerPacket{"VRPO", 7, payload, 1}.withoutCrc() << Type::None
                              << QStringList{"Origin not machine controller."};
    QTest::newRow("size too large") << ControllerPacket{"VRPO", 7, payload, 0, 0, 3}.withoutCrc() << Type::None
                                    << QStringList{"Wrong data size: 3 (should be 2 )"};
    QTest::newRow("size too small") << ControllerPacket{"VRPO", 7, payload, 0, 0, 0}.withoutCrc() << Type::None
                                    << QStringList{"Wrong data size: 0 (should be 2 )"};
    QTest::newRow("negative size") << ControllerPacket{"VRPO", 7, payload, 0, 0, 0xffff}.withoutCrc() << Type::None
                                   << QStringList{"Wrong data size: -1 (should be 2 )"};
    QTest::newRow("size right modulo 65536 only")
        << ControllerPacket{"VRPO", 7, payload, 0, 0, 0x8002}.withoutCrc() << Type::None
        << QStringList{"Wrong data size: -32766 (should be 2 )"};
}

void TestEGLinkPacket::checkedHeader()
{
    QFETCH(QByteArray, packet);
    QFETCH(EGLinkPacket::Type, type);
    QFETCH(QStringList, log);

    EGLinkHeaderCheck check;
    quint16 serial = 0;
    const LogSpy spy;
    QCOMPARE(check.checkAndRemoveHeader(packet, serial), type);
    QCOMPARE(spy.lines(QtDebugMsg), log);
    QCOMPARE(spy.lines().size(), log.size());
}

void TestEGLinkPacket::sparesAreIgnored()
{
    EGLinkHeaderCheck check;
    QByteArray packet =
        ControllerPacket{"VRAO", 1, QByteArray::fromHex("0000"), 0, 0, -1, QByteArray::fromHex("deadbeef")}
            .withoutCrc();
    quint16 serial = 0;
    QCOMPARE(check.checkAndRemoveHeader(packet, serial), Type::Vrao);
}

void TestEGLinkPacket::payloadAndSerialRemain()
{
    EGLinkHeaderCheck check;
    QByteArray packet = QByteArray::fromHex("5652504f 0000 0000 0180 0300 00000000 01cafe");
    quint16 serial = 0;
    QCOMPARE(check.checkAndRemoveHeader(packet, serial), Type::Vrpo);
    QCOMPARE(serial, quint16(32769));
    QCOMPARE(packet.toHex(), QByteArray("01cafe"));
}

void TestEGLinkPacket::everyFaultOfAPacketIsTold()
{
    EGLinkHeaderCheck check;
    QByteArray first = ControllerPacket{"VRCO", 9, {}}.withoutCrc();
    quint16 serial = 0;
    check.checkAndRemoveHeader(first, serial);

    QByteArray packet = ControllerPacket{"????", 9, QByteArray::fromHex("ab"), 5, 6, 7}.withoutCrc();
    const LogSpy log;
    QCOMPARE(check.checkAndRemoveHeader(packet, serial), Type::None);
    QCOMPARE(log.lines(QtDebugMsg),
             (QStringList{"Wrong packet type.", "Wrong revision.", "Origin not machine controller.",
                          "Packet serial: 9 Prev: 9 Prev VRPO0: 8 Packet type: \"NONE\" data[0]: ab",
                          "Sequence number error.", "Wrong data size: 7 (should be 1 )"}));
}

void TestEGLinkPacket::packetsThatCannotBeOnes_data()
{
    QTest::addColumn<QByteArray>("packet");
    QTest::newRow("nothing") << QByteArray();
    QTest::newRow("type alone") << QByteArray("VRPO");
    QTest::newRow("one byte short of a header") << ControllerPacket{"VRPO", 1, {}}.withoutCrc().left(15);
    QTest::newRow("one byte more than the largest payload")
        << ControllerPacket{"VRPO", 1, QByteArray(493, '\0')}.withoutCrc();
    QTest::newRow("as much as a datagram carries") << ControllerPacket{"VRPO", 1, QByteArray(65000, '\0')}.withoutCrc();
}

void TestEGLinkPacket::packetsThatCannotBeOnes()
{
    QFETCH(QByteArray, packet);
    EGLinkHeaderCheck check;
    quint16 serial = 0;
    const LogSpy log;
    QCOMPARE(check.checkAndRemoveHeader(packet, serial), Type::None);
    QCOMPARE(log.lines(), QStringList());
}

void TestEGLinkPacket::largestPacketPasses()
{
    EGLinkHeaderCheck check;
    QByteArray packet = ControllerPacket{"VRPO", 1, QByteArray(492, 'x')}.withoutCrc();
    quint16 serial = 0;
    QCOMPARE(check.checkAndRemoveHeader(packet, serial), Type::Vrpo);
    QCOMPARE(packet.size(), 492);
}

void TestEGLinkPacket::sequence_data()
{
    QTest::addColumn<QList<QByteArray>>("packets");
    QTest::addColumn<int>("errors");

    const auto command = [](quint16 serial) {
        return ControllerPacket{"VRCO", serial, {}}.withoutCrc();
    };
    const auto ack = [](quint16 serial) {
        return ControllerPacket{"VRAO", serial, {}}.withoutCrc();
    };
    const auto part = [](quint16 serial, quint8 index) {
        return ControllerPacket{"VRPO", serial, QByteArray(1, char(index))}.withoutCrc();
    };
    const auto empty = [](quint16 serial) {
        return ControllerPacket{"VRPO", serial, {}}.withoutCrc();
    };

    QTest::newRow("the first packet always passes") << QList<QByteArray>{command(0)} << 0;
    QTest::newRow("a repeated serial") << QList<QByteArray>{command(5), command(5)} << 1;
    QTest::newRow("a repeated serial of another type") << QList<QByteArray>{command(5), ack(5)} << 1;
    QTest::newRow("gaps are no errors") << QList<QByteArray>{command(5), command(900), ack(6)} << 0;
    QTest::newRow("backwards is no error") << QList<QByteArray>{command(5), command(4), command(5)} << 0;
    QTest::newRow("across 32767 and 32768") << QList<QByteArray>{command(32767), command(32768), ack(32769)} << 0;
    QTest::newRow("across 65535 and 0") << QList<QByteArray>{command(65535), command(0), ack(1)} << 0;
    QTest::newRow("repetition of 65535") << QList<QByteArray>{command(65535), command(65535)} << 1;
    QTest::newRow("the parts of a set share their serial")
        << QList<QByteArray>{part(5, 0), part(5, 1), part(5, 2)} << 0;
    QTest::newRow("part 0 after the others") << QList<QByteArray>{part(5, 1), part(5, 2), part(5, 0)} << 0;
    QTest::newRow("part 0 twice") << QList<QByteArray>{part(5, 0), part(5, 1), part(5, 0)} << 1;
    QTest::newRow("another part twice") << QList<QByteArray>{part(5, 1), part(5, 1)} << 0;
    QTest::newRow("a set with the serial of a command") << QList<QByteArray>{command(5), part(5, 0)} << 0;
    QTest::newRow("a command with the serial of a set") << QList<QByteArray>{part(5, 1), command(5)} << 1;
    QTest::newRow("an empty VRPO counts as part 0") << QList<QByteArray>{part(5, 0), empty(5)} << 1;
    QTest::newRow("part 0 of the last set, commands between")
        << QList<QByteArray>{part(5, 0), command(6), part(5, 0)} << 1;
}

void TestEGLinkPacket::sequence()
{
    QFETCH(QList<QByteArray>, packets);
    QFETCH(int, errors);
    EGLinkHeaderCheck check;
    const LogSpy log;
    for (QByteArray& packet : packets) {
        quint16 serial = 0;
        QVERIFY(check.checkAndRemoveHeader(packet, serial) != Type::None); // an error of sequence drops nothing
    }
    QCOMPARE(log.count("Sequence number error."), errors);
    QCOMPARE(log.lines().size(), 2 * errors);
}

void TestEGLinkPacket::sequenceLineTellsAllThereIs()
{
    EGLinkHeaderCheck check;
    quint16 serial = 0;
    QByteArray set = ControllerPacket{"VRPO", 40000, QByteArray::fromHex("00")}.withoutCrc();
    QByteArray copy = set;
    QByteArray command = ControllerPacket{"VRCO", 65535, QByteArray::fromHex("f0")}.withoutCrc();
    check.checkAndRemoveHeader(set, serial);
    check.checkAndRemoveHeader(command, serial);
    const LogSpy log;
    check.checkAndRemoveHeader(copy, serial);
    QCOMPARE(log.lines(QtDebugMsg),
             (QStringList{"Packet serial: 40000 Prev: 65535 Prev VRPO0: 40000 Packet type: \"VRPO\" data[0]: 0",
                          "Sequence number error."}));
}

void TestEGLinkPacket::sequenceLineOfAnEmptyPayload()
{
    EGLinkHeaderCheck check;
    quint16 serial = 0;
    QByteArray first = ControllerPacket{"VRAO", 3, {}}.withoutCrc();
    QByteArray second = first;
    check.checkAndRemoveHeader(first, serial);
    const LogSpy log;
    check.checkAndRemoveHeader(second, serial);
    QCOMPARE(log.lines().value(0), QString("Packet serial: 3 Prev: 3 Prev VRPO0: 2 Packet type: \"VRAO\" data[0]: 0"));
}

void TestEGLinkPacket::faultyPacketsCountForTheSequence()
{
    EGLinkHeaderCheck check;
    quint16 serial = 0;
    QByteArray foreign = ControllerPacket{"VRCO", 8, {}, 1}.withoutCrc();
    QByteArray clean = ControllerPacket{"VRCO", 8, {}}.withoutCrc();
    check.checkAndRemoveHeader(foreign, serial);
    const LogSpy log;
    QCOMPARE(check.checkAndRemoveHeader(clean, serial), Type::Vrco);
    QCOMPARE(log.count("Sequence number error."), 1);
}

void TestEGLinkPacket::impossiblePacketsDoNotCountForTheSequence()
{
    EGLinkHeaderCheck check;
    quint16 serial = 0;
    QByteArray large = ControllerPacket{"VRCO", 8, QByteArray(493, '\0')}.withoutCrc();
    QByteArray first = ControllerPacket{"VRCO", 8, {}}.withoutCrc();
    check.checkAndRemoveHeader(large, serial);
    const LogSpy log;
    check.checkAndRemoveHeader(first, serial);
    QCOMPARE(log.lines(), QStringList());
}

void TestEGLinkPacket::restartForgetsTheSerials()
{
    EGLinkHeaderCheck check;
    quint16 serial = 0;
    QByteArray first = ControllerPacket{"VRCO", 8, {}}.withoutCrc();
    QByteArray second = first;
    check.checkAndRemoveHeader(first, serial);
    check.restart();
    const LogSpy log;
    check.checkAndRemoveHeader(second, serial);
    QCOMPARE(log.lines(), QStringList());
}

void TestEGLinkPacket::seededRandomHeadersNeverPassByChance()
{
    const LogSpy log; // keeps the lines off the terminal
    QRandomGenerator random(20220327);
    EGLinkHeaderCheck check;
    for (int round = 0; round < 20000; ++round) {
        QByteArray packet(random.bounded(560), '\0');
        for (char& byte : packet) {
            byte = static_cast<char>(random.generate());
        }
        quint16 serial = 0;
        QCOMPARE(check.checkAndRemoveHeader(packet, serial), Type::None);
    }
}

QTEST_GUILESS_MAIN(TestEGLinkPacket)
#include "tst_eglinkpacket.moc"
