#include "configuration.h"
#include "configurationfiles.h"
#include "filesizelimit.h"
#include "logspy.h"

#include <QSignalSpy>
#include <QtTest>

class TestConfiguration : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void readsTheUnitsFilesByDefault();
    void signalsComeInOrder();

    void appValuesAreEncodedByOrigin_data();
    void appValuesAreEncodedByOrigin();
    void unknownAppKeysAreReported();
    void appRowWithoutValueColumnIsEmpty();
    void keysFileWinsOverAppFile();
    void keysFromTheBaseController();
    void valuesReadAsTheFilesText_data();
    void valuesReadAsTheFilesText();

    void remoteCellsAreFourBytes_data();
    void remoteCellsAreFourBytes();
    void remoteRowsAreFoundByRowNumber();
    void remoteLookupTellsWhatIsMissing();
    void remoteRowKeyThatIsNoNumberLandsAtZero();
    void pairedTestReadsBinaryAsText_data();
    void pairedTestReadsBinaryAsText();
    void knownRemotesAreThoseOfAllRowsUpToAGap_data();
    void knownRemotesAreThoseOfAllRowsUpToAGap();
    void reloadForgetsRemotes();

    void setAppTagChangesExistingRowsOnly();
    void reloadDropsWhatWasSetInMemory();
    void reloadRepairsTheRemotesFile();
    void reloadReportsAnOddLineOnce();
    void reloadCorrectsWhatItCannotRepair();
    void missingFilesLeaveAnEmptyStore();
    void reloadOfVanishedFilesEmptiesTheStore();

private:
    QByteArray appValue(const Configuration& configuration, const QString& key) const;

    QScopedPointer<ConfigurationFiles> m_files;
    QScopedPointer<LogSpy> m_spy;
};

void TestConfiguration::init()
{
    m_files.reset(new ConfigurationFiles);
    m_spy.reset(new LogSpy);
}

void TestConfiguration::cleanup()
{
    m_spy.reset();
    m_files.reset();
}

QByteArray TestConfiguration::appValue(const Configuration& configuration, const QString& key) const
{
    bool found = false;
    const QByteArray value = configuration.getAppTag(key, &found);
    return found ? value : QByteArray("(not found)");
}

void TestConfiguration::readsTheUnitsFilesByDefault()
{
    const ConfigurationSources unit;
    QCOMPARE(unit.appFile, QString("/home/root/Applications/tessaroserver/config/app.csv"));
    QCOMPARE(unit.remotesFile, QString("/home/root/Applications/tessaroserver/config/remotes.csv"));
    QCOMPARE(unit.keysFile, QString("/home/root/Applications/tessaroserver/config/keys.csv"));
    QCOMPARE(unit.egLinkInterface, QString("eth0"));
}

void TestConfiguration::signalsComeInOrder()
{
    const QMetaObject& meta = Configuration::staticMetaObject;
    QCOMPARE(meta.methodCount() - meta.methodOffset(), 2);
    QCOMPARE(meta.method(meta.methodOffset()).methodSignature(), QByteArray("configurationChanged()"));
    QCOMPARE(meta.method(meta.methodOffset() + 1).methodSignature(), QByteArray("eglinkIpChanged()"));
}

