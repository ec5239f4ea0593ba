#include "fatalprobe.h"
#include "fb_periodic_service.h"

#include <QSignalSpy>
#include <QtTest>

namespace {

constexpr quint8 Id = 107;
const QString Unit = QStringLiteral("src/BI-Link/services/fb_periodic_service");

} // namespace

class TestFbPeriodicService : public QObject
{
    Q_OBJECT

private slots:
    void dataGoesToTheHub_data();
    void dataGoesToTheHub();
    void otherLengthsAreFatal_data();
    void otherLengthsAreFatal();
};

void TestFbPeriodicService::dataGoesToTheHub_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<int>("messageClass");

    QTest::newRow("5 bytes") << QByteArray::fromHex("000A8290FF") << 1;
    QTest::newRow("204 bytes") << QByteArray(204, '\x90') << 1;
    QTest::newRow("message class is not looked at") << QByteArray("12345") << 2;
}

void TestFbPeriodicService::dataGoesToTheHub()
{
    QFETCH(QByteArray, data);
    QFETCH(int, messageClass);
    FbPeriodicService service(nullptr, Id, nullptr, nullptr, nullptr);
    QSignalSpy toHub(&service, &FbPeriodicService::sendToRGP);
    QSignalSpy sent(&service, &ServiceBase::readyReadFromService);

    service.readData(data, Internal, static_cast<quint8>(messageClass));

    QCOMPARE(toHub.count(), 1);
    QCOMPARE(toHub.at(0).at(0).toByteArray(), data);
    QCOMPARE(sent.count(), 0);
}

void TestFbPeriodicService::otherLengthsAreFatal_data()
{
    QTest::addColumn<int>("length");
    QTest::addColumn<int>("line");

    QTest::newRow("205 bytes") << 205 << 27;
    QTest::newRow("4 bytes") << 4 << 28;
    QTest::newRow("nothing") << 0 << 28;
}

void TestFbPeriodicService::otherLengthsAreFatal()
{
    QFETCH(int, length);
    QFETCH(int, line);
    FbPeriodicService service(nullptr, Id, nullptr, nullptr, nullptr);

    VERIFY_FATAL(Unit, static_cast<unsigned int>(line),
                 service.readData(QByteArray(length, 'x'), Internal, MSG_CLASS_TRANSP_ACK));
}

QTEST_GUILESS_MAIN(TestFbPeriodicService)
#include "tst_fb_periodic_service.moc"
