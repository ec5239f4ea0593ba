#include "configfile.h"
#include "logspy.h"
#include "tagdatabase.h"

#include <QCoreApplication>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <atomic>
#include <memory>
#include <thread>

class TestTagDatabase : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void installedFilesInTheirOrder();
    void missingFilesAreReportedAndSkipped();
    void prePopulateLoadsTheInstalledFiles();
    void columnsBecomeFields();
    void badNumbersCountAsZero();
    void typeWordsDecideTypeAndInitialValue_data();
    void typeWordsDecideTypeAndInitialValue();
    void rawTagsStartWithZeroBytes();
    void filesGiveLinkAndOrder();
    void theFirstOfANameStands();

    void tagsAreFoundByNameAndIndex();
    void recordsThatAreNoTagsAreNotGiven();
    void indexesOutsideAreReported();
    void atIsInvokable();

    void namedTagsAreSetAsSignedInt();
    void unknownNamesChangeNothing();

    void imagesFillTheInputTags();
    void shortImagesAreCompletedWithZeros_data();
    void shortImagesAreCompletedWithZeros();
    void tagsAreFedInIndexOrder();
    void unchangedBytesDoNothing();
    void aValueSetMeanwhileStandsUntilTheBytesChange();
    void bytesSetMeanwhileAreOverwritten();
    void definitionsChangedMeanwhileCount();
    void receiversMayAppendAndClear();
    void receiversMayFeedAnotherImage();
    void clearedDatabasesTakeNoImage();
    void undecodableTagsAreReportedOnce();
    void readersMayLookUpWhileImagesArrive();

private:
    QString write(const QString& name, const QByteArray& content) const;
    Tag* addInput(TagDatabase& tags, const QString& name, int startByte, int byteSize,
                  tagDataType type = TDBT_UINT) const;

    std::unique_ptr<QTemporaryDir> m_folder;
};

namespace {

const QByteArray Header("tag;label;startByte;byteSize;startBit;bitSize;dataType;unitLabel;minValue;maxValue;"
                        "minWarningValue;maxWarningValue;minAlarmValue;maxAlarmValue\n"
                        "Name;Text;First byte;Bytes;First bit;Bits;Type;Unit;Min;Max;Min;Max;Min;Max\n");

QByteArray hex(const char* digits)
{
    return QByteArray::fromHex(digits);
}

} // namespace

void TestTagDatabase::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    QVERIFY(m_folder->isValid());
}

QString TestTagDatabase::write(const QString& name, const QByteArray& content) const
{
    const QString path = m_folder->filePath(name);
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size() ? path : QString();
}

Tag* TestTagDatabase::addInput(TagDatabase& tags, const QString& name, int startByte, int byteSize,
                               tagDataType type) const
{
    Tag* const tag = new Tag(name, &tags);
    tag->setStartByte(static_cast<quint16>(startByte));
    tag->setByteSize(static_cast<quint16>(byteSize));
    tag->setDataType(type);
    tag->setHostLink(Tag::BIIT);
    tags.append(tag);
    return tag;
}

void TestTagDatabase::installedFilesInTheirOrder()
{
    const QVector<TagFile> files = TagDatabase::installedTagFiles();
    const QString beside = QCoreApplication::applicationDirPath();
    QVERIFY(beside.endsWith("/tests"));
    const QVector<QPair<QString, int>> expected{
        {"/home/root/Applications/.config/baseInternalInputTags.csv", 5},
        {"/home/root/Applications/.config/baseInternalOutputTags.csv", 6},
        {"/home/root/Applications/.config/baseInternalTags.csv", 7},
        {beside + "/config/ECOutputTags.csv", 2},
        {beside + "/config/EGOutputTags.csv", 3},
    };
    QCOMPARE(files.size(), expected.size());
    for (int i = 0; i < files.size(); ++i) {
        QCOMPARE(files.at(i).path, expected.at(i).first);
        QCOMPARE(int(files.at(i).hostLink), expected.at(i).second);
    }
}

