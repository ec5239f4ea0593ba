#include "acknowledgement.h"
#include "transportonaline.h"

#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include <utility>

using namespace TransportPackets;

namespace {

// Reference clocks on either side of the 50 ms that a transmission waits for its acknowledgement. They run in the same
// event loop as the layer's timers, and so keep their order with them however busy the machine is.
constexpr int WellBeforeMs = 20;
constexpr int WellAfterMs = 80;

} // namespace

class TestTransportLayer : public TransportOnALine
{
    Q_OBJECT

private slots:
    void init();
    void cleanup() { end(); }

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

    void resetAckIsToldBeforeThePacketGoes();
    void onlyTheResetIsTold_data();
    void onlyTheResetIsTold();
    void clearSendBufferObeysStartingOnly_data();
    void clearSendBufferObeysStartingOnly();
    void listenersMayChangeTheSendBuffer();
    void failedLinkMaySendAtOnce();
    void worksWithoutALine();

private:
    void note(const QString& event) { m_events.append(event); }
    void noteTransmissionsAndTime();
    bool nextStepCameInTime(int step) const;
    bool waitForTransmission(int count);
    void flood(int packets, quint8 serviceId);
    void acknowledgeEverything();

    int m_steps = 0;
    QStringList m_events;
};

void TestTransportLayer::init()
{
    begin();
    m_events.clear();
    m_steps = 0;
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
        if (!spy.wait(PatienceMs)) {
            return false;
        }
    }
    return m_sent.size() == count;
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
