#include "fatalprobe.h"
#include "logspy.h"
#include "msrelaycontrol.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <cerrno>
#include <memory>
#include <vector>

#include <unistd.h>

class TestMsRelayControl : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void linesAreSetUpAndTheRelayCloses();
    void exportFailingAtTheWriteIsSurvived();
    void aFileThatCannotBeUsedIsFatalAtStart_data();
    void aFileThatCannotBeUsedIsFatalAtStart();
    void enumerationsHaveTheirNumbers();

    void linkStatesDriveTheRelay_data();
    void linkStatesDriveTheRelay();
    void anUnchangedStateWritesNothing();
    void eventsAreLogged();

    void theDriveLineTakesItsTwoLevels();
    void aDriveLineThatFailsIsFatal();
    void theMonitorIsActiveLow_data();
    void theMonitorIsActiveLow();
    void aMonitorThatCannotBeReadIsFatal_data();
    void aMonitorThatCannotBeReadIsFatal();

    void withoutDescriptorsTheLinesStillWork();

    void anOpenedRelayPassesTheCheck();
    void aWeldedRelayIsOpenedAndReported();
    void aFailedCheckAllowsReclosing();
    void pressesWithinTheSecondMakeOneCheck();
    void aPressAfterTheCheckMakesAnother();

    void shutdownOpensTheRelayForGood();
    void shutdownWithoutGpioIsSurvived();

private:
    QString path(const QString& file) const { return m_gpio->filePath(file); }
    void put(const QString& file, const QByteArray& content) const;
    QByteArray read(const QString& file) const;
    QByteArray drive() const { return read("gpio37/value"); }
    void showContact(const QByteArray& level) const { put("gpio38/value", level); }
    void replaceByLink(const QString& file, const QString& target) const;
    std::unique_ptr<MsRelayControl> makeControl() const;

    std::unique_ptr<QTemporaryDir> m_gpio;
};

namespace {

const QString Unit = QStringLiteral("src/hardware/msrelaycontrol");

} // namespace

void TestMsRelayControl::init()
{
    m_gpio = std::make_unique<QTemporaryDir>();
    QVERIFY(m_gpio->isValid());
    QVERIFY(QDir(m_gpio->path()).mkdir("gpio37"));
    QVERIFY(QDir(m_gpio->path()).mkdir("gpio38"));
    put("export", "");
    put("gpio37/direction", "in");
    put("gpio37/value", "0");
    put("gpio38/direction", "out");
    put("gpio38/value", "0\n");
}

void TestMsRelayControl::cleanup()
{
    m_gpio.reset();
}

void TestMsRelayControl::put(const QString& file, const QByteArray& content) const
{
    QFile target(path(file));
    QVERIFY2(target.open(QIODevice::WriteOnly), qPrintable(file));
    QCOMPARE(target.write(content), qint64(content.size()));
}

QByteArray TestMsRelayControl::read(const QString& file) const
{
    QFile source(path(file));
    return source.open(QIODevice::ReadOnly) ? source.readAll() : QByteArray("cannot be read");
}

void TestMsRelayControl::replaceByLink(const QString& file, const QString& target) const
{
    QVERIFY(QFile::remove(path(file)));
    QVERIFY(QFile::link(target, path(file)));
}

std::unique_ptr<MsRelayControl> TestMsRelayControl::makeControl() const
{
    return std::make_unique<MsRelayControl>(m_gpio->path(), nullptr);
}

void TestMsRelayControl::linesAreSetUpAndTheRelayCloses()
{
    const LogSpy log;
    const auto control = makeControl();
    QCOMPARE(read("export"), QByteArray("3738"));
    QCOMPARE(read("gpio37/direction"), QByteArray("out"));
    QCOMPARE(read("gpio38/direction"), QByteArray("in"));
    QCOMPARE(drive(), QByteArray("1"));
    QCOMPARE(log.lines().first(), QString("MsRelayControl::MsRelayControl(QObject *parent) : QObject(parent)"));
    QVERIFY(log.contains("MSEvents::RUNNING_STARTING_EVENT"));
    QVERIFY(log.contains("MSState::CLOSED"));
    QCOMPARE(log.lines(QtDebugMsg), log.lines());
}