void TestTagDatabase::missingFilesAreReportedAndSkipped()
{
    const QString present = write("present.csv", Header + "speed;;0;2;0;0;UINT;;;;;;;\n");
    TagDatabase tags(nullptr);
    const LogSpy log;
    tags.loadTagFiles({{"/nowhere/a.csv", Tag::BIIT}, {present, Tag::BIIT}, {"/nowhere/b.csv", Tag::NOLK}});
    QCOMPARE(log.lines(QtWarningMsg), (QStringList{"Could not find the configuration file:  \"/nowhere/a.csv\"",
                                                   "Could not find the configuration file:  \"/nowhere/b.csv\""}));
    QCOMPARE(log.lines(QtDebugMsg),
             (QStringList{"loading \"/nowhere/a.csv\"", "loading \"" + present + "\"", "loading \"/nowhere/b.csv\""}));
    QCOMPARE(tags.size(), 1);
}

void TestTagDatabase::prePopulateLoadsTheInstalledFiles()
{
    TagDatabase tags(nullptr);
    const LogSpy log;
    tags.prePopulate();
    QStringList loading = log.lines(QtDebugMsg).filter("loading \"");
    const QString beside = QCoreApplication::applicationDirPath();
    QCOMPARE(loading, (QStringList{"loading \"/home/root/Applications/.config/baseInternalInputTags.csv\"",
                                   "loading \"/home/root/Applications/.config/baseInternalOutputTags.csv\"",
                                   "loading \"/home/root/Applications/.config/baseInternalTags.csv\"",
                                   "loading \"" + beside + "/config/ECOutputTags.csv\"",
                                   "loading \"" + beside + "/config/EGOutputTags.csv\""}));
    // On a development machine none of the files exists; on one with an installation each is loaded instead.
    int present = 0;
    for (const TagFile& file : TagDatabase::installedTagFiles()) {
        present += QFile::exists(file.path) ? 1 : 0;
    }
    QCOMPARE(log.lines(QtWarningMsg).filter("Could not find the configuration file:  \"").size(), 5 - present);
    QCOMPARE(tags.size() == 0, present == 0);
}

void TestTagDatabase::columnsBecomeFields()
{
    const QString path =
        write("tags.csv", Header + "speed;Hoist speed;7;4;3;5;BE_REAL;m/s;-1.5;2.5;-1.25;2.25;-1.125;2.125\n");
    TagDatabase tags(nullptr);
    const LogSpy log;
    tags.loadTagFiles({{path, Tag::BIOT}});
    QCOMPARE(tags.size(), 1);
    const Tag* const tag = tags.get("speed");
    QVERIFY(tag != nullptr);
    QCOMPARE(tag->parent(), &tags);
    QCOMPARE(tag->getLabel(), QString("Hoist speed"));
    QCOMPARE(tag->getStartByte(), quint16(7));
    QCOMPARE(tag->getByteSize(), quint16(4));
    QCOMPARE(tag->getStartBit(), quint16(3));
    QCOMPARE(tag->getBitSize(), quint16(5));
    QCOMPARE(tag->getDataType(), TDBT_BE_REAL);
    QCOMPARE(tag->getUnitLabel(), QString("m/s"));
    QCOMPARE(tag->getMinimumValue(), -1.5F);
    QCOMPARE(tag->getMaximumValue(), 2.5F);
    QCOMPARE(tag->getMinimumWarningValue(), -1.25F);
    QCOMPARE(tag->getMaximumWarningValue(), 2.25F);
    QCOMPARE(tag->getMinimumAlarmValue(), -1.125F);
    QCOMPARE(tag->getMaximumAlarmValue(), 2.125F);
    QCOMPARE(tag->getHostLink(), Tag::BIOT);
    QCOMPARE(tag->getPriority(), qint16(0));
    QVERIFY(tag->getRelatedTags() == nullptr);
    QCOMPARE(tag->getState(), QString());
    QCOMPARE(tags.findChildren<ConfigFile*>().size(), 1);
}

void TestTagDatabase::badNumbersCountAsZero()
{
    const QString path = write("tags.csv", Header + "odd;;0x10;two;-1;;UINT;;high;1,5;;;;\n"
                                                    "short\n");
    TagDatabase tags(nullptr);
    const LogSpy log;
    tags.loadTagFiles({{path, Tag::BIIT}});
    const Tag* const tag = tags.get("odd");
    QVERIFY(tag != nullptr);
    QCOMPARE(tag->getStartByte(), quint16(0));
    QCOMPARE(tag->getByteSize(), quint16(0));
    QCOMPARE(tag->getStartBit(), quint16(0));
    QCOMPARE(tag->getBitSize(), quint16(0));
    QCOMPARE(tag->getMinimumValue(), 0.0F);
    QCOMPARE(tag->getMaximumValue(), 0.0F);
    QCOMPARE(tags.size(), 2);
    QCOMPARE(tags.at(1)->getDataType(), TDBT_NOT_SET);
}

