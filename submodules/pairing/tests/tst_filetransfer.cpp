#include "filetransfer.h"

#include "logspy.h"
#include "patience.h"

#include <QSignalSpy>
#include <QTcpServer>
#include <QTemporaryFile>
#include <QtTest>

namespace {

using namespace std::chrono_literals;

constexpr auto NeverStalls = 60s;
/// Twice of what the kernel holds at most for a receiver that takes nothing.
constexpr int LargeSize = 8 * 1024 * 1024;

/// A connection that notes how the bytes are handed to it.
class NotingSocket : public QTcpSocket
{
public:
    using QTcpSocket::QTcpSocket;

    int writes = 0;
    qint64 largestWrite = 0;

protected:
    qint64 writeData(const char* data, qint64 size) override
    {
        ++writes;
        largestWrite = std::max(largestWrite, size);
        return QTcpSocket::writeData(data, size);
    }
};

/// Accepts connections as NotingSockets.
class NotingServer : public QTcpServer
{
protected:
    void incomingConnection(qintptr descriptor) override
    {
        auto* socket = new NotingSocket(this);
        socket->setSocketDescriptor(descriptor);
        addPendingConnection(socket);
    }
};

QByteArray pattern(int size)
{
    QByteArray bytes;
    bytes.reserve(size);
    for (int i = 0; i < size; ++i) {
        bytes.append(char(i * 7 + i / 251));
    }
    return bytes;
}

} // namespace

class TestFileTransfer : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void sendsTheWholeFileAndCloses_data();
    void sendsTheWholeFileAndCloses();
    void stalledReceiverCostsNoMemoryAndLaterGetsEverything();
    void stallLimitEndsTheTransfer();
    void slowReceiverIsNotStalled();
    void receiverThatVanishesEndsTheTransfer();
    void connectionThatIsGoneEndsTheTransferAtOnce();
    void fileThatCannotBeReadEndsTheTransfer();
    void whatTheReceiverSendsIsThrownAway();
    void fileIsGoneWhenFinishedIsEmitted();

private:
    FileTransfer* newTransfer(std::chrono::milliseconds stallLimit);

    std::unique_ptr<LogSpy> m_log;
    std::unique_ptr<NotingServer> m_server;
    std::unique_ptr<QTcpSocket> m_receiver;
    std::unique_ptr<QFile> m_file;
    NotingSocket* m_sender = nullptr;
    std::unique_ptr<QObject> m_owner;
};

void TestFileTransfer::init()
{
    m_log = std::make_unique<LogSpy>();
    m_owner = std::make_unique<QObject>();
    m_server = std::make_unique<NotingServer>();
    QVERIFY(m_server->listen(QHostAddress::LocalHost));
    m_receiver = std::make_unique<QTcpSocket>();
    m_receiver->connectToHost(QHostAddress::LocalHost, m_server->serverPort());
    QTRY_VERIFY(m_server->hasPendingConnections());
    m_sender = static_cast<NotingSocket*>(m_server->nextPendingConnection());
    QTRY_COMPARE(m_receiver->state(), QAbstractSocket::ConnectedState);
    m_receiver->setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, 64 * 1024);
    auto file = std::make_unique<QTemporaryFile>();
    QVERIFY(file->open());
    m_file = std::move(file);
}

void TestFileTransfer::cleanup()
{
    m_owner.reset();
    m_receiver.reset();
    m_server.reset();
    m_file.reset();
    m_log.reset();
}

/// A transfer of what stands in `m_file`, to `m_receiver`.
FileTransfer* TestFileTransfer::newTransfer(std::chrono::milliseconds stallLimit)
{
    m_file->flush();
    m_file->seek(0);
    return new FileTransfer(std::move(m_file), m_sender, stallLimit, m_owner.get());
}

void TestFileTransfer::sendsTheWholeFileAndCloses_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("chunks");

    QTest::newRow("nothing") << 0 << 0;
    QTest::newRow("one byte") << 1 << 1;
    QTest::newRow("one chunk") << 1024 << 1;
    QTest::newRow("one byte more than a chunk") << 1025 << 2;
    QTest::newRow("more than may wait in the process") << 1000000 << 977;
}

void TestFileTransfer::sendsTheWholeFileAndCloses()
{
    QFETCH(int, size);
    QFETCH(int, chunks);
    m_file->write(pattern(size));
    FileTransfer* transfer = newTransfer(NeverStalls);
    QSignalSpy finished(transfer, &FileTransfer::finished);
    QSignalSpy closed(m_receiver.get(), &QTcpSocket::disconnected);

    transfer->start();

    QTRY_COMPARE(finished.size(), 1);
    QCOMPARE(finished.first().first().toBool(), true);
    QTRY_COMPARE(closed.size(), 1);
    QCOMPARE(m_receiver->readAll(), pattern(size));
    QCOMPARE(m_sender->writes, chunks);
    QVERIFY(m_sender->largestWrite <= 1024);
    QStringList lines{QStringLiteral("Sending application...")};
    if (size > 0) {
        lines << QStringLiteral("Sending first chunc of data");
    }
    QCOMPARE(m_log->lines(), lines << QStringLiteral("Application sent"));
}

