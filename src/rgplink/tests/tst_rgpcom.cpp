#include "fatalprobe.h"
#include "glinkconnection.h"
#include "hubwithunit.h"
#include "logspy.h"

#include <QSignalSpy>
#include <QtTest>

class TestRGPCom : public QObject
{
    Q_OBJECT

private slots:
    void init() { m_unit.reset(new BaseUnit); }
    void cleanup() { m_unit.reset(); }

    // From remote units
    void commandsAndPeriodicDataComeFromKnownUnitsOnly();
    void serviceForwardsArePassedOn();
    void unexpectedMessagesAreIgnored();
    void machineStopCountsFromTheArmedUnitOnly_data();
    void machineStopCountsFromTheArmedUnitOnly();
    void machineStopNeedsTags();
    void machineStopWithTagsThatAreNoNumbersIsFatal();
    void commandReceiverIsTheArmedUnit();

    // To remote units
    void messageForOneUnit();
    void messageForAllUnits();
    void commandsArePassedOnFromTheEventLoop();
    void periodicDataTellsItsOrigin();
    void serviceForwardGoesToItsUnit();
    void processDataIsShifted_data();
    void processDataIsShifted();
    void baseStatusIsBuiltFromTags();
    void baseStatusWithoutTagsIsZero();
    void missingTagsAreNamedOnceAtStart();
    void baseStatusForAUnitWithoutLinkIsSilent();
    void producersMayBeInOtherThreads();

    // Links
    void numberOfUnitsIsShown();
    void endOfASupersededTransportLeavesTheCurrentOne();
    void linkThatWasIntroducedEarlierDoesNotSupersede();
    void endOfTheCurrentTransportDetachesIt();
    void directRemovalDetachesTheLink();
    void removalForAnUnknownUnitIsLogged();
    void removalOfTheFallbackForAnUnknownUnitIsLogged();
    void acknowledgementForAnUnknownUnitIsLogged();
    void connectionsAreListed();
    void lostConnectionIsDeleted();

    // Wiring
    void signalsAndSlotsAreFoundByTheirSignatures_data();
    void signalsAndSlotsAreFoundByTheirSignatures();
    void hubWithoutStoresAcceptsNobody();

private:
    QScopedPointer<BaseUnit> m_unit;
};

// --- From remote units ----------------------------------------------------------------------------------------------

void TestRGPCom::commandsAndPeriodicDataComeFromKnownUnitsOnly()
{
    Hub h(*m_unit);
    QSignalSpy commands(&h.hub, &RGPCom::readyReadCmdFromRGP);
    QSignalSpy periodic(&h.hub, &RGPCom::readyReadFromRGP);
    for (const quint16 id : {Unit, Stranger}) {
        h.hub.dataFromGLink(id, Command, "cmd", &h.link);
        h.hub.dataFromGLink(id, Periodic, "values", &h.link);
    }
    QCOMPARE(commands.count(), 1);
    QCOMPARE(commands.at(0).at(0).toByteArray(), QByteArray("cmd"));
    QCOMPARE(periodic.count(), 1);
    QCOMPARE(periodic.at(0).at(0).toInt(), 5);
    QCOMPARE(periodic.at(0).at(1).toInt(), 4);
    QCOMPARE(periodic.at(0).at(2).toByteArray(), QByteArray("values"));
}

void TestRGPCom::serviceForwardsArePassedOn()
{
    Hub h(*m_unit);
    QSignalSpy forwards(&h.hub, &RGPCom::sendServiceForwardToService);
    h.hub.dataFromGLink(Unit, Forward, "forward", &h.link);
    QCOMPARE(forwards.count(), 1);
    QCOMPARE(forwards.at(0).at(0).toByteArray(), QByteArray("forward"));
    QCOMPARE(forwards.at(0).at(1).toInt(), 5);
}

void TestRGPCom::unexpectedMessagesAreIgnored()
{
    LogSpy log;
    Hub h(*m_unit);
    QSignalSpy commands(&h.hub, &RGPCom::readyReadCmdFromRGP);
    h.hub.dataFromGLink(Unit, InitAck, initAckPayload(0, ""), &h.link);
    QCOMPARE(log.lines(), QStringList{"Received initack. WHY?"});
    for (const quint8 msgId : {0, 6, 8, 9, 10, 255}) {
        h.hub.dataFromGLink(Unit, msgId, "x", &h.link);
    }
    QCOMPARE(log.lines().size(), 1);
    QCOMPARE(commands.count(), 0);
}