void TestTagDatabase::typeWordsDecideTypeAndInitialValue_data()
{
    QTest::addColumn<QByteArray>("word");
    QTest::addColumn<int>("type");
    QTest::addColumn<QVariant>("value");
    // A null number equals the 0 that a tag is made with, so that 0 stays.
    const QVariant zero(0);
    QTest::newRow("UINT") << QByteArray("UINT") << 1 << zero;
    QTest::newRow("BE_UINT") << QByteArray("BE_UINT") << 2 << zero;
    QTest::newRow("INT") << QByteArray("INT") << 3 << zero;
    QTest::newRow("BE_INT") << QByteArray("BE_INT") << 4 << zero;
    QTest::newRow("REAL") << QByteArray("REAL") << 5 << zero;
    QTest::newRow("BE_REAL") << QByteArray("BE_REAL") << 6 << zero;
    QTest::newRow("STRING") << QByteArray("STRING") << 7 << QVariant(QString());
    QTest::newRow("RAW") << QByteArray("RAW") << 8 << QVariant(QByteArray(2, '\0'));
    QTest::newRow("BOOLEAN") << QByteArray("BOOLEAN") << 9 << zero;
    QTest::newRow("BE_BOOLEAN") << QByteArray("BE_BOOLEAN") << 10 << zero;
    QTest::newRow("lower case") << QByteArray("uint") << 0 << zero;
    QTest::newRow("unknown") << QByteArray("LE_UINT") << 0 << zero;
    QTest::newRow("empty") << QByteArray("") << 0 << zero;
}

void TestTagDatabase::typeWordsDecideTypeAndInitialValue()
{
    QFETCH(QByteArray, word);
    QFETCH(int, type);
    QFETCH(QVariant, value);
    const QString path = write("tags.csv", Header + "t;;0;2;0;0;" + word + ";;;;;;;\n");
    TagDatabase tags(nullptr);
    const LogSpy log;
    tags.loadTagFiles({{path, Tag::NOLK}});
    QCOMPARE(int(tags.at(0)->getDataType()), type);
    QCOMPARE(tags.at(0)->getValue(), value);
    QCOMPARE(tags.at(0)->getValue().userType(), value.userType());
    QCOMPARE(log.lines(QtWarningMsg), QStringList());
}

void TestTagDatabase::rawTagsStartWithZeroBytes()
{
    const QString path = write("tags.csv", Header + "block;;4;3;0;0;RAW;;;;;;;\n");
    TagDatabase tags(nullptr);
    const LogSpy log;
    tags.loadTagFiles({{path, Tag::BIIT}});
    QCOMPARE(tags.get("block")->getRawData(), hex("000000"));
    QCOMPARE(tags.get("block")->getValue(), QVariant(hex("000000")));
}

void TestTagDatabase::filesGiveLinkAndOrder()
{
    const QString inputs = write("in.csv", Header + "z;;0;1;0;0;UINT;;;;;;;\na;;1;1;0;0;UINT;;;;;;;\n");
    const QString outputs = write("out.csv", Header + "m;;0;1;0;0;UINT;;;;;;;\n");
    TagDatabase tags(nullptr);
    const LogSpy log;
    tags.loadTagFiles({{inputs, Tag::BIIT}, {outputs, Tag::EGOT}});
    QCOMPARE(tags.size(), 3);
    QCOMPARE(tags.at(0)->getTag(), QString("z"));
    QCOMPARE(tags.at(1)->getTag(), QString("a"));
    QCOMPARE(tags.at(2)->getTag(), QString("m"));
    QCOMPARE(tags.at(1)->getHostLink(), Tag::BIIT);
    QCOMPARE(tags.at(2)->getHostLink(), Tag::EGOT);
}

void TestTagDatabase::theFirstOfANameStands()
{
    const QString first = write("a.csv", Header + "speed;first;0;1;0;0;UINT;;;;;;;\n");
    const QString second = write("b.csv", Header + "speed;second;0;1;0;0;UINT;;;;;;;\n");
    TagDatabase tags(nullptr);
    const LogSpy log;
    tags.loadTagFiles({{first, Tag::BIIT}, {second, Tag::BIOT}});
    QCOMPARE(log.lines(QtWarningMsg), QStringList{"Database tag \"speed\" exists, not appended"});
    QCOMPARE(tags.size(), 1);
    QCOMPARE(tags.get("speed")->getLabel(), QString("first"));
    QCOMPARE(tags.findChildren<Tag*>().size(), 2);
}

