#include "applicationmanifest.h"
#include "configuration.h"
#include "glinkframes.h"
#include "logspy.h"
#include "recordingtransport.h"
#include "tagdatabase.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

namespace {

/// A frame of our own as far as it is known beforehand: without its time stamp and without the CRCs, which depend on it
/// and are checked here.
QString outline(const QByteArray& frame)
{
    if (!CrcStd32::check(frame) || !CrcStd32::check(frame.left(17))) {
        return QStringLiteral("damaged");
    }
    const QByteArray payload = frame.mid(17, frame.size() - 17 - 4);
    return QString(frame.left(5).toHex() + " time " + frame.mid(9, 4).toHex() + " crc " + payload.toHex());
}

} // namespace

class TestGLinkTransportBase : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void messagesAreAcknowledgedBeforeTheyArePassedOn_data();
    void messagesAreAcknowledgedBeforeTheyArePassedOn();
    void theAckCarriesStreamAndIdOfItsMessage_data();
    void theAckCarriesStreamAndIdOfItsMessage();

    void sentFramesHaveTheFormatOfTheProtocol_data();
    void sentFramesHaveTheFormatOfTheProtocol();
    void oneMessageIsInFlightAtATime();
    void aFailedWriteLeavesNothingInFlight();
    void aMessageTooLongForAFrameIsDroppedAndReported();
    void strayAcksAreIgnored_data();
    void strayAcksAreIgnored();
    void heartbeatsPassTheMessageInFlight();
    void oneHeartbeatIsInFlightAtATime();
    void aStrayHeartbeatAckChangesNothing();
    void anAckGoesToTheUnitWhoseMessageItAcknowledges();

    void anInitTakesThePeerIdsOver();
    void anInitStartsTheExchangeAnew();

    void theVerdictNeedsPairingAndBaseId_data();
    void theVerdictNeedsPairingAndBaseId();
    void theVerdictNeedsTheChecksumOfAnInstalledApplication_data();
    void theVerdictNeedsTheChecksumOfAnInstalledApplication();
    void anApplicationThatWasNeverHashedNeverMatches();
    void theVerdictWaitsForNoList();
    void applicationsForOthersAreNotCompared();
    void theFirstApplicationCounts();
    void aListOrderedInTheBackgroundIsWaitedFor();
    void nullPointersMeanNotPaired();

private:
    void write(const QString& relativePath, const QByteArray& content);
    void installApplication(const QString& name, const QByteArray& content);

    QScopedPointer<QTemporaryDir> m_dir;
    QScopedPointer<Configuration> m_config;
    QScopedPointer<TagDatabase> m_tags;
};

void TestGLinkTransportBase::init()
{
    m_dir.reset(new QTemporaryDir);
    ApplicationManifest::setRoot(m_dir->path() + "/apps");
    write("remotes.csv", "ruindex;RUID;PKY1;PKY2;PKY3;PKY4\nd;d;d;d;d;d\n0;7;1;1;1;1\n1;515;1;1;1;1\n2;8;1;1;1;1\n");
    ConfigurationSources sources;
    sources.appFile = m_dir->path() + "/app.csv";
    sources.remotesFile = m_dir->path() + "/remotes.csv";
    sources.keysFile = m_dir->path() + "/keys.csv";
    LogSpy silence;
    m_config.reset(new Configuration(sources, nullptr));
    m_tags.reset(new TagDatabase(nullptr));
    auto* const identity = new Tag("bu_identity", m_tags.data());
    identity->setValue(QVariant(0x0405U));
    m_tags->append(identity);
}

void TestGLinkTransportBase::cleanup()
{
    ApplicationManifest::setRoot(QString());
}

void TestGLinkTransportBase::write(const QString& relativePath, const QByteArray& content)
{
    const QString path = m_dir->path() + '/' + relativePath;
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        qFatal("cannot write the test's file");
    }
}

/// "manifest.csv" sorts before "z": the digest is that of the manifest followed by `content`.
void TestGLinkTransportBase::installApplication(const QString& name, const QByteArray& content)
{
    write("apps/" + name + "/manifest.csv", "target;ru\ntype;user\n");
    write("apps/" + name + "/z", content);
}

