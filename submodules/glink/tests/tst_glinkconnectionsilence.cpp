#include "joinedlinks.h"
#include "logspy.h"
#include "standingclock.h"

#include <QtTest>

#include <chrono>

using namespace std::chrono_literals;

namespace {

constexpr char GivenUp[] = "GLinkConnection: message to RU 5 given up, not acknowledged over the fallback.";

/// Two units on the fallback, nothing sent yet.
struct TwoUnits
{
    TwoUnits()
    {
        five.initChannel(&fallback);
        six.initChannel(&fallback);
    }

    FakeFallbackLink fallback;
    GLinkConnection five{5, &fallback, nullptr, nullptr};
    GLinkConnection six{6, &fallback, nullptr, nullptr};
    StandingClock clock;
    LogSpy log;
};

} // namespace

/// Units on the fallback that do not acknowledge, and what that costs themselves and the others.
class TestGLinkConnectionSilence : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { m_noApplications.reset(new NoApplications); }
    void cleanupTestCase() { m_noApplications.reset(); }

    void messageInFlightForASecondStillHoldsTheNext();
    void messageInFlightForLongerIsGivenUp();
    void whatWaitedGoesBeforeTheMessageThatFellDue();
    void givenUpMessageIsToldOnceAMinute();
    void lateAcknowledgementOfAGivenUpMessageIsIgnored();
    void turnPassesOnWhenAMessageIsGivenUp();
    void silentUnitGetsNoTurnOfTheOthers();
    void turnThatASilentUnitTookDoesNotMakeItYoung();
    void unitThatAcknowledgesAgainGetsTurns();
    void silentUnitKeepsItsNewestStatusOnly();
    void nothingIsGivenUpOverTcp();

    void ownAcknowledgementSendsTheUnitsNextMessage();
    void acknowledgementOfAnotherKindChangesNothing();
    void acknowledgementWithoutAMessageInFlightChangesNothing();
    void acknowledgementOverTheFallbackIsNoneOverTcp();
    void unitsGoOnEachAtItsOwnPace();

private:
    QScopedPointer<NoApplications> m_noApplications;
};

void TestGLinkConnectionSilence::messageInFlightForASecondStillHoldsTheNext()
{
    TwoUnits units;
    units.five.enqueueMessage(Status, "1", false);
    units.clock.advance(1000ms);
    units.five.enqueueMessage(Status, "2", false);
    QCOMPARE(units.fallback.sent.texts(), QStringList{"8:1"});
    QCOMPARE(units.log.lines(), QStringList());
}

void TestGLinkConnectionSilence::messageInFlightForLongerIsGivenUp()
{
    TwoUnits units;
    units.five.enqueueMessage(Status, "1", false);
    units.clock.advance(1001ms);
    units.five.enqueueMessage(Status, "2", false);
    QCOMPARE(units.fallback.sent.texts(), (QStringList{"8:1", "8:2"}));
    QCOMPARE(units.log.lines(), QStringList{GivenUp});
}

void TestGLinkConnectionSilence::whatWaitedGoesBeforeTheMessageThatFellDue()
{
    TwoUnits units;
    units.five.enqueueMessage(Status, "in flight", false);
    units.five.enqueueMessage(Forward, "waits", false);
    units.clock.advance(1001ms);
    units.five.enqueueMessage(Forward, "due", false);
    QCOMPARE(units.fallback.sent.texts(), (QStringList{"8:in flight", "5:waits"}));

    units.five.messageSent(units.fallback.sent.lastRefNr());
    QCOMPARE(units.fallback.sent.texts().last(), QString("5:due"));
}

void TestGLinkConnectionSilence::givenUpMessageIsToldOnceAMinute()
{
    TwoUnits units;
    for (int second = 0; second < 62; ++second) {
        units.five.enqueueMessage(Status, "due", false);
        units.clock.advance(1001ms);
    }
    QCOMPARE(units.fallback.sent.texts().size(), 62);
    QCOMPARE(units.log.lines(), (QStringList{GivenUp, GivenUp}));
}

void TestGLinkConnectionSilence::lateAcknowledgementOfAGivenUpMessageIsIgnored()
{
    TwoUnits units;
    units.five.enqueueMessage(Forward, "1", false);
    const quint32 first = units.fallback.sent.lastRefNr();
    units.clock.advance(1001ms);
    units.five.enqueueMessage(Forward, "2", false);
    units.five.enqueueMessage(Forward, "3", false);
    units.five.messageSent(first);
    QCOMPARE(units.fallback.sent.texts(), (QStringList{"5:1", "5:2"}));
}

// Six was free, but its message waited for a turn that never came.
void TestGLinkConnectionSilence::turnPassesOnWhenAMessageIsGivenUp()
{
    TwoUnits units;
    units.six.enqueueMessage(Forward, "six 1", false);
    const quint32 first = units.fallback.sent.lastRefNr();
    units.six.enqueueMessage(Forward, "six 2", false);
    units.five.enqueueMessage(Command, "five 1", false);
    units.five.enqueueMessage(Command, "five 2", false);
    units.six.messageSent(first); // the turn goes to five, which has gone away
    QCOMPARE(units.fallback.sent.texts(), (QStringList{"5:six 1", "3:five 1", "3:five 2"}));

    units.clock.advance(1001ms);
    units.five.enqueueMessage(Command, "five 3", false);
    QCOMPARE(units.fallback.sent.texts().mid(3), (QStringList{"5:six 2", "3:five 3"}));
}

