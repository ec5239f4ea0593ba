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

private:
    void write(const QByteArray& content)
    {
        QFile file(m_path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(content);
    }

    QTemporaryDir m_folder;
    const QString m_path = m_folder.filePath(QStringLiteral("app.tar"));
};

void TestTemporaryArchive::goesWithTheObject()
{
    write("archive");
    {
        TemporaryArchive archive(m_path);
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
        const TemporaryArchive archive(m_path);
    }
    QVERIFY(QFile::exists(m_path));
}

void TestTemporaryArchive::leavesAFileThatTookItsPlace()
{
    write("first");
    {
        TemporaryArchive archive(m_path);
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
        TemporaryArchive archive(m_path);
        QVERIFY(archive.open(QIODevice::ReadOnly));
        QVERIFY(QFile::remove(m_path));
    }
    QVERIFY(!QFile::exists(m_path));
}

QTEST_APPLESS_MAIN(TestTemporaryArchive)
#include "tst_temporaryarchive.moc"
