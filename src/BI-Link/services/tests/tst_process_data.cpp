#include "logspy.h"
#include "process_data.h"
#include "tagdatabase.h"

#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include <memory>

namespace {
constexpr quint8 Id = 101;
}

class TestProcessData : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void statusRecordHoldsTheLowBits_data();
    void statusRecordHoldsTheLowBits();
    void missingTagsAreSentAsZero_data();
    void missingTagsAreSentAsZero();
    void statusRecordGoesOutEvery500Ms();
    void imageReachesTagsAndHubUnchanged_data();
    void imageReachesTagsAndHubUnchanged();
    void imageReachesTheTagsFirst();
    void worksWithoutADatabase();

private:
    void addTag(const char* name, const QVariant& value = QVariant());

    std::unique_ptr<LogSpy> m_log;
    std::unique_ptr<TagDatabase> m_tags;
};

void TestProcessData::init()
{
    m_log = std::make_unique<LogSpy>();
    m_tags = std::make_unique<TagDatabase>(nullptr);
}

void TestProcessData::cleanup()
{
    m_tags.reset();
    m_log.reset();
}

void TestProcessData::addTag(const char* name, const QVariant& value)
{
    auto* const tag = new Tag(QString::fromLatin1(name), m_tags.get());
    tag->setValue(value);
    m_tags->append(tag);
}

void TestProcessData::statusRecordHoldsTheLowBits_data()
{
    QTest::addColumn<QVariant>("identity");
    QTest::addColumn<QVariant>("remoteUnits");
    QTest::addColumn<QVariant>("egLinkStatus");
    QTest::addColumn<QByteArray>("record");

    QTest::newRow("identity is little-endian, status is cut off")
        << QVariant(0x1234U) << QVariant(3U) << QVariant(0x101U) << QByteArray("34120301");
    QTest::newRow("everything is cut off")
        << QVariant(0xABCD5678U) << QVariant(0x1FFU) << QVariant(0xFFFFFF02U) << QByteArray("7856ff02");
    QTest::newRow("signed values count as they can be unsigned")
        << QVariant(258) << QVariant(4) << QVariant(5) << QByteArray("02010405");
    QTest::newRow("text is no number") << QVariant("x") << QVariant("7") << QVariant() << QByteArray("00000700");
}

void TestProcessData::statusRecordHoldsTheLowBits()
{
    QFETCH(QVariant, identity);
    QFETCH(QVariant, remoteUnits);
    QFETCH(QVariant, egLinkStatus);
    QFETCH(QByteArray, record);
    addTag("bu_identity", identity);
    addTag("total_rus", remoteUnits);
    addTag("eglink_status", egLinkStatus);
    ProcessData service(nullptr, Id, m_tags.get());
    QSignalSpy sent(&service, &ServiceBase::readyReadFromService);

    service.storeAndSendProcessData();

    QCOMPARE(sent.count(), 1);
    QCOMPARE(sent.at(0).at(0).toByteArray().toHex(), record);
    QCOMPARE(sent.at(0).at(1).value<Link>(), Internal);
    QCOMPARE(sent.at(0).at(2).toInt(), 101);
    QCOMPARE(sent.at(0).at(3).toInt(), 1);
    QCOMPARE(m_log->lines(), QStringList());
}

void TestProcessData::missingTagsAreSentAsZero_data()
{
    QTest::addColumn<QString>("missing");
    QTest::addColumn<QByteArray>("record");

    QTest::newRow("identity") << QStringLiteral("bu_identity") << QByteArray("00000301");
    QTest::newRow("number of remote units") << QStringLiteral("total_rus") << QByteArray("34120001");
    QTest::newRow("link status") << QStringLiteral("eglink_status") << QByteArray("34120300");
}

