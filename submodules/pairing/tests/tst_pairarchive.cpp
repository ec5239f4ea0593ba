#include "pairarchive.h"

#include "faketar.h"
#include "logspy.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

namespace {

const QString CreateBusyLine = QStringLiteral("pairarchive: Unable to create tar. Another process is running.");
const QString ExtractBusyLine = QStringLiteral("Unable to extract tar. Another process is running.");
const QString EmptyDigest = QStringLiteral("d41d8cd98f00b204e9800998ecf8427e");

QString quoted(const QString& text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

void write(const QString& path, const QByteArray& content)
{
    QFile file(path);
    QVERIFY2(file.open(QIODevice::WriteOnly), qPrintable(path));
    file.write(content);
}

QByteArray read(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("cannot be read");
}

} // namespace

class TestPairArchive : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void createMakesAnArchiveBesideTheDirectory();
    void createRunsTarInTheParentDirectory();
    void extractRunsTarInTheParentDirectory();
    void extractUnpacksAndDeletesTheArchive();
    void jobsAreRefusedWhileOneRuns_data();
    void jobsAreRefusedWhileOneRuns();
    void becomesIdleAfterEachJob();
    void missingParentDirectoryLeavesItBusy_data();
    void missingParentDirectoryLeavesItBusy();
    void missingTarLeavesItBusy();
    void failingTarIsAnnouncedLikeAGoodOne();
    void anEndWithoutAJobIsNotAnnounced();
    void outputOfTarIsLogged();
    void tarReadsAnEmptyStandardInput();
    void md5OfAFile_data();
    void md5OfAFile();
    void digestOfTheArchiveIsKept();
    void destructionEndsARunningTarAtOnce();
    void destructionWhileHashingIsSilent();

private:
    QString path(const char* name) const { return m_folder->filePath(QString::fromLatin1(name)); }

    std::unique_ptr<QTemporaryDir> m_folder;
    std::unique_ptr<LogSpy> m_log;
};

void TestPairArchive::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    QDir().mkpath(path("app/config"));
    write(path("app/manifest.csv"), "target;ru\n");
    write(path("app/config/app.csv"), "tag;value\n");
    m_log = std::make_unique<LogSpy>();
}

void TestPairArchive::cleanup()
{
    m_log.reset();
    m_folder.reset();
}

void TestPairArchive::createMakesAnArchiveBesideTheDirectory()
{
    PairArchive archive(nullptr);
    QSignalSpy ready(&archive, &PairArchive::createdTarReady);

    archive.createTar(path("app"));
    QVERIFY(archive.isBusy());
    QVERIFY(ready.wait(PatienceMs));

    QCOMPARE(ready.first(), (QVariantList{QStringLiteral("app"), path("app.tar")}));
    QVERIFY(!archive.isBusy());
    QProcess list;
    list.start(QStringLiteral("tar"), {QStringLiteral("-tf"), path("app.tar")});
    QVERIFY(list.waitForFinished(PatienceMs));
    QByteArrayList content = list.readAllStandardOutput().trimmed().split('\n');
    std::sort(content.begin(), content.end());
    QCOMPARE(content, (QByteArrayList{"app/", "app/config/", "app/config/app.csv", "app/manifest.csv"}));
    QCOMPARE(m_log->lines(),
             (QStringList{QStringLiteral("Start creating ") + quoted(path("app")),
                          QStringLiteral("pairarchive: tarStarted()"), QStringLiteral("pairarchive: tarFinished"),
                          QStringLiteral("Hash: ") + quoted(archive.digest()),
                          QStringLiteral("cretedTarReady ") + quoted(path("app.tar"))}));
}

void TestPairArchive::createRunsTarInTheParentDirectory()
{
    const FakeTar tar(FakeTar::Recording);
    PairArchive archive(nullptr);
    QSignalSpy ready(&archive, &PairArchive::createdTarReady);

    archive.createTar(path("app"));
    QVERIFY(ready.wait(PatienceMs));

    QCOMPARE(tar.calls(), (QStringList{m_folder->path() + QStringLiteral("|-cf|app.tar|app")}));
}

void TestPairArchive::extractRunsTarInTheParentDirectory()
{
    write(path("app.tar"), "anything");
    const FakeTar tar(FakeTar::Recording);
    PairArchive archive(nullptr);
    QSignalSpy ready(&archive, &PairArchive::extractedTarReady);

    archive.extractTar(path("app.tar"));
    QVERIFY(ready.wait(PatienceMs));

    QCOMPARE(tar.calls(), (QStringList{m_folder->path() + QStringLiteral("|-xf|") + path("app.tar")}));
    QVERIFY(!QFile::exists(path("app.tar")));
}

