#include "acknowledgement.h"
#include "fatalprobe.h"
#include "transportonaline.h"

#include <QtTest>

#include <random>

using namespace TransportPackets;

/// The transport layer as the receiver of what the base controller sends.
class TestTransportReceiving : public TransportOnALine
{
    Q_OBJECT

private slots:
    void init() { begin(); }
    void cleanup() { end(); }

    void receivesByClass_data();
    void receivesByClass();
    void repeatedPacketIsDeliveredAndAcknowledgedAgain();
    void replyOfAServiceComesUpOnce();
    void dropsWhatIsNoPacket_data();
    void dropsWhatIsNoPacket();
    void classZeroIsFatal();
    void survivesGarbage();
    void speaksOverTheLineInBothDirections();

private:
    int acknowledgeFrom(int first);
};

void TestTransportReceiving::receivesByClass_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<QByteArray>("payload"); // null: nothing comes up
    QTest::addColumn<int>("serviceId");
    QTest::addColumn<int>("messageClass");
    QTest::addColumn<QByteArray>("answer");

    QTest::newRow("class 1 is acknowledged with its own number")
        << bytes("824565908A90029010B9561CE50A") << bytes("0A8290") << 101 << 1 << bytes("82C565EF209D200A");
    QTest::newRow("class 1 with the highest number")
        << bytes("827F651152165B250A") << bytes("11") << 101 << 1 << bytes("82FF65F568ED480A");
    QTest::newRow("class 1 for a service that does not exist")
        << bytes("8240670193A465670A") << bytes("01") << 103 << 1 << bytes("82C067719F463B0A");
    QTest::newRow("class 2 is left to the service")
        << bytes("828766454D41508D3FF1B20A") << QByteArray("EMAP") << 102 << 2 << QByteArray();
    QTest::newRow("class 2 whose control byte is escaped")
        << bytes("8290026641424344726B95210A") << QByteArray("ABCD") << 102 << 2 << QByteArray();
    QTest::newRow("class 3 with payload")
        << bytes("82C96634120000452E0BEA0A") << bytes("34120000") << 102 << 3 << QByteArray();
    QTest::newRow("class 3 without payload") << Data0Ack << QByteArray() << 0 << 0 << QByteArray();
}

void TestTransportReceiving::receivesByClass()
{
    QFETCH(QByteArray, line);
    QFETCH(QByteArray, payload);
    QFETCH(int, serviceId);
    QFETCH(int, messageClass);
    QFETCH(QByteArray, answer);
    QSignalSpy up(m_layer.get(), &TransportLayer::readyRead);

    m_layer->readDataFromInternal(line);

    QCOMPARE(up.count(), payload.isNull() ? 0 : 1);
    if (!payload.isNull()) {
        QCOMPARE(up.at(0).at(0).toByteArray(), payload);
        QCOMPARE(up.at(0).at(1).value<Link>(), Internal);
        QCOMPARE(up.at(0).at(2).toInt(), serviceId);
        QCOMPARE(up.at(0).at(3).toInt(), messageClass);
    }
    // The packet sent last proves that nothing but the expected answer went before it.
    send("11");
    QCOMPARE(m_line->receive(answer.size() + Data0.size()).toHex(), (answer + Data0).toHex());
}

void TestTransportReceiving::repeatedPacketIsDeliveredAndAcknowledgedAgain()
{
    QSignalSpy up(m_layer.get(), &TransportLayer::readyRead);

    m_layer->readDataFromInternal(bytes("824565908A90029010B9561CE50A"));
    m_layer->readDataFromInternal(bytes("824565908A90029010B9561CE50A"));

    QCOMPARE(up.count(), 2);
    QTRY_COMPARE(m_line->received(), bytes("82C565EF209D200A82C565EF209D200A"));
}

void TestTransportReceiving::replyOfAServiceComesUpOnce()
{
    QSignalSpy up(m_layer.get(), &TransportLayer::readyRead);
    send("11");
    send("22");
    send("41424344", 102, 2); // number 2
    m_layer->readDataFromInternal(Data0Ack);
    m_layer->readDataFromInternal(Data1Ack);
    const QByteArray request = bytes("8290026641424344726B95210A");
    QCOMPARE(m_sent, (QList<QByteArray>{Data0, Data1, request}));

    m_layer->readDataFromInternal(bytes("82C26600000000CE25C18B0A"));

    QCOMPARE(up.count(), 1);
    QCOMPARE(up.at(0).at(0).toByteArray(), bytes("00000000"));
    QCOMPARE(framesUpToLaterFailure(), (QList<QByteArray>{Data0, Data1, request}));
}

