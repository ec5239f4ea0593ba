#include "configfile.h"
#include "fatalprobe.h"
#include "filesizelimit.h"
#include "logspy.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

class TestConfigFileRewrite : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void writesBackWhatItRead_data();
    void writesBackWhatItRead();
    void blankLineTurnsIntoAnInvalidLine();
    void keepsHeaderLinesOfTheFileOnDisk();
    void neverWritesWithoutHeaderLines_data();
    void neverWritesWithoutHeaderLines();
    void doesNotWriteAMissingFile();
    void changesOneCell();
    void changesTheKeyCellAndNotTheKey();
    void appendsANewRow();
    void appendsTheFirstRow();
    void changesInMemoryReachTheFileTogether();
    void refusesAnUnknownColumn();
    void rowNamedLikeItsColumnIsFatal();
    void newFileReplacesTheOldOneInOneStep();
    void keepsPermissions();
    void fullDiskLeavesTheOldFile_data();
    void fullDiskLeavesTheOldFile();
    void killedWriterLeavesAWholeFile();
    void rewritesTheConstructorsPathAfterLoadingAnother();
    void rewriteTellsWhatItWouldWrite();

private:
    QString path() const { return m_folder->filePath("table.csv"); }
    QString put(const QByteArray& content) const;
    QByteArray content() const;
    QStringList files() const { return QDir(m_folder->path()).entryList(QDir::Files | QDir::Hidden); }

    QScopedPointer<QTemporaryDir> m_folder;
    QScopedPointer<LogSpy> m_spy;
};

void TestConfigFileRewrite::init()
{
    m_folder.reset(new QTemporaryDir);
    QVERIFY(m_folder->isValid());
    m_spy.reset(new LogSpy);
}

void TestConfigFileRewrite::cleanup()
{
    m_spy.reset();
    m_folder.reset();
}

QString TestConfigFileRewrite::put(const QByteArray& content) const
{
    QFile file(path());
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        qFatal("cannot lay the test file");
    }
    return path();
}

QByteArray TestConfigFileRewrite::content() const
{
    QFile file(path());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(no such file)");
}

void TestConfigFileRewrite::writesBackWhatItRead_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("after");
    const QByteArray plain("ID;CCH1;SID1\nRemote id;Channel;Network name\n1;11;alpha\n2;;beta\n");
    QTest::newRow("well-formed file") << plain << plain;
    QTest::newRow("missing fields are filled up")
        << QByteArray("ID;A;B\n;;\n1;x\n2\n") << QByteArray("ID;A;B\n;;\n1;x;\n2;;\n");
    QTest::newRow("DOS line ends") << QByteArray("ID;A\r\na;b\r\n1;x\r\n") << QByteArray("ID;A\na;b\n1;x\n");
    QTest::newRow("last line end is added") << QByteArray("ID;A\na;b\n1;x") << QByteArray("ID;A\na;b\n1;x\n");
    QTest::newRow("description line without line end") << QByteArray("ID;A\na;b") << QByteArray("ID;A\na;b\n");
    QTest::newRow("blanks of header lines stay, those of cells go")
        << QByteArray(" ID ;A  B\n a ; b \n1; x  y \n") << QByteArray(" ID ;A  B\n a ; b \n1;x y\n");
    QTest::newRow("blanks around a row key go with the key cell")
        << QByteArray("ID;A\n;\n 1 ;x\n") << QByteArray("ID;A\n;\n1;x\n");
    QTest::newRow("Latin-1 bytes") << QByteArray("ID;\xC4\n;\n1;\xE5\n") << QByteArray("ID;\xC4\n;\n1;\xE5\n");
    QTest::newRow("invalid lines go") << QByteArray("ID;A\n;\n1;x;y\n;z\n2;x\n") << QByteArray("ID;A\n;\n2;x\n");
    QTest::newRow("a row key read twice")
        << QByteArray("ID;A\n;\n1;x\n2;y\n1;z\n") << QByteArray("ID;A\n;\n1;z\n2;y\n1;z\n");
    QTest::newRow("last column key named twice")
        << QByteArray("ID;A;A\n;;\n1;x;y\n") << QByteArray("ID;A;A\n;;\n1;yy\n");
    QTest::newRow("one column") << QByteArray("ID\n\n1\n2\n") << QByteArray("ID\n\n1\n2\n");
}

