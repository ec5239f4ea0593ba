#include "logspy.h"
#include "vrporeassembly.h"

#include <QRandomGenerator>
#include <QTest>

namespace {

/// One step: a sub-packet and what the reassembly makes of it.
struct Step
{
    int serial;
    QByteArray payload;
    QByteArray completed; ///< null: the set is not complete
};

QByteArray part(int index, const QByteArray& data)
{
    return QByteArray(1, static_cast<char>(index)) + data;
}

constexpr quint32 ThreeParts = 3 * 491;

} // namespace

Q_DECLARE_METATYPE(QVector<Step>)

class TestVrpoReassembly : public QObject
{
    Q_OBJECT

private slots:
    void subPacketCount_data();
    void subPacketCount();
    void sets_data();
    void sets();
    void resetForgetsTheIncompleteSet();
    void seededRandomSubPackets();
};

void TestVrpoReassembly::subPacketCount_data()
{
    QTest::addColumn<quint32>("bytes");
    QTest::addColumn<int>("count");
    QTest::newRow("nothing") << 0U << 0;
    QTest::newRow("one byte") << 1U << 1;
    QTest::newRow("just one packet") << 491U << 1;
    QTest::newRow("one byte into the second") << 492U << 2;
    QTest::newRow("three packets") << 1473U << 3;
    QTest::newRow("as many as the index can name, but one") << 255U * 491U << 255;
    QTest::newRow("one more does not wrap to a small count") << 255U * 491U + 1U << 255;
    QTest::newRow("the largest number does not overflow") << 0xffffffffU << 255;
}

void TestVrpoReassembly::subPacketCount()
{
    QFETCH(quint32, bytes);
    QFETCH(int, count);
    QCOMPARE(int(VrpoReassembly(bytes).totalCount()), count);
}

void TestVrpoReassembly::sets_data()
{
    QTest::addColumn<quint32>("bytes");
    QTest::addColumn<QVector<Step>>("steps");
    QTest::addColumn<QStringList>("log");

    const QByteArray none;
    const QByteArray full(491, 'f');
    QTest::newRow("a set of one") << 10U << QVector<Step>{{1, part(0, "abc"), "abc"}, {2, part(0, "d"), "d"}}
                                  << QStringList();
    QTest::newRow("a set of three in order")
        << ThreeParts << QVector<Step>{{1, part(0, "a"), none}, {1, part(1, "b"), none}, {1, part(2, "c"), "abc"}}
        << QStringList();
    QTest::newRow("0, 2, 1 completes after 1")
        << ThreeParts << QVector<Step>{{1, part(0, "a"), none}, {1, part(2, "c"), none}, {1, part(1, "b"), "abc"}}
        << QStringList();
    QTest::newRow("2, 1, 0 completes after 0")
        << ThreeParts << QVector<Step>{{1, part(2, "c"), none}, {1, part(1, "b"), none}, {1, part(0, "a"), "abc"}}
        << QStringList();
    QTest::newRow("full sub-packets and a short last one")
        << ThreeParts
        << QVector<Step>{{1, part(0, full), none}, {1, part(1, full), none}, {1, part(2, "z"), full + full + "z"}}
        << QStringList();
    QTest::newRow("a new serial discards the incomplete set") << ThreeParts
                                                              << QVector<Step>{{1, part(0, "x"), none},
                                                                               {1, part(1, "x"), none},
                                                                               {2, part(0, "a"), none},
                                                                               {2, part(1, "b"), none},
                                                                               {2, part(2, "c"), "abc"}}
                                                              << QStringList{"Out of sequence partial VRPO received."};
    QTest::newRow("a serial that returns does not find its parts again")
        << 600U << QVector<Step>{{1, part(0, "a"), none}, {2, part(0, "A"), none}, {1, part(1, "b"), none}}
        << QStringList{"Out of sequence partial VRPO received.", "Out of sequence partial VRPO received."};
    QTest::newRow("the same serial begins anew after a complete set") << 600U
                                                                      << QVector<Step>{{1, part(0, "a"), none},
                                                                                       {1, part(1, "b"), "ab"},
                                                                                       {1, part(1, "d"), none},
                                                                                       {1, part(0, "c"), "cd"}}
                                                                      << QStringList();
    QTest::newRow("serials across 65535 and 0") << 600U
                                                << QVector<Step>{{65535, part(0, "a"), none},
                                                                 {65535, part(1, "b"), "ab"},
                                                                 {0, part(0, "c"), none},
                                                                 {0, part(1, "d"), "cd"}}
                                                << QStringList();
    QTest::newRow("of a duplicate the first copy stands")
        << 600U << QVector<Step>{{1, part(0, "a"), none}, {1, part(0, "X"), none}, {1, part(1, "b"), "ab"}}
        << QStringList{"Duplicate partial VRPO received."};
    QTest::newRow("a received part without data is received")
        << 600U << QVector<Step>{{1, part(0, ""), none}, {1, part(0, "X"), none}, {1, part(1, "b"), "b"}}
        << QStringList{"Duplicate partial VRPO received."};
    QTest::newRow("a set without any data completes")
        << 600U << QVector<Step>{{1, part(0, ""), none}, {1, part(1, ""), ""}} << QStringList();
    QTest::newRow("the index beyond the last")
        << 600U << QVector<Step>{{1, part(0, "a"), none}, {1, part(2, "X"), none}, {1, part(1, "b"), "ab"}}
        << QStringList{"Out of range VRPO subpacket index received, ignored. ( 2 )"};
    QTest::newRow("the highest index there is")
        << 600U << QVector<Step>{{1, part(255, "X"), none}}
        << QStringList{"Out of range VRPO subpacket index received, ignored. ( 255 )"};
    QTest::newRow("an index out of range with a new serial still discards the set")
        << 600U << QVector<Step>{{1, part(0, "a"), none}, {2, part(2, "X"), none}, {1, part(1, "b"), none}}
        << QStringList{"Out of sequence partial VRPO received.",
                       "Out of range VRPO subpacket index received, ignored. ( 2 )"};
    QTest::newRow("with a size of 0 nothing ever completes")
        << 0U << QVector<Step>{{1, part(0, "a"), none}, {2, part(0, ""), none}}
        << QStringList{"Out of range VRPO subpacket index received, ignored. ( 0 )",
                       "Out of range VRPO subpacket index received, ignored. ( 0 )"};
    QTest::newRow("an empty VRPO is dropped and the set stands")
        << 600U << QVector<Step>{{1, part(0, "a"), none}, {2, none, none}, {1, part(1, "b"), "ab"}}
        << QStringList{"Empty VRPO received, ignored."};
}

