#include "configfile.h"
#include "logspy.h"

#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QtTest>

using Keys = QVector<QString>;
using Texts = QMap<QString, QString>;

class TestConfigFile : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void readsColumnsDescriptionsAndRows();
    void simplifiesCells_data();
    void simplifiesCells();
    void keepsRowKeysAsTheyRead_data();
    void keepsRowKeysAsTheyRead();
    void lookupNeverInserts();
    void missingTrailingFieldsAreEmpty();
    void descriptionsFollowTheColumnsPosition_data();
    void descriptionsFollowTheColumnsPosition();
    void reportsInvalidLinesAndReadsOn_data();
    void reportsInvalidLinesAndReadsOn();
    void aTextEndsAtItsFirstNulByte_data();
    void aTextEndsAtItsFirstNulByte();
    void laterRowOfTheSameKeyReplacesTheEarlier();
    void shortFilesLoadAsFarAsTheyGo_data();
    void shortFilesLoadAsFarAsTheyGo();
    void readsMoreThan256ColumnsAndRows();
    void unreadableFileIsCriticalAndLeavesNothing();
    void tooLargeFileIsRefused();
    void reloadReplacesTheTable();
    void reloadOfAMissingFileEmptiesTheTable();
    void loadsATableFromMemory();
    void removeAllDataForgetsTheTable();
    void garbageIsReadWithoutHarm();
    void aFileOfBlankLinesIsReadWithoutHarm();

private:
    QString path(const QString& name = "table.csv") const { return m_folder->filePath(name); }
    QString put(const QByteArray& content, const QString& name = "table.csv") const;

    QScopedPointer<QTemporaryDir> m_folder;
    QScopedPointer<LogSpy> m_spy;
};

void TestConfigFile::init()
{
    m_folder.reset(new QTemporaryDir);
    QVERIFY(m_folder->isValid());
    m_spy.reset(new LogSpy);
}

void TestConfigFile::cleanup()
{
    m_spy.reset();
    m_folder.reset();
}

/// Lays a file and returns its path.
QString TestConfigFile::put(const QByteArray& content, const QString& name) const
{
    QFile file(path(name));
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        qFatal("cannot lay the test file");
    }
    return path(name);
}

void TestConfigFile::readsColumnsDescriptionsAndRows()
{
    const QString file = put("ID;CCH1;SID1\nRemote id;Channel;Network name\n1;11;alpha\n2;;beta\n");
    const ConfigFile table(file, nullptr);

    QCOMPARE(table.getAllColumnKeys(), (Keys{"ID", "CCH1", "SID1"}));
    QCOMPARE(table.getAllColumns(), (Texts{{"ID", "Remote id"}, {"CCH1", "Channel"}, {"SID1", "Network name"}}));
    QCOMPARE(table.getAllTags(), (Keys{"1", "2"}));
    QCOMPARE(table.getValue("1", "ID"), QString("1"));
    QCOMPARE(table.getValue("1", "CCH1"), QString("11"));
    QCOMPARE(table.getValue("1", "SID1"), QString("alpha"));
    QCOMPARE(table.getValue("2", "CCH1"), QString(""));
    QCOMPARE(table.getValue("2", "SID1"), QString("beta"));
    QVERIFY(table.keyExists("1"));
    QVERIFY(!table.keyExists("ID"));
    QVERIFY(table.columnExists("ID"));
    QVERIFY(table.columnExists("SID1"));
    QVERIFY(!table.columnExists("1"));
    QCOMPARE(m_spy->lines(), QStringList());
}

void TestConfigFile::simplifiesCells_data()
{
    QTest::addColumn<QByteArray>("field");
    QTest::addColumn<QString>("value");
    QTest::newRow("blanks around") << QByteArray("  x  ") << "x";
    QTest::newRow("one blank between words") << QByteArray("north \t  gate") << "north gate";
    QTest::newRow("carriage return") << QByteArray("x\r") << "x";
    QTest::newRow("only blanks") << QByteArray("   ") << "";
    QTest::newRow("Latin-1 byte") << QByteArray("\xE5") << QString(QChar(0xE5));
    QTest::newRow("no quoting") << QByteArray("\"x\"") << "\"x\"";
}

void TestConfigFile::simplifiesCells()
{
    QFETCH(QByteArray, field);
    QFETCH(QString, value);
    const ConfigFile table(put(" ID ; A \tB;C\n;;" + field + "\n1;" + field + ";" + field + "\n"), nullptr);
    QCOMPARE(table.getAllColumnKeys(), (Keys{"ID", "A B", "C"}));
    QCOMPARE(table.getAllColumns().value("C"), value);
    QCOMPARE(table.getValue("1", "A B"), value);
    QCOMPARE(table.getValue("1", "C"), value);
}