void TestConfigFileRewrite::writesBackWhatItRead()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, after);
    ConfigFile table(put(before), nullptr);
    QVERIFY(table.writeData());
    QCOMPARE(content(), after);
    QCOMPARE(files(), QStringList{"table.csv"});
}

void TestConfigFileRewrite::blankLineTurnsIntoAnInvalidLine()
{
    ConfigFile table(put("ID;A\n;\n1;x\n\n2;y\n"), nullptr);
    QCOMPARE(table.getAllTags(), (QVector<QString>{"1", "\n", "2"}));
    QVERIFY(table.writeData());
    QCOMPARE(content(), QByteArray("ID;A\n;\n1;x\n;\n2;y\n"));
    QCOMPARE(m_spy->lines(), QStringList());

    const ConfigFile again(path(), nullptr);
    QCOMPARE(again.getAllTags(), (QVector<QString>{"1", "2"}));
    QCOMPARE(m_spy->lines(QtWarningMsg), QStringList{QString("Invalid line in \"%1\" line 3").arg(path())});
}

void TestConfigFileRewrite::keepsHeaderLinesOfTheFileOnDisk()
{
    ConfigFile table(put("ID;A\na;b\n1;x\n"), nullptr);
    put("id;a;more\nwritten;by;hand\n9;z\n");
    QVERIFY(table.writeData());
    QCOMPARE(content(), QByteArray("id;a;more\nwritten;by;hand\n1;x\n"));
}

void TestConfigFileRewrite::neverWritesWithoutHeaderLines_data()
{
    QTest::addColumn<QByteArray>("onDisk");
    QTest::newRow("empty file") << QByteArray();
    QTest::newRow("key line only") << QByteArray("ID;A\n");
    QTest::newRow("key line without line end") << QByteArray("ID;A");
}

void TestConfigFileRewrite::neverWritesWithoutHeaderLines()
{
    QFETCH(QByteArray, onDisk);
    ConfigFile table(put("ID;A\na;b\n1;x\n"), nullptr);
    put(onDisk);
    QVERIFY(!table.writeData());
    QCOMPARE(m_spy->lines(QtDebugMsg),
             QStringList{QString("Something is wrong with configuration file \"%1\"").arg(path())});
    QVERIFY(!table.addChangeTag("1", "A", "y"));
    QCOMPARE(content(), onDisk);
}

void TestConfigFileRewrite::doesNotWriteAMissingFile()
{
    ConfigFile table(put("ID;A\na;b\n1;x\n"), nullptr);
    QVERIFY(QFile::remove(path()));
    QVERIFY(!table.writeData());
    QVERIFY(!table.addChangeTag("1", "A", "y"));
    QCOMPARE(files(), QStringList());
    QCOMPARE(m_spy->lines(), QStringList());
}

void TestConfigFileRewrite::changesOneCell()
{
    ConfigFile table(put("ID;A;B\n;;\n1;x\n2;y;z\n"), nullptr);
    QVERIFY(table.addChangeTag("2", "A", "new"));
    QCOMPARE(table.getValue("2", "A"), QString("new"));
    QCOMPARE(table.getValue("2", "B"), QString("z"));
    QVERIFY(table.addChangeTag("1", "B", "late"));
    QCOMPARE(content(), QByteArray("ID;A;B\n;;\n1;x;late\n2;new;z\n"));
    QCOMPARE(m_spy->lines(), QStringList());
}

void TestConfigFileRewrite::changesTheKeyCellAndNotTheKey()
{
    ConfigFile table(put("ID;A\n;\n1;x\n"), nullptr);
    QVERIFY(table.addChangeTag("1", "ID", "5"));
    QCOMPARE(table.getAllTags(), QVector<QString>{"1"});
    QCOMPARE(content(), QByteArray("ID;A\n;\n5;x\n"));
}