void TestTagDatabase::tagsAreFoundByNameAndIndex()
{
    TagDatabase tags(nullptr);
    const Tag* const tag = addInput(tags, "speed", 0, 1);
    const TagDatabase& readOnly = tags;
    QCOMPARE(readOnly.get("speed"), tag);
    QCOMPARE(readOnly.at(0), tag);
    QVERIFY(readOnly.get("Speed") == nullptr);
}

void TestTagDatabase::recordsThatAreNoTagsAreNotGiven()
{
    TagDatabase tags(nullptr);
    tags.append(new Data("note", &tags));
    addInput(tags, "speed", 0, 1);
    QVERIFY(tags.at(0) == nullptr);
    QVERIFY(tags.get("note") == nullptr);
    QCOMPARE(tags.size(), 2);
    tags.processProsessData(hex("05"));
    QCOMPARE(tags.get("speed")->getValue(), QVariant(5U));

    const LogSpy log;
    tags.append(new Tag("note", &tags));
    QCOMPARE(log.lines(QtWarningMsg), QStringList{"Database tag \"note\" exists, not appended"});
}

void TestTagDatabase::indexesOutsideAreReported()
{
    TagDatabase tags(nullptr);
    addInput(tags, "speed", 0, 1);
    const LogSpy log;
    QVERIFY(tags.at(tags.size()) == nullptr);
    QVERIFY(tags.at(-1) == nullptr);
    QCOMPARE(log.lines(QtWarningMsg), (QStringList{"TagDatabase: index is out of range, index = 1 size = 1",
                                                   "TagDatabase: index is out of range, index = -1 size = 1"}));
}

void TestTagDatabase::atIsInvokable()
{
    TagDatabase tags(nullptr);
    Tag* const tag = addInput(tags, "speed", 0, 1);
    Tag* found = nullptr;
    QVERIFY(QMetaObject::invokeMethod(&tags, "at", Q_RETURN_ARG(Tag*, found), Q_ARG(int, 0)));
    QCOMPARE(found, tag);
}

void TestTagDatabase::namedTagsAreSetAsSignedInt()
{
    TagDatabase tags(nullptr);
    const Tag* const tag = addInput(tags, "speed", 0, 1);
    QSignalSpy updates(tag, &Tag::valueUpdated);
    tags.setValueSlot("speed", 65535);
    QCOMPARE(tag->getValue(), QVariant(65535));
    QCOMPARE(tag->getValue().userType(), static_cast<int>(QMetaType::Int));
    QCOMPARE(updates.count(), 1);
}

void TestTagDatabase::unknownNamesChangeNothing()
{
    TagDatabase tags(nullptr);
    const Tag* const tag = addInput(tags, "speed", 0, 1);
    const LogSpy log;
    tags.setValueSlot("sped", 5);
    QCOMPARE(log.lines(QtDebugMsg), QStringList{"Tagdatabase - undefined tag \"sped\""});
    QCOMPARE(tag->getValue(), QVariant(0));
}

void TestTagDatabase::imagesFillTheInputTags()
{
    TagDatabase tags(nullptr);
    const Tag* const first = addInput(tags, "first", 0, 2);
    const Tag* const second = addInput(tags, "second", 1, 4, TDBT_BE_UINT);
    const Tag* const text = addInput(tags, "text", 3, 3, TDBT_STRING);
    Tag* const output = addInput(tags, "output", 0, 2);
    for (const Tag::HostLinkType link :
         {Tag::RIIT, Tag::RIOT, Tag::ECOT, Tag::EGOT, Tag::BTRS, Tag::BIOT, Tag::NOLK, Tag::RICT}) {
        output->setHostLink(link);
        tags.processProsessData(hex("3412"
                                    "41424300"));
        QCOMPARE(output->getValue(), QVariant(0));
        QCOMPARE(output->getRawData(), QByteArray());
    }
    QCOMPARE(first->getValue(), QVariant(0x1234U));
    QCOMPARE(second->getValue(), QVariant(0x12414243U));
    QCOMPARE(text->getValue(), QVariant(QString("BC")));
    QCOMPARE(text->getRawData(), hex("424300"));
}

