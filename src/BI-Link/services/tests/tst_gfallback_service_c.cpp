#include "fallbackchannel.h"
#include "fatalprobe.h"
#include "gfallback_service_c.h"
#include "logspy.h"

#include <QSignalSpy>
#include <QtTest>

class TestGfallbackServiceC : public QObject
{
    Q_OBJECT

private slots:
    void longMessageGoesInBlocksOnFlowControl();
    void messageOfOneFullBlockIsItsOwnLastBlock();
    void blocksCarryTheServicesIdAndClass();
    void acknowledgementWaitsForTheLastBlockAndOvertakesTheWaitingMessage();
    void acknowledgementNeverInterruptsAMessage();
    void typeByteTellsAnAcknowledgementWhateverElseIsThere();
    void onlyOneAcknowledgementAndOneMessageWait();
    void unitsHaveChannelsOfTheirOwn();
    void resetFreesTheChannel();
    void resetOfAnUnknownUnitDoesNothing();
    void flowControlOfAnUnknownUnitDoesNothing();
    void emptyMessageDoesNotBlockTheChannel();
    void messageTooLongToAnnounceIsDropped();
    void dataIsHandledFromTheEventLoop();
    void oneByteReplies_data();
    void oneByteReplies();
    void receivedBlocks_data();
    void receivedBlocks();
    void partsOfAMessageAreReported();
    void endlessMessageIsDiscarded();
    void lastBlockCannotMakeAMessageTooLong();
    void randomPacketsAreSurvived();
    void otherLinkOrClassIsFatal();
};

void TestGfallbackServiceC::longMessageGoesInBlocksOnFlowControl()
{
    FallbackChannel f;
    const QByteArray data = message(600);

    f.service.fallbackTx(7, data);
    QCOMPARE(f.count(), 1);
    QCOMPARE(f.lastHeader(), QByteArray("07005802")); // 600
    QCOMPARE(f.lastData(), data.mid(0, 250));
    QCOMPARE(f.service.linkStatus(7), GfallbackServiceC::BUSY_MSG);

    f.next();
    QCOMPARE(f.count(), 2);
    QCOMPARE(f.lastHeader(), QByteArray("07005e01")); // 350
    QCOMPARE(f.lastData(), data.mid(250, 250));

    f.next();
    QCOMPARE(f.count(), 3);
    QCOMPARE(f.lastHeader(), QByteArray("07006400")); // 100
    QCOMPARE(f.lastData(), data.mid(500, 100));
    QCOMPARE(f.service.linkStatus(7), GfallbackServiceC::BUSY_MSG_LAST_BLOCK);

    f.next();
    QCOMPARE(f.count(), 3);
    QCOMPARE(f.service.linkStatus(7), GfallbackServiceC::FREE);
}

void TestGfallbackServiceC::messageOfOneFullBlockIsItsOwnLastBlock()
{
    FallbackChannel f;
    f.service.fallbackTx(0x0201, message(250));

    QCOMPARE(f.count(), 1);
    QCOMPARE(f.lastHeader(), QByteArray("0102fa00"));
    QCOMPARE(f.lastData().size(), 250);
    QCOMPARE(f.service.linkStatus(0x0201), GfallbackServiceC::BUSY_MSG_LAST_BLOCK);

    f.service.fallbackTx(8, message(251));
    QCOMPARE(f.service.linkStatus(8), GfallbackServiceC::BUSY_MSG);
    f.next("0800");
    QCOMPARE(f.lastHeader(), QByteArray("08000100"));
    QCOMPARE(f.service.linkStatus(8), GfallbackServiceC::BUSY_MSG_LAST_BLOCK);
}

void TestGfallbackServiceC::blocksCarryTheServicesIdAndClass()
{
    FallbackChannel f;
    f.service.fallbackTx(7, message(30));
    QCOMPARE(f.spy.at(0).at(1).value<Link>(), Internal);
    QCOMPARE(f.spy.at(0).at(2).toInt(), 105);
    QCOMPARE(f.spy.at(0).at(3).toInt(), 1);
}

