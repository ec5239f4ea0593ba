#include "frame_layer.h"

#include <QtTest>

class TestFrameLayer : public QObject
{
    Q_OBJECT

private slots:
    void addStuffsAndDelimits_data();
    void addStuffsAndDelimits();
    void removeTakesALineApart_data();
    void removeTakesALineApart();
    void removeDoesNotReadPastDataWithoutTerminator();
    void parseDataLeavesDelimitersToItsCallers();
    void everyByteValueSurvives();
};

void TestFrameLayer::addStuffsAndDelimits_data()
{
    QTest::addColumn<QByteArray>("packet");
    QTest::addColumn<QByteArray>("frame");

    QTest::newRow("empty packet") << QByteArray() << QByteArray("820A");
    QTest::newRow("ordinary bytes") << QByteArray("41427F00FF") << QByteArray("8241427F00FF0A");
    QTest::newRow("newline is escaped") << QByteArray("0A") << QByteArray("82908A0A");
    QTest::newRow("start byte is escaped") << QByteArray("82") << QByteArray("8290020A");
    QTest::newRow("escape byte is escaped") << QByteArray("90") << QByteArray("8290100A");
    QTest::newRow("images of escaped bytes pass") << QByteArray("10028A") << QByteArray("8210028A0A");
    QTest::newRow("special bytes in a row") << QByteArray("0A0A908282") << QByteArray("82908A908A9010900290020A");
    QTest::newRow("special bytes at both ends") << QByteArray("9041820A") << QByteArray("829010419002908A0A");
    QTest::newRow("carriage return passes") << QByteArray("0D") << QByteArray("820D0A");
}

void TestFrameLayer::addStuffsAndDelimits()
{
    QFETCH(QByteArray, packet);
    QFETCH(QByteArray, frame);

    QCOMPARE(FrameLayer().add(QByteArray::fromHex(packet)).toHex().toUpper(), frame);
}

void TestFrameLayer::removeTakesALineApart_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<QByteArray>("packet");

    QTest::newRow("nothing") << QByteArray() << QByteArray();
    QTest::newRow("empty frame") << QByteArray("820A") << QByteArray();
    QTest::newRow("escaped newline") << QByteArray("82908A0A") << QByteArray("0A");
    QTest::newRow("escaped start byte") << QByteArray("8290020A") << QByteArray("82");
    QTest::newRow("escaped escape byte") << QByteArray("8290100A") << QByteArray("90");
    QTest::newRow("embedded start byte is dropped") << QByteArray("824182420A") << QByteArray("4142");
    QTest::newRow("embedded newline is dropped") << QByteArray("82410A420A") << QByteArray("4142");
    QTest::newRow("two frames in one line run together") << QByteArray("82410A82420A") << QByteArray("4142");
    QTest::newRow("no delimiters at all") << QByteArray("4142") << QByteArray("4142");
    QTest::newRow("tail of a long line") << QByteArray("42430A") << QByteArray("4243");
    QTest::newRow("lone escape byte at the end gives 80") << QByteArray("824190") << QByteArray("4180");
    QTest::newRow("escape byte before the end byte takes it") << QByteArray("8241900A") << QByteArray("418A");
    QTest::newRow("escape byte before a start byte takes it") << QByteArray("829082410A") << QByteArray("0241");
    QTest::newRow("escape byte before an escape byte takes it") << QByteArray("829090410A") << QByteArray("1041");
    QTest::newRow("escape of a byte that needs none") << QByteArray("8290410A") << QByteArray("C1");
}

void TestFrameLayer::removeTakesALineApart()
{
    QFETCH(QByteArray, line);
    QFETCH(QByteArray, packet);

    QCOMPARE(FrameLayer().remove(QByteArray::fromHex(line)).toHex().toUpper(), packet);
}

void TestFrameLayer::removeDoesNotReadPastDataWithoutTerminator()
{
    // Raw data that does not end with a zero byte: what follows it must not become the partner of the last byte.
    const char bytes[] = {'\x41', '\x90', '\x55'};

    QCOMPARE(FrameLayer().remove(QByteArray::fromRawData(bytes, 2)).toHex(), QByteArray("4180"));
}

void TestFrameLayer::parseDataLeavesDelimitersToItsCallers()
{
    FrameLayer layer;

    QCOMPARE(layer.parseData(QByteArray::fromHex("410A"), FrameLayer::ADD).toHex(), QByteArray("41908a"));
    QCOMPARE(layer.parseData(QByteArray::fromHex("82908A410A"), FrameLayer::REMOVE).toHex(), QByteArray("0a41"));
}

void TestFrameLayer::everyByteValueSurvives()
{
    QByteArray packet;
    for (int value = 0; value < 256; ++value) {
        packet.append(static_cast<char>(value));
    }
    FrameLayer layer;
    const QByteArray frame = layer.add(packet);

    QCOMPARE(frame.size(), 256 + 3 + 2);
    QCOMPARE(frame.count('\n'), 1);
    QCOMPARE(frame.count('\x82'), 1);
    QCOMPARE(layer.remove(frame).toHex(), packet.toHex());
}

QTEST_APPLESS_MAIN(TestFrameLayer)
#include "tst_frame_layer.moc"
