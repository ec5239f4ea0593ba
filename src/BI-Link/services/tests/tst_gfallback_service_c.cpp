#include "fatalprobe.h"
#include "gfallback_service_c.h"
#include "logspy.h"
#include "standingclock.h"

#include <QSignalSpy>
#include <QtTest>

#include <chrono>

using namespace std::chrono_literals;

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
    void messagesInTurnWaitInTheirOrder();
    void acknowledgementDoesNotWaitBehindMessagesInTurn();
    void messagesInTurnAreBounded();
    void messageThatCannotBeSentDoesNotHoldUpTheOthersInTurn();
    void resetForgetsTheMessagesInTurn();
    void withdrawnMessagesNeverGoOut();
    void withdrawnMessagesAreGivenBackInTheirOrder();
    void messageOfWhichBlocksAreOutIsGivenBackWhole();
    void everyWithdrawalIsAnswered();
    void whatHasWaitedForTooLongIsNotGivenBack();
    void withdrawnRestOfAMessageLetsTheNextAcknowledgementThrough();
    void lostLinkFreesAllChannels();
    void withoutALinkMessagesInTurnAreDropped();
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

namespace {

constexpr serviceId_T Id = 105;

/// A frame header as a remote unit would see it; the CRCs do not matter to this service.
QByteArray frame(char msgType, int size, char fill)
{
    QByteArray bytes(size, fill);
    bytes.replace(0, 5, QByteArray::fromHex("0000010300"));
    bytes[4] = msgType;
    return bytes;
}

QByteArray message(int size, char fill = 'm')
{
    return frame(0, size, fill);
}

QByteArray acknowledgement(char fill = 'a')
{
    return frame(1, 21, fill);
}

/// The service with what it has sent, and a base controller that says "next".
struct Fixture
{
    GfallbackServiceC service{nullptr, Id};
    QSignalSpy spy{&service, &ServiceBase::readyReadFromService};
    QSignalSpy givenBackSpy{&service, &GfallbackServiceC::givenBack};

    int count() const { return spy.count(); }
    QByteArray block(int index) const { return spy.at(index).at(0).toByteArray(); }
    QByteArray lastHeader() const { return block(count() - 1).left(4).toHex(); }
    QByteArray lastData() const { return block(count() - 1).mid(4); }
    QByteArrayList givenBack() const { return givenBackSpy.last().at(1).value<QByteArrayList>(); }
    void next(const char* remoteId = "0700") { service.readData_(QByteArray::fromHex(remoteId)); }
};

} // namespace

void TestGfallbackServiceC::longMessageGoesInBlocksOnFlowControl()
{
    Fixture f;
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
    Fixture f;
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
    Fixture f;
    f.service.fallbackTx(7, message(30));
    QCOMPARE(f.spy.at(0).at(1).value<Link>(), Internal);
    QCOMPARE(f.spy.at(0).at(2).toInt(), 105);
    QCOMPARE(f.spy.at(0).at(3).toInt(), 1);
}

