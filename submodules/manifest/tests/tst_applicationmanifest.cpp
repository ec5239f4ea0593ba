#include "applicationmanifest.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>

using Entries = ApplicationManifest::Entries;

class TestApplicationManifest : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void linesOfExactlyTwoPartsCount_data();
    void linesOfExactlyTwoPartsCount();
    void aFileThatCannotBeReadGivesNothing();
    void aPipeInItsPlaceIsRefusedAtOnce();
    void onlyTheFirstBytesOfAHugeFileAreRead();
    void onlyTheExactFileNameIsFound();
    void theOrderIsTheSortedOne();
    void linksOutOfTheFolderAreNotFollowed();
    void aMissingRootHasNoManifests();
    void targetAndTypeDecide_data();
    void targetAndTypeDecide();
    void userApplicationsAreNamedByTheirFolder();
    void theDefaultRootIsAboveTheExecutablesFolder();

private:
    QString write(const QString& relativePath, const QByteArray& content);

    QScopedPointer<QTemporaryDir> m_dir;
    QString m_root;
};

void TestApplicationManifest::init()
{
    m_dir.reset(new QTemporaryDir);
    QVERIFY(m_dir->isValid());
    m_root = m_dir->path() + QStringLiteral("/applications");
    QVERIFY(QDir().mkpath(m_root));
}

QString TestApplicationManifest::write(const QString& relativePath, const QByteArray& content)
{
    const QString path = m_root + QLatin1Char('/') + relativePath;
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        qFatal("cannot write the test's file");
    }
    return path;
}

void TestApplicationManifest::linesOfExactlyTwoPartsCount_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<Entries>("expected");

    QTest::newRow("key and value") << QByteArray("target;ru\ntype;user\n")
                                   << Entries{{"target", "ru"}, {"type", "user"}};
    QTest::newRow("white space is collapsed") << QByteArray("  target ;\tru \r\n name ; My   big  app \n")
                                              << Entries{{"target", "ru"}, {"name", "My big app"}};
    QTest::newRow("one part and three parts are ignored")
        << QByteArray("target\ntype;user;\na;b;c\nname;x") << Entries{{"name", "x"}};
    QTest::newRow("empty parts are parts") << QByteArray(";\nkey;\n") << Entries{{"", ""}, {"key", ""}};
    QTest::newRow("the last of a repeated key counts")
        << QByteArray("type;system\ntype;user") << Entries{{"type", "user"}};
    QTest::newRow("empty file") << QByteArray() << Entries{};
}

void TestApplicationManifest::linesOfExactlyTwoPartsCount()
{
    QFETCH(QByteArray, content);
    QFETCH(Entries, expected);

    const std::optional<Entries> entries = ApplicationManifest::read(write("app/manifest.csv", content));

    QVERIFY(entries.has_value());
    QCOMPARE(*entries, expected);
}

void TestApplicationManifest::aFileThatCannotBeReadGivesNothing()
{
    QVERIFY(QFile::link(m_root + "/nowhere", m_root + "/manifest.csv"));
    QVERIFY(!ApplicationManifest::read(m_root + "/manifest.csv").has_value());
    QVERIFY(!ApplicationManifest::read(m_root).has_value());
}

void TestApplicationManifest::aPipeInItsPlaceIsRefusedAtOnce()
{
    const QString pipe = m_root + "/manifest.csv";
    QCOMPARE(mkfifo(QFile::encodeName(pipe).constData(), S_IRUSR | S_IWUSR), 0);
    QTest::ignoreMessage(QtWarningMsg,
                         qPrintable("Refused to read the manifest \"" + pipe + "\" - Not a regular file"));

    QVERIFY(!ApplicationManifest::read(pipe));
}

void TestApplicationManifest::onlyTheFirstBytesOfAHugeFileAreRead()
{
    QByteArray content("target;ru\n");
    content.append(QByteArray(64 * 1024, '\n'));
    content.append("type;user\n");

    QCOMPARE(ApplicationManifest::read(write("manifest.csv", content)).value(), (Entries{{"target", "ru"}}));
}

