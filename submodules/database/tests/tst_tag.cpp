#include "fatalprobe.h"
#include "logspy.h"
#include "tag.h"
#include "tagdatabase.h"

#include <QMetaEnum>
#include <QSignalSpy>
#include <QtTest>

#include <atomic>
#include <limits>
#include <thread>

class TestTag : public QObject
{
    Q_OBJECT

private slots:
    void aNewTagIsEmpty();
    void settersStoreWithoutSignal();
    void enumerationsHaveTheirNumbers();
    void gettersAreInvokable();

    void bytesBecomeValues_data();
    void bytesBecomeValues();
    void unsupportedSizesAreReported_data();
    void unsupportedSizesAreReported();
    void unsupportedSizeReportedOncePerChange();
    void anUnsetTypeKeepsTheValue_data();
    void anUnsetTypeKeepsTheValue();
    void bytesOfAnotherSizeAreCutOrCompleted_data();
    void bytesOfAnotherSizeAreCutOrCompleted();
    void signedFieldSkipsTheSizeCheck();
    void fieldsOutsideTheBytesAreFatal();

    void theSameBytesDoNothing();
    void newBytesOfTheSameValueAreSilent();
    void theFirstDecodingChangesTheTypeSilently();
    void everyChangeIsAnnouncedOnce();

    void settingAnEqualValueIsSilent_data();
    void settingAnEqualValueIsSilent();
    void settingAnotherValueIsAnnounced_data();
    void settingAnotherValueIsAnnounced();
    void settingAValueKeepsTheBytes();

    void statesAreFoundByExactValue();

    void readersInOtherThreadsSeeWholeValues();
    void writersInTwoThreadsLoseNoChange();
    void valuesSetInAnotherThreadArriveQueued();
};

namespace {

QByteArray hex(const char* digits)
{
    return QByteArray::fromHex(digits);
}

struct Definition
{
    tagDataType type;
    int byteSize;
    int startBit = 0;
    int bitSize = 0;
};

void define(Tag& tag, const Definition& definition)
{
    tag.setDataType(definition.type);
    tag.setByteSize(static_cast<quint16>(definition.byteSize));
    tag.setStartBit(static_cast<quint16>(definition.startBit));
    tag.setBitSize(static_cast<quint16>(definition.bitSize));
}

} // namespace

Q_DECLARE_METATYPE(Definition)

namespace {

void addDecodingColumns()
{
    QTest::addColumn<Definition>("definition");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QVariant>("value");
}

void addDecoding(const char* name, const Definition& definition, const QByteArray& bytes, const QVariant& value)
{
    QTest::newRow(name) << definition << bytes << value;
}

} // namespace

void TestTag::aNewTagIsEmpty()
{
    const Tag tag("speed", nullptr);
    QCOMPARE(tag.getTag(), QString("speed"));
    QCOMPARE(tag.getRawData(), QByteArray());
    QCOMPARE(tag.getValue().userType(), static_cast<int>(QMetaType::Int));
    QCOMPARE(tag.getValue(), QVariant(0));
    QCOMPARE(tag.getLabel(), QString());
    QCOMPARE(tag.getUnitLabel(), QString());
    QCOMPARE(tag.getStartByte(), quint16(0));
    QCOMPARE(tag.getByteSize(), quint16(0));
    QCOMPARE(tag.getStartBit(), quint16(0));
    QCOMPARE(tag.getBitSize(), quint16(0));
    QCOMPARE(tag.getPriority(), qint16(0));
    QCOMPARE(tag.getDataType(), TDBT_NOT_SET);
    QCOMPARE(tag.getMinimumValue(), 0.0F);
    QCOMPARE(tag.getMaximumValue(), 0.0F);
    QCOMPARE(tag.getMinimumWarningValue(), 0.0F);
    QCOMPARE(tag.getMaximumWarningValue(), 0.0F);
    QCOMPARE(tag.getMinimumAlarmValue(), 0.0F);
    QCOMPARE(tag.getMaximumAlarmValue(), 0.0F);
    QCOMPARE(tag.getState(), QString());
}

