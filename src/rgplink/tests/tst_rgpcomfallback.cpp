#include "eventually.h"
#include "linkedhub.h"
#include "logspy.h"

#include <QSignalSpy>
#include <QtTest>

#include <algorithm>
#include <memory>

/// Remote units behind the base controller's relay, and on their way there and back, with real transports and threads.
class TestRGPComFallback : public LinkedHubTest
{
    Q_OBJECT

private slots:
    void unitJoinsOverTheFallback();
    void longMessageGoesOverTheFallbackInBlocks();
    void unitLeavesTheFallback();
    void rejectedFallbackDetachesTheUnit();
    void unitGoesToTheFallbackAndReturns();
    void whatWaitsOnTheFallbackComesFirstAfterTheReturn();
    void initOverTcpWhileTheFallbackIsInUseIsAnsweredOnce();
    void initOverTcpThatWasGivenUpLeavesTheFallbackInUse();
    void commandsAreNeitherLostNorDoubledAcrossLinks();
    void vanishedUnitOnTheFallbackDoesNotStopAHealthyOne();
};

void TestRGPComFallback::unitJoinsOverTheFallback()
{
    QSignalSpy commands(m_plant->hub.data(), &RGPCom::readyReadCmdFromRGP);
    FallbackRelay& relay = m_plant->relay;
    relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == 1);
    QCOMPARE(relay.unit(Unit).count(Init, true), 1);
    QCOMPARE(relay.unit(Unit).lastPayload(InitAck).toHex(), initAckPayload(0, "").toHex());
    m_plant->hub->sendBaseStatusToRemote();
    VERIFY_EVENTUALLY(relay.unit(Unit).count(Status) >= 1);

    relay.deliver(Unit, gLinkFrame(Command, "from 5"));
    VERIFY_EVENTUALLY(commands.count() == 1);
    VERIFY_EVENTUALLY(relay.unit(Unit).count(Command, true) == 1);
}

void TestRGPComFallback::longMessageGoesOverTheFallbackInBlocks()
{
    QSignalSpy periodic(m_plant->hub.data(), &RGPCom::readyReadFromRGP);
    FallbackRelay& relay = m_plant->relay;
    relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == 1);
    QByteArray values(1000, '\0');
    for (int i = 0; i < values.size(); ++i) {
        values[i] = char(i * 7);
    }
    m_plant->hub->send(Unit, Forward, values);
    VERIFY_EVENTUALLY(relay.unit(Unit).lastPayload(Forward) == values);
    relay.deliver(Unit, gLinkFrame(Periodic, values));
    VERIFY_EVENTUALLY(periodic.count() == 1);
    QCOMPARE(periodic.at(0).at(2).toByteArray(), values);
}

void TestRGPComFallback::unitLeavesTheFallback()
{
    FallbackRelay& relay = m_plant->relay;
    relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == 1);
    relay.deliver(Unit, gLinkFrame(DeInit, QByteArray()));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(DeInit, true) == 1);
    m_plant->hub->send(Unit, Forward, "dropped");
    relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == 2);
    QCOMPARE(relay.unit(Unit).count(Forward), 0);
}

void TestRGPComFallback::rejectedFallbackDetachesTheUnit()
{
    LogSpy log;
    FallbackRelay& relay = m_plant->relay;
    relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == 1);
    relay.reject();
    VERIFY_EVENTUALLY(log.count("RGPCom::removeFallbackLink 5") == 1);
    const int frames = relay.unit(Unit).frames.size();
    m_plant->hub->send(Unit, Forward, "dropped");

    relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == 2);
    QVERIFY(relay.unit(Unit).frames.size() > frames);
    QCOMPARE(relay.unit(Unit).count(Forward), 0);
}

void TestRGPComFallback::unitGoesToTheFallbackAndReturns()
{
    FallbackRelay& relay = m_plant->relay;
    auto tcp = std::make_unique<TcpUnit>();
    tcp->write(initFrame(Unit));
    VERIFY_EVENTUALLY(tcp->received.count(InitAck) == 1);
    tcp.reset();

    relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == 1);
    m_plant->hub->send(Unit, Forward, "over the fallback");
    VERIFY_EVENTUALLY(relay.unit(Unit).lastPayload(Forward) == QByteArray("over the fallback"));

    tcp = std::make_unique<TcpUnit>();
    tcp->write(initFrame(Unit));
    VERIFY_EVENTUALLY(tcp->received.count(InitAck) == 1);
    m_plant->hub->send(Unit, Forward, "over TCP");
    VERIFY_EVENTUALLY(tcp->received.lastPayload(Forward) == QByteArray("over TCP"));
    const int framesOverFallback = relay.unit(Unit).frames.size();
    m_plant->hub->sendBaseStatusToRemote();
    VERIFY_EVENTUALLY(tcp->received.count(Status) >= 1);
    QCOMPARE(relay.unit(Unit).frames.size(), framesOverFallback);
}

// The base controller is slow to ask, or the unit quick to return: nothing is lost, late or out of order.
void TestRGPComFallback::whatWaitsOnTheFallbackComesFirstAfterTheReturn()
{
    const LogSpy log;
    FallbackRelay& relay = m_plant->relay;
    relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == 1);
    relay.isAsking = false;
    m_plant->hub->send(Unit, Forward, "taken");
    VERIFY_EVENTUALLY(relay.unit(Unit).count(Forward) == 1);
    const int queued = log.count("Link BUSY, Tx message queued.");
    m_plant->hub->sendCmd("not asked for");
    VERIFY_EVENTUALLY(log.count("Link BUSY, Tx message queued.") > queued);
    m_plant->hub->sendCmd("behind it");

    TcpUnit tcp;
    tcp.write(initFrame(Unit));
    VERIFY_EVENTUALLY(tcp.received.count(InitAck) == 1 && tcp.received.count(Command) == 2);
    QCOMPARE(tcp.received.payloads(Command), (QByteArrayList{"not asked for", "behind it"}));
    relay.isAsking = true;
    relay.ask(Unit);
    relay.deliver(OtherUnit, initFrame(OtherUnit));
    VERIFY_EVENTUALLY(relay.unit(OtherUnit).count(InitAck) == 1);
    QCOMPARE(relay.unit(Unit).count(Command), 0);
}

