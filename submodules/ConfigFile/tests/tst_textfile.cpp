#include "textfile.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>

class TestTextFile : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void splitLinesKeepsLineFeeds_data();
    void splitLinesKeepsLineFeeds();
    void readsBytesAsTheyAre();
    void refusesWhatCannotBeRead_data();
    void refusesWhatCannotBeRead();
    void aPipeIsRefusedAtOnce();
    void readsUpToTheBound();
    void replaceCreatesAMissingFile();
    void replaceFailsWithoutItsFolder();
    void replaceFailsOnAFolder();

private:
    QString path(const QString& name) const { return m_folder->filePath(name); }

    QScopedPointer<QTemporaryDir> m_folder;
};

void TestTextFile::init()
{
    m_folder.reset(new QTemporaryDir);
    QVERIFY(m_folder->isValid());
}

void TestTextFile::splitLinesKeepsLineFeeds_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArrayList>("lines");
    QTest::newRow("nothing") << QByteArray() << QByteArrayList();
    QTest::newRow("one line") << QByteArray("a\n") << QByteArrayList{"a\n"};
    QTest::newRow("last line without line feed") << QByteArray("a\nb") << QByteArrayList{"a\n", "b"};
    QTest::newRow("blank lines") << QByteArray("\n\na\n") << QByteArrayList{"\n", "\n", "a\n"};
    QTest::newRow("carriage returns stay") << QByteArray("a\r\nb\r") << QByteArrayList{"a\r\n", "b\r"};
    QTest::newRow("NUL bytes stay") << QByteArray("a\0b\n\0", 5)
                                    << QByteArrayList{QByteArray("a\0b\n", 4), QByteArray("\0", 1)};
}

void TestTextFile::splitLinesKeepsLineFeeds()
{
    QFETCH(QByteArray, text);
    QFETCH(QByteArrayList, lines);
    QCOMPARE(splitLines(text), lines);
}

void TestTextFile::readsBytesAsTheyAre()
{
    const QByteArray bytes("a\r\n\0\xFF\n", 6);
    QVERIFY(replaceTextFile(path("x"), bytes));
    QByteArray content("old");
    QString error;
    QVERIFY(readTextFile(path("x"), content, error));
    QCOMPARE(content, bytes);
    QCOMPARE(error, QString());
}

void TestTextFile::refusesWhatCannotBeRead_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("reason");
    QTest::newRow("missing file") << "/absent/x.csv"
                                  << "No such file or directory";
    QTest::newRow("endless device") << "/dev/zero"
                                    << "Not a regular file";
    QTest::newRow("folder") << "/"
                            << "Not a regular file";
    QTest::newRow("memory that must not be read") << "/proc/self/mem"
                                                  << "Input/output error";
}

void TestTextFile::refusesWhatCannotBeRead()
{
    QFETCH(QString, path);
    QFETCH(QString, reason);
    QByteArray content("old");
    QString error;
    QVERIFY(!readTextFile(path, content, error));
    QCOMPARE(content, QByteArray());
    QCOMPARE(error, reason);
}

// Nobody writes into it: opening it in the usual way would wait for ever.
void TestTextFile::aPipeIsRefusedAtOnce()
{
    QCOMPARE(mkfifo(QFile::encodeName(path("pipe")).constData(), S_IRUSR | S_IWUSR), 0);
    QByteArray content;
    QString error;
    QVERIFY(!readTextFile(path("pipe"), content, error));
    QCOMPARE(error, QString("Not a regular file"));
}

void TestTextFile::readsUpToTheBound()
{
    QByteArray content;
    QString error;
    QVERIFY(replaceTextFile(path("x"), QByteArray(4194304, 'x')));
    QVERIFY(readTextFile(path("x"), content, error));
    QCOMPARE(content.size(), 4194304);
    QVERIFY(replaceTextFile(path("x"), QByteArray(4194305, 'x')));
    QVERIFY(!readTextFile(path("x"), content, error));
    QCOMPARE(content.size(), 0);
}

void TestTextFile::replaceCreatesAMissingFile()
{
    QVERIFY(replaceTextFile(path("new.csv"), "a\n"));
    QCOMPARE(QDir(m_folder->path()).entryList(QDir::Files | QDir::Hidden), QStringList{"new.csv"});
}

void TestTextFile::replaceFailsWithoutItsFolder()
{
    QVERIFY(!replaceTextFile(path("absent/new.csv"), "a\n"));
}

void TestTextFile::replaceFailsOnAFolder()
{
    QVERIFY(QDir(m_folder->path()).mkdir("sub"));
    QVERIFY(!replaceTextFile(path("sub"), "a\n"));
    QVERIFY(QDir(path("sub")).exists());
}

QTEST_GUILESS_MAIN(TestTextFile)
#include "tst_textfile.moc"