void TestTag::settersStoreWithoutSignal()
{
    Tag tag("speed", nullptr);
    TagDatabase related(nullptr);
    const QSignalSpy updates(&tag, &Tag::valueUpdated);
    tag.setLabel("Hoist speed");
    tag.setStartByte(65535);
    tag.setByteSize(2);
    tag.setStartBit(3);
    tag.setBitSize(4);
    tag.setDataType(TDBT_BE_INT);
    tag.setPriority(-5);
    tag.setMinimumValue(1.5F);
    tag.setMaximumValue(2.5F);
    tag.setMinimumWarningValue(3.5F);
    tag.setMaximumWarningValue(4.5F);
    tag.setMinimumAlarmValue(5.5F);
    tag.setMaximumAlarmValue(6.5F);
    tag.setUnitLabel("m/s");
    tag.setHostLink(Tag::EGOT);
    tag.setBitmask(0xF0F0F0F0U);
    tag.setRelatedTags(&related);

    QCOMPARE(tag.getLabel(), QString("Hoist speed"));
    QCOMPARE(tag.getStartByte(), quint16(65535));
    QCOMPARE(tag.getByteSize(), quint16(2));
    QCOMPARE(tag.getStartBit(), quint16(3));
    QCOMPARE(tag.getBitSize(), quint16(4));
    QCOMPARE(tag.getDataType(), TDBT_BE_INT);
    QCOMPARE(tag.getPriority(), qint16(-5));
    QCOMPARE(tag.getMinimumValue(), 1.5F);
    QCOMPARE(tag.getMaximumValue(), 2.5F);
    QCOMPARE(tag.getMinimumWarningValue(), 3.5F);
    QCOMPARE(tag.getMaximumWarningValue(), 4.5F);
    QCOMPARE(tag.getMinimumAlarmValue(), 5.5F);
    QCOMPARE(tag.getMaximumAlarmValue(), 6.5F);
    QCOMPARE(tag.getUnitLabel(), QString("m/s"));
    QCOMPARE(tag.getHostLink(), Tag::EGOT);
    QCOMPARE(tag.getBitmask(), 0xF0F0F0F0U);
    QCOMPARE(tag.getRelatedTags(), &related);
    QCOMPARE(updates.count(), 0);
}

