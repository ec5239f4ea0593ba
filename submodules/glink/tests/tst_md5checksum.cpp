#include "md5checksum.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <sys/stat.h>

namespace {

constexpr char Md5OfNothing[] = "d41d8cd98f00b204e9800998ecf8427e";
constexpr char Md5OfAbc[] = "900150983cd24fb0d6963f7d28e17f72"; // RFC 1321
constexpr char Md5OfCab[] = "16ecfd64586ec6c1ab212762c2c38a90"; // from md5sum

} // namespace

class TestMd5Checksum : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void contentsAreHashedInPathOrder();
    void leftOutFilesDoNotCount_data();
    void leftOutFilesDoNotCount();
    void similarNamesDoCount_data();
    void similarNamesDoCount();
    void renamingThatChangesTheOrderChangesTheDigest();
    void renamingThatKeepsTheOrderKeepsTheDigest();
    void orderIsCaseSensitive();
    void foldersAreWalkedToTheBottom();
    void aFolderInAHiddenFolderHasNoContents();
    void aMissingFolderHasTheDigestOfNothing();
    void aPathWithDotsIsTheCleanPath();
    void whatCannotBeReadToAnEndIsSkipped();
    void aFileTooLargeToBeOneIsSkipped();
    void anInterruptedThreadStopsHashing();

private:
    void write(const QString& relativePath, const QByteArray& content);
    QByteArray digest() const;

    QScopedPointer<QTemporaryDir> m_dir;
    QString m_app;
};

void TestMd5Checksum::init()
{
    m_dir.reset(new QTemporaryDir);
    m_app = m_dir->path() + "/app";
    QVERIFY(QDir().mkpath(m_app));
}

void TestMd5Checksum::write(const QString& relativePath, const QByteArray& content)
{
    const QString path = m_app + '/' + relativePath;
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        qFatal("cannot write the test's file");
    }
}

QByteArray TestMd5Checksum::digest() const
{
    QByteArray result;
    Md5Checksum::getChecksum(result, m_app);
    return result.toHex();
}

void TestMd5Checksum::contentsAreHashedInPathOrder()
{
    write("2", "b");
    write("1", "a");
    write("3/x", "c");

    QCOMPARE(digest(), QByteArray(Md5OfAbc));
}

void TestMd5Checksum::leftOutFilesDoNotCount_data()
{
    QTest::addColumn<QString>("file");

    QTest::newRow("keys") << "config/keys.csv";
    QTest::newRow("keys at the top") << "keys.csv";
    QTest::newRow("thumbnails") << "Thumbs.db";
    QTest::newRow("thumbnails in capitals") << "img/THUMBS.DB";
    QTest::newRow("compiled QML") << "Main.qmlc";
    QTest::newRow("any name that ends so") << "0qmlc";
    QTest::newRow("dot file") << ".directory";
    QTest::newRow("file in a dot folder") << ".git/config";
    QTest::newRow("file deep in a dot folder") << "a/.b/c/d";
}

void TestMd5Checksum::leftOutFilesDoNotCount()
{
    QFETCH(QString, file);
    write("1", "abc");

    write(file, "whatever");

    QCOMPARE(digest(), QByteArray(Md5OfAbc));
}

void TestMd5Checksum::similarNamesDoCount_data()
{
    QTest::addColumn<QString>("file");

    QTest::newRow("keys in capitals") << "Keys.csv";
    QTest::newRow("other keys") << "mykeys.csv";
    QTest::newRow("QML") << "Main.qml";
    QTest::newRow("compiled QML in capitals") << "Main.QMLC";
    QTest::newRow("dot inside the name") << "a.b";
    QTest::newRow("in a folder named like compiled QML") << "cache.qmlc/a";
}

void TestMd5Checksum::similarNamesDoCount()
{
    QFETCH(QString, file);

    write(file, "abc");

    QCOMPARE(digest(), QByteArray(Md5OfAbc));
}

