#include "glinkframes.h"
#include "joinedlinks.h"
#include "logspy.h"
#include "standingclock.h"

#include <QSignalSpy>
#include <QtTest>

#include <chrono>

class TestGLinkConnectionReturns : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { m_noApplications.reset(new NoApplications); }
    void cleanupTestCase() { m_noApplications.reset(); }

    // A unit that comes back
    void supersededTransportIsClosed();
    void sameTransportAgainIsNotClosed();
    void supersedingSendsOneMessageAtATime();
    void newTransportGetsOneAnswerToItsInit();
    void goneTransportDoesNotStopTheQueue();
    void initIsAnsweredThoughAMessageIsInFlightOnTheTransport();
    void queueGoesOnAfterAnotherInitOnTheSameTransport();
    void tcpTakesTheNextMessageAfterAnEpisodeOnTheFallback();
    void transportThatSpeaksForAnotherUnitIsFreeForThatOne();

    // INIT over TCP while the fallback is in use
    void initOverTcpIsAnsweredOnceOverTcp_data();
    void initOverTcpIsAnsweredOnceOverTcp();
    void initOverTcpLeavesTheFallbacksMessageInFlight();
    void acknowledgementOverTheClosingFallbackSendsNothingThere();
    void initOverTheClosingFallbackIsAnsweredThere();
    void initOverTheFallbackBehindOneOverTcpKeepsTheFallback();
    void initOverTheFallbackIsAnsweredThere();

    // What the fallback gives back
    void whatTheFallbackGivesBackGoesOutFirst();
    void whatIsReplacedAnywayIsNotTakenBack_data();
    void whatIsReplacedAnywayIsNotTakenBack();
    void nothingIsAwaitedFromAFallbackThatNothingWasSentOver();
    void unitThatLeavesBeforeItsReturnIsGivenBackToo();
    void secondEpisodeOnTheFallbackAwaitsItsOwnAnswer();
    void whatComesBackTooLateIsDropped();
    void ownerThatTakesNothingBackHoldsNothingUp();

private:
    QScopedPointer<NoApplications> m_noApplications;
};

namespace {

/// A message as the fallback transport frames it. Nothing looks at its time and its CRCs again.
QByteArray framed(quint8 msgId, const QByteArray& payload)
{
    QByteArray frame(17, '\0');
    frame[3] = static_cast<char>(msgId);
    return frame + payload + QByteArray(4, '\0');
}

/// A unit on the fallback with one command in flight and one behind it, whose owner takes back.
struct ReturningUnit
{
    ReturningUnit()
    {
        unit.setTakesBack(true);
        unit.initChannel(&fallback);
        unit.enqueueMessage(Command, "1", false);
        unit.enqueueMessage(Command, "2", false);
    }
    void goOverToTcp()
    {
        joinTcp(unit, tcp);
        unit.setFallbackLink(nullptr);
    }
    /// What went out over TCP, each message acknowledged.
    QStringList overTcp()
    {
        for (int i = 0; i < 5; ++i) {
            unit.messageSent(tcp.sent.lastRefNr());
        }
        return tcp.sent.texts();
    }

    StandingClock clock;
    FakeTcpLink tcp;
    FakeFallbackLink fallback;
    GLinkConnection unit{5, &fallback, nullptr, nullptr};
};

} // namespace

// --- A unit that comes back -----------------------------------------------------------------------------------------

void TestGLinkConnectionReturns::supersededTransportIsClosed()
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

void TestGLinkConnectionReturns::sameTransportAgainIsNotClosed()
{
    FakeTcpLink tcp;
    QSignalSpy finished(&tcp, &GLinkTransportTcp::finished);
    GLinkConnection unit(5, &tcp, nullptr, nullptr);
    unit.initChannel(&tcp);
    QCOMPARE(unit.setGLink(&tcp), GLinkConnection::TCP);
    QCoreApplication::processEvents();
    QCOMPARE(finished.count(), 0);
}