void TestGfallbackServiceC::acknowledgementWaitsForTheLastBlockAndOvertakesTheWaitingMessage()
{
    LogSpy log;
    Fixture f;
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
    Fixture f;
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
    Fixture f;
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
    Fixture f;
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

void TestGfallbackServiceC::messagesInTurnWaitInTheirOrder()
{
    LogSpy log;
    Fixture f;
    for (const char text : {'1', '2', '3', '4', '5'}) {
        f.service.fallbackTxInTurn(7, message(text == '2' ? 300 : 30, text));
    }
    f.service.fallbackTxInTurn(8, message(30, '8'));
    QCOMPARE(f.count(), 2);

    QByteArray order;
    for (int flowControls = 0; flowControls < 6; ++flowControls) {
        f.next();
        order += f.lastData().right(1);
    }
    QCOMPARE(order, QByteArray("223455")); // the second message has two blocks; nothing follows the fifth
    QCOMPARE(f.service.linkStatus(7), GfallbackServiceC::FREE);
    QCOMPARE(log.count("Link BUSY, Tx message LOST!"), 0);
}

void TestGfallbackServiceC::acknowledgementDoesNotWaitBehindMessagesInTurn()
{
    Fixture f;
    for (const char text : {'1', '2', '3'}) {
        f.service.fallbackTxInTurn(7, message(30, text));
    }
    f.service.fallbackTxInTurn(7, acknowledgement());
    f.next();
    QCOMPARE(f.lastData(), acknowledgement());
    f.next();
    QCOMPARE(f.lastData(), message(30, '2'));
    f.next();
    QCOMPARE(f.lastData(), message(30, '3'));
}

void TestGfallbackServiceC::messagesInTurnAreBounded()
{
    LogSpy log;
    Fixture f;
    for (int i = 0; i < 100; ++i) { // one under way, one in its place, 64 behind it
        f.service.fallbackTxInTurn(7, message(30));
    }
    QCOMPARE(log.count("Link BUSY, Tx message LOST!"), 100 - 66);
    for (int i = 0; i < 100; ++i) {
        f.next();
    }
    QCOMPARE(f.count(), 66);
}

void TestGfallbackServiceC::messageThatCannotBeSentDoesNotHoldUpTheOthersInTurn()
{
    Fixture f;
    f.service.fallbackTxInTurn(7, message(30, '1'));
    f.service.fallbackTxInTurn(7, message(30, '2'));
    f.service.fallbackTxInTurn(7, message(65536));
    f.service.fallbackTxInTurn(7, QByteArray());
    f.service.fallbackTxInTurn(7, message(30, '3'));
    f.next();
    f.next();
    QCOMPARE(f.lastData(), message(30, '3'));
}

void TestGfallbackServiceC::resetForgetsTheMessagesInTurn()
{
    Fixture f;
    for (const char text : {'1', '2', '3', '4'}) {
        f.service.fallbackTxInTurn(7, message(30, text));
    }
    f.service.reset(7);
    f.next();
    QCOMPARE(f.count(), 1);
    f.service.fallbackTxInTurn(7, message(30, '5'));
    QCOMPARE(f.lastData(), message(30, '5'));
}

void TestGfallbackServiceC::withdrawnMessagesNeverGoOut()
{
    Fixture f;
    for (const char fill : {'1', '2', '3'}) {
        f.service.fallbackTxInTurn(7, message(100, fill));
    }
    f.service.fallbackTxInTurn(7, acknowledgement());
    f.service.fallbackTxInTurn(8, message(100));
    f.service.fallbackTxInTurn(8, message(100, 'o'));

    f.service.withdraw(7);
    f.service.withdraw(7);
    f.service.withdraw(9);
    QCOMPARE(f.service.linkStatus(7), GfallbackServiceC::BUSY_MSG_LAST_BLOCK);
    QCOMPARE(f.count(), 2);

    f.next();
    QCOMPARE(f.count(), 2);
    QCOMPARE(f.service.linkStatus(7), GfallbackServiceC::FREE);
    f.next("0800");
    QCOMPARE(f.lastData(), message(100, 'o'));
}

void TestGfallbackServiceC::withdrawnMessagesAreGivenBackInTheirOrder()
{
    LogSpy log;
    Fixture f;
    for (const char fill : {'1', '2', '3'}) {
        f.service.fallbackTxInTurn(7, message(100, fill));
    }
    f.service.fallbackTxInTurn(7, acknowledgement());
    f.service.withdraw(7);
    QCOMPARE(f.givenBack(), (QByteArrayList{message(100, '2'), message(100, '3')})); // the first is out
    QCOMPARE(log.count(" dropped, it is back on TCP."), 0);
}

void TestGfallbackServiceC::messageOfWhichBlocksAreOutIsGivenBackWhole()
{
    Fixture f;
    f.service.fallbackTx(7, message(600));
    f.next();
    f.service.withdraw(7);
    QCOMPARE(f.givenBack(), QByteArrayList{message(600)});

    f.service.reset(7);
    f.service.fallbackTx(7, message(600, 'w'));
    f.next();
    f.next(); // its last block is out
    f.service.withdraw(7);
    QCOMPARE(f.givenBack(), QByteArrayList());
}

void TestGfallbackServiceC::everyWithdrawalIsAnswered()
{
    Fixture f;
    f.service.fallbackTxInTurn(8, message(100));
    f.service.fallbackTxInTurn(8, message(100, 'o'));
    for (const unsigned short remoteId : {7, 7, 8, 8}) {
        f.service.withdraw(remoteId);
    }
    QCOMPARE(f.givenBackSpy.count(), 4);
    QCOMPARE(f.givenBackSpy.at(1).at(0).toInt(), 7);
    QCOMPARE(f.givenBackSpy.at(1).at(1).value<QByteArrayList>(), QByteArrayList());
    QCOMPARE(f.givenBackSpy.at(2).at(0).toInt(), 8);
    QCOMPARE(f.givenBackSpy.at(2).at(1).value<QByteArrayList>(), QByteArrayList{message(100, 'o')});
    QCOMPARE(f.givenBack(), QByteArrayList());
}

void TestGfallbackServiceC::whatHasWaitedForTooLongIsNotGivenBack()
{
    LogSpy log;
    StandingClock clock;
    Fixture f;
    f.service.fallbackTxInTurn(7, message(100));
    for (const char fill : {'2', '3'}) {
        f.service.fallbackTxInTurn(7, message(100, fill)); // in the unit's place, and behind it
    }
    clock.advance(1ms);
    f.service.fallbackTxInTurn(7, message(100, '4'));
    clock.advance(1000ms);
    f.service.withdraw(7);
    QCOMPARE(f.givenBack(), QByteArrayList{message(100, '4')});
    QCOMPARE(log.count("GfallbackServiceC: 2 messages to remote unit 7 dropped, it is back on TCP."), 1);
}

void TestGfallbackServiceC::withdrawnRestOfAMessageLetsTheNextAcknowledgementThrough()
{
    Fixture f;
    f.service.fallbackTxInTurn(7, message(600));
    f.service.withdraw(7);

    f.service.fallbackTxInTurn(7, acknowledgement('f')); // of the unit's farewell
    QCOMPARE(f.count(), 1);
    f.next();
    QCOMPARE(f.lastData(), acknowledgement('f'));
    f.next();
    QCOMPARE(f.service.linkStatus(7), GfallbackServiceC::FREE);
}

void TestGfallbackServiceC::lostLinkFreesAllChannels()
{
    Fixture f;
    f.service.followLinkState(1);
    f.service.fallbackTxInTurn(7, message(600));
    f.service.fallbackTxInTurn(7, message(100, 'w'));
    f.service.fallbackTxInTurn(8, message(100));
    f.service.followLinkState(1);
    QCOMPARE(f.service.linkStatus(7), GfallbackServiceC::BUSY_MSG);

    f.service.followLinkState(0);
    QCOMPARE(f.service.linkStatus(7), GfallbackServiceC::FREE);
    QCOMPARE(f.service.linkStatus(8), GfallbackServiceC::FREE);
    QCOMPARE(f.service.waitingMessages(7), 0);

    f.service.followLinkState(1);
    f.service.fallbackTxInTurn(7, message(100, 'n'));
    QCOMPARE(f.count(), 3);
    QCOMPARE(f.lastData(), message(100, 'n'));
}

/// Else they would stand between the RESETs with which the link starts, and the base controller forget them.
void TestGfallbackServiceC::withoutALinkMessagesInTurnAreDropped()
{
    LogSpy log;
    Fixture f;
    f.service.followLinkState(0);
    f.service.fallbackTxInTurn(7, message(100));
    f.service.fallbackTxInTurn(8, acknowledgement());
    QCOMPARE(f.count(), 0);
    QCOMPARE(f.service.linkStatus(7), GfallbackServiceC::FREE);
    QCOMPARE(log.count("GfallbackServiceC: no internal link, messages to remote units are dropped."), 1);

    f.service.followLinkState(1);
    QCOMPARE(f.count(), 0);
    f.service.fallbackTxInTurn(7, message(100, 'n'));
    QCOMPARE(f.count(), 1);
}

void TestGfallbackServiceC::unitsHaveChannelsOfTheirOwn()
{
    Fixture f;
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
    Fixture f;
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
    Fixture f;
    f.service.reset(9);
    QCOMPARE(f.count(), 0);
    QCOMPARE(f.service.linkStatus(9), GfallbackServiceC::FREE);
}

void TestGfallbackServiceC::flowControlOfAnUnknownUnitDoesNothing()
{
    Fixture f;
    f.next("0900");
    QCOMPARE(f.count(), 0);
    QCOMPARE(f.service.linkStatus(9), GfallbackServiceC::FREE);
}

void TestGfallbackServiceC::emptyMessageDoesNotBlockTheChannel()
{
    Fixture f;
    f.service.fallbackTx(7, QByteArray());
    QByteArray nothing;
    f.service.sendDataBlock(7, nothing);
    QCOMPARE(f.count(), 0);
    QCOMPARE(f.service.linkStatus(7), GfallbackServiceC::FREE);
}

void TestGfallbackServiceC::messageTooLongToAnnounceIsDropped()
{
    LogSpy log;
    Fixture f;
    f.service.fallbackTx(7, message(65536));
    QCOMPARE(f.count(), 0);
    QCOMPARE(f.service.linkStatus(7), GfallbackServiceC::FREE);
    QVERIFY(log.contains("GfallbackServiceC: message to remote unit 7 of 65536 bytes is too long, dropped."));

    f.service.fallbackTx(7, message(65535));
    QCOMPARE(f.lastHeader(), QByteArray("0700ffff"));
}

void TestGfallbackServiceC::dataIsHandledFromTheEventLoop()
{
    Fixture f;
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
    Fixture f;
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
    Fixture f;
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
    Fixture f;
    f.service.readData_(QByteArray::fromHex("070005006162"));
    f.service.readData_(QByteArray::fromHex("070003006364"));
    QCOMPARE(log.lines(),
             (QStringList{"GfallbackServiceC::readData_() 6 2 7", "GfallbackServiceC::readData_() 6 4 7"}));
}

void TestGfallbackServiceC::endlessMessageIsDiscarded()
{
    LogSpy log;
    Fixture f;
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
    Fixture f;
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
    Fixture f;
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
