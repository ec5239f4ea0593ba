#include "acknowledgement.h"
#include "fatalprobe.h"
#include "internallink.h"
#include "logspy.h"
#include "pseudoterminal.h"
#include "transport_layer.h"

#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include <memory>
#include <random>
#include <utility>

namespace {

class PseudoTerminalLink : public InternalLink
{
public:
    explicit PseudoTerminalLink(const PseudoTerminal& line)
        : InternalLink(line.portName().constData(), nullptr)
    {}
};

/// The layer on a line whose far end the test plays.
class OpenTransportLayer : public TransportLayer
{
public:
    explicit OpenTransportLayer(const PseudoTerminal& line)
        : TransportLayer(new PseudoTerminalLink(line), nullptr)
    {}
};

QByteArray bytes(const char* hex)
{
    return QByteArray::fromHex(hex);
}

// Packets of ours, each with the acknowledgement that the base controller answers it with.
const QByteArray Reset0 = bytes("82406400E58E27030A");
const QByteArray Reset0Ack = bytes("82C0647CDC60E20A");
const QByteArray Data0 = bytes("824065117F4720180A"); // service 101, payload 11
const QByteArray Data0Ack = bytes("82C065781D7D550A");
const QByteArray Data1 = bytes("82416522A7EEC7D60A"); // service 101, payload 22
const QByteArray Data1Ack = bytes("82C165AA04BC890A");
const QByteArray Data2 = bytes("82426533ED57F4980A"); // service 101, payload 33

// A packet of the test's own, told from all others by its service id.
constexpr quint8 MarkerService = 107;
constexpr int ServiceIdInFrame = 2;

// Reference clocks on either side of the 50 ms that a transmission waits for its acknowledgement. They run in the same
// event loop as the layer's timers, and so keep their order with them however busy the machine is.
constexpr int WellBeforeMs = 20;
constexpr int WellAfterMs = 80;

} // namespace

class TestTransportLayer : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void sendsThreeTimesThenFails();
    void sendsAgainAfterAFailure();
    void secondPacketWaitsForTheAckOfTheFirst();
    void secondPacketHasThreeTriesOfItsOwn();
    void ackEndsTheRepetition();
    void ackOfAnotherPacketChangesNothing();
    void packetQueuedLateDoesNotShortenTheLastWait();
    void packetNumbersWrapAt64();
    void serviceReplyGoesOutAtOnceAndOnce();
    void replyBeforeAnyRequestHasNumberZero();
    void everyQueuedClassIsRepeated();
    void waitingPacketsOfAServiceAreBounded();
    void floodIsToldOnceUntilItHasGoneOut();
    void clearedPacketsMakeRoom_data();
    void clearedPacketsMakeRoom();

    void receivesByClass_data();
    void receivesByClass();
    void repeatedPacketIsDeliveredAndAcknowledgedAgain();
    void replyOfAServiceComesUpOnce();
    void dropsWhatIsNoPacket_data();
    void dropsWhatIsNoPacket();
    void classZeroIsFatal();
    void survivesGarbage();
    void speaksOverTheLineInBothDirections();

    void resetAckIsToldBeforeThePacketGoes();
    void onlyTheResetIsTold_data();
    void onlyTheResetIsTold();
    void clearSendBufferObeysStartingOnly_data();
    void clearSendBufferObeysStartingOnly();
    void listenersMayChangeTheSendBuffer();
    void failedLinkMaySendAtOnce();
    void worksWithoutALine();

private:
    void send(const char* payloadHex, quint8 serviceId = 101, quint8 messageClass = 1);
    void note(const QString& event) { m_events.append(event); }
    void noteTransmissionsAndTime();
    bool nextStepCameInTime(int step) const;
    bool waitForTransmission(int count);
    bool waitForFailure();
    QList<QByteArray> framesUpToLaterFailure();
    void flood(int packets, quint8 serviceId);
    void acknowledgeEverything();

    std::unique_ptr<PseudoTerminal> m_line;
    std::unique_ptr<OpenTransportLayer> m_layer;
    QList<QByteArray> m_sent; ///< all frames of `sendOnInternal`
    int m_steps = 0;
    int m_failures = 0;
    int m_resetAcks = 0;
    QStringList m_events;
    std::unique_ptr<LogSpy> m_log;
};

