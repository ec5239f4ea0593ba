#include "logspy.h"
#include "remotesconfigfile.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const QByteArray Header = "ruindex;RUID;PKY1;PKY2;PKY3;PKY4\nIndex;Remote id;Key;Key;Key;Key\n";

} // namespace

class TestRemotesConfigFile : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void numbersTheRowsInFileOrder_data();
    void numbersTheRowsInFileOrder();
    void warnsAboutInvalidIdentitiesAndKeepsTheRows_data();
    void warnsAboutInvalidIdentitiesAndKeepsTheRows();
    void leavesOtherLinesAlone_data();
    void leavesOtherLinesAlone();
    void tellsWhatItRepairs();
    void silentAboutAMissingFile();
    void silentAboutATooLargeFile();
    void theCheckAloneTouchesNoFile();
    void aSecondRunFindsNothingToDo();

private:
    QString path() const { return m_folder->filePath("remotes.csv"); }
    QString put(const QByteArray& content) const;
    QByteArray content() const;

    QScopedPointer<QTemporaryDir> m_folder;
    QScopedPointer<LogSpy> m_spy;
};

void TestRemotesConfigFile::init()
{
    m_folder.reset(new QTemporaryDir);
    QVERIFY(m_folder->isValid());
    m_spy.reset(new LogSpy);
}

void TestRemotesConfigFile::cleanup()
{
    m_spy.reset();
    m_folder.reset();
}

QString TestRemotesConfigFile::put(const QByteArray& content) const
{
    QFile file(path());
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        qFatal("cannot lay the test file");
    }
    return path();
}

QByteArray TestRemotesConfigFile::content() const
{
    QFile file(path());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(no such file)");
}

void TestRemotesConfigFile::numbersTheRowsInFileOrder_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("after");
    QTest::addColumn<int>("warnings");

    QTest::newRow("numbered correctly") << Header + "0;7;1;2;3;4\n1;9;5;6;7;8\n"
                                        << Header + "0;7;1;2;3;4\n1;9;5;6;7;8\n"
                                        << 0;
    QTest::newRow("counted from 1") << Header + "1;7;1;2;3;4\n2;9;5;6;7;8\n"
                                    << Header + "0;7;1;2;3;4\n1;9;5;6;7;8\n"
                                    << 2;
    QTest::newRow("a gap") << Header + "0;7;1;2;3;4\n5;9;5;6;7;8\n" << Header + "0;7;1;2;3;4\n1;9;5;6;7;8\n" << 1;
    QTest::newRow("a number twice") << Header + "0;7;1;2;3;4\n0;9;5;6;7;8\n"
                                    << Header + "0;7;1;2;3;4\n1;9;5;6;7;8\n"
                                    << 1;
    QTest::newRow("no number") << Header + "x;7;1;2;3;4\n;9;5;6;7;8\n" << Header + "0;7;1;2;3;4\n1;9;5;6;7;8\n" << 2;
    QTest::newRow("a negative number") << Header + "-0;7;1;2;3;4\n-1;9;5;6;7;8\n"
                                       << Header + "0;7;1;2;3;4\n1;9;5;6;7;8\n"
                                       << 2;
    QTest::newRow("blanks around a correct number stay") << Header + " 0 ;7;1;2;3;4\n"
                                                         << Header + " 0 ;7;1;2;3;4\n"
                                                         << 0;
    QTest::newRow("other fields stay byte for byte") << Header + "3; 7;\xE5;\"; \t;4 \r\n"
                                                     << Header + "0; 7;\xE5;\"; \t;4 \r\n"
                                                     << 1;
    QTest::newRow("last line without line end") << Header + "3;7;1;2;3;4" << Header + "0;7;1;2;3;4" << 1;
    QTest::newRow("lines of other field counts are not counted")
        << Header + "\n0;7;1;2;3;4\n\n8;1;2;3;4\n8;7;1;2;3;4;5\n1;9;5;6;7;8\n4;8;0;0;0;0\n"
        << Header + "\n0;7;1;2;3;4\n\n8;1;2;3;4\n8;7;1;2;3;4;5\n1;9;5;6;7;8\n2;8;0;0;0;0\n"
        << 1;
    QTest::newRow("the identity column is found by its key")
        << QByteArray("ruindex;PKY1;PKY2;PKY3;PKY4;RUID\n;;;;;\n4;0;0;0;0;7\n")
        << QByteArray("ruindex;PKY1;PKY2;PKY3;PKY4;RUID\n;;;;;\n0;0;0;0;0;7\n") << 1;
    QTest::newRow("a description line of data's form is no data")
        << QByteArray("ruindex;RUID;PKY1;PKY2;PKY3;PKY4\n9;0;x;x;x;x\n0;7;1;2;3;4\n")
        << QByteArray("ruindex;RUID;PKY1;PKY2;PKY3;PKY4\n9;0;x;x;x;x\n0;7;1;2;3;4\n") << 0;
    QTest::newRow("a short description line is no data either")
        << QByteArray("ruindex;RUID;PKY1;PKY2;PKY3;PKY4\n\n0;7;1;2;3;4\n3;9;5;6;7;8\n")
        << QByteArray("ruindex;RUID;PKY1;PKY2;PKY3;PKY4\n\n0;7;1;2;3;4\n1;9;5;6;7;8\n") << 1;
    QTest::newRow("a second key line is no data, the line below it is")
        << Header + "0;7;1;2;3;4\nruindex;RUID;PKY1;PKY2;PKY3;PKY4\n4;9;5;6;7;8\n"
        << Header + "0;7;1;2;3;4\nruindex;RUID;PKY1;PKY2;PKY3;PKY4\n1;9;5;6;7;8\n"
        << 1;
}

