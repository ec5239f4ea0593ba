#include "pairingact.h"

#include "diskspy.h"
#include "durablefiles.h"
#include "logspy.h"
#include "pairinginstallation.h"
#include "pairingrecovery.h"

#include <QtTest>

#include <memory>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

/// One pairing as an act: what stands before it, in its midst, after its end, and after an end of the process at any
/// moment. An act that is cut short is one whose object never ends.
class TestPairingAct : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void touchesNothingUntilItIsComplete();
    void packsTheNewConfigurationAndEverythingElse();
    void replacesEverythingWhenItIsComplete();
    void leavesOnlyTheArchiveAndItsRecord();
    void undoesWhatIsNotCompleted();
    void undoesWhenAFileCannotBeReplaced_data();
    void undoesWhenAFileCannotBeReplaced();
    void refusesWhatChangedMeanwhile();
    void isUndoneAtTheNextStart_data();
    void isUndoneAtTheNextStart();
    void isUndoneLaterWhenTheDiskFails();
    void nextStartRemovesAnArchiveThatNobodyFetched();
    void nextStartHasNothingToSayAfterAnOrderlyEnd();
    void removedApplicationIsNoReasonNotToUndo();
    void oldNamesOfAnEarlierActAreNotPutBack();
    void recordThatCannotBeReadKeepsEverything();
    void secondNamesAreOnTheDiskBeforeAnythingIsReplaced();
    void whatIsUndoneIsOffTheDiskBeforeItsRecord();
    void archiveIsOffTheDiskBeforeItsRecord();
    void archivesOfInnerApplicationsAreNotPacked();
    void filesOnAnotherFileSystemAreCopied();
    void permissionsStay();

private:
    QString app() const { return m_unit->path("ruapp"); }
    QString remotes() const { return m_unit->path("tessaroserver/config/remotes.csv"); }
    TextFileChange change(const QByteArray& name, const QByteArray& after) const
    {
        return {QFileInfo(m_unit->path(name)).canonicalFilePath(), m_unit->read(name), after};
    }
    /// A pairing whose new files consist of one word each.
    std::unique_ptr<PairingAct> prepared() const
    {
        auto act = std::make_unique<PairingAct>(app(), *m_records);
        [&] {
            QVERIFY2(act->prepare({change("ruapp/config/keys.csv", "keys"), change("ruapp/config/app.csv", "settings")},
                                  change("tessaroserver/config/remotes.csv", "units")),
                     qPrintable(act->reason()));
        }();
        return act;
    }
    void makeArchive() const { m_unit->write(".ruapp.pairing/ruapp.tar", "archive"); }
    /// As if the process had ended: what the act would do at its own end is not done. It stays within reach of the leak
    /// sanitizer, and does not count as one.
    static void cutShort(std::unique_ptr<PairingAct> act)
    {
        static auto* const left = new std::vector<PairingAct*>;
        left->push_back(act.release());
    }

    /// A pairing that ended when so many of its files had their places; with -1, before the old ones had a second name.
    void cutShortWith(int renamed);

    std::unique_ptr<LogSpy> m_log;
    std::unique_ptr<PairingInstallation> m_unit;
    std::unique_ptr<PairingRecords> m_records;
    QMap<QString, QByteArray> m_atFirst;
};

void TestPairingAct::init()
{
    m_log = std::make_unique<LogSpy>();
    m_unit = std::make_unique<PairingInstallation>();
    m_records = std::make_unique<PairingRecords>(remotes());
    m_atFirst = m_unit->everything();
    m_log->clear();
}

void TestPairingAct::cleanup()
{
    m_records.reset();
    m_unit.reset();
    m_log.reset();
}

void TestPairingAct::touchesNothingUntilItIsComplete()
{
    const std::unique_ptr<PairingAct> act = prepared();

    const QMap<QString, QByteArray> now = m_unit->everything();
    for (auto file = m_atFirst.begin(); file != m_atFirst.end(); ++file) {
        QCOMPARE(now.value(file.key()), file.value());
    }
    QVERIFY(now.size() > m_atFirst.size());
}

void TestPairingAct::packsTheNewConfigurationAndEverythingElse()
{
    m_unit->write("ruapp/.hidden/deep/file", "content");
    QVERIFY(QFile::link(QStringLiteral("/nowhere"), m_unit->path("ruapp/dangling")));
    const std::unique_ptr<PairingAct> act = prepared();

    QCOMPARE(act->folderToPack(), m_unit->path(".ruapp.pairing/ruapp"));
    QCOMPARE(m_unit->read(".ruapp.pairing/ruapp/config/keys.csv"), QByteArray("keys"));
    QCOMPARE(m_unit->read(".ruapp.pairing/ruapp/config/app.csv"), QByteArray("settings"));
    QCOMPARE(m_unit->read(".ruapp.pairing/ruapp/manifest.csv"), m_unit->read("ruapp/manifest.csv"));
    QCOMPARE(m_unit->read(".ruapp.pairing/ruapp/.hidden/deep/file"), QByteArray("content"));
    char target[16] = {};
    QCOMPARE(::readlink(qPrintable(m_unit->path(".ruapp.pairing/ruapp/dangling")), target, sizeof(target) - 1),
             ssize_t(8));
    QCOMPARE(QByteArray(target), QByteArray("/nowhere"));
}

