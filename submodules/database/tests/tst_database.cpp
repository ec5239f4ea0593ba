#include "database.h"
#include "logspy.h"

#include <QPointer>
#include <QSignalSpy>
#include <QtTest>

class TestDatabase : public QObject
{
    Q_OBJECT

private slots:
    void recordsKeepNamedTexts();
    void enumerationHasItsNumbers();
    void recordsKeepTheirOrder();
    void recordsWithoutNameAreRefused();
    void secondRecordOfANameIsRefused();
    void duplicatesAreKeptWhereAllowed();
    void unknownNamesGiveNothing();
    void indexesOutsideAreReported_data();
    void indexesOutsideAreReported();
    void clearForgetsAndDeletes();
};

namespace {

class PermissiveDatabase : public Database
{
public:
    PermissiveDatabase() { m_allowDuplicates = true; }
};

} // namespace

void TestDatabase::recordsKeepNamedTexts()
{
    Data record("pump", nullptr);
    QCOMPARE(record.getTag(), QString("pump"));
    QCOMPARE(record.getField("maker"), QString());
    record.insertField("maker", "first");
    record.insertField("maker", "second");
    QCOMPARE(record.getField("maker"), QString("second"));
    QCOMPARE(record.getField("Maker"), QString());
}

void TestDatabase::enumerationHasItsNumbers()
{
    QCOMPARE(int(Database::DATA), 0);
    QCOMPARE(int(Database::APPCONFIG), 1);
    QCOMPARE(int(Database::USER), 2);
    QCOMPARE(int(Database::TAG), 3);
    QCOMPARE(int(Database::NOTIFICATION), 4);
}

void TestDatabase::recordsKeepTheirOrder()
{
    Database database(nullptr);
    QSignalSpy updates(&database, &Database::databaseUpdated);
    auto* b = new Data("b", &database);
    auto* a = new Data("a", &database);
    database.append(b);
    database.append(a);
    QCOMPARE(updates.count(), 2);
    QCOMPARE(database.size(), 2);
    QCOMPARE(database.at(0), b);
    QCOMPARE(database.at(1), a);
    QCOMPARE(database.get("a"), a);
    QCOMPARE(database.getAll(), (QVector<Data*>{b, a}));
}

void TestDatabase::recordsWithoutNameAreRefused()
{
    Database database(nullptr);
    const QSignalSpy updates(&database, &Database::databaseUpdated);
    const LogSpy log;
    Data nameless("", nullptr);
    database.append(&nameless);
    QCOMPARE(log.lines(QtWarningMsg), QStringList{"Database append error, empty tag"});
    QCOMPARE(database.size(), 0);
    QCOMPARE(updates.count(), 0);
}

void TestDatabase::secondRecordOfANameIsRefused()
{
    Database database(nullptr);
    auto* first = new Data("pump", &database);
    auto* second = new Data("pump", &database);
    database.append(first);
    const QSignalSpy updates(&database, &Database::databaseUpdated);
    const LogSpy log;
    database.append(second);
    QCOMPARE(log.lines(QtWarningMsg), QStringList{"Database tag \"pump\" exists, not appended"});
    QCOMPARE(database.size(), 1);
    QCOMPARE(database.get("pump"), first);
    QCOMPARE(updates.count(), 0);
    QCOMPARE(second->parent(), &database);
}

void TestDatabase::duplicatesAreKeptWhereAllowed()
{
    PermissiveDatabase database;
    auto* first = new Data("pump", &database);
    database.append(first);
    database.append(new Data("pump", &database));
    QCOMPARE(database.size(), 2);
    QCOMPARE(database.get("pump"), first);
}

void TestDatabase::unknownNamesGiveNothing()
{
    Database database(nullptr);
    database.append(new Data("pump", &database));
    QVERIFY(database.get("Pump") == nullptr);
    QVERIFY(database.get("") == nullptr);
}

void TestDatabase::indexesOutsideAreReported_data()
{
    QTest::addColumn<int>("index");
    QTest::addColumn<QString>("warning");
    QTest::newRow("just past the end") << 1 << "Database index is out of range, index = 1  size = 1";
    QTest::newRow("far past the end") << 700 << "Database index is out of range, index = 700  size = 1";
    QTest::newRow("negative") << -1 << "Database index is out of range, index = -1  size = 1";
}

void TestDatabase::indexesOutsideAreReported()
{
    QFETCH(int, index);
    QFETCH(QString, warning);
    Database database(nullptr);
    database.append(new Data("pump", &database));
    const LogSpy log;
    QVERIFY(database.at(index) == nullptr);
    QCOMPARE(log.lines(QtWarningMsg), QStringList{warning});
}

void TestDatabase::clearForgetsAndDeletes()
{
    Database database(nullptr);
    auto* const made = new Data("pump", &database);
    const QPointer<Data> record(made);
    database.append(made);
    const QSignalSpy updates(&database, &Database::databaseUpdated);
    database.clear();
    QCOMPARE(updates.count(), 1);
    QCOMPARE(database.size(), 0);
    QVERIFY(database.get("pump") == nullptr);
    QVERIFY(!record.isNull());
    QTRY_VERIFY(record.isNull());
}

QTEST_GUILESS_MAIN(TestDatabase)
#include "tst_database.moc"
