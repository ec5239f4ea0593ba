#include "fakelinks.h"
#include "fatalprobe.h"
#include "glinkconnection.h"
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

    // A unit that comes back
    void supersededTransportIsClosed();
    void sameTransportAgainIsNotClosed();
    void supersedingSendsOneMessageAtATime();
    void newTransportGetsOneAnswerToItsInit();
    void goneTransportDoesNotStopTheQueue();
    void initIsAnsweredThoughAMessageIsInFlightOnTheTransport();
    void queueGoesOnAfterAnotherInitOnTheSameTransport();
    void tcpTakesTheNextMessageAfterAnEpisodeOnTheFallback();

    // INIT over TCP while the fallback is in use
    void initOverTcpIsAnsweredOnceOverTcp_data();
    void initOverTcpIsAnsweredOnceOverTcp();
    void initOverTcpLeavesTheFallbacksMessageInFlight();
    void acknowledgementOverTheClosingFallbackSendsNothingThere();
    void initOverTheClosingFallbackIsAnsweredThere();
    void initOverTheFallbackIsAnsweredThere();

    // Turns on the fallback
    void queuedMessagesAlternateBetweenUnits();
    void messageDoesNotOvertakeOneThatMissedItsTurn();
    void commandsOfAllUnitsGoFirst();
    void onlyUserOfTheFallbackGoesOnAtOnce();
    void unitThatLeavesTheFallbackPassesTheTurnOn();
    void outsiderStartsAtTheSecondUser();
    void outsiderWithoutUsersFindsNothing();
    void destroyedConnectionLeavesTheTurns();
    void destroyedConnectionFreesItsTransport();
    void transportOfADestroyedConnectionOutlivesWhatItHasSaid();

private:
    QScopedPointer<NoApplications> m_noApplications;
};