void TestConfiguration::appValuesAreEncodedByOrigin_data()
{
    QTest::addColumn<QByteArray>("row");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<bool>("isNumber");
    QTest::addColumn<unsigned int>("number");

    const auto hex = [](const char* digits) {
        return QByteArray::fromHex(digits);
    };
    QTest::newRow("base controller") << QByteArray("K;BC;300\n") << hex("2C010000") << true << 300U;
    QTest::newRow("remote side") << QByteArray("K;RGP;300\n") << hex("2C010000") << true << 300U;
    QTest::newRow("largest number") << QByteArray("K;BC;4294967295\n") << hex("FFFFFFFF") << true << 4294967295U;
    QTest::newRow("too large a number") << QByteArray("K;BC;4294967296\n") << hex("00000000") << true << 0U;
    QTest::newRow("no number") << QByteArray("K;BC;abc\n") << hex("00000000") << true << 0U;
    QTest::newRow("negative number") << QByteArray("K;BC;-1\n") << hex("00000000") << true << 0U;
    QTest::newRow("no value") << QByteArray("K;BC\n") << hex("00000000") << true << 0U;
    QTest::newRow("local text") << QByteArray("K;local;300\n") << QByteArray("300") << false << 0U;
    QTest::newRow("no origin") << QByteArray("K;;300\n") << QByteArray("300") << false << 0U;
    QTest::newRow("origin in small letters") << QByteArray("K;bc;300\n") << QByteArray("300") << false << 0U;
    QTest::newRow("local text of four bytes reads as a number")
        << QByteArray("K;local;5825\n") << QByteArray("5825") << true << 0x35323835U;
    QTest::newRow("Latin-1 text") << QByteArray("K;local;\xE5\n") << QByteArray("\xE5") << false << 0U;
    QTest::newRow("empty text") << QByteArray("K;local;\n") << QByteArray() << false << 0U;
}

void TestConfiguration::appValuesAreEncodedByOrigin()
{
    QFETCH(QByteArray, row);
    QFETCH(QByteArray, bytes);
    QFETCH(bool, isNumber);
    QFETCH(unsigned int, number);
    m_files->putApp(row);
    const Configuration configuration(m_files->sources(), nullptr);
    QCOMPARE(appValue(configuration, "K"), bytes);

    constexpr unsigned int untouched = 0xDEADBEEF;
    unsigned int value = untouched;
    QCOMPARE(configuration.getAppTag("K", &value), isNumber);
    QCOMPARE(value, isNumber ? number : untouched);
}

void TestConfiguration::unknownAppKeysAreReported()
{
    m_files->putApp("K;BC;1\n");
    const Configuration configuration(m_files->sources(), nullptr);
    bool found = true;
    QCOMPARE(configuration.getAppTag("L", &found), QByteArray());
    QVERIFY(!found);
    unsigned int value = 5;
    QVERIFY(!configuration.getAppTag("L", &value));
    QCOMPARE(value, 5U);
}

void TestConfiguration::appRowWithoutValueColumnIsEmpty()
{
    ConfigurationFiles::put(m_files->sources().appFile, "tag;from\n;\nK;BC\n");
    const Configuration configuration(m_files->sources(), nullptr);
    QCOMPARE(appValue(configuration, "K"), QByteArray());
    unsigned int value = 5;
    QVERIFY(!configuration.getAppTag("K", &value));
    QCOMPARE(configuration.getAppConfigKeysFromBC(), QStringList{"K"});
}

void TestConfiguration::keysFileWinsOverAppFile()
{
    m_files->putApp("A;local;app\nB;local;app\n");
    m_files->putKeys("B;BC;2\nC;local;keys\n");
    const Configuration configuration(m_files->sources(), nullptr);
    QCOMPARE(appValue(configuration, "A"), QByteArray("app"));
    QCOMPARE(appValue(configuration, "B"), QByteArray::fromHex("02000000"));
    QCOMPARE(appValue(configuration, "C"), QByteArray("keys"));
}

void TestConfiguration::keysFromTheBaseController()
{
    m_files->putApp("Z;BC;1\nR;RGP;1\n B ;BC;1\nL;local;1\n");
    m_files->putKeys("K;BC;1\n");
    const Configuration configuration(m_files->sources(), nullptr);
    QCOMPARE(configuration.getAppConfigKeysFromBC(), (QStringList{"B", "K", "Z"}));
    QCOMPARE(appValue(configuration, " B "), QByteArray::fromHex("01000000"));
}

void TestConfiguration::valuesReadAsTheFilesText_data()
{
    QTest::addColumn<QByteArray>("row");
    QTest::addColumn<QString>("text");
    QTest::newRow("number of the base controller") << QByteArray("K;BC;300\n") << "300";
    QTest::newRow("number of the remote side") << QByteArray("K;RGP;4294967295\n") << "4294967295";
    QTest::newRow("local text") << QByteArray("K;local;a b\n") << "a b";
    QTest::newRow("local text of four bytes") << QByteArray("K;local;5825\n") << "5825";
    QTest::newRow("Latin-1 text") << QByteArray("K;local;\xE5\n") << QString(QChar(0xE5));
}

