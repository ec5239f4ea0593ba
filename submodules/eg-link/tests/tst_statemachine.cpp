#include "logspy.h"
#include "statemachine.h"

#include <QSignalSpy>
#include <QTest>
#include <QTimer>

namespace {

constexpr quint16 ShortRecoveryMs = 60;

/// Never raised by anyone; used to begin in a state of the test's choice.
constexpr auto NoEvent = static_cast<EGLinkEvent>(99);

QVector<Transition> tableStartingIn(EGLinkState state)
{
    QVector<Transition> table = egLinkTransitionTable();
    table.prepend({state, NoEvent, state, state, 0});
    return table;
}

QList<int> reported(const QSignalSpy& spy)
{
    QList<int> states;
    for (const QList<QVariant>& arguments : spy) {
        states.append(arguments.first().value<EGLinkState>());
    }
    return states;
}

void raise(StateMachine& machine, std::initializer_list<EGLinkEvent> events)
{
    for (const EGLinkEvent event : events) {
        machine.receiveEvent(event);
    }
}

/// What an event does in a state, and nothing else.
struct Outcome
{
    EGLinkState newState;
    int report;  ///< reported state, or Silent
    int timerMs; ///< what the recovery timer runs with afterwards, or Untouched
};

constexpr int Silent = -1;
constexpr int Untouched = -1;
constexpr int Stopped = 0;

} // namespace

class TestStateMachine : public QObject
{
    Q_OBJECT

private slots:
    void enumerationValues();
    void everyEventInEveryState_data();
    void everyEventInEveryState();
    void startsSilentlyInTheFirstRowsState();
    void linesInTheLog();
    void machineWithoutTimesHasNoTimer();
    void machineWithoutRowsIgnoresEverything();
    void configurationWithoutPeriodicDataIsOperationalAtOnce();
    void recoversByTimeAlone();
    void periodicDataDoNotShortenTheRecovery();
    void everyFurtherErrorPushesTheRecoveryBack();
    void disableStopsTheRecoveryTimer();
    void expiredTimerWaitsBehindTheEventLoop();
    void firstMatchingRowWins();
    void recoveryTakesFiveSecondsByDefault();
};

void TestStateMachine::enumerationValues()
{
    QCOMPARE(int(NOT_CONFIGURED), 0);
    QCOMPARE(int(OPERATIONAL), 1);
    QCOMPARE(int(NO_LINK), 2);
    QCOMPARE(int(LINK_ERROR), 3);
    QCOMPARE(int(INTERFACE_ERROR), 4);
    QCOMPARE(int(DATA_ERROR), 5);
    QCOMPARE(int(PASSIVE), 6);
    QCOMPARE(int(LINK_ERROR_INITIAL), 10002);

    QCOMPARE(int(CONFIGURE), 0);
    QCOMPARE(int(PERIODIC_DATA), 1);
    QCOMPARE(int(CMD_ACK_FAILURE), 2);
    QCOMPARE(int(CRC_ERROR), 3);
    QCOMPARE(int(SEQ_NO_ERROR), 4);
    QCOMPARE(int(NO_PERIODIC_DATA), 5);
    QCOMPARE(int(DISABLE), 6);
    QCOMPARE(int(TIMER_EXPIRED), 7);
    QCOMPARE(int(CONFIGURE_NO_VRPO), 8);
}