void TestTransportReceiving::dropsWhatIsNoPacket_data()
{
    QTest::addColumn<QByteArray>("line");

    QTest::newRow("nothing") << QByteArray();
    QTest::newRow("newline alone") << bytes("0A");
    QTest::newRow("empty frame") << bytes("820A");
    QTest::newRow("intact CRC of no packet") << bytes("82FFFFFFFF0A");
    QTest::newRow("intact CRC of half a header") << bytes("82407A8ECFC30A");
    QTest::newRow("flipped payload bit") << bytes("824565908A90029011B9561CE50A");
    QTest::newRow("flipped CRC bit") << bytes("824565908A90029010B9561CE40A");
    QTest::newRow("cut off") << bytes("824565908A900290");
    QTest::newRow("tail only") << bytes("90029010B9561CE50A");
    QTest::newRow("garbage in front") << bytes("55824565908A90029010B9561CE50A");
    QTest::newRow("two packets in one line") << Data0Ack + Data1Ack;
    QTest::newRow("escape byte at the very end") << bytes("82456590");
}

void TestTransportReceiving::dropsWhatIsNoPacket()
{
    QFETCH(QByteArray, line);
    QSignalSpy up(m_layer.get(), &TransportLayer::readyRead);
    m_log->clear();

    m_layer->readDataFromInternal(line);

    QCOMPARE(up.count(), 0);
    QCOMPARE(m_log->lines(), QStringList());
    send("11");
    QCOMPARE(m_line->receive(Data0.size()).toHex(), Data0.toHex()); // no answer to the line
}

void TestTransportReceiving::classZeroIsFatal()
{
    VERIFY_FATAL("src/BI-Link/transport_layer", 183,
                 TransportLayer(nullptr).readDataFromInternal(bytes("82006511096C01D80A")));
}

void TestTransportReceiving::survivesGarbage()
{
    std::mt19937 random(20240607);
    QSignalSpy up(m_layer.get(), &TransportLayer::readyRead);
    for (int chunk = 0; chunk < 5000; ++chunk) {
        QByteArray garbage(static_cast<int>(random() % 513), '\0');
        for (char& byte : garbage) {
            byte = static_cast<char>(random());
        }
        m_layer->readDataFromInternal(garbage);
    }
    QCOMPARE(up.count(), 0);

    m_layer->readDataFromInternal(bytes("824565908A90029010B9561CE50A"));

    QCOMPARE(up.count(), 1);
    QTRY_COMPARE(m_line->received(), bytes("82C565EF209D200A"));
}

/// Acknowledges, over the line, the frames from that number on. @return how many there are.
int TestTransportReceiving::acknowledgeFrom(int first)
{
    for (int frame = first; frame < m_sent.size(); ++frame) {
        m_line->send(acknowledgementOf(m_sent.at(frame)));
    }
    return m_sent.size();
}

void TestTransportReceiving::speaksOverTheLineInBothDirections()
{
    QSignalSpy up(m_layer.get(), &TransportLayer::readyRead);
    // Reads in a thread of its own, which may be later than the layer waits for an acknowledgement: then once more.
    connect(m_layer.get(), &TransportLayer::internLinkFail, this, [this] { send("00", 100); });
    send("00", 100);
    QCOMPARE(m_line->receive(Reset0.size()).left(Reset0.size()), Reset0);
    int answered = 0;
    QTRY_VERIFY((answered = acknowledgeFrom(answered), m_resetAcks > 0));
    m_line->clear();

    QVERIFY(m_line->send(bytes("827F651152165B250A")));

    QTRY_COMPARE(up.count(), 1);
    QCOMPARE(up.at(0).at(0).toByteArray(), bytes("11"));
    QTRY_VERIFY(m_line->received().endsWith(bytes("82FF65F568ED480A")));
}

QTEST_GUILESS_MAIN(TestTransportReceiving)
#include "tst_transportreceiving.moc"
