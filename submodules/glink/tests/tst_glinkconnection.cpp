#include "fatalprobe.h"
#include "joinedlinks.h"
#include "logspy.h"

#include <QPointer>
#include <QSignalSpy>
#include <QThread>
#include <QtTest>

class TestGLinkConnection : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { m_noApplications.reset(new NoApplications); }
    void cleanupTestCase() { m_noApplications.reset(); }

    // Which link is in use
    void linkIsUsedFromItsInitOn();
    void fallbackWinsUntilItIsClosed();
    void initOverTcpClosesTheFallback();
    void initOfAnUnknownChannelIsIgnored();
    void initOfNoChannelIsFatal();
    void disconnectTimeTellsWhenTheLastLinkWent();
    void secondLinkIsNotUsedBeforeAnInit();

    // Messages
    void messageWithoutLinkIsDropped();
    void whatWaitsIsClearedWithoutLink();
    void messageWaitsForTheAcknowledgement();
    void commandOvertakesWhatWaits();
    void onlyTheNewestPeriodicDataGoesOut();
    void payloadIsSharedNotCopied();
    void referenceNumbersTellTheLinkAndWrap();
    void referenceNumberWithoutLinkIsReported();
    void strayAcknowledgementsAreReported();
    void lateAcknowledgementOfTheOtherLinkIsIgnored();
    void queuesAreBounded();

    // The end
    void destroyedConnectionFreesItsTransport();
    void transportOfADestroyedConnectionOutlivesWhatItHasSaid();

private:
    QScopedPointer<NoApplications> m_noApplications;
};

namespace {

/// A thread for links, as each has in the server.
class LinkThread
{
public:
    LinkThread()
    {
        m_worker.moveToThread(&thread);
        thread.start();
    }
    ~LinkThread()
    {
        thread.quit();
        thread.wait();
    }
    LinkThread(const LinkThread&) = delete;
    LinkThread& operator=(const LinkThread&) = delete;

    /// Runs `action` in the thread, behind what is posted there already, and waits for its end.
    template<typename Action>
    void run(Action action)
    {
        QMetaObject::invokeMethod(&m_worker, action, Qt::BlockingQueuedConnection);
    }

    QThread thread;

private:
    QObject m_worker;
};

} // namespace

// --- Which link is in use -------------------------------------------------------------------------------------------

void TestGLinkConnection::linkIsUsedFromItsInitOn()
{
    FakeTcpLink tcp;
    FakeFallbackLink fallback;
    GLinkConnection unit(5, &tcp, nullptr, nullptr);
    QCOMPARE(unit.activeLinkType(), GLinkConnection::NONE);
    QVERIFY(unit.initChannel(&tcp));
    QCOMPARE(unit.activeLinkType(), GLinkConnection::TCP);

    GLinkConnection other(6, &fallback, nullptr, nullptr);
    QCOMPARE(other.activeLinkType(), GLinkConnection::NONE);
    QVERIFY(other.initChannel(&fallback));
    QCOMPARE(other.activeLinkType(), GLinkConnection::FALLBACK);

    GLinkConnection both(7, &tcp, &fallback, nullptr, nullptr);
    QCOMPARE(both.activeLinkType(), GLinkConnection::NONE);
    QVERIFY(both.initChannel(&tcp));
    QCOMPARE(both.activeLinkType(), GLinkConnection::TCP);
}

void TestGLinkConnection::fallbackWinsUntilItIsClosed()
{
    FakeTcpLink tcp;
    FakeFallbackLink fallback;
    GLinkConnection unit(5, &tcp, nullptr, nullptr);
    joinFallback(unit, fallback);
    unit.initChannel(&tcp);
    QCOMPARE(unit.activeLinkType(), GLinkConnection::FALLBACK);
    unit.enqueueMessage(Status, "s", false);
    QCOMPARE(fallback.sent.texts(), QStringList{"8:s"});

    QCOMPARE(unit.setFallbackLink(nullptr), GLinkConnection::TCP);
    unit.enqueueMessage(Status, "t", false);
    QCOMPARE(tcp.sent.texts(), QStringList{"8:t"});
    QCOMPARE(fallback.sent.texts(), QStringList{"8:s"});
    QCOMPARE(unit.setGLink(nullptr), GLinkConnection::NONE);
}