void TestMsRelayControl::exportFailingAtTheWriteIsSurvived()
{
    replaceByLink("export", "/dev/full");
    const LogSpy log;
    const auto control = makeControl();
    QCOMPARE(drive(), QByteArray("1"));
}

void TestMsRelayControl::aFileThatCannotBeUsedIsFatalAtStart_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("replacement");
    QTest::addColumn<unsigned int>("line");
    QTest::newRow("no export file") << "export"
                                    << "" << 101U;
    QTest::newRow("no direction of the drive line") << "gpio37/direction"
                                                    << "" << 111U;
    QTest::newRow("no direction of the monitor line") << "gpio38/direction"
                                                      << "" << 111U;
    QTest::newRow("drive direction not taken") << "gpio37/direction"
                                               << "/dev/full" << 112U;
    QTest::newRow("monitor direction not taken") << "gpio38/direction"
                                                 << "/dev/full" << 112U;
    QTest::newRow("no value of the drive line") << "gpio37/value"
                                                << "" << 122U;
    QTest::newRow("drive value not taken") << "gpio37/value"
                                           << "/dev/full" << 124U;
}

void TestMsRelayControl::aFileThatCannotBeUsedIsFatalAtStart()
{
    QFETCH(QString, file);
    QFETCH(QString, replacement);
    QFETCH(unsigned int, line);
    QVERIFY(QFile::remove(path(file)));
    if (!replacement.isEmpty()) {
        QVERIFY(QFile::link(replacement, path(file)));
    }
    VERIFY_FATAL(Unit, line, makeControl());
}

void TestMsRelayControl::enumerationsHaveTheirNumbers()
{
    QCOMPARE(int(MsRelayControl::MS_RELAY_OPEN), 0);
    QCOMPARE(int(MsRelayControl::MS_RELAY_CLOSED), 1);
    QCOMPARE(int(MsRelayControl::OPEN), 0);
    QCOMPARE(int(MsRelayControl::CLOSED), 1);
    QCOMPARE(int(MsRelayControl::BI_FAIL_EVENT), 0);
    QCOMPARE(int(MsRelayControl::STARTING_EVENT), 1);
}

void TestMsRelayControl::linkStatesDriveTheRelay_data()
{
    QTest::addColumn<QVector<int>>("states");
    QTest::addColumn<QByteArray>("level");
    QTest::newRow("no link") << QVector<int>{0} << QByteArray("0");
    QTest::newRow("link lost and running again") << QVector<int>{0, 1} << QByteArray("1");
    QTest::newRow("link lost and starting again") << QVector<int>{0, 2} << QByteArray("1");
    QTest::newRow("running keeps it closed") << QVector<int>{1, 1} << QByteArray("1");
    QTest::newRow("an unknown state changes nothing when closed") << QVector<int>{3} << QByteArray("1");
    QTest::newRow("an unknown state changes nothing when open") << QVector<int>{0, 3, 255} << QByteArray("0");
}

void TestMsRelayControl::linkStatesDriveTheRelay()
{
    QFETCH(QVector<int>, states);
    QFETCH(QByteArray, level);
    const LogSpy log;
    const auto control = makeControl();
    for (const int state : states) {
        control->systemStateSlot(static_cast<quint8>(state));
    }
    QCOMPARE(drive(), level);
}

void TestMsRelayControl::anUnchangedStateWritesNothing()
{
    const LogSpy log;
    const auto control = makeControl();
    put("gpio37/value", "untouched");
    control->systemStateSlot(1);
    QCOMPARE(drive(), QByteArray("untouched"));
    control->systemStateSlot(0);
    QCOMPARE(drive(), QByteArray("0"));
    put("gpio37/value", "untouched");
    control->systemStateSlot(0);
    QCOMPARE(drive(), QByteArray("untouched"));
}

