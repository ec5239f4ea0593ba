#include "linequeue.h"

#include <QtTest>

#include <limits>

namespace {

constexpr LineQueue::Position Capacity = 4;
constexpr LineQueue::Position Largest = std::numeric_limits<LineQueue::Position>::max();

bool add(LineQueue& queue, int number)
{
    LineQueue::Line line{QByteArray::number(number)};
    return queue.push(line);
}

QByteArray take(LineQueue& queue)
{
    LineQueue::Line line;
    return queue.pop(line) ? line.text : QByteArray("none");
}

} // namespace

class TestLineQueue : public QObject
{
    Q_OBJECT

private slots:
    void keepsTheOrder_data() { positions(); }
    void keepsTheOrder();
    void refusesALineWithoutAPlace_data() { positions(); }
    void refusesALineWithoutAPlace();
    void aRefusedLineStaysTheCallers();
    void countsOnOverTheLargestPosition();

private:
    static void positions();
};

void TestLineQueue::positions()
{
    QTest::addColumn<LineQueue::Position>("first");
    QTest::newRow("the first line of all") << LineQueue::Position{0};
    QTest::newRow("positions end within the ring") << Largest - 1;
    QTest::newRow("positions end behind the ring") << Largest - 3;
    QTest::newRow("half of all positions are used up") << Largest / 2 - 1;
}

void TestLineQueue::keepsTheOrder()
{
    QFETCH(LineQueue::Position, first);
    LineQueue queue(Capacity, first);
    QCOMPARE(take(queue), QByteArray("none"));
    for (int number = 0; number < 10; number += 2) {
        QVERIFY(add(queue, number));
        QVERIFY(add(queue, number + 1));
        QCOMPARE(take(queue), QByteArray::number(number));
        QCOMPARE(take(queue), QByteArray::number(number + 1));
    }
    QCOMPARE(take(queue), QByteArray("none"));
}

void TestLineQueue::refusesALineWithoutAPlace()
{
    QFETCH(LineQueue::Position, first);
    LineQueue queue(Capacity, first);
    for (int number = 0; number < 12; ++number) {
        QCOMPARE(add(queue, number), number < 4);
    }
    QCOMPARE(take(queue), QByteArray("0"));
    QVERIFY(add(queue, 12));
    QVERIFY(!add(queue, 13));
    for (const char* text : {"1", "2", "3", "12", "none"}) {
        QCOMPARE(take(queue), QByteArray(text));
    }
}

void TestLineQueue::aRefusedLineStaysTheCallers()
{
    LineQueue queue(2);
    QVERIFY(add(queue, 0) && add(queue, 1));
    LineQueue::Line line{"kept", 7};
    QVERIFY(!queue.push(line));
    QCOMPARE(line.text, QByteArray("kept"));
    QCOMPARE(line.lostBefore, std::size_t{7});
}

void TestLineQueue::countsOnOverTheLargestPosition()
{
    LineQueue queue(Capacity, Largest);
    const LineQueue::Position before = queue.added();
    QVERIFY(add(queue, 0));
    QCOMPARE(queue.added(), LineQueue::Position{0});
    QVERIFY(LineQueue::isBefore(before, queue.added()));
    QVERIFY(!LineQueue::isBefore(queue.added(), before));
    QVERIFY(!LineQueue::isBefore(before, before));
}

QTEST_APPLESS_MAIN(TestLineQueue)

#include "tst_linequeue.moc"