void TestTag::enumerationsHaveTheirNumbers()
{
    const QMetaEnum links = QMetaEnum::fromType<Tag::HostLinkType>();
    const QStringList names{"RIIT", "RIOT", "ECOT", "EGOT", "BTRS", "BIIT", "BIOT", "NOLK", "RICT"};
    QCOMPARE(links.keyCount(), names.size());
    for (int i = 0; i < names.size(); ++i) {
        QCOMPARE(links.valueToKey(i), names.at(i).toLatin1().constData());
    }
    const QVector<int> types{TDBT_NOT_SET, TDBT_UINT,    TDBT_BE_UINT,    TDBT_INT,
                             TDBT_BE_INT,  TDBT_REAL,    TDBT_BE_REAL,    TDBT_STRING,
                             TDBT_RAW,     TDBT_BOOLEAN, TDBT_BE_BOOLEAN, TDBT_ENDOFENUMMARKER};
    QCOMPARE(types, (QVector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
}

void TestTag::gettersAreInvokable()
{
    Tag tag("speed", nullptr);
    tag.setUnitLabel("rpm");
    tag.setHostLink(Tag::BIIT);
    tag.setValue(QVariant(42));

    QString unit;
    QVERIFY(QMetaObject::invokeMethod(&tag, "getUnitLabel", Q_RETURN_ARG(QString, unit)));
    QCOMPARE(unit, QString("rpm"));
    QVariant value;
    QVERIFY(QMetaObject::invokeMethod(&tag, "getValue", Q_RETURN_ARG(QVariant, value)));
    QCOMPARE(value, QVariant(42));

    for (const char* getter :
         {"getRawData()", "getValue()", "getLabel()", "getStartByte()", "getByteSize()", "getStartBit()",
          "getBitSize()", "getDataType()", "getPriority()", "getMinimumValue()", "getMaximumValue()",
          "getMinimumWarningValue()", "getMaximumWarningValue()", "getMinimumAlarmValue()", "getMaximumAlarmValue()",
          "getUnitLabel()", "getHostLink()", "getRelatedTags()", "getState()"}) {
        QVERIFY2(Tag::staticMetaObject.indexOfMethod(getter) >= 0, getter);
    }
}

void TestTag::bytesBecomeValues_data()
{
    addDecodingColumns();
    const auto row = addDecoding;
    row("one unsigned byte", {TDBT_UINT, 1}, hex("FF"), 255U);
    row("one unsigned byte, big endian", {TDBT_BE_UINT, 1}, hex("80"), 128U);
    row("two unsigned bytes, least significant first", {TDBT_UINT, 2}, hex("1234"), 0x3412U);
    row("two unsigned bytes, most significant first", {TDBT_BE_UINT, 2}, hex("1234"), 0x1234U);
    row("four unsigned bytes, least significant first", {TDBT_UINT, 4}, hex("12345689"), 0x89563412U);
    row("four unsigned bytes, most significant first", {TDBT_BE_UINT, 4}, hex("89ABCDEF"), 0x89ABCDEFU);
    row("unsigned bits of a decoded number", {TDBT_UINT, 4, 4, 3}, hex("F0000000"), 7U);
    row("unsigned bits across bytes", {TDBT_UINT, 2, 6, 4}, hex("C003"), 15U);
    row("unsigned bits, most significant first", {TDBT_BE_UINT, 2, 8, 8}, hex("AB12"), 0xABU);
    row("unsigned bits beyond the number are 0", {TDBT_UINT, 1, 8, 4}, hex("FF"), 0U);
    row("unsigned bits from 32 on are 0", {TDBT_UINT, 4, 32, 4}, hex("FFFFFFFF"), 0U);
    row("32 unsigned bits keep all", {TDBT_UINT, 4, 0, 32}, hex("FEFFFFFF"), 0xFFFFFFFEU);
    row("start bit alone shifts nothing", {TDBT_UINT, 1, 4, 0}, hex("F5"), 0xF5U);

    row("one signed byte", {TDBT_INT, 1}, hex("FF"), -1);
    row("one signed byte, big endian", {TDBT_BE_INT, 1}, hex("80"), -128);
    row("two signed bytes, least significant first", {TDBT_INT, 2}, hex("FEFF"), -2);
    row("two signed bytes, most significant first", {TDBT_BE_INT, 2}, hex("FFFE"), -2);
    row("four signed bytes, least significant first", {TDBT_INT, 4}, hex("00000080"), std::numeric_limits<int>::min());
    row("four signed bytes, most significant first", {TDBT_BE_INT, 4}, hex("7FFFFFFF"), 2147483647);
    row("signed bits extend their sign", {TDBT_INT, 1, 4, 4}, hex("F0"), -1);
    row("signed bits without sign", {TDBT_INT, 1, 0, 4}, hex("F7"), 7);
    row("signed bits, most significant byte first", {TDBT_BE_INT, 2, 8, 8}, hex("8001"), -128);
    row("signed bits, least significant byte first", {TDBT_INT, 2, 8, 8}, hex("8001"), 1);

    row("four real bytes", {TDBT_REAL, 4}, hex("0000C0BF"), -1.5F);
    row("four real bytes, most significant first", {TDBT_BE_REAL, 4}, hex("3FC00000"), 1.5F);
    row("eight real bytes", {TDBT_REAL, 8}, hex("000000000000F03F"), 1.0);
    row("eight real bytes, most significant first", {TDBT_BE_REAL, 8}, hex("C000000000000000"), -2.0);

    row("text ends at the first zero byte", {TDBT_STRING, 4}, hex("41420043"), QString("AB"));
    row("text without a zero byte", {TDBT_STRING, 3}, QByteArray("abc"), QString("abc"));
    row("text of zero bytes", {TDBT_STRING, 2}, hex("0000"), QString(""));
    row("raw bytes", {TDBT_RAW, 3}, hex("00FF41"), hex("00FF41"));

    row("bit 0 of the first byte", {TDBT_BOOLEAN, 2, 0}, hex("0100"), true);
    row("bit 8 of the second byte", {TDBT_BOOLEAN, 2, 8}, hex("0001"), true);
    row("bit 8 not in the first byte", {TDBT_BOOLEAN, 2, 8}, hex("FF00"), false);
    row("bit 0 of the last byte, big endian", {TDBT_BE_BOOLEAN, 2, 0}, hex("0001"), true);
    row("bit 8 of the first byte, big endian", {TDBT_BE_BOOLEAN, 2, 8}, hex("0100"), true);
    row("bit 31 of four bytes", {TDBT_BOOLEAN, 4, 31}, hex("00000080"), true);
    row("bit 31 of four bytes, big endian", {TDBT_BE_BOOLEAN, 4, 31}, hex("80000000"), true);
    row("bit 7 of one byte", {TDBT_BE_BOOLEAN, 1, 7}, hex("7F"), false);
    row("booleans ignore the bit size", {TDBT_BOOLEAN, 1, 1, 8}, hex("02"), true);
}

void TestTag::bytesBecomeValues()
{
    QFETCH(Definition, definition);
    QFETCH(QByteArray, bytes);
    QFETCH(QVariant, value);
    const LogSpy log;
    Tag tag("t", nullptr);
    define(tag, definition);
    tag.setValue(bytes);
    QCOMPARE(tag.getRawData(), bytes);
    QCOMPARE(tag.getValue().userType(), value.userType());
    QCOMPARE(tag.getValue(), value);
    QCOMPARE(log.lines(QtWarningMsg), QStringList());
}

void TestTag::unsupportedSizesAreReported_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("byteSize");
    QTest::addColumn<QString>("warning");
    QTest::addColumn<QVariant>("valueAfter");

    const QVariant before(77);
    const QVariant zero(0U);
    const QString text("Unsupported tag size for data type ");
    QTest::newRow("UINT of 3") << int(TDBT_UINT) << 3 << text + "UINT" << zero;
    QTest::newRow("UINT of 0") << int(TDBT_UINT) << 0 << text + "UINT" << zero;
    QTest::newRow("BE_UINT of 8") << int(TDBT_BE_UINT) << 8 << text + "BE_UINT" << zero;
    QTest::newRow("INT of 3") << int(TDBT_INT) << 3 << text + "INT" << before;
    QTest::newRow("BE_INT of 5") << int(TDBT_BE_INT) << 5 << text + "BE_INT" << before;
    QTest::newRow("REAL of 2") << int(TDBT_REAL) << 2 << text + "REAL" << before;
    QTest::newRow("BE_REAL of 1") << int(TDBT_BE_REAL) << 1 << text + "BE_REAL" << before;
    QTest::newRow("BOOLEAN of 3") << int(TDBT_BOOLEAN) << 3 << text + "TDBT_BOOLEAN" << before;
    QTest::newRow("BE_BOOLEAN of 8") << int(TDBT_BE_BOOLEAN) << 8 << "Unsupported size for data type TDBT_BE_BOOLEAN"
                                     << before;
}

void TestTag::unsupportedSizesAreReported()
{
    QFETCH(int, type);
    QFETCH(int, byteSize);
    QFETCH(QString, warning);
    QFETCH(QVariant, valueAfter);
    Tag tag("t", nullptr);
    tag.setValue(QVariant(77));
    define(tag, {static_cast<tagDataType>(type), byteSize});
    const QByteArray bytes(qMax(byteSize, 1), '\x55');
    const LogSpy log;
    const QSignalSpy updates(&tag, &Tag::valueUpdated);
    tag.setValue(bytes);
    QCOMPARE(log.lines(), QStringList{warning});
    QCOMPARE(log.lines(QtWarningMsg), QStringList{warning});
    QCOMPARE(tag.getValue(), valueAfter);
    QCOMPARE(tag.getValue().userType(), valueAfter.userType());
    QCOMPARE(tag.getRawData(), bytes);
    QCOMPARE(updates.count(), valueAfter == QVariant(77) ? 0 : 1);
}

void TestTag::unsupportedSizeReportedOncePerChange()
{
    Tag tag("t", nullptr);
    define(tag, {TDBT_INT, 3});
    const LogSpy log;
    tag.setValue(hex("010203"));
    tag.setValue(hex("010203"));
    QCOMPARE(log.lines().size(), 1);
    tag.setValue(hex("010204"));
    QCOMPARE(log.lines().size(), 2);
}

void TestTag::anUnsetTypeKeepsTheValue_data()
{
    QTest::addColumn<int>("type");
    QTest::newRow("not set") << 0;
    QTest::newRow("end marker") << 11;
}

void TestTag::anUnsetTypeKeepsTheValue()
{
    QFETCH(int, type);
    Tag tag("odd", nullptr);
    define(tag, {static_cast<tagDataType>(type), 2});
    const LogSpy log;
    const QSignalSpy updates(&tag, &Tag::valueUpdated);
    tag.setValue(QByteArray("AB"));
    QCOMPARE(log.lines(QtWarningMsg),
             QStringList{QString("setTagValue - type error for \"odd\" - setValue: \"AB\" current value: "
                                 "QVariant(int, 0) dataType: %1")
                             .arg(type)});
    QCOMPARE(tag.getValue(), QVariant(0));
    QCOMPARE(tag.getRawData(), QByteArray("AB"));
    QCOMPARE(updates.count(), 0);
}

void TestTag::bytesOfAnotherSizeAreCutOrCompleted_data()
{
    addDecodingColumns();
    const auto row = addDecoding;
    row("four bytes for an unsigned byte", {TDBT_UINT, 1}, hex("07010203"), 7U);
    row("four bytes for a signed byte", {TDBT_INT, 1}, hex("FE000000"), -2);
    row("four bytes for two", {TDBT_UINT, 2}, hex("34120000"), 0x1234U);
    row("four bytes for a boolean byte", {TDBT_BE_BOOLEAN, 1, 0}, hex("01000000"), true);
    row("one byte for four", {TDBT_UINT, 4}, hex("05"), 5U);
    row("one byte for four, most significant first", {TDBT_BE_UINT, 4}, hex("05"), 0x05000000U);
    row("no byte for one", {TDBT_INT, 1}, QByteArray(), 0);
    row("three bytes for a real", {TDBT_BE_REAL, 4}, hex("3FC000"), 1.5F);
    row("no byte for a boolean", {TDBT_BOOLEAN, 1, 3}, QByteArray(), false);
}

void TestTag::bytesOfAnotherSizeAreCutOrCompleted()
{
    QFETCH(Definition, definition);
    QFETCH(QByteArray, bytes);
    QFETCH(QVariant, value);
    const LogSpy log;
    Tag tag("t", nullptr);
    tag.setDataType(TDBT_RAW);
    tag.setValue(QByteArray("something else"));
    define(tag, definition);
    tag.setValue(bytes);
    QCOMPARE(tag.getValue(), value);
    QCOMPARE(tag.getRawData(), bytes);
    QCOMPARE(log.lines(QtWarningMsg), QStringList());
}

void TestTag::signedFieldSkipsTheSizeCheck()
{
    Tag tag("t", nullptr);
    define(tag, {TDBT_INT, 3, 0, 5});
    const LogSpy log;
    tag.setValue(hex("1F0000"));
    QCOMPARE(tag.getValue(), QVariant(-1));
    QCOMPARE(log.lines(), QStringList());
}

void TestTag::fieldsOutsideTheBytesAreFatal()
{
    const QString unit = QStringLiteral("src/utillityfunctions");
    const auto decode = [](const Definition& definition, const QByteArray& bytes) {
        Tag tag("t", nullptr);
        define(tag, definition);
        tag.setValue(bytes);
    };
    VERIFY_FATAL(unit, 259, decode({TDBT_INT, 1, 8, 1}, hex("01")));
    VERIFY_FATAL(unit, 260, decode({TDBT_BE_INT, 1, 0, 9}, hex("01")));
    VERIFY_FATAL(unit, 261, decode({TDBT_INT, 1, 4, 5}, hex("01")));
    VERIFY_FATAL(unit, 262, decode({TDBT_INT, 5, 0, 5}, hex("0102030405")));
    VERIFY_FATAL(unit, 232, decode({TDBT_BOOLEAN, 1, 8}, hex("01")));
    VERIFY_FATAL(unit, 232, decode({TDBT_BE_BOOLEAN, 2, 16}, hex("0101")));
}

void TestTag::theSameBytesDoNothing()
{
    Tag tag("t", nullptr);
    define(tag, {TDBT_UINT, 1});
    tag.setValue(hex("07"));
    tag.setValue(QVariant(9));
    const QSignalSpy updates(&tag, &Tag::valueUpdated);
    const quint32 revision = tag.rawRevision();
    tag.setValue(hex("07"));
    QCOMPARE(updates.count(), 0);
    QCOMPARE(tag.getValue(), QVariant(9));
    QCOMPARE(tag.rawRevision(), revision);
}

void TestTag::newBytesOfTheSameValueAreSilent()
{
    Tag tag("t", nullptr);
    define(tag, {TDBT_STRING, 4});
    tag.setValue(hex("41004242"));
    const QSignalSpy updates(&tag, &Tag::valueUpdated);
    tag.setValue(hex("41004343"));
    QCOMPARE(updates.count(), 0);
    QCOMPARE(tag.getValue(), QVariant(QString("A")));
    QCOMPARE(tag.getRawData(), hex("41004343"));
}

void TestTag::theFirstDecodingChangesTheTypeSilently()
{
    Tag tag("t", nullptr);
    define(tag, {TDBT_UINT, 1});
    const QSignalSpy updates(&tag, &Tag::valueUpdated);
    tag.setValue(hex("00"));
    QCOMPARE(updates.count(), 0);
    QCOMPARE(tag.getValue().userType(), static_cast<int>(QMetaType::UInt));
}

void TestTag::everyChangeIsAnnouncedOnce()
{
    Tag tag("t", nullptr);
    define(tag, {TDBT_BE_UINT, 2});
    QSignalSpy updates(&tag, &Tag::valueUpdated);
    tag.setValue(hex("0102"));
    tag.setValue(hex("0103"));
    tag.setValue(hex("0103"));
    QCOMPARE(updates.count(), 2);
    QCOMPARE(updates.at(0).at(0).value<QVariant>(), QVariant(0x0102U));
    QCOMPARE(updates.at(1).at(0).value<QVariant>(), QVariant(0x0103U));
}

void TestTag::settingAnEqualValueIsSilent_data()
{
    QTest::addColumn<QVariant>("before");
    QTest::addColumn<QVariant>("after");
    QTest::newRow("same number") << QVariant(5) << QVariant(5);
    QTest::newRow("same number of another type") << QVariant(5) << QVariant(5U);
    QTest::newRow("same text") << QVariant("run") << QVariant("run");
    QTest::newRow("a null number is 0") << QVariant(0) << QVariant(QVariant::UInt);
}

void TestTag::settingAnEqualValueIsSilent()
{
    QFETCH(QVariant, before);
    QFETCH(QVariant, after);
    Tag tag("t", nullptr);
    tag.setValue(before);
    const QSignalSpy updates(&tag, &Tag::valueUpdated);
    tag.setValue(after);
    QCOMPARE(updates.count(), 0);
    QCOMPARE(tag.getValue().userType(), before.userType());
}

void TestTag::settingAnotherValueIsAnnounced_data()
{
    QTest::addColumn<QVariant>("before");
    QTest::addColumn<QVariant>("after");
    QTest::newRow("another number") << QVariant(5) << QVariant(6);
    QTest::newRow("text instead of a number") << QVariant(5) << QVariant("five");
    QTest::newRow("a null text instead of a number") << QVariant(0) << QVariant(QVariant::String);
    QTest::newRow("another text") << QVariant("run") << QVariant("RUN");
}

void TestTag::settingAnotherValueIsAnnounced()
{
    QFETCH(QVariant, before);
    QFETCH(QVariant, after);
    Tag tag("t", nullptr);
    tag.setValue(before);
    QSignalSpy updates(&tag, &Tag::valueUpdated);
    tag.setValue(after);
    QCOMPARE(updates.count(), 1);
    QCOMPARE(updates.at(0).at(0).value<QVariant>(), after);
    QCOMPARE(tag.getValue(), after);
    QCOMPARE(tag.getValue().userType(), after.userType());
}

void TestTag::settingAValueKeepsTheBytes()
{
    Tag tag("t", nullptr);
    define(tag, {TDBT_UINT, 1});
    tag.setValue(hex("07"));
    tag.setValue(QVariant(9));
    QCOMPARE(tag.getRawData(), hex("07"));
}

void TestTag::statesAreFoundByExactValue()
{
    Tag tag("t", nullptr);
    tag.insertState(0, "stopped");
    tag.insertState(2, "running");
    QCOMPARE(tag.getState(), QString("stopped"));
    tag.setValue(QVariant(1));
    QCOMPARE(tag.getState(), QString());
    tag.setValue(QVariant(2));
    QCOMPARE(tag.getState(), QString("running"));
    tag.insertState(2, "in operation");
    QCOMPARE(tag.getState(), QString("in operation"));
}

void TestTag::readersInOtherThreadsSeeWholeValues()
{
    Tag tag("t", nullptr);
    define(tag, {TDBT_STRING, 64});
    tag.setValue(QByteArray(64, 'a'));
    std::atomic<bool> stop{false};
    std::atomic<int> torn{0};
    std::atomic<int> reads{0};
    std::thread reader([&] {
        while (!stop) {
            const QString text = tag.getValue().toString();
            const QByteArray raw = tag.getRawData();
            torn += text != QString(64, text.at(0)) || raw != QByteArray(64, raw.at(0)) ? 1 : 0;
            ++reads;
        }
    });
    for (int i = 0; i < 20000 || reads < 1000; ++i) {
        tag.setValue(QByteArray(64, static_cast<char>('a' + i % 26)));
    }
    stop = true;
    reader.join();
    QCOMPARE(torn.load(), 0);
}

void TestTag::writersInTwoThreadsLoseNoChange()
{
    Tag tag("t", nullptr);
    define(tag, {TDBT_UINT, 4});
    constexpr int Rounds = 5000;
    const quint32 before = tag.rawRevision();
    const auto write = [&tag](char mark) {
        for (int i = 0; i < Rounds; ++i) {
            QByteArray bytes(4, mark); // each its own: none is changed that the tag has had
            bytes[0] = static_cast<char>(i);
            bytes[1] = static_cast<char>(i >> 8);
            tag.setValue(bytes);
        }
    };
    std::thread other(write, 'x');
    write('y');
    other.join();
    QCOMPARE(tag.rawRevision() - before, quint32(2 * Rounds));
    // 4999 is 1387 in hexadecimal; whoever came last, bytes and value are of one piece.
    const bool lastIsX = tag.getRawData() == hex("87137878") && tag.getValue() == QVariant(0x78781387U);
    const bool lastIsY = tag.getRawData() == hex("87137979") && tag.getValue() == QVariant(0x79791387U);
    QVERIFY(lastIsX != lastIsY);
}

void TestTag::valuesSetInAnotherThreadArriveQueued()
{
    Tag tag("t", nullptr);
    define(tag, {TDBT_UINT, 4});
    QObject receiver;
    QThread* deliveredIn = nullptr;
    QVariant delivered;
    connect(&tag, &Tag::valueUpdated, &receiver, [&](const QVariant& value) {
        deliveredIn = QThread::currentThread();
        delivered = value;
    });
    std::thread other([&tag] { tag.setValue(QByteArray::fromHex("2A000000")); });
    other.join();
    QCOMPARE(tag.getValue(), QVariant(42U));
    QVERIFY(deliveredIn == nullptr);
    QTRY_COMPARE(delivered, QVariant(42U));
    QCOMPARE(deliveredIn, QThread::currentThread());
}

QTEST_GUILESS_MAIN(TestTag)
#include "tst_tag.moc"
