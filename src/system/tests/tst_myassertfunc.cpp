#include "fatalprobe.h"
#include "myassertfunc.h"

#include <QtTest>

class TestMyAssertFunc : public QObject
{
    Q_OBJECT

private slots:
    void namesUnitAndLineAndEndsTheProcess();
    void probeToldApartFromAnOrdinaryEnd();
};

void TestMyAssertFunc::namesUnitAndLineAndEndsTheProcess()
{
    const FatalOutcome outcome = outcomeOf([] { myAssertFunc("src/tessaroserver", 119); });

    QVERIFY(outcome.diedOfAbort);
    QCOMPARE(outcome.log, QStringLiteral("Fatal error in  \"src/tessaroserver\" : 119 .\nFatal\n"));
}

void TestMyAssertFunc::probeToldApartFromAnOrdinaryEnd()
{
    const FatalOutcome outcome = outcomeOf([] {});

    QVERIFY(!outcome.diedOfAbort);
    QCOMPARE(outcome.exitCode, 0);
    QCOMPARE(outcome.log, QString());
}

QTEST_APPLESS_MAIN(TestMyAssertFunc)
#include "tst_myassertfunc.moc"