void TestStateMachine::everyEventInEveryState_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<int>("event");
    QTest::addColumn<int>("newState");
    QTest::addColumn<int>("report");
    QTest::addColumn<int>("timerMs");

    struct Row
    {
        const char* name;
        EGLinkState state;
        Outcome onEvent[9]; // CONFIGURE, PERIODIC_DATA, CMD_ACK_FAILURE, ... in the order of their numbers
    };
    const auto stay = [](EGLinkState state) {
        return Outcome{state, Silent, Untouched};
    };
    const Outcome nc = stay(NOT_CONFIGURED);
    const Outcome op = stay(OPERATIONAL);
    const Outcome le = stay(LINK_ERROR);
    const Outcome li = stay(LINK_ERROR_INITIAL);
    const Outcome nl = stay(NO_LINK);
    const Outcome ie = stay(INTERFACE_ERROR);
    const Outcome de = stay(DATA_ERROR);
    const Outcome pa = stay(PASSIVE);

    const Outcome configured{LINK_ERROR_INITIAL, LINK_ERROR, Stopped};
    const Outcome works{OPERATIONAL, OPERATIONAL, Stopped};
    const Outcome fails{LINK_ERROR, LINK_ERROR, 5000};
    const Outcome failsOn{LINK_ERROR, Silent, 5000};
    const Outcome disabled{NOT_CONFIGURED, NOT_CONFIGURED, Stopped};

    const Row rows[] = {
        // What each event makes of a state, in the order of the events below.
        {"not configured", NOT_CONFIGURED, {configured, nc, nc, nc, nc, nc, nc, nc, nc}},
        {"operational", OPERATIONAL, {op, op, fails, op, op, fails, disabled, op, op}},
        {"no link", NO_LINK, {nl, nl, nl, nl, nl, nl, nl, nl, nl}},
        {"link error", LINK_ERROR, {le, le, failsOn, le, le, failsOn, disabled, works, le}},
        {"interface error", INTERFACE_ERROR, {ie, ie, ie, ie, ie, ie, ie, ie, ie}},
        {"data error", DATA_ERROR, {de, de, de, de, de, de, de, de, de}},
        {"passive", PASSIVE, {pa, pa, pa, pa, pa, pa, pa, pa, pa}},
        {"initial link error", LINK_ERROR_INITIAL, {li, works, li, li, li, li, disabled, li, works}},
    };
    const char* const events[] = {"CONFIGURE", "PERIODIC_DATA", "CMD_ACK_FAILURE",
                                  "CRC_ERROR", "SEQ_NO_ERROR",  "NO_PERIODIC_DATA",
                                  "DISABLE",   "TIMER_EXPIRED", "CONFIGURE_NO_VRPO"};
    for (const Row& row : rows) {
        for (int event = 0; event < 9; ++event) {
            const Outcome& outcome = row.onEvent[event];
            QTest::addRow("%s, %s", row.name, events[event])
                << int(row.state) << event << int(outcome.newState) << outcome.report << outcome.timerMs;
        }
    }
}

void TestStateMachine::everyEventInEveryState()
{
    QFETCH(int, state);
    QFETCH(int, event);
    QFETCH(int, newState);
    QFETCH(int, report);
    QFETCH(int, timerMs);

    // A running timer shows whether the row stops it, restarts it or leaves it alone.
    constexpr int alreadyRunningMs = 30000;
    StateMachine machine(tableStartingIn(EGLinkState(state)), nullptr);
    auto* const timer = machine.findChild<QTimer*>();
    QVERIFY(timer != nullptr);
    timer->start(alreadyRunningMs);
    const QSignalSpy spy(&machine, &StateMachine::stateUpdate);

    machine.receiveEvent(EGLinkEvent(event));

    QCOMPARE(int(machine.currentState()), newState);
    QCOMPARE(reported(spy), report == Silent ? QList<int>() : QList<int>{report});
    QCOMPARE(timer->isActive(), timerMs != Stopped);
    if (timer->isActive()) {
        QCOMPARE(timer->interval(), timerMs == Untouched ? alreadyRunningMs : timerMs);
    }
}

void TestStateMachine::startsSilentlyInTheFirstRowsState()
{
    StateMachine machine(egLinkTransitionTable(), nullptr);
    const QSignalSpy spy(&machine, &StateMachine::stateUpdate);

    QCOMPARE(machine.currentState(), NOT_CONFIGURED);
    machine.receiveEvent(PERIODIC_DATA);

    QCOMPARE(machine.currentState(), NOT_CONFIGURED);
    QCOMPARE(spy.count(), 0);
}

void TestStateMachine::linesInTheLog()
{
    const LogSpy log;
    StateMachine machine(egLinkTransitionTable(), nullptr);
    raise(machine, {PERIODIC_DATA, CONFIGURE, CRC_ERROR, PERIODIC_DATA, DISABLE});
    QCOMPARE(log.lines(QtDebugMsg), QStringList{"StateMachine::StateMachine()"});
    QCOMPARE(log.lines().size(), 1);
}

void TestStateMachine::machineWithoutTimesHasNoTimer()
{
    StateMachine machine({{OPERATIONAL, DISABLE, PASSIVE, PASSIVE, 0}}, nullptr);
    QVERIFY(machine.findChild<QTimer*>() == nullptr);
    const QSignalSpy spy(&machine, &StateMachine::stateUpdate);
    machine.receiveEvent(DISABLE);
    QCOMPARE(reported(spy), QList<int>{PASSIVE});
}

void TestStateMachine::machineWithoutRowsIgnoresEverything()
{
    StateMachine machine({}, nullptr);
    const QSignalSpy spy(&machine, &StateMachine::stateUpdate);
    raise(machine, {CONFIGURE, PERIODIC_DATA, DISABLE});
    QCOMPARE(machine.currentState(), NOT_CONFIGURED);
    QCOMPARE(spy.count(), 0);
}

void TestStateMachine::configurationWithoutPeriodicDataIsOperationalAtOnce()
{
    StateMachine machine(egLinkTransitionTable(), nullptr);
    const QSignalSpy spy(&machine, &StateMachine::stateUpdate);
    raise(machine, {CONFIGURE, CONFIGURE_NO_VRPO});
    QCOMPARE(reported(spy), (QList<int>{LINK_ERROR, OPERATIONAL}));
}