void TestRGPCom::machineStopCountsFromTheArmedUnitOnly_data()
{
    QTest::addColumn<int>("armedUnit");
    QTest::addColumn<int>("state");
    QTest::addColumn<int>("stops");

    QTest::newRow("armed unit, armed") << 5 << 17 << 1;
    QTest::newRow("another unit is armed") << 6 << 17 << 0;
    QTest::newRow("disarmed") << 5 << 16 << 0;
    QTest::newRow("no unit is armed") << 0 << 17 << 0;
    QTest::newRow("an id that differs in the upper half only") << 0x10005 << 17 << 0;
}

void TestRGPCom::machineStopCountsFromTheArmedUnitOnly()
{
    QFETCH(int, armedUnit);
    QFETCH(int, state);
    QFETCH(int, stops);
    m_unit->setTag("armed_ru", armedUnit);
    m_unit->setTag("bu_state", state);
    Hub h(*m_unit);
    QSignalSpy stop(&h.hub, &RGPCom::machineStopActivatedOnArmedRemote);
    h.hub.dataFromGLink(Unit, MachineStop, "x", &h.link);
    QCOMPARE(stop.count(), stops);
}

void TestRGPCom::machineStopNeedsTags()
{
    TagDatabase noTags;
    RGPCom hub(&noTags, nullptr, nullptr);
    QSignalSpy stop(&hub, &RGPCom::machineStopActivatedOnArmedRemote);
    hub.dataFromGLink(Unit, MachineStop, "x", nullptr);
    hub.dataFromGLink(0, MachineStop, "x", nullptr);
    QCOMPARE(stop.count(), 0);
}

void TestRGPCom::machineStopWithTagsThatAreNoNumbersIsFatal()
{
    RGPCom hub(&m_unit->tags, nullptr, nullptr);
    m_unit->setTag("armed_ru", "abc");
    VERIFY_FATAL("src/rgplink/rgpcom", 298, hub.dataFromGLink(Unit, MachineStop, "x", nullptr));
    m_unit->setTag("armed_ru", 5);
    m_unit->setTag("bu_state", "abc");
    VERIFY_FATAL("src/rgplink/rgpcom", 298, hub.dataFromGLink(Unit, MachineStop, "x", nullptr));
}

void TestRGPCom::commandReceiverIsTheArmedUnit()
{
    RGPCom hub(&m_unit->tags, nullptr, nullptr);
    m_unit->setTag("armed_ru", 1234);
    QCOMPARE(hub.getCommandReceiver(), quint16(1234));
}

// --- To remote units ------------------------------------------------------------------------------------------------

void TestRGPCom::messageForOneUnit()
{
    LogSpy log;
    Hub h(*m_unit);
    h.join();
    h.hub.send(Unit, Forward, "for 5");
    h.hub.send(Stranger, Forward, "for nobody");
    QCOMPARE(h.link.sent.texts(), QStringList{"5:for 5"});
    QCOMPARE(log.lines(), QStringList{"Unknown receiver 77"});
}

void TestRGPCom::messageForAllUnits()
{
    Hub h(*m_unit);
    h.join();
    FakeTcpLink other;
    h.hub.addGLink(OtherUnit, &other);
    h.hub.dataFromGLink(OtherUnit, Init, initPayload(OtherUnit, BaseUnit::Identity), &other);
    h.hub.messageSent(OtherUnit, other.sent.lastRefNr(), &other);
    h.hub.sendToAll(Forward, "for all");
    QCOMPARE(h.link.sent.texts(), QStringList{"5:for all"});
    QCOMPARE(other.sent.texts().last(), QString("5:for all"));
}

void TestRGPCom::commandsArePassedOnFromTheEventLoop()
{
    Hub h(*m_unit);
    h.join();
    h.hub.sendCmd("cmd");
    QCOMPARE(h.link.sent.texts(), QStringList()); // the send to the link is queued behind
    QCOMPARE(h.link.sent.texts(), QStringList{"3:cmd"});
}

void TestRGPCom::periodicDataTellsItsOrigin()
{
    Hub h(*m_unit);
    h.join();
    h.hub.receivePeriodicFromECLink("ec");
    QTRY_COMPARE(h.link.sent.count(Periodic), 1);
    QCOMPARE(h.link.sent.all.last().data.toHex(), QByteArray("016563"));
    h.acknowledge();
    h.hub.receivePeriodicFromEGLink("eg");
    QTRY_COMPARE(h.link.sent.count(Periodic), 2);
    QCOMPARE(h.link.sent.all.last().data.toHex(), QByteArray("006567"));
}

