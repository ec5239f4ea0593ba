#include "glinkframes.h"
#include "logspy.h"
#include "recordingtransport.h"

#include <QtTest>

#include <algorithm>
#include <ctime>
#include <limits>

namespace {

const QString PassedOnPeriodicData = QStringLiteral("passed on from 0 id 4: 0102");
const QString PassedOnCommand = QStringLiteral("passed on from 0 id 3: 616263");

/// Frames that together have one of each: payload, no payload, acknowledgement.
QByteArray mixedStream()
{
    return Frames::command() + Frames::heartbeatAck() + Frames::periodicData() + Frames::fallbackDeInit() +
           Frames::command();
}

QStringList eventsOfMixedStream()
{
    return {"wrote id 3 type 1", PassedOnCommand,     "wrote id 4 type 1", PassedOnPeriodicData, "DEINIT",
            "wrote id 9 type 1", "wrote id 3 type 1", PassedOnCommand};
}

/// Processor time, in ns, to parse so many frames in one read: the least of three, as other programs run beside us.
qint64 parsingTime(int frameCount)
{
    const QByteArray stream = Frames::unknownType().repeated(frameCount);
    qint64 least = std::numeric_limits<qint64>::max();
    for (int attempt = 0; attempt < 3; ++attempt) {
        RecordingTransport transport;
        timespec before = {};
        timespec after = {};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &before);
        transport.receive(stream);
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &after);
        least = std::min<qint64>(least, (after.tv_sec - before.tv_sec) * 1000000000LL + after.tv_nsec - before.tv_nsec);
    }
    return least;
}

} // namespace

class TestGLinkReassembly : public QObject
{
    Q_OBJECT

private slots:
    void twoFramesInOneReadAreBothProcessed();
    void singleBytesAreReassembled();
    void aStreamCutAnywhereIsReassembled();
    void anEmptyReadChangesNothing();
    void moreThan64KiBAreConsumedInOneCall();
    void theLargestFrameIsReassembled_data();
    void theLargestFrameIsReassembled();
    void oneMebibyteOfSmallFramesIsCheap();
    void bytesThatAHandlerDeliversAreProcessed();

    void garbageInFrontIsReportedAndDropped();
    void aBadHeaderIsFollowedByFourBytesOfMessageCrc();
    void aBadHeaderIsNotHealedByAGoodMessageCrc();
    void aBadMessageDropsTheUnconsumedBytes();
    void everyDamagedByteIsNoticed();
    void aBadMessageIsLogged_data();
    void aBadMessageIsLogged();
    void afterAnErrorTheNextReadStartsAFrame();
    void atAnErrorTheTransportSeesOnlyWhatIsNotConsumed();
    void atABadHeaderTheTransportMayDropTheRest();
    void onceStoppedNothingIsInterpretedAndABadFrameClosesOnce();
    void discardingForgetsAllPieces_data();
    void discardingForgetsAllPieces();
};

void TestGLinkReassembly::twoFramesInOneReadAreBothProcessed()
{
    RecordingTransport transport;

    transport.receive(Frames::periodicData() + Frames::command());

    QCOMPARE(transport.events,
             (QStringList{"wrote id 4 type 1", PassedOnPeriodicData, "wrote id 3 type 1", PassedOnCommand}));
    QVERIFY(transport.m_incomingData.isEmpty());
}

void TestGLinkReassembly::singleBytesAreReassembled()
{
    RecordingTransport transport;
    const QByteArray stream = mixedStream();

    for (const char byte : stream) {
        transport.receive(QByteArray(1, byte));
        QVERIFY(transport.m_incomingData.isEmpty());
    }

    QCOMPARE(transport.events, eventsOfMixedStream());
}

void TestGLinkReassembly::aStreamCutAnywhereIsReassembled()
{
    const QByteArray stream = mixedStream();
    for (int cut = 1; cut < stream.size(); ++cut) {
        RecordingTransport transport;

        transport.receive(stream.left(cut));
        transport.receive(stream.mid(cut));

        QCOMPARE(transport.events, eventsOfMixedStream());
    }
}

void TestGLinkReassembly::anEmptyReadChangesNothing()
{
    RecordingTransport transport;

    transport.receive(QByteArray());
    transport.receive(Frames::command().left(19));
    transport.receive(QByteArray());
    transport.receive(Frames::command().mid(19));

    QCOMPARE(transport.events, (QStringList{"wrote id 3 type 1", PassedOnCommand}));
}

void TestGLinkReassembly::moreThan64KiBAreConsumedInOneCall()
{
    // A multiple of 65536 bytes is 0 when counted in 16 bits.
    QByteArray stream;
    const int frameCount = 65536;
    for (int i = 0; i < frameCount; ++i) {
        stream += Frames::powerOff();
    }
    QCOMPARE(stream.size() % 65536, 0);
    RecordingTransport transport;

    transport.receive(stream);

    QVERIFY(transport.m_incomingData.isEmpty());
    QCOMPARE(transport.frames.size(), frameCount);
}