void TestFileTransfer::stalledReceiverCostsNoMemoryAndLaterGetsEverything()
{
    m_file->write(QByteArray(LargeSize, 'x'));
    m_receiver->setReadBufferSize(1);
    FileTransfer* transfer = newTransfer(NeverStalls);
    QSignalSpy finished(transfer, &FileTransfer::finished);

    transfer->start();
    qint64 mostPending = 0;
    int writesBefore = -1;
    while (writesBefore != m_sender->writes) {
        writesBefore = m_sender->writes;
        QTest::qWait(100); // a transfer that can go on would have gone on
        mostPending = std::max(mostPending, m_sender->bytesToWrite());
    }
    QVERIFY(m_sender->writes < LargeSize / 1024);
    QVERIFY2(mostPending <= 65 * 1024, qPrintable(QString::number(mostPending)));
    QVERIFY(finished.isEmpty());

    m_receiver->setReadBufferSize(0);
    qint64 received = 0;
    while (received < LargeSize) {
        received += m_receiver->readAll().size();
        if (received < LargeSize) {
            QVERIFY(m_receiver->waitForReadyRead(10) || !m_receiver->bytesAvailable());
            QCoreApplication::processEvents();
        }
    }
    QTRY_COMPARE(finished.size(), 1);
    QCOMPARE(finished.first().first().toBool(), true);
}

void TestFileTransfer::stallLimitEndsTheTransfer()
{
    m_file->write(QByteArray(LargeSize, 'x'));
    const QString name = m_file->fileName();
    m_receiver->setReadBufferSize(1);
    FileTransfer* transfer = newTransfer(100ms);
    QSignalSpy finished(transfer, &FileTransfer::finished);

    transfer->start();

    QTRY_COMPARE(finished.size(), 1);
    QCOMPARE(finished.first().first().toBool(), false);
    QCOMPARE(m_log->lines(QtWarningMsg),
             QStringList{QStringLiteral("pairserver: The receiver stopped taking \"%1\"").arg(name)});
    QVERIFY(!m_log->contains(QStringLiteral("Application sent")));
    QCOMPARE(m_sender->state(), QAbstractSocket::UnconnectedState);
}

void TestFileTransfer::slowReceiverIsNotStalled()
{
    m_file->write(QByteArray(LargeSize, 'x'));
    m_receiver->setReadBufferSize(256 * 1024);
    FileTransfer* transfer = newTransfer(NeverStalls);
    QSignalSpy finished(transfer, &FileTransfer::finished);
    // The limit begins anew with all that the receiver takes, however long they have been at it.
    auto* const limit = transfer->findChild<QTimer*>();
    int takings = 0;
    int beginnings = 0;
    connect(m_sender, &QTcpSocket::bytesWritten, this, [&] {
        ++takings;
        beginnings += limit->isActive() ? 1 : 0;
        limit->stop();
    });

    transfer->start();
    qint64 received = 0;
    while (received < LargeSize && finished.isEmpty()) {
        QTest::qWait(15);
        received += m_receiver->read(256 * 1024).size();
    }

    QTRY_COMPARE(finished.size(), 1);
    QCOMPARE(finished.first().first().toBool(), true);
    QVERIFY(takings > 10);
    QCOMPARE(beginnings, takings - 1); // the last was the end
}

void TestFileTransfer::receiverThatVanishesEndsTheTransfer()
{
    m_file->write(QByteArray(LargeSize, 'x'));
    const QString name = m_file->fileName();
    FileTransfer* transfer = newTransfer(NeverStalls);
    QSignalSpy finished(transfer, &FileTransfer::finished);

    transfer->start();
    QTRY_VERIFY(m_receiver->bytesAvailable() > 0);
    m_receiver->abort();

    QTRY_COMPARE(finished.size(), 1);
    QCOMPARE(finished.first().first().toBool(), false);
    QCOMPARE(m_log->lines(QtWarningMsg),
             QStringList{QStringLiteral("pairserver: The receiver left before it had all of \"%1\"").arg(name)});
}

void TestFileTransfer::connectionThatIsGoneEndsTheTransferAtOnce()
{
    m_file->write("something");
    m_sender->abort();
    FileTransfer* transfer = newTransfer(NeverStalls);
    QSignalSpy finished(transfer, &FileTransfer::finished);

    transfer->start();

    QCOMPARE(finished.size(), 1);
    QCOMPARE(finished.first().first().toBool(), false);
}

void TestFileTransfer::fileThatCannotBeReadEndsTheTransfer()
{
    class BrokenFile : public QTemporaryFile
    {
        qint64 readData(char*, qint64) override { return -1; }
    };
    auto broken = std::make_unique<BrokenFile>();
    QVERIFY(broken->open());
    broken->write("something");
    m_file = std::move(broken);
    FileTransfer* transfer = newTransfer(NeverStalls);
    QSignalSpy finished(transfer, &FileTransfer::finished);

    transfer->start();

    QCOMPARE(finished.size(), 1);
    QCOMPARE(finished.first().first().toBool(), false);
    QCOMPARE(m_log->lines(QtWarningMsg).size(), 1);
}

void TestFileTransfer::whatTheReceiverSendsIsThrownAway()
{
    FileTransfer::discardReceived(m_sender);
    m_receiver->write(QByteArray(5000000, 'x'));

    QTRY_COMPARE(m_receiver->bytesToWrite(), 0);
    QTRY_COMPARE(m_sender->bytesAvailable(), 0);
    QSignalSpy left(m_sender, &QTcpSocket::disconnected);
    m_receiver->disconnectFromHost();
    QVERIFY(left.wait());
}

void TestFileTransfer::fileIsGoneWhenFinishedIsEmitted()
{
    m_file->write("something");
    const QString name = m_file->fileName();
    FileTransfer* transfer = newTransfer(NeverStalls);
    bool existed = true;
    connect(transfer, &FileTransfer::finished, [&existed, name] { existed = QFile::exists(name); });

    transfer->start();

    QTRY_VERIFY(!existed); // a QTemporaryFile removes its file when it goes
}

QTEST_GUILESS_MAIN(TestFileTransfer)
#include "tst_filetransfer.moc"
