#include "fallbackchannel.h"
#include "logspy.h"
#include "standingclock.h"

#include <QtTest>

#include <chrono>

using namespace std::chrono_literals;

/// Messages that wait for their turn on a unit's channel, and what becomes of them when the unit or the link goes.
class TestGfallbackInTurn : public QObject
{
    Q_OBJECT

private slots:
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
};

void TestGfallbackInTurn::messagesInTurnWaitInTheirOrder()
{
    LogSpy log;
    FallbackChannel f;
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

void TestGfallbackInTurn::acknowledgementDoesNotWaitBehindMessagesInTurn()
{
    FallbackChannel f;
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

void TestGfallbackInTurn::messagesInTurnAreBounded()
{
    LogSpy log;
    FallbackChannel f;
    for (int i = 0; i < 100; ++i) { // one under way, one in its place, 64 behind it
        f.service.fallbackTxInTurn(7, message(30));
    }
    QCOMPARE(log.count("Link BUSY, Tx message LOST!"), 100 - 66);
    for (int i = 0; i < 100; ++i) {
        f.next();
    }
    QCOMPARE(f.count(), 66);
}

void TestGfallbackInTurn::messageThatCannotBeSentDoesNotHoldUpTheOthersInTurn()
{
    FallbackChannel f;
    f.service.fallbackTxInTurn(7, message(30, '1'));
    f.service.fallbackTxInTurn(7, message(30, '2'));
    f.service.fallbackTxInTurn(7, message(65536));
    f.service.fallbackTxInTurn(7, QByteArray());
    f.service.fallbackTxInTurn(7, message(30, '3'));
    f.next();
    f.next();
    QCOMPARE(f.lastData(), message(30, '3'));
}

void TestGfallbackInTurn::resetForgetsTheMessagesInTurn()
{
    FallbackChannel f;
    for (const char text : {'1', '2', '3', '4'}) {
        f.service.fallbackTxInTurn(7, message(30, text));
    }
    f.service.reset(7);
    f.next();
    QCOMPARE(f.count(), 1);
    f.service.fallbackTxInTurn(7, message(30, '5'));
    QCOMPARE(f.lastData(), message(30, '5'));
}

void TestGfallbackInTurn::withdrawnMessagesNeverGoOut()
{
    FallbackChannel f;
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

void TestGfallbackInTurn::withdrawnMessagesAreGivenBackInTheirOrder()
{
    LogSpy log;
    FallbackChannel f;
    for (const char fill : {'1', '2', '3'}) {
        f.service.fallbackTxInTurn(7, message(100, fill));
    }
    f.service.fallbackTxInTurn(7, acknowledgement());
    f.service.withdraw(7);
    QCOMPARE(f.givenBack(), (QByteArrayList{message(100, '2'), message(100, '3')})); // the first is out
    QCOMPARE(log.count(" dropped, it is back on TCP."), 0);
}

void TestGfallbackInTurn::messageOfWhichBlocksAreOutIsGivenBackWhole()
{
    FallbackChannel f;
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

void TestGfallbackInTurn::everyWithdrawalIsAnswered()
{
    FallbackChannel f;
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

void TestGfallbackInTurn::whatHasWaitedForTooLongIsNotGivenBack()
{
    LogSpy log;
    StandingClock clock;
    FallbackChannel f;
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

void TestGfallbackInTurn::withdrawnRestOfAMessageLetsTheNextAcknowledgementThrough()
{
    FallbackChannel f;
    f.service.fallbackTxInTurn(7, message(600));
    f.service.withdraw(7);

    f.service.fallbackTxInTurn(7, acknowledgement('f')); // of the unit's farewell
    QCOMPARE(f.count(), 1);
    f.next();
    QCOMPARE(f.lastData(), acknowledgement('f'));
    f.next();
    QCOMPARE(f.service.linkStatus(7), GfallbackServiceC::FREE);
}

void TestGfallbackInTurn::lostLinkFreesAllChannels()
{
    FallbackChannel f;
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
void TestGfallbackInTurn::withoutALinkMessagesInTurnAreDropped()
{
    LogSpy log;
    FallbackChannel f;
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

QTEST_GUILESS_MAIN(TestGfallbackInTurn)
#include "tst_gfallbackinturn.moc"
