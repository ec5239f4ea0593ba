#include "pairrequest.h"

#include <QtTest>

using Command = PairRequest::Command;
using Status = PairRequestDecoding::Status;

Q_DECLARE_METATYPE(PairRequest::Command)
Q_DECLARE_METATYPE(PairRequestDecoding::Status)

namespace {

const QByteArray GetAppText = QByteArray::fromHex("0000000C 0067 0065 0074 0041 0070 0070");
const QByteArray GetAppListText = QByteArray::fromHex("00000014 0067 0065 0074 0041 0070 0070 004C 0069 0073 0074");
const QByteArray StartTransferText =
    QByteArray::fromHex("0000001A 0073 0074 0061 0072 0074 0054 0072 0061 006E 0073 0066 0065 0072");
/// Remote unit 0x0102, path "/a".
const QByteArray GetAppArguments = QByteArray::fromHex("0102 00000004 002F 0061");

QByteArray big32(quint32 value)
{
    QByteArray bytes;
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes.append(char(value >> shift));
    }
    return bytes;
}

} // namespace

class TestPairRequest : public QObject
{
    Q_OBJECT

private slots:
    void decodesCompleteRequests_data();
    void decodesCompleteRequests();
    void everyBeginningOfARequestIsIncomplete();
    void takesOnlyTheFirstOfSeveralRequests();
    void boundsTheLengthOfARequest_data();
    void boundsTheLengthOfARequest();
    void longestRequestIsServed();
    void oddTextLengthIsCorrupt_data();
    void oddTextLengthIsCorrupt();
    void garbageNeverYieldsMoreThanItHolds();
};

void TestPairRequest::decodesCompleteRequests_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<PairRequest::Command>("command");
    QTest::addColumn<quint16>("ruId");
    QTest::addColumn<QString>("appPath");

    QTest::newRow("getAppList") << GetAppListText << Command::GetAppList << quint16(0) << QString();
    QTest::newRow("startTransfer") << StartTransferText << Command::StartTransfer << quint16(0) << QString();
    QTest::newRow("getApp with its arguments")
        << GetAppText + GetAppArguments << Command::GetApp << quint16(0x0102) << QStringLiteral("/a");
    QTest::newRow("getApp with id 0") << GetAppText + QByteArray::fromHex("0000 00000004 002F 0061") << Command::GetApp
                                      << quint16(0) << "/a";
    QTest::newRow("getApp with an empty path")
        << GetAppText + QByteArray::fromHex("0007 00000000") << Command::GetApp << quint16(7) << QString("");
    QTest::newRow("getApp with a null path")
        << GetAppText + QByteArray::fromHex("0007 FFFFFFFF") << Command::GetApp << quint16(7) << QString();
    QTest::newRow("a path outside ASCII") << GetAppText + QByteArray::fromHex("0007 00000004 002F 00E5")
                                          << Command::GetApp << quint16(7) << QString::fromUtf8("/\xC3\xA5");
    QTest::newRow("another case is another command")
        << QByteArray::fromHex("0000000C 0047 0065 0074 0041 0070 0070") << Command::Unknown << quint16(0) << QString();
    QTest::newRow("a longer word is another command")
        << QByteArray::fromHex("0000000E 0067 0065 0074 0041 0070 0070 0073") << Command::Unknown << quint16(0)
        << QString();
    QTest::newRow("an empty command") << QByteArray::fromHex("00000000") << Command::Unknown << quint16(0) << QString();
    QTest::newRow("a null command") << QByteArray::fromHex("FFFFFFFF") << Command::Unknown << quint16(0) << QString();
}

void TestPairRequest::decodesCompleteRequests()
{
    QFETCH(QByteArray, bytes);

    const PairRequestDecoding decoding = decodePairRequest(bytes);

    QCOMPARE(decoding.status, Status::Complete);
    QCOMPARE(decoding.size, bytes.size());
    QTEST(decoding.request.command, "command");
    QTEST(decoding.request.ruId, "ruId");
    QTEST(decoding.request.appPath, "appPath");
}

