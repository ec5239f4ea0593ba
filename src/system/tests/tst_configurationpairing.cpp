#include "configuration.h"
#include "configurationfiles.h"
#include "fatalprobe.h"
#include "filesizelimit.h"
#include "logspy.h"
#include "sanitizer.h"
#include "textfile.h"

#include <QDir>
#include <QSignalSpy>
#include <QtTest>

#include <ctime>

class TestConfigurationPairing : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void pairingAppendsAnUnknownRemote();
    void pairingFillsAnEmptyFile();
    void pairingRenewsTheKeysOfAKnownRemote();
    void pairingNeverTakesAnotherRemotesRow();
    void pairingBesideManyRemotesTakesItsTimeOnce();
    void pairingWithoutIdentityColumnIsFatal();
    void pairingWithoutAKeyColumnStoresTheOtherWords();
    void pairingReachesTheFileInOneStep();
    void pairingThatCannotBeWrittenLeavesTheFile();
    void writingAloneChangesNothingInMemory();
    void preparingTouchesNoFile();
    void preparingIsRefusedWhereNotAllWordsFit();
    void preparingIsRefusedWhereTheFileCannotBeRead();
    void preparingWithoutIdentityColumnIsFatal();
    void settingsThatCannotBeReadAreNoticed();

private:
    QScopedPointer<ConfigurationFiles> m_files;
    QScopedPointer<LogSpy> m_spy;
};

void TestConfigurationPairing::init()
{
    m_files.reset(new ConfigurationFiles);
    m_spy.reset(new LogSpy);
}

void TestConfigurationPairing::cleanup()
{
    m_spy.reset();
    m_files.reset();
}

void TestConfigurationPairing::pairingAppendsAnUnknownRemote()
{
    m_files->putRemotes("0;1;0;0;0;0\n1;2;0;0;0;0\n2;3;0;0;0;0\n3;4;0;0;0;0\n4;5;0;0;0;0\n");
    Configuration configuration(m_files->sources(), nullptr);
    QSignalSpy changed(&configuration, &Configuration::configurationChanged);
    unsigned int seenBySlot = 0;
    connect(&configuration, &Configuration::configurationChanged,
            [&] { configuration.getRemoteTag(5, "PKY4", "", &seenBySlot); });

    configuration.updateRemotePairing(9, 1, 22, 333, 4294967295U);
    QCOMPARE(m_files->remoteRows(), QByteArray("0;1;0;0;0;0\n1;2;0;0;0;0\n2;3;0;0;0;0\n3;4;0;0;0;0\n4;5;0;0;0;0\n"
                                               "5;9;1;22;333;4294967295\n"));
    QCOMPARE(changed.count(), 1);
    QCOMPARE(seenBySlot, 4294967295U); // the reload comes before the signal
    bool found = false;
    QCOMPARE(configuration.getRemoteTag(5, "RUID", &found), QByteArray::fromHex("09000000"));
    QVERIFY(found);
}

void TestConfigurationPairing::pairingFillsAnEmptyFile()
{
    Configuration configuration(m_files->sources(), nullptr);
    configuration.updateRemotePairing(9, 1, 2, 3, 4);
    configuration.updateRemotePairing(8, 5, 6, 7, 8);
    QCOMPARE(m_files->remoteRows(), QByteArray("0;9;1;2;3;4\n1;8;5;6;7;8\n"));
    QCOMPARE(m_spy->lines().filter("Invalid"), QStringList());
}

void TestConfigurationPairing::pairingRenewsTheKeysOfAKnownRemote()
{
    m_files->putRemotes("0;7;10;20;30;40\n1;9;11;21;31;41\n2;9;12;22;32;42\n");
    Configuration configuration(m_files->sources(), nullptr);
    configuration.updateRemotePairing(9, 1, 2, 3, 4);
    QCOMPARE(m_files->remoteRows(), QByteArray("0;7;10;20;30;40\n1;9;1;2;3;4\n2;9;12;22;32;42\n"));
    unsigned int value = 0;
    QVERIFY(configuration.getRemoteTag(1, "PKY2", "", &value));
    QCOMPARE(value, 2U);
}