void TestPairingAct::replacesEverythingWhenItIsComplete()
{
    const std::unique_ptr<PairingAct> act = prepared();
    makeArchive();

    QVERIFY2(act->complete(), qPrintable(act->reason()));

    QCOMPARE(m_unit->read("ruapp/config/keys.csv"), QByteArray("keys"));
    QCOMPARE(m_unit->read("ruapp/config/app.csv"), QByteArray("settings"));
    QCOMPARE(m_unit->read("tessaroserver/config/remotes.csv"), QByteArray("units"));
    QCOMPARE(m_unit->read("ruapp.tar"), QByteArray("archive"));
}

void TestPairingAct::leavesOnlyTheArchiveAndItsRecord()
{
    std::unique_ptr<PairingAct> act = prepared();
    makeArchive();
    QVERIFY(act->complete());
    act.reset();

    QCOMPARE(*m_records->begun(), QStringList());
    QCOMPARE(*m_records->archives(), QStringList{app()});
    QVERIFY(QFile::remove(m_unit->path("ruapp.tar")));
    m_records->forgetArchive(app());
    QCOMPARE(m_unit->everything().keys(), m_atFirst.keys());
}

void TestPairingAct::undoesWhatIsNotCompleted()
{
    prepared().reset();

    QCOMPARE(m_unit->everything(), m_atFirst);
}

void TestPairingAct::undoesWhenAFileCannotBeReplaced_data()
{
    QTest::addColumn<QString>("inTheWay"); // made a folder, which nothing can be renamed to

    QTest::newRow("the archive's place") << "ruapp.tar";
    QTest::newRow("no archive") << QString();
}

void TestPairingAct::undoesWhenAFileCannotBeReplaced()
{
    QFETCH(QString, inTheWay);
    std::unique_ptr<PairingAct> act = prepared();
    if (!inTheWay.isEmpty()) {
        makeArchive();
        m_unit->write(inTheWay.toUtf8() + "/file", "something");
    }

    QVERIFY(!act->complete());

    QVERIFY(!act->reason().isEmpty());
    act.reset();
    QDir(m_unit->path("ruapp.tar")).removeRecursively(); // which is nobody's archive, and stays
    QCOMPARE(m_unit->everything(), m_atFirst);
}

void TestPairingAct::refusesWhatChangedMeanwhile()
{
    std::unique_ptr<PairingAct> act = prepared();
    makeArchive();
    m_unit->write("ruapp/config/app.csv", "somebody else's");

    QVERIFY(!act->complete());

    QVERIFY(act->reason().endsWith(QStringLiteral("/ruapp/config/app.csv: changed by somebody else meanwhile")));
    act.reset();
    QCOMPARE(m_unit->read("ruapp/config/app.csv"), QByteArray("somebody else's"));
    QCOMPARE(m_unit->read("ruapp/config/keys.csv"), m_atFirst.value(m_unit->path("ruapp/config/keys.csv")));
}

void TestPairingAct::isUndoneAtTheNextStart_data()
{
    QTest::addColumn<int>("renamed"); // how many files had taken their places

    for (int renamed = -1; renamed <= 4; ++renamed) {
        QTest::addRow("%d of 4 renamed", renamed) << renamed;
    }
}

/// The steps of the end one by one, as they are on the disk.
void TestPairingAct::cutShortWith(int renamed)
{
    cutShort(prepared());
    makeArchive();
    const QString places[] = {m_unit->path("ruapp/config/keys.csv"), m_unit->path("ruapp/config/app.csv"), remotes()};
    const QString records = m_records->folder();
    const QString old[] = {m_unit->path(".ruapp.pairing/old/keys.csv"), m_unit->path(".ruapp.pairing/old/app.csv"),
                           records + "/remotes.csv.old"};
    const QString fresh[] = {m_unit->path(".ruapp.pairing/ruapp/config/keys.csv"),
                             m_unit->path(".ruapp.pairing/ruapp/config/app.csv"), records + "/remotes.csv.new"};
    for (int i = 0; i < 3; ++i) {
        QVERIFY(renamed < 0 || DurableFiles::addName(places[i], old[i]));
    }
    for (int i = 0; i < qMin(renamed, 3); ++i) {
        QVERIFY(DurableFiles::rename(fresh[i], places[i]));
    }
    QVERIFY(renamed < 4 || DurableFiles::rename(m_unit->path(".ruapp.pairing/ruapp.tar"), m_unit->path("ruapp.tar")));
}