void TestConfigFile::keepsRowKeysAsTheyRead_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<QString>("rowKey");
    QTest::addColumn<QString>("keyCell");
    QTest::newRow("blanks stay") << QByteArray(" 1  a ;x\n") << " 1  a "
                                 << "1 a";
    QTest::newRow("a row of one field has its line end in the key") << QByteArray("7\n") << "7\n"
                                                                    << "7";
    QTest::newRow("a blank line is a row") << QByteArray("\n") << "\n"
                                           << "";
    QTest::newRow("a blank line of a DOS file too") << QByteArray("\r\n") << "\r\n"
                                                    << "";
    QTest::newRow("last line without line end") << QByteArray("7") << "7"
                                                << "7";
}

void TestConfigFile::keepsRowKeysAsTheyRead()
{
    QFETCH(QByteArray, line);
    QFETCH(QString, rowKey);
    QFETCH(QString, keyCell);
    const ConfigFile table(put("ID;A\n;\n" + line), nullptr);
    QCOMPARE(table.getAllTags(), Keys{rowKey});
    QVERIFY(table.keyExists(rowKey));
    QCOMPARE(table.getValue(rowKey, "ID"), keyCell);
    QCOMPARE(m_spy->lines(), QStringList());
}

void TestConfigFile::lookupNeverInserts()
{
    const ConfigFile table(put("ID;A\n;\n1;x\n"), nullptr);
    QCOMPARE(table.getValue("2", "A"), QString());
    QCOMPARE(table.getValue("1", "B"), QString());
    QCOMPARE(table.getAllTags(), Keys{"1"});
    QCOMPARE(table.getAllColumnKeys(), (Keys{"ID", "A"}));
    QVERIFY(!table.columnExists("B"));
}

void TestConfigFile::missingTrailingFieldsAreEmpty()
{
    const ConfigFile table(put("ID;A;B\n;;\n1;x\n"), nullptr);
    QCOMPARE(table.getAllTags(), Keys{"1"});
    QCOMPARE(table.getValue("1", "A"), QString("x"));
    QCOMPARE(table.getValue("1", "B"), QString());
    QCOMPARE(m_spy->lines(), QStringList());
}

void TestConfigFile::descriptionsFollowTheColumnsPosition_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<Texts>("descriptions");
    QTest::newRow("one each") << QByteArray("a;b\n") << Texts{{"ID", "a"}, {"A", "b"}};
    QTest::newRow("fewer than columns") << QByteArray("a\n") << Texts{{"ID", "a"}};
    QTest::newRow("more than columns") << QByteArray("a;b;c;d\n") << Texts{{"ID", "a"}, {"A", "b"}};
    QTest::newRow("blank line") << QByteArray("\n") << Texts{{"ID", ""}};
}

void TestConfigFile::descriptionsFollowTheColumnsPosition()
{
    QFETCH(QByteArray, line);
    QFETCH(Texts, descriptions);
    const ConfigFile table(put("ID;A\n" + line + "1;x\n"), nullptr);
    QCOMPARE(table.getAllColumns(), descriptions);
    QCOMPARE(table.getAllTags(), Keys{"1"});
}

void TestConfigFile::reportsInvalidLinesAndReadsOn_data()
{
    QTest::addColumn<QByteArray>("rows");
    QTest::addColumn<int>("invalidLine");
    QTest::newRow("more fields than columns") << QByteArray("1;x\n3;x\n4;x\n5;x;y\n2;x\n") << 5;
    QTest::newRow("empty first field") << QByteArray("1;x\n;x\n2;x\n") << 3;
    QTest::newRow("a row of empty fields") << QByteArray("1;x\n;\n2;x\n") << 3;
    QTest::newRow("only the separator, at the end and without line end") << QByteArray("1;x\n2;x\n;") << 4;
    QTest::newRow("first data line") << QByteArray(";x\n1;x\n2;x\n") << 2;
    QTest::newRow("a line that starts with a NUL byte") << QByteArray("1;x\n\0002;x\n2;x\n", 13) << 3;
}