void TestGLinkTransportBase::messagesAreAcknowledgedBeforeTheyArePassedOn_data()
{
    QTest::addColumn<QByteArray>("frame");
    QTest::addColumn<QStringList>("events");

    QTest::newRow("heartbeat is not passed on") << Frames::heartbeat() << QStringList{"wrote id 0 type 1"};
    QTest::newRow("INIT is passed on although nobody is paired")
        << Frames::init()
        << QStringList{"INIT", "wrote id 1 type 1",
                       "passed on from 515 id 1: 010203020504000102030405060708090a0b0c0d0e0f"};
    QTest::newRow("INITACK is passed on")
        << Frames::initAck()
        << QStringList{"INITACK", "wrote id 2 type 1", "passed on from 0 id 2: " + QString(84, '0')};
    QTest::newRow("CMD") << Frames::command() << QStringList{"wrote id 3 type 1", "passed on from 0 id 3: 616263"};
    QTest::newRow("PERIODIC_DATA") << Frames::periodicData()
                                   << QStringList{"wrote id 4 type 1", "passed on from 0 id 4: 0102"};
    QTest::newRow("SERVICE_FORWARD") << Frames::serviceForward()
                                     << QStringList{"wrote id 5 type 1", "passed on from 0 id 5: aa"};
    QTest::newRow("POWER_OFF") << Frames::powerOff() << QStringList{"wrote id 6 type 1", "passed on from 0 id 6: bb"};
    QTest::newRow("M_STOP") << Frames::machineStop() << QStringList{"wrote id 7 type 1", "passed on from 0 id 7: cc"};
    QTest::newRow("BASE_STATUS") << Frames::baseStatus()
                                 << QStringList{"wrote id 8 type 1", "passed on from 0 id 8: dd"};
    QTest::newRow("FALLBACK_DEINIT is not passed on")
        << Frames::fallbackDeInit() << QStringList{"DEINIT", "wrote id 9 type 1"};
    QTest::newRow("unknown id 10 is not passed on") << Frames::messageTen() << QStringList{"wrote id 10 type 1"};
    QTest::newRow("unknown id 255 is not passed on") << Frames::message255() << QStringList{"wrote id 255 type 1"};
    QTest::newRow("unknown type is neither acknowledged nor passed on") << Frames::unknownType() << QStringList{};
    QTest::newRow("an acknowledgement is not acknowledged") << Frames::commandAck() << QStringList{};
}

void TestGLinkTransportBase::messagesAreAcknowledgedBeforeTheyArePassedOn()
{
    QFETCH(QByteArray, frame);
    QFETCH(QStringList, events);
    RecordingTransport transport;

    transport.receive(frame);
    QCOMPARE(transport.events, events);

    // The pieces are cleared in every case: the next frame is understood.
    transport.receive(Frames::machineStop());
    QVERIFY(transport.events.last().endsWith("id 7: cc"));
}

void TestGLinkTransportBase::theAckCarriesStreamAndIdOfItsMessage_data()
{
    QTest::addColumn<QByteArray>("frame");
    QTest::addColumn<QString>("ack");

    QTest::newRow("of a command") << Frames::command() << "0000000301 time 00000000 crc ";
    QTest::newRow("of periodic data") << Frames::periodicData() << "0000010401 time 00000000 crc ";
    QTest::newRow("of a heartbeat") << Frames::heartbeat() << "0000010001 time 00000000 crc ";
}

void TestGLinkTransportBase::theAckCarriesStreamAndIdOfItsMessage()
{
    QFETCH(QByteArray, frame);
    RecordingTransport transport;

    transport.receive(frame);

    QCOMPARE(transport.frames.size(), 1);
    QCOMPARE(transport.frames.first().size(), 21);
    QTEST(outline(transport.frames.first()), "ack");
}

void TestGLinkTransportBase::sentFramesHaveTheFormatOfTheProtocol_data()
{
    QTest::addColumn<int>("msgId");
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<QString>("frame");

    QTest::newRow("a command goes on stream 0") << 3 << QByteArray("abc") << "0300000300 time 00000000 crc 616263";
    QTest::newRow("periodic data on stream 1") << 4 << QByteArray("\x01\x02") << "0200010400 time 00000000 crc 0102";
    QTest::newRow("no payload") << 7 << QByteArray() << "0000010700 time 00000000 crc ";
    QTest::newRow("the length is little-endian")
        << 5 << QByteArray(0x0102, 'x') << "0201010500 time 00000000 crc " + QString("78").repeated(0x0102);
}

