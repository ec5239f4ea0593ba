#include "controllerpackets.h"
#include "eglink.h"
#include "eglinksockets.h"
#include "fatalprobe.h"
#include "logspy.h"
#include "patience.h"

#include <QCoreApplication>
#include <QNetworkDatagram>
#include <QNetworkInterface>
#include <QSignalSpy>
#include <QTest>
#include <QThread>
#include <QUdpSocket>

#include <memory>

namespace {

// The loopback interface carries multicast, too, and every machine has it. Group and ports are of this process alone,
// so that test programs may run side by side.
const QString Loopback = QStringLiteral("lo");
const QString NoInterface = QStringLiteral("nosuchif0");

quint16 remotePort()
{
    return static_cast<quint16>(10000 + 4 * (QCoreApplication::applicationPid() % 5000));
}

quint16 localPort()
{
    return static_cast<quint16>(remotePort() + 2);
}

QHostAddress group()
{
    return QHostAddress(0xEFFF0000U | static_cast<quint32>(QCoreApplication::applicationPid() & 0xffff));
}

/// The controller's end of the group.
class Controller
{
public:
    Controller()
    {
        const QNetworkInterface loopback = QNetworkInterface::interfaceFromName(Loopback);
        m_socket.bind(QHostAddress::AnyIPv4, remotePort(), QUdpSocket::ShareAddress);
        m_socket.joinMulticastGroup(group(), loopback);
        m_socket.setMulticastInterface(loopback);
    }

    void sendToGroup(const QByteArray& datagram) { m_socket.writeDatagram(datagram, group(), localPort()); }
    void sendDirectly(const QByteArray& datagram)
    {
        m_socket.writeDatagram(datagram, QHostAddress::LocalHost, localPort());
    }

    /// Everything of one type that has arrived by now.
    QList<QByteArray> received(const QByteArray& type)
    {
        while (m_socket.hasPendingDatagrams()) {
            QByteArray datagram(int(m_socket.pendingDatagramSize()), '\0');
            m_socket.readDatagram(datagram.data(), datagram.size());
            m_received.append(datagram);
        }
        QList<QByteArray> matching;
        for (const QByteArray& datagram : qAsConst(m_received)) {
            if (datagram.startsWith(type)) {
                matching.append(datagram);
            }
        }
        return matching;
    }

private:
    QUdpSocket m_socket;
    QList<QByteArray> m_received;
};

EGLinkTuning tuningOn(const QString& interfaceName)
{
    EGLinkTuning tuning;
    tuning.interfaceName = interfaceName;
    return tuning;
}

/// Waits for the next datagram.
QByteArray nextOf(EGLinkSockets& sockets)
{
    std::optional<QByteArray> datagram;
    const bool came = QTest::qWaitFor([&] { return (datagram = sockets.nextDatagram()).has_value(); }, PatienceMs);
    return came ? *datagram : QByteArray("nothing came");
}

std::unique_ptr<EGLinkSockets> socketsOn(const QString& interfaceName)
{
    return std::make_unique<EGLinkSockets>(group(), remotePort(), localPort(), interfaceName, nullptr);
}

} // namespace

class TestEGLinkSockets : public QObject
{
    Q_OBJECT

private slots:
    void boundPortIsFatal_data();
    void boundPortIsFatal(); // early: forks, so it must come before any thread

    void packetsTravelThroughTheGroup();
    void datagramsAreReadWhole_data();
    void datagramsAreReadWhole();
    void rebuiltSocketsGoOnWhereTheOldOnesWere();
    void missingInterfaceIsNoBindFailure();
    void missingInterfaceIsToldOnce();
    void writeBeforeTheFirstBuildFails();

    void linkWithoutInterfaceLives();
    void failedSendWhileReadingLosesNoLaterPacket();
    void floodIsReadInBatches();
    void wakeUpWithNothingLeftToReadDoesNotDeafenTheLink();
    void linkInAThreadOfItsOwn();
};

void TestEGLinkSockets::boundPortIsFatal_data()
{
    QTest::addColumn<int>("port");
    QTest::addColumn<QString>("line");
    QTest::addColumn<unsigned int>("fatalLine");
    QTest::newRow("sending socket") << int(remotePort()) << "Tx QUdpSocket bind() failed" << 101U;
    QTest::newRow("receiving socket") << int(localPort()) << "Rx QUdpSocket bind() failed" << 102U;
}

