#include "message_layer.h"

#include <QtTest>

class TestMessageLayer : public QObject
{
    Q_OBJECT

private slots:
    void addAppendsTheCrc();
    void removeDropsTheCrc();
    void checkJudgesThePacketWithItsCrc_data();
    void checkJudgesThePacketWithItsCrc();
};

void TestMessageLayer::addAppendsTheCrc()
{
    QByteArray packet = QByteArray::fromHex("406400"); // RESET, packet number 0

    MessageLayer().add(packet);

    QCOMPARE(packet.toHex(), QByteArray("406400e58e2703"));
}

void TestMessageLayer::removeDropsTheCrc()
{
    QByteArray packet = QByteArray::fromHex("406400e58e2703");

    MessageLayer().remove(packet);

    QCOMPARE(packet.toHex(), QByteArray("406400"));
}

void TestMessageLayer::checkJudgesThePacketWithItsCrc_data()
{
    QTest::addColumn<QByteArray>("packet");
    QTest::addColumn<bool>("intact");

    QTest::newRow("intact") << QByteArray::fromHex("406400e58e2703") << true;
    QTest::newRow("damaged payload") << QByteArray::fromHex("406401e58e2703") << false;
    QTest::newRow("damaged CRC") << QByteArray::fromHex("406400e58e2702") << false;
    QTest::newRow("one byte missing") << QByteArray::fromHex("406400e58e27") << false;
    QTest::newRow("empty") << QByteArray() << false;
}

void TestMessageLayer::checkJudgesThePacketWithItsCrc()
{
    QFETCH(QByteArray, packet);
    QFETCH(bool, intact);

    QCOMPARE(MessageLayer().check(packet), intact);
}

QTEST_APPLESS_MAIN(TestMessageLayer)
#include "tst_message_layer.moc"
