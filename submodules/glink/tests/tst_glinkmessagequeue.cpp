#include "glinkmessagequeue.h"
#include "onceaminute.h"

#include <QtTest>

class TestGLinkMessageQueue : public QObject
{
    Q_OBJECT

private slots:
    void commandsComeFirstEachKindInItsOrder();
    void prependedMessageComesBeforeItsKind();
    void prependHasNoEffectOnCommandsAndPeriodicData();
    void periodicDataWaitsOnceWithItsNewestValues();
    void periodicDataMayBeEmpty();
    void clearOthersForgetsPeriodicDataToo();
    void commandBeyondTheBoundIsRefused();
    void oldestOtherMessageGoesBeyondTheBound();
    void answerToInitIsNotTheOneThatGoes();
    void queueOfAnswersToInitIsBoundedToo();
    void periodicDataThatWentCanBeQueuedAgain();
    void newerPeriodicDataNeedsNoRoom();
    void answersToAnEarlierInitCanBeDropped();
    void whatIsPutBackComesBeforeItsKindAndBehindTheAnswerToInit();
    void putBackKeepsTheNewestThatFindRoom();
    void repeatedLinePassesOnceAMinute();
};

namespace {

constexpr quint8 InitAck = 2;
constexpr quint8 Command = 3;
constexpr quint8 Periodic = 4;
constexpr quint8 Forward = 5;
constexpr quint8 Status = 8;
using Outcome = GLinkMessageQueue::Outcome;

/// Takes everything: "id:data" of each message.
QStringList drained(GLinkMessageQueue& queue)
{
    QStringList all;
    RPGComGLinkMessage message;
    while (queue.takeNext(message)) {
        all << QStringLiteral("%1:%2").arg(message.msgId).arg(QString::fromLatin1(message.data));
    }
    return all;
}

/// Fills one kind up to the bound with messages "0" to "255".
void fill(GLinkMessageQueue& queue, quint8 msgId)
{
    for (int i = 0; i < 256; ++i) {
        queue.push(msgId, QByteArray::number(i), false);
    }
}

} // namespace

void TestGLinkMessageQueue::commandsComeFirstEachKindInItsOrder()
{
    GLinkMessageQueue queue;
    QVERIFY(queue.isEmpty());
    queue.push(Status, "s1", false);
    queue.push(Command, "c1", false);
    queue.push(Forward, "f1", false);
    queue.push(Command, "c2", false);
    QVERIFY(queue.hasCommand());
    QVERIFY(queue.hasOther());
    QCOMPARE(drained(queue), (QStringList{"3:c1", "3:c2", "8:s1", "5:f1"}));
    QVERIFY(queue.isEmpty());
}

void TestGLinkMessageQueue::prependedMessageComesBeforeItsKind()
{
    GLinkMessageQueue queue;
    queue.push(Status, "s1", false);
    queue.push(Command, "c1", false);
    queue.push(InitAck, "i1", true);
    QVERIFY(queue.hasInitAck());
    QCOMPARE(drained(queue), (QStringList{"3:c1", "2:i1", "8:s1"}));
}

void TestGLinkMessageQueue::prependHasNoEffectOnCommandsAndPeriodicData()
{
    GLinkMessageQueue queue;
    queue.push(Command, "c1", false);
    queue.push(Command, "c2", true);
    queue.push(Status, "s1", false);
    queue.push(Periodic, "p1", true);
    QCOMPARE(drained(queue), (QStringList{"3:c1", "3:c2", "8:s1", "4:p1"}));
}

void TestGLinkMessageQueue::periodicDataWaitsOnceWithItsNewestValues()
{
    GLinkMessageQueue queue;
    queue.push(Periodic, "p1", false);
    queue.push(Status, "s1", false);
    queue.push(Periodic, "p2", false);
    queue.push(Periodic, "p3", false);
    QCOMPARE(drained(queue), (QStringList{"4:p3", "8:s1"}));
    queue.push(Periodic, "p4", false);
    QCOMPARE(drained(queue), (QStringList{"4:p4"}));
}

void TestGLinkMessageQueue::periodicDataMayBeEmpty()
{
    GLinkMessageQueue queue;
    queue.push(Periodic, "", false);
    queue.push(Periodic, "", false);
    QCOMPARE(drained(queue), QStringList{"4:"});
}

void TestGLinkMessageQueue::clearOthersForgetsPeriodicDataToo()
{
    GLinkMessageQueue queue;
    queue.push(Command, "c1", false);
    queue.push(Periodic, "p1", false);
    queue.clearOthers();
    QVERIFY(!queue.hasOther());
    queue.push(Periodic, "p2", false);
    queue.clearCommands();
    QCOMPARE(drained(queue), QStringList{"4:p2"});
}