void TestConfiguration::valuesReadAsTheFilesText()
{
    QFETCH(QByteArray, row);
    QFETCH(QString, text);
    m_files->putApp(row);
    const Configuration configuration(m_files->sources(), nullptr);
    bool found = false;
    QCOMPARE(configuration.getAppTagText("K", &found), text);
    QVERIFY(found);
    QCOMPARE(configuration.getAppTagText("L", &found), QString());
    QVERIFY(!found);
}

void TestConfiguration::remoteCellsAreFourBytes_data()
{
    QTest::addColumn<QByteArray>("cell");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<unsigned int>("number");
    QTest::newRow("number") << QByteArray("4660") << QByteArray::fromHex("34120000") << 4660U;
    QTest::newRow("largest number") << QByteArray("4294967295") << QByteArray::fromHex("FFFFFFFF") << 4294967295U;
    QTest::newRow("no number") << QByteArray("abc") << QByteArray::fromHex("00000000") << 0U;
    QTest::newRow("empty") << QByteArray("") << QByteArray::fromHex("00000000") << 0U;
    QTest::newRow("hexadecimal text is no number") << QByteArray("0x10") << QByteArray::fromHex("00000000") << 0U;
}

void TestConfiguration::remoteCellsAreFourBytes()
{
    QFETCH(QByteArray, cell);
    QFETCH(QByteArray, bytes);
    QFETCH(unsigned int, number);
    m_files->putRemotes("0;7;" + cell + ";2;3;4\n");
    const Configuration configuration(m_files->sources(), nullptr);
    bool found = false;
    QCOMPARE(configuration.getRemoteTag(0, "PKY1", &found), bytes);
    QVERIFY(found);
    unsigned int value = 5;
    QVERIFY(configuration.getRemoteTag(0, "PKY1", "", &value));
    QCOMPARE(value, number);
}

void TestConfiguration::remoteRowsAreFoundByRowNumber()
{
    m_files->putRemotes("0;7;10;20;30;40\n1;9;11;21;31;41\n");
    const Configuration configuration(m_files->sources(), nullptr);
    unsigned int value = 0;
    QVERIFY(configuration.getRemoteTag(1, "RUID", "any column", &value));
    QCOMPARE(value, 9U);
    QVERIFY(configuration.getRemoteTag(1, "PKY4", "RUID", &value));
    QCOMPARE(value, 41U);
    QVERIFY(configuration.getRemoteTag(1, "ruindex", "", &value));
    QCOMPARE(value, 1U);
}

void TestConfiguration::remoteLookupTellsWhatIsMissing()
{
    m_files->putRemotes("0;7;10;20;30;40\n");
    const Configuration configuration(m_files->sources(), nullptr);
    bool found = true;
    QCOMPARE(configuration.getRemoteTag(7, "PKY1", &found), QByteArray());
    QVERIFY(!found);
    found = true;
    QCOMPARE(configuration.getRemoteTag(0, "PKY5", &found), QByteArray());
    QVERIFY(!found);
    unsigned int value = 5;
    QVERIFY(!configuration.getRemoteTag(7, "PKY1", "PKY1", &value));
    QVERIFY(!configuration.getRemoteTag(0, "PKY5", "PKY1", &value));
    QCOMPARE(value, 5U);
}

void TestConfiguration::remoteRowKeyThatIsNoNumberLandsAtZero()
{
    m_files->putRemotes("alpha;7;10\n");
    const Configuration configuration(m_files->sources(), nullptr);
    unsigned int value = 0;
    QVERIFY(configuration.getRemoteTag(0, "PKY1", "", &value));
    QCOMPARE(value, 10U);
}