void TestTransportLayer::init()
{
    m_log = std::make_unique<LogSpy>();
    m_line = std::make_unique<PseudoTerminal>();
    m_layer = std::make_unique<OpenTransportLayer>(*m_line);
    m_sent.clear();
    m_events.clear();
    m_steps = 0;
    m_failures = 0;
    m_resetAcks = 0;
    connect(m_layer.get(), &TransportLayer::sendOnInternal, this,
            [this](const QByteArray& frame) { m_sent.append(frame); });
    connect(m_layer.get(), &TransportLayer::internLinkFail, this, [this] { ++m_failures; });
    connect(m_layer.get(), &TransportLayer::resetAckRecieved, this, [this] { ++m_resetAcks; });
}

void TestTransportLayer::cleanup()
{
    m_layer.reset();
    m_line.reset();
    m_log.reset();
}

void TestTransportLayer::send(const char* payloadHex, quint8 serviceId, quint8 messageClass)
{
    m_layer->readDataFromService(bytes(payloadHex), Internal, serviceId, messageClass);
}

/// From now on, writes down each transmission and the failure, numbered together, and the two reference times after it.
void TestTransportLayer::noteTransmissionsAndTime()
{
    auto* const layer = m_layer.get();
    const auto noteStep = [this, layer] {
        const QString step = QString::number(m_steps++);
        note("step " + step);
        QTimer::singleShot(WellBeforeMs, Qt::PreciseTimer, layer, [=] { note("20 ms after step " + step); });
        QTimer::singleShot(WellAfterMs, Qt::PreciseTimer, layer, [=] { note("80 ms after step " + step); });
    };
    connect(layer, &TransportLayer::sendOnInternal, this, noteStep);
    connect(layer, &TransportLayer::internLinkFail, this, noteStep);
}

/// Whether the step behind step number `step` came about 50 ms after it.
bool TestTransportLayer::nextStepCameInTime(int step) const
{
    const int next = m_events.indexOf(QStringLiteral("step %1").arg(step + 1));
    return m_events.indexOf(QStringLiteral("20 ms after step %1").arg(step)) < next &&
           next < m_events.indexOf(QStringLiteral("80 ms after step %1").arg(step));
}

/// Returns as soon as the frame number `count` has gone out, before anything later can happen.
bool TestTransportLayer::waitForTransmission(int count)
{
    QSignalSpy spy(m_layer.get(), &TransportLayer::sendOnInternal);
    while (m_sent.size() < count) {
        if (!spy.wait()) {
            return false;
        }
    }
    return m_sent.size() == count;
}

bool TestTransportLayer::waitForFailure()
{
    return QSignalSpy(m_layer.get(), &TransportLayer::internLinkFail).wait();
}

/// Lets another packet fail, so that everything due before has happened; returns the frames of the other packets.
QList<QByteArray> TestTransportLayer::framesUpToLaterFailure()
{
    send("FF", MarkerService);
    waitForFailure();
    QList<QByteArray> others;
    for (const QByteArray& frame : qAsConst(m_sent)) {
        if (static_cast<quint8>(frame.at(ServiceIdInFrame)) != MarkerService) {
            others.append(frame);
        }
    }
    return others;
}

void TestTransportLayer::flood(int packets, quint8 serviceId)
{
    for (int i = 0; i < packets; ++i) {
        send("11", serviceId);
    }
}

/// Answers every frame that comes out as the base controller would, until none comes any more.
void TestTransportLayer::acknowledgeEverything()
{
    for (int answered = m_sent.size() - 1; answered < m_sent.size(); ++answered) {
        m_layer->readDataFromInternal(acknowledgementOf(m_sent.at(answered)));
    }
}

void TestTransportLayer::sendsThreeTimesThenFails()
{
    noteTransmissionsAndTime();

    send("11");

    QCOMPARE(m_sent, QList<QByteArray>{Data0}); // at once
    QTRY_VERIFY(m_events.contains("80 ms after step 3"));
    QCOMPARE(m_steps, 4);
    for (int step = 0; step < 3; ++step) {
        QVERIFY2(nextStepCameInTime(step), qPrintable(m_events.join(", ")));
    }
    QCOMPARE(m_sent, (QList<QByteArray>{Data0, Data0, Data0}));
    QCOMPARE(m_failures, 1);
    QCOMPARE(m_log->count(QStringLiteral("Internal link fail!!!!!!!!")), 1);
    QTRY_COMPARE(m_line->received(), Data0 + Data0 + Data0);
}