void TestGfallbackServiceC::acknowledgementWaitsForTheLastBlockAndOvertakesTheWaitingMessage()
{
    LogSpy log;
    FallbackChannel f;
    f.service.fallbackTx(7, message(300));
    f.next(); // the last block is out
    f.service.fallbackTx(7, message(40, 'w'));
    f.service.fallbackTx(7, acknowledgement());
    QCOMPARE(f.count(), 2);
    QCOMPARE(log.count("Link BUSY, Tx message queued."), 1);
    QCOMPARE(log.count("Link BUSY, ack queued."), 1);

    f.next();
    QCOMPARE(f.count(), 3);
    QCOMPARE(f.lastData(), acknowledgement());
    QCOMPARE(f.service.linkStatus(7), GfallbackServiceC::BUSY_ACK);

    f.next();
    QCOMPARE(f.count(), 4);
    QCOMPARE(f.lastData(), message(40, 'w'));
    QCOMPARE(f.service.linkStatus(7), GfallbackServiceC::BUSY_MSG_LAST_BLOCK);

    f.next();
    QCOMPARE(f.count(), 4);
    QCOMPARE(f.service.linkStatus(7), GfallbackServiceC::FREE);
}

void TestGfallbackServiceC::acknowledgementNeverInterruptsAMessage()
{
    FallbackChannel f;
    f.service.fallbackTx(7, message(600));
    f.service.fallbackTx(7, acknowledgement());

    f.next();
    f.next();
    QCOMPARE(f.count(), 3);
    QCOMPARE(f.lastHeader(), QByteArray("07006400"));

    f.next();
    QCOMPARE(f.count(), 4);
    QCOMPARE(f.lastData(), acknowledgement());
    f.next();
    QCOMPARE(f.service.linkStatus(7), GfallbackServiceC::FREE);
}

void TestGfallbackServiceC::typeByteTellsAnAcknowledgementWhateverElseIsThere()
{
    FallbackChannel f;
    f.service.fallbackTx(7, QByteArray::fromHex("0000010301"));
    QCOMPARE(f.service.linkStatus(7), GfallbackServiceC::BUSY_ACK);
    f.service.fallbackTx(8, QByteArray::fromHex("0000010300"));
    QCOMPARE(f.service.linkStatus(8), GfallbackServiceC::BUSY_MSG_LAST_BLOCK);
    f.service.fallbackTx(9, QByteArray::fromHex("01010101"));
    QCOMPARE(f.service.linkStatus(9), GfallbackServiceC::BUSY_MSG_LAST_BLOCK);
}

void TestGfallbackServiceC::onlyOneAcknowledgementAndOneMessageWait()
{
    LogSpy log;
    FallbackChannel f;
    f.service.fallbackTx(7, acknowledgement('1'));
    QCOMPARE(f.service.linkStatus(7), GfallbackServiceC::BUSY_ACK);
    QVERIFY(log.contains("remoteId 7 Length 21 status 1"));

    f.service.fallbackTx(7, acknowledgement('2'));
    f.service.fallbackTx(7, acknowledgement('3'));
    f.service.fallbackTx(7, message(30, '4'));
    f.service.fallbackTx(7, message(30, '5'));
    QCOMPARE(log.count("Link BUSY, ACK LOST!"), 1);
    QCOMPARE(log.count("Link BUSY, Tx message LOST!"), 1);

    f.next();
    f.next();
    f.next();
    QCOMPARE(f.count(), 3);
    QCOMPARE(f.block(1).mid(4), acknowledgement('2'));
    QCOMPARE(f.block(2).mid(4), message(30, '4'));
}

void TestGfallbackServiceC::unitsHaveChannelsOfTheirOwn()
{
    FallbackChannel f;
    f.service.fallbackTx(7, message(300, '7'));
    f.service.fallbackTx(8, message(300, '8'));
    QCOMPARE(f.count(), 2);

    f.next("0800");
    QCOMPARE(f.count(), 3);
    QCOMPARE(f.lastHeader(), QByteArray("08003200"));
    QCOMPARE(f.service.linkStatus(7), GfallbackServiceC::BUSY_MSG);
    QCOMPARE(f.service.linkStatus(8), GfallbackServiceC::BUSY_MSG_LAST_BLOCK);
}

void TestGfallbackServiceC::resetFreesTheChannel()
{
    FallbackChannel f;
    f.service.fallbackTx(7, message(600));
    f.service.fallbackTx(7, acknowledgement());
    f.service.reset(7);
    QCOMPARE(f.service.linkStatus(7), GfallbackServiceC::FREE);

    f.next(); // of the block that was already out
    QCOMPARE(f.count(), 1);
    f.service.fallbackTx(7, message(30));
    QCOMPARE(f.count(), 2);
    QCOMPARE(f.lastHeader(), QByteArray("07001e00"));
}

void TestGfallbackServiceC::resetOfAnUnknownUnitDoesNothing()
{
    FallbackChannel f;
    f.service.reset(9);
    QCOMPARE(f.count(), 0);
    QCOMPARE(f.service.linkStatus(9), GfallbackServiceC::FREE);
}