void TestMd5Checksum::renamingThatChangesTheOrderChangesTheDigest()
{
    write("1", "ab");
    write("2", "c");
    QCOMPARE(digest(), QByteArray(Md5OfAbc));

    QVERIFY(QFile::rename(m_app + "/2", m_app + "/0"));

    QCOMPARE(digest(), QByteArray(Md5OfCab));
}

void TestMd5Checksum::renamingThatKeepsTheOrderKeepsTheDigest()
{
    write("1", "ab");
    write("2", "c");

    QVERIFY(QFile::rename(m_app + "/2", m_app + "/zzz"));

    QCOMPARE(digest(), QByteArray(Md5OfAbc));
}

void TestMd5Checksum::orderIsCaseSensitive()
{
    write("B", "ab");
    write("a", "c");

    QCOMPARE(digest(), QByteArray(Md5OfAbc));
}

void TestMd5Checksum::foldersAreWalkedToTheBottom()
{
    // "/" sorts behind "-" and before "0".
    write("a-b", "a");
    write("a/x/y/z", "b");
    write("a0", "c");
    QVERIFY(QDir().mkpath(m_app + "/empty/folder"));

    QCOMPARE(digest(), QByteArray(Md5OfAbc));
}

void TestMd5Checksum::aFolderInAHiddenFolderHasNoContents()
{
    m_app = m_dir->path() + "/.hidden/app";
    write("1", "abc");

    QCOMPARE(digest(), QByteArray(Md5OfNothing));
}

void TestMd5Checksum::aMissingFolderHasTheDigestOfNothing()
{
    m_app += "/missing";

    QCOMPARE(digest(), QByteArray(Md5OfNothing));
}

void TestMd5Checksum::aPathWithDotsIsTheCleanPath()
{
    write("1", "abc");
    m_app += "/../app/.";

    QCOMPARE(digest(), QByteArray(Md5OfAbc));
}

void TestMd5Checksum::whatCannotBeReadToAnEndIsSkipped()
{
    write("1", "abc");
    QVERIFY(mkfifo(QFile::encodeName(m_app + "/pipe").constData(), 0600) == 0);
    QVERIFY(QFile::link(m_app + "/pipe", m_app + "/linktopipe"));
    QVERIFY(QFile::link("/dev/zero", m_app + "/linktodevice"));
    QVERIFY(QFile::link(m_app + "/nowhere", m_app + "/dangling"));
    QVERIFY(QFile::link(m_app, m_app + "/itself"));
    for (const char* name : {"linktodevice", "linktopipe"}) {
        QTest::ignoreMessage(QtWarningMsg, qPrintable("Md5Checksum: Refused to read \"" + m_app + '/' + name +
                                                      "\" - Not a regular file"));
    }

    QCOMPARE(digest(), QByteArray(Md5OfAbc));
}

void TestMd5Checksum::aFileTooLargeToBeOneIsSkipped()
{
    write("1", "abc");
    QFile endless(m_app + "/2");
    QVERIFY(endless.open(QIODevice::WriteOnly));
    if (!endless.resize(64LL * 1024 * 1024 * 1024)) { // holes, no blocks
        // Without such a file there is nothing to refuse. Clang does not take Qt's macro for this with one argument.
        QTest::qSkip("the file system of the test has no files of that size", __FILE__, __LINE__);
        return;
    }
    QTest::ignoreMessage(QtWarningMsg,
                         qPrintable("Md5Checksum: Refused to read \"" + m_app + "/2\" - More than 4294967296 bytes"));

    QCOMPARE(digest(), QByteArray(Md5OfAbc));
}

void TestMd5Checksum::anInterruptedThreadStopsHashing()
{
    write("1", "abc");
    QByteArray interrupted;
    const QScopedPointer<QThread> thread(QThread::create([this, &interrupted] {
        QThread::currentThread()->requestInterruption();
        interrupted = digest();
    }));
    thread->start();
    QVERIFY(thread->wait(5000));

    QCOMPARE(interrupted, QByteArray(Md5OfNothing));
}

QTEST_GUILESS_MAIN(TestMd5Checksum)
#include "tst_md5checksum.moc"