void TestConfiguration::pairedTestReadsBinaryAsText_data()
{
    QTest::addColumn<QByteArray>("rows");
    QTest::addColumn<int>("ruId");
    QTest::addColumn<bool>("paired");
    QTest::newRow("no remote at all") << QByteArray() << 0 << false;
    QTest::newRow("a paired remote is not recognised") << QByteArray("0;7;1;2;3;4\n") << 7 << false;
    QTest::newRow("its binary identity reads as 0") << QByteArray("0;7;1;2;3;4\n") << 0 << true;
    QTest::newRow("53 is the digit 5") << QByteArray("0;53;1;2;3;4\n") << 5 << true;
    QTest::newRow("and is not 0 then") << QByteArray("0;53;1;2;3;4\n") << 0 << false;
    QTest::newRow("a later remote counts too") << QByteArray("0;53;1;2;3;4\n1;7;1;2;3;4\n") << 0 << true;
}

void TestConfiguration::pairedTestReadsBinaryAsText()
{
    QFETCH(QByteArray, rows);
    QFETCH(int, ruId);
    QFETCH(bool, paired);
    m_files->putRemotes(rows);
    const Configuration configuration(m_files->sources(), nullptr);
    QCOMPARE(configuration.isRemotePaired(static_cast<unsigned short>(ruId)), paired);
}

void TestConfiguration::knownRemotesAreThoseOfAllRowsUpToAGap_data()
{
    QTest::addColumn<QByteArray>("rows");
    QTest::addColumn<int>("ruId");
    QTest::addColumn<bool>("known");
    QTest::newRow("no remote at all") << QByteArray() << 0 << false;
    QTest::newRow("first row") << QByteArray("0;7;1;2;3;4\n1;9;1;2;3;4\n") << 7 << true;
    QTest::newRow("last row") << QByteArray("0;7;1;2;3;4\n1;9;1;2;3;4\n") << 9 << true;
    QTest::newRow("row numbers are no identities") << QByteArray("0;7;1;2;3;4\n1;9;1;2;3;4\n") << 1 << false;
    QTest::newRow("the largest") << QByteArray("0;65535;1;2;3;4\n") << 65535 << true;
    QTest::newRow("65536 is nobody's, not that of 0") << QByteArray("0;65536;1;2;3;4\n") << 0 << false;
    QTest::newRow("no number reads as 0") << QByteArray("0;;1;2;3;4\n") << 0 << true;
    QTest::newRow("behind a gap") << QByteArray("0;7;1;2;3;4\n2;9;1;2;3\n") << 9 << false;
}

void TestConfiguration::knownRemotesAreThoseOfAllRowsUpToAGap()
{
    QFETCH(QByteArray, rows);
    QFETCH(int, ruId);
    QFETCH(bool, known);
    m_files->putRemotes(rows);
    const Configuration configuration(m_files->sources(), nullptr);
    QCOMPARE(configuration.isRemoteKnown(static_cast<unsigned short>(ruId)), known);
}

void TestConfiguration::reloadForgetsRemotes()
{
    m_files->putRemotes("0;7;1;2;3;4\n");
    Configuration configuration(m_files->sources(), nullptr);
    m_files->putRemotes("0;9;1;2;3;4\n");
    configuration.reConfig();
    QVERIFY(!configuration.isRemoteKnown(7));
    QVERIFY(configuration.isRemoteKnown(9));
}

void TestConfiguration::setAppTagChangesExistingRowsOnly()
{
    m_files->putApp("A;local;old\nB;local;other\n");
    Configuration configuration(m_files->sources(), nullptr);
    m_spy->clear();
    configuration.setAppTag("A", QByteArray("\x01\x02", 2));
    configuration.setAppTag("X", "new");
    QCOMPARE(appValue(configuration, "A"), QByteArray::fromHex("0102"));
    QCOMPARE(appValue(configuration, "B"), QByteArray("other"));
    QCOMPARE(appValue(configuration, "X"), QByteArray("(not found)"));
    QCOMPARE(m_spy->lines(), (QStringList{"KEY:  \"A\"  value  \"\\x01\\x02\"", "KEY:  \"X\"  value  \"new\""}));
    QCOMPARE(m_spy->lines(QtDebugMsg).size(), 2);
}