void TestGfallbackServiceC::flowControlOfAnUnknownUnitDoesNothing()
{
    FallbackChannel f;
    f.next("0900");
    QCOMPARE(f.count(), 0);
    QCOMPARE(f.service.linkStatus(9), GfallbackServiceC::FREE);
}

void TestGfallbackServiceC::emptyMessageDoesNotBlockTheChannel()
{
    FallbackChannel f;
    f.service.fallbackTx(7, QByteArray());
    QByteArray nothing;
    f.service.sendDataBlock(7, nothing);
    QCOMPARE(f.count(), 0);
    QCOMPARE(f.service.linkStatus(7), GfallbackServiceC::FREE);
}

void TestGfallbackServiceC::messageTooLongToAnnounceIsDropped()
{
    LogSpy log;
    FallbackChannel f;
    f.service.fallbackTx(7, message(65536));
    QCOMPARE(f.count(), 0);
    QCOMPARE(f.service.linkStatus(7), GfallbackServiceC::FREE);
    QVERIFY(log.contains("GfallbackServiceC: message to remote unit 7 of 65536 bytes is too long, dropped."));

    f.service.fallbackTx(7, message(65535));
    QCOMPARE(f.lastHeader(), QByteArray("0700ffff"));
}

void TestGfallbackServiceC::dataIsHandledFromTheEventLoop()
{
    FallbackChannel f;
    QSignalSpy failed(&f.service, &GfallbackServiceC::linkFailed);
    f.service.readData(QByteArray(1, '\0'), Internal, MSG_CLASS_TRANSP_ACK);
    QCOMPARE(failed.count(), 0);
    QTRY_COMPARE(failed.count(), 1);
}

void TestGfallbackServiceC::oneByteReplies_data()
{
    QTest::addColumn<QByteArray>("packet");
    QTest::addColumn<int>("failures");
    QTest::addColumn<QStringList>("log");

    QTest::newRow("rejected") << QByteArray(1, '\0') << 1 << QStringList();
    QTest::newRow("accepted") << QByteArray(1, '\1') << 0 << QStringList();
    QTest::newRow("unknown") << QByteArray(1, '\xC8') << 0 << QStringList{"Unknown one-byte ack received: 200"};
    QTest::newRow("empty") << QByteArray() << 0 << QStringList{"Empty data!"};
}

void TestGfallbackServiceC::oneByteReplies()
{
    QFETCH(QByteArray, packet);
    QFETCH(int, failures);
    QFETCH(QStringList, log);
    LogSpy spy;
    FallbackChannel f;
    QSignalSpy failed(&f.service, &GfallbackServiceC::linkFailed);

    f.service.readData_(packet);

    QCOMPARE(failed.count(), failures);
    QCOMPARE(spy.lines(), log);
}

void TestGfallbackServiceC::receivedBlocks_data()
{
    QTest::addColumn<QList<QByteArray>>("blocks");
    QTest::addColumn<QList<int>>("ids");
    QTest::addColumn<QList<QByteArray>>("messages");
    const auto hex = [](const char* text) {
        return QByteArray::fromHex(text);
    };
    const QList<int> none;
    const QList<QByteArray> nothing;

    QTest::newRow("single block is delivered at once")
        << QList<QByteArray>{hex("07000300616263")} << QList<int>{7} << QList<QByteArray>{"abc"};
    QTest::newRow("three blocks make one message")
        << QList<QByteArray>{hex("070005006162"), hex("070003006364"), hex("0700010065")} << QList<int>{7}
        << QList<QByteArray>{"abcde"};
    QTest::newRow("another unit's block discards the partial message")
        << QList<QByteArray>{hex("070005006162"), hex("0800010078"), hex("0700010065")} << QList<int>{8, 7}
        << QList<QByteArray>{"x", "e"};
    QTest::newRow("header alone, nothing remaining")
        << QList<QByteArray>{hex("07000000")} << QList<int>{7} << QList<QByteArray>{""};
    QTest::newRow("header alone, more to come")
        << QList<QByteArray>{hex("07000100"), hex("0700010061")} << QList<int>{7} << QList<QByteArray>{"a"};
    QTest::newRow("header of three bytes") << QList<QByteArray>{hex("070001")} << none << nothing;
    QTest::newRow("header of three bytes, nothing remaining") << QList<QByteArray>{hex("070000")} << none << nothing;
    QTest::newRow("remaining length smaller than the data takes that many bytes")
        << QList<QByteArray>{hex("07000200616263"), hex("0700010064")} << QList<int>{7} << QList<QByteArray>{"abd"};
    QTest::newRow("remaining length 0 with data takes nothing")
        << QList<QByteArray>{hex("07000000616263"), hex("0700010064")} << QList<int>{7} << QList<QByteArray>{"d"};
    QTest::newRow("unit 0 after a restart")
        << QList<QByteArray>{hex("0000010061")} << QList<int>{0} << QList<QByteArray>{"a"};
}