void TestPairArchive::extractUnpacksAndDeletesTheArchive()
{
    QCOMPARE(QProcess::execute(QStringLiteral("tar"), {QStringLiteral("-cf"), path("app.tar"), QStringLiteral("-C"),
                                                       m_folder->path(), QStringLiteral("app")}),
             0);
    QVERIFY(QDir(path("app")).removeRecursively());
    PairArchive archive(nullptr);
    QSignalSpy ready(&archive, &PairArchive::extractedTarReady);

    archive.extractTar(path("app.tar"));
    QVERIFY(ready.wait(PatienceMs));

    QCOMPARE(read(path("app/config/app.csv")), QByteArray("tag;value\n"));
    QVERIFY(!QFile::exists(path("app.tar")));
    QVERIFY(!archive.isBusy());
    QCOMPARE(m_log->lines(),
             (QStringList{QStringLiteral("Start extracting ") + quoted(path("app.tar")),
                          QStringLiteral("pairarchive: tarStarted()"), QStringLiteral("pairarchive: tarFinished"),
                          QStringLiteral("Hash: ") + quoted(archive.digest()),
                          QStringLiteral("Removing ") + quoted(path("app.tar")), QStringLiteral("extractedTarReady")}));
}

void TestPairArchive::jobsAreRefusedWhileOneRuns_data()
{
    QTest::addColumn<bool>("extract");
    QTest::addColumn<QString>("line");

    QTest::newRow("create") << false << CreateBusyLine;
    QTest::newRow("extract") << true << ExtractBusyLine;
}

void TestPairArchive::jobsAreRefusedWhileOneRuns()
{
    QFETCH(bool, extract);
    QFETCH(QString, line);
    const FakeTar tar(FakeTar::Waiting);
    PairArchive archive(nullptr);
    QSignalSpy ready(&archive, &PairArchive::createdTarReady);
    archive.createTar(path("app"));
    QTRY_COMPARE(tar.calls().size(), 1);

    if (extract) {
        archive.extractTar(path("other.tar"));
    } else {
        archive.createTar(path("other"));
    }
    tar.release();
    QVERIFY(ready.wait(PatienceMs));

    QCOMPARE(m_log->count(line), 1);
    QCOMPARE(ready.first(), (QVariantList{QStringLiteral("app"), path("app.tar")}));
    QCOMPARE(tar.calls().size(), 1);
    QVERIFY(!ready.wait(50)); // never queued
}

void TestPairArchive::becomesIdleAfterEachJob()
{
    PairArchive archive(nullptr);
    QSignalSpy created(&archive, &PairArchive::createdTarReady);
    QSignalSpy extracted(&archive, &PairArchive::extractedTarReady);

    archive.createTar(path("app"));
    QVERIFY(created.wait(PatienceMs));
    archive.extractTar(path("app.tar"));
    QVERIFY(extracted.wait(PatienceMs));
    archive.createTar(path("app"));
    QVERIFY(created.wait(PatienceMs));

    QVERIFY(QFile::exists(path("app.tar")));
}

void TestPairArchive::missingParentDirectoryLeavesItBusy_data()
{
    QTest::addColumn<bool>("extract");

    QTest::newRow("create") << false;
    QTest::newRow("extract") << true;
}

void TestPairArchive::missingParentDirectoryLeavesItBusy()
{
    QFETCH(bool, extract);
    const FakeTar tar(FakeTar::Recording);
    PairArchive archive(nullptr);

    if (extract) {
        archive.extractTar(path("missing/app.tar"));
    } else {
        archive.createTar(path("missing/app"));
    }
    QCOMPARE(m_log->lines(QtWarningMsg),
             QStringList{QStringLiteral("pairarchive: Could not find the directory one up from this app!")});
    archive.createTar(path("app"));

    QVERIFY(m_log->contains(CreateBusyLine));
    QVERIFY(archive.isBusy());
    QTest::qWait(50);
    QCOMPARE(tar.calls(), QStringList());
}

void TestPairArchive::missingTarLeavesItBusy()
{
    const FakeTar tar(FakeTar::Missing);
    PairArchive archive(nullptr);
    QSignalSpy ready(&archive, &PairArchive::createdTarReady);

    archive.createTar(path("app"));
    QTRY_COMPARE(m_log->lines(QtWarningMsg).size(), 1);
    QVERIFY(m_log->lines(QtWarningMsg).first().startsWith(QStringLiteral("pairarchive: Could not start tar: ")));
    archive.createTar(path("app"));

    QVERIFY(m_log->contains(CreateBusyLine));
    QVERIFY(archive.isBusy());
    QVERIFY(ready.isEmpty());
    QVERIFY(!m_log->contains(QStringLiteral("pairarchive: tarFinished")));
}

void TestPairArchive::failingTarIsAnnouncedLikeAGoodOne()
{
    const FakeTar tar(FakeTar::Failing);
    PairArchive archive(nullptr);
    QSignalSpy ready(&archive, &PairArchive::createdTarReady);

    archive.createTar(path("app"));
    QVERIFY(ready.wait(PatienceMs));

    QCOMPARE(ready.first(), (QVariantList{QStringLiteral("app"), path("app.tar")}));
    QVERIFY(!QFile::exists(path("app.tar")));
    QCOMPARE(archive.digest(), EmptyDigest);
    QVERIFY(!archive.isBusy());
}