void TestConfiguration::reloadDropsWhatWasSetInMemory()
{
    m_files->putApp("A;local;old\nB;local;x\n");
    Configuration configuration(m_files->sources(), nullptr);
    configuration.setAppTag("A", "set");
    m_files->putApp("A;local;new\n");
    QSignalSpy changed(&configuration, &Configuration::configurationChanged);
    m_spy->clear();
    configuration.reConfig();
    QCOMPARE(appValue(configuration, "A"), QByteArray("new"));
    QCOMPARE(appValue(configuration, "B"), QByteArray("(not found)"));
    QCOMPARE(changed.count(), 0);
    QCOMPARE(m_spy->lines(), (QStringList{"------------------------- RECONFIG -------------------------",
                                          "KEY:  \"EGDH\"  value  \"\\x00\\x00\\x00\\x00\""}));
}

void TestConfiguration::reloadRepairsTheRemotesFile()
{
    m_files->putRemotes("4;7;10;20;30;40\n4;9;11;21;31;41\n");
    const Configuration configuration(m_files->sources(), nullptr);
    QCOMPARE(m_files->remoteRows(), QByteArray("0;7;10;20;30;40\n1;9;11;21;31;41\n"));
    unsigned int value = 0;
    QVERIFY(configuration.getRemoteTag(1, "PKY1", "", &value));
    QCOMPARE(value, 11U);
    const QString updating = QString("Updating \"%1\"").arg(m_files->sources().remotesFile);
    QCOMPARE(m_spy->lines(QtInfoMsg), QStringList{updating});
}

void TestConfiguration::reloadReportsAnOddLineOnce()
{
    m_files->putRemotes("4;7;10;20;30;40\n1;9;11;21;31;41;51\n");
    const Configuration configuration(m_files->sources(), nullptr);
    QCOMPARE(m_spy->lines(QtWarningMsg).filter("Invalid line in").size(), 1);
}

void TestConfiguration::reloadCorrectsWhatItCannotRepair()
{
    Configuration configuration(m_files->sources(), nullptr);
    m_files->putRemotes("4;7;10;20;30;40\n");
    {
        const FileSizeLimit full(20);
        configuration.reConfig();
    }
    QCOMPARE(m_files->remoteRows(), QByteArray("4;7;10;20;30;40\n"));
    unsigned int value = 0;
    QVERIFY(configuration.getRemoteTag(0, "PKY1", "", &value));
    QCOMPARE(value, 10U);
}

void TestConfiguration::missingFilesLeaveAnEmptyStore()
{
    Configuration configuration({"/absent/app.csv", "/absent/remotes.csv", "/absent/keys.csv", "no-such-eth"}, nullptr);
    QCOMPARE(m_spy->lines(QtCriticalMsg),
             (QStringList{
                 "Load Configurations File Error:  \"/absent/app.csv\" \"No such file or directory\"",
                 "Load Configurations File Error:  \"/absent/remotes.csv\" \"No such file or directory\"",
                 "Load Configurations File Error:  \"/absent/keys.csv\" \"No such file or directory\"",
             }));
    QCOMPARE(appValue(configuration, "EGDH"), QByteArray("(not found)"));
    unsigned int value = 0;
    QVERIFY(!configuration.getRemoteTag(0, "RUID", "", &value));
    QVERIFY(!configuration.isRemotePaired(0));
    QCOMPARE(configuration.getAppConfigKeysFromBC(), QStringList());
}

void TestConfiguration::reloadOfVanishedFilesEmptiesTheStore()
{
    m_files->putApp("A;local;x\n");
    m_files->putRemotes("0;7;10;20;30;40\n");
    Configuration configuration(m_files->sources(), nullptr);
    QVERIFY(QFile::remove(m_files->sources().appFile));
    QVERIFY(QFile::remove(m_files->sources().remotesFile));
    configuration.reConfig();
    QCOMPARE(appValue(configuration, "A"), QByteArray("(not found)"));
    bool found = true;
    configuration.getRemoteTag(0, "RUID", &found);
    QVERIFY(!found);
    unsigned int value = 0;
    QVERIFY(!configuration.getRemoteTag(0, "RUID", "", &value));
}

QTEST_GUILESS_MAIN(TestConfiguration)
#include "tst_configuration.moc"
