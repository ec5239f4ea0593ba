#include "applications.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

class TestApplications : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void listsApplicationsForRemoteUnits();
    void manifestLinesOfOtherThanTwoPartsAreIgnored();
    void linksAreNotFollowedOutOfTheFolder();
    void unreadableManifestsAreSkipped();
    void missingFolderHasNoApplications();
    void typeOfAnApplication_data();
    void typeOfAnApplication();
    void pathsThatAreHandedOut_data();
    void pathsThatAreHandedOut();
    void linksThatLeadOutsideAreRefused();
    void everythingIsRefusedWithoutAnApplicationsFolder();

private:
    QString path(const QString& name) const { return m_folder->path() + QLatin1Char('/') + name; }
    QString root() const { return path(QStringLiteral("Applications")); }
    QString own() const { return root() + QStringLiteral("/tessaroserver"); }
    void writeManifest(const QString& folder, const QByteArray& content)
    {
        QVERIFY(QDir().mkpath(path(folder)));
        QFile file(path(folder) + QStringLiteral("/manifest.csv"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(content);
    }

    std::unique_ptr<QTemporaryDir> m_folder;
};

void TestApplications::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    writeManifest(QStringLiteral("Applications/ruapp"), "name;Crane panel\ntarget;ru\ntype;user\n");
    writeManifest(QStringLiteral("Applications/nested/deep/rusys"), "target;ru\ntype;system\n");
    writeManifest(QStringLiteral("Applications/tessaroserver"), "target;bu\ntype;system\n");
    writeManifest(QStringLiteral("outside/foreign"), "target;ru\ntype;user\n");
    QVERIFY(QDir().mkpath(path(QStringLiteral("Applications/plain"))));
}

void TestApplications::listsApplicationsForRemoteUnits()
{
    const ApplicationList list = listApplications(root());

    QCOMPARE(list.manifests,
             (QVector<QString>{root() + "/nested/deep/rusys/manifest.csv", root() + "/ruapp/manifest.csv",
                               root() + "/tessaroserver/manifest.csv"}));
    const ApplicationList::Record system{
        {"target", "ru"}, {"type", "system"}, {"pairAppPath", root() + "/nested/deep/rusys"}};
    const ApplicationList::Record user{
        {"name", "Crane panel"}, {"target", "ru"}, {"type", "user"}, {"pairAppPath", root() + "/ruapp"}};
    QCOMPARE(list.records, (QVector<ApplicationList::Record>{system, user}));
}

void TestApplications::manifestLinesOfOtherThanTwoPartsAreIgnored()
{
    writeManifest(QStringLiteral("Applications/ruapp"),
                  "\nheading\n  target ;  ru \ntype;user;extra\nname; Crane   panel\npairAppPath;/etc\n");

    const ApplicationList list = listApplications(root());

    const ApplicationList::Record expected{
        {"target", "ru"}, {"name", "Crane panel"}, {"pairAppPath", root() + "/ruapp"}};
    QCOMPARE(list.records.last(), expected);
}

void TestApplications::linksAreNotFollowedOutOfTheFolder()
{
    QVERIFY(QFile::link(path("outside/foreign"), root() + "/linked"));
    QVERIFY(QFile::link(path("outside/foreign/manifest.csv"), root() + "/plain/manifest.csv"));

    QCOMPARE(listApplications(root()).records.size(), 2);
}

void TestApplications::unreadableManifestsAreSkipped()
{
    QVERIFY(QDir().mkpath(root() + "/broken/manifest.csv"));
    QVERIFY(QFile::link(root() + "/nowhere", root() + "/plain/manifest.csv"));

    QCOMPARE(listApplications(root()).records.size(), 2);
}

void TestApplications::missingFolderHasNoApplications()
{
    const ApplicationList list = listApplications(path("missing"));

    QVERIFY(list.manifests.isEmpty());
    QVERIFY(list.records.isEmpty());
}

void TestApplications::typeOfAnApplication_data()
{
    QTest::addColumn<QString>("folder");
    QTest::addColumn<QString>("type");
    QTest::addColumn<bool>("isUser");
    QTest::addColumn<bool>("isSystem");

    QTest::newRow("user") << "Applications/ruapp"
                          << "user" << true << false;
    QTest::newRow("system") << "Applications/nested/deep/rusys"
                            << "system" << false << true;
    QTest::newRow("no manifest") << "Applications/plain"
                                 << "" << false << false;
    QTest::newRow("no folder") << "Applications/missing"
                               << "" << false << false;
}

void TestApplications::typeOfAnApplication()
{
    QFETCH(QString, folder);

    QTEST(getAppType(path(folder)), "type");
    QTEST(isUserApp(path(folder)), "isUser");
    QTEST(isSystemApp(path(folder)), "isSystem");
}