// An INIT over TCP while the fallback is in use yields exactly one INITACK, on either path, under load too.
void TestRGPComFallback::initOverTcpWhileTheFallbackIsInUseIsAnsweredOnce()
{
    FallbackRelay& relay = m_plant->relay;
    for (int round = 1; round <= 20; ++round) {
        relay.deliver(Unit, initFrame(Unit));
        VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == round);
        TcpUnit tcp;
        tcp.write(initFrame(Unit));
        for (int i = 0; i < 10; ++i) {
            m_plant->hub->send(Unit, Forward, "load");
            QCoreApplication::processEvents();
        }
        VERIFY_EVENTUALLY(tcp.received.count(InitAck) + relay.unit(Unit).count(InitAck) == round + 1);
        m_plant->hub->send(Unit, Forward, "the last one");
        VERIFY_EVENTUALLY(tcp.received.lastPayload(Forward) == QByteArray("the last one"));
        QCOMPARE(tcp.received.count(InitAck) + relay.unit(Unit).count(InitAck), round + 1);
    }
}

// An INIT over TCP waits for a large application to be hashed. The unit does not, and goes to the fallback meanwhile.
void TestRGPComFallback::initOverTcpThatWasGivenUpLeavesTheFallbackInUse()
{
    ReceivedFrames& received = m_plant->relay.unit(Unit);
    GLinkTransportTcp givenUp(-1, 0, nullptr, nullptr, nullptr);
    const QSignalSpy ended(&givenUp, &GLinkTransportTcp::finished);
    givenUp.handleInitMsg();
    m_plant->relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(received.count(InitAck) == 1);

    m_plant->hub->addGLink(Unit, &givenUp);
    m_plant->hub->dataFromGLink(Unit, Init, initPayload(Unit, BaseUnit::Identity), &givenUp);
    m_plant->hub->send(Unit, Forward, "still there");

    VERIFY_EVENTUALLY(received.lastPayload(Forward) == "still there");
    VERIFY_EVENTUALLY(ended.count() == 1);
    QCOMPARE(received.count(InitAck), 1);
}

// Fallback and return under load, without a lost or doubled command. A command is accepted for a unit that has a link,
// so the test sends while it knows of one.
void TestRGPComFallback::commandsAreNeitherLostNorDoubledAcrossLinks()
{
    FallbackRelay& relay = m_plant->relay;
    QList<QByteArray> overTcp;
    int number = 0;
    const auto sendSome = [&] {
        for (int i = 0; i < 20; ++i) {
            m_plant->hub->send(Unit, Command, QByteArray::number(number++));
        }
    };
    relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == 1);
    for (int round = 0; round < 5; ++round) {
        sendSome();
        TcpUnit tcp;
        tcp.write(initFrame(Unit));
        VERIFY_EVENTUALLY(tcp.received.count(InitAck) == 1);
        sendSome();
        m_plant->hub->send(Unit, Forward, "all sent");
        VERIFY_EVENTUALLY(tcp.received.count(Forward) == 1);
        for (const QByteArray& frame : qAsConst(tcp.received.frames)) {
            if (frame.at(3) == Command && frame.at(4) == 0) {
                overTcp << ReceivedFrames::payloadOf(frame);
            }
        }
        // The unit prefers the fallback again while TCP still stands.
        const int answers = relay.unit(Unit).count(InitAck);
        relay.deliver(Unit, initFrame(Unit));
        VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == answers + 1);
    }
    QList<int> arrived;
    for (const QByteArray& payload : qAsConst(overTcp)) {
        arrived << payload.toInt();
    }
    for (const QByteArray& frame : qAsConst(relay.unit(Unit).frames)) {
        if (frame.at(3) == Command && frame.at(4) == 0) {
            arrived << ReceivedFrames::payloadOf(frame).toInt();
        }
    }
    std::sort(arrived.begin(), arrived.end());
    QList<int> sent;
    for (int i = 0; i < number; ++i) {
        sent << i;
    }
    QCOMPARE(arrived, sent);
}

void TestRGPComFallback::vanishedUnitOnTheFallbackDoesNotStopAHealthyOne()
{
    FallbackRelay& relay = m_plant->relay;
    relay.deliver(OtherUnit, initFrame(OtherUnit));
    VERIFY_EVENTUALLY(relay.unit(OtherUnit).count(InitAck) == 1);
    relay.isAcknowledging = false;
    m_plant->hub->send(OtherUnit, Forward, "never acknowledged");
    VERIFY_EVENTUALLY(relay.unit(OtherUnit).count(Forward) == 1);
    relay.isAcknowledging = true;

    relay.deliver(Unit, initFrame(Unit));
    VERIFY_EVENTUALLY(relay.unit(Unit).count(InitAck) == 1);
    for (int i = 1; i <= 5; ++i) {
        m_plant->hub->sendBaseStatusToRemote();
        VERIFY_EVENTUALLY(relay.unit(Unit).count(Status) >= i);
    }
}

QTEST_GUILESS_MAIN(TestRGPComFallback)
#include "tst_rgpcomfallback.moc"
