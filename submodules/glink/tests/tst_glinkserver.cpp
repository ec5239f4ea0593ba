#include "applicationmanifest.h"
#include "fatalprobe.h"
#include "glinkframes.h"
#include "glinkserver.h"
#include "heldline.h"
#include "logspy.h"
#include "rgpcom.h"
#include "tcppeer.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QSemaphore>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>
#include <QtTest>

#include <algorithm>
#include <atomic>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

constexpr int UnitId = 0x0203; // the unit of Frames::init()
constexpr int BabblerId = 99;
constexpr int InitId = 1;
constexpr int InitAckId = 2;
constexpr int PowerOffId = 6;
constexpr int Message = 0;
constexpr int Ack = 1;

/// Threads of connections.
int threadCount()
{
    int count = 0;
    const QStringList tasks = QDir("/proc/self/task").entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& task : tasks) {
        QFile name("/proc/self/task/" + task + "/comm");
        count += name.open(QIODevice::ReadOnly) && name.readAll() == "glink-tcp\n" ? 1 : 0;
    }
    return count;
}

int descriptorCount()
{
    return QDir("/proc/self/fd").entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size();
}

constexpr char DeviceLine[] = "Md5Checksum: Refused to read";

/// With a device in it: whoever hashes it says that he does not read that, with a line that can be held.
void installApplicationWithDevice(const QString& root)
{
    QDir(root).mkpath("app");
    QFile manifest(root + "/app/manifest.csv");
    if (!manifest.open(QIODevice::WriteOnly) || manifest.write("target;ru\ntype;user\n") < 0 ||
        !QFile::link("/dev/null", root + "/app/device")) {
        qFatal("cannot install the test's application");
    }
    ApplicationManifest::setRoot(root);
}

QByteArray introductionOf(quint16 unitId)
{
    GLinkInitMsg init;
    init.remoteId = unitId;
    QByteArray frame = init.serialize();
    GLinkHeader header;
    header.size = static_cast<quint16>(frame.size());
    header.stream = 1;
    header.msgId = GLINK_MSG_ID_INIT;
    frame.prepend(header.serialize());
    CrcStd32::add(frame);
    return frame;
}

/// A unit that introduces itself and then sends periodic data as fast as the socket takes it, and reads what comes
/// back, in a thread of its own.
class Babbler
{
public:
    explicit Babbler(quint16 port)
        : m_thread([this, port] { run(port); })
    {}
    ~Babbler()
    {
        m_isStopping = true;
        m_thread.join();
    }
    qint64 writtenBytes() const { return m_writtenBytes; }

private:
    void run(quint16 port)
    {
        const int peer = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(peer, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
            babble(peer);
        }
        ::close(peer);
    }

    void babble(int peer)
    {
        const QByteArray init = introductionOf(BabblerId);
        if (::send(peer, init.constData(), size_t(init.size()), MSG_NOSIGNAL) != init.size()) {
            return;
        }
        const QByteArray frames = Frames::periodicData().repeated(100);
        int offset = 0;
        char ignored[65536];
        while (!m_isStopping) {
            pollfd ready{peer, POLLIN | POLLOUT, 0};
            poll(&ready, 1, 10);
            if ((ready.revents & POLLIN) != 0 && recv(peer, ignored, sizeof(ignored), MSG_DONTWAIT) <= 0) {
                return;
            }
            if ((ready.revents & POLLOUT) != 0) {
                const ssize_t count = ::send(peer, frames.constData() + offset, size_t(frames.size() - offset),
                                             MSG_DONTWAIT | MSG_NOSIGNAL);
                offset = (offset + int(qMax<ssize_t>(count, 0))) % frames.size();
                m_writtenBytes += qMax<ssize_t>(count, 0);
            }
        }
    }

    std::atomic<bool> m_isStopping{false};
    std::atomic<qint64> m_writtenBytes{0};
    std::thread m_thread;
};

} // namespace