void TestMsRelayControl::eventsAreLogged()
{
    LogSpy log;
    const auto control = makeControl();
    log.clear();
    control->systemStateSlot(0);
    control->systemStateSlot(0);
    control->systemStateSlot(2);
    QCOMPARE(log.lines().filter("MSEvents::"),
             (QStringList{"MSEvents::BI_FAIL_EVENT", "MSEvents::BI_FAIL_EVENT", "MSEvents::RUNNING_STARTING_EVENT"}));
    QCOMPARE(log.lines().filter("MSState::"), (QStringList{"MSState::OPEN", "MSState::CLOSED"}));
}

void TestMsRelayControl::theDriveLineTakesItsTwoLevels()
{
    const LogSpy log;
    const auto control = makeControl();
    control->setMSRelayState(MsRelayControl::MS_RELAY_OPEN);
    QCOMPARE(drive(), QByteArray("0"));
    control->setMSRelayState(MsRelayControl::MS_RELAY_CLOSED);
    QCOMPARE(drive(), QByteArray("1"));
    VERIFY_FATAL(Unit, 123, control->setMSRelayState(static_cast<MsRelayControl::MSRelayState>(2)));
}

void TestMsRelayControl::aDriveLineThatFailsIsFatal()
{
    const LogSpy log;
    const auto control = makeControl();
    replaceByLink("gpio37/value", "/dev/full");
    VERIFY_FATAL(Unit, 124, control->systemStateSlot(0));
    QVERIFY(QFile::remove(path("gpio37/value")));
    VERIFY_FATAL(Unit, 122, control->systemStateSlot(0));
    QVERIFY(!QFile::exists(path("gpio37/value")));
}

void TestMsRelayControl::theMonitorIsActiveLow_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("closed");
    QTest::newRow("closed") << QByteArray("0\n") << 1;
    QTest::newRow("open") << QByteArray("1\n") << 0;
    QTest::newRow("closed, bare") << QByteArray("0") << 1;
    QTest::newRow("only the first character counts") << QByteArray("1234567") << 0;
}

void TestMsRelayControl::theMonitorIsActiveLow()
{
    QFETCH(QByteArray, content);
    QFETCH(int, closed);
    const LogSpy log;
    const auto control = makeControl();
    showContact(content);
    QCOMPARE(control->getRelayState(), closed);
}

void TestMsRelayControl::aMonitorThatCannotBeReadIsFatal_data()
{
    QTest::addColumn<QString>("target");
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<unsigned int>("line");
    QTest::newRow("read error") << "/proc/self/mem" << QByteArray() << 133U;
    QTest::newRow("nothing to read") << "" << QByteArray("") << 134U;
    QTest::newRow("unexpected character") << "" << QByteArray("2\n") << 134U;
    QTest::newRow("leading blank") << "" << QByteArray(" 1") << 134U;
}

void TestMsRelayControl::aMonitorThatCannotBeReadIsFatal()
{
    QFETCH(QString, target);
    QFETCH(QByteArray, content);
    QFETCH(unsigned int, line);
    const LogSpy log;
    const auto control = makeControl();
    if (target.isEmpty()) {
        showContact(content);
    } else {
        replaceByLink("gpio38/value", target);
    }
    VERIFY_FATAL(Unit, line, control->getRelayState());

    QVERIFY(QFile::remove(path("gpio38/value")));
    VERIFY_FATAL(Unit, 132, control->getRelayState());
    QVERIFY(outcomeOf([&] { control->getRelayState(); }).log.startsWith("Failed to read es relay monitor\n"));
}

void TestMsRelayControl::withoutDescriptorsTheLinesStillWork()
{
    const auto control = makeControl();
    std::vector<int> taken;
    for (int file = dup(0); file >= 0; file = dup(0)) {
        taken.push_back(file);
    }
    const int failed = errno;
    control->setMSRelayState(MsRelayControl::MS_RELAY_OPEN);
    control->setMSRelayState(MsRelayControl::MS_RELAY_CLOSED);
    control->setMSRelayState(MsRelayControl::MS_RELAY_OPEN);
    const int first = control->getRelayState();
    const int second = control->getRelayState();
    for (int file : taken) {
        close(file);
    }
    QCOMPARE(failed, EMFILE);
    QCOMPARE(drive(), QByteArray("0"));
    QCOMPARE(first, 1);
    QCOMPARE(second, 1);
}