void TestRGPCom::serviceForwardGoesToItsUnit()
{
    Hub h(*m_unit);
    h.join();
    h.hub.recvServiceForward("forward", Unit);
    h.hub.recvServiceForward("forward", OtherUnit);
    QTRY_COMPARE(h.link.sent.texts(), QStringList{"5:forward"});
}

void TestRGPCom::processDataIsShifted_data()
{
    QTest::addColumn<QByteArray>("image");
    QTest::addColumn<QByteArray>("toEGLink");

    QTest::newRow("image") << QByteArray::fromHex("0102030405") << QByteArray::fromHex("0304050000");
    QTest::newRow("two bytes") << QByteArray::fromHex("0102") << QByteArray::fromHex("0000");
    QTest::newRow("one byte") << QByteArray::fromHex("01") << QByteArray::fromHex("0000");
    QTest::newRow("empty") << QByteArray() << QByteArray::fromHex("0000");
}

void TestRGPCom::processDataIsShifted()
{
    QFETCH(QByteArray, image);
    QFETCH(QByteArray, toEGLink);
    Hub h(*m_unit);
    QSignalSpy data(&h.hub, &RGPCom::sendToEGLink);
    h.hub.receiveFromService(image);
    QCOMPARE(data.count(), 1);
    QCOMPARE(data.at(0).at(0).toByteArray().toHex(), toEGLink.toHex());
}

void TestRGPCom::baseStatusIsBuiltFromTags()
{
    m_unit->setTag("bu_identity", 0x0405);
    m_unit->setTag("bu_state", 0x111);
    m_unit->setTag("tsaps", 2U);
    m_unit->setTag("unarmed_rus", 3);
    m_unit->setTag("eglink_stat_out", true);
    m_unit->setTag("eclink_status", 255);
    m_unit->setTag("armed_ru", 0x0607);
    Hub h(*m_unit);
    h.join();
    h.hub.sendBaseStatusToRemote();
    QTRY_COMPARE(h.link.sent.count(Status), 1);
    QCOMPARE(h.link.sent.all.last().data.toHex(), QByteArray("0504"
                                                             "11"
                                                             "02"
                                                             "03"
                                                             "01"
                                                             "ff"
                                                             "0706"));
}

// A missing tag's bytes are 0.
void TestRGPCom::baseStatusWithoutTagsIsZero()
{
    LogSpy log;
    TagDatabase noTags;
    RGPCom hub(&noTags, m_unit->configuration.data(), nullptr);
    FakeTcpLink link;
    hub.addGLink(Unit, &link);
    hub.dataFromGLink(Unit, Init, initPayload(Unit, BaseUnit::Identity), &link);
    hub.messageSent(Unit, link.sent.lastRefNr(), &link);
    log.clear();
    hub.sendBaseStatusToRemote();
    QTRY_COMPARE(link.sent.count(Status), 1);
    QCOMPARE(link.sent.all.last().data.toHex(), QByteArray("000000000000000000"));
    QCOMPARE(log.lines(), QStringList());
}

void TestRGPCom::missingTagsAreNamedOnceAtStart()
{
    LogSpy log;
    TagDatabase noTags;
    RGPCom hub(&noTags, nullptr, nullptr);
    QCOMPARE(log.lines(QtWarningMsg).size(), 1);
    QCOMPARE(log.lines().first(),
             QString("RGPCom: missing tags, read as 0: (\"bu_identity\", \"bu_state\", \"tsaps\", \"unarmed_rus\", "
                     "\"eglink_stat_out\", \"eclink_status\", \"armed_ru\", \"total_rus\")"));
    log.clear();
    RGPCom complete(&m_unit->tags, nullptr, nullptr);
    QCOMPARE(log.lines(), QStringList());
}

void TestRGPCom::baseStatusForAUnitWithoutLinkIsSilent()
{
    LogSpy log;
    Hub h(*m_unit);
    h.join();
    for (const quint8 msgId : {Status, Forward, Periodic}) {
        h.hub.send(Unit, msgId, "x");
    }
    h.hub.removeGLink(Unit);
    h.link.sent.texts();
    h.link.sent.all.clear();
    h.hub.sendBaseStatusToRemote();
    QCoreApplication::processEvents();
    QCoreApplication::processEvents();
    QCOMPARE(h.link.sent.texts(), QStringList());
    QCOMPARE(log.lines(), QStringList());
}