/// The server with the real hub, which knows no units and refuses every INIT with code 1: a refused unit stays
/// connected.
class TestGLinkServer : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void itListensAndSaysSo();
    void aPortThatIsTakenIsFatal();
    void anIntroducedUnitIsAnsweredByTheHub();
    void twoUnitsAreServedInTwoThreadsAndCloseApart();
    void everythingIsFreedWhenAConnectionEnds();
    void aThreadEndsOnlyWhenTheMainThreadHasHeardOfTheEnd();
    void aConnectionThatTheHubDropsIsFreedByTheServer();
    void aReconnectStormLeavesNothingBehind();
    void aSupersededConnectionDoesNotDetachItsSuccessor();
    void randomBytesOnAThousandConnectionsLeaveTheOthersServed();
    void aBabblingUnitDoesNotKeepTheOthersWaiting();
    void messagesDoNotPileUpWhileTheHubIsBusy();
    void oneConnectionTooManyIsClosedAtOnce();
    void acceptingGoesOnAfterDescriptorsRanOut();
    void shutdownEndsAllConnectionsInTime();
    void aTransportThatSomebodyElseDestroysTakesItsThreadAlong();
    void anApplicationIsHashedOnceAndDelaysNobody();

private:
    std::unique_ptr<TcpPeer> newPeer();
    bool isAnswered(TcpPeer& peer);
    bool receives(TcpPeer& peer, int count, int msgId, int msgType);

    QScopedPointer<LogSpy> m_log;
    QScopedPointer<RGPCom> m_hub;
    QScopedPointer<GLinkServer> m_server;
};

void TestGLinkServer::init()
{
    GLinkServer::setListenAddress(QHostAddress::LocalHost);
    ApplicationManifest::setRoot("/nonexistent");
    m_log.reset(new LogSpy);
    m_hub.reset(new RGPCom(nullptr, nullptr, nullptr));
    m_server.reset(new GLinkServer(m_hub.data(), 0, nullptr, nullptr, nullptr));
    m_server->startServer();
}

void TestGLinkServer::cleanup()
{
    m_server.reset();
    m_hub.reset();
    m_log.reset();
    GLinkServer::setListenAddress(QHostAddress());
    ApplicationManifest::setRoot(QString());
    ApplicationChecksums::setSettlingTime(std::chrono::seconds(2));
    // What a test has ordered must not keep the next one waiting.
    ApplicationChecksums::request(QString()).wait();
}

std::unique_ptr<TcpPeer> TestGLinkServer::newPeer()
{
    auto peer = std::make_unique<TcpPeer>();
    peer->connectTo(*m_server);
    return peer;
}

/// Waits for so many frames of that id and type.
bool TestGLinkServer::receives(TcpPeer& peer, int count, int msgId, int msgType)
{
    return waitUntil([&] { return peer.count(msgId, msgType) >= count; });
}

/// Sends a message and waits for its acknowledgement.
bool TestGLinkServer::isAnswered(TcpPeer& peer)
{
    const int before = peer.count(PowerOffId, Ack);
    peer.write(Frames::powerOff());
    return receives(peer, before + 1, PowerOffId, Ack);
}

void TestGLinkServer::itListensAndSaysSo()
{
    QVERIFY(m_server->isListening());
    QCOMPARE(m_log->lines(QtDebugMsg).last(),
             QString("GLinkServer listening to address  \"127.0.0.1\"  port  %1").arg(m_server->serverPort()));
}

void TestGLinkServer::aPortThatIsTakenIsFatal()
{
    const quint16 port = m_server->serverPort();
    const FatalOutcome outcome = outcomeOf([&] {
        GLinkServer second(m_hub.data(), port, nullptr, nullptr, nullptr);
        second.startServer();
    });

    QVERIFY(outcome.diedOfAbort);
    QVERIFY2(outcome.log.endsWith("Could not start GLinkServer\n"), qPrintable(outcome.log));
}

