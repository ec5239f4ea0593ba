#include "crc_std32.h"

#include <QtTest>

class TestCrcStd32 : public QObject
{
    Q_OBJECT

private slots:
    void addAppendsMostSignificantByteFirst_data();
    void addAppendsMostSignificantByteFirst();
    void checkAcceptsOnlyIntactData_data();
    void checkAcceptsOnlyIntactData();
    void everyFlippedBitIsRejected();
    void removeDropsFourBytesOrNothing_data();
    void removeDropsFourBytesOrNothing();
    void checkAndRemoveAlwaysRemoves_data();
    void checkAndRemoveAlwaysRemoves();
};

void TestCrcStd32::addAppendsMostSignificantByteFirst_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<QByteArray>("withCrc");

    QTest::newRow("catalogue check value")
        << QByteArray("123456789") << QByteArray("123456789") + QByteArray::fromHex("0376E6E7");
    QTest::newRow("empty data gives the initial value") << QByteArray() << QByteArray::fromHex("FFFFFFFF");
    QTest::newRow("one zero byte") << QByteArray::fromHex("00") << QByteArray::fromHex("004E08BFB4");
    QTest::newRow("one byte with the top bit set") << QByteArray::fromHex("FF") << QByteArray::fromHex("FFFFFFFF00");
}

void TestCrcStd32::addAppendsMostSignificantByteFirst()
{
    QFETCH(QByteArray, data);
    QFETCH(QByteArray, withCrc);

    CrcStd32::add(data);

    QCOMPARE(data.toHex(), withCrc.toHex());
}

void TestCrcStd32::checkAcceptsOnlyIntactData_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<bool>("intact");

    QTest::newRow("digits with their CRC") << QByteArray("123456789\x03\x76\xE6\xE7", 13) << true;
    QTest::newRow("CRC in little-endian order") << QByteArray("123456789\xE7\xE6\x76\x03", 13) << false;
    QTest::newRow("no CRC at all") << QByteArray("123456789") << false;
    QTest::newRow("empty") << QByteArray() << false;
    QTest::newRow("shorter than a CRC") << QByteArray::fromHex("FFFFFF") << false;
    QTest::newRow("CRC of no data") << QByteArray::fromHex("FFFFFFFF") << true;
}

void TestCrcStd32::checkAcceptsOnlyIntactData()
{
    QFETCH(QByteArray, data);
    QFETCH(bool, intact);

    QCOMPARE(CrcStd32::check(data), intact);
}

void TestCrcStd32::everyFlippedBitIsRejected()
{
    const QByteArray intact("123456789\x03\x76\xE6\xE7", 13);
    for (int bit = 0; bit < intact.size() * 8; ++bit) {
        QByteArray damaged = intact;
        damaged[bit / 8] = static_cast<char>(damaged.at(bit / 8) ^ (1 << (bit % 8)));
        QVERIFY2(!CrcStd32::check(damaged), qPrintable(QStringLiteral("bit %1").arg(bit)));
    }
}

void TestCrcStd32::removeDropsFourBytesOrNothing_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<QByteArray>("rest");

    QTest::newRow("longer than a CRC") << QByteArray("abcdef") << QByteArray("ab");
    QTest::newRow("a CRC alone") << QByteArray("abcd") << QByteArray();
    QTest::newRow("shorter stays as it is") << QByteArray("abc") << QByteArray("abc");
}

void TestCrcStd32::removeDropsFourBytesOrNothing()
{
    QFETCH(QByteArray, data);
    QFETCH(QByteArray, rest);

    CrcStd32::remove(data);

    QCOMPARE(data, rest);
}

void TestCrcStd32::checkAndRemoveAlwaysRemoves_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<bool>("intact");

    QTest::newRow("intact") << QByteArray("123456789\x03\x76\xE6\xE7", 13) << true;
    QTest::newRow("damaged CRC") << QByteArray("123456789\x03\x76\xE6\xE6", 13) << false;
}

void TestCrcStd32::checkAndRemoveAlwaysRemoves()
{
    QFETCH(QByteArray, data);
    QFETCH(bool, intact);

    QCOMPARE(CrcStd32::checkAndRemove(data), intact);
    QCOMPARE(data, QByteArray("123456789"));
}

QTEST_APPLESS_MAIN(TestCrcStd32)
#include "tst_crc_std32.moc"
