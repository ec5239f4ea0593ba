#include "applicationchecksums.h"
#include "heldline.h"
#include "logspy.h"
#include "patience.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>
#include <QtTest>

#include <chrono>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

// md5sum of the manifest's text followed by "x", and by "y".
constexpr char Md5WithX[] = "71478651c5ecde06599794bb196caf97";
constexpr char Md5WithY[] = "da36b93dfd47d6c8f367d83b79430006";
constexpr char Md5OfManifest[] = "3a281b2eb51e9644cc0c02a4ff8396e3";
constexpr char Md5WithXAndAnotherX[] = "b45a837d4d884700e1c19bc1e3cac6a3";
constexpr char Manifest[] = "target;ru\ntype;user\n";

constexpr std::chrono::milliseconds SettlingTime(30);

constexpr char DeviceLine[] = "Md5Checksum: Refused to read"; // begins the line about a device, and can be held

} // namespace

class TestApplicationChecksums : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void theListHasOneEntryPerUserApplication();
    void aMissingFolderHasAnEmptyList();
    void anUnchangedApplicationIsHashedOnce();
    void aChangeIsNoticed_data();
    void aChangeIsNoticed();
    void aFreshFileIsHashedAgain();
    void whatIsLeftOutOfTheDigestDoesNotCount();
    void resultsReachTheRequestersThread();
    void resultsAreDroppedWithTheirReceiver();
    void waitingEndsWithAnInterruption();
    void theHashingDoesNotHoldUpTheEventLoop();
    void requestsThatNobodyHasBegunShareOneWalk();

private:
    void write(const QString& relativePath, const QByteArray& content);
    void addDevice();
    void settle();
    ApplicationChecksumList list() const;

    QScopedPointer<QTemporaryDir> m_dir;
    QString m_root;
    QString m_app;
    std::chrono::system_clock::time_point m_lastWrite;
};

void TestApplicationChecksums::init()
{
    ApplicationChecksums::setSettlingTime(SettlingTime);
    m_dir.reset(new QTemporaryDir);
    m_root = m_dir->path();
    m_app = m_root + "/app";
    write("app/manifest.csv", Manifest);
    write("app/z", "x");
}

void TestApplicationChecksums::write(const QString& relativePath, const QByteArray& content)
{
    const QString path = m_root + '/' + relativePath;
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        qFatal("cannot write the test's file");
    }
    m_lastWrite = std::chrono::system_clock::now();
}

void TestApplicationChecksums::addDevice()
{
    QVERIFY(QFile::link("/dev/null", m_app + "/device"));
}

/// Waits until the last change is old enough for a digest to be kept.
void TestApplicationChecksums::settle()
{
    QTRY_VERIFY(std::chrono::system_clock::now() - m_lastWrite > SettlingTime);
}

ApplicationChecksumList TestApplicationChecksums::list() const
{
    return ApplicationChecksums::request(m_root).get();
}

void TestApplicationChecksums::theListHasOneEntryPerUserApplication()
{
    write("other/manifest.csv", Manifest);
    write("other/z", "y");
    write("system/manifest.csv", "target;ru\ntype;system\n");

    const ApplicationChecksumList all = list();

    QCOMPARE(all.keys(), (QStringList{m_app, m_root + "/other"}));
    QCOMPARE(all.value(m_app).toHex(), QByteArray(Md5WithX));
    QCOMPARE(all.value(m_root + "/other").toHex(), QByteArray(Md5WithY));
}

void TestApplicationChecksums::aMissingFolderHasAnEmptyList()
{
    m_root += "/missing";

    QVERIFY(list().isEmpty());
    QByteArray result("untouched");
    QVERIFY(!ApplicationChecksums::find(m_root, {}, result));
    QCOMPARE(result, QByteArray("untouched"));
}

void TestApplicationChecksums::anUnchangedApplicationIsHashedOnce()
{
    settle();
    const quint64 before = ApplicationChecksums::hashCount();

    for (int i = 0; i < 20; ++i) {
        QCOMPARE(list().value(m_app).toHex(), QByteArray(Md5WithX));
    }

    QCOMPARE(ApplicationChecksums::hashCount() - before, 1ULL);
}

void TestApplicationChecksums::aChangeIsNoticed_data()
{
    QTest::addColumn<QString>("change");
    QTest::addColumn<QByteArray>("digest");

    QTest::newRow("other contents of the same size") << "rewrite" << QByteArray(Md5WithY);
    QTest::newRow("other contents, old modification time") << "keep time" << QByteArray(Md5WithY);
    QTest::newRow("another file in its place") << "replace" << QByteArray(Md5WithY);
    QTest::newRow("a file more") << "add" << QByteArray(Md5WithXAndAnotherX);
    QTest::newRow("a file less") << "remove" << QByteArray(Md5OfManifest);
}