void TestGLinkReassembly::theLargestFrameIsReassembled_data()
{
    QTest::addColumn<int>("chunk");

    QTest::newRow("in one read") << (1 << 20);
    QTest::newRow("in reads of 1000") << 1000;
}

void TestGLinkReassembly::theLargestFrameIsReassembled()
{
    QFETCH(int, chunk);
    // Zeros keep a CRC register of zero at zero: the message CRC of a good header and zeros is zero.
    const QByteArray frame =
        QByteArray::fromHex("ffff0105000102030400000000c75d3b47") + QByteArray(0xFFFF + 4, '\0') + Frames::command();
    RecordingTransport transport;

    for (int offset = 0; offset < frame.size(); offset += chunk) {
        transport.receive(frame.mid(offset, chunk));
    }

    QCOMPARE(transport.events.size(), 4);
    QCOMPARE(transport.events.at(1), "passed on from 0 id 5: " + QString(2 * 0xFFFF, '0'));
    QCOMPARE(transport.events.last(), PassedOnCommand);
}

void TestGLinkReassembly::oneMebibyteOfSmallFramesIsCheap()
{
    const int frameCount = 1024 * 1024 / Frames::unknownType().size();

    const qint64 small = parsingTime(frameCount / 16);
    const qint64 large = parsingTime(frameCount);

    // Sixteen times the bytes: about sixteen times the time if each byte is touched a fixed number of times, 256 times
    // if the rest is moved for every frame.
    QVERIFY2(large < 80 * small, qPrintable(QString("%1 ns for 1 MiB, %2 ns for 64 KiB").arg(large).arg(small)));
}

void TestGLinkReassembly::bytesThatAHandlerDeliversAreProcessed()
{
    RecordingTransport transport;
    bool isFirst = true;
    connect(&transport, &GLinkTransportBase::readyReadFromGLink, &transport, [&] {
        if (std::exchange(isFirst, false)) {
            transport.receive(Frames::command());
        }
    });

    transport.receive(Frames::periodicData() + Frames::powerOff());

    QCOMPARE(transport.events, (QStringList{"wrote id 4 type 1", PassedOnPeriodicData, "wrote id 6 type 1",
                                            "passed on from 0 id 6: bb", "wrote id 3 type 1", PassedOnCommand}));
}

void TestGLinkReassembly::garbageInFrontIsReportedAndDropped()
{
    LogSpy log;
    RecordingTransport transport;

    transport.receive(QByteArray("garbage") + Frames::command() + Frames::command());

    QCOMPARE(transport.events, (QStringList{"CRC error", "CRC error again"}));
    QVERIFY(transport.m_incomingData.isEmpty());
    QVERIFY(transport.frames.isEmpty());
    // 7 + 24 + 24 bytes: 38 behind the header, 34 behind the four that are taken for its message CRC.
    QCOMPARE(log.lines().value(0), QString("Header CRC error 38"));
    QVERIFY(log.lines().value(4).startsWith("  IncomingData: 34 "));
}

void TestGLinkReassembly::aBadHeaderIsFollowedByFourBytesOfMessageCrc()
{
    RecordingTransport transport;

    transport.receive(Frames::damaged(Frames::command(), 0).left(17));
    QCOMPARE(transport.events, QStringList{"CRC error"});
    transport.receive("abc");
    QCOMPARE(transport.events, QStringList{"CRC error"});
    transport.receive("d");
    QCOMPARE(transport.events, (QStringList{"CRC error", "CRC error again"}));

    transport.receive(Frames::command());
    QCOMPARE(transport.events.last(), PassedOnCommand);
}

void TestGLinkReassembly::aBadHeaderIsNotHealedByAGoodMessageCrc()
{
    // Header CRC 00000000 instead of 7db26464, and a message CRC that matches these very bytes.
    LogSpy log;
    RecordingTransport transport;

    transport.receive(QByteArray::fromHex("00000100000102030400000000000000002f206a2c"));

    QCOMPARE(transport.events, (QStringList{"CRC error", "CRC error again"}));
    QVERIFY(transport.frames.isEmpty());
}

void TestGLinkReassembly::aBadMessageDropsTheUnconsumedBytes()
{
    RecordingTransport transport;

    transport.receive(Frames::damaged(Frames::command(), 18) + Frames::periodicData() + Frames::powerOff());

    QCOMPARE(transport.events, QStringList{"CRC error"});
    QVERIFY(transport.m_incomingData.isEmpty());
}

