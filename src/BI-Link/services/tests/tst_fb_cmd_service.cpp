#include "fatalprobe.h"
#include "fb_cmd_service.h"
#include "storedconfiguration.h"

#include <QSignalSpy>
#include <QtTest>

namespace {

constexpr quint8 Id = 106;
const QString Unit = QStringLiteral("src/BI-Link/services/fb_cmd_service");

} // namespace

class TestFbCmdService : public QObject
{
    Q_OBJECT

private slots:
    void commandFromTheControllerGoesToTheHub_data();
    void commandFromTheControllerGoesToTheHub();
    void longCommandFromTheControllerIsFatal();

    void commandFromTheHubGoesOutAsSixteenBytes_data();
    void commandFromTheHubGoesOutAsSixteenBytes();
    void forwardingDependsOnTwoBits_data();
    void forwardingDependsOnTwoBits();
    void settingIsReadForEveryCommand();
    void missingSettingIsFatal_data();
    void missingSettingIsFatal();
    void longCommandFromTheHubIsFatal();
};

void TestFbCmdService::commandFromTheControllerGoesToTheHub_data()
{
    QTest::addColumn<QByteArray>("command");
    QTest::addColumn<int>("messageClass");

    QTest::newRow("nothing") << QByteArray() << 1;
    QTest::newRow("one byte stays one byte") << QByteArray(1, '\0') << 1;
    QTest::newRow("16 bytes") << QByteArray::fromHex("000A8290FF0102030405060708090A0B") << 1;
    QTest::newRow("message class is not looked at") << QByteArray("x") << 3;
}

void TestFbCmdService::commandFromTheControllerGoesToTheHub()
{
    QFETCH(QByteArray, command);
    QFETCH(int, messageClass);
    FbCmdService service(nullptr, Id, nullptr, nullptr, nullptr);
    QSignalSpy toHub(&service, &FbCmdService::sendCmdToRGPCom);

    service.readData(command, Internal, static_cast<quint8>(messageClass));

    QCOMPARE(toHub.count(), 1);
    QCOMPARE(toHub.at(0).at(0).toByteArray(), command);
}

void TestFbCmdService::longCommandFromTheControllerIsFatal()
{
    FbCmdService service(nullptr, Id, nullptr, nullptr, nullptr);

    VERIFY_FATAL(Unit, 30, service.readData(QByteArray(17, 'x'), Internal, MSG_CLASS_TRANSP_ACK));
}

void TestFbCmdService::commandFromTheHubGoesOutAsSixteenBytes_data()
{
    QTest::addColumn<QByteArray>("command");
    QTest::addColumn<QByteArray>("sent");

    QTest::newRow("nothing") << QByteArray() << QByteArray("00000000000000000000000000000000");
    QTest::newRow("three bytes") << QByteArray("010203") << QByteArray("01020300000000000000000000000000");
    QTest::newRow("16 bytes") << QByteArray("0102030405060708090a0b0c0d0e0f10")
                              << QByteArray("0102030405060708090a0b0c0d0e0f10");
}

void TestFbCmdService::commandFromTheHubGoesOutAsSixteenBytes()
{
    QFETCH(QByteArray, command);
    QFETCH(QByteArray, sent);
    StoredConfiguration configuration("FMAP;3;RGP\n");
    FbCmdService service(nullptr, Id, configuration.store(), nullptr, nullptr);
    QSignalSpy spy(&service, &ServiceBase::readyReadFromService);

    service.sendCmd(QByteArray::fromHex(command));

    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.at(0).at(0).toByteArray().toHex(), sent);
    QCOMPARE(spy.at(0).at(1).value<Link>(), Internal);
    QCOMPARE(spy.at(0).at(2).toInt(), 106);
    QCOMPARE(spy.at(0).at(3).toInt(), 1);
}

void TestFbCmdService::forwardingDependsOnTwoBits_data()
{
    QTest::addColumn<QByteArray>("setting");
    QTest::addColumn<bool>("forwarded");

    QTest::newRow("0") << QByteArray("0") << false;
    QTest::newRow("1") << QByteArray("1") << true;
    QTest::newRow("2") << QByteArray("2") << true;
    QTest::newRow("3") << QByteArray("3") << true;
    QTest::newRow("4") << QByteArray("4") << false;
    QTest::newRow("6") << QByteArray("6") << true;
    QTest::newRow("all bits but the two") << QByteArray("4294967292") << false;
    QTest::newRow("all bits") << QByteArray("4294967295") << true;
}

void TestFbCmdService::forwardingDependsOnTwoBits()
{
    QFETCH(QByteArray, setting);
    QFETCH(bool, forwarded);
    StoredConfiguration configuration("FMAP;" + setting + ";BC\n");
    FbCmdService service(nullptr, Id, configuration.store(), nullptr, nullptr);
    QSignalSpy sent(&service, &ServiceBase::readyReadFromService);

    service.sendCmd("cmd");

    QCOMPARE(sent.count(), forwarded ? 1 : 0);
}

void TestFbCmdService::settingIsReadForEveryCommand()
{
    StoredConfiguration configuration("FMAP;0;RGP\n");
    FbCmdService service(nullptr, Id, configuration.store(), nullptr, nullptr);
    QSignalSpy sent(&service, &ServiceBase::readyReadFromService);
    service.sendCmd("cmd");
    QCOMPARE(sent.count(), 0);

    configuration.store()->setAppTag(QStringLiteral("FMAP"), QByteArray::fromHex("01000000"));
    service.sendCmd("cmd");

    QCOMPARE(sent.count(), 1);
}

void TestFbCmdService::missingSettingIsFatal_data()
{
    QTest::addColumn<QByteArray>("rows");

    QTest::newRow("no row") << QByteArray();
    QTest::newRow("a text is no number") << QByteArray("FMAP;3;local\n");
}

void TestFbCmdService::missingSettingIsFatal()
{
    QFETCH(QByteArray, rows);
    StoredConfiguration configuration(rows);
    FbCmdService service(nullptr, Id, configuration.store(), nullptr, nullptr);

    VERIFY_FATAL(Unit, 44, service.sendCmd(QByteArray(17, 'x')));
}

void TestFbCmdService::longCommandFromTheHubIsFatal()
{
    StoredConfiguration configuration("FMAP;0;RGP\n");
    FbCmdService service(nullptr, Id, configuration.store(), nullptr, nullptr);

    VERIFY_FATAL(Unit, 45, service.sendCmd(QByteArray(17, 'x')));
}

QTEST_GUILESS_MAIN(TestFbCmdService)
#include "tst_fb_cmd_service.moc"