void TestEGLinkSockets::boundPortIsFatal()
{
    QFETCH(int, port);
    QFETCH(QString, line);
    QFETCH(unsigned int, fatalLine);

    QUdpSocket occupant;
    QVERIFY(occupant.bind(QHostAddress::AnyIPv4, quint16(port), QUdpSocket::DontShareAddress));
    EGLink link(group(), remotePort(), 10, 7, 1, nullptr, tuningOn(Loopback));
    const FatalOutcome outcome = outcomeOf([&link] { link.run(); });
    QVERIFY2(outcome.diedOfAbort, qPrintable(outcome.log));
    const QString end = line + "\n" + fatalAssertionLog("submodules/eg-link/src/eglink", fatalLine);
    QVERIFY2(outcome.log.endsWith(end), qPrintable(outcome.log));
}

void TestEGLinkSockets::packetsTravelThroughTheGroup()
{
    Controller controller;
    const auto sockets = socketsOn(Loopback);
    QSignalSpy readyRead(sockets.get(), &EGLinkSockets::readyRead);
    {
        const LogSpy log;
        QCOMPARE(sockets->rebuild(), EGLinkSockets::Result::Bound);
        QCOMPARE(log.lines(QtDebugMsg), QStringList{"JOIN RX MULTICAST SUCCESS"});
    }
    QVERIFY(!sockets->needsRebuild());

    QVERIFY(sockets->write("VRPI to the controller"));
    QTRY_COMPARE(controller.received("VRPI"), QList<QByteArray>{"VRPI to the controller"});

    controller.sendToGroup("from the controller");
    QTRY_VERIFY(!readyRead.isEmpty());
    QCOMPARE(nextOf(*sockets), QByteArray("from the controller"));
    QVERIFY(!sockets->nextDatagram().has_value());
}

void TestEGLinkSockets::datagramsAreReadWhole_data()
{
    QTest::addColumn<int>("size");
    QTest::newRow("empty") << 0;
    QTest::newRow("one byte") << 1;
    QTest::newRow("largest packet") << 512;
    QTest::newRow("larger than any packet") << 60000;
}

void TestEGLinkSockets::datagramsAreReadWhole()
{
    QFETCH(int, size);
    Controller controller;
    const auto sockets = socketsOn(Loopback);
    sockets->rebuild();
    controller.sendDirectly(QByteArray(size, 'd'));
    controller.sendDirectly("next");
    QCOMPARE(nextOf(*sockets), QByteArray(size, 'd'));
    QCOMPARE(nextOf(*sockets), QByteArray("next"));
}

void TestEGLinkSockets::rebuiltSocketsGoOnWhereTheOldOnesWere()
{
    Controller controller;
    const auto sockets = socketsOn(Loopback);
    for (int round = 0; round < 20; ++round) {
        QCOMPARE(sockets->rebuild(), EGLinkSockets::Result::Bound);
    }
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCOMPARE(sockets->findChildren<QUdpSocket*>().size(), 2); // nothing is left of the nineteen pairs before
    QVERIFY(sockets->write("VRPI again"));
    QTRY_COMPARE(controller.received("VRPI").size(), 1);
    controller.sendToGroup("once");
    QCOMPARE(nextOf(*sockets), QByteArray("once"));
    QVERIFY(!sockets->nextDatagram().has_value());
}

void TestEGLinkSockets::missingInterfaceIsNoBindFailure()
{
    Controller controller;
    const auto sockets = socketsOn(NoInterface);
    QCOMPARE(sockets->rebuild(), EGLinkSockets::Result::Bound);
    QVERIFY(!sockets->write("VRPI must not leave through any other interface"));
    QVERIFY(!sockets->needsRebuild()); // nothing to be gained from trying before the interface is there
    QVERIFY(controller.received("VRPI").isEmpty());
}

void TestEGLinkSockets::missingInterfaceIsToldOnce()
{
    const auto sockets = socketsOn(NoInterface);
    const LogSpy log;
    sockets->rebuild();
    sockets->rebuild();
    sockets->rebuild();
    QCOMPARE(log.lines(), QStringList{"EGLink: waiting for multicast on \"nosuchif0\""});
}

void TestEGLinkSockets::writeBeforeTheFirstBuildFails()
{
    const auto sockets = socketsOn(Loopback);
    QVERIFY(!sockets->write("VRPI"));
    QVERIFY(!sockets->nextDatagram().has_value());
    QVERIFY(sockets->needsRebuild());
}

void TestEGLinkSockets::linkWithoutInterfaceLives()
{
    EGLinkTuning tuning = tuningOn(NoInterface);
    tuning.vrpiPeriodMs = 10;
    tuning.interfaceCheckMs = 10;
    EGLink link(group(), remotePort(), 10, 7, 1, nullptr, tuning);
    const LogSpy log;
    link.run();
    QTest::qWait(200); // twenty failing sends and as many checks
    QCOMPARE(log.lines(QtWarningMsg).size(), 1);
    QCOMPARE(log.count("JOIN RX MULTICAST SUCCESS"), 0);
    QVERIFY(link.findChildren<QUdpSocket*>().size() <= 4); // rebuilt with every send, and the old ones are gone
}

