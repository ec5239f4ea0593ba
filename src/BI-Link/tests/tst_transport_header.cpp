#include "transport_layer.h"

#include <QtTest>

namespace {

QByteArray bytes(const char* hex)
{
    return QByteArray::fromHex(hex);
}

} // namespace

/// The two bytes that the transport layer puts before every payload, and the frame place by which it knows a RESET.
class TestTransportHeader : public QObject
{
    Q_OBJECT

private slots:
    void headerIsClassNumberAndService_data();
    void headerIsClassNumberAndService();
    void headerReadersNeverReadPastThePacket();
    void resetIsRecognisedInItsFrame_data();
    void resetIsRecognisedInItsFrame();
};

void TestTransportHeader::headerIsClassNumberAndService_data()
{
    QTest::addColumn<int>("messageClass");
    QTest::addColumn<int>("serviceId");
    QTest::addColumn<int>("packetNumber");
    QTest::addColumn<QByteArray>("packet");

    QTest::newRow("lowest values") << 1 << 100 << 0 << bytes("4064AABB");
    QTest::newRow("highest values") << 3 << 255 << 63 << bytes("FFFFAABB");
    QTest::newRow("class 2") << 2 << 102 << 7 << bytes("8766AABB");
    QTest::newRow("class 0") << 0 << 0 << 1 << bytes("0100AABB");
}

void TestTransportHeader::headerIsClassNumberAndService()
{
    QFETCH(int, messageClass);
    QFETCH(int, serviceId);
    QFETCH(int, packetNumber);
    QFETCH(QByteArray, packet);

    QCOMPARE(TransportLayer::addHeader(bytes("AABB"), static_cast<quint8>(messageClass), static_cast<quint8>(serviceId),
                                       static_cast<quint8>(packetNumber)),
             packet);
    QCOMPARE(static_cast<int>(TransportLayer::getMessageClass(packet)), messageClass);
    QCOMPARE(static_cast<int>(TransportLayer::getServiceId(packet)), serviceId);
    QCOMPARE(static_cast<int>(TransportLayer::getPacketNumber(packet)), packetNumber);
    QCOMPARE(static_cast<int>(TransportLayer::getControlByte(packet)),
             static_cast<int>(static_cast<quint8>(packet.at(0))));
    QCOMPARE(TransportLayer::removeHeader(packet), bytes("AABB"));
}

void TestTransportHeader::headerReadersNeverReadPastThePacket()
{
    QCOMPARE(static_cast<int>(TransportLayer::getControlByte(QByteArray())), 0);
    QCOMPARE(static_cast<int>(TransportLayer::getMessageClass(QByteArray())), 0);
    QCOMPARE(static_cast<int>(TransportLayer::getPacketNumber(QByteArray())), 0);
    QCOMPARE(static_cast<int>(TransportLayer::getServiceId(bytes("40"))), 0);
    QCOMPARE(TransportLayer::removeHeader(bytes("40")), QByteArray());
}

void TestTransportHeader::resetIsRecognisedInItsFrame_data()
{
    QTest::addColumn<QByteArray>("frame");
    QTest::addColumn<bool>("reset");

    QTest::newRow("RESET") << bytes("82406400E58E27030A") << true;
    QTest::newRow("shortest array that can tell") << bytes("82406400") << true;
    QTest::newRow("one byte too short") << bytes("824064") << false;
    QTest::newRow("empty") << QByteArray() << false;
    QTest::newRow("another event") << bytes("82406464") << false;
    QTest::newRow("zero for another service") << bytes("82406500") << false;
    QTest::newRow("escaped control byte shifts the places") << bytes("82908A6400") << false;
}

void TestTransportHeader::resetIsRecognisedInItsFrame()
{
    QFETCH(QByteArray, frame);
    QFETCH(bool, reset);

    QCOMPARE(TransportLayer::getSystemEventReset(frame), reset);
}

QTEST_APPLESS_MAIN(TestTransportHeader)
#include "tst_transport_header.moc"