void TestTransportLayer::sendsAgainAfterAFailure()
{
    send("11");
    send("22");
    QVERIFY(waitForFailure());
    m_sent.clear();

    send("33"); // the counter runs on, and what waited behind the lost packet is gone

    QCOMPARE(m_sent, QList<QByteArray>{Data2});
    QVERIFY(waitForFailure());
    QCOMPARE(m_sent, (QList<QByteArray>{Data2, Data2, Data2}));
}

void TestTransportLayer::secondPacketWaitsForTheAckOfTheFirst()
{
    send("11");
    send("22");
    QVERIFY(waitForTransmission(2));
    QCOMPARE(m_sent, (QList<QByteArray>{Data0, Data0}));

    m_layer->readDataFromInternal(Data0Ack);

    QCOMPARE(m_sent, (QList<QByteArray>{Data0, Data0, Data1}));
    m_layer->readDataFromInternal(Data1Ack);
    QCOMPARE(framesUpToLaterFailure(), (QList<QByteArray>{Data0, Data0, Data1}));
}

void TestTransportLayer::secondPacketHasThreeTriesOfItsOwn()
{
    send("11");
    send("22");
    QVERIFY(waitForTransmission(3));

    m_layer->readDataFromInternal(Data0Ack);

    QVERIFY(waitForFailure());
    QCOMPARE(m_sent, (QList<QByteArray>{Data0, Data0, Data0, Data1, Data1, Data1}));
}

void TestTransportLayer::ackEndsTheRepetition()
{
    send("11");
    QVERIFY(waitForTransmission(2));

    m_layer->readDataFromInternal(Data0Ack);

    QCOMPARE(framesUpToLaterFailure(), (QList<QByteArray>{Data0, Data0}));
    QCOMPARE(m_failures, 1); // that of the later packet
}

void TestTransportLayer::ackOfAnotherPacketChangesNothing()
{
    QSignalSpy changed(m_layer.get(), &TransportLayer::newData);
    send("11");

    m_layer->readDataFromInternal(Data1Ack);

    QCOMPARE(changed.count(), 2); // told all the same
    QCOMPARE(m_sent, QList<QByteArray>{Data0});
    QVERIFY(waitForFailure());
    QCOMPARE(m_sent, (QList<QByteArray>{Data0, Data0, Data0}));
}

void TestTransportLayer::packetQueuedLateDoesNotShortenTheLastWait()
{
    send("11");
    QVERIFY(waitForTransmission(2));
    noteTransmissionsAndTime();
    QVERIFY(waitForTransmission(3));

    send("22");

    QCOMPARE(m_failures, 0);
    QTRY_VERIFY(m_events.contains("80 ms after step 0"));
    QVERIFY2(nextStepCameInTime(0), qPrintable(m_events.join(", ")));
    QCOMPARE(m_failures, 1);
}

void TestTransportLayer::packetNumbersWrapAt64()
{
    for (int i = 0; i < 300; ++i) { // past the end of the 8-bit counter, too
        send("11");
        QCOMPARE(m_sent.size(), i + 1);
        QCOMPARE(static_cast<int>(static_cast<quint8>(m_sent.last().at(1))), 0x40 + i % 64);
        m_layer->clearSendBuffer(2);
    }
    QCOMPARE(m_sent.at(63), bytes("827F651152165B250A"));
    QCOMPARE(m_sent.at(64), Data0);
    QCOMPARE(m_sent.at(256), Data0);
}

void TestTransportLayer::serviceReplyGoesOutAtOnceAndOnce()
{
    send("11");
    m_layer->readDataFromInternal(bytes("828766454D41508D3FF1B20A")); // class 2, number 7, service 102, "EMAP"
    const QByteArray reply = bytes("82C7660100000065C063A40A");

    send("01000000", 102, 3);

    QCOMPARE(m_sent, (QList<QByteArray>{Data0, reply}));
    m_layer->readDataFromInternal(Data0Ack);
    QCOMPARE(framesUpToLaterFailure(), (QList<QByteArray>{Data0, reply}));
}

void TestTransportLayer::replyBeforeAnyRequestHasNumberZero()
{
    send("", 101, 3);

    QCOMPARE(m_sent, QList<QByteArray>{Data0Ack});
}

