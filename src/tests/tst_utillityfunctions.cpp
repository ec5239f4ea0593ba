#include "fatalprobe.h"
#include "utillityfunctions.h"

#include <QtTest>

class TestUtillityFunctions : public QObject
{
    Q_OBJECT

private slots:
    void appendersWriteLeastSignificantByteFirst();
    void integersAreReadInBothByteOrders();
    void furtherBytesAreIgnored();
    void floatingPointNumbersAreBitPatterns();
    void singleBytesKeepTheirSign();
    void singleByteReadersInsistOnOneByte();
    void reverseTurnsBytesRound();
    void bitZeroIsTheLeastSignificantBit_data();
    void bitZeroIsTheLeastSignificantBit();
    void bitsOutsideTheNumberAreFatal();
    void unsignedFields_data();
    void unsignedFields();
    void signedFieldsExtendTheirSign_data();
    void signedFieldsExtendTheirSign();
    void signedFieldsOutsideTheNumberAreFatal();
};

namespace {
const QString Unit = QStringLiteral("src/utillityfunctions");
}

void TestUtillityFunctions::appendersWriteLeastSignificantByteFirst()
{
    QByteArray data("x");
    appendUint16(data, 0x1234);
    appendInt16(data, -2);
    appendUint32(data, 0x89ABCDEFU);
    appendInt32(data, -3);
    QCOMPARE(data.toHex(), QByteArray("78"
                                      "3412"
                                      "feff"
                                      "efcdab89"
                                      "fdffffff"));
}

void TestUtillityFunctions::integersAreReadInBothByteOrders()
{
    const QByteArray two = QByteArray::fromHex("1234");
    QCOMPARE(toUint16(two, true), static_cast<unsigned short>(0x1234));
    QCOMPARE(toUint16(two, false), static_cast<unsigned short>(0x3412));
    QCOMPARE(toInt16(QByteArray::fromHex("FFFE"), true), static_cast<short>(-2));
    QCOMPARE(toInt16(QByteArray::fromHex("FFFE"), false), static_cast<short>(-257));

    const QByteArray four = QByteArray::fromHex("89ABCDEF");
    QCOMPARE(toUint32(four, true), 0x89ABCDEFU);
    QCOMPARE(toUint32(four, false), 0xEFCDAB89U);
    QCOMPARE(toInt32(QByteArray::fromHex("FFFFFFFE"), true), -2);
    QCOMPARE(toInt32(QByteArray::fromHex("FEFFFFFF"), false), -2);
}

void TestUtillityFunctions::furtherBytesAreIgnored()
{
    const QByteArray data = QByteArray::fromHex("0102030405060708090A");
    QCOMPARE(toUint16(data, false), static_cast<unsigned short>(0x0201));
    QCOMPARE(toUint32(data, true), 0x01020304U);
}

void TestUtillityFunctions::floatingPointNumbersAreBitPatterns()
{
    QCOMPARE(toFloat(QByteArray::fromHex("3F800000"), true), 1.0F);
    QCOMPARE(toFloat(QByteArray::fromHex("0000803F"), false), 1.0F);
    QCOMPARE(toDouble(QByteArray::fromHex("C004000000000000"), true), -2.5);
    QCOMPARE(toDouble(QByteArray::fromHex("00000000000004C0"), false), -2.5);
}

void TestUtillityFunctions::singleBytesKeepTheirSign()
{
    const QByteArray ff = QByteArray::fromHex("FF");
    QCOMPARE(static_cast<int>(toInt8(ff)), -1);
    QCOMPARE(static_cast<int>(toUint8(ff)), 255);
    QCOMPARE(static_cast<int>(toUnsignedChar(QByteArray::fromHex("FE01"))), 254);
    QCOMPARE(static_cast<int>(toChar(QByteArray::fromHex("FE01"))), 254);
}

void TestUtillityFunctions::singleByteReadersInsistOnOneByte()
{
    VERIFY_FATAL(Unit, 158, toInt8(QByteArray()));
    VERIFY_FATAL(Unit, 158, toInt8(QByteArray("ab")));
    VERIFY_FATAL(Unit, 165, toUint8(QByteArray()));
    VERIFY_FATAL(Unit, 165, toUint8(QByteArray("ab")));
}

void TestUtillityFunctions::reverseTurnsBytesRound()
{
    QCOMPARE(reverseQBytearray(QByteArray::fromHex("010203")), QByteArray::fromHex("030201"));
    QCOMPARE(reverseQBytearray(QByteArray()), QByteArray());
}