void TestGLinkTransportBase::sentFramesHaveTheFormatOfTheProtocol()
{
    QFETCH(int, msgId);
    QFETCH(QByteArray, message);
    RecordingTransport transport;

    const quint32 before = GLinkHeader::timeStamp();
    QVERIFY(transport.send_(1, static_cast<quint8>(msgId), message, 99));

    QTEST(outline(transport.frames.value(0)), "frame");
    QVERIFY(GLinkHeader(transport.frames.value(0)).time - before < 5000U);
}

void TestGLinkTransportBase::oneMessageIsInFlightAtATime()
{
    LogSpy log;
    RecordingTransport transport;

    QVERIFY(transport.send_(1, GLINK_MSG_ID_CMD, "one", 11));
    QVERIFY(!transport.send_(1, GLINK_MSG_ID_CMD, "two", 12));
    QVERIFY(!transport.send_(1, GLINK_MSG_BASE_STATUS, "three", 13));
    QCOMPARE(transport.frames.size(), 1);
    transport.receive(Frames::commandAck());
    QVERIFY(transport.send_(1, GLINK_MSG_ID_CMD, "two", 12));
    transport.receive(Frames::commandAck());

    QCOMPARE(transport.events,
             (QStringList{"wrote id 3 type 0", "sent to 0 ref 11", "wrote id 3 type 0", "sent to 0 ref 12"}));
    QCOMPARE(log.lines(), QStringList());
}

void TestGLinkTransportBase::aFailedWriteLeavesNothingInFlight()
{
    LogSpy log;
    RecordingTransport transport;

    transport.isPipeOpen = false;
    QVERIFY(!transport.send_(1, GLINK_MSG_ID_CMD, "one", 11));
    QCOMPARE(log.lines(QtDebugMsg), QStringList{"SENDING FAILED!"});
    QCOMPARE(int(transport.m_expectedAck), 0xFFFF);
    transport.isPipeOpen = true;
    QVERIFY(transport.send_(1, GLINK_MSG_ID_CMD, "one", 11));

    QCOMPARE(transport.events, QStringList{"wrote id 3 type 0"});
}

void TestGLinkTransportBase::aMessageTooLongForAFrameIsDroppedAndReported()
{
    LogSpy log;
    RecordingTransport transport;

    QVERIFY(!transport.send_(1, GLINK_MSG_ID_PERIODIC_DATA, QByteArray(65536, 'x'), 11));
    QCOMPARE(transport.events, QStringList{"sent to 0 ref 11"});
    QCOMPARE(log.lines(QtDebugMsg), QStringList{"SENDING FAILED!"});

    QVERIFY(transport.send_(1, GLINK_MSG_ID_PERIODIC_DATA, QByteArray(65535, 'x'), 12));
    QCOMPARE(transport.frames.first().left(2).toHex(), QByteArray("ffff"));
}

void TestGLinkTransportBase::strayAcksAreIgnored_data()
{
    QTest::addColumn<QByteArray>("ack");

    QTest::newRow("of another message") << Frames::periodicDataAck();
    QTest::newRow("of a heartbeat that was never sent") << Frames::heartbeatAck();
}

void TestGLinkTransportBase::strayAcksAreIgnored()
{
    QFETCH(QByteArray, ack);
    RecordingTransport transport;

    transport.receive(ack);
    QVERIFY(transport.send_(1, GLINK_MSG_ID_CMD, "one", 11));
    transport.receive(ack);
    QVERIFY(!transport.send_(1, GLINK_MSG_ID_CMD, "two", 12));
    transport.receive(Frames::commandAck());
    transport.receive(Frames::commandAck());

    QCOMPARE(transport.events, (QStringList{"wrote id 3 type 0", "sent to 0 ref 11"}));
}