void TestGLinkServer::anIntroducedUnitIsAnsweredByTheHub()
{
    const auto peer = newPeer();

    peer->write(Frames::init());

    QVERIFY(receives(*peer, 1, InitId, Ack));
    QVERIFY(receives(*peer, 1, InitAckId, Message));
    QCOMPARE(peer->frames().at(1).mid(17, 42),
             QByteArray::fromHex("0100") + "This RU is not paired to this BU." + QByteArray(7, '\0'));
}

void TestGLinkServer::twoUnitsAreServedInTwoThreadsAndCloseApart()
{
    const auto first = newPeer();
    const auto second = newPeer();
    QVERIFY(isAnswered(*first));
    QVERIFY(isAnswered(*second));
    QCOMPARE(m_server->connectionCount(), 2);
    QCOMPARE(threadCount(), 2);

    first->write("garbage" + Frames::init());

    QTRY_VERIFY(!first->isConnected());
    QTRY_COMPARE(m_server->connectionCount(), 1);
    QTRY_COMPARE(threadCount(), 1);
    QVERIFY(isAnswered(*second));
}

void TestGLinkServer::everythingIsFreedWhenAConnectionEnds()
{
    auto peer = newPeer();
    QVERIFY(isAnswered(*peer));
    const auto transports = m_server->transports();
    QCOMPARE(transports.size(), 1);
    QVERIFY(transports.first());
    const auto other = newPeer();
    QVERIFY(isAnswered(*other));
    const int descriptors = descriptorCount();

    peer.reset();

    QTRY_COMPARE(m_server->connectionCount(), 1);
    QVERIFY(!transports.first());
    QTRY_COMPARE(threadCount(), 1);
    // Both ends of the connection, and what its event loop had.
    QTRY_VERIFY(descriptorCount() <= descriptors - 3);
}

// Until the hub knows that a connection is over it may post to it. A post to a thread that is just ending wakes an
// event dispatcher which that thread is deleting.
void TestGLinkServer::aThreadEndsOnlyWhenTheMainThreadHasHeardOfTheEnd()
{
    auto peer = newPeer();
    QVERIFY(isAnswered(*peer));
    GLinkTransportTcp* const transport = m_server->transports().first();
    QSemaphore over;
    const auto tell = [&over] {
        over.release();
    };
    QMetaObject::invokeMethod(
        transport, [=] { connect(transport, &GLinkTransportTcp::finished, transport, tell); }, Qt::QueuedConnection);
    QVERIFY(isAnswered(*peer));

    peer.reset();
    QVERIFY(over.tryAcquire(1, PatienceMs)); // in this thread nobody has looked at events meanwhile
    QSemaphore heard;
    QMetaObject::invokeMethod(
        transport, [&heard] { heard.release(); }, Qt::QueuedConnection);

    QVERIFY(heard.tryAcquire(1, PatienceMs));
    QTRY_COMPARE(m_server->connectionCount(), 0);
}

void TestGLinkServer::aConnectionThatTheHubDropsIsFreedByTheServer()
{
    const auto peer = newPeer();
    peer->write(Frames::init());
    QVERIFY(receives(*peer, 1, InitAckId, Message));
    const QPointer<GLinkTransportTcp> transport = m_server->transports().first();

    m_hub->deleteConnection(UnitId);

    QTRY_VERIFY(!peer->isConnected());
    QTRY_COMPARE(m_server->connectionCount(), 0);
    QVERIFY(!transport);
}

void TestGLinkServer::aReconnectStormLeavesNothingBehind()
{
    QVERIFY(isAnswered(*newPeer()));
    QTRY_COMPARE(m_server->connectionCount(), 0);
    const int descriptors = descriptorCount();

    for (int cycle = 0; cycle < 100; ++cycle) {
        const auto peer = newPeer();
        peer->write(Frames::init());
        QVERIFY(receives(*peer, 1, InitId, Ack));
    }

    QTRY_COMPARE(m_server->connectionCount(), 0);
    QTRY_VERIFY(descriptorCount() <= descriptors);
    QTRY_COMPARE(threadCount(), 0);
}