void TestApplicationManifest::onlyTheExactFileNameIsFound()
{
    const QString manifest = write("one/deep/manifest.csv", "target;ru");
    write("two/Manifest.csv", "target;ru");
    write("three/manifest.csv.bak", "target;ru");
    write("four/oldmanifest.csv", "target;ru");
    write(".hidden/manifest.csv", "target;ru");
    QVERIFY(QDir().mkpath(m_root + "/five/manifest.csv"));

    QCOMPARE(ApplicationManifest::find(m_root), QStringList{manifest});
}

void TestApplicationManifest::theOrderIsTheSortedOne()
{
    const QString second = write("b/manifest.csv", "");
    const QString third = write("c/manifest.csv", "");
    const QString first = write("a/z/manifest.csv", "");

    QCOMPARE(ApplicationManifest::find(m_root), (QStringList{first, second, third}));
}

void TestApplicationManifest::linksOutOfTheFolderAreNotFollowed()
{
    const QString outside = write("../elsewhere/manifest.csv", "target;ru");
    const QString inside = write("app/manifest.csv", "target;ru");
    QVERIFY(QFile::link(m_dir->path() + "/elsewhere", m_root + "/linkedfolder"));
    QVERIFY(QDir().mkpath(m_root + "/linkedfile"));
    QVERIFY(QFile::link(outside, m_root + "/linkedfile/manifest.csv"));
    QVERIFY(QDir().mkpath(m_root + "/loop"));
    QVERIFY(QFile::link(m_root, m_root + "/loop/again"));

    QCOMPARE(ApplicationManifest::find(m_root), QStringList{inside});
}

void TestApplicationManifest::aMissingRootHasNoManifests()
{
    QCOMPARE(ApplicationManifest::find(m_root + "/missing"), QStringList());
    QCOMPARE(ApplicationManifest::find(QString()), QStringList());
}

void TestApplicationManifest::targetAndTypeDecide_data()
{
    QTest::addColumn<Entries>("entries");
    QTest::addColumn<bool>("forRemoteUnits");
    QTest::addColumn<bool>("userApplication");

    QTest::newRow("user application") << Entries{{"target", "ru"}, {"type", "user"}} << true << true;
    QTest::newRow("system application") << Entries{{"target", "ru"}, {"type", "system"}} << true << false;
    QTest::newRow("no type") << Entries{{"target", "ru"}} << true << false;
    QTest::newRow("for the base unit") << Entries{{"target", "bu"}, {"type", "user"}} << false << false;
    QTest::newRow("letter case counts") << Entries{{"target", "RU"}, {"type", "user"}} << false << false;
    QTest::newRow("nothing") << Entries{} << false << false;
}

void TestApplicationManifest::targetAndTypeDecide()
{
    QFETCH(Entries, entries);
    QFETCH(bool, forRemoteUnits);
    QFETCH(bool, userApplication);

    QCOMPARE(ApplicationManifest::isForRemoteUnits(entries), forRemoteUnits);
    QCOMPARE(ApplicationManifest::isRemoteUnitUserApplication(entries), userApplication);
}

void TestApplicationManifest::userApplicationsAreNamedByTheirFolder()
{
    write("a/manifest.csv", "target;ru\ntype;system");
    write("b/app/manifest.csv", "target;ru\ntype;user");
    write("c/manifest.csv", "target;bu\ntype;user");

    QCOMPARE(ApplicationManifest::remoteUnitUserApplications(m_root), QStringList{m_root + "/b/app"});
}

void TestApplicationManifest::theDefaultRootIsAboveTheExecutablesFolder()
{
    ApplicationManifest::setRoot(m_root + "/x/../y/");
    QCOMPARE(ApplicationManifest::root(), m_root + "/y");

    ApplicationManifest::setRoot(QString());
    QCOMPARE(ApplicationManifest::root(), QFileInfo(QCoreApplication::applicationDirPath()).path());
}

QTEST_GUILESS_MAIN(TestApplicationManifest)
#include "tst_applicationmanifest.moc"