void TestGLinkTransportBase::heartbeatsPassTheMessageInFlight()
{
    RecordingTransport transport;

    QVERIFY(transport.send_(1, GLINK_MSG_ID_CMD, "one", 11));
    transport.sendHeartbeat();
    transport.receive(Frames::heartbeatAck());
    transport.sendHeartbeat();

    QCOMPARE(transport.events, (QStringList{"wrote id 3 type 0", "wrote id 0 type 0", "wrote id 0 type 0"}));
    QCOMPARE(transport.frames.last().size(), 25);
    QCOMPARE(outline(transport.frames.last()), QString("0400010000 time 00000000 crc 00000000"));
    QCOMPARE(int(transport.m_expectedAck), int(GLINK_MSG_ID_CMD));
}

void TestGLinkTransportBase::oneHeartbeatIsInFlightAtATime()
{
    RecordingTransport transport;

    transport.sendHeartbeat();
    transport.sendHeartbeat();

    QCOMPARE(transport.frames.size(), 1);
}

void TestGLinkTransportBase::aStrayHeartbeatAckChangesNothing()
{
    RecordingTransport transport;
    QVERIFY(!transport.handleAck()); // the header of nothing received has id 0

    transport.sendHeartbeat();
    QVERIFY(transport.handleAck());
    QVERIFY(!transport.handleAck());
}

void TestGLinkTransportBase::anAckGoesToTheUnitWhoseMessageItAcknowledges()
{
    RecordingTransport transport;
    transport.m_txPeerId = 2;
    transport.m_rxPeerId = 1;

    transport.receive(Frames::powerOff());
    QVERIFY(transport.send_(2, GLINK_MSG_ID_CMD, "one", 11));
    transport.sendHeartbeat();

    QCOMPARE(transport.receivers, (QList<quint16>{1, 2, 2}));
}

void TestGLinkTransportBase::anInitTakesThePeerIdsOver()
{
    RecordingTransport transport;

    transport.receive(Frames::init());

    QCOMPARE(int(transport.m_rxPeerId), 0x0203);
    QCOMPARE(int(transport.m_txPeerId), 0x0203);
    QVERIFY(transport.send_(0, GLINK_MSG_ID_CMD, "one", 11));
    transport.receive(Frames::commandAck());
    QCOMPARE(transport.events.last(), QString("sent to 515 ref 11"));
}

void TestGLinkTransportBase::anInitStartsTheExchangeAnew()
{
    RecordingTransport transport;
    QVERIFY(transport.send_(1, GLINK_MSG_ID_CMD, "old", 11));

    transport.receive(Frames::init());
    QVERIFY(transport.send_(1, GLINK_MSG_ID_INITACK, GLinkInitAck(0, "").serialize(), 12));
    transport.receive(Frames::commandAck());

    QCOMPARE(int(transport.m_expectedAck), int(GLINK_MSG_ID_INITACK));
    QCOMPARE(transport.events.filter("sent to"), QStringList());
}

void TestGLinkTransportBase::theVerdictNeedsPairingAndBaseId_data()
{
    QTest::addColumn<int>("remoteId");
    QTest::addColumn<int>("baseId");
    QTest::addColumn<bool>("verdict");

    QTest::newRow("first row") << 7 << 0x0405 << true;
    QTest::newRow("last row") << 8 << 0x0405 << true;
    QTest::newRow("another base unit") << 7 << 0x0406 << false;
    QTest::newRow("not paired") << 9 << 0x0405 << false;
    QTest::newRow("neither") << 9 << 1 << false;
}

void TestGLinkTransportBase::theVerdictNeedsPairingAndBaseId()
{
    QFETCH(int, remoteId);
    QFETCH(int, baseId);
    RecordingTransport transport(m_config.data(), m_tags.data());
    GLinkInitMsg init;
    init.remoteId = static_cast<quint16>(remoteId);
    init.baseId = static_cast<quint16>(baseId);
    QByteArray frame = init.serialize();
    transport.addHeader(frame, GLINK_MSG_ID_INIT);
    CrcStd32::add(frame);

    transport.receive(frame);

    QTEST(transport.lastVerdict, "verdict");
    QCOMPARE(int(transport.m_rxPeerId), remoteId);
    QCOMPARE(transport.events.size(), 3);
}

void TestGLinkTransportBase::theVerdictNeedsTheChecksumOfAnInstalledApplication_data()
{
    QTest::addColumn<QByteArray>("reported");
    QTest::addColumn<bool>("verdict");

    // md5sum of the manifest followed by "x".
    QTest::newRow("equal") << QByteArray("71478651c5ecde06599794bb196caf97") << true;
    QTest::newRow("another") << QByteArray("000102030405060708090a0b0c0d0e0f") << false;
}