void TestConfigFileRewrite::appendsANewRow()
{
    ConfigFile table(put("ID;CCH1;SID1\nRemote id;Channel;Network name\n1;12;alpha\n"), nullptr);
    QVERIFY(table.addChangeTag("7", "CCH1", "11"));
    QCOMPARE(content(), QByteArray("ID;CCH1;SID1\nRemote id;Channel;Network name\n1;12;alpha\n7;11;0\n"));
    QCOMPARE(m_spy->lines(QtInfoMsg),
             QStringList{QString("Makinq new tag:  \"7\"  because it does not exists in file:  \"%1\"").arg(path())});
    QCOMPARE(m_spy->lines().size(), 1);
    QCOMPARE(table.getAllTags(), (QVector<QString>{"1", "7"}));
    QCOMPARE(table.getValue("7", "ID"), QString("7"));
    QCOMPARE(table.getValue("7", "SID1"), QString("0"));
}

void TestConfigFileRewrite::appendsTheFirstRow()
{
    ConfigFile table(put("ID;A\na;b"), nullptr);
    QVERIFY(table.addChangeTag("0", "A", "x"));
    QCOMPARE(content(), QByteArray("ID;A\na;b\n0;x\n"));
}

void TestConfigFileRewrite::changesInMemoryReachTheFileTogether()
{
    const QByteArray before = "ID;A;B\n;;\n1;x;y\n";
    ConfigFile table(put(before), nullptr);
    QVERIFY(table.setValue("1", "A", "new"));
    QVERIFY(table.setValue("2", "B", "z"));
    QVERIFY(!table.setValue("2", "C", "z"));
    QCOMPARE(table.getValue("1", "A"), QString("new"));
    QCOMPARE(content(), before);
    QVERIFY(table.writeData());
    QCOMPARE(content(), QByteArray("ID;A;B\n;;\n1;new;y\n2;0;z\n"));
}

void TestConfigFileRewrite::refusesAnUnknownColumn()
{
    ConfigFile table(put("ID;A\n;\n1;x\n"), nullptr);
    QVERIFY(!table.addChangeTag("2", "C", "11"));
    QCOMPARE(
        m_spy->lines(QtDebugMsg),
        QStringList{QString("Trying to change columnkey:  \"C\"  that does not exists in file:  \"%1\"").arg(path())});
    QCOMPARE(m_spy->lines().size(), 1);
    QCOMPARE(content(), QByteArray("ID;A\n;\n1;x\n"));
    QCOMPARE(table.getAllTags(), QVector<QString>{"1"});
    QCOMPARE(table.getValue("2", "C"), QString());
}

void TestConfigFileRewrite::rowNamedLikeItsColumnIsFatal()
{
    ConfigFile table(put("ID;A\n;\n1;x\n"), nullptr);
    m_spy.reset();
    VERIFY_FATAL("submodules/ConfigFile/src/configfile", 180, table.addChangeTag("A", "A", "x"));
    VERIFY_FATAL("submodules/ConfigFile/src/configfile", 180, table.addChangeTag("Z", "Z", "x"));
    QCOMPARE(content(), QByteArray("ID;A\n;\n1;x\n"));
}

void TestConfigFileRewrite::newFileReplacesTheOldOneInOneStep()
{
    ConfigFile table(put("ID;A\n;\n1;x\n"), nullptr);
    QFile reader(path());
    QVERIFY(reader.open(QIODevice::ReadOnly));
    QVERIFY(table.addChangeTag("1", "A", "y"));
    QCOMPARE(reader.readAll(), QByteArray("ID;A\n;\n1;x\n")); // the old file, whole
    QCOMPARE(content(), QByteArray("ID;A\n;\n1;y\n"));
    QCOMPARE(files(), QStringList{"table.csv"});
}

void TestConfigFileRewrite::keepsPermissions()
{
    ConfigFile table(put("ID;A\n;\n1;x\n"), nullptr);
    const QFile::Permissions secret = QFile::ReadOwner | QFile::WriteOwner;
    QVERIFY(QFile::setPermissions(path(), secret));
    QVERIFY(table.addChangeTag("1", "A", "y"));
    const QFile::Permissions others = QFile::ReadGroup | QFile::WriteGroup | QFile::ReadOther | QFile::WriteOther;
    QCOMPARE(QFileInfo(path()).permissions() & others, QFile::Permissions());
}

