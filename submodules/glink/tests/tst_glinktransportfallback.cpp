#include "crc_std32.h"
#include "glinkframes.h"
#include "glinktransportfallback.h"
#include "logspy.h"

#include <QtTest>

#include <utility>

class TestGLinkTransportFallback : public QObject
{
    Q_OBJECT

private slots:
    void initAnnouncesTheUnitBeforeTheAcknowledgement();
    void messagesArePassedOnAfterTheAcknowledgement();
    void acknowledgementGoesToTheUnitWhoseMessageItAcknowledges();
    void sentFrameGoesToTheUnitOfTheSend();
    void sendIsNeverRefused();
    void partialFrameOfAnotherUnitIsDiscarded_data();
    void partialFrameOfAnotherUnitIsDiscarded();
    void closeOfAnotherUnitLeavesThePartialFrameAlone();
    void closeOfAnotherUnitDoesNotHandOverThePartialFrame();
    void closeDropsThePartialFrameOfThatUnit();
    void bytesOneByOneMakeAFrame();
    void introductionOverTcpBeforeTheLastOneHereClosesNothing();
    void deInitEndsTheUnitsLink();
    void closeReleasesTheMessageInFlightOfThatUnit();
    void closeOfAnotherUnitLeavesTheMessageInFlightAlone();
    void corruptFrameEndsTheLinkOfTheUnitOfTheLastSend_data();
    void corruptFrameEndsTheLinkOfTheUnitOfTheLastSend();
    void linkDownEndsTheLinkOfTheUnitOfTheLastSend();
    void afterLinkDownALateAcknowledgementIsIgnored();
    void initReleasesWhatAnotherUnitHasInFlight();
    void initForgetsWhatTheUnitItselfHasInFlight();
    void initAckIsAcknowledgedAndPassedOn();
    void noHeartbeatsGoOut();
    void tooLongMessageIsReported();
};

namespace {

/// Everything that the transport says, as one list in the order in which it says it.
class Recorder
{
public:
    Recorder()
    {
        QObject::connect(&link, &GLinkTransportFallback::newConnection, &link,
                         [this](quint16 id) { note(QStringLiteral("joined %1").arg(id)); });
        QObject::connect(&link, &GLinkTransportBase::closedConnection, &link,
                         [this](quint16 id) { note(QStringLiteral("closed %1").arg(id)); });
        QObject::connect(&link, &GLinkTransportBase::messageSent, &link,
                         [this](quint16 id, quint32 refNr, GLinkTransportBase* self) {
                             QCOMPARE(self, &link);
                             note(QStringLiteral("sent %1 ref %2").arg(id).arg(refNr));
                         });
        QObject::connect(&link, &GLinkTransportBase::readyReadFromGLink, &link,
                         [this](quint16 id, quint8 msgId, const QByteArray& data, GLinkTransportBase* channel) {
                             QCOMPARE(channel, &link);
                             note(QStringLiteral("read %1 id %2 %3").arg(id).arg(msgId).arg(QString(data.toHex())));
                         });
        QObject::connect(&link, &GLinkTransportFallback::dataToServiceLayer, &link,
                         [this](quint16 id, const QByteArray& frame) {
                             const char* const type = frame.at(4) == 1 ? "ACK" : "MSG";
                             const QString payload = QString(frame.mid(17).chopped(4).toHex());
                             QVERIFY(CrcStd32::check(frame));
                             note(QStringLiteral("to %1 %2 %3 %4").arg(id).arg(type).arg(frame.at(3) + 0).arg(payload));
                         });
    }

    /// What was said since the last call.
    QStringList events() { return std::exchange(m_events, QStringList()); }

    GLinkTransportFallback link{nullptr, nullptr, nullptr};

private:
    void note(const QString& event) { m_events << event.trimmed(); }

    QStringList m_events;
};

constexpr quint16 InitUnit = 0x0203; // 515, the unit of Frames::init()
const char InitPayload[] = "010203020504000102030405060708090a0b0c0d0e0f";

} // namespace