void TestConfigFile::reportsInvalidLinesAndReadsOn()
{
    QFETCH(QByteArray, rows);
    QFETCH(int, invalidLine);
    const QString file = put("ID;A\nkey;value\n" + rows);
    const ConfigFile table(file, nullptr);
    QCOMPARE(m_spy->lines(QtWarningMsg),
             QStringList{QString("Invalid line in \"%1\" line %2").arg(file).arg(invalidLine)});
    QCOMPARE(m_spy->lines().size(), 1);
    QCOMPARE(table.getValue("1", "A"), QString("x"));
    QCOMPARE(table.getValue("2", "A"), QString("x"));
    QVERIFY(!table.keyExists(""));
    QVERIFY(!table.keyExists("5"));
}

void TestConfigFile::aTextEndsAtItsFirstNulByte_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<Keys>("columns");
    QTest::addColumn<QString>("value");
    QTest::newRow("in a cell") << QByteArray("ID;A\n;\n1;x\0y;z\n", 16) << Keys{"ID", "A"} << "x";
    QTest::newRow("before a cell") << QByteArray("ID;A\n;\n1\0;x\n", 13) << Keys{"ID", "A"} << "";
    QTest::newRow("in the key line") << QByteArray("ID;A\0;B\n;\n1;x\n", 15) << Keys{"ID", "A"} << "x";
    QTest::newRow("in the description line") << QByteArray("ID;A\n\0\n1;x\n", 11) << Keys{"ID", "A"} << "x";
}

void TestConfigFile::aTextEndsAtItsFirstNulByte()
{
    QFETCH(QByteArray, content);
    QFETCH(Keys, columns);
    QFETCH(QString, value);
    const ConfigFile table(put(content), nullptr);
    QCOMPARE(table.getAllColumnKeys(), columns);
    QCOMPARE(table.getAllTags(), Keys{"1"});
    QCOMPARE(table.getValue("1", "A"), value);
}

void TestConfigFile::laterRowOfTheSameKeyReplacesTheEarlier()
{
    const ConfigFile table(put("ID;A;B\n;;\n1;x;y\n2;p;q\n1;z\n"), nullptr);
    QCOMPARE(table.getAllTags(), (Keys{"1", "2", "1"}));
    QCOMPARE(table.getValue("1", "A"), QString("z"));
    QCOMPARE(table.getValue("1", "B"), QString());
}

void TestConfigFile::shortFilesLoadAsFarAsTheyGo_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<Keys>("columns");
    QTest::newRow("empty file") << QByteArray() << Keys();
    QTest::newRow("blank line") << QByteArray("\n") << Keys{""};
    QTest::newRow("key line only") << QByteArray("ID;A\n") << Keys{"ID", "A"};
    QTest::newRow("key line without line end") << QByteArray("ID;A") << Keys{"ID", "A"};
    QTest::newRow("header lines only") << QByteArray("ID;A\n;\n") << Keys{"ID", "A"};
}

void TestConfigFile::shortFilesLoadAsFarAsTheyGo()
{
    QFETCH(QByteArray, content);
    QFETCH(Keys, columns);
    ConfigFile table(put(content), nullptr);
    QVERIFY(table.loadFile(path()));
    QCOMPARE(table.getAllColumnKeys(), columns);
    QCOMPARE(table.getAllTags(), Keys());
    QCOMPARE(m_spy->lines(), QStringList());
}

void TestConfigFile::readsMoreThan256ColumnsAndRows()
{
    QByteArray content = "ID";
    for (int column = 1; column < 300; ++column) {
        content += ";C" + QByteArray::number(column);
    }
    content += "\n\n";
    for (int row = 0; row < 300; ++row) {
        content += QByteArray::number(row) + QByteArray(298, ';') + ";last\n";
    }
    const ConfigFile table(put(content), nullptr);
    QCOMPARE(table.getAllColumnKeys().size(), 300);
    QCOMPARE(table.getAllTags().size(), 300);
    QCOMPARE(table.getValue("299", "C299"), QString("last"));
    QCOMPARE(table.getValue("299", "C298"), QString(""));
}

void TestConfigFile::unreadableFileIsCriticalAndLeavesNothing()
{
    ConfigFile table(path("absent.csv"), nullptr);
    const QString line =
        QString("Load Configurations File Error:  \"%1\" \"No such file or directory\"").arg(path("absent.csv"));
    QCOMPARE(m_spy->lines(QtCriticalMsg), QStringList{line});
    QVERIFY(!table.loadFile(path("absent.csv")));
    QCOMPARE(m_spy->lines(), (QStringList{line, line}));
    QCOMPARE(table.getAllColumnKeys(), Keys());
    QCOMPARE(table.getAllTags(), Keys());
}