void TestGLinkConnection::initOverTcpClosesTheFallback()
{
    FakeTcpLink tcp;
    FakeFallbackLink fallback;
    QSignalSpy closed(&fallback, &GLinkTransportBase::closedConnection);
    GLinkConnection unit(5, nullptr, nullptr, nullptr, nullptr);
    joinFallback(unit, fallback);
    joinTcp(unit, tcp);
    QCOMPARE(closed.count(), 0); // only queued: it lives in another thread
    QTRY_COMPARE(closed.count(), 1);
    QCOMPARE(closed.at(0).at(0).toInt(), 5);
}

void TestGLinkConnection::initOfAnUnknownChannelIsIgnored()
{
    LogSpy log;
    FakeTcpLink tcp;
    FakeTcpLink stranger;
    GLinkConnection unit(5, &tcp, nullptr, nullptr);
    QVERIFY(!unit.initChannel(&stranger));
    QVERIFY(log.contains("INIT FOR UNKNOWN CHANNEL! IGNORED."));
    QCOMPARE(unit.activeLinkType(), GLinkConnection::NONE);
}

void TestGLinkConnection::initOfNoChannelIsFatal()
{
    GLinkConnection unit(5, nullptr, nullptr, nullptr, nullptr);
    const FatalOutcome outcome = outcomeOf([&] { unit.initChannel(nullptr); });
    QVERIFY(outcome.diedOfAbort);
    QVERIFY2(outcome.log.endsWith("NULL channel init!\n"), qPrintable(outcome.log));
}

void TestGLinkConnection::disconnectTimeTellsWhenTheLastLinkWent()
{
    FakeTcpLink tcp;
    FakeFallbackLink fallback;
    GLinkConnection unit(5, nullptr, nullptr, nullptr, nullptr);
    QCOMPARE(unit.disconnectTime(), qint64(0));
    joinTcp(unit, tcp);
    joinFallback(unit, fallback);
    unit.setGLink(nullptr);
    QCOMPARE(unit.disconnectTime(), qint64(0));

    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    unit.setFallbackLink(nullptr);
    QVERIFY(unit.disconnectTime() >= before);
    QVERIFY(unit.disconnectTime() <= QDateTime::currentMSecsSinceEpoch());

    joinTcp(unit, tcp);
    QCOMPARE(unit.disconnectTime(), qint64(0));
}

void TestGLinkConnection::secondLinkIsNotUsedBeforeAnInit()
{
    FakeTcpLink tcp;
    FakeFallbackLink fallback;
    GLinkConnection unit(5, &tcp, nullptr, nullptr);
    unit.initChannel(&tcp);
    QCOMPARE(unit.setFallbackLink(&fallback), GLinkConnection::TCP);
    QCOMPARE(unit.setGLink(nullptr), GLinkConnection::NONE);
}

// --- Messages -------------------------------------------------------------------------------------------------------

void TestGLinkConnection::messageWithoutLinkIsDropped()
{
    LogSpy log;
    FakeTcpLink tcp;
    GLinkConnection unit(5, &tcp, nullptr, nullptr);
    unit.enqueueMessage(Command, "c", false);
    unit.enqueueMessage(Status, "s", false);
    unit.initChannel(&tcp);
    QCOMPARE(tcp.sent.texts(), QStringList());
    QCOMPARE(log.lines(), QStringList());
}

void TestGLinkConnection::whatWaitsIsClearedWithoutLink()
{
    LogSpy log;
    FakeTcpLink tcp;
    GLinkConnection unit(5, nullptr, nullptr, nullptr, nullptr);
    const auto fillAndLose = [&] {
        joinTcp(unit, tcp);
        for (const quint8 msgId : {Status, Command, Periodic, Forward}) {
            unit.enqueueMessage(msgId, "x", false);
        }
        unit.setGLink(nullptr);
    };

    fillAndLose();
    unit.enqueueMessage(Forward, "y", false);
    QCOMPARE(log.lines(), (QStringList{"No connection: clearing command message queue. 5",
                                       "No connection: clearing non-command message queue. 5"}));
    log.clear();
    fillAndLose();
    unit.enqueueMessage(Status, "y", false);
    QCOMPARE(log.lines(), QStringList{"No connection: clearing command message queue. 8"});

    tcp.sent.texts();
    tcp.sent.all.clear();
    joinTcp(unit, tcp);
    QCOMPARE(tcp.sent.texts(), QStringList());
}

