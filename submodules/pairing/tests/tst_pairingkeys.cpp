#include "pairingkeys.h"

#include "logspy.h"

#include <QSet>
#include <QtTest>

class TestPairingKeys : public QObject
{
    Q_OBJECT

private slots:
    void keyTextHashesTheDecimalNumber_data();
    void keyTextHashesTheDecimalNumber();
    void keyTextRefusesToHashZero();
    void newKeyTextsAreHexAndDiffer();
    void wordsUseAllBits_data();
    void wordsUseAllBits();
    void aDrawHasFourWordsAndNoTwoDrawsAreAlike();
    void wordsDoNotFollowASeed();
};

void TestPairingKeys::keyTextHashesTheDecimalNumber_data()
{
    QTest::addColumn<quint32>("randomNumber");
    QTest::addColumn<qint64>("nowMs");
    QTest::addColumn<QString>("keyText");

    // Digests from md5sum: printf '%s' NUMBER | md5sum
    QTest::newRow("1") << quint32(0) << qint64(0) << "c4ca4238a0b923820dcc509a6f75849b";
    QTest::newRow("-1: the time is subtracted") << quint32(1) << qint64(3) << "6bb61e3b7bce0931da574d19d1d82c88";
    QTest::newRow("10000000: the largest remainder plus one")
        << quint32(9999999) << qint64(0) << "d1ca3aaf52b41acd68ebb3bf69079bd1";
    QTest::newRow("1: the remainder wraps") << quint32(10000000) << qint64(0) << "c4ca4238a0b923820dcc509a6f75849b";
    QTest::newRow("-1648403572000: a time of day")
        << quint32(6999) << qint64(1648403579000) << "c9c82781a5f47c649164cd05685f41d5";
}

void TestPairingKeys::keyTextHashesTheDecimalNumber()
{
    QFETCH(quint32, randomNumber);
    QFETCH(qint64, nowMs);

    QTEST(pairingKeyText(randomNumber, nowMs), "keyText");
}

void TestPairingKeys::keyTextRefusesToHashZero()
{
    LogSpy log;

    QCOMPARE(pairingKeyText(41, 42), QString());

    QCOMPARE(log.lines(),
             QStringList{QStringLiteral("pairserver: Can't generate new pairing key since valueToHash is 0")});
}

void TestPairingKeys::newKeyTextsAreHexAndDiffer()
{
    static const QRegularExpression digest(QStringLiteral("^[0-9a-f]{32}$"));
    const QString first = generateNewPairingKey();
    const QString second = generateNewPairingKey();

    QVERIFY2(digest.match(first).hasMatch(), qPrintable(first));
    QVERIFY2(digest.match(second).hasMatch(), qPrintable(second));
    QVERIFY(first != second);
}

void TestPairingKeys::wordsUseAllBits_data()
{
    QTest::addColumn<bool>("kernel");

    QTest::newRow("generator of the C library where there is one") << false;
    QTest::newRow("generator of the kernel") << true;
}

void TestPairingKeys::wordsUseAllBits()
{
    QFETCH(bool, kernel);
    // 64 words leave a given bit always 0, or always 1, once in 2^63 runs.
    quint32 everSet = 0;
    quint32 everClear = 0;
    for (int i = 0; i < 64; ++i) {
        const quint32 word = kernel ? kernelRandomWord() : strongRandomWord();
        everSet |= word;
        everClear |= ~word;
    }
    QCOMPARE(everSet, 0xFFFFFFFFU);
    QCOMPARE(everClear, 0xFFFFFFFFU);
}

void TestPairingKeys::aDrawHasFourWordsAndNoTwoDrawsAreAlike()
{
    QSet<quint32> words;
    for (int i = 0; i < 8; ++i) {
        for (const quint32 word : PairingKeys::draw().words) {
            words.insert(word);
        }
    }
    // Two equal words among 32 turn up once in nine million runs.
    QCOMPARE(words.size(), 32);
}

void TestPairingKeys::wordsDoNotFollowASeed()
{
    std::srand(1);
    srandom(1);
    const PairingKeys first = PairingKeys::draw();
    std::srand(1);
    srandom(1);
    const PairingKeys second = PairingKeys::draw();

    QVERIFY(first.words != second.words);
}

QTEST_APPLESS_MAIN(TestPairingKeys)
#include "tst_pairingkeys.moc"