void TestGLinkReassembly::everyDamagedByteIsNoticed()
{
    LogSpy log;
    const QByteArray frame = Frames::command();
    for (int offset = 0; offset < frame.size(); ++offset) {
        RecordingTransport transport;

        transport.receive(Frames::damaged(frame, offset));

        QVERIFY2(transport.frames.isEmpty(), qPrintable(QString("byte %1").arg(offset)));
        QCOMPARE(transport.events.first(), QString("CRC error"));
    }
}

void TestGLinkReassembly::aBadMessageIsLogged_data()
{
    QTest::addColumn<QByteArray>("unconsumed");
    QTest::addColumn<QString>("line");

    QTest::newRow("nothing behind it") << QByteArray() << "  IncomingData: 0 \"\"";
    QTest::newRow("a few bytes") << QByteArray("xy") << "  IncomingData: 2 \"7879\"";
    QTest::newRow("30 bytes are shown") << QByteArray(30, 'x')
                                        << "  IncomingData: 30 \"" + QString("78").repeated(30) + '"';
    QTest::newRow("31 bytes are not") << QByteArray(31, 'x')
                                      << "  IncomingData: 31 \"" + QString("78").repeated(30) + "\" ...";
}

void TestGLinkReassembly::aBadMessageIsLogged()
{
    QFETCH(QByteArray, unconsumed);
    QFETCH(QString, line);
    LogSpy log;
    RecordingTransport transport;

    transport.receive(Frames::damaged(Frames::command(), 18) + unconsumed);

    QCOMPARE(log.lines(QtDebugMsg),
             (QStringList{"GLinkTransportBase::processMessage() - CRC error",
                          "  Header: 17 - \"03000003000102030400000000ce43534a\"", "  Payload: 3", line}));
}

void TestGLinkReassembly::afterAnErrorTheNextReadStartsAFrame()
{
    RecordingTransport transport;

    transport.receive(Frames::damaged(Frames::command(), 22) + "leftover");
    transport.receive(Frames::periodicData());

    QCOMPARE(transport.events, (QStringList{"CRC error", "wrote id 4 type 1", PassedOnPeriodicData}));
}

void TestGLinkReassembly::atAnErrorTheTransportSeesOnlyWhatIsNotConsumed()
{
    RecordingTransport transport;

    transport.receive(Frames::command() + Frames::damaged(Frames::command(), 18) + "rest");
    transport.receive(Frames::damaged(Frames::command(), 0).left(17) + "behind");

    QCOMPARE(transport.unconsumedAtCrcError, (QList<QByteArray>{"rest", "behind", "nd"}));
}

void TestGLinkReassembly::atABadHeaderTheTransportMayDropTheRest()
{
    RecordingTransport transport;
    transport.clearsAtCrcError = true;

    transport.receive(Frames::damaged(Frames::command(), 0) + Frames::command());
    QCOMPARE(transport.events, QStringList{"CRC error"});
    QVERIFY(transport.m_incomingData.isEmpty());

    // The message CRC of the bad frame is still to come.
    transport.receive("abcd");
    transport.receive(Frames::command());
    QCOMPARE(transport.events, (QStringList{"CRC error", "CRC error again", "wrote id 3 type 1", PassedOnCommand}));
}

void TestGLinkReassembly::onceStoppedNothingIsInterpretedAndABadFrameClosesOnce()
{
    LogSpy log;
    RecordingTransport transport;
    transport.stopsAtCrcError = true;

    transport.receive(Frames::command() + Frames::damaged(Frames::command(), 13) + Frames::periodicData());
    transport.receive(Frames::periodicData());
    transport.receive(Frames::damaged(Frames::command(), 13));

    QCOMPARE(transport.events, (QStringList{"wrote id 3 type 1", PassedOnCommand, "CRC error"}));
    QVERIFY(transport.m_incomingData.isEmpty());
    QCOMPARE(log.lines(), QStringList{"Header CRC error 30"});
}

void TestGLinkReassembly::discardingForgetsAllPieces_data()
{
    QTest::addColumn<int>("cut");

    QTest::newRow("in the header") << 10;
    QTest::newRow("behind the header") << 17;
    QTest::newRow("in the payload") << 19;
    QTest::newRow("in the message CRC") << 22;
}

void TestGLinkReassembly::discardingForgetsAllPieces()
{
    QFETCH(int, cut);
    RecordingTransport transport;

    transport.receive(Frames::command().left(cut));
    transport.discardIncoming();
    transport.receive(Frames::powerOff());

    QCOMPARE(transport.events, (QStringList{"wrote id 6 type 1", "passed on from 0 id 6: bb"}));
}

QTEST_GUILESS_MAIN(TestGLinkReassembly)
#include "tst_glinkreassembly.moc"