void TestGLinkTransportFallback::initAnnouncesTheUnitBeforeTheAcknowledgement()
{
    Recorder r;
    r.link.dataFromServiceLayer(InitUnit, Frames::init());
    QCOMPARE(r.events(), (QStringList{"joined 515", "to 515 ACK 1", QStringLiteral("read 515 id 1 ") + InitPayload}));
}

void TestGLinkTransportFallback::messagesArePassedOnAfterTheAcknowledgement()
{
    Recorder r;
    r.link.dataFromServiceLayer(7, Frames::command() + Frames::machineStop());
    QCOMPARE(r.events(), (QStringList{"to 7 ACK 3", "read 7 id 3 616263", "to 7 ACK 7", "read 7 id 7 cc"}));
}

// Over the fallback an acknowledgement goes to the unit whose message it acknowledges, other frames to that of the
// send.
void TestGLinkTransportFallback::acknowledgementGoesToTheUnitWhoseMessageItAcknowledges()
{
    Recorder r;
    r.link.send(7, 3, "abc", 1);
    QCOMPARE(r.events(), QStringList{"to 7 MSG 3 616263"});

    r.link.dataFromServiceLayer(8, Frames::periodicData());
    QCOMPARE(r.events(), (QStringList{"to 8 ACK 4", "read 8 id 4 0102"}));

    r.link.dataFromServiceLayer(7, Frames::commandAck());
    QCOMPARE(r.events(), QStringList{"sent 7 ref 1"});
}

void TestGLinkTransportFallback::sentFrameGoesToTheUnitOfTheSend()
{
    Recorder r;
    QByteArray frame;
    QObject::connect(&r.link, &GLinkTransportFallback::dataToServiceLayer, &r.link,
                     [&frame](quint16, const QByteArray& data) { frame = data; });
    r.link.send(0x0102, 8, QByteArray::fromHex("AA"), 5);
    QCOMPARE(frame.left(5).toHex(), QByteArray("0100010800"));
    QCOMPARE(frame.mid(9, 4).toHex(), QByteArray("00000000"));
    QCOMPARE(frame.size(), 17 + 1 + 4);
    QCOMPARE(r.events(), QStringList{"to 258 MSG 8 aa"});
}

void TestGLinkTransportFallback::sendIsNeverRefused()
{
    Recorder r;
    r.link.send(7, 3, "a", 1);
    r.link.send(8, 4, "b", 2);
    QCOMPARE(r.events(), (QStringList{"to 7 MSG 3 61", "to 8 MSG 4 62"}));

    r.link.dataFromServiceLayer(7, Frames::commandAck()); // of the message that was overtaken
    QCOMPARE(r.events(), QStringList());
    r.link.dataFromServiceLayer(8, Frames::periodicDataAck());
    QCOMPARE(r.events(), QStringList{"sent 8 ref 2"});
}

void TestGLinkTransportFallback::partialFrameOfAnotherUnitIsDiscarded_data()
{
    QTest::addColumn<int>("cut");

    QTest::newRow("inside the header") << 5;
    QTest::newRow("after the header, whose announced size is known") << 17;
    QTest::newRow("inside the payload") << 18;
    QTest::newRow("after the payload") << 20;
    QTest::newRow("inside the CRC") << 22;
    QTest::newRow("before the last byte") << 23;
}

// Bytes of another unit discard the partial frame in all its pieces.
void TestGLinkTransportFallback::partialFrameOfAnotherUnitIsDiscarded()
{
    QFETCH(int, cut);
    LogSpy log;
    Recorder r;
    r.link.dataFromServiceLayer(1, Frames::command().left(cut));
    r.link.dataFromServiceLayer(2, Frames::periodicData());
    QCOMPARE(r.events(), (QStringList{"to 2 ACK 4", "read 2 id 4 0102"}));

    r.link.dataFromServiceLayer(1, Frames::machineStop());
    QCOMPARE(r.events(), (QStringList{"to 1 ACK 7", "read 1 id 7 cc"}));
    QCOMPARE(log.lines(), QStringList());
}