void TestApplications::pathsThatAreHandedOut_data()
{
    QTest::addColumn<QString>("below"); // what follows the temporary folder's path
    QTest::addColumn<QString>("reason");

    const QString unclean = QStringLiteral("not a clean absolute path");
    const QString noFolder = QStringLiteral("not a folder");
    const QString outside = QStringLiteral("outside the applications folder");
    const QString otherTarget = QStringLiteral("not an application for remote units");
    const QString own = QStringLiteral("the server's own folder");

    QTest::newRow("an application") << "/Applications/ruapp"
                                    << "";
    QTest::newRow("an application further down") << "/Applications/nested/deep/rusys"
                                                 << "";
    QTest::newRow("trailing slash") << "/Applications/ruapp/" << unclean;
    QTest::newRow("parent at the end") << "/Applications/ruapp/.." << unclean;
    QTest::newRow("parent inside") << "/Applications/plain/../ruapp" << unclean;
    QTest::newRow("leading out by a parent") << "/Applications/../outside/foreign" << unclean;
    QTest::newRow("doubled slash") << "/Applications//ruapp" << unclean;
    QTest::newRow("dot") << "/Applications/./ruapp" << unclean;
    QTest::newRow("does not exist") << "/Applications/missing" << noFolder;
    QTest::newRow("a file") << "/Applications/ruapp/manifest.csv" << noFolder;
    QTest::newRow("outside") << "/outside/foreign" << outside;
    QTest::newRow("a folder that only begins like the applications folder") << "/Applications2/ruapp" << outside;
    QTest::newRow("the applications folder itself") << "/Applications" << outside;
    QTest::newRow("an application that names no target") << "/Applications/untargeted"
                                                         << "";
    QTest::newRow("an application for another target") << "/Applications/panel" << otherTarget;
    QTest::newRow("the server's own folder") << "/Applications/tessaroserver" << own;
    QTest::newRow("a folder in the server's own") << "/Applications/tessaroserver/config" << own;
    QTest::newRow("a folder that only begins like the server's own") << "/Applications/tessaroserver2"
                                                                     << "";
    QTest::newRow("a folder without manifest") << "/Applications/plain" << otherTarget;
    QTest::newRow("a name like an option of tar") << "/Applications/-cf"
                                                  << "a name that tar would misread";
    QTest::newRow("a name like a file on another host") << "/Applications/host:app"
                                                        << "a name that tar would misread";
}

void TestApplications::pathsThatAreHandedOut()
{
    QFETCH(QString, below);
    writeManifest(QStringLiteral("Applications"), "target;ru\n");
    writeManifest(QStringLiteral("Applications2/ruapp"), "target;ru\n");
    writeManifest(QStringLiteral("Applications/untargeted"), "type;system\n");
    writeManifest(QStringLiteral("Applications/panel"), "target;bu\ntype;system\n");
    writeManifest(QStringLiteral("Applications/tessaroserver"), "type;system\n");
    writeManifest(QStringLiteral("Applications/tessaroserver/config"), "type;system\n");
    writeManifest(QStringLiteral("Applications/tessaroserver2"), "type;system\n");
    writeManifest(QStringLiteral("Applications/-cf"), "target;ru\n");
    writeManifest(QStringLiteral("Applications/host:app"), "target;ru\n");

    QTEST(refusalReason(root(), own(), m_folder->path() + below), "reason");
}

void TestApplications::linksThatLeadOutsideAreRefused()
{
    QVERIFY(QFile::link(path("outside/foreign"), root() + "/linkedApp"));
    QVERIFY(QFile::link(path("outside"), root() + "/linkedFolder"));
    QVERIFY(QFile::link(root() + "/nested", path("outside/wayIn")));

    QCOMPARE(refusalReason(root(), own(), root() + "/linkedApp"), QStringLiteral("not a folder"));
    QCOMPARE(refusalReason(root(), own(), root() + "/linkedFolder/foreign"),
             QStringLiteral("outside the applications folder"));
    QCOMPARE(refusalReason(root(), own(), path("outside/wayIn/deep/rusys")), QString());
}

void TestApplications::everythingIsRefusedWithoutAnApplicationsFolder()
{
    QCOMPARE(refusalReason(path("missing"), own(), root() + "/ruapp"),
             QStringLiteral("outside the applications folder"));
    QCOMPARE(refusalReason(root(), own(), QString()), QStringLiteral("not a clean absolute path"));
    QCOMPARE(refusalReason(root(), own(), QStringLiteral("ruapp")), QStringLiteral("not a clean absolute path"));
}

QTEST_GUILESS_MAIN(TestApplications)
#include "tst_applications.moc"