void TestPairingAct::isUndoneAtTheNextStart()
{
    QFETCH(int, renamed);
    cutShortWith(renamed);

    QVERIFY(recoverPairings(remotes()));

    QCOMPARE(m_unit->everything(), m_atFirst);
    QCOMPARE(m_log->lines(),
             QStringList{QStringLiteral("pairserver: Undid what had been begun with \"%1\"").arg(app())});
}

/// A start whose disk fails leaves it to the next one, at whatever call that was.
void TestPairingAct::isUndoneLaterWhenTheDiskFails()
{
    int failing = 0;
    for (bool reached = true; reached; ++failing) {
        cleanup();
        init();
        cutShortWith(4);
        {
            DiskSpy disk;
            disk.failAt(failing);
            recoverPairings(remotes());
            reached = disk.count() > failing;
        }
        QVERIFY(recoverPairings(remotes()));
        QVERIFY2(m_unit->everything() == m_atFirst, qPrintable(QString::number(failing)));
    }
    QVERIFY(failing > 10);
}

void TestPairingAct::nextStartRemovesAnArchiveThatNobodyFetched()
{
    std::unique_ptr<PairingAct> act = prepared();
    makeArchive();
    QVERIFY(act->complete());

    QVERIFY(recoverPairings(remotes()));

    QVERIFY(!QFile::exists(m_unit->path("ruapp.tar")));
    QCOMPARE(m_unit->read("ruapp/config/keys.csv"), QByteArray("keys"));
    QCOMPARE(m_unit->everything().keys(), m_atFirst.keys());
    QCOMPARE(m_log->lines(),
             QStringList{QStringLiteral("pairserver: Removed the archive that was left of \"%1\"").arg(app())});
}

void TestPairingAct::nextStartHasNothingToSayAfterAnOrderlyEnd()
{
    QVERIFY(recoverPairings(remotes()));

    QCOMPARE(m_log->lines(), QStringList());
    QCOMPARE(m_unit->everything(), m_atFirst);
}

void TestPairingAct::removedApplicationIsNoReasonNotToUndo()
{
    cutShort(prepared());
    QVERIFY(DurableFiles::addName(m_unit->path("ruapp/config/keys.csv"), m_unit->path(".ruapp.pairing/old/keys.csv")));
    QVERIFY(DurableFiles::addName(remotes(), m_records->folder() + "/remotes.csv.old"));
    QVERIFY(DurableFiles::rename(m_records->folder() + "/remotes.csv.new", remotes()));
    QVERIFY(QDir(app()).removeRecursively());

    QVERIFY(recoverPairings(remotes()));

    QCOMPARE(m_unit->read("tessaroserver/config/remotes.csv"), m_atFirst.value(remotes()));
    QVERIFY(!QFile::exists(m_unit->path(".ruapp.pairing")));
    QVERIFY(!QFile::exists(m_records->folder()));
}

/// A disk that failed once may have kept them; put back by the next undoing, they would bring an older pairing back.
void TestPairingAct::oldNamesOfAnEarlierActAreNotPutBack()
{
    QVERIFY(QDir().mkpath(m_records->folder()));
    m_unit->write("tessaroserver/config/.pairing/remotes.csv.old", "of an earlier act");
    m_unit->write(".ruapp.pairing/old/keys.csv", "of an earlier act");
    cutShort(prepared());

    QVERIFY(recoverPairings(remotes()));

    QCOMPARE(m_unit->everything(), m_atFirst);
}

/// Taken for none, it would let the only way back be cleared away.
void TestPairingAct::recordThatCannotBeReadKeepsEverything()
{
    cutShort(prepared());
    QVERIFY(DurableFiles::addName(m_unit->path("ruapp/config/keys.csv"), m_unit->path(".ruapp.pairing/old/keys.csv")));
    QVERIFY(DurableFiles::rename(m_unit->path(".ruapp.pairing/ruapp/config/keys.csv"),
                                 m_unit->path("ruapp/config/keys.csv")));
    const QString name = QDir(m_records->folder()).entryList({QStringLiteral("*.undo")}, QDir::Files).value(0);
    QFile record(m_records->folder() + '/' + name);
    const qint64 size = record.size();
    QVERIFY(record.resize(MaxTextFileBytes + 1));

    QVERIFY(!recoverPairings(remotes()));

    QCOMPARE(m_log->lines(QtWarningMsg).size(), 1);
    QVERIFY(m_log->lines(QtWarningMsg).first().startsWith(QStringLiteral("pairserver: Could not read")));
    QVERIFY(record.resize(size));
    QVERIFY(recoverPairings(remotes()));
    QCOMPARE(m_unit->everything(), m_atFirst);
}