void TestRemotesConfigFile::numbersTheRowsInFileOrder()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, after);
    QFETCH(int, warnings);
    validateRemotesConfigFile(put(before));
    QCOMPARE(content(), after);
    QCOMPARE(m_spy->lines(QtWarningMsg).filter("Invalid ruindex").size(), warnings);
    QCOMPARE(m_spy->lines(QtWarningMsg).size(), warnings);
    QCOMPARE(m_spy->lines(QtInfoMsg).size(), warnings > 0 ? 1 : 0);
    QCOMPARE(QDir(m_folder->path()).entryList(QDir::Files | QDir::Hidden), QStringList{"remotes.csv"});
}

void TestRemotesConfigFile::warnsAboutInvalidIdentitiesAndKeepsTheRows_data()
{
    QTest::addColumn<QByteArray>("identity");
    QTest::addColumn<bool>("valid");
    QTest::newRow("0") << QByteArray("0") << false;
    QTest::newRow("negative") << QByteArray("-3") << false;
    QTest::newRow("empty") << QByteArray("") << false;
    QTest::newRow("no number") << QByteArray("seven") << false;
    QTest::newRow("1") << QByteArray("1") << true;
    QTest::newRow("blanks around") << QByteArray(" 7 ") << true;
    QTest::newRow("largest identity") << QByteArray("65535") << true;
}

void TestRemotesConfigFile::warnsAboutInvalidIdentitiesAndKeepsTheRows()
{
    QFETCH(QByteArray, identity);
    QFETCH(bool, valid);
    const QByteArray before = Header + "0;" + identity + ";1;2;3;4\n1;9;5;6;7;8\n";
    const QString file = put(before);
    validateRemotesConfigFile(file);
    QCOMPARE(content(), before);
    const QString warning = QString("Invalid RUID \"0;%1;1;2;3;4\\n\" in \"%2\"").arg(QString(identity), file);
    QCOMPARE(m_spy->lines(), valid ? QStringList() : QStringList{warning});
    QCOMPARE(m_spy->lines(QtWarningMsg).size(), valid ? 0 : 1);
}

void TestRemotesConfigFile::leavesOtherLinesAlone_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("empty file") << QByteArray();
    QTest::newRow("header lines only") << Header;
    QTest::newRow("no key line") << QByteArray("a;b;c;d;e;f\n9;0;1;2;3;4\n8;0;1;2;3;4\n");
    QTest::newRow("a key line without identity column") << QByteArray("ruindex;b;c;d;e;f\nx\n9;0;1;2;3;4\n");
    QTest::newRow("a key line of seven fields") << QByteArray("ruindex;RUID;1;2;3;4;5\n;;;;;;\n9;0;1;2;3;4\n");
    QTest::newRow("NUL bytes") << QByteArray("\0;\0;;;;\n\0\0\n", 11);
}

void TestRemotesConfigFile::leavesOtherLinesAlone()
{
    QFETCH(QByteArray, content);
    validateRemotesConfigFile(put(content));
    QCOMPARE(this->content(), content);
    QCOMPARE(m_spy->lines(), QStringList());
}

void TestRemotesConfigFile::tellsWhatItRepairs()
{
    const QString file = put(Header + "1;0;1;2;3;4\n1;9;5;6;7;8\n7;8;0;0;0;0");
    validateRemotesConfigFile(file);
    QCOMPARE(m_spy->lines(), (QStringList{
                                 QString("Invalid ruindex \"1;0;1;2;3;4\\n\" in \"%1\"").arg(file),
                                 QString("Invalid RUID \"1;0;1;2;3;4\\n\" in \"%1\"").arg(file),
                                 QString("Invalid ruindex \"7;8;0;0;0;0\" in \"%1\"").arg(file),
                                 QString("Updating \"%1\"").arg(file),
                             }));
    QCOMPARE(m_spy->lines(QtWarningMsg).size(), 3);
    QCOMPARE(m_spy->lines(QtInfoMsg).size(), 1);
}

void TestRemotesConfigFile::silentAboutAMissingFile()
{
    validateRemotesConfigFile(path());
    validateRemotesConfigFile(m_folder->path());
    QCOMPARE(m_spy->lines(), QStringList());
    QVERIFY(!QFile::exists(path()));
}

void TestRemotesConfigFile::silentAboutATooLargeFile()
{
    const QByteArray before = Header + "9;0;1;2;3;4\n" + QByteArray(4 * 1024 * 1024, '\n');
    validateRemotesConfigFile(put(before));
    QCOMPARE(m_spy->lines(), QStringList());
    QVERIFY(content() == before);
}

void TestRemotesConfigFile::theCheckAloneTouchesNoFile()
{
    const QByteArray before = Header + "4;7;1;2;3;4\n";
    const RemotesCheck check = checkRemotesConfigFile(put(before));
    QVERIFY(check.repaired);
    QCOMPARE(check.content, Header + "0;7;1;2;3;4\n");
    QCOMPARE(content(), before);
}

void TestRemotesConfigFile::aSecondRunFindsNothingToDo()
{
    validateRemotesConfigFile(put(Header + "4;7;1;2;3;4\n4;9;5;6;7;8\n"));
    m_spy->clear();
    validateRemotesConfigFile(path());
    QCOMPARE(m_spy->lines(), QStringList());
}

QTEST_GUILESS_MAIN(TestRemotesConfigFile)
#include "tst_remotesconfigfile.moc"