void TestGLinkConnectionSilence::silentUnitGetsNoTurnOfTheOthers()
{
    TwoUnits units;
    units.five.enqueueMessage(Command, "five 1", false);
    units.clock.advance(1001ms);
    for (const char* text : {"five 2", "five 3"}) {
        units.five.enqueueMessage(Command, text, false);
    }
    for (const char* text : {"six 1", "six 2"}) {
        units.six.enqueueMessage(Forward, text, false);
    }
    units.six.messageSent(units.fallback.sent.lastRefNr());
    QCOMPARE(units.fallback.sent.texts(), (QStringList{"3:five 1", "3:five 2", "5:six 1", "5:six 2"}));
}

// In flight is what has not been acknowledged, whatever was sent after it.
void TestGLinkConnectionSilence::turnThatASilentUnitTookDoesNotMakeItYoung()
{
    TwoUnits units;
    units.five.enqueueMessage(Command, "five 1", false);
    units.clock.advance(600ms);
    units.five.enqueueMessage(Command, "five 2", false);
    units.six.enqueueMessage(Forward, "six 1", false);
    units.six.messageSent(units.fallback.sent.lastRefNr());
    QCOMPARE(units.fallback.sent.texts().last(), QString("3:five 2"));

    units.clock.advance(401ms);
    units.five.enqueueMessage(Command, "five 3", false);
    QCOMPARE(units.fallback.sent.texts().last(), QString("3:five 3"));
}

void TestGLinkConnectionSilence::unitThatAcknowledgesAgainGetsTurns()
{
    TwoUnits units;
    units.five.enqueueMessage(Command, "five 1", false);
    units.clock.advance(1001ms);
    units.five.enqueueMessage(Command, "five 2", false);
    units.five.messageSent(units.fallback.sent.lastRefNr());
    units.five.enqueueMessage(Command, "five 3", false);
    units.five.enqueueMessage(Command, "five 4", false);
    units.six.enqueueMessage(Forward, "six 1", false);
    units.six.messageSent(units.fallback.sent.lastRefNr());
    QCOMPARE(units.fallback.sent.texts().last(), QString("3:five 4"));
}

// When it hears again after a while, it is not told first what was the case then.
void TestGLinkConnectionSilence::silentUnitKeepsItsNewestStatusOnly()
{
    TwoUnits units;
    for (const char* text : {"0.0", "0.5", "1.0"}) {
        units.five.enqueueMessage(Status, text, false);
        units.clock.advance(500ms);
    }
    units.five.enqueueMessage(Forward, "a message", false); // given up: 0.5 goes out
    for (const char* text : {"2.0", "2.5"}) {
        units.five.enqueueMessage(Status, text, false);
    }
    units.five.messageSent(units.fallback.sent.lastRefNr());
    units.five.messageSent(units.fallback.sent.lastRefNr());
    units.five.messageSent(units.fallback.sent.lastRefNr());
    QCOMPARE(units.fallback.sent.texts(), (QStringList{"8:0.0", "8:0.5", "5:a message", "8:2.5"}));
}

void TestGLinkConnectionSilence::nothingIsGivenUpOverTcp()
{
    StandingClock clock;
    FakeTcpLink tcp;
    GLinkConnection unit(5, &tcp, nullptr, nullptr);
    unit.initChannel(&tcp);
    unit.enqueueMessage(Status, "1", false);
    clock.advance(3999ms);
    unit.enqueueMessage(Status, "2", false);
    QCOMPARE(tcp.sent.texts(), QStringList{"8:1"});
}

// --- Acknowledgements of the unit itself -----------------------------------------------------------------------------

void TestGLinkConnectionSilence::ownAcknowledgementSendsTheUnitsNextMessage()
{
    TwoUnits units;
    for (const char* text : {"1", "2"}) {
        units.five.enqueueMessage(Forward, text, false);
        units.six.enqueueMessage(Command, text, false);
    }
    units.five.acknowledged(Forward);
    QCOMPARE(units.fallback.sent.texts(), (QStringList{"5:1", "3:1", "5:2"}));
}

void TestGLinkConnectionSilence::acknowledgementOfAnotherKindChangesNothing()
{
    TwoUnits units;
    units.five.enqueueMessage(Forward, "1", false);
    units.five.enqueueMessage(Forward, "2", false);
    units.five.acknowledged(Status);
    QCOMPARE(units.fallback.sent.texts(), QStringList{"5:1"});
}

void TestGLinkConnectionSilence::acknowledgementWithoutAMessageInFlightChangesNothing()
{
    TwoUnits units;
    units.five.enqueueMessage(Forward, "1", false);
    units.five.acknowledged(Forward);
    units.five.acknowledged(Forward);
    QCOMPARE(units.fallback.sent.texts(), QStringList{"5:1"});
    QCOMPARE(units.log.lines(), QStringList());
}

void TestGLinkConnectionSilence::acknowledgementOverTheFallbackIsNoneOverTcp()
{
    FakeTcpLink tcp;
    GLinkConnection unit(5, &tcp, nullptr, nullptr);
    unit.initChannel(&tcp);
    unit.enqueueMessage(Status, "1", false);
    unit.enqueueMessage(Status, "2", false);
    unit.acknowledged(Status);
    QCOMPARE(tcp.sent.texts(), QStringList{"8:1"});
}

// Five does not acknowledge and has commands; six goes on as if it were alone.
void TestGLinkConnectionSilence::unitsGoOnEachAtItsOwnPace()
{
    TwoUnits units;
    for (int i = 0; i < 10; ++i) {
        units.five.enqueueMessage(Command, "five", false);
        units.six.enqueueMessage(Forward, QByteArray::number(i), false);
    }
    for (int i = 0; i < 10; ++i) {
        units.six.acknowledged(Forward);
    }
    QCOMPARE(units.fallback.sent.count(Command), 1);
    QCOMPARE(units.fallback.sent.texts().last(), QString("5:9"));
}

QTEST_GUILESS_MAIN(TestGLinkConnectionSilence)
#include "tst_glinkconnectionsilence.moc"