void TestGLinkServer::aSupersededConnectionDoesNotDetachItsSuccessor()
{
    const auto halfOpen = newPeer();
    halfOpen->write(Frames::init());
    QVERIFY(receives(*halfOpen, 1, InitAckId, Message));

    const auto current = newPeer();
    current->write(Frames::init());
    QVERIFY(receives(*current, 1, InitAckId, Message));
    current->write(Frames::initAckAck());
    QTRY_COMPARE(m_server->connectionCount(), 1);
    QTRY_VERIFY(!halfOpen->isConnected());

    m_hub->send(UnitId, GLINK_MSG_ID_POWER_OFF, "x");
    QVERIFY(receives(*current, 1, PowerOffId, Message));
}

void TestGLinkServer::randomBytesOnAThousandConnectionsLeaveTheOthersServed()
{
    const auto healthy = newPeer();
    std::mt19937 random(20240607);
    for (int batch = 0; batch < 20; ++batch) {
        std::vector<std::unique_ptr<TcpPeer>> peers(50);
        for (auto& peer : peers) {
            peer = newPeer();
            QByteArray noise(1 + int(random() % 200), '\0');
            std::generate(noise.begin(), noise.end(), [&] { return char(random()); });
            peer->write(noise);
        }
        QVERIFY(isAnswered(*healthy));
    }

    QTRY_COMPARE(m_server->connectionCount(), 1);
    QVERIFY(isAnswered(*healthy));
    QVERIFY(healthy->isConnected());
}

void TestGLinkServer::aBabblingUnitDoesNotKeepTheOthersWaiting()
{
    const auto healthy = newPeer();
    Babbler babbler(m_server->serverPort());
    QVERIFY(waitUntil([&] { return babbler.writtenBytes() > 100000; }));
    QElapsedTimer timer;
    int late = 0;

    for (int i = 1; i <= 50; ++i) {
        timer.start();
        healthy->write(Frames::init());
        QVERIFY(receives(*healthy, i, InitAckId, Message));
        healthy->write(Frames::initAckAck());
        late += timer.elapsed() >= 2000 ? 1 : 0;
        QTest::qWait(5);
    }

    // A machine that is busy may be late now and then; who waits behind a babbler is late every time.
    QVERIFY2(late <= 10, qPrintable(QString::number(late)));
    QVERIFY(babbler.writtenBytes() > 200000);
}

void TestGLinkServer::messagesDoNotPileUpWhileTheHubIsBusy()
{
    QSignalSpy handled(m_hub.data(), &RGPCom::readyReadFromRGP);
    Babbler babbler(m_server->serverPort());
    QVERIFY(waitUntil([&] { return !handled.isEmpty(); }));

    // The main thread does something else, until the babbler can write no more.
    // One reading of 16 KiB at most on top of the limit.
    const int bound = GLinkTransportTcp::MaxBacklog + 16 * 1024 / Frames::periodicData().size() + 1;
    const QDeadlineTimer deadline(PatienceMs);
    qint64 written = -1;
    while ((written != babbler.writtenBytes() || written <= bound * Frames::periodicData().size()) &&
           !deadline.hasExpired()) {
        written = babbler.writtenBytes();
        QThread::msleep(100);
    }
    QVERIFY(written > bound * Frames::periodicData().size());
    // Its thread must not read on as soon as some have been handled.
    QSemaphore isHeld;
    QSemaphore goOn;
    QMetaObject::invokeMethod(
        m_server->transports().first(),
        [&] {
            isHeld.release();
            goOn.tryAcquire(1, 2 * PatienceMs);
        },
        Qt::QueuedConnection);
    QVERIFY(isHeld.tryAcquire(1, PatienceMs));
    handled.clear();
    QCoreApplication::sendPostedEvents(m_hub.data());
    goOn.release();

    QVERIFY2(handled.size() <= bound, qPrintable(QString::number(handled.size())));
}

