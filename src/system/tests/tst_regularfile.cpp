#include "regularfile.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

#include <cstring>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

class TestRegularFile : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void readsWhatTheFileHolds();
    void followsALink();
    void refusesWhatIsNoRegularFile_data();
    void refusesWhatIsNoRegularFile();
    void tellsWhyAFileCannotBeOpened();
    void childrenDoNotInheritTheDescriptor();

private:
    void write(const QString& name, const QByteArray& content)
    {
        QFile file(path(name));
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(file.write(content), qint64(content.size()));
    }
    QString path(const QString& name) const { return m_folder->filePath(name); }
    void makeSocket(const QString& name);

    QScopedPointer<QTemporaryDir> m_folder;
    int m_socket = -1;
};

void TestRegularFile::init()
{
    m_folder.reset(new QTemporaryDir);
}

void TestRegularFile::makeSocket(const QString& name)
{
    const QByteArray place = QFile::encodeName(path(name));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    QVERIFY(size_t(place.size()) < sizeof(address.sun_path));
    std::memcpy(address.sun_path, place.constData(), size_t(place.size()));
    m_socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
    QCOMPARE(::bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
}

void TestRegularFile::readsWhatTheFileHolds()
{
    write("x", QByteArray("a\0b\n", 4));
    QFile file;
    QString error("untouched");

    QVERIFY(openRegularFile(path("x"), file, error) == FileOpening::Opened);

    QCOMPARE(error, QString("untouched"));
    QCOMPARE(file.size(), 4LL);
    QCOMPARE(file.readAll(), QByteArray("a\0b\n", 4));
    QVERIFY(file.atEnd());
}

void TestRegularFile::followsALink()
{
    write("x", "abc");
    QVERIFY(QFile::link(path("x"), path("link")));
    QFile file;
    QString error;

    QVERIFY(openRegularFile(path("link"), file, error) == FileOpening::Opened);

    QCOMPARE(file.readAll(), QByteArray("abc"));
}

void TestRegularFile::refusesWhatIsNoRegularFile_data()
{
    QTest::addColumn<QString>("kind");

    QTest::newRow("pipe without a writer") << "pipe";
    QTest::newRow("link to a pipe") << "link";
    QTest::newRow("folder") << "folder";
    QTest::newRow("endless device") << "/dev/zero";
    QTest::newRow("terminal") << "/dev/ptmx";
    QTest::newRow("socket") << "socket";
}

void TestRegularFile::refusesWhatIsNoRegularFile()
{
    QFETCH(QString, kind);
    QVERIFY(::mkfifo(QFile::encodeName(path("pipe")).constData(), 0600) == 0);
    QVERIFY(QFile::link(path("pipe"), path("link")));
    QVERIFY(QDir(m_folder->path()).mkdir("folder"));
    makeSocket("socket");
    QFile file;
    QString error;

    QVERIFY(openRegularFile(kind.startsWith('/') ? kind : path(kind), file, error) == FileOpening::NotRegular);

    QCOMPARE(error, QString("Not a regular file"));
    QVERIFY(!file.isOpen());
    ::close(m_socket);
}

void TestRegularFile::tellsWhyAFileCannotBeOpened()
{
    QFile file;
    QString error;

    QVERIFY(openRegularFile(path("absent"), file, error) == FileOpening::Failed);

    QCOMPARE(error, QString("No such file or directory"));
    QVERIFY(!file.isOpen());
}

void TestRegularFile::childrenDoNotInheritTheDescriptor()
{
    write("x", "abc");
    QFile file;
    QString error;
    QVERIFY(openRegularFile(path("x"), file, error) == FileOpening::Opened);

    QVERIFY((::fcntl(file.handle(), F_GETFD) & FD_CLOEXEC) != 0);
}

QTEST_GUILESS_MAIN(TestRegularFile)
#include "tst_regularfile.moc"