void TestTransportLayer::everyQueuedClassIsRepeated()
{
    send("41424344", 102, 2);

    QVERIFY(waitForFailure());
    const QByteArray request = m_sent.first();
    QCOMPARE(request.left(7).toHex(), QByteArray("82806641424344"));
    QCOMPARE(m_sent, (QList<QByteArray>{request, request, request}));
}

// A remote unit that babbles commands: neither memory nor the status records behind them may suffer from it.
void TestTransportLayer::waitingPacketsOfAServiceAreBounded()
{
    flood(2000, 106);
    flood(2000, 104);
    send("22", 101);

    acknowledgeEverything();

    QCOMPARE(m_sent.size(), 512 + 512 + 1);
    QCOMPARE(m_sent.at(511).mid(1, 2), bytes("7F6A"));
    QCOMPARE(m_sent.at(512).mid(1, 2), bytes("4068")); // what was dropped has taken no number
    QCOMPARE(m_sent.at(1024).left(4), bytes("82406522"));
    send("33", 106);
    QCOMPARE(m_sent.last().left(4), bytes("82416A33"));
}

void TestTransportLayer::floodIsToldOnceUntilItHasGoneOut()
{
    const QString line = QStringLiteral("TransportLayer: 512 packets of service 106 wait, further ones are dropped.");

    flood(512, 106);
    QCOMPARE(m_log->count(line), 0);
    flood(10, 106);
    m_layer->readDataFromInternal(acknowledgementOf(m_sent.last()));
    flood(10, 106);
    QCOMPARE(m_log->count(line), 1);

    acknowledgeEverything();
    flood(513, 106);
    QCOMPARE(m_log->count(line), 2);
}

void TestTransportLayer::clearedPacketsMakeRoom_data()
{
    QTest::addColumn<bool>("byFailure");

    QTest::newRow("failed link") << true;
    QTest::newRow("new start") << false;
}

void TestTransportLayer::clearedPacketsMakeRoom()
{
    QFETCH(bool, byFailure);
    flood(600, 106);
    if (byFailure) {
        QVERIFY(waitForFailure());
    } else {
        m_layer->clearSendBuffer(2);
    }
    m_sent.clear();

    flood(600, 106);
    acknowledgeEverything();

    QCOMPARE(m_sent.size(), 512);
}

void TestTransportLayer::receivesByClass_data()
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

void TestTransportLayer::receivesByClass()
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
    QTRY_COMPARE(m_line->received().toHex(), (answer + Data0).toHex());
}

void TestTransportLayer::repeatedPacketIsDeliveredAndAcknowledgedAgain()
{
    QSignalSpy up(m_layer.get(), &TransportLayer::readyRead);

    m_layer->readDataFromInternal(bytes("824565908A90029010B9561CE50A"));
    m_layer->readDataFromInternal(bytes("824565908A90029010B9561CE50A"));

    QCOMPARE(up.count(), 2);
    QTRY_COMPARE(m_line->received(), bytes("82C565EF209D200A82C565EF209D200A"));
}

void TestTransportLayer::replyOfAServiceComesUpOnce()
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

void TestTransportLayer::dropsWhatIsNoPacket_data()
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

void TestTransportLayer::dropsWhatIsNoPacket()
{
    QFETCH(QByteArray, line);
    QSignalSpy up(m_layer.get(), &TransportLayer::readyRead);
    m_log->clear();

    m_layer->readDataFromInternal(line);

    QCOMPARE(up.count(), 0);
    QCOMPARE(m_log->lines(), QStringList());
    send("11");
    QTRY_COMPARE(m_line->received().toHex(), Data0.toHex()); // no answer to the line
}

void TestTransportLayer::classZeroIsFatal()
{
    VERIFY_FATAL("src/BI-Link/transport_layer", 183,
                 TransportLayer(nullptr).readDataFromInternal(bytes("82006511096C01D80A")));
}

void TestTransportLayer::survivesGarbage()
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

void TestTransportLayer::speaksOverTheLineInBothDirections()
{
    QSignalSpy up(m_layer.get(), &TransportLayer::readyRead);
    send("00", 100);
    QTRY_COMPARE(m_line->received().left(Reset0.size()), Reset0);
    m_line->clear();

    QVERIFY(m_line->send(Reset0Ack + bytes("827F651152165B250A")));

    QTRY_COMPARE(m_resetAcks, 1);
    QTRY_COMPARE(up.count(), 1);
    QCOMPARE(up.at(0).at(0).toByteArray(), bytes("11"));
    QTRY_VERIFY(m_line->received().endsWith(bytes("82FF65F568ED480A")));
}

