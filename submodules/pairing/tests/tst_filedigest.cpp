#include "filedigest.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>

class TestFileDigest : public QObject
{
    Q_OBJECT

private slots:
    void digestOfContent_data();
    void digestOfContent();
    void missingFileCountsAsEmpty();
    void pipeCountsAsEmptyAndIsNotWaitedFor();
    void smallFileIsDoneAtOnce();
    void largeFileLeavesTheEventLoopItsTurns();

private:
    QString fileOf(const QByteArray& content)
    {
        QString path = m_folder.filePath(QStringLiteral("file"));
        QFile file(path);
        file.open(QIODevice::WriteOnly | QIODevice::Truncate);
        file.write(content);
        return path;
    }

    QTemporaryDir m_folder;
};

void TestFileDigest::digestOfContent_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("digest");

    // Digests from md5sum.
    QTest::newRow("nothing") << QByteArray() << "d41d8cd98f00b204e9800998ecf8427e";
    QTest::newRow("abc") << QByteArray("abc") << "900150983cd24fb0d6963f7d28e17f72";
    QTest::newRow("one byte less than a slice") << QByteArray(262143, 'x') << "10a216466ff7daea13073aaaefa289ab";
    QTest::newRow("exactly one slice") << QByteArray(262144, 'x') << "1566aa66d825eb4354d3e9533b753995";
    QTest::newRow("several slices and a rest") << QByteArray(1000000, 'a') << "7707d6ae4e027c70eea2a935c2296f21";
}

void TestFileDigest::digestOfContent()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, digest);
    FileDigest inSlices(fileOf(content), nullptr);
    QSignalSpy finished(&inSlices, &FileDigest::finished);

    inSlices.start();

    QTRY_COMPARE(finished.size(), 1);
    QCOMPARE(finished.first().first().toString(), digest);
    QCOMPARE(FileDigest::of(fileOf(content)), digest);
}

void TestFileDigest::missingFileCountsAsEmpty()
{
    FileDigest inSlices(m_folder.filePath(QStringLiteral("missing")), nullptr);
    QSignalSpy finished(&inSlices, &FileDigest::finished);

    inSlices.start();

    QCOMPARE(finished.first().first().toString(), QStringLiteral("d41d8cd98f00b204e9800998ecf8427e"));
    QCOMPARE(FileDigest::of(m_folder.filePath(QStringLiteral("missing"))),
             QStringLiteral("d41d8cd98f00b204e9800998ecf8427e"));
}

void TestFileDigest::pipeCountsAsEmptyAndIsNotWaitedFor()
{
    const QString path = m_folder.filePath(QStringLiteral("pipe"));
    QCOMPARE(mkfifo(QFile::encodeName(path).constData(), S_IRUSR | S_IWUSR), 0);
    QTest::ignoreMessage(
        QtWarningMsg, qPrintable(QStringLiteral("pairarchive: Refused to read \"%1\" - Not a regular file").arg(path)));

    QCOMPARE(FileDigest::of(path), QStringLiteral("d41d8cd98f00b204e9800998ecf8427e"));
}

void TestFileDigest::smallFileIsDoneAtOnce()
{
    FileDigest inSlices(fileOf("abc"), nullptr);
    QSignalSpy finished(&inSlices, &FileDigest::finished);

    inSlices.start();

    QCOMPARE(finished.size(), 1);
}

void TestFileDigest::largeFileLeavesTheEventLoopItsTurns()
{
    FileDigest inSlices(fileOf(QByteArray(16 * 262144, 'x')), nullptr);
    QSignalSpy finished(&inSlices, &FileDigest::finished);
    int turns = 0;
    QTimer others;
    connect(&others, &QTimer::timeout, [&turns] { ++turns; });
    others.start(0);

    inSlices.start();
    QTRY_COMPARE(finished.size(), 1);

    // 15 full slices follow the first one, each in a turn of its own.
    QVERIFY2(turns >= 15, qPrintable(QString::number(turns)));
}

QTEST_GUILESS_MAIN(TestFileDigest)
#include "tst_filedigest.moc"