void TestApplicationChecksums::aChangeIsNoticed()
{
    QFETCH(QString, change);
    QFETCH(QByteArray, digest);
    settle();
    QCOMPARE(list().value(m_app).toHex(), QByteArray(Md5WithX));
    const QByteArray file = QFile::encodeName(m_app + "/z");
    struct stat before = {};
    QCOMPARE(::stat(file.constData(), &before), 0);

    if (change == "rewrite" || change == "keep time") {
        write("app/z", "y");
    }
    if (change == "keep time") {
        const timespec times[] = {before.st_atim, before.st_mtim};
        QCOMPARE(::utimensat(AT_FDCWD, file.constData(), times, 0), 0);
    }
    if (change == "replace") {
        write("app/.new", "y");
        QVERIFY(QFile::remove(m_app + "/z") && QFile::rename(m_app + "/.new", m_app + "/z"));
    }
    if (change == "add") {
        write("app/zz", "x");
    }
    if (change == "remove") {
        QVERIFY(QFile::remove(m_app + "/z"));
    }

    QCOMPARE(list().value(m_app).toHex(), digest);
}

void TestApplicationChecksums::aFreshFileIsHashedAgain()
{
    ApplicationChecksums::setSettlingTime(std::chrono::hours(1));
    const quint64 before = ApplicationChecksums::hashCount();

    list();
    list();

    QCOMPARE(ApplicationChecksums::hashCount() - before, 2ULL);
}

void TestApplicationChecksums::whatIsLeftOutOfTheDigestDoesNotCount()
{
    settle();
    list();
    const quint64 before = ApplicationChecksums::hashCount();

    write("app/keys.csv", "PKY1;1");
    write("app/Main.qmlc", "compiled");

    QCOMPARE(list().value(m_app).toHex(), QByteArray(Md5WithX));
    QCOMPARE(ApplicationChecksums::hashCount(), before);
}

void TestApplicationChecksums::resultsReachTheRequestersThread()
{
    QObject receiver;
    QVector<ApplicationChecksumList> results;
    const auto collect = [&](const ApplicationChecksumList& result) {
        QCOMPARE(QThread::currentThread(), thread());
        results.append(result);
    };

    ApplicationChecksums::whenReady(ApplicationChecksums::request(m_root), &receiver, collect);
    ApplicationChecksums::whenReady(ApplicationChecksums::request(m_root + "/missing"), &receiver, collect);
    QVERIFY(results.isEmpty());

    QTRY_COMPARE(results.size(), 2);
    QCOMPARE(results.at(0).value(m_app).toHex(), QByteArray(Md5WithX));
    QVERIFY(results.at(1).isEmpty());
}

void TestApplicationChecksums::resultsAreDroppedWithTheirReceiver()
{
    bool isCalled = false;
    {
        QObject receiver;
        ApplicationChecksums::whenReady(ApplicationChecksums::request(m_root), &receiver,
                                        [&](const ApplicationChecksumList&) { isCalled = true; });
    }
    QObject laterReceiver;
    bool isLaterCalled = false;
    ApplicationChecksums::whenReady(ApplicationChecksums::request(m_root), &laterReceiver,
                                    [&](const ApplicationChecksumList&) { isLaterCalled = true; });

    QTRY_VERIFY(isLaterCalled);
    QVERIFY(!isCalled);
}

void TestApplicationChecksums::waitingEndsWithAnInterruption()
{
    std::promise<ApplicationChecksumList> neverKept;
    const std::shared_future<ApplicationChecksumList> list = neverKept.get_future().share();
    const QScopedPointer<QThread> waiting(QThread::create([list] { ApplicationChecksums::waitFor(list); }));
    waiting->start();
    QVERIFY(!waiting->wait(20));

    waiting->requestInterruption();

    QVERIFY(waiting->wait(PatienceMs));
}

void TestApplicationChecksums::theHashingDoesNotHoldUpTheEventLoop()
{
    const LogSpy quiet;
    addDevice();
    HeldLine hashing(DeviceLine);
    QTimer rhythm;
    int ticks = 0;
    connect(&rhythm, &QTimer::timeout, this, [&] { ++ticks; });
    rhythm.start(1);
    QByteArray digest;

    ApplicationChecksums::whenReady(
        ApplicationChecksums::request(m_root), this,
        [&](const ApplicationChecksumList& result) { digest = result.value(m_app).toHex(); });

    QTRY_VERIFY(hashing.isReached());
    const int before = ticks;
    QTRY_VERIFY(ticks >= before + 5);
    QVERIFY(hashing.isHeld());
    QVERIFY(digest.isEmpty());
    hashing.release();
    QTRY_COMPARE(digest, QByteArray(Md5WithX));
}

void TestApplicationChecksums::requestsThatNobodyHasBegunShareOneWalk()
{
    ApplicationChecksums::setSettlingTime(std::chrono::hours(1)); // every walk hashes the file
    const LogSpy quiet;
    addDevice();
    HeldLine hashing(DeviceLine);
    const quint64 before = ApplicationChecksums::hashCount();

    QVector<std::shared_future<ApplicationChecksumList>> lists{ApplicationChecksums::request(m_root)};
    QTRY_VERIFY(hashing.isReached());
    for (int i = 0; i < 1000; ++i) {
        lists.append(ApplicationChecksums::request(m_root));
    }
    hashing.release();
    for (const auto& list : qAsConst(lists)) {
        QCOMPARE(list.get().size(), 1);
    }

    // For the first request, and for all that came while it was served.
    QCOMPARE(ApplicationChecksums::hashCount() - before, 2ULL);
}

QTEST_GUILESS_MAIN(TestApplicationChecksums)
#include "tst_applicationchecksums.moc"