void TestGLinkServer::oneConnectionTooManyIsClosedAtOnce()
{
    m_server->setConnectionLimit(2);
    auto first = newPeer();
    const auto second = newPeer();
    QTRY_COMPARE(m_server->connectionCount(), 2);

    const auto third = newPeer();
    QTRY_VERIFY(!third->isConnected());
    const auto fourth = newPeer();
    QTRY_VERIFY(!fourth->isConnected());
    QCOMPARE(m_log->lines(QtWarningMsg), QStringList{"GLinkServer: 2 connections, refusing more."});
    QVERIFY(isAnswered(*second));

    first.reset();
    QTRY_COMPARE(m_server->connectionCount(), 1);
    QVERIFY(isAnswered(*newPeer()));
}

void TestGLinkServer::acceptingGoesOnAfterDescriptorsRanOut()
{
    // What QTcpServer does when accept() says that too many files are open.
    m_server->pauseAccepting();
    int connectionsBefore = -1;
    // Due before the server goes on, however late both are: it is the one that was started first.
    QTimer::singleShot(20, Qt::PreciseTimer, m_server.data(), [&] { connectionsBefore = m_server->connectionCount(); });
    emit m_server->acceptError(QAbstractSocket::SocketResourceError);
    const auto peer = newPeer();

    QVERIFY(isAnswered(*peer));
    QCOMPARE(connectionsBefore, 0);
}

void TestGLinkServer::shutdownEndsAllConnectionsInTime()
{
    ApplicationChecksums::setSettlingTime(std::chrono::milliseconds(0));
    std::vector<std::unique_ptr<TcpPeer>> peers(20);
    for (auto& peer : peers) {
        peer = newPeer();
        peer->write(Frames::powerOff() + Frames::command().left(20));
        QVERIFY(receives(*peer, 1, PowerOffId, Ack));
    }
    // The application of one more is being hashed at this moment.
    const QTemporaryDir applications;
    installApplicationWithDevice(applications.path());
    HeldLine hashing(DeviceLine);
    peers.push_back(newPeer());
    peers.back()->write(Frames::powerOff() + Frames::init());
    QVERIFY(receives(*peers.back(), 1, PowerOffId, Ack));
    QTRY_VERIFY(hashing.isReached());

    m_server->closeConnections();

    QVERIFY(hashing.isHeld());
    QVERIFY(!m_server->isListening());
    QTRY_COMPARE(m_server->connectionCount(), 0);
    for (auto& peer : peers) {
        QTRY_VERIFY(!peer->isConnected());
    }
    QTRY_COMPARE(threadCount(), 0);
    QCOMPARE(m_log->lines(QtWarningMsg), QStringList()); // the one about the device is still being held
}

void TestGLinkServer::aTransportThatSomebodyElseDestroysTakesItsThreadAlong()
{
    const auto peer = newPeer();
    peer->write(Frames::init());
    QVERIFY(receives(*peer, 1, InitAckId, Message));

    m_hub->deleteConnection(UnitId); // which deletes its link

    QTRY_COMPARE(m_server->connectionCount(), 0);
    QTRY_VERIFY(!peer->isConnected());
}

void TestGLinkServer::anApplicationIsHashedOnceAndDelaysNobody()
{
    ApplicationChecksums::setSettlingTime(std::chrono::milliseconds(0));
    const QTemporaryDir applications;
    installApplicationWithDevice(applications.path());
    HeldLine hashing(DeviceLine);
    const quint64 hashesBefore = ApplicationChecksums::hashCount();

    for (int i = 0; i < 20; ++i) {
        const auto peer = newPeer();
        peer->write(Frames::init());
        QVERIFY(receives(*peer, 1, InitId, Ack));
    }
    QTRY_VERIFY(hashing.isReached());
    QVERIFY(hashing.isHeld()); // all were answered before the digest
    hashing.release();

    ApplicationChecksums::request(applications.path()).wait();
    QCOMPARE(ApplicationChecksums::hashCount() - hashesBefore, 1ULL);
}

QTEST_GUILESS_MAIN(TestGLinkServer)
#include "tst_glinkserver.moc"
