#include "temporaryarchive.h"

#include <QTemporaryDir>
#include <QtTest>

class TestTemporaryArchive : public QObject
{
    Q_OBJECT

private slots:
    void goesWithTheObject();
    void staysWhenNeverOpened();
    void leavesAFileThatTookItsPlace();
    void toleratesThatItIsGoneAlready();
    void takesItsRecordWithIt();
    void leavesTheRecordOfAFileThatTookItsPlace();

private:
    void write(const QByteArray& content)
    {
        QFile file(m_path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(content);
    }

    /// As after the making of the archive.
    void record()
    {
        QVERIFY(m_records.begin(m_folder.filePath(QStringLiteral("app"))));
        QVERIFY(m_records.settle(m_folder.filePath(QStringLiteral("app"))));
        QCOMPARE(*m_records.archives(), QStringList{m_folder.filePath(QStringLiteral("app"))});
    }

    QTemporaryDir m_folder;
    const QString m_path = m_folder.filePath(QStringLiteral("app.tar"));
    const PairingRecords m_records{m_folder.filePath(QStringLiteral("remotes.csv"))};
};

void TestTemporaryArchive::goesWithTheObject()
{
    write("archive");
    {
        TemporaryArchive archive(m_path, m_records);
        QVERIFY(archive.open(QIODevice::ReadOnly));
        QCOMPARE(archive.readAll(), QByteArray("archive"));
        QVERIFY(QFile::exists(m_path));
    }
    QVERIFY(!QFile::exists(m_path));
}

void TestTemporaryArchive::staysWhenNeverOpened()
{
    write("archive");
    {
        const TemporaryArchive archive(m_path, m_records);
    }
    QVERIFY(QFile::exists(m_path));
}

void TestTemporaryArchive::leavesAFileThatTookItsPlace()
{
    write("first");
    {
        TemporaryArchive archive(m_path, m_records);
        QVERIFY(archive.open(QIODevice::ReadOnly));
        QVERIFY(QFile::remove(m_path));
        write("second");
        QCOMPARE(archive.readAll(), QByteArray("first"));
    }
    QVERIFY(QFile::exists(m_path));
}

void TestTemporaryArchive::toleratesThatItIsGoneAlready()
{
    write("archive");
    {
        TemporaryArchive archive(m_path, m_records);
        QVERIFY(archive.open(QIODevice::ReadOnly));
        QVERIFY(QFile::remove(m_path));
    }
    QVERIFY(!QFile::exists(m_path));
}

void TestTemporaryArchive::takesItsRecordWithIt()
{
    write("archive");
    record();
    {
        TemporaryArchive archive(m_path, m_records);
        QVERIFY(archive.open(QIODevice::ReadOnly));
    }
    QCOMPARE(*m_records.archives(), QStringList());
    QVERIFY(!QFile::exists(m_records.folder()));
}

void TestTemporaryArchive::leavesTheRecordOfAFileThatTookItsPlace()
{
    write("first");
    record();
    {
        TemporaryArchive archive(m_path, m_records);
        QVERIFY(archive.open(QIODevice::ReadOnly));
        QVERIFY(QFile::remove(m_path));
        write("second");
    }
    QCOMPARE(m_records.archives()->size(), 1);
}

QTEST_APPLESS_MAIN(TestTemporaryArchive)
#include "tst_temporaryarchive.moc"