void TestConfigurationPairing::pairingNeverTakesAnotherRemotesRow()
{
    // The blank last line is a row whose key counts as 0: the key after it is row 1's.
    m_files->putRemotes("0;7;10;20;30;40\n1;8;11;21;31;41\n\n");
    Configuration configuration(m_files->sources(), nullptr);
    configuration.writeToConfigFile(9, 1, 2, 3, 4);
    QCOMPARE(m_files->remoteRows(), QByteArray("0;7;10;20;30;40\n1;8;11;21;31;41\n;;;;;\n2;9;1;2;3;4\n"));
}

// The key after that of the blank line is taken, and so are those after it: 60,000 times looking through 60,000 rows
// takes minutes on the board.
void TestConfigurationPairing::pairingBesideManyRemotesTakesItsTimeOnce()
{
    QByteArray rows;
    for (int row = 0; row < 60000; ++row) {
        const QByteArray number = QByteArray::number(row);
        rows += number + ';' + QByteArray::number(row + 1) + ";1;2;3;4\n";
    }
    m_files->putRemotes(rows + '\n');
    Configuration configuration(m_files->sources(), nullptr);
    const std::clock_t before = std::clock(); // of the processor: others may have work, too

    QVERIFY(configuration.updateRemotePairing(60001, 1, 2, 3, 4));

    const double seconds = double(std::clock() - before) / CLOCKS_PER_SEC;
    QVERIFY2(seconds < (IsSanitized ? 60 : 5), qPrintable(QString("%1 s").arg(seconds)));
    QVERIFY(m_files->remoteRows().endsWith("\n60000;;;;;\n60001;60001;1;2;3;4\n")); // numbered anew by the reload
    QVERIFY(configuration.isRemoteKnown(60001));
}

void TestConfigurationPairing::pairingWithoutIdentityColumnIsFatal()
{
    ConfigurationFiles::put(m_files->sources().remotesFile, "ruindex;PKY1\n;\n0;1\n");
    Configuration configuration(m_files->sources(), nullptr);
    m_spy.reset();
    VERIFY_FATAL("src/system/configuration", 358, configuration.writeToConfigFile(9, 1, 2, 3, 4));
    VERIFY_FATAL("src/system/configuration", 358, configuration.updateRemotePairing(9, 1, 2, 3, 4));
    QVERIFY(QFile::remove(m_files->sources().remotesFile));
    VERIFY_FATAL("src/system/configuration", 358, configuration.updateRemotePairing(9, 1, 2, 3, 4));
}

void TestConfigurationPairing::pairingWithoutAKeyColumnStoresTheOtherWords()
{
    const QString path = m_files->sources().remotesFile;
    ConfigurationFiles::put(path, "ruindex;RUID;PKY1;PKY3;PKY4\n;;;;\n");
    Configuration configuration(m_files->sources(), nullptr);
    QVERIFY(!configuration.writeToConfigFile(9, 1, 2, 3, 4));
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), QByteArray("ruindex;RUID;PKY1;PKY3;PKY4\n;;;;\n0;9;1;3;4\n"));
    QVERIFY(m_spy->contains(
        QString("Trying to change columnkey:  \"PKY2\"  that does not exists in file:  \"%1\"").arg(path)));
}

void TestConfigurationPairing::pairingReachesTheFileInOneStep()
{
    m_files->putRemotes("0;9;10;20;30;40\n");
    Configuration configuration(m_files->sources(), nullptr);
    QFile reader(m_files->sources().remotesFile);
    QVERIFY(reader.open(QIODevice::ReadOnly));
    QVERIFY(configuration.updateRemotePairing(9, 1, 2, 3, 4));
    QCOMPARE(reader.readAll(), ConfigurationFiles::remotesHeader() + "0;9;10;20;30;40\n"); // the old file, whole
    QCOMPARE(m_files->remoteRows(), QByteArray("0;9;1;2;3;4\n"));
}