void TestTagDatabase::shortImagesAreCompletedWithZeros_data()
{
    QTest::addColumn<QByteArray>("image");
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("empty image") << QByteArray() << hex("00000000");
    QTest::newRow("ends before the tag") << hex("FFFF") << hex("00000000");
    QTest::newRow("ends inside the tag") << hex("FFFF0102") << hex("01020000");
    QTest::newRow("ends with the tag") << hex("FFFF01020304") << hex("01020304");
    QTest::newRow("goes on after the tag") << hex("FFFF0102030405") << hex("01020304");
}

void TestTagDatabase::shortImagesAreCompletedWithZeros()
{
    QFETCH(QByteArray, image);
    QFETCH(QByteArray, bytes);
    TagDatabase tags(nullptr);
    const Tag* const tag = addInput(tags, "block", 2, 4, TDBT_RAW);
    const Tag* const last = addInput(tags, "last", 65535, 65535, TDBT_RAW);
    tags.processProsessData(image);
    QCOMPARE(tag->getRawData(), bytes);
    QCOMPARE(last->getRawData(), QByteArray(65535, '\0'));
    tags.processProsessData(hex("FFFFAABBCCDD"));
    QCOMPARE(tag->getRawData(), hex("AABBCCDD"));
    tags.processProsessData(image);
    QCOMPARE(tag->getRawData(), bytes);
}

void TestTagDatabase::tagsAreFedInIndexOrder()
{
    TagDatabase tags(nullptr);
    QStringList order;
    for (const char* name : {"b", "c", "a"}) {
        connect(addInput(tags, name, 0, 1), &Tag::valueUpdated, this, [&order, name] { order << name; });
    }
    tags.processProsessData(hex("01"));
    QCOMPARE(order, (QStringList{"b", "c", "a"}));
}

void TestTagDatabase::unchangedBytesDoNothing()
{
    TagDatabase tags(nullptr);
    Tag* const still = addInput(tags, "still", 0, 2);
    Tag* const moving = addInput(tags, "moving", 2, 1);
    tags.processProsessData(hex("010203"));
    const QSignalSpy stillUpdates(still, &Tag::valueUpdated);
    const QSignalSpy movingUpdates(moving, &Tag::valueUpdated);
    const quint32 revision = still->rawRevision();
    tags.processProsessData(hex("010203"));
    tags.processProsessData(hex("010204"));
    tags.processProsessData(hex("01020499"));
    QCOMPARE(stillUpdates.count(), 0);
    QCOMPARE(movingUpdates.count(), 1);
    QCOMPARE(still->rawRevision(), revision);
}

void TestTagDatabase::aValueSetMeanwhileStandsUntilTheBytesChange()
{
    TagDatabase tags(nullptr);
    Tag* const tag = addInput(tags, "t", 0, 1);
    tags.processProsessData(hex("07"));
    tag->setValue(QVariant(9));
    tags.processProsessData(hex("07"));
    QCOMPARE(tag->getValue(), QVariant(9));
    tags.processProsessData(hex("08"));
    QCOMPARE(tag->getValue(), QVariant(8U));
}

void TestTagDatabase::bytesSetMeanwhileAreOverwritten()
{
    TagDatabase tags(nullptr);
    Tag* const tag = addInput(tags, "t", 0, 1);
    tags.processProsessData(hex("07"));
    tag->setValue(hex("09"));
    QCOMPARE(tag->getValue(), QVariant(9U));
    tags.processProsessData(hex("07"));
    QCOMPARE(tag->getValue(), QVariant(7U));

    std::thread other([tag] { tag->setValue(QByteArray::fromHex("0A")); });
    other.join();
    tags.processProsessData(hex("07"));
    QCOMPARE(tag->getValue(), QVariant(7U));
}