void TestGfallbackServiceC::receivedBlocks()
{
    QFETCH(QList<QByteArray>, blocks);
    QFETCH(QList<int>, ids);
    QFETCH(QList<QByteArray>, messages);
    FallbackChannel f;
    QSignalSpy received(&f.service, &GfallbackServiceC::fallbackRx);

    for (const QByteArray& block : blocks) {
        f.service.readData_(block);
    }

    QCOMPARE(received.count(), ids.size());
    for (int i = 0; i < ids.size(); ++i) {
        QCOMPARE(received.at(i).at(0).toInt(), ids.at(i));
        QCOMPARE(received.at(i).at(1).toByteArray(), messages.at(i));
    }
}

void TestGfallbackServiceC::partsOfAMessageAreReported()
{
    LogSpy log;
    FallbackChannel f;
    f.service.readData_(QByteArray::fromHex("070005006162"));
    f.service.readData_(QByteArray::fromHex("070003006364"));
    QCOMPARE(log.lines(),
             (QStringList{"GfallbackServiceC::readData_() 6 2 7", "GfallbackServiceC::readData_() 6 4 7"}));
}

void TestGfallbackServiceC::endlessMessageIsDiscarded()
{
    LogSpy log;
    FallbackChannel f;
    QSignalSpy received(&f.service, &GfallbackServiceC::fallbackRx);
    const QByteArray block = QByteArray::fromHex("0700FFFF") + QByteArray(250, 'x');
    const QString complaint = QStringLiteral("GfallbackServiceC: endless message of remote unit 7 discarded.");

    // The largest frame has 65556 bytes: 262 blocks of 250 bytes fit, the 263rd is too much.
    for (int i = 0; i < 262; ++i) {
        f.service.readData_(block);
    }
    QVERIFY(!log.contains(complaint));
    f.service.readData_(block);
    QCOMPARE(log.count(complaint), 1);

    f.service.readData_(QByteArray::fromHex("0700010061"));
    QCOMPARE(received.count(), 1);
    QCOMPARE(received.at(0).at(1).toByteArray(), QByteArray("a"));
}

void TestGfallbackServiceC::lastBlockCannotMakeAMessageTooLong()
{
    LogSpy log;
    FallbackChannel f;
    QSignalSpy received(&f.service, &GfallbackServiceC::fallbackRx);
    for (int i = 0; i < 262; ++i) {
        f.service.readData_(QByteArray::fromHex("0700FFFF") + QByteArray(250, 'x'));
    }
    f.service.readData_(QByteArray::fromHex("0700FA00") + QByteArray(250, 'x'));
    QCOMPARE(received.count(), 0);
    QVERIFY(log.contains("GfallbackServiceC: endless message of remote unit 7 discarded."));
}

void TestGfallbackServiceC::randomPacketsAreSurvived()
{
    LogSpy log;
    FallbackChannel f;
    quint32 seed = 20240521;
    const auto random = [&seed](quint32 bound) {
        seed = seed * 1664525U + 1013904223U;
        return (seed >> 8) % bound;
    };
    for (int i = 0; i < 20000; ++i) {
        QByteArray packet(static_cast<int>(random(12)), '\0');
        for (char& byte : packet) {
            byte = static_cast<char>(random(4));
        }
        f.service.readData_(packet);
    }

    QSignalSpy received(&f.service, &GfallbackServiceC::fallbackRx);
    f.service.readData_(QByteArray::fromHex("AAAA0100") + "z");
    QCOMPARE(received.count(), 1);
    QCOMPARE(received.at(0).at(1).toByteArray(), QByteArray("z"));
}

void TestGfallbackServiceC::otherLinkOrClassIsFatal()
{
    GfallbackServiceC service(nullptr, Id);
    const FatalOutcome link = outcomeOf([&] { service.readData("ab", Graphical, MSG_CLASS_TRANSP_ACK); });
    QVERIFY(link.diedOfAbort);
    QCOMPARE(link.log, QString("Unexpected fromLink: not Internal!\n"));
    const FatalOutcome messageClass = outcomeOf([&] { service.readData("ab", Internal, MSG_CLASS_SERVICE_ACK); });
    QVERIFY(messageClass.diedOfAbort);
    QCOMPARE(messageClass.log, QString("Unexpected messageClass: not MSG_CLASS_TRANSP_ACK!\n"));
}

QTEST_GUILESS_MAIN(TestGfallbackServiceC)
#include "tst_gfallback_service_c.moc"