void TestGLinkConnectionReturns::supersedingSendsOneMessageAtATime()
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
void TestGLinkConnectionReturns::newTransportGetsOneAnswerToItsInit()
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
void TestGLinkConnectionReturns::goneTransportDoesNotStopTheQueue()
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
void TestGLinkConnectionReturns::initIsAnsweredThoughAMessageIsInFlightOnTheTransport()
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
void TestGLinkConnectionReturns::queueGoesOnAfterAnotherInitOnTheSameTransport()
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

void TestGLinkConnectionReturns::tcpTakesTheNextMessageAfterAnEpisodeOnTheFallback()
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

// The message for the unit that the transport spoke for first was under way when the INIT of the second one came.
void TestGLinkConnectionReturns::transportThatSpeaksForAnotherUnitIsFreeForThatOne()
{
    PacedTcpLink tcp;
    GLinkConnection first(5, &tcp, nullptr, nullptr);
    first.initChannel(&tcp);
    first.enqueueMessage(Status, "for the first", false);
    QCoreApplication::processEvents();
    first.setGLink(nullptr);

    GLinkConnection second(6, &tcp, nullptr, nullptr);
    second.initChannel(&tcp);
    second.enqueueMessage(InitAck, "answer", true);
    QCoreApplication::processEvents();
    QCOMPARE(tcp.written, (QList<int>{Status, InitAck}));
}

// --- INIT over TCP while the fallback is in use ---------------------------------------------------------------------

void TestGLinkConnectionReturns::initOverTcpIsAnsweredOnceOverTcp_data()
{
    QTest::addColumn<bool>("isInFlight");
    QTest::addColumn<bool>("isQueued");

    QTest::newRow("nothing in flight") << false << false;
    QTest::newRow("a message in flight on the fallback") << true << false;
    QTest::newRow("one in flight, one waiting") << true << true;
}

// An INIT over TCP while the fallback is in use yields exactly one INITACK.
void TestGLinkConnectionReturns::initOverTcpIsAnsweredOnceOverTcp()
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
void TestGLinkConnectionReturns::initOverTcpLeavesTheFallbacksMessageInFlight()
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

void TestGLinkConnectionReturns::acknowledgementOverTheClosingFallbackSendsNothingThere()
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

void TestGLinkConnectionReturns::initOverTheClosingFallbackIsAnsweredThere()
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

// The unit has gone on to the fallback before the order to close that arrives there.
void TestGLinkConnectionReturns::initOverTheFallbackBehindOneOverTcpKeepsTheFallback()
{
    FakeTcpLink tcp;
    FakeFallbackLink fallback;
    constexpr quint16 id = 0x0203; // of Frames::init()
    GLinkConnection unit(id, &fallback, nullptr, nullptr);
    joinFallback(unit, fallback);
    const QSignalSpy closed(&fallback, &GLinkTransportBase::closedConnection);
    const QSignalSpy joined(&fallback, &GLinkTransportFallback::newConnection);
    unit.setGLink(&tcp);
    tcp.handleInitMsg();
    unit.initChannel(&tcp);
    fallback.dataFromServiceLayer(id, Frames::init());
    QCOMPARE(joined.count(), 1);

    QCoreApplication::processEvents();
    QCOMPARE(closed.count(), 0);
}

void TestGLinkConnectionReturns::initOverTheFallbackIsAnsweredThere()
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

// --- What the fallback gives back -----------------------------------------------------------------------------------

void TestGLinkConnectionReturns::whatTheFallbackGivesBackGoesOutFirst()
{
    ReturningUnit f;
    f.goOverToTcp();
    f.unit.enqueueMessage(Command, "3", false);
    f.unit.enqueueMessage(InitAck, "answer", true);
    f.unit.enqueueMessage(Status, "now", false);
    QCOMPARE(f.overTcp(), QStringList());

    f.unit.takeBack({framed(Forward, "before 1"), framed(Command, "1")});
    QCOMPARE(f.overTcp(), (QStringList{"3:1", "3:2", "3:3", "2:answer", "5:before 1", "8:now"}));
    QCOMPARE(f.fallback.sent.texts(), QStringList{"3:1"});
}