void TestEGLinkSockets::failedSendWhileReadingLosesNoLaterPacket()
{
    // The acknowledgement cannot leave, so the socket is replaced while it is being read.
    Controller controller;
    EGLink link(group(), remotePort(), 10, 2, 1, nullptr, tuningOn(NoInterface));
    const LogSpy log; // keeps the lines off the terminal
    link.run();
    const QSignalSpy commands(&link, &EGLink::sendCmd);
    controller.sendDirectly(vrco(1, 1, "first"));
    QTRY_COMPARE(commands.count(), 1);
    controller.sendDirectly(vrco(2, 2, "second"));
    QTRY_COMPARE(commands.count(), 2);
}

void TestEGLinkSockets::floodIsReadInBatches()
{
    constexpr int flood = 150;
    constexpr int batch = 64;
    const QString dropped = QStringLiteral("Rx CRC error: packet ignored.");
    Controller controller;
    EGLink link(group(), remotePort(), 10, 7, 1, nullptr, tuningOn(Loopback));
    const LogSpy log;
    link.run();
    for (int i = 0; i < flood; ++i) {
        controller.sendDirectly("not a packet");
    }

    link.readPendingDatagrams();
    QCOMPARE(log.count(dropped), batch);
    QTRY_COMPARE(log.count(dropped), flood);
}

void TestEGLinkSockets::wakeUpWithNothingLeftToReadDoesNotDeafenTheLink()
{
    // Another socket's handler, called in the same turn of the event loop, reads what the link is about to be told of.
    QUdpSocket earlier;
    QVERIFY(earlier.bind(QHostAddress::LocalHost));
    Controller controller;
    EGLink link(group(), remotePort(), 10, 2, 1, nullptr, tuningOn(Loopback));
    const LogSpy log; // keeps the lines off the terminal
    link.run();
    QCoreApplication::processEvents();
    const QSignalSpy commands(&link, &EGLink::sendCmd);
    connect(&earlier, &QUdpSocket::readyRead, &link, [&] {
        earlier.receiveDatagram();
        link.readPendingDatagrams();
    });
    QUdpSocket().writeDatagram("now", QHostAddress::LocalHost, earlier.localPort());
    controller.sendDirectly(vrco(1, 1, "first"));
    QTRY_COMPARE(commands.count(), 1);

    controller.sendDirectly(vrco(2, 2, "second"));
    QTRY_COMPARE(commands.count(), 2);
    controller.sendDirectly(vrco(3, 3, "third"));
    QTRY_COMPARE(commands.count(), 3);
}

void TestEGLinkSockets::linkInAThreadOfItsOwn()
{
    Controller controller;
    QThread thread;
    auto* const link = new EGLink(group(), remotePort(), 10, 7, 0x1234, nullptr, tuningOn(Loopback));
    const LogSpy log; // keeps the lines off the terminal
    QObject here;     // what the link emits is counted in this thread, as the server does
    int reports = 0;
    int blocks = 0;
    bool destroyed = false;
    connect(link, &EGLink::EGLinkStatus, &here, [&reports] { ++reports; });
    connect(link, &EGLink::sendToRGP, &here, [&blocks] { ++blocks; });
    connect(link, &QObject::destroyed, &here, [&destroyed] { destroyed = true; });
    connect(&thread, &QThread::started, link, &EGLink::run);
    connect(&thread, &QThread::finished, link, &QObject::deleteLater);
    link->moveToThread(&thread);
    // Waits for it there, so that the first packet of all has it.
    QMetaObject::invokeMethod(link, "receiveFromRGP", Qt::QueuedConnection, Q_ARG(QByteArray, "data"));
    QMetaObject::invokeMethod(link, "receiveCmd", Qt::QueuedConnection, Q_ARG(QByteArray, "stop"));
    thread.start(QThread::InheritPriority);

    QTRY_VERIFY(!controller.received("VRCI").isEmpty());
    QTRY_VERIFY(!controller.received("VRPI").isEmpty());
    QCOMPARE(controller.received("VRPI").constFirst().mid(16, 4), QByteArray("data"));
    QCOMPARE(controller.received("VRPI").constFirst().mid(6, 2).toHex(), QByteArray("3412"));
    controller.sendToGroup(vrao(1, 0));
    controller.sendToGroup(vrpo(2, 0, "fresh"));
    QTRY_COMPARE(blocks, 1);
    QTRY_VERIFY(reports >= 2); // and a third one when nothing more comes

    thread.quit();
    QVERIFY(thread.wait(PatienceMs));
    QTRY_VERIFY(destroyed);
}

QTEST_GUILESS_MAIN(TestEGLinkSockets)
#include "tst_eglinksockets.moc"
