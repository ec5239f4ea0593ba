#include "applicationmanifest.h"
#include "manifestindex.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

/// Runs once through the life of an installation, because each step needs folders that were left alone for two seconds.
class TestManifestIndex : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void freshFoldersAreReadEveryTime();
    void settledFoldersAreReadOnce();
    void changesAreNoticed_data();
    void changesAreNoticed();
    void anotherRootIsAnotherAnswer();
    void aMissingRootAppears();

private:
    void write(const QString& relativePath, const QByteArray& content);
    QString app(const QString& name) const { return m_dir.path() + '/' + name; }

    QTemporaryDir m_dir;
    ManifestIndex m_settled; ///< knows the installation as it was two seconds ago
};

void TestManifestIndex::write(const QString& relativePath, const QByteArray& content)
{
    const QString path = app(relativePath);
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        qFatal("cannot write the test's file");
    }
}

void TestManifestIndex::initTestCase()
{
    for (const char* const name : {"a", "rewritten", "removed", "deep/er/still", "renamed"}) {
        write(QString(name) + "/manifest.csv", "target;ru\ntype;user\n");
        write(QString(name) + "/other", "");
    }
    write("later/other", "");
}

void TestManifestIndex::freshFoldersAreReadEveryTime()
{
    ManifestIndex index;

    QCOMPARE(index.remoteUnitUserApplications(m_dir.path()).size(), 5);
    write("extra/manifest.csv", "target;ru\ntype;user\n");
    QCOMPARE(index.remoteUnitUserApplications(m_dir.path()).size(), 6);
    QVERIFY(QDir(app("extra")).removeRecursively());
    QCOMPARE(index.remoteUnitUserApplications(m_dir.path()).size(), 5);

    QCOMPARE(index.walkCount(), 3);
}

void TestManifestIndex::settledFoldersAreReadOnce()
{
    const QStringList applications{app("a"), app("deep/er/still"), app("removed"), app("renamed"), app("rewritten")};
    const auto answersWithoutWalking = [&] {
        const int before = m_settled.walkCount();
        return m_settled.remoteUnitUserApplications(m_dir.path()) == applications && m_settled.walkCount() == before;
    };

    QTRY_VERIFY(answersWithoutWalking());

    QVERIFY(answersWithoutWalking());
}

void TestManifestIndex::changesAreNoticed_data()
{
    QTest::addColumn<QString>("change");
    QTest::addColumn<QString>("app");
    QTest::addColumn<bool>("isInstalled");

    QTest::newRow("a manifest is rewritten in place") << "rewrite"
                                                      << "rewritten" << false;
    QTest::newRow("a manifest is removed") << "remove"
                                           << "removed" << false;
    QTest::newRow("a manifest is added to a folder") << "add"
                                                     << "later" << true;
    QTest::newRow("a new folder deep inside") << "add"
                                              << "deep/er/new" << true;
    QTest::newRow("a folder is renamed") << "rename"
                                         << "renamed" << false;
}

void TestManifestIndex::changesAreNoticed()
{
    QFETCH(QString, change);
    QFETCH(QString, app);
    QFETCH(bool, isInstalled);
    ManifestIndex index = m_settled; // still knows the state before all changes
    const QString path = this->app(app);

    if (change == "rewrite") {
        write(app + "/manifest.csv", "target;bu\ntype;user\n");
    } else if (change == "remove") {
        QVERIFY(QFile::remove(path + "/manifest.csv"));
    } else if (change == "add") {
        write(app + "/manifest.csv", "target;ru\ntype;user\n");
    } else {
        QVERIFY(QDir().rename(path, path + "2"));
    }

    QCOMPARE(index.remoteUnitUserApplications(m_dir.path()).contains(path), isInstalled);
    QCOMPARE(index.remoteUnitUserApplications(m_dir.path()),
             ApplicationManifest::remoteUnitUserApplications(m_dir.path()));
}

void TestManifestIndex::anotherRootIsAnotherAnswer()
{
    ManifestIndex index = m_settled;

    QCOMPARE(index.remoteUnitUserApplications(app("a")), QStringList{app("a")});
}

void TestManifestIndex::aMissingRootAppears()
{
    ManifestIndex index;
    QCOMPARE(index.remoteUnitUserApplications(app("missing")), QStringList());
    QCOMPARE(index.remoteUnitUserApplications(app("missing")), QStringList());
    QCOMPARE(index.walkCount(), 1);

    write("missing/manifest.csv", "target;ru\ntype;user\n");

    QCOMPARE(index.remoteUnitUserApplications(app("missing")), QStringList{app("missing")});
    QCOMPARE(ManifestIndex().remoteUnitUserApplications(QString()), QStringList());
}

QTEST_GUILESS_MAIN(TestManifestIndex)
#include "tst_manifestindex.moc"