void TestGLinkConnectionReturns::whatIsReplacedAnywayIsNotTakenBack_data()
{
    QTest::addColumn<QByteArray>("frame");

    QTest::newRow("answer to an earlier INIT") << framed(InitAck, "old");
    QTest::newRow("periodic data") << framed(Periodic, "old");
    QTest::newRow("base status") << framed(Status, "old");
    QTest::newRow("no frame") << QByteArray(20, '\3');
    QTest::newRow("nothing") << QByteArray();
}

void TestGLinkConnectionReturns::whatIsReplacedAnywayIsNotTakenBack()
{
    QFETCH(QByteArray, frame);
    ReturningUnit f;
    f.goOverToTcp();
    f.unit.takeBack({frame});
    QCOMPARE(f.overTcp(), QStringList{"3:2"});
}

void TestGLinkConnectionReturns::nothingIsAwaitedFromAFallbackThatNothingWasSentOver()
{
    FakeTcpLink tcp;
    FakeFallbackLink fallback;
    GLinkConnection unit(5, &fallback, nullptr, nullptr);
    unit.setTakesBack(true);
    unit.initChannel(&fallback);
    joinTcp(unit, tcp);
    unit.setFallbackLink(nullptr);
    unit.enqueueMessage(InitAck, "answer", true);
    QCOMPARE(tcp.sent.texts(), QStringList{"2:answer"});
}

// It said farewell on the fallback, and comes by TCP a moment later.
void TestGLinkConnectionReturns::unitThatLeavesBeforeItsReturnIsGivenBackToo()
{
    ReturningUnit f;
    f.unit.setFallbackLink(nullptr);
    QCOMPARE(f.unit.activeLinkType(), GLinkConnection::NONE);
    joinTcp(f.unit, f.tcp);
    QCOMPARE(f.overTcp(), QStringList());
    f.unit.takeBack({framed(Command, "1")});
    QCOMPARE(f.overTcp(), (QStringList{"3:1", "3:2"}));
}

void TestGLinkConnectionReturns::secondEpisodeOnTheFallbackAwaitsItsOwnAnswer()
{
    ReturningUnit f;
    f.goOverToTcp();
    joinFallback(f.unit, f.fallback); // before the first answer
    QCOMPARE(f.fallback.sent.texts(), QStringList{"3:1"});
    f.unit.takeBack({framed(Command, "1")});
    QCOMPARE(f.fallback.sent.texts(), (QStringList{"3:1", "3:1"}));

    f.unit.initChannel(&f.tcp);
    f.unit.setFallbackLink(nullptr);
    QCOMPARE(f.overTcp(), QStringList());
    f.unit.takeBack({});
    QCOMPARE(f.overTcp(), QStringList{"3:2"});
}

void TestGLinkConnectionReturns::whatComesBackTooLateIsDropped()
{
    LogSpy log;
    ReturningUnit f;
    f.goOverToTcp();
    f.clock.advance(std::chrono::milliseconds(1000));
    f.unit.enqueueMessage(Status, "first", false);
    QCOMPARE(f.tcp.sent.texts(), QStringList());
    f.clock.advance(std::chrono::milliseconds(1));
    f.unit.enqueueMessage(Status, "second", false);
    QCOMPARE(f.overTcp(), (QStringList{"3:2", "8:first", "8:second"}));

    f.unit.takeBack({framed(Command, "1")});
    QCOMPARE(f.overTcp(), (QStringList{"3:2", "8:first", "8:second"}));
    QCOMPARE(log.count("GLinkConnection: 1 messages to RU 5 dropped, the fallback gave them back too late."), 1);
}

void TestGLinkConnectionReturns::ownerThatTakesNothingBackHoldsNothingUp()
{
    ReturningUnit f;
    f.unit.setTakesBack(false);
    f.goOverToTcp();
    QCOMPARE(f.overTcp(), QStringList{"3:2"});
}

QTEST_GUILESS_MAIN(TestGLinkConnectionReturns)
#include "tst_glinkconnectionreturns.moc"