void TestUtillityFunctions::bitZeroIsTheLeastSignificantBit_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<unsigned int>("bit");
    QTest::addColumn<bool>("littleEndian");
    QTest::addColumn<bool>("bigEndian");

    QTest::newRow("bit 0 of 01 00") << QByteArray::fromHex("0100") << 0U << true << false;
    QTest::newRow("bit 8 of 01 00") << QByteArray::fromHex("0100") << 8U << false << true;
    QTest::newRow("bit 7 of 80") << QByteArray::fromHex("80") << 7U << true << true;
    QTest::newRow("bit 31 of 80 00 00 01") << QByteArray::fromHex("80000001") << 31U << false << true;
    QTest::newRow("bit 24 of 80 00 00 01") << QByteArray::fromHex("80000001") << 24U << true << false;
}

void TestUtillityFunctions::bitZeroIsTheLeastSignificantBit()
{
    QFETCH(QByteArray, data);
    QFETCH(unsigned int, bit);
    QFETCH(bool, littleEndian);
    QFETCH(bool, bigEndian);

    QCOMPARE(getBitValue(data, bit, false), littleEndian);
    QCOMPARE(getBitValue(data, bit, true), bigEndian);
}

void TestUtillityFunctions::bitsOutsideTheNumberAreFatal()
{
    VERIFY_FATAL(Unit, 230, getBitValue(QByteArray(5, 0), 0, false));
    VERIFY_FATAL(Unit, 231, getBitValue(QByteArray(), 0, false));
    VERIFY_FATAL(Unit, 232, getBitValue(QByteArray(2, 0), 16, true));
}

void TestUtillityFunctions::unsignedFields_data()
{
    QTest::addColumn<unsigned int>("value");
    QTest::addColumn<unsigned int>("startBit");
    QTest::addColumn<unsigned int>("bitCount");
    QTest::addColumn<unsigned int>("field");

    QTest::newRow("inner bits") << 0xF0U << 4U << 3U << 7U;
    QTest::newRow("whole word") << 0x89ABCDEFU << 0U << 32U << 0x89ABCDEFU;
    QTest::newRow("no bits") << 0xFFFFFFFFU << 0U << 0U << 0U;
    QTest::newRow("start at the word's end") << 0xFFFFFFFFU << 32U << 4U << 0U;
    QTest::newRow("start far outside") << 0xFFFFFFFFU << 4000U << 4U << 0U;
    QTest::newRow("more bits than a word") << 0xFFFFFFFFU << 28U << 60U << 0xFU;
}

void TestUtillityFunctions::unsignedFields()
{
    QFETCH(unsigned int, value);
    QFETCH(unsigned int, startBit);
    QFETCH(unsigned int, bitCount);
    QFETCH(unsigned int, field);

    QCOMPARE(getUintFromBits(value, startBit, bitCount), field);
}

void TestUtillityFunctions::signedFieldsExtendTheirSign_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<unsigned int>("startBit");
    QTest::addColumn<unsigned int>("bitCount");
    QTest::addColumn<bool>("bigEndian");
    QTest::addColumn<int>("field");

    QTest::newRow("upper half of F0") << QByteArray::fromHex("F0") << 4U << 4U << false << -1;
    QTest::newRow("lower half of F0") << QByteArray::fromHex("F0") << 0U << 4U << false << 0;
    QTest::newRow("no bits") << QByteArray::fromHex("FF") << 0U << 0U << false << 0;
    QTest::newRow("positive field") << QByteArray::fromHex("70") << 4U << 4U << false << 7;
    QTest::newRow("little-endian 12 bits") << QByteArray::fromHex("FE0F") << 0U << 12U << false << -2;
    QTest::newRow("big-endian 12 bits") << QByteArray::fromHex("0FFE") << 0U << 12U << true << -2;
    QTest::newRow("three bytes") << QByteArray::fromHex("000080") << 0U << 24U << false << -8388608;
    QTest::newRow("whole word") << QByteArray::fromHex("FEFFFFFF") << 0U << 32U << false << -2;
}

void TestUtillityFunctions::signedFieldsExtendTheirSign()
{
    QFETCH(QByteArray, data);
    QFETCH(unsigned int, startBit);
    QFETCH(unsigned int, bitCount);
    QFETCH(bool, bigEndian);
    QFETCH(int, field);

    QCOMPARE(getIntFromBits(data, startBit, bitCount, bigEndian), field);
}

void TestUtillityFunctions::signedFieldsOutsideTheNumberAreFatal()
{
    VERIFY_FATAL(Unit, 259, getIntFromBits(QByteArray(1, 0), 8, 0, false));
    VERIFY_FATAL(Unit, 259, getIntFromBits(QByteArray(), 0, 0, false));
    VERIFY_FATAL(Unit, 260, getIntFromBits(QByteArray(1, 0), 0, 9, false));
    VERIFY_FATAL(Unit, 261, getIntFromBits(QByteArray(1, 0), 4, 5, false));
    VERIFY_FATAL(Unit, 262, getIntFromBits(QByteArray(5, 0), 0, 8, false));
}

QTEST_APPLESS_MAIN(TestUtillityFunctions)
#include "tst_utillityfunctions.moc"