void TestConfigurationPairing::pairingThatCannotBeWrittenLeavesTheFile()
{
    m_files->putRemotes("0;9;10;20;30;40\n");
    Configuration configuration(m_files->sources(), nullptr);
    bool stored = true;
    {
        const FileSizeLimit full(20);
        stored = configuration.updateRemotePairing(9, 1, 2, 3, 4);
    }
    QVERIFY(!stored);
    QCOMPARE(m_files->remoteRows(), QByteArray("0;9;10;20;30;40\n"));
    unsigned int value = 0;
    QVERIFY(configuration.getRemoteTag(0, "PKY1", "", &value));
    QCOMPARE(value, 10U);
}

void TestConfigurationPairing::writingAloneChangesNothingInMemory()
{
    Configuration configuration(m_files->sources(), nullptr);
    QSignalSpy changed(&configuration, &Configuration::configurationChanged);
    configuration.writeToConfigFile(9, 1, 2, 3, 4);
    QCOMPARE(m_files->remoteRows(), QByteArray("0;9;1;2;3;4\n"));
    unsigned int value = 0;
    QVERIFY(!configuration.getRemoteTag(0, "RUID", "", &value));
    QCOMPARE(changed.count(), 0);
}

void TestConfigurationPairing::preparingTouchesNoFile()
{
    m_files->putRemotes("0;9;10;20;30;40\n");
    Configuration configuration(m_files->sources(), nullptr);
    TextFileChange change;
    QVERIFY(configuration.prepareRemotePairing(9, 1, 2, 3, 4, &change));
    QCOMPARE(change.path, QFileInfo(m_files->sources().remotesFile).canonicalFilePath());
    QCOMPARE(change.before, ConfigurationFiles::remotesHeader() + "0;9;10;20;30;40\n");
    QCOMPARE(change.after, ConfigurationFiles::remotesHeader() + "0;9;1;2;3;4\n");
    QCOMPARE(m_files->remoteRows(), QByteArray("0;9;10;20;30;40\n"));
}

void TestConfigurationPairing::preparingIsRefusedWhereNotAllWordsFit()
{
    ConfigurationFiles::put(m_files->sources().remotesFile, "ruindex;RUID;PKY1;PKY3;PKY4\n;;;;\n");
    Configuration configuration(m_files->sources(), nullptr);
    TextFileChange change;
    QVERIFY(!configuration.prepareRemotePairing(9, 1, 2, 3, 4, &change));
    QCOMPARE(change.after, QByteArray());
}

/// Its end would be that of a broken installation, which this is not.
void TestConfigurationPairing::preparingIsRefusedWhereTheFileCannotBeRead()
{
    const QString path = m_files->sources().remotesFile;
    Configuration configuration(m_files->sources(), nullptr);
    QVERIFY(QFile::remove(path) && QDir().mkdir(path)); // there, and not to be read as a file
    TextFileChange change;
    QVERIFY(!configuration.prepareRemotePairing(9, 1, 2, 3, 4, &change));
}

void TestConfigurationPairing::preparingWithoutIdentityColumnIsFatal()
{
    const QString path = m_files->sources().remotesFile;
    ConfigurationFiles::put(path, "ruindex;PKY1\n;\n0;1\n");
    Configuration configuration(m_files->sources(), nullptr);
    TextFileChange change;
    m_spy.reset();
    VERIFY_FATAL("src/system/configuration", 358, configuration.prepareRemotePairing(9, 1, 2, 3, 4, &change));
    QVERIFY(QFile::remove(path));
    VERIFY_FATAL("src/system/configuration", 358, configuration.prepareRemotePairing(9, 1, 2, 3, 4, &change));
}

void TestConfigurationPairing::settingsThatCannotBeReadAreNoticed()
{
    const QString path = m_files->sources().appFile;
    Configuration configuration(m_files->sources(), nullptr);
    QVERIFY(configuration.hasReadSettings());
    QFile::remove(path); // what is not there need not be read
    configuration.reConfig();
    QVERIFY(configuration.hasReadSettings());
    QVERIFY(QDir().mkdir(path));
    configuration.reConfig();
    QVERIFY(!configuration.hasReadSettings());
}

QTEST_GUILESS_MAIN(TestConfigurationPairing)
#include "tst_configurationpairing.moc"