void TestStateMachine::recoversByTimeAlone()
{
    StateMachine machine(egLinkTransitionTable(ShortRecoveryMs), nullptr);
    raise(machine, {CONFIGURE, PERIODIC_DATA});
    QSignalSpy spy(&machine, &StateMachine::stateUpdate);

    machine.receiveEvent(CMD_ACK_FAILURE);
    QVERIFY(spy.wait());

    QCOMPARE(reported(spy), (QList<int>{LINK_ERROR, OPERATIONAL}));
    QVERIFY(!machine.findChild<QTimer*>()->isActive());
}

void TestStateMachine::periodicDataDoNotShortenTheRecovery()
{
    StateMachine machine(egLinkTransitionTable(), nullptr);
    raise(machine, {CONFIGURE, PERIODIC_DATA, NO_PERIODIC_DATA});
    const QSignalSpy spy(&machine, &StateMachine::stateUpdate);
    auto* const timer = machine.findChild<QTimer*>();

    raise(machine, {PERIODIC_DATA, PERIODIC_DATA});

    QCOMPARE(machine.currentState(), LINK_ERROR);
    QCOMPARE(spy.count(), 0);
    QVERIFY(timer->isActive());
}

void TestStateMachine::everyFurtherErrorPushesTheRecoveryBack()
{
    // The errors come five times as often as the recovery takes, as periodic data missing for good do.
    constexpr quint16 recoveryMs = 250;
    StateMachine machine(egLinkTransitionTable(recoveryMs), nullptr);
    raise(machine, {CONFIGURE, PERIODIC_DATA});
    QSignalSpy spy(&machine, &StateMachine::stateUpdate);

    QTimer errors;
    connect(&errors, &QTimer::timeout, &machine, [&machine] { machine.receiveEvent(NO_PERIODIC_DATA); });
    const QSignalSpy expiries(&errors, &QTimer::timeout);
    errors.start(recoveryMs / 5);
    QTRY_VERIFY(expiries.count() >= 12);
    errors.stop();
    QCOMPARE(reported(spy), QList<int>{LINK_ERROR});

    QVERIFY(spy.wait());
    QCOMPARE(reported(spy), (QList<int>{LINK_ERROR, OPERATIONAL}));
}

void TestStateMachine::disableStopsTheRecoveryTimer()
{
    StateMachine machine(egLinkTransitionTable(ShortRecoveryMs), nullptr);
    raise(machine, {CONFIGURE, PERIODIC_DATA, NO_PERIODIC_DATA});
    const QSignalSpy spy(&machine, &StateMachine::stateUpdate);
    const QSignalSpy expiries(machine.findChild<QTimer*>(), &QTimer::timeout);

    machine.receiveEvent(DISABLE);
    QTest::qWait(2 * ShortRecoveryMs); // time in which nothing may happen

    QCOMPARE(reported(spy), QList<int>{NOT_CONFIGURED});
    QCOMPARE(expiries.count(), 0);
}

void TestStateMachine::expiredTimerWaitsBehindTheEventLoop()
{
    StateMachine machine(egLinkTransitionTable(), nullptr);
    raise(machine, {CONFIGURE, PERIODIC_DATA, NO_PERIODIC_DATA});
    QMetaObject::invokeMethod(
        &machine, [&machine] { machine.receiveEvent(DISABLE); }, Qt::QueuedConnection);

    machine.timerExpired();
    QCOMPARE(machine.currentState(), LINK_ERROR);
    const QSignalSpy spy(&machine, &StateMachine::stateUpdate);
    QCoreApplication::processEvents();

    // What the loop already held came first, and the expiry found nothing left to recover.
    QCOMPARE(reported(spy), QList<int>{NOT_CONFIGURED});
}

void TestStateMachine::firstMatchingRowWins()
{
    StateMachine machine({{OPERATIONAL, DISABLE, PASSIVE, PASSIVE, 0}, {OPERATIONAL, DISABLE, NO_LINK, NO_LINK, 0}},
                         nullptr);
    machine.receiveEvent(DISABLE);
    QCOMPARE(machine.currentState(), PASSIVE);
}

void TestStateMachine::recoveryTakesFiveSecondsByDefault()
{
    StateMachine machine(egLinkTransitionTable(), nullptr);
    raise(machine, {CONFIGURE, PERIODIC_DATA, CMD_ACK_FAILURE});
    QCOMPARE(machine.findChild<QTimer*>()->interval(), 5000);
}

QTEST_GUILESS_MAIN(TestStateMachine)
#include "tst_statemachine.moc"