namespace {

constexpr quint8 InitAck = 2;
constexpr quint8 Command = 3;
constexpr quint8 Periodic = 4;
constexpr quint8 Forward = 5;
constexpr quint8 Status = 8;

/// A connection whose inner operations can be called.
class OpenConnection : public GLinkConnection
{
public:
    explicit OpenConnection(quint16 peerId)
        : GLinkConnection(peerId, static_cast<GLinkTransportTcp*>(nullptr), nullptr, nullptr)
    {}
    using GLinkConnection::getNextFallbackMessage;
    using GLinkConnection::m_nextRefNr;
    using GLinkConnection::updateRefNr;
};

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

void joinTcp(GLinkConnection& unit, GLinkTransportTcp& link)
{
    unit.setGLink(&link);
    unit.initChannel(&link);
}

void joinFallback(GLinkConnection& unit, GLinkTransportFallback& link)
{
    unit.setFallbackLink(&link);
    unit.initChannel(&link);
}

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

// --- A unit that comes back -----------------------------------------------------------------------------------------

void TestGLinkConnection::supersededTransportIsClosed()
{
    FakeTcpLink old;
    FakeTcpLink current;
    QSignalSpy oldFinished(&old, &GLinkTransportTcp::finished);
    QSignalSpy currentFinished(&current, &GLinkTransportTcp::finished);
    GLinkConnection unit(5, &old, nullptr, nullptr);
    unit.initChannel(&old);
    unit.setGLink(&current);
    QCOMPARE(unit.gLink(), &current);
    QTRY_COMPARE(oldFinished.count(), 1);
    QCOMPARE(currentFinished.count(), 0);
}

void TestGLinkConnection::sameTransportAgainIsNotClosed()
{
    FakeTcpLink tcp;
    QSignalSpy finished(&tcp, &GLinkTransportTcp::finished);
    GLinkConnection unit(5, &tcp, nullptr, nullptr);
    unit.initChannel(&tcp);
    QCOMPARE(unit.setGLink(&tcp), GLinkConnection::TCP);
    QCoreApplication::processEvents();
    QCOMPARE(finished.count(), 0);
}

void TestGLinkConnection::supersedingSendsOneMessageAtATime()
{
    PacedTcpLink old;
    PacedTcpLink current;
    GLinkConnection unit(5, &old, nullptr, nullptr);
    unit.initChannel(&old);
    for (const quint8 msgId : {Status, Forward, Forward, Forward}) {
        unit.enqueueMessage(msgId, "x", false);
    }
    QSignalSpy sent(&current, &GLinkTransportBase::messageSent);
    unit.setGLink(&current);
    QCoreApplication::processEvents();
    QCOMPARE(current.written, QList<int>{Forward});
}

// An INIT gets one answer: what waits of the answer to an earlier one is dropped.
void TestGLinkConnection::newTransportGetsOneAnswerToItsInit()
{
    FakeTcpLink old;
    FakeTcpLink current;
    GLinkConnection unit(5, &old, nullptr, nullptr);
    unit.initChannel(&old);
    unit.enqueueMessage(Status, "1", false);
    unit.enqueueMessage(InitAck, "old", true);

    unit.setGLink(&current);
    QCoreApplication::processEvents();
    unit.initChannel(&current);
    unit.enqueueMessage(InitAck, "new", true);
    QCOMPARE(current.sent.texts(), QStringList{"2:new"});
}

// A queued "send" to a link that is gone is dropped and the queue goes on.
void TestGLinkConnection::goneTransportDoesNotStopTheQueue()
{
    auto* const gone = new FakeTcpLink;
    GLinkConnection unit(5, gone, nullptr, nullptr);
    unit.initChannel(gone);
    unit.enqueueMessage(Status, "1", false);
    unit.enqueueMessage(Status, "2", false);
    delete gone;
    QCoreApplication::processEvents();
    unit.enqueueMessage(Status, "3", false);

    FakeTcpLink current;
    unit.setGLink(&current);
    unit.initChannel(&current);
    unit.enqueueMessage(Status, "4", false);
    QCOMPARE(current.sent.texts(), QStringList{"8:4"});
}

// The INITACK is never refused: a message that was on its way to the transport when the INIT came is forgotten there.
void TestGLinkConnection::initIsAnsweredThoughAMessageIsInFlightOnTheTransport()
{
    PacedTcpLink tcp;
    GLinkConnection unit(5, &tcp, nullptr, nullptr);
    unit.initChannel(&tcp);
    unit.enqueueMessage(Forward, "sent just after the INIT was received", false);
    QCoreApplication::processEvents();
    QCOMPARE(tcp.written, QList<int>{Forward});

    unit.initChannel(&tcp);
    unit.enqueueMessage(InitAck, "answer", true);
    QCoreApplication::processEvents();
    QCOMPARE(tcp.written, (QList<int>{Forward, InitAck}));
}

// The queue never hangs: what waited goes first, and the answer after its acknowledgement.
void TestGLinkConnection::queueGoesOnAfterAnotherInitOnTheSameTransport()
{
    PacedTcpLink tcp;
    GLinkConnection unit(5, &tcp, nullptr, nullptr);
    connect(&tcp, &GLinkTransportBase::messageSent, &unit,
            [&unit](quint16, quint32 refNr, GLinkTransportBase*) { unit.messageSent(refNr); });
    unit.initChannel(&tcp);
    unit.enqueueMessage(Forward, "1", false);
    unit.enqueueMessage(Status, "2", false);
    QCoreApplication::processEvents();

    unit.initChannel(&tcp);
    unit.enqueueMessage(InitAck, "answer", true);
    QCoreApplication::processEvents();
    QCOMPARE(tcp.written, (QList<int>{Forward, Status}));
    tcp.acknowledge();
    QCoreApplication::processEvents();
    QCOMPARE(tcp.written, (QList<int>{Forward, Status, InitAck}));
}

void TestGLinkConnection::tcpTakesTheNextMessageAfterAnEpisodeOnTheFallback()
{
    PacedTcpLink tcp;
    FakeFallbackLink fallback;
    GLinkConnection unit(5, &tcp, nullptr, nullptr);
    unit.initChannel(&tcp);
    unit.enqueueMessage(Forward, "never acknowledged", false);
    joinFallback(unit, fallback);
    unit.setFallbackLink(nullptr);
    QCOMPARE(unit.activeLinkType(), GLinkConnection::TCP);
    unit.enqueueMessage(Status, "next", false);
    QCoreApplication::processEvents();
    QCOMPARE(tcp.written, (QList<int>{Forward, Status}));
}

// --- INIT over TCP while the fallback is in use ---------------------------------------------------------------------

void TestGLinkConnection::initOverTcpIsAnsweredOnceOverTcp_data()
{
    QTest::addColumn<bool>("isInFlight");
    QTest::addColumn<bool>("isQueued");

    QTest::newRow("nothing in flight") << false << false;
    QTest::newRow("a message in flight on the fallback") << true << false;
    QTest::newRow("one in flight, one waiting") << true << true;
}

// An INIT over TCP while the fallback is in use yields exactly one INITACK.
void TestGLinkConnection::initOverTcpIsAnsweredOnceOverTcp()
{
    QFETCH(bool, isInFlight);
    QFETCH(bool, isQueued);
    FakeTcpLink tcp;
    FakeFallbackLink fallback;
    GLinkConnection unit(5, &fallback, nullptr, nullptr);
    // As the hub does it, when the transport has done what it was asked for.
    connect(&fallback, &GLinkTransportBase::closedConnection, &unit, [&unit] { unit.setFallbackLink(nullptr); });
    connect(&fallback, &GLinkTransportBase::messageSent, &unit,
            [&unit](quint16, quint32 refNr, GLinkTransportBase*) { unit.messageSent(refNr); });
    unit.initChannel(&fallback);
    if (isInFlight) {
        unit.enqueueMessage(Status, "in flight", false);
    }
    if (isQueued) {
        unit.enqueueMessage(Command, "waiting", false);
    }

    joinTcp(unit, tcp);
    unit.enqueueMessage(InitAck, "answer", true);
    unit.enqueueMessage(Periodic, "values", true);
    for (int i = 0; i < 5; ++i) {
        unit.messageSent(tcp.sent.lastRefNr());
    }
    QStringList overTcp{"2:answer", "4:values"};
    if (isQueued) {
        overTcp.prepend("3:waiting");
    }
    QCOMPARE(tcp.sent.texts(), overTcp);
    QCOMPARE(fallback.sent.count(InitAck), 0);
}

// Neither lost nor doubled: the fallback service keeps only one message waiting, and drops what comes on top.
void TestGLinkConnection::initOverTcpLeavesTheFallbacksMessageInFlight()
{
    FakeTcpLink tcp;
    FakeFallbackLink fallback;
    GLinkConnection unit(5, &fallback, nullptr, nullptr);
    unit.initChannel(&fallback);
    for (const char* text : {"1", "2", "3"}) {
        unit.enqueueMessage(Command, text, false);
    }
    joinTcp(unit, tcp);
    QCOMPARE(fallback.sent.texts(), QStringList{"3:1"});
    unit.setFallbackLink(nullptr);
    unit.messageSent(tcp.sent.lastRefNr());
    QCOMPARE(tcp.sent.texts(), (QStringList{"3:2", "3:3"}));
    QCOMPARE(fallback.sent.texts(), QStringList{"3:1"});
}

void TestGLinkConnection::acknowledgementOverTheClosingFallbackSendsNothingThere()
{
    FakeTcpLink tcp;
    FakeFallbackLink fallback;
    GLinkConnection unit(5, &fallback, nullptr, nullptr);
    unit.initChannel(&fallback);
    unit.enqueueMessage(Command, "1", false);
    unit.enqueueMessage(Command, "2", false);
    joinTcp(unit, tcp);
    unit.messageSent(fallback.sent.lastRefNr());
    QCOMPARE(fallback.sent.texts(), QStringList{"3:1"});
    unit.setFallbackLink(nullptr);
    QCOMPARE(tcp.sent.texts(), QStringList{"3:2"});
}

void TestGLinkConnection::initOverTheClosingFallbackIsAnsweredThere()
{
    FakeTcpLink tcp;
    FakeFallbackLink fallback;
    GLinkConnection unit(5, &fallback, nullptr, nullptr);
    unit.initChannel(&fallback);
    joinTcp(unit, tcp);
    unit.enqueueMessage(InitAck, "over TCP", true);
    unit.setGLink(nullptr); // TCP is gone again at once
    joinFallback(unit, fallback);
    unit.enqueueMessage(InitAck, "over the fallback", true);
    QCOMPARE(fallback.sent.texts(), QStringList{"2:over the fallback"});
}

void TestGLinkConnection::initOverTheFallbackIsAnsweredThere()
{
    FakeTcpLink tcp;
    FakeFallbackLink fallback;
    GLinkConnection unit(5, &tcp, nullptr, nullptr);
    unit.initChannel(&tcp);
    unit.enqueueMessage(Status, "in flight", false);
    joinFallback(unit, fallback);
    unit.enqueueMessage(InitAck, "answer", true);
    QCOMPARE(fallback.sent.texts(), QStringList{"2:answer"});
}

// --- Turns on the fallback ------------------------------------------------------------------------------------------

void TestGLinkConnection::queuedMessagesAlternateBetweenUnits()
{
    FakeFallbackLink fallback;
    GLinkConnection five(5, &fallback, nullptr, nullptr);
    GLinkConnection six(6, &fallback, nullptr, nullptr);
    five.initChannel(&fallback);
    six.initChannel(&fallback);
    for (const char* text : {"1", "2", "3"}) {
        five.enqueueMessage(Forward, text, false);
        six.enqueueMessage(Status, text, false);
    }
    for (int i = 0; i < 6; ++i) {
        fallback.sent.texts();
        const SentMessage last = fallback.sent.all.last();
        (last.remoteId == 5 ? five : six).messageSent(last.refNr);
    }
    QCOMPARE(fallback.sent.texts(), (QStringList{"5:1", "8:1", "5:2", "8:2", "5:3", "8:3"}));
}

// The turn went to another unit while a message of this one waited: the next one must not overtake it.
void TestGLinkConnection::messageDoesNotOvertakeOneThatMissedItsTurn()
{
    FakeFallbackLink fallback;
    GLinkConnection five(5, &fallback, nullptr, nullptr);
    GLinkConnection six(6, &fallback, nullptr, nullptr);
    five.initChannel(&fallback);
    six.initChannel(&fallback);
    five.enqueueMessage(Command, "five 1", false);
    const quint32 firstOfFive = fallback.sent.lastRefNr();
    five.enqueueMessage(Command, "five 2", false);
    six.enqueueMessage(Command, "six 1", false);
    six.enqueueMessage(Command, "six 2", false);
    five.messageSent(firstOfFive);
    five.enqueueMessage(Command, "five 3", false);
    QCOMPARE(fallback.sent.texts(), (QStringList{"3:five 1", "3:six 1", "3:six 2", "3:five 2"}));

    five.messageSent(fallback.sent.lastRefNr());
    QCOMPARE(fallback.sent.texts().last(), QString("3:five 3"));
}

void TestGLinkConnection::commandsOfAllUnitsGoFirst()
{
    FakeFallbackLink fallback;
    GLinkConnection five(5, &fallback, nullptr, nullptr);
    GLinkConnection six(6, &fallback, nullptr, nullptr);
    GLinkConnection seven(7, &fallback, nullptr, nullptr);
    for (GLinkConnection* unit : {&five, &six, &seven}) {
        unit->initChannel(&fallback);
        unit->enqueueMessage(Status, "first", false);
    }
    six.enqueueMessage(Status, "later", false);
    seven.enqueueMessage(Command, "c7", false);
    five.enqueueMessage(Command, "c5", false);
    fallback.sent.texts();
    const quint32 firstOfFive = fallback.sent.all.first().refNr;
    fallback.sent.all.clear();

    five.messageSent(firstOfFive);
    seven.messageSent(fallback.sent.lastRefNr());
    five.messageSent(fallback.sent.lastRefNr());
    QCOMPARE(fallback.sent.texts(), (QStringList{"3:c7", "3:c5", "8:later"}));
}

void TestGLinkConnection::onlyUserOfTheFallbackGoesOnAtOnce()
{
    FakeTcpLink tcp;
    FakeFallbackLink fallback;
    GLinkConnection unit(5, &tcp, nullptr, nullptr);
    unit.initChannel(&tcp);
    for (const char* text : {"1", "2", "3"}) {
        unit.enqueueMessage(Forward, text, false);
    }
    unit.setGLink(nullptr);
    joinFallback(unit, fallback);
    QCOMPARE(fallback.sent.texts(), QStringList{"5:2"});
}

// "close" counts the message in flight as sent, so that the queues of the other units move on.
void TestGLinkConnection::unitThatLeavesTheFallbackPassesTheTurnOn()
{
    FakeFallbackLink fallback;
    GLinkConnection healthy(5, &fallback, nullptr, nullptr);
    GLinkConnection leaving(6, &fallback, nullptr, nullptr);
    healthy.initChannel(&fallback);
    leaving.initChannel(&fallback);
    healthy.enqueueMessage(Status, "its acknowledgement was taken for the other's", false);
    leaving.enqueueMessage(Status, "last one sent", false);
    healthy.enqueueMessage(Status, "waiting", false);
    const quint32 refNr = fallback.sent.lastRefNr();

    leaving.setFallbackLink(nullptr);
    leaving.messageSent(refNr);
    QCOMPARE(fallback.sent.texts().last(), QString("8:waiting"));
    QCOMPARE(fallback.sent.all.last().remoteId, quint16(5));
}

void TestGLinkConnection::outsiderStartsAtTheSecondUser()
{
    FakeFallbackLink fallback;
    OpenConnection outsider(9);
    GLinkConnection five(5, &fallback, nullptr, nullptr);
    GLinkConnection six(6, &fallback, nullptr, nullptr);
    for (GLinkConnection* unit : {&five, &six}) {
        unit->initChannel(&fallback);
        unit->enqueueMessage(Status, "in flight", false);
        unit->enqueueMessage(Status, "waiting", false);
    }
    LogSpy log;
    RPGComGLinkMessage message;
    QCOMPARE(outsider.getNextFallbackMessage(message), &six);
    QCOMPARE(log.lines(),
             (QStringList{"GLinkConnection::getNextFallbackMessage: Invalid index, resetting...",
                          "GLinkConnection::getNextFallbackMessage: Searched for index of 9",
                          "GLinkConnection::getNextFallbackMessage:  Fallback user count 2",
                          "GLinkConnection::getNextFallbackMessage:  Fallback user list:",
                          "GLinkConnection::getNextFallbackMessage:  5", "GLinkConnection::getNextFallbackMessage:  6",
                          "GLinkConnection::getNextFallbackMessage:  End of fallback user list."}));
    QCOMPARE(outsider.getNextFallbackMessage(message), &five);
    QCOMPARE(outsider.getNextFallbackMessage(message), static_cast<GLinkConnection*>(nullptr));
}

void TestGLinkConnection::outsiderWithoutUsersFindsNothing()
{
    FakeFallbackLink fallback;
    OpenConnection outsider(9);
    RPGComGLinkMessage message;
    QCOMPARE(outsider.getNextFallbackMessage(message), static_cast<GLinkConnection*>(nullptr));

    // With one user, the start at the second one wraps to the first.
    GLinkConnection five(5, &fallback, nullptr, nullptr);
    five.initChannel(&fallback);
    five.enqueueMessage(Status, "in flight", false);
    five.enqueueMessage(Status, "waiting", false);
    QCOMPARE(outsider.getNextFallbackMessage(message), &five);
    QCOMPARE(message.data, QByteArray("waiting"));
}

void TestGLinkConnection::destroyedConnectionLeavesTheTurns()
{
    FakeFallbackLink fallback;
    GLinkConnection five(5, &fallback, nullptr, nullptr);
    five.initChannel(&fallback);
    {
        GLinkConnection six(6, &fallback, nullptr, nullptr);
        six.initChannel(&fallback);
        six.enqueueMessage(Status, "in flight", false);
        six.enqueueMessage(Status, "waiting", false);
    }
    five.enqueueMessage(Status, "1", false);
    five.enqueueMessage(Status, "2", false);
    five.messageSent(fallback.sent.lastRefNr());
    QCOMPARE(fallback.sent.texts(), (QStringList{"8:in flight", "8:1", "8:2"}));
}

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