/// After a power cut there would be new files, and nothing to put back.
void TestPairingAct::secondNamesAreOnTheDiskBeforeAnythingIsReplaced()
{
    const std::unique_ptr<PairingAct> act = prepared();
    makeArchive();
    DiskSpy disk;

    QVERIFY(act->complete());

    const int replaced = disk.first("rename", m_unit->path("ruapp/config/keys.csv"));
    QVERIFY(replaced > 0);
    for (const QString& folder :
         {m_unit->path(".ruapp.pairing/old"), m_unit->path(".ruapp.pairing"), m_unit->root(), m_records->folder()}) {
        const int synced = disk.first("fsync", folder);
        QVERIFY2(synced >= 0 && synced < replaced, qPrintable(folder));
    }
}

void TestPairingAct::whatIsUndoneIsOffTheDiskBeforeItsRecord()
{
    std::unique_ptr<PairingAct> act = prepared();
    makeArchive();
    DiskSpy disk;

    act.reset();

    const int removed = disk.first("rmdir", m_unit->path(".ruapp.pairing"));
    QVERIFY(removed > 0);
    QVERIFY(disk.last("fsync", m_unit->root()) > removed);
    QVERIFY(disk.last("unlink", m_records->folder() + QStringLiteral("/*.undo")) > disk.last("fsync", m_unit->root()));
}

void TestPairingAct::archiveIsOffTheDiskBeforeItsRecord()
{
    const std::unique_ptr<PairingAct> act = prepared();
    makeArchive();
    QVERIFY(act->complete());
    QVERIFY(QFile::remove(m_unit->path("ruapp.tar")));
    DiskSpy disk;

    PairingAct::forgetArchive(m_unit->path("ruapp.tar"), *m_records);

    const int forgotten = disk.first("unlink", m_records->folder() + QStringLiteral("/*.archive"));
    QVERIFY(forgotten > 0);
    QCOMPARE(disk.first("fsync", m_unit->root()), forgotten - 1);
}

void TestPairingAct::archivesOfInnerApplicationsAreNotPacked()
{
    m_unit->write("ruapp/inner/manifest.csv", "target;ru\n");
    m_unit->write("ruapp/inner.tar", "for somebody else");
    QVERIFY(m_records->begin(m_unit->path("ruapp/inner")));
    QVERIFY(m_records->settle(m_unit->path("ruapp/inner")));

    const std::unique_ptr<PairingAct> act = prepared();

    QVERIFY(QFile::exists(m_unit->path(".ruapp.pairing/ruapp/inner/manifest.csv")));
    QVERIFY(!QFile::exists(m_unit->path(".ruapp.pairing/ruapp/inner.tar")));
}

void TestPairingAct::filesOnAnotherFileSystemAreCopied()
{
    const QString copy = m_unit->path("version");

    QVERIFY(DurableFiles::addName(QStringLiteral("/proc/version"), copy)); // no name outside /proc for that one

    QVERIFY(m_unit->read("version").startsWith("Linux version "));
    QVERIFY(!DurableFiles::addName(QStringLiteral("/proc/version"), copy)); // and never over something
    QVERIFY(!DurableFiles::addName(QStringLiteral("/dev/zero"), m_unit->path("endless")));
    QVERIFY(!QFile::exists(m_unit->path("endless")));
}

void TestPairingAct::permissionsStay()
{
    QCOMPARE(::chmod(qPrintable(m_unit->path("ruapp/config/keys.csv")), 0600), 0);
    QCOMPARE(::chmod(qPrintable(m_unit->path("ruapp/config")), 0750), 0);
    QCOMPARE(::chmod(qPrintable(remotes()), 0640), 0);
    std::unique_ptr<PairingAct> act = prepared();
    struct stat packed = {};
    QCOMPARE(::stat(qPrintable(m_unit->path(".ruapp.pairing/ruapp/config")), &packed), 0);
    QCOMPARE(packed.st_mode & 07777, mode_t(0750));
    makeArchive();

    QVERIFY(act->complete());

    QCOMPARE(::stat(qPrintable(m_unit->path("ruapp/config/keys.csv")), &packed), 0);
    QCOMPARE(packed.st_mode & 07777, mode_t(0600));
    QCOMPARE(::stat(qPrintable(remotes()), &packed), 0);
    QCOMPARE(packed.st_mode & 07777, mode_t(0640));
}

QTEST_GUILESS_MAIN(TestPairingAct)
#include "tst_pairingact.moc"