void TestGLinkTransportFallback::closeOfAnotherUnitLeavesThePartialFrameAlone()
{
    Recorder r;
    r.link.dataFromServiceLayer(1, Frames::command().left(19));
    r.link.close(2);
    r.events();
    r.link.dataFromServiceLayer(1, Frames::command().mid(19));
    QCOMPARE(r.events(), (QStringList{"to 1 ACK 3", "read 1 id 3 616263"}));
}

void TestGLinkTransportFallback::closeOfAnotherUnitDoesNotHandOverThePartialFrame()
{
    Recorder r;
    r.link.dataFromServiceLayer(1, Frames::command().left(19));
    r.link.close(2);
    r.events();
    r.link.dataFromServiceLayer(2, Frames::command());
    QCOMPARE(r.events(), (QStringList{"to 2 ACK 3", "read 2 id 3 616263"}));
}

void TestGLinkTransportFallback::closeDropsThePartialFrameOfThatUnit()
{
    Recorder r;
    r.link.dataFromServiceLayer(InitUnit, Frames::command().left(19));
    r.link.close(InitUnit);
    r.events();
    r.link.dataFromServiceLayer(InitUnit, Frames::init());
    QCOMPARE(r.events().first(), QString("joined 515"));
}

void TestGLinkTransportFallback::bytesOneByOneMakeAFrame()
{
    Recorder r;
    for (const char byte : Frames::command()) {
        r.link.dataFromServiceLayer(7, QByteArray(1, byte));
    }
    r.link.dataFromServiceLayer(7, QByteArray());
    QCOMPARE(r.events(), (QStringList{"to 7 ACK 3", "read 7 id 3 616263"}));
}

void TestGLinkTransportFallback::introductionOverTcpBeforeTheLastOneHereClosesNothing()
{
    Recorder r;
    const QSignalSpy introduced(&r.link, &GLinkTransportFallback::introduced);
    r.link.dataFromServiceLayer(InitUnit, Frames::init());
    const quint64 number = introduced.last().last().toULongLong();
    r.events();

    r.link.closeForTcp(InitUnit, number - 1);
    QCOMPARE(r.events(), QStringList());
    r.link.closeForTcp(InitUnit, number + 1);
    QCOMPARE(r.events().value(0), QStringLiteral("closed 515"));
    r.link.closeForTcp(InitUnit, 0);
    QCOMPARE(r.events().value(0), QStringLiteral("closed 515"));
    r.link.closeForTcp(8, number - 1);
    QCOMPARE(r.events().value(0), QStringLiteral("closed 8"));
}

void TestGLinkTransportFallback::deInitEndsTheUnitsLink()
{
    Recorder r;
    r.link.send(7, 3, "abc", 9);
    r.events();

    r.link.dataFromServiceLayer(8, Frames::fallbackDeInit());
    QCOMPARE(r.events(), (QStringList{"closed 8", "to 8 ACK 9"}));
    r.link.dataFromServiceLayer(7, Frames::fallbackDeInit());
    QCOMPARE(r.events(), (QStringList{"closed 7", "sent 7 ref 9", "to 7 ACK 9"}));
    r.link.dataFromServiceLayer(7, Frames::commandAck());
    QCOMPARE(r.events(), QStringList());
}

void TestGLinkTransportFallback::closeReleasesTheMessageInFlightOfThatUnit()
{
    Recorder r;
    r.link.send(7, 3, "abc", 9);
    r.events();
    r.link.close(7);
    QCOMPARE(r.events(), (QStringList{"closed 7", "sent 7 ref 9"}));
}

void TestGLinkTransportFallback::closeOfAnotherUnitLeavesTheMessageInFlightAlone()
{
    Recorder r;
    r.link.send(7, 3, "abc", 9);
    r.events();
    r.link.close(8);
    QCOMPARE(r.events(), QStringList{"closed 8"});
    r.link.dataFromServiceLayer(7, Frames::commandAck());
    QCOMPARE(r.events(), QStringList{"sent 7 ref 9"});
}

void TestGLinkTransportFallback::corruptFrameEndsTheLinkOfTheUnitOfTheLastSend_data()
{
    QTest::addColumn<QByteArray>("frame");

    QTest::newRow("header") << Frames::damaged(Frames::command(), 3);
    QTest::newRow("header and nothing behind it") << Frames::damaged(Frames::commandAck(), 3);
    QTest::newRow("payload") << Frames::damaged(Frames::command(), 17);
    QTest::newRow("CRC") << Frames::damaged(Frames::command(), 23);
    QTest::newRow("two frames in one delivery") << Frames::damaged(Frames::command(), 3) + Frames::command();
}