void TestVrpoReassembly::sets()
{
    QFETCH(quint32, bytes);
    QFETCH(QVector<Step>, steps);
    QFETCH(QStringList, log);

    VrpoReassembly reassembly(bytes);
    const LogSpy spy;
    for (const Step& step : qAsConst(steps)) {
        const std::optional<QByteArray> completed = reassembly.add(quint16(step.serial), step.payload);
        QCOMPARE(completed.has_value(), !step.completed.isNull());
        QCOMPARE(completed.value_or(QByteArray()), step.completed);
    }
    QCOMPARE(spy.lines(QtDebugMsg), log);
    QCOMPARE(spy.lines().size(), log.size());
}

void TestVrpoReassembly::resetForgetsTheIncompleteSet()
{
    VrpoReassembly reassembly(600);
    reassembly.add(1, part(0, "a"));
    reassembly.reset();
    const LogSpy log;
    QVERIFY(!reassembly.add(7, part(1, "B")).has_value());
    QCOMPARE(reassembly.add(7, part(0, "A")).value_or("none"), QByteArray("AB"));
    QCOMPARE(log.lines(), QStringList());
}

void TestVrpoReassembly::seededRandomSubPackets()
{
    const LogSpy log; // keeps the lines off the terminal
    QRandomGenerator random(1973);
    VrpoReassembly reassembly(ThreeParts);
    int sets = 0;
    for (int round = 0; round < 50000; ++round) {
        const auto serial = static_cast<quint16>(random.bounded(3));
        QByteArray payload(random.bounded(4), 'd');
        if (!payload.isEmpty()) {
            payload[0] = static_cast<char>(random.bounded(5));
        }
        const std::optional<QByteArray> set = reassembly.add(serial, payload);
        QVERIFY(!set || set->size() <= 3 * 2);
        sets += set ? 1 : 0;
    }
    QVERIFY(sets > 0);
}

QTEST_GUILESS_MAIN(TestVrpoReassembly)
#include "tst_vrporeassembly.moc"
