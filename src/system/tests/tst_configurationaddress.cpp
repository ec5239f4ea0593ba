#include "configuration.h"
#include "configurationfiles.h"
#include "logspy.h"

#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

namespace {

const QByteArray LoopbackAddress = QByteArray::fromHex("0100007F"); // 127.0.0.1, least significant byte first
const QByteArray NoAddress = QByteArray::fromHex("00000000");

} // namespace

class TestConfigurationAddress : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void interfaceAddressIsLeastSignificantByteFirst();
    void addressIsStoredAtStart_data();
    void addressIsStoredAtStart();
    void addressCheckIsQuietWhileNothingChanges();
    void addressCheckStoresAChangeAndTells();
    void addressCheckTellsEveryTimeWithoutARow();
    void addressIsCheckedEveryTwoSeconds();

private:
    QByteArray appValue(const Configuration& configuration, const QString& key) const;

    QScopedPointer<ConfigurationFiles> m_files;
    QScopedPointer<LogSpy> m_spy;
};

void TestConfigurationAddress::init()
{
    m_files.reset(new ConfigurationFiles);
    m_spy.reset(new LogSpy);
}

void TestConfigurationAddress::cleanup()
{
    m_spy.reset();
    m_files.reset();
}

QByteArray TestConfigurationAddress::appValue(const Configuration& configuration, const QString& key) const
{
    bool found = false;
    const QByteArray value = configuration.getAppTag(key, &found);
    return found ? value : QByteArray("(not found)");
}

void TestConfigurationAddress::interfaceAddressIsLeastSignificantByteFirst()
{
    const Configuration loopback(m_files->sources("lo"), nullptr);
    QCOMPARE(loopback.getEGLinkIp(), LoopbackAddress);
    const Configuration absent(m_files->sources(), nullptr);
    QCOMPARE(absent.getEGLinkIp(), NoAddress);
}

void TestConfigurationAddress::addressIsStoredAtStart_data()
{
    QTest::addColumn<QString>("interface");
    QTest::addColumn<QByteArray>("address");
    QTest::newRow("interface present") << "lo" << LoopbackAddress;
    QTest::newRow("interface absent") << "no-such-eth" << NoAddress;
}

void TestConfigurationAddress::addressIsStoredAtStart()
{
    QFETCH(QString, interface);
    QFETCH(QByteArray, address);
    m_files->putApp("EGDH;BC;16909060\n");
    Configuration configuration(m_files->sources(interface), nullptr);
    QCOMPARE(appValue(configuration, "EGDH"), address);
    configuration.setAppTag("EGDH", "else");
    configuration.reConfig();
    QCOMPARE(appValue(configuration, "EGDH"), address);
}

void TestConfigurationAddress::addressCheckIsQuietWhileNothingChanges()
{
    m_files->putApp("EGDH;local;\n");
    Configuration configuration(m_files->sources("lo"), nullptr);
    QSignalSpy changed(&configuration, &Configuration::eglinkIpChanged);
    m_spy->clear();
    configuration.verifyEGLinkIp();
    configuration.verifyEGLinkIp();
    QCOMPARE(changed.count(), 0);
    QCOMPARE(m_spy->lines(), QStringList());
}

void TestConfigurationAddress::addressCheckStoresAChangeAndTells()
{
    m_files->putApp("EGDH;local;\n");
    Configuration configuration(m_files->sources("lo"), nullptr);
    QSignalSpy changed(&configuration, &Configuration::eglinkIpChanged);
    configuration.setAppTag("EGDH", QByteArray::fromHex("0200000A"));
    configuration.verifyEGLinkIp();
    QCOMPARE(changed.count(), 1);
    QCOMPARE(appValue(configuration, "EGDH"), LoopbackAddress);
    configuration.verifyEGLinkIp();
    QCOMPARE(changed.count(), 1);
}

void TestConfigurationAddress::addressCheckTellsEveryTimeWithoutARow()
{
    Configuration configuration(m_files->sources("lo"), nullptr);
    QSignalSpy changed(&configuration, &Configuration::eglinkIpChanged);
    configuration.verifyEGLinkIp();
    configuration.verifyEGLinkIp();
    QCOMPARE(changed.count(), 2);
    QCOMPARE(appValue(configuration, "EGDH"), QByteArray("(not found)"));
}

void TestConfigurationAddress::addressIsCheckedEveryTwoSeconds()
{
    Configuration configuration(m_files->sources("lo"), nullptr);
    const QList<QTimer*> timers = configuration.findChildren<QTimer*>();
    QCOMPARE(timers.size(), 1);
    QCOMPARE(timers.first()->interval(), 2000);
    QVERIFY(!timers.first()->isSingleShot());
    QVERIFY(timers.first()->isActive());

    QSignalSpy changed(&configuration, &Configuration::eglinkIpChanged);
    timers.first()->setInterval(1); // the same timer, hurried
    QTRY_VERIFY(changed.count() >= 2);
}

QTEST_GUILESS_MAIN(TestConfigurationAddress)
#include "tst_configurationaddress.moc"