void TestRGPCom::producersMayBeInOtherThreads()
{
    Hub h(*m_unit);
    h.join();
    const auto produce = [&h] {
        for (int i = 0; i < 100; ++i) {
            h.hub.receivePeriodicFromECLink(QByteArray::number(i));
            h.hub.sendCmd(QByteArray::number(i));
            h.hub.recvServiceForward("f", OtherUnit);
        }
    };
    const QScopedPointer<QThread> thread(QThread::create(produce));
    thread->start();
    QVERIFY(thread->wait(5000));
    for (int i = 0; i < 200; ++i) {
        h.acknowledge();
    }
    QCOMPARE(h.link.sent.count(Command), 100);
    QCOMPARE(h.link.sent.all.last().data, QByteArray("\x01"
                                                     "99"));
}

// --- Links ----------------------------------------------------------------------------------------------------------

void TestRGPCom::numberOfUnitsIsShown()
{
    LogSpy log;
    Hub h(*m_unit);
    QCOMPARE(m_unit->tagValue("total_rus"), 1);
    h.hub.addGLink(Unit, &h.link);
    QCOMPARE(m_unit->tagValue("total_rus"), 1);
    h.hub.addFallbackLink(OtherUnit);
    QCOMPARE(m_unit->tagValue("total_rus"), 2);
    h.hub.addFallbackLink(OtherUnit);
    h.hub.removeGLink(Unit);
    QCOMPARE(m_unit->tagValue("total_rus"), 2);
    h.hub.deleteConnection(Unit);
    QCOMPARE(m_unit->tagValue("total_rus"), 1);
    h.hub.deleteConnection(Unit);
    QCOMPARE(log.lines(), (QStringList{"RGPCom::addFallbackLink 6", "RGPCom::addFallbackLink 6",
                                       "Request to delete unknown GlinkConnection."}));
}

// A unit that reconnects before its old, half-open connection has timed out keeps its new link.
void TestRGPCom::endOfASupersededTransportLeavesTheCurrentOne()
{
    Hub h(*m_unit);
    connect(&h.link, &GLinkTransportBase::closedConnection, &h.hub, &RGPCom::removeGLink, Qt::QueuedConnection);
    h.join();
    FakeTcpLink current;
    h.hub.addGLink(Unit, &current);
    h.hub.dataFromGLink(Unit, Init, initPayload(Unit, BaseUnit::Identity), &current);
    emit h.link.closedConnection(Unit);
    QCoreApplication::processEvents();
    h.hub.messageSent(Unit, current.sent.lastRefNr(), &current);
    h.hub.send(Unit, Forward, "still there");
    QCOMPARE(current.sent.texts().last(), QString("5:still there"));
}

// A unit gave up while its INIT waited for a large application to be hashed, and came back; the answers of both
// connections are ready at once, and either may be first.
void TestRGPCom::linkThatWasIntroducedEarlierDoesNotSupersede()
{
    Hub h(*m_unit);
    FakeTcpLink givenUp;
    FakeTcpLink current;
    const QSignalSpy closed(&givenUp, &GLinkTransportTcp::finished);
    givenUp.handleInitMsg();
    current.handleInitMsg();

    h.hub.addGLink(Unit, &current);
    h.hub.dataFromGLink(Unit, Init, initPayload(Unit, BaseUnit::Identity), &current);
    h.hub.addGLink(Unit, &givenUp);
    h.hub.dataFromGLink(Unit, Init, initPayload(Unit, BaseUnit::Identity), &givenUp);
    h.hub.messageSent(Unit, current.sent.lastRefNr(), &current);
    h.hub.send(Unit, Forward, "still there");

    QCOMPARE(givenUp.sent.texts(), QStringList());
    QCOMPARE(current.sent.texts().last(), QString("5:still there"));
    QTRY_COMPARE(closed.count(), 1);
}

void TestRGPCom::endOfTheCurrentTransportDetachesIt()
{
    Hub h(*m_unit);
    connect(&h.link, &GLinkTransportBase::closedConnection, &h.hub, &RGPCom::removeGLink, Qt::QueuedConnection);
    h.join();
    emit h.link.closedConnection(Unit);
    QCoreApplication::processEvents();
    h.hub.send(Unit, Forward, "dropped");
    QCOMPARE(h.link.sent.texts(), QStringList());
}

void TestRGPCom::directRemovalDetachesTheLink()
{
    Hub h(*m_unit);
    h.join();
    h.hub.removeGLink(Unit);
    h.hub.send(Unit, Forward, "dropped");
    QCOMPARE(h.link.sent.texts(), QStringList());
}

void TestRGPCom::removalForAnUnknownUnitIsLogged()
{
    LogSpy log;
    Hub h(*m_unit);
    h.hub.removeGLink(Stranger);
    QCOMPARE(log.lines(), QStringList{"Connection for RU 77 not found."});
}