void TestConfigFile::tooLargeFileIsRefused()
{
    const QString file = put("ID;A\n;\n1;x\n" + QByteArray(4 * 1024 * 1024, 'x'));
    const ConfigFile table(file, nullptr);
    QCOMPARE(
        m_spy->lines(QtCriticalMsg),
        QStringList{QString("Load Configurations File Error:  \"%1\" \"File has more than 4194304 bytes\"").arg(file)});
    QCOMPARE(table.getAllColumnKeys(), Keys());
    QCOMPARE(table.getAllTags(), Keys());
}

void TestConfigFile::reloadReplacesTheTable()
{
    ConfigFile table(put("ID;A\na;b\n1;x\n2;y\n"), nullptr);
    QVERIFY(table.loadFile(put("ID;B\nc;d\n2;z\n3;w\n", "other.csv")));
    QCOMPARE(table.getAllColumnKeys(), (Keys{"ID", "B"}));
    QCOMPARE(table.getAllColumns(), (Texts{{"ID", "c"}, {"B", "d"}}));
    QCOMPARE(table.getAllTags(), (Keys{"2", "3"}));
    QVERIFY(!table.keyExists("1"));
    QCOMPARE(table.getValue("2", "A"), QString());
    QCOMPARE(table.getValue("2", "B"), QString("z"));
    // Cells of a vanished row can still be looked up.
    QCOMPARE(table.getValue("1", "A"), QString("x"));
}

void TestConfigFile::reloadOfAMissingFileEmptiesTheTable()
{
    ConfigFile table(put("ID;A\na;b\n1;x\n"), nullptr);
    QVERIFY(QFile::remove(path()));
    QVERIFY(!table.loadFile(path()));
    QCOMPARE(table.getAllColumnKeys(), Keys());
    QCOMPARE(table.getAllColumns(), Texts());
    QCOMPARE(table.getAllTags(), Keys());
    QVERIFY(!table.addChangeTag("1", "A", "y"));
    QVERIFY(!QFile::exists(path()));
}

void TestConfigFile::loadsATableFromMemory()
{
    const QString file = put("ID;A\na;b\n1;x\n");
    ConfigFile table("ID;A\na;b\n2;y\n;z\n", file, nullptr);
    QCOMPARE(table.getAllTags(), Keys{"2"});
    QCOMPARE(table.getValue("2", "A"), QString("y"));
    QCOMPARE(m_spy->lines(), QStringList{QString("Invalid line in \"%1\" line 3").arg(file)});
    QVERIFY(table.writeData());
    const ConfigFile written(file, nullptr);
    QCOMPARE(written.getAllTags(), Keys{"2"});
}

void TestConfigFile::removeAllDataForgetsTheTable()
{
    ConfigFile table(put("ID;A\na;b\n1;x\n"), nullptr);
    table.removeAllData();
    QCOMPARE(table.getAllColumnKeys(), Keys());
    QCOMPARE(table.getAllColumns(), Texts());
    QCOMPARE(table.getAllTags(), Keys());
    QCOMPARE(table.getValue("1", "A"), QString());
    QVERIFY(table.loadFile(path()));
    QCOMPARE(table.getValue("1", "A"), QString("x"));
}

void TestConfigFile::garbageIsReadWithoutHarm()
{
    QRandomGenerator random(20220327);
    QByteArray garbage(300000, '\0');
    std::generate(garbage.begin(), garbage.end(), [&random] { return static_cast<char>(random.bounded(256)); });
    garbage.replace('\0', "\n;"); // many short lines, else everything ends at an early NUL byte
    const ConfigFile table(put("ID;A\n;\n" + garbage), nullptr);
    const int lines = garbage.count('\n') + 1;
    QCOMPARE(table.getAllTags().size() + m_spy->lines(QtWarningMsg).size(), lines);
    const Keys rowKeys = table.getAllTags();
    for (const QString& rowKey : rowKeys) {
        QVERIFY(!rowKey.isEmpty());
        QVERIFY(!rowKey.contains(';'));
        QVERIFY(!rowKey.contains(QChar(0)));
    }
}

void TestConfigFile::aFileOfBlankLinesIsReadWithoutHarm()
{
    const ConfigFile table(put("ID;A\n;\n" + QByteArray(1000000, '\n')), nullptr);
    QCOMPARE(table.getAllTags().size(), 1000000);
    QCOMPARE(table.getAllTags().last(), QString("\n"));
}

QTEST_GUILESS_MAIN(TestConfigFile)
#include "tst_configfile.moc"