void TestProcessData::missingTagsAreSentAsZero()
{
    QFETCH(QString, missing);
    QFETCH(QByteArray, record);
    const QList<QPair<const char*, unsigned int>> tags = {
        {"bu_identity", 0x1234U}, {"total_rus", 3U}, {"eglink_status", 1U}};
    for (const auto& tag : tags) {
        if (missing != QLatin1String(tag.first)) {
            addTag(tag.first, tag.second);
        }
    }
    ProcessData service(nullptr, Id, m_tags.get());
    QSignalSpy sent(&service, &ServiceBase::readyReadFromService);

    service.storeAndSendProcessData();
    service.storeAndSendProcessData();

    QCOMPARE(sent.count(), 2);
    QCOMPARE(sent.at(1).at(0).toByteArray().toHex(), record);
    QCOMPARE(m_log->lines(QtWarningMsg).size(), 1); // at the start, not with every record
    QVERIFY(m_log->lines(QtWarningMsg).first().contains(missing));
}

void TestProcessData::statusRecordGoesOutEvery500Ms()
{
    addTag("bu_identity");
    addTag("total_rus");
    addTag("eglink_status");
    const ProcessData service(nullptr, Id, m_tags.get());
    QSignalSpy sent(&service, &ServiceBase::readyReadFromService);

    const auto* const timer = service.findChild<QTimer*>();
    QVERIFY(timer->isActive());
    QVERIFY(!timer->isSingleShot());
    QCOMPARE(timer->interval(), 500);
    QCOMPARE(sent.count(), 0);
    QVERIFY(sent.wait());
}

void TestProcessData::imageReachesTagsAndHubUnchanged_data()
{
    QTest::addColumn<QByteArray>("image");
    QTest::addColumn<int>("messageClass");

    QTest::newRow("bytes of all kinds") << QByteArray::fromHex("000A8290FF7F") << 1;
    QTest::newRow("empty") << QByteArray() << 1;
    QTest::newRow("message class is not looked at") << QByteArray("x") << 2;
}

void TestProcessData::imageReachesTagsAndHubUnchanged()
{
    QFETCH(QByteArray, image);
    QFETCH(int, messageClass);
    ProcessData service(nullptr, Id, m_tags.get());
    QSignalSpy toTags(&service, &ProcessData::newProcessData);
    QSignalSpy toHub(&service, &ProcessData::sendProcessDataToRgp);

    service.readData(image, Internal, static_cast<quint8>(messageClass));

    QCOMPARE(toTags.count(), 1);
    QCOMPARE(toTags.at(0).at(0).toByteArray(), image);
    QCOMPARE(toHub.count(), 1);
    QCOMPARE(toHub.at(0).at(0).toByteArray(), image);
}

void TestProcessData::imageReachesTheTagsFirst()
{
    auto* const tag = new Tag(QStringLiteral("speed"), m_tags.get());
    tag->setHostLink(Tag::BIIT);
    tag->setDataType(TDBT_UINT);
    tag->setStartByte(1);
    tag->setByteSize(2);
    m_tags->append(tag);
    ProcessData service(nullptr, Id, m_tags.get());
    QVariant valueWhenToldToHub;
    connect(&service, &ProcessData::sendProcessDataToRgp, this, [&] { valueWhenToldToHub = tag->getValue(); });

    service.readData(QByteArray::fromHex("FF3412"), Internal, MSG_CLASS_TRANSP_ACK);

    QCOMPARE(valueWhenToldToHub.toUInt(), 0x1234U);
}

void TestProcessData::worksWithoutADatabase()
{
    ProcessData service(nullptr, Id, nullptr);
    QSignalSpy sent(&service, &ServiceBase::readyReadFromService);
    QSignalSpy toHub(&service, &ProcessData::sendProcessDataToRgp);

    service.storeAndSendProcessData();
    service.readData("x", Internal, MSG_CLASS_TRANSP_ACK);

    QCOMPARE(sent.count(), 0);
    QCOMPARE(toHub.count(), 1);
    QVERIFY(service.findChild<QTimer*>() == nullptr);
    QCOMPARE(m_log->lines(), QStringList());
}

QTEST_GUILESS_MAIN(TestProcessData)
#include "tst_process_data.moc"