void TestGLinkConnection::messageWaitsForTheAcknowledgement()
{
    FakeTcpLink tcp;
    GLinkConnection unit(5, &tcp, nullptr, nullptr);
    unit.initChannel(&tcp);
    unit.enqueueMessage(Status, "1", false);
    QCOMPARE(tcp.sent.all.size(), 0); // only queued: it lives in another thread
    unit.enqueueMessage(Status, "2", false);
    unit.enqueueMessage(InitAck, "3", true);
    QCOMPARE(tcp.sent.texts(), QStringList{"8:1"});
    QCOMPARE(tcp.sent.all.first().remoteId, quint16(5));

    unit.messageSent(tcp.sent.lastRefNr());
    QCOMPARE(tcp.sent.texts(), (QStringList{"8:1", "2:3"}));
    unit.messageSent(tcp.sent.lastRefNr());
    QCOMPARE(tcp.sent.texts(), (QStringList{"8:1", "2:3", "8:2"}));
    unit.messageSent(tcp.sent.lastRefNr());
    unit.enqueueMessage(Status, "4", false);
    QCOMPARE(tcp.sent.texts(), (QStringList{"8:1", "2:3", "8:2", "8:4"}));
}

void TestGLinkConnection::commandOvertakesWhatWaits()
{
    FakeTcpLink tcp;
    GLinkConnection unit(5, &tcp, nullptr, nullptr);
    unit.initChannel(&tcp);
    unit.enqueueMessage(Status, "1", false);
    unit.enqueueMessage(Status, "2", false);
    unit.enqueueMessage(Forward, "3", false);
    unit.enqueueMessage(Command, "c", false);
    unit.messageSent(tcp.sent.lastRefNr());
    QCOMPARE(tcp.sent.texts(), (QStringList{"8:1", "3:c"}));
}

void TestGLinkConnection::onlyTheNewestPeriodicDataGoesOut()
{
    FakeTcpLink tcp;
    GLinkConnection unit(5, &tcp, nullptr, nullptr);
    unit.initChannel(&tcp);
    unit.enqueueMessage(Status, "s", false);
    for (const char* values : {"p1", "p2", "p3"}) {
        unit.enqueueMessage(Periodic, values, false);
    }
    unit.messageSent(tcp.sent.lastRefNr());
    unit.messageSent(tcp.sent.lastRefNr());
    QCOMPARE(tcp.sent.texts(), (QStringList{"8:s", "4:p3"}));
}

void TestGLinkConnection::payloadIsSharedNotCopied()
{
    FakeTcpLink tcp;
    GLinkConnection unit(5, &tcp, nullptr, nullptr);
    unit.initChannel(&tcp);
    const QByteArray payload(10000, 'x');
    unit.enqueueMessage(Forward, payload, false);
    unit.enqueueMessage(Forward, payload, false);
    unit.messageSent(tcp.sent.lastRefNr());
    QCOMPARE(tcp.sent.texts().size(), 2);
    QCOMPARE(static_cast<const void*>(tcp.sent.all.at(0).data.constData()),
             static_cast<const void*>(payload.constData()));
    QCOMPARE(static_cast<const void*>(tcp.sent.all.at(1).data.constData()),
             static_cast<const void*>(payload.constData()));
}

void TestGLinkConnection::referenceNumbersTellTheLinkAndWrap()
{
    FakeTcpLink tcp;
    FakeFallbackLink fallback;
    OpenConnection unit(5);
    joinTcp(unit, tcp);
    QCOMPARE(unit.updateRefNr(), 0x10000001U);
    QCOMPARE(unit.updateRefNr(), 0x10000002U);
    joinFallback(unit, fallback);
    QCOMPARE(unit.updateRefNr(), 0x20000003U);

    unit.m_nextRefNr = 0x0FFFFFFD;
    QCOMPARE(unit.updateRefNr(), 0x2FFFFFFDU);
    QCOMPARE(unit.updateRefNr(), 0x2FFFFFFEU);
    QCOMPARE(unit.updateRefNr(), 0x20000001U);
}

void TestGLinkConnection::referenceNumberWithoutLinkIsReported()
{
    LogSpy log;
    OpenConnection unit(5);
    QCOMPARE(unit.updateRefNr(), 1U);
    QCOMPARE(log.lines(QtWarningMsg), QStringList{"GLinkConnection::updateRefNr() CALLED WITHOUT ACTIVE LINK!"});
}