void TestTagDatabase::definitionsChangedMeanwhileCount()
{
    TagDatabase tags(nullptr);
    Tag* const tag = new Tag("t", &tags);
    tags.append(tag);
    tags.processProsessData(hex("0708"));
    QCOMPARE(tag->getRawData(), QByteArray());

    tag->setHostLink(Tag::BIIT);
    tag->setByteSize(1);
    tag->setDataType(TDBT_UINT);
    tags.processProsessData(hex("0708"));
    QCOMPARE(tag->getValue(), QVariant(7U));
    tag->setStartByte(1);
    tags.processProsessData(hex("0708"));
    QCOMPARE(tag->getValue(), QVariant(8U));
    tag->setByteSize(2);
    tags.processProsessData(hex("0708"));
    QCOMPARE(tag->getRawData(), hex("0800"));
    tag->setHostLink(Tag::NOLK);
    tags.processProsessData(hex("FFFF"));
    QCOMPARE(tag->getRawData(), hex("0800"));
}

void TestTagDatabase::receiversMayAppendAndClear()
{
    TagDatabase tags(nullptr);
    Tag* const first = addInput(tags, "first", 0, 1);
    Tag* const second = addInput(tags, "second", 1, 1);
    int appended = 0;
    connect(first, &Tag::valueUpdated, this, [&] {
        for (int i = 0; i < 100; ++i) {
            addInput(tags, QString("new %1").arg(++appended), 0, 1);
        }
    });
    tags.processProsessData(hex("0104"));
    QCOMPARE(second->getValue(), QVariant(4U));
    QCOMPARE(tags.get("new 100")->getValue(), QVariant(1U));
    QCOMPARE(appended, 100);

    connect(second, &Tag::valueUpdated, this, [&tags] { tags.clear(); });
    tags.processProsessData(hex("0107"));
    QCOMPARE(second->getValue(), QVariant(7U));
    QCOMPARE(tags.size(), 0);
}

void TestTagDatabase::receiversMayFeedAnotherImage()
{
    TagDatabase tags(nullptr);
    Tag* const first = addInput(tags, "first", 0, 1);
    Tag* const second = addInput(tags, "second", 1, 1);
    const auto once = std::make_shared<QMetaObject::Connection>();
    *once = connect(first, &Tag::valueUpdated, this, [&tags, once] {
        disconnect(*once);
        tags.processProsessData(hex("0203"));
    });
    tags.processProsessData(hex("0104"));
    // The nested image came later, but the outer one was still being handed out.
    QCOMPARE(first->getValue(), QVariant(2U));
    QCOMPARE(second->getValue(), QVariant(4U));
    tags.processProsessData(hex("0104"));
    QCOMPARE(first->getValue(), QVariant(1U));
    tags.processProsessData(hex("0203"));
    QCOMPARE(first->getValue(), QVariant(2U));
    QCOMPARE(second->getValue(), QVariant(3U));
}

void TestTagDatabase::clearedDatabasesTakeNoImage()
{
    TagDatabase tags(nullptr);
    const QPointer<Tag> tag = addInput(tags, "t", 0, 1);
    tags.clear();
    QTRY_VERIFY(tag.isNull());
    tags.processProsessData(hex("07"));
    const Tag* const anew = addInput(tags, "t", 0, 1);
    tags.processProsessData(hex("07"));
    QCOMPARE(anew->getValue(), QVariant(7U));
}

void TestTagDatabase::undecodableTagsAreReportedOnce()
{
    TagDatabase tags(nullptr);
    addInput(tags, "t", 0, 3);
    const LogSpy log;
    for (int i = 0; i < 5; ++i) {
        tags.processProsessData(hex("010203"));
    }
    QCOMPARE(log.lines(), QStringList{"Unsupported tag size for data type UINT"});
}

void TestTagDatabase::readersMayLookUpWhileImagesArrive()
{
    TagDatabase tags(nullptr);
    for (int i = 0; i < 20; ++i) {
        addInput(tags, QString::number(i), 0, 4, TDBT_STRING);
    }
    std::atomic<bool> stop{false};
    std::atomic<int> reads{0};
    std::atomic<int> wrong{0};
    std::thread reader([&] {
        while (!stop) {
            const Tag* const tag = tags.get("19");
            const QString text = tag->getValue().toString();
            wrong += tag != tags.at(19) || (text != "0" && text != "aaaa" && text != "bbbb") ? 1 : 0;
            ++reads;
        }
    });
    for (int i = 0; i < 2000 || reads < 1000; ++i) {
        tags.processProsessData(i % 2 == 0 ? QByteArray("aaaa") : QByteArray("bbbb"));
    }
    stop = true;
    reader.join();
    QCOMPARE(wrong.load(), 0);
}

QTEST_GUILESS_MAIN(TestTagDatabase)
#include "tst_tagdatabase.moc"