// removeFallbackLink for an unknown unit logs and returns.
void TestRGPCom::removalOfTheFallbackForAnUnknownUnitIsLogged()
{
    LogSpy log;
    Hub h(*m_unit);
    h.hub.removeFallbackLink(Stranger);
    QCOMPARE(log.lines(), (QStringList{"RGPCom::removeFallbackLink 77", "Connection for RU 77 not found."}));
}

void TestRGPCom::acknowledgementForAnUnknownUnitIsLogged()
{
    LogSpy log;
    Hub h(*m_unit);
    h.hub.messageSent(Stranger, 1, &h.link);
    QCOMPARE(log.lines(), QStringList{"RGPCom::messageSent(): UNKNOWN CONNECTION!"});
}

void TestRGPCom::connectionsAreListed()
{
    LogSpy log;
    RGPCom hub(&m_unit->tags, nullptr, nullptr);
    hub.showConnected();
    QCOMPARE(log.lines(), QStringList{"  none"});
    log.clear();
    FakeTcpLink link;
    hub.addGLink(OtherUnit, &link);
    hub.addGLink(Unit, &link);
    hub.showConnected();
    QCOMPARE(log.lines(), (QStringList{"   5", "   6"}));
}

void TestRGPCom::lostConnectionIsDeleted()
{
    RGPCom hub(&m_unit->tags, nullptr, nullptr);
    hub.addFallbackLink(Unit);
    const QPointer<GLinkConnection> connection = hub.findChild<GLinkConnection*>();
    QVERIFY(connection);
    emit connection->connectionLost(Unit);
    QCOMPARE(m_unit->tagValue("total_rus"), 0);
    QTRY_VERIFY(!connection);
}

// --- Wiring ---------------------------------------------------------------------------------------------------------

void TestRGPCom::signalsAndSlotsAreFoundByTheirSignatures_data()
{
    QTest::addColumn<QByteArray>("signature");
    QTest::addColumn<bool>("isSignal");

    for (const char* signature :
         {"readyReadFromRGP(quint16,quint8,const QByteArray&)", "readyReadCmdFromRGP(QByteArray)",
          "sendToEGLink(const QByteArray&)", "sendToService(QByteArray)",
          "sendServiceForwardToService(QByteArray,quint16)", "machineStopActivatedOnArmedRemote()"}) {
        QTest::newRow(signature) << QByteArray(signature) << true;
    }
    for (const char* signature :
         {"addFallbackLink(quint16)", "removeFallbackLink(quint16)", "addGLink(quint16,GLinkTransportTcp*)",
          "removeGLink(quint16)", "dataFromGLink(quint16,quint8,const QByteArray&,GLinkTransportBase* const)",
          "send(quint16,quint8,const QByteArray&)", "sendToAll(quint8,const QByteArray&)",
          "messageSent(quint16,quint32,GLinkTransportBase*)", "sendCmd( const QByteArray& )",
          "receivePeriodicFromECLink(QByteArray)", "receivePeriodicFromEGLink(const QByteArray&)",
          "receiveFromService(QByteArray)", "recvServiceForward(QByteArray,quint16)", "configChanged()",
          "sendBaseStatusToRemote()", "deleteConnection(quint16)"}) {
        QTest::newRow(signature) << QByteArray(signature) << false;
    }
}

void TestRGPCom::signalsAndSlotsAreFoundByTheirSignatures()
{
    QFETCH(QByteArray, signature);
    QFETCH(bool, isSignal);
    const QByteArray normalised = QMetaObject::normalizedSignature(signature);
    const QMetaObject& meta = RGPCom::staticMetaObject;
    QVERIFY((isSignal ? meta.indexOfSignal(normalised) : meta.indexOfSlot(normalised)) >= 0);
}

void TestRGPCom::hubWithoutStoresAcceptsNobody()
{
    RGPCom hub(nullptr, nullptr, nullptr);
    FakeTcpLink link;
    hub.addGLink(Unit, &link);
    hub.dataFromGLink(Unit, Init, initPayload(Unit, 0), &link);
    QCOMPARE(link.sent.count(InitAck), 1);
    QCOMPARE(link.sent.all.first().data.toHex(), initAckPayload(1, NotPaired).toHex());
    QVERIFY(!hub.isRuPaired(Unit));
    QVERIFY(!hub.isBuId(0));
}

QTEST_GUILESS_MAIN(TestRGPCom)
#include "tst_rgpcom.moc"