void TestGLinkTransportFallback::corruptFrameEndsTheLinkOfTheUnitOfTheLastSend()
{
    QFETCH(QByteArray, frame);
    LogSpy log;
    Recorder r;
    r.link.send(7, 3, "abc", 9);
    r.events();

    r.link.dataFromServiceLayer(8, frame);
    QCOMPARE(r.events(), QStringList{"closed 7"});

    r.link.dataFromServiceLayer(8, Frames::periodicData());
    QCOMPARE(r.events(), (QStringList{"to 8 ACK 4", "read 8 id 4 0102"}));
    r.link.dataFromServiceLayer(7, Frames::commandAck());
    QCOMPARE(r.events(), QStringList());
}

void TestGLinkTransportFallback::linkDownEndsTheLinkOfTheUnitOfTheLastSend()
{
    Recorder r;
    r.link.send(7, 3, "abc", 1);
    r.link.send(8, 3, "abc", 2);
    r.link.dataFromServiceLayer(9, Frames::periodicData());
    r.events();
    r.link.linkDown();
    QCOMPARE(r.events(), QStringList{"closed 8"});
}

void TestGLinkTransportFallback::afterLinkDownALateAcknowledgementIsIgnored()
{
    Recorder r;
    r.link.send(7, 3, "abc", 1);
    r.link.linkDown();
    r.events();
    r.link.dataFromServiceLayer(7, Frames::commandAck());
    QCOMPARE(r.events(), QStringList());
}

// An INIT starts the exchange anew: the queue of a unit whose message was in flight meanwhile does not hang.
void TestGLinkTransportFallback::initReleasesWhatAnotherUnitHasInFlight()
{
    Recorder r;
    r.link.send(7, 3, "abc", 9);
    r.events();
    r.link.dataFromServiceLayer(InitUnit, Frames::init());
    QCOMPARE(r.events().mid(0, 3), (QStringList{"sent 7 ref 9", "joined 515", "to 515 ACK 1"}));
    r.link.dataFromServiceLayer(7, Frames::commandAck());
    QCOMPARE(r.events(), QStringList());
}

void TestGLinkTransportFallback::initForgetsWhatTheUnitItselfHasInFlight()
{
    Recorder r;
    r.link.send(InitUnit, 3, "abc", 9);
    r.events();
    r.link.dataFromServiceLayer(InitUnit, Frames::init());
    QCOMPARE(r.events().mid(0, 2), (QStringList{"joined 515", "to 515 ACK 1"}));
    r.link.dataFromServiceLayer(InitUnit, Frames::commandAck());
    QCOMPARE(r.events(), QStringList());
}

void TestGLinkTransportFallback::initAckIsAcknowledgedAndPassedOn()
{
    Recorder r;
    r.link.dataFromServiceLayer(7, Frames::initAck());
    QCOMPARE(r.events(), (QStringList{"to 7 ACK 2", "read 7 id 2 " + QString(84, '0')}));
}

void TestGLinkTransportFallback::noHeartbeatsGoOut()
{
    Recorder r;
    r.link.run();
    r.link.sendHeartbeat();
    QCOMPARE(r.events(), QStringList());
    r.link.dataFromServiceLayer(7, Frames::heartbeat());
    QCOMPARE(r.events(), QStringList{"to 7 ACK 0"});
}

void TestGLinkTransportFallback::tooLongMessageIsReported()
{
    LogSpy log;
    Recorder r;
    r.link.send(7, 4, QByteArray(65536, 'x'), 5);
    QVERIFY(log.contains("GLinkTransportFallback::send_() failed 7 msgId: 4 refNr: 5 size: 65536"));
    QCOMPARE(r.events(), QStringList{"sent 7 ref 5"});
}

QTEST_GUILESS_MAIN(TestGLinkTransportFallback)
#include "tst_glinktransportfallback.moc"