void TestPairRequest::everyBeginningOfARequestIsIncomplete()
{
    const QByteArray whole = GetAppText + GetAppArguments;
    for (int size = 0; size < whole.size(); ++size) {
        const PairRequestDecoding decoding = decodePairRequest(whole.left(size));
        QVERIFY2(decoding.status == Status::Incomplete, qPrintable(QString::number(size)));
        QCOMPARE(decoding.size, 0);
        QCOMPARE(decoding.request.command, Command::Unknown);
        QCOMPARE(decoding.request.ruId, quint16(0));
    }
}

void TestPairRequest::takesOnlyTheFirstOfSeveralRequests()
{
    QByteArray bytes = GetAppListText + GetAppText + GetAppArguments + StartTransferText;

    PairRequestDecoding decoding = decodePairRequest(bytes);
    QCOMPARE(decoding.request.command, Command::GetAppList);
    QCOMPARE(decoding.size, 24);
    decoding = decodePairRequest(bytes.remove(0, decoding.size));
    QCOMPARE(decoding.request.command, Command::GetApp);
    QCOMPARE(decoding.size, 26);
    decoding = decodePairRequest(bytes.remove(0, decoding.size));
    QCOMPARE(decoding.request.command, Command::StartTransfer);
    QCOMPARE(decoding.size, bytes.size());
}

void TestPairRequest::boundsTheLengthOfARequest_data()
{
    QTest::addColumn<QByteArray>("bytes");

    QTest::newRow("a command that claims 4 GiB") << QByteArray::fromHex("FFFFFFFE");
    QTest::newRow("a command that claims 2 GiB") << QByteArray::fromHex("7FFFFFFE");
    QTest::newRow("a command that just does not fit") << big32(65536 - 4 + 2);
    QTest::newRow("a path that claims 2 GiB") << GetAppText + QByteArray::fromHex("0007 80000000");
    // 16 bytes of command, 2 of id, 4 of length: 65514 would fit.
    QTest::newRow("a path that just does not fit") << GetAppText + QByteArray::fromHex("0007") + big32(65516);
    QTest::newRow("the same with all its bytes")
        << GetAppText + QByteArray::fromHex("0007") + big32(65516) + QByteArray(65516, 'x');
}

void TestPairRequest::boundsTheLengthOfARequest()
{
    QFETCH(QByteArray, bytes);

    const PairRequestDecoding decoding = decodePairRequest(bytes);

    QCOMPARE(decoding.status, Status::TooLong);
    QCOMPARE(decoding.size, 0);
}

void TestPairRequest::longestRequestIsServed()
{
    const QByteArray head = GetAppText + QByteArray::fromHex("0007") + big32(65514);
    QCOMPARE(decodePairRequest(head + QByteArray(65513, 'x')).status, Status::Incomplete);

    const PairRequestDecoding decoding = decodePairRequest(head + QByteArray(65514, 'x'));

    QCOMPARE(decoding.status, Status::Complete);
    QCOMPARE(decoding.size, 65536);
    QCOMPARE(decoding.request.appPath, QString(32757, QChar(0x7878)));
}

void TestPairRequest::oddTextLengthIsCorrupt_data()
{
    QTest::addColumn<QByteArray>("bytes");

    QTest::newRow("in the command") << QByteArray::fromHex("00000003 006700");
    QTest::newRow("in the command, huge") << QByteArray::fromHex("FFFFFFFD");
    QTest::newRow("in the path") << GetAppText + QByteArray::fromHex("0007 00000001 61");
}

void TestPairRequest::oddTextLengthIsCorrupt()
{
    QFETCH(QByteArray, bytes);

    QCOMPARE(decodePairRequest(bytes).status, Status::Corrupt);
}

void TestPairRequest::garbageNeverYieldsMoreThanItHolds()
{
    QRandomGenerator random(20220327);
    for (int round = 0; round < 20000; ++round) {
        QByteArray bytes = random.bounded(3) == 0 ? GetAppText : QByteArray();
        const int noise = random.bounded(40);
        for (int i = 0; i < noise; ++i) {
            bytes.append(random.bounded(2) == 0 ? '\0' : char(random.bounded(256)));
        }
        const PairRequestDecoding decoding = decodePairRequest(bytes);
        QVERIFY(decoding.size <= bytes.size());
        QVERIFY(decoding.request.appPath.size() * 2 <= decoding.size);
        QCOMPARE(decoding.size > 0, decoding.status == Status::Complete);
    }
}

QTEST_APPLESS_MAIN(TestPairRequest)
#include "tst_pairrequest.moc"