void TestGLinkConnection::strayAcknowledgementsAreReported()
{
    LogSpy log;
    FakeTcpLink tcp;
    GLinkConnection unit(5, &tcp, nullptr, nullptr);
    unit.messageSent(0x10000001);
    QCOMPARE(log.lines(), QStringList());

    unit.initChannel(&tcp);
    unit.messageSent(0x10000007);
    QCOMPARE(log.lines(), QStringList{"Slot messageSent() called with refNr 268435463 , but this->m_activeRefNr == "
                                      "REF_NR_INACTIVE! IGNORED."});
    log.clear();
    unit.enqueueMessage(Status, "1", false);
    unit.enqueueMessage(Status, "2", false);
    unit.messageSent(0x10000007);
    QCOMPARE(log.lines(),
             QStringList{"Reference number mismatch in slot messageSent(): expected 268435457 , got 268435463"});
    QCOMPARE(tcp.sent.texts(), QStringList{"8:1"});
}

void TestGLinkConnection::lateAcknowledgementOfTheOtherLinkIsIgnored()
{
    LogSpy log;
    FakeTcpLink tcp;
    FakeFallbackLink fallback;
    GLinkConnection unit(5, &tcp, nullptr, nullptr);
    joinFallback(unit, fallback);
    unit.enqueueMessage(Status, "1", false);
    unit.enqueueMessage(Status, "2", false);
    unit.initChannel(&tcp);
    unit.setFallbackLink(nullptr);
    QCOMPARE(tcp.sent.texts(), QStringList{"8:2"});

    unit.messageSent(fallback.sent.lastRefNr());
    unit.enqueueMessage(Status, "3", false);
    QCOMPARE(tcp.sent.texts(), QStringList{"8:2"});
    unit.messageSent(tcp.sent.lastRefNr());
    QCOMPARE(tcp.sent.texts(), (QStringList{"8:2", "8:3"}));
    QCOMPARE(log.lines(), QStringList());
}

// A unit that vanished on the fallback holds a message in flight until its next INIT: memory stays flat meanwhile.
void TestGLinkConnection::queuesAreBounded()
{
    LogSpy log;
    FakeFallbackLink fallback;
    GLinkConnection unit(5, &fallback, nullptr, nullptr);
    unit.initChannel(&fallback);
    unit.enqueueMessage(Status, "in flight", false);
    for (int i = 0; i < 1000; ++i) {
        unit.enqueueMessage(Status, QByteArray::number(i), false);
        unit.enqueueMessage(Command, QByteArray::number(i), false);
    }
    QCOMPARE(log.lines(), (QStringList{"GLinkConnection: message queue of RU 5 is full, oldest message dropped.",
                                       "GLinkConnection: command queue of RU 5 is full, command refused."}));

    unit.initChannel(&fallback);
    for (int i = 0; i < 1000; ++i) {
        unit.messageSent(fallback.sent.lastRefNr());
    }
    const QStringList sent = fallback.sent.texts();
    QCOMPARE(sent.size(), 1 + 256 + 256);
    QCOMPARE(sent.at(1), QString("3:0"));
    QCOMPARE(sent.at(256), QString("3:255"));
    QCOMPARE(sent.at(257), QString("8:744"));
    QCOMPARE(sent.last(), QString("8:999"));
}

// --- The end ---------------------------------------------------------------------------------------------------------

void TestGLinkConnection::destroyedConnectionFreesItsTransport()
{
    const QPointer<GLinkTransportTcp> tcp = new FakeTcpLink;
    auto* const unit = new GLinkConnection(5, tcp.data(), nullptr, nullptr);
    unit->initChannel(tcp);
    unit->enqueueMessage(Status, "1", false);
    delete unit;
    QVERIFY(tcp);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QVERIFY(!tcp);
}

// The hub may not have looked at an INIT yet that names the transport.
void TestGLinkConnection::transportOfADestroyedConnectionOutlivesWhatItHasSaid()
{
    LinkThread linkThread;
    const QPointer<GLinkTransportTcp> tcp = new FakeTcpLink;
    tcp->moveToThread(&linkThread.thread);
    QObject hub;
    bool existedWhenHeard = false;
    connect(tcp, &GLinkTransportTcp::newConnection, &hub, [&] { existedWhenHeard = !tcp.isNull(); });
    auto* const unit = new GLinkConnection(5, tcp.data(), nullptr, nullptr);
    linkThread.run([&] { emit tcp->newConnection(5, tcp); });

    delete unit;
    linkThread.run([] {}); // has done all that it was told to
    QCoreApplication::processEvents();

    QVERIFY(existedWhenHeard);
    QTRY_VERIFY(!tcp);
}

QTEST_GUILESS_MAIN(TestGLinkConnection)
#include "tst_glinkconnection.moc"