// The queues of a connection are bounded at 256 messages each: a command is refused, the oldest other message goes.
void TestGLinkMessageQueue::commandBeyondTheBoundIsRefused()
{
    GLinkMessageQueue queue;
    for (int i = 0; i < 256; ++i) {
        QCOMPARE(queue.push(Command, QByteArray::number(i), false), Outcome::Queued);
    }
    QCOMPARE(queue.push(Command, "256", false), Outcome::CommandRefused);
    QCOMPARE(queue.push(Status, "s1", false), Outcome::Queued);

    const QStringList all = drained(queue);
    QCOMPARE(all.size(), 257);
    QCOMPARE(all.first(), QString("3:0"));
    QCOMPARE(all.at(255), QString("3:255"));
}

void TestGLinkMessageQueue::oldestOtherMessageGoesBeyondTheBound()
{
    GLinkMessageQueue queue;
    for (int i = 0; i < 256; ++i) {
        QCOMPARE(queue.push(Status, QByteArray::number(i), false), Outcome::Queued);
    }
    QCOMPARE(queue.push(Forward, "256", false), Outcome::OldestDropped);
    QCOMPARE(queue.push(Command, "c1", false), Outcome::Queued);

    const QStringList all = drained(queue);
    QCOMPARE(all.size(), 257);
    QCOMPARE(all.at(1), QString("8:1"));
    QCOMPARE(all.last(), QString("5:256"));
}

void TestGLinkMessageQueue::answerToInitIsNotTheOneThatGoes()
{
    GLinkMessageQueue queue;
    fill(queue, Status);
    QCOMPARE(queue.push(InitAck, "i1", true), Outcome::OldestDropped);
    QCOMPARE(queue.push(Status, "256", false), Outcome::OldestDropped);

    const QStringList all = drained(queue);
    QCOMPARE(all.size(), 256);
    QCOMPARE(all.at(0), QString("2:i1"));
    QCOMPARE(all.at(1), QString("8:2"));
}

void TestGLinkMessageQueue::queueOfAnswersToInitIsBoundedToo()
{
    GLinkMessageQueue queue;
    fill(queue, InitAck);
    QCOMPARE(queue.push(Status, "s1", false), Outcome::OldestDropped);
    QCOMPARE(drained(queue).size(), 256);
}

void TestGLinkMessageQueue::periodicDataThatWentCanBeQueuedAgain()
{
    GLinkMessageQueue queue;
    queue.push(Periodic, "old", false);
    fill(queue, Status); // the last of these pushes needs the place of the periodic data
    queue.push(Periodic, "new", false);

    const QStringList all = drained(queue);
    QCOMPARE(all.size(), 256);
    QCOMPARE(all.last(), QString("4:new"));
}

void TestGLinkMessageQueue::newerPeriodicDataNeedsNoRoom()
{
    GLinkMessageQueue queue;
    for (int i = 0; i < 255; ++i) {
        queue.push(Status, "s", false);
    }
    queue.push(Periodic, "p1", false);
    QCOMPARE(queue.push(Periodic, "p2", false), Outcome::Queued);
    QCOMPARE(drained(queue).last(), QString("4:p2"));
}

void TestGLinkMessageQueue::answersToAnEarlierInitCanBeDropped()
{
    GLinkMessageQueue queue;
    queue.push(Status, "s1", false);
    queue.push(InitAck, "i1", true);
    queue.push(InitAck, "i2", false);
    queue.dropInitAcks();
    QVERIFY(!queue.hasInitAck());
    QCOMPARE(drained(queue), QStringList{"8:s1"});
}

void TestGLinkMessageQueue::whatIsPutBackComesBeforeItsKindAndBehindTheAnswerToInit()
{
    GLinkMessageQueue queue;
    queue.push(Command, "3", false);
    queue.push(Status, "now", false);
    queue.push(InitAck, "answer", true);
    QVERIFY(queue.putBack({{Command, "1"}, {Forward, "a"}, {Command, "2"}, {Forward, "b"}}));
    QCOMPARE(drained(queue), (QStringList{"3:1", "3:2", "3:3", "2:answer", "5:a", "5:b", "8:now"}));
    QVERIFY(queue.putBack({}));
    QVERIFY(queue.isEmpty());
}

void TestGLinkMessageQueue::putBackKeepsTheNewestThatFindRoom()
{
    GLinkMessageQueue queue;
    for (int i = 0; i < 255; ++i) {
        queue.push(Command, "later", false);
    }
    QVERIFY(!queue.putBack({{Command, "1"}, {Command, "2"}}));
    QCOMPARE(queue.commandCount(), 256);
    QCOMPARE(drained(queue).first(), QString("3:2"));
}

void TestGLinkMessageQueue::repeatedLinePassesOnceAMinute()
{
    using namespace std::chrono_literals;
    const GLinkClock::TimePoint start{};
    OnceAMinute line;
    QVERIFY(line.permits(start));
    QVERIFY(!line.permits(start));
    QVERIFY(!line.permits(start + 59999ms));
    QVERIFY(line.permits(start + 60000ms));
    QVERIFY(!line.permits(start + 119999ms));
    QVERIFY(line.permits(start + 120000ms));
}

QTEST_APPLESS_MAIN(TestGLinkMessageQueue)
#include "tst_glinkmessagequeue.moc"
