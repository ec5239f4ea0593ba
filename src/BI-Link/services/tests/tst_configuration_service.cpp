#include "configuration_service.h"
#include "fatalprobe.h"
#include "logspy.h"
#include "storedconfiguration.h"
#include "tagdatabase.h"

#include <QSignalSpy>
#include <QtTest>

#include <memory>

namespace {

constexpr quint8 Id = 102;
const QString Unit = QStringLiteral("src/BI-Link/services/configuration_service");

/// Three settings come from the base controller; the rows are looked at in the order of their keys.
const QByteArray AppRows = "ZETA;0;BC\n"
                           "ALFA;300;BC\n"
                           "MIKE;0;BC\n"
                           "NUMB;4660;RGP\n"
                           "FOUR;abcd;local\n"
                           "TWO_;4 ;local\n"
                           "NONE;;local\n"
                           "LONG;abcde;local\n";

/// 259 remote units, so that there is one whose number needs both bytes: 258, identity 777.
QByteArray remotesRows()
{
    QByteArray rows;
    for (int row = 0; row < 258; ++row) {
        rows += QByteArray::number(row) + ";" + QByteArray::number(row + 1000) + ";0;0;0;0\n";
    }
    return rows + "258;777;0;0;0;0\n";
}

} // namespace

class TestConfigurationService : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void controllerAsks_data();
    void controllerAsks();
    void controllerAsksForTwoBytes();
    void everyClassButAnAnswerIsARequest();
    void requestIsLogged();
    void valueLongerThanFourBytesIsFatal();

    void fetchesOneKeyAfterTheOther();
    void answersSetTheTagsOfTheirNames();
    void answerAfterTheLastKeyIsIgnored();
    void answerBeforeAnyRequestIsIgnored();
    void answerOfAnotherLengthIsFatal_data();
    void answerOfAnotherLengthIsFatal();
    void newPassStartsFromTheFirstKey();
    void fetchesNothingWithoutKeys();

private:
    void answer(const char* hex) { m_service->readData(QByteArray::fromHex(hex), Internal, MSG_CLASS_ACK); }
    QByteArray lastSent() const { return m_sent->last().at(0).toByteArray(); }

    std::unique_ptr<StoredConfiguration> m_configuration;
    std::unique_ptr<LogSpy> m_log;
    std::unique_ptr<TagDatabase> m_tags;
    std::unique_ptr<ConfigurationService> m_service;
    std::unique_ptr<QSignalSpy> m_sent;
};

void TestConfigurationService::initTestCase()
{
    m_configuration = std::make_unique<StoredConfiguration>(AppRows, remotesRows());
}

void TestConfigurationService::init()
{
    m_log = std::make_unique<LogSpy>();
    m_tags = std::make_unique<TagDatabase>(nullptr);
    m_service = std::make_unique<ConfigurationService>(nullptr, Id, m_configuration->store(), m_tags.get());
    m_sent = std::make_unique<QSignalSpy>(m_service.get(), &ServiceBase::readyReadFromService);
}

void TestConfigurationService::cleanup()
{
    m_sent.reset();
    m_service.reset();
    m_tags.reset();
    m_log.reset();
}

void TestConfigurationService::controllerAsks_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<QByteArray>("answer"); // null: none

    const auto remoteUnit = [](const char* key, const char* numberHex) {
        return QByteArray(key) + QByteArray::fromHex(numberHex);
    };
    QTest::newRow("number") << QByteArray("NUMB") << QByteArray("34120000");
    QTest::newRow("four bytes of text") << QByteArray("FOUR") << QByteArray("61626364");
    QTest::newRow("shorter text is filled up") << QByteArray("TWO_") << QByteArray("34000000");
    QTest::newRow("empty value") << QByteArray("NONE") << QByteArray("00000000");
    QTest::newRow("unknown key") << QByteArray("XXXX") << QByteArray("ffffffff");
    QTest::newRow("key with bytes that are no letters") << QByteArray::fromHex("00FF820A") << QByteArray("ffffffff");
    QTest::newRow("fifth byte is ignored") << QByteArray("NUMBx") << QByteArray("34120000");
    QTest::newRow("bytes from the seventh on make it an app request")
        << QByteArray("NUMBxyz") << QByteArray("34120000");
    QTest::newRow("remote unit 258") << remoteUnit("RUID", "0201") << QByteArray("09030000");
    QTest::newRow("remote unit 2") << remoteUnit("RUID", "0200") << QByteArray("ea030000");
    QTest::newRow("unknown remote unit") << remoteUnit("RUID", "FFFF") << QByteArray("ffffffff");
    QTest::newRow("unknown key of a remote unit") << remoteUnit("NUMB", "0200") << QByteArray("ffffffff");
    QTest::newRow("three bytes") << QByteArray("NUM") << QByteArray();
    QTest::newRow("nothing") << QByteArray() << QByteArray();
}

void TestConfigurationService::controllerAsks()
{
    QFETCH(QByteArray, request);
    QFETCH(QByteArray, answer);

    m_service->readData(request, Internal, MSG_CLASS_SERVICE_ACK);

    QCOMPARE(m_sent->count(), answer.isNull() ? 0 : 1);
    if (!answer.isNull()) {
        QCOMPARE(lastSent().toHex(), answer);
        QCOMPARE(m_sent->at(0).at(1).value<Link>(), Internal);
        QCOMPARE(m_sent->at(0).at(2).toInt(), 102);
        QCOMPARE(m_sent->at(0).at(3).toInt(), 3);
    }
}

