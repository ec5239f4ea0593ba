#include "joinedlinks.h"
#include "logspy.h"

#include <QtTest>

class TestGLinkConnectionTurns : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { m_noApplications.reset(new NoApplications); }
    void cleanupTestCase() { m_noApplications.reset(); }

    void queuedMessagesAlternateBetweenUnits();
    void messageDoesNotOvertakeOneThatMissedItsTurn_data();
    void messageDoesNotOvertakeOneThatMissedItsTurn();
    void prependedPeriodicDataReplacesWhatMissedItsTurn();
    void prependedMessageGoesBeforeWhatMissedItsTurn();
    void commandsOfAllUnitsGoFirst();
    void onlyUserOfTheFallbackGoesOnAtOnce();
    void unitThatLeavesTheFallbackPassesTheTurnOn();
    void outsiderStartsAtTheSecondUser();
    void outsiderWithoutUsersFindsNothing();
    void destroyedConnectionLeavesTheTurns();

private:
    QScopedPointer<NoApplications> m_noApplications;
};

namespace {

/// Leaves `unit` with a message of that kind waiting and none in flight: the turn went to `other`.
void missTurn(GLinkConnection& unit, GLinkConnection& other, FakeFallbackLink& fallback, quint8 msgId)
{
    unit.initChannel(&fallback);
    other.initChannel(&fallback);
    unit.enqueueMessage(msgId, "first", false);
    const quint32 first = fallback.sent.lastRefNr();
    unit.enqueueMessage(msgId, "waits", false);
    other.enqueueMessage(Command, "other 1", false);
    other.enqueueMessage(Command, "other 2", false);
    unit.messageSent(first);
}

} // namespace

void TestGLinkConnectionTurns::queuedMessagesAlternateBetweenUnits()
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

void TestGLinkConnectionTurns::messageDoesNotOvertakeOneThatMissedItsTurn_data()
{
    QTest::addColumn<bool>("prepend");
    QTest::newRow("appended") << false;
    QTest::newRow("prepended, which commands are not") << true;
}

// The turn went to another unit while a message of this one waited: the next one must not overtake it.
void TestGLinkConnectionTurns::messageDoesNotOvertakeOneThatMissedItsTurn()
{
    QFETCH(const bool, prepend);
    FakeFallbackLink fallback;
    GLinkConnection five(5, &fallback, nullptr, nullptr);
    GLinkConnection six(6, &fallback, nullptr, nullptr);
    missTurn(five, six, fallback, Command);
    five.enqueueMessage(Command, "newer", prepend);
    QCOMPARE(fallback.sent.texts(), (QStringList{"3:first", "3:other 1", "3:other 2", "3:waits"}));

    five.messageSent(fallback.sent.lastRefNr());
    QCOMPARE(fallback.sent.texts().last(), QString("3:newer"));
}

// Sent ahead of them, the newer values would be overtaken by the older ones.
void TestGLinkConnectionTurns::prependedPeriodicDataReplacesWhatMissedItsTurn()
{
    FakeFallbackLink fallback;
    GLinkConnection five(5, &fallback, nullptr, nullptr);
    GLinkConnection six(6, &fallback, nullptr, nullptr);
    missTurn(five, six, fallback, Periodic);
    five.enqueueMessage(Periodic, "newer", true);
    QCOMPARE(fallback.sent.texts().last(), QString("4:newer"));

    const int sentSoFar = fallback.sent.all.size();
    five.messageSent(fallback.sent.lastRefNr());
    QCOMPARE(fallback.sent.texts().size(), sentSoFar);
}

void TestGLinkConnectionTurns::prependedMessageGoesBeforeWhatMissedItsTurn()
{
    FakeFallbackLink fallback;
    GLinkConnection five(5, &fallback, nullptr, nullptr);
    GLinkConnection six(6, &fallback, nullptr, nullptr);
    missTurn(five, six, fallback, Forward);
    five.enqueueMessage(InitAck, "answer", true);
    QCOMPARE(fallback.sent.texts().last(), QString("2:answer"));
}

void TestGLinkConnectionTurns::commandsOfAllUnitsGoFirst()
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

void TestGLinkConnectionTurns::onlyUserOfTheFallbackGoesOnAtOnce()
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
void TestGLinkConnectionTurns::unitThatLeavesTheFallbackPassesTheTurnOn()
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

void TestGLinkConnectionTurns::outsiderStartsAtTheSecondUser()
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

void TestGLinkConnectionTurns::outsiderWithoutUsersFindsNothing()
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

void TestGLinkConnectionTurns::destroyedConnectionLeavesTheTurns()
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

QTEST_GUILESS_MAIN(TestGLinkConnectionTurns)
#include "tst_glinkconnectionturns.moc"
