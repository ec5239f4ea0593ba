#include "glinkframes.h"
#include "glinkheader.h"
#include "logspy.h"

#include <QDateTime>
#include <QtTest>

class TestGLinkHeader : public QObject
{
    Q_OBJECT

private slots:
    void headerIsSerialisedInWireOrder();
    void headerIsParsed_data();
    void headerIsParsed();
    void headerOfBadBytesStaysUnset_data();
    void headerOfBadBytesStaysUnset();
    void reservedBytesAreNotRead();
    void ackCopiesStreamAndId_data();
    void ackCopiesStreamAndId();
    void timeStampIsTheLowHalfOfTheClock();
    void namesAreThoseOfTheLog_data();
    void namesAreThoseOfTheLog();
    void headerIsSilentUnlessAsked();

    void initIsSerialisedInWireOrder();
    void initIsParsed();
    void shortInitLeavesZeros_data();
    void shortInitLeavesZeros();
    void initAckTextHasAFixedWidth_data();
    void initAckTextHasAFixedWidth();
    void initAckKeepsThePadding();
    void shortInitAckLeavesZeros_data();
    void shortInitAckLeavesZeros();
    void recordsPrintTheirFields();
    void frameSizes();
};

void TestGLinkHeader::headerIsSerialisedInWireOrder()
{
    GLinkHeader header;
    header.size = 3;
    header.stream = 0;
    header.msgId = GLINK_MSG_ID_CMD;
    header.msgType = GLINK_MSG_TYPE_MSG;
    header.time = 0x04030201;

    QCOMPARE(header.serialize().toHex(), QByteArray("03000003000102030400000000ce43534a"));
}

void TestGLinkHeader::headerIsParsed_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("stream");
    QTest::addColumn<int>("msgId");
    QTest::addColumn<int>("msgType");

    QTest::newRow("exactly a header") << Frames::heartbeat().left(17) << 4 << 1 << 0 << 0;
    QTest::newRow("what follows is not looked at") << Frames::command() << 3 << 0 << 3 << 0;
    QTest::newRow("acknowledgement") << Frames::commandAck() << 0 << 0 << 3 << 1;
    QTest::newRow("unknown type") << Frames::unknownType() << 2 << 1 << 4 << 2;
}

void TestGLinkHeader::headerIsParsed()
{
    QFETCH(QByteArray, bytes);

    const GLinkHeader header(bytes);

    QVERIFY(header.m_isCrcOk);
    QTEST(int(header.size), "size");
    QTEST(int(header.stream), "stream");
    QTEST(int(header.msgId), "msgId");
    QTEST(int(header.msgType), "msgType");
    QCOMPARE(header.time, 0x04030201U);
}

void TestGLinkHeader::headerOfBadBytesStaysUnset_data()
{
    QTest::addColumn<QByteArray>("bytes");

    QTest::newRow("empty") << QByteArray();
    QTest::newRow("one byte short") << Frames::command().left(16);
    for (int offset = 0; offset < 17; ++offset) {
        QTest::addRow("damaged byte %d", offset) << Frames::damaged(Frames::command().left(17), offset);
    }
}

void TestGLinkHeader::headerOfBadBytesStaysUnset()
{
    QFETCH(QByteArray, bytes);

    const GLinkHeader header(bytes);

    QVERIFY(!header.m_isCrcOk);
    QCOMPARE(int(header.size), 0);
    QCOMPARE(int(header.msgId), 0);
    QCOMPARE(header.time, 0U);
}

void TestGLinkHeader::reservedBytesAreNotRead()
{
    const GLinkHeader header(QByteArray::fromHex("040001000001020304deadbeef66be77ac"));

    QVERIFY(header.m_isCrcOk);
    QCOMPARE(int(header.size), 4);
    QCOMPARE(header.time, 0x04030201U);
}

void TestGLinkHeader::ackCopiesStreamAndId_data()
{
    QTest::addColumn<QByteArray>("acknowledged");
    QTest::addColumn<QByteArray>("firstBytes");

    QTest::newRow("of a command: stream 0") << Frames::command() << QByteArray::fromHex("0000000301");
    QTest::newRow("of periodic data: its stream") << Frames::periodicData() << QByteArray::fromHex("0000010401");
    QTest::newRow("of INIT") << Frames::init() << QByteArray::fromHex("0000010101");
}