void TestMsRelayControl::anOpenedRelayPassesTheCheck()
{
    LogSpy log;
    const auto control = makeControl();
    const QSignalSpy failures(control.get(), &MsRelayControl::bcMachineStopFail);
    showContact("1\n");
    log.clear();
    QElapsedTimer sincePress;
    sincePress.start();
    control->machineStopPressed();
    QCOMPARE(log.lines(), QStringList{"MsRelayControl::machineStopPressed( void )"});
    QTRY_VERIFY(log.contains("RelayOpen"));
    QVERIFY2(sincePress.elapsed() >= 950, qPrintable(QString::number(sincePress.elapsed())));
    QCOMPARE(failures.count(), 0);
    QCOMPARE(drive(), QByteArray("1"));
}

void TestMsRelayControl::aWeldedRelayIsOpenedAndReported()
{
    LogSpy log;
    const auto control = makeControl();
    const QSignalSpy failures(control.get(), &MsRelayControl::bcMachineStopFail);
    showContact("0\n");
    control->machineStopPressed();
    QCOMPARE(drive(), QByteArray("1"));
    QTRY_COMPARE(failures.count(), 1);
    QVERIFY(log.contains("Relay closed"));
    QCOMPARE(drive(), QByteArray("0"));
}

void TestMsRelayControl::aFailedCheckAllowsReclosing()
{
    const LogSpy log;
    const auto control = makeControl();
    control->machineStopPressedTimerTimeout();
    QCOMPARE(drive(), QByteArray("0"));
    control->systemStateSlot(0);
    control->systemStateSlot(1);
    QCOMPARE(drive(), QByteArray("1"));
}

void TestMsRelayControl::pressesWithinTheSecondMakeOneCheck()
{
    LogSpy log;
    const auto control = makeControl();
    showContact("1\n");
    control->machineStopPressed();
    QTimer soon; // started behind the first press, so due before a second that a later press had restarted
    soon.setTimerType(Qt::PreciseTimer);
    soon.setSingleShot(true);
    soon.setInterval(1100);
    bool isCheckedByThen = false;
    connect(&soon, &QTimer::timeout, this, [&] { isCheckedByThen = log.contains("RelayOpen"); });
    soon.start();
    QThread::msleep(300);
    control->machineStopPressed();
    control->machineStopPressed();
    QTRY_VERIFY(!soon.isActive());
    QVERIFY2(isCheckedByThen, "the second press restarted the second");
    // A second check, started by the later presses, would come within a second of them.
    QTest::qWait(1100);
    QCOMPARE(log.count("RelayOpen"), 1);
}

void TestMsRelayControl::aPressAfterTheCheckMakesAnother()
{
    LogSpy log;
    const auto control = makeControl();
    showContact("1\n");
    control->machineStopPressed();
    control->machineStopPressedTimerTimeout();
    QCOMPARE(log.count("RelayOpen"), 1);
    control->machineStopPressed();
    QTRY_COMPARE(log.count("RelayOpen"), 2);
}

void TestMsRelayControl::shutdownOpensTheRelayForGood()
{
    const LogSpy log;
    const auto control = makeControl();
    control->machineStopPressed();
    QVERIFY(control->openForShutdown());
    QCOMPARE(drive(), QByteArray("0"));
    control->systemStateSlot(1);
    control->newEvent(MsRelayControl::STARTING_EVENT);
    control->machineStopPressed();
    QCOMPARE(drive(), QByteArray("0"));
}

void TestMsRelayControl::shutdownWithoutGpioIsSurvived()
{
    const LogSpy log;
    const auto control = makeControl();
    QVERIFY(QDir(path("gpio37")).removeRecursively());
    QVERIFY(!control->openForShutdown());
    control->systemStateSlot(0);
    control->systemStateSlot(1);
}

QTEST_GUILESS_MAIN(TestMsRelayControl)
#include "tst_msrelaycontrol.moc"
