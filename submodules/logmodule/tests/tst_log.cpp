#include "log.h"

#include <QtTest>

class TestLog : public QObject
{
    Q_OBJECT

private slots:
    void isAPlainChildOfItsParent();
};

void TestLog::isAPlainChildOfItsParent()
{
    QObject parent;
    const class log child(&parent);
    QCOMPARE(child.parent(), &parent);
    QCOMPARE(child.metaObject()->className(), "log");
    QCOMPARE(child.metaObject()->superClass(), &QObject::staticMetaObject);
    QCOMPARE(child.metaObject()->methodCount(), QObject::staticMetaObject.methodCount());
}

QTEST_GUILESS_MAIN(TestLog)
#include "tst_log.moc"