void TestGLinkHeader::ackCopiesStreamAndId()
{
    QFETCH(QByteArray, acknowledged);
    QFETCH(QByteArray, firstBytes);

    const GLinkAck ack{GLinkHeader(acknowledged)};
    const QByteArray bytes = ack.serialize();

    QVERIFY(ack.m_isCrcOk);
    QCOMPARE(bytes.size(), 17);
    QCOMPARE(bytes.left(5).toHex(), firstBytes.toHex());
    QCOMPARE(bytes.mid(9, 4).toHex(), QByteArray("00000000"));
    QVERIFY(GLinkHeader(bytes).m_isCrcOk);
    const quint32 now = static_cast<quint32>(QDateTime::currentMSecsSinceEpoch());
    QVERIFY(now - ack.time < 5000U);
}

void TestGLinkHeader::timeStampIsTheLowHalfOfTheClock()
{
    const quint32 before = static_cast<quint32>(QDateTime::currentMSecsSinceEpoch());
    const quint32 stamp = GLinkHeader::timeStamp();
    const quint32 after = static_cast<quint32>(QDateTime::currentMSecsSinceEpoch());

    QVERIFY(stamp - before <= after - before);
}

void TestGLinkHeader::namesAreThoseOfTheLog_data()
{
    QTest::addColumn<int>("msgId");
    QTest::addColumn<QByteArray>("name");

    const char* const names[] = {"HEARTBEAT",       "INIT",      "INITACK", "CMD",         "PERIODIC DATA",
                                 "SERVICE FORWARD", "POWER OFF", "E STOP",  "BASE STATUS", "FALLBACK DEINIT",
                                 "UNDEFINED"};
    for (int id = 0; id <= 10; ++id) {
        QTest::newRow(names[id]) << id << QByteArray(names[id]);
    }
    QTest::newRow("invalid") << 255 << QByteArray("UNDEFINED");
}

void TestGLinkHeader::namesAreThoseOfTheLog()
{
    QFETCH(int, msgId);
    QFETCH(QByteArray, name);

    QCOMPARE(QByteArray(GLinkHeader::msgIdName(static_cast<quint8>(msgId))), name);
    QCOMPARE(QByteArray(GLinkHeader::msgTypeName(GLINK_MSG_TYPE_MSG)), QByteArray("MSG"));
    QCOMPARE(QByteArray(GLinkHeader::msgTypeName(GLINK_MSG_TYPE_ACK)), QByteArray("ACK"));
    QCOMPARE(QByteArray(GLinkHeader::msgTypeName(2)), QByteArray("UNDEFINED"));
}

void TestGLinkHeader::headerIsSilentUnlessAsked()
{
    LogSpy log;
    const GLinkHeader header(Frames::machineStop());

    header.print();
    QCOMPARE(log.lines(), QStringList());

    header.printHeader();
    QCOMPARE(log.lines(), QStringList{"GLinkHeader: E STOP MSG size 1 stream 1 time 67305985"});
}

void TestGLinkHeader::initIsSerialisedInWireOrder()
{
    GLinkInitMsg init;
    QCOMPARE(init.serialize(), QByteArray(22, '\0'));

    init.majVersion = 1;
    init.minVersion = 2;
    init.remoteId = 0x0203;
    init.baseId = 0x0405;
    for (int i = 0; i < 16; ++i) {
        init.configChecksum[i] = static_cast<quint8>(i);
    }

    QCOMPARE(init.serialize().toHex(), QByteArray("010203020504000102030405060708090a0b0c0d0e0f"));
}

void TestGLinkHeader::initIsParsed()
{
    const GLinkInitMsg init(QByteArray::fromHex("010203020504f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff"));

    QCOMPARE(int(init.majVersion), 1);
    QCOMPARE(int(init.minVersion), 2);
    QCOMPARE(int(init.remoteId), 0x0203);
    QCOMPARE(int(init.baseId), 0x0405);
    QCOMPARE(init.checksum().toHex(), QByteArray("f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff"));
    QCOMPARE(int(init.configChecksum[15]), 0xFF);
}

