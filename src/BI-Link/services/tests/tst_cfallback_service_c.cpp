#include "cfallback_service_c.h"
#include "fatalprobe.h"

#include <QSignalSpy>
#include <QtTest>

class TestCFallbackServiceC : public QObject
{
    Q_OBJECT

private slots:
    void payloadToTheBaseControllerFollowsItsId();
    void packetFromTheBaseControllerIsSplit_data();
    void packetFromTheBaseControllerIsSplit();
    void packetWithoutAWholeIdIsFatal();
    void packetFromAnotherLinkIsFatal();
    void packetOfAnotherClassIsFatal();
};

namespace {
constexpr serviceId_T Id = 104;
const QString Unit = QStringLiteral("src/BI-Link/services/cfallback_service_c");
} // namespace

void TestCFallbackServiceC::payloadToTheBaseControllerFollowsItsId()
{
    CFallbackServiceC service(nullptr, Id);
    QSignalSpy sent(&service, &ServiceBase::readyReadFromService);

    service.CFallbackRx(QByteArray("abc"), 0x1234);
    service.CFallbackRx(QByteArray(), 7);

    QCOMPARE(sent.count(), 2);
    QCOMPARE(sent.at(0).at(0).toByteArray().toHex(), QByteArray("3412616263"));
    QCOMPARE(sent.at(0).at(1).value<Link>(), Internal);
    QCOMPARE(sent.at(0).at(2).toInt(), 104);
    QCOMPARE(sent.at(0).at(3).toInt(), 1);
    QCOMPARE(sent.at(1).at(0).toByteArray().toHex(), QByteArray("0700"));
}

void TestCFallbackServiceC::packetFromTheBaseControllerIsSplit_data()
{
    QTest::addColumn<QByteArray>("packet");
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<int>("id");

    QTest::newRow("id and payload") << QByteArray::fromHex("3412616263") << QByteArray("abc") << 0x1234;
    QTest::newRow("id alone") << QByteArray::fromHex("FF00") << QByteArray() << 0x00FF;
}

void TestCFallbackServiceC::packetFromTheBaseControllerIsSplit()
{
    QFETCH(QByteArray, packet);
    QFETCH(QByteArray, payload);
    QFETCH(int, id);
    CFallbackServiceC service(nullptr, Id);
    QSignalSpy received(&service, &CFallbackServiceC::cFallbackTx);

    service.readData(packet, Internal, MSG_CLASS_TRANSP_ACK);

    QCOMPARE(received.count(), 1);
    QCOMPARE(received.at(0).at(0).toByteArray(), payload);
    QCOMPARE(received.at(0).at(1).toInt(), id);
}

void TestCFallbackServiceC::packetWithoutAWholeIdIsFatal()
{
    CFallbackServiceC service(nullptr, Id);
    VERIFY_FATAL(Unit, 63, service.readData(QByteArray(), Internal, MSG_CLASS_TRANSP_ACK));
    VERIFY_FATAL(Unit, 63, service.readData(QByteArray("a"), Graphical, MSG_CLASS_ACK));
}

void TestCFallbackServiceC::packetFromAnotherLinkIsFatal()
{
    CFallbackServiceC service(nullptr, Id);
    VERIFY_FATAL(Unit, 73, service.readData(QByteArray("ab"), Graphical, MSG_CLASS_ACK));
    const FatalOutcome outcome = outcomeOf([&] { service.readData(QByteArray("ab"), Graphical, MSG_CLASS_ACK); });
    QVERIFY2(outcome.log.startsWith("Unexpected fromLink: not Internal!\n"), qPrintable(outcome.log));
}

void TestCFallbackServiceC::packetOfAnotherClassIsFatal()
{
    CFallbackServiceC service(nullptr, Id);
    VERIFY_FATAL(Unit, 78, service.readData(QByteArray("ab"), Internal, MSG_CLASS_SERVICE_ACK));
    const FatalOutcome outcome = outcomeOf([&] { service.readData(QByteArray("ab"), Internal, MSG_CLASS_ACK); });
    QVERIFY2(outcome.log.startsWith("Unexpected messageClass: not MSG_CLASS_TRANSP_ACK!\n"), qPrintable(outcome.log));
}

QTEST_GUILESS_MAIN(TestCFallbackServiceC)
#include "tst_cfallback_service_c.moc"