void TestConfigurationService::controllerAsksForTwoBytes()
{
    StoredConfiguration configuration("EGDH;0;local\n");
    configuration.store()->setAppTag(QStringLiteral("EGDH"), QByteArray::fromHex("3412"));
    ConfigurationService service(nullptr, Id, configuration.store(), m_tags.get());
    QSignalSpy sent(&service, &ServiceBase::readyReadFromService);

    service.configBGPToBc("EGDH");

    QCOMPARE(sent.at(0).at(0).toByteArray().toHex(), QByteArray("34120000"));
}

void TestConfigurationService::everyClassButAnAnswerIsARequest()
{
    m_service->readData("NUMB", Internal, MSG_CLASS_TRANSP_ACK);
    m_service->readData("NUMB", Internal, MSG_CLASS_INVALID);
    QCOMPARE(m_sent->count(), 2);

    m_service->readData("NUMB", Internal, MSG_CLASS_ACK);
    QCOMPARE(m_sent->count(), 2);
}

void TestConfigurationService::requestIsLogged()
{
    m_service->configBGPToBc("NUMB");
    m_service->configBGPToBc("RUID" + QByteArray::fromHex("0200"));

    QCOMPARE(m_log->lines(), (QStringList{"Config BGPToBC id: 102 key:  \"NUMB\" size:  4",
                                          "Config BGPToBC id: 102 key:  \"RUID\" size:  6"}));
}

void TestConfigurationService::valueLongerThanFourBytesIsFatal()
{
    VERIFY_FATAL(Unit, 85, m_service->configBGPToBc("LONG"));
}

void TestConfigurationService::fetchesOneKeyAfterTheOther()
{
    m_service->readBCConfig();

    QCOMPARE(m_log->lines(), QStringList{"ConfigurationService::readBCConfig"});
    QCOMPARE(m_sent->count(), 1);
    QCOMPARE(lastSent(), QByteArray("ALFA"));
    QCOMPARE(m_sent->at(0).at(1).value<Link>(), Internal);
    QCOMPARE(m_sent->at(0).at(2).toInt(), 102);
    QCOMPARE(m_sent->at(0).at(3).toInt(), 2);

    answer("01000000");
    QCOMPARE(m_sent->count(), 2);
    QCOMPARE(lastSent(), QByteArray("MIKE"));

    answer("02000000");
    QCOMPARE(m_sent->count(), 3);
    QCOMPARE(lastSent(), QByteArray("ZETA"));

    answer("03000000");
    QCOMPARE(m_sent->count(), 3);
}

void TestConfigurationService::answersSetTheTagsOfTheirNames()
{
    const auto addTag = [this](const char* name) {
        auto* const tag = new Tag(QString::fromLatin1(name), m_tags.get());
        tag->setDataType(TDBT_UINT);
        tag->setByteSize(4);
        m_tags->append(tag);
        return tag;
    };
    const Tag* const alfa = addTag("ALFA");
    const Tag* const zeta = addTag("ZETA");

    m_service->readBCConfig();
    answer("34120000");
    answer("FFFFFFFF"); // for "MIKE", which has no tag
    answer("00000080");

    QCOMPARE(alfa->getValue().toUInt(), 0x1234U);
    QCOMPARE(zeta->getValue().toUInt(), 0x80000000U);
}

void TestConfigurationService::answerAfterTheLastKeyIsIgnored()
{
    auto* const tag = new Tag(QStringLiteral("ZETA"), m_tags.get());
    tag->setDataType(TDBT_UINT);
    tag->setByteSize(4);
    m_tags->append(tag);
    m_service->readBCConfig();
    for (int key = 0; key < 3; ++key) {
        answer("03000000");
    }

    answer("09000000");
    answer("09"); // of any length

    QCOMPARE(tag->getValue().toUInt(), 3U);
    QCOMPARE(m_sent->count(), 3);
}

void TestConfigurationService::answerBeforeAnyRequestIsIgnored()
{
    answer("01");
    answer("01000000");

    QCOMPARE(m_sent->count(), 0);
}

void TestConfigurationService::answerOfAnotherLengthIsFatal_data()
{
    QTest::addColumn<QByteArray>("answer");

    QTest::newRow("three bytes") << QByteArray("abc");
    QTest::newRow("five bytes") << QByteArray("abcde");
    QTest::newRow("nothing") << QByteArray();
}

void TestConfigurationService::answerOfAnotherLengthIsFatal()
{
    QFETCH(QByteArray, answer);
    m_service->readBCConfig();

    VERIFY_FATAL(Unit, 45, m_service->configBCToBGP(answer));
}

void TestConfigurationService::newPassStartsFromTheFirstKey()
{
    m_service->readBCConfig();
    answer("01000000");
    QCOMPARE(lastSent(), QByteArray("MIKE"));

    m_service->readBCConfig();

    QCOMPARE(lastSent(), QByteArray("ALFA"));
    answer("01000000");
    QCOMPARE(lastSent(), QByteArray("MIKE"));
}

void TestConfigurationService::fetchesNothingWithoutKeys()
{
    StoredConfiguration configuration("NUMB;1;RGP\n");
    ConfigurationService service(nullptr, Id, configuration.store(), m_tags.get());
    QSignalSpy sent(&service, &ServiceBase::readyReadFromService);

    service.readBCConfig();
    service.readNextBCConfig();
    service.readData("abcd", Internal, MSG_CLASS_ACK);

    QCOMPARE(sent.count(), 0);
}

QTEST_GUILESS_MAIN(TestConfigurationService)
#include "tst_configuration_service.moc"