void TestGLinkHeader::shortInitLeavesZeros_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QByteArray>("asIf");

    QTest::newRow("nothing") << QByteArray() << QByteArray(22, '\0');
    QTest::newRow("half a remote id") << QByteArray::fromHex("010203")
                                      << QByteArray::fromHex("0102") + QByteArray(20, '\0');
    QTest::newRow("no checksum") << QByteArray::fromHex("010203020504")
                                 << QByteArray::fromHex("010203020504") + QByteArray(16, '\0');
}

void TestGLinkHeader::shortInitLeavesZeros()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QByteArray, asIf);

    QCOMPARE(GLinkInitMsg(bytes).serialize().toHex(), asIf.toHex());
}

void TestGLinkHeader::initAckTextHasAFixedWidth_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("field");

    QTest::newRow("empty") << QByteArray() << QByteArray(40, '\0');
    QTest::newRow("shorter is padded") << QByteArray("This RU is not paired to this BU.")
                                       << QByteArray("This RU is not paired to this BU.") + QByteArray(7, '\0');
    QTest::newRow("exactly 40 is not padded") << QByteArray(40, 'x') << QByteArray(40, 'x');
    QTest::newRow("41 is cut") << QByteArray(40, 'x') + "y" << QByteArray(40, 'x');
}

void TestGLinkHeader::initAckTextHasAFixedWidth()
{
    QFETCH(QByteArray, text);
    QFETCH(QByteArray, field);

    QCOMPARE(GLinkInitAck::errorStringMaxLength, 40);
    QCOMPARE(GLinkInitAck(0x0102, text).serialize().toHex(), QByteArray("0201") + field.toHex());
}

void TestGLinkHeader::initAckKeepsThePadding()
{
    const GLinkInitAck answer(QByteArray::fromHex("0400") + "No." + QByteArray(37, '\0'));

    QCOMPARE(int(answer.errorCode), 4);
    QCOMPARE(answer.errorString, QByteArray("No.") + QByteArray(37, '\0'));
}

void TestGLinkHeader::shortInitAckLeavesZeros_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("errorCode");

    QTest::newRow("nothing") << QByteArray() << 0;
    QTest::newRow("half a code") << QByteArray("\x04") << 0;
    QTest::newRow("a code alone") << QByteArray::fromHex("0401") << 0x0104;
}

void TestGLinkHeader::shortInitAckLeavesZeros()
{
    QFETCH(QByteArray, bytes);

    const GLinkInitAck answer(bytes);

    QTEST(int(answer.errorCode), "errorCode");
    QVERIFY(answer.errorString.isEmpty());
}

void TestGLinkHeader::recordsPrintTheirFields()
{
    LogSpy log;

    GLinkInitMsg(QByteArray::fromHex("010203020504f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff")).print();
    QCOMPARE(log.lines(), (QStringList{"GLinkInit:", "Major version:\t 1", "Minor version:\t 2", "Remote id:\t 515",
                                       "Base ID:\t 1029", "Config checksum:\t \"f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff\""}));
    log.clear();

    GLinkInitAck(1, "No.").print();
    QCOMPARE(log.lines(), (QStringList{"GLinkInitAck:", "Error code:\t 1", "Error string:\t \"No.\""}));
}

void TestGLinkHeader::frameSizes()
{
    QCOMPARE(Frames::heartbeat().size(), 25);
    QCOMPARE(Frames::commandAck().size(), 21);
    QCOMPARE(Frames::init().size(), 43);
    QCOMPARE(Frames::initAck().size(), 63);
    QCOMPARE(17 + GLinkInitMsg().serialize().size() + 4, 43);
    QCOMPARE(17 + GLinkInitAck(0, QByteArray()).serialize().size() + 4, 63);
}

QTEST_APPLESS_MAIN(TestGLinkHeader)
#include "tst_glinkheader.moc"