void TestTransportLayer::resetAckIsToldBeforeThePacketGoes()
{
    send("00", 100);
    connect(m_layer.get(), &TransportLayer::resetAckRecieved, this, [this] { note("resetAckRecieved"); });
    connect(m_layer.get(), &TransportLayer::newData, this, [this] { note("newData"); });

    m_layer->readDataFromInternal(Reset0Ack);
    m_layer->readDataFromInternal(Reset0Ack); // a late second one finds nothing

    QCOMPARE(m_events, (QStringList{"resetAckRecieved", "newData", "newData"}));
}

void TestTransportLayer::onlyTheResetIsTold_data()
{
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<int>("serviceId");
    QTest::addColumn<QByteArray>("ack");
    QTest::addColumn<int>("told");

    QTest::newRow("RESET") << QByteArray("00") << 100 << Reset0Ack << 1;
    QTest::newRow("RECONFIG") << QByteArray("64") << 100 << Reset0Ack << 0;
    QTest::newRow("event without code") << QByteArray() << 100 << Reset0Ack << 0;
    QTest::newRow("zero for another service") << QByteArray("00") << 101 << Data0Ack << 0;
    QTest::newRow("another packet's number") << QByteArray("00") << 100 << Data1Ack << 0;
}

void TestTransportLayer::onlyTheResetIsTold()
{
    QFETCH(QByteArray, payload);
    QFETCH(int, serviceId);
    QFETCH(QByteArray, ack);
    QFETCH(int, told);
    send(payload.constData(), static_cast<quint8>(serviceId));

    m_layer->readDataFromInternal(ack);

    QCOMPARE(m_resetAcks, told);
}

void TestTransportLayer::clearSendBufferObeysStartingOnly_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<bool>("cleared");

    QTest::newRow("no link") << 0 << false;
    QTest::newRow("running") << 1 << false;
    QTest::newRow("starting") << 2 << true;
    QTest::newRow("no state at all") << 3 << false;
}

void TestTransportLayer::clearSendBufferObeysStartingOnly()
{
    QFETCH(int, state);
    QFETCH(bool, cleared);
    send("11");
    send("22");

    m_layer->clearSendBuffer(static_cast<quint8>(state));

    const QList<QByteArray> transmissions = cleared ? QList<QByteArray>{Data0} : QList<QByteArray>{Data0, Data0, Data0};
    QCOMPARE(framesUpToLaterFailure(), transmissions);
}

void TestTransportLayer::listenersMayChangeTheSendBuffer()
{
    const QMetaObject::Connection clearing =
        connect(m_layer.get(), &TransportLayer::sendOnInternal, this, [this] { m_layer->clearSendBuffer(2); });
    send("11");
    disconnect(clearing);

    // From within the transmission of one packet the next is queued, and the acknowledgement of the first arrives.
    bool once = true;
    connect(m_layer.get(), &TransportLayer::sendOnInternal, this, [&] {
        if (std::exchange(once, false)) {
            send("33");
            m_layer->readDataFromInternal(Data1Ack);
        }
    });
    send("22");

    QCOMPARE(m_sent, (QList<QByteArray>{Data0, Data1, Data2}));
}

void TestTransportLayer::failedLinkMaySendAtOnce()
{
    connect(m_layer.get(), &TransportLayer::internLinkFail, this, [this] { send("22"); });

    send("11");

    QVERIFY(waitForFailure());
    QCOMPARE(m_sent, (QList<QByteArray>{Data0, Data0, Data0, Data1}));
}

void TestTransportLayer::worksWithoutALine()
{
    TransportLayer layer(nullptr);
    QSignalSpy sent(&layer, &TransportLayer::sendOnInternal);
    QSignalSpy up(&layer, &TransportLayer::readyRead);

    layer.readDataFromService(bytes("11"), Internal, 101, 1);
    layer.readDataFromInternal(bytes("824565908A90029010B9561CE50A"));

    QCOMPARE(sent.count(), 1);
    QCOMPARE(sent.at(0).at(0).toByteArray(), Data0);
    QCOMPARE(up.count(), 1);
}

QTEST_GUILESS_MAIN(TestTransportLayer)
#include "tst_transport_layer.moc"