void TestConfigFileRewrite::fullDiskLeavesTheOldFile_data()
{
    QTest::addColumn<int>("valueBytes");
    QTest::addColumn<int>("roomBytes");
    QTest::newRow("small file, no room at all") << 100 << 0;
    QTest::newRow("small file, room for a part") << 100 << 50;
    QTest::newRow("small file, one byte missing") << 100 << 113;
    QTest::newRow("large file, no room at all") << 100000 << 0;
    QTest::newRow("large file, room for a part") << 100000 << 50000;
    QTest::newRow("large file, one byte missing") << 100000 << 100013;
}

void TestConfigFileRewrite::fullDiskLeavesTheOldFile()
{
    QFETCH(int, valueBytes);
    QFETCH(int, roomBytes);
    const QByteArray before = "ID;A\n;\n1;" + QByteArray(valueBytes, 'x') + "\n";
    ConfigFile table(put(before), nullptr);
    bool written = true;
    {
        const FileSizeLimit full(static_cast<rlim_t>(roomBytes));
        written = table.addChangeTag("2", "A", "y");
    }
    QVERIFY(!written);
    QCOMPARE(content(), before);
    QCOMPARE(files(), QStringList{"table.csv"});
    QVERIFY(m_spy->lines(QtWarningMsg).isEmpty());

    // With room again, the next change writes everything.
    QVERIFY(table.addChangeTag("3", "A", "z"));
    QCOMPARE(content(), before + "2;y\n3;z\n");
}

void TestConfigFileRewrite::killedWriterLeavesAWholeFile()
{
    const QByteArray header = "ID;A\nkey;value\n";
    const QByteArray padding(20000, 'x');
    put(header + "1;" + padding + "\n2;0\n");
    int rewritten = 0;
    for (int round = 1; round <= 10; ++round) {
        int started[2];
        QCOMPARE(pipe(started), 0);
        const pid_t writer = fork();
        QVERIFY(writer >= 0);
        if (writer == 0) {
            ConfigFile table(path(), nullptr);
            for (int value = 1;; ++value) {
                table.addChangeTag("2", "A", QString::number(value));
                if (value == 1 && write(started[1], "", 1) != 1) {
                    _exit(1);
                }
            }
        }
        // Once it is at its work, which begins late on a busy machine, and takes long on a slow disk.
        close(started[1]);
        char byte = 0;
        QCOMPARE(read(started[0], &byte, 1), static_cast<ssize_t>(1));
        close(started[0]);
        usleep(static_cast<useconds_t>(5000 + 1700 * round)); // killed at another point of its work each time
        QCOMPARE(kill(writer, SIGKILL), 0);
        QCOMPARE(waitpid(writer, nullptr, 0), writer);

        const ConfigFile table(path(), nullptr);
        QCOMPARE(table.getAllTags(), (QVector<QString>{"1", "2"}));
        QCOMPARE(table.getValue("1", "A").size(), padding.size());
        QVERIFY(content().startsWith(header));
        QVERIFY(content().endsWith('\n'));
        rewritten += table.getValue("2", "A").toInt() > 0 ? 1 : 0;
    }
    QVERIFY(rewritten > 0);
}

void TestConfigFileRewrite::rewritesTheConstructorsPathAfterLoadingAnother()
{
    const QString other = m_folder->filePath("other.csv");
    QVERIFY(QFile::copy(put("ID;A\n;\n1;x\n"), other));
    put("ID;A\na;b\n");
    ConfigFile table(path(), nullptr);
    QVERIFY(table.loadFile(other));
    QVERIFY(table.writeData());
    QCOMPARE(content(), QByteArray("ID;A\na;b\n1;x\n"));
}

void TestConfigFileRewrite::rewriteTellsWhatItWouldWrite()
{
    const QByteArray before("ID;CCH1\nRemote id;Channel\n1;11\n");
    ConfigFile file(put(before), nullptr);
    QVERIFY(file.setValue("1", "CCH1", "12"));
    QByteArray rewritten("as it was");

    QVERIFY(!file.rewrite("only one line\n", rewritten));
    QCOMPARE(rewritten, QByteArray("as it was"));
    QVERIFY(file.rewrite(before, rewritten));

    QCOMPARE(rewritten, QByteArray("ID;CCH1\nRemote id;Channel\n1;12\n"));
    QCOMPARE(content(), before);
}

QTEST_GUILESS_MAIN(TestConfigFileRewrite)
#include "tst_configfilerewrite.moc"