void TestPairArchive::anEndWithoutAJobIsNotAnnounced()
{
    PairArchive archive(nullptr);
    QSignalSpy created(&archive, &PairArchive::createdTarReady);
    QSignalSpy extracted(&archive, &PairArchive::extractedTarReady);

    QVERIFY(QMetaObject::invokeMethod(&archive, "tarFinished", Q_ARG(int, 0)));
    QTRY_VERIFY(m_log->contains(QStringLiteral("Hash: ") + quoted(EmptyDigest)));

    QVERIFY(created.isEmpty());
    QVERIFY(extracted.isEmpty());
    QVERIFY(!archive.isBusy());
}

void TestPairArchive::outputOfTarIsLogged()
{
    const FakeTar tar(FakeTar::Talking);
    PairArchive archive(nullptr);
    QSignalSpy ready(&archive, &PairArchive::createdTarReady);

    archive.createTar(path("app"));
    QVERIFY(ready.wait(PatienceMs));

    QVERIFY(m_log->contains(QStringLiteral("pairarchive: tarReadyReadStandardOutput(): \"said aloud\\n\"")));
    QVERIFY(m_log->contains(QStringLiteral("pairarchive: tarReadyReadStandardError(): \"complained\\n\"")));
}

void TestPairArchive::tarReadsAnEmptyStandardInput()
{
    const FakeTar tar(FakeTar::Reading);
    PairArchive archive(nullptr);
    QSignalSpy ready(&archive, &PairArchive::createdTarReady);

    archive.createTar(path("app"));

    QVERIFY(ready.wait(PatienceMs));
    QVERIFY(m_log->contains(QStringLiteral("pairarchive: tarReadyReadStandardOutput(): \"end of input\\n\"")));
}

void TestPairArchive::md5OfAFile_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("digest");

    QTest::newRow("empty") << QByteArray("") << EmptyDigest;
    QTest::newRow("abc") << QByteArray("abc") << "900150983cd24fb0d6963f7d28e17f72";
    QTest::newRow("a million letters") << QByteArray(1000000, 'a') << "7707d6ae4e027c70eea2a935c2296f21";
}

void TestPairArchive::md5OfAFile()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, digest);
    write(path("file"), content);
    PairArchive archive(nullptr);

    QCOMPARE(archive.createMd5(path("file")), digest);

    QCOMPARE(archive.digest(), digest);
    QCOMPARE(m_log->lines(), QStringList{QStringLiteral("Hash: ") + quoted(digest)});
    QCOMPARE(archive.createMd5(path("no such file")), EmptyDigest);
}

void TestPairArchive::digestOfTheArchiveIsKept()
{
    // More than one slice of the hashing, so that it goes on in the event loop.
    write(path("app/large"), QByteArray(3000000, 'x'));
    PairArchive archive(nullptr);
    QSignalSpy ready(&archive, &PairArchive::createdTarReady);
    archive.createTar(path("app"));
    QVERIFY(ready.wait(PatienceMs));
    QCOMPARE(archive.archivePath(), path("app.tar"));

    QProcess md5sum;
    md5sum.start(QStringLiteral("md5sum"), {path("app.tar")});
    QVERIFY(md5sum.waitForFinished(PatienceMs));
    QCOMPARE(archive.digest(), QString::fromLatin1(md5sum.readAllStandardOutput().left(32)));
}

void TestPairArchive::destructionEndsARunningTarAtOnce()
{
    const FakeTar tar(FakeTar::Hanging);
    auto archive = std::make_unique<PairArchive>(nullptr);
    QSignalSpy ready(archive.get(), &PairArchive::createdTarReady);
    archive->createTar(path("app"));
    QTRY_VERIFY(tar.processId() > 0);
    QTRY_VERIFY(QFile::exists(path("app.tar")));
    QVERIFY(m_log->lines(QtWarningMsg).isEmpty());

    QElapsedTimer time;
    time.start();
    archive.reset();

    QVERIFY(time.elapsed() < 15000); // where nobody ends it, it takes a minute
    QCOMPARE(::kill(pid_t(tar.processId()), 0), -1);
    QVERIFY(!QFile::exists(path("app.tar")));
    QVERIFY(m_log->lines(QtWarningMsg).isEmpty());
    QVERIFY(ready.isEmpty());
}

void TestPairArchive::destructionWhileHashingIsSilent()
{
    write(path("app/large"), QByteArray(8000000, 'x'));
    auto archive = std::make_unique<PairArchive>(nullptr);
    QSignalSpy ready(archive.get(), &PairArchive::createdTarReady);
    archive->createTar(path("app"));
    while (!m_log->contains(QStringLiteral("pairarchive: tarFinished"))) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
    }
    QVERIFY(archive->isBusy());

    archive.reset();
    QTest::qWait(20);

    QVERIFY(ready.isEmpty());
}

QTEST_GUILESS_MAIN(TestPairArchive)
#include "tst_pairarchive.moc"