void TestGLinkTransportBase::theVerdictNeedsTheChecksumOfAnInstalledApplication()
{
    QFETCH(QByteArray, reported);
    installApplication("app", "x");
    RecordingTransport transport(m_config.data(), m_tags.data());
    transport.populateChecksumList();
    QCOMPARE(transport.m_checksumList.keys(), QStringList{m_dir->path() + "/apps/app"});
    QByteArray frame = QByteArray::fromHex("010203020504") + QByteArray::fromHex(reported);
    transport.addHeader(frame, GLINK_MSG_ID_INIT);
    CrcStd32::add(frame);

    transport.receive(frame);

    QTEST(transport.lastVerdict, "verdict");
}

void TestGLinkTransportBase::anApplicationThatWasNeverHashedNeverMatches()
{
    RecordingTransport transport(m_config.data(), m_tags.data());
    transport.populateChecksumList();
    QByteArray sum("untouched");
    QVERIFY(!transport.getAppChecksum(sum));
    QCOMPARE(sum, QByteArray("untouched"));

    installApplication("app", "x");

    QVERIFY(transport.getAppChecksum(sum));
    QVERIFY(sum.isEmpty());
    ApplicationChecksums::request(m_dir->path() + "/apps").wait(); // of somebody else
    transport.receive(Frames::init());
    QVERIFY(!transport.lastVerdict);
}

// Behind an INIT there may be a machine stop.
void TestGLinkTransportBase::theVerdictWaitsForNoList()
{
    installApplication("app", QByteArray());
    QFile large(m_dir->path() + "/apps/app/large");
    QVERIFY(large.open(QIODevice::WriteOnly) && large.resize(1024LL * 1024 * 1024));
    RecordingTransport transport(m_config.data(), m_tags.data());
    const quint64 hashed = ApplicationChecksums::hashCount();
    transport.requestChecksumList();

    transport.receive(Frames::init());

    QVERIFY(!transport.lastVerdict);
    QCOMPARE(ApplicationChecksums::hashCount(), hashed); // the list is still being made
    QVERIFY(large.resize(0));
    QByteArray sum;
    QVERIFY(transport.getAppChecksum(sum)); // leaves nothing behind for the next test
}

void TestGLinkTransportBase::applicationsForOthersAreNotCompared()
{
    write("apps/system/manifest.csv", "target;ru\ntype;system\n");
    write("apps/base/manifest.csv", "target;bu\ntype;user\n");
    RecordingTransport transport(m_config.data(), m_tags.data());
    transport.populateChecksumList();
    QByteArray sum;

    QVERIFY(!transport.getAppChecksum(sum));
    transport.receive(Frames::init());
    QVERIFY(transport.lastVerdict);
}

void TestGLinkTransportBase::theFirstApplicationCounts()
{
    installApplication("b", "x");
    installApplication("c", "y");
    RecordingTransport transport;
    transport.populateChecksumList();
    QByteArray sum;

    QCOMPARE(transport.m_checksumList.size(), 2);
    QVERIFY(transport.getAppChecksum(sum));
    QCOMPARE(sum, transport.m_checksumList.value(m_dir->path() + "/apps/b"));
}

void TestGLinkTransportBase::aListOrderedInTheBackgroundIsWaitedFor()
{
    installApplication("app", "x");
    RecordingTransport transport;
    QByteArray sum;

    transport.requestChecksumList();

    QVERIFY(transport.getAppChecksum(sum));
    QCOMPARE(sum.toHex(), QByteArray("71478651c5ecde06599794bb196caf97"));
    QCOMPARE(transport.m_checksumList.size(), 1);
}

void TestGLinkTransportBase::nullPointersMeanNotPaired()
{
    RecordingTransport transport;

    QVERIFY(!transport.isRuPaired(0));
    QVERIFY(!transport.isBuId(0));
    transport.receive(Frames::init());
    QVERIFY(!transport.lastVerdict);
}

QTEST_GUILESS_MAIN(TestGLinkTransportBase)
#include "tst_glinktransportbase.moc"
