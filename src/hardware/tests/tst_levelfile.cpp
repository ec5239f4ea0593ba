#include "levelfile.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <fcntl.h>
#include <unistd.h>

class TestLevelFile : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void theSafeLevelWaitsForNoOpening();
    void anotherLevelIsOnlyWrittenToWhatIsThere();
    void withoutAKeptDescriptorNothingIsWrittenBeforehand();

private:
    QString path(const char* name) const { return m_folder->filePath(QString::fromLatin1(name)); }
    QByteArray read(const char* name) const;
    std::unique_ptr<LevelFile> makeDrive() const;

    std::unique_ptr<QTemporaryDir> m_folder;
};

/// The line's file also goes by a second name, under which it can be read when the first has gone.
void TestLevelFile::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    QFile file(path("value"));
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write("1") == 1);
    file.close();
    QCOMPARE(link(path("value").toLocal8Bit(), path("line").toLocal8Bit()), 0);
}

QByteArray TestLevelFile::read(const char* name) const
{
    QFile file(path(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("nothing");
}

std::unique_ptr<LevelFile> TestLevelFile::makeDrive() const
{
    return std::make_unique<LevelFile>(path("value").toLocal8Bit(), O_WRONLY);
}

void TestLevelFile::theSafeLevelWaitsForNoOpening()
{
    const std::unique_ptr<LevelFile> drive = makeDrive();
    drive->keep();
    QVERIFY(QFile::remove(path("value")));
    QVERIFY(drive->write('0') == LevelFile::Outcome::NotOpened);
    QCOMPARE(read("line"), QByteArray("0"));
}

void TestLevelFile::anotherLevelIsOnlyWrittenToWhatIsThere()
{
    const std::unique_ptr<LevelFile> drive = makeDrive();
    drive->keep();
    QVERIFY(drive->write('0') == LevelFile::Outcome::Done);
    QVERIFY(QFile::remove(path("value")));
    QVERIFY(drive->write('1') == LevelFile::Outcome::NotOpened);
    QCOMPARE(read("line"), QByteArray("0"));
}

void TestLevelFile::withoutAKeptDescriptorNothingIsWrittenBeforehand()
{
    const std::unique_ptr<LevelFile> drive = makeDrive();
    QVERIFY(QFile::remove(path("value")));
    QVERIFY(drive->write('0') == LevelFile::Outcome::NotOpened);
    QCOMPARE(read("line"), QByteArray("1"));
}

QTEST_APPLESS_MAIN(TestLevelFile)

#include "tst_levelfile.moc"
