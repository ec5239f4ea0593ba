#include "logspy.h"
#include "storedconfiguration.h"
#include "system_event_service.h"

#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include <memory>

using Service = SystemEventService;

namespace {

constexpr quint8 Id = 100;

} // namespace

class TestSystemEventService : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void startsWithoutALink();
    void everyEventInEveryState_data();
    void everyEventInEveryState();
    void resetIsRepeated();
    void resetIsRepeatedOnlyWithoutALink();
    void linkIsLostAndFoundAgain();
    void eventsHaveNames_data();
    void eventsHaveNames();
    void slotsSendOneByte_data();
    void slotsSendOneByte();
    void configChangedReloadsTheStoreFirst();
    void configChangedWorksWithoutAStore();
    void eventFromTheControllerIsItsFirstByte_data();
    void eventFromTheControllerIsItsFirstByte();
    void internalCodesFromTheControllerAreToldAndChangeNothing_data();
    void internalCodesFromTheControllerAreToldAndChangeNothing();

private:
    void trace();
    void bringTo(Service::SEStates state);

    std::unique_ptr<LogSpy> m_log;
    std::unique_ptr<Service> m_service;
    QStringList m_trace; ///< every signal of the service, in order
};

void TestSystemEventService::init()
{
    m_log = std::make_unique<LogSpy>();
    m_service = std::make_unique<Service>(nullptr, Id, nullptr);
    trace();
}

void TestSystemEventService::cleanup()
{
    m_service.reset();
    m_log.reset();
}

void TestSystemEventService::trace()
{
    m_trace.clear();
    Service* const service = m_service.get();
    connect(service, &Service::readyReadFromService, this,
            [this](const QByteArray& data) { m_trace.append("send " + QString::fromLatin1(data.toHex())); });
    connect(service, &Service::systemStateChanged, this,
            [this](quint8 state) { m_trace.append("state " + QString::number(state)); });
    connect(service, &Service::systemNewEvent, this,
            [this](quint8 event) { m_trace.append("event " + QString::number(event)); });
    connect(service, &Service::BCConfigChanged, this, [this] { m_trace.append("config"); });
    connect(service, &Service::systemShutdown, this, [this] { m_trace.append("shutdown"); });
    connect(service, &Service::systemSelected, this, [this] { m_trace.append("selected"); });
}

void TestSystemEventService::bringTo(Service::SEStates state)
{
    if (state == Service::RUN) {
        m_service->newEvent(Service::ACK_RECIEVED);
        m_trace.clear();
    }
}

void TestSystemEventService::startsWithoutALink()
{
    const LogSpy* const log = m_log.get();

    QCOMPARE(log->lines(),
             (QStringList{"sendResetTimer initiated", "SystemEventService::sendData \"RESET\"", "NO_BI_LINK"}));
    const auto* const timer = m_service->findChild<QTimer*>();
    QVERIFY(timer->isActive());
    QVERIFY(!timer->isSingleShot());
    QCOMPARE(timer->interval(), 100);
}

void TestSystemEventService::everyEventInEveryState_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<int>("event");
    QTest::addColumn<QString>("expected");

    const QString toRun = QStringLiteral("config, state 1, event 202, state 1, ");
    const QString toNoLink = QStringLiteral("send 00, state 0, ");

    QTest::newRow("no link: RESET") << 0 << 0 << QStringLiteral("event 0");
    QTest::newRow("no link: RECONFIG") << 0 << 100 << QStringLiteral("event 100");
    QTest::newRow("no link: RELEASEARM") << 0 << 101 << QStringLiteral("event 101");
    QTest::newRow("no link: ECLINKRESET") << 0 << 102 << QStringLiteral("event 102");
    QTest::newRow("no link: EGRECONFIG") << 0 << 103 << QStringLiteral("event 103");
    QTest::newRow("no link: ACK_RECIEVED") << 0 << 200 << toRun + "event 200";
    QTest::newRow("no link: BI_FAIL") << 0 << 201 << QStringLiteral("event 201");
    QTest::newRow("no link: CONFIG_FINISHED") << 0 << 202 << QStringLiteral("event 202");
    QTest::newRow("no link: unknown") << 0 << 77 << QStringLiteral("event 77");

    QTest::newRow("run: RESET") << 1 << 0 << toNoLink + "event 0";
    QTest::newRow("run: RECONFIG") << 1 << 100 << toRun + "event 100";
    QTest::newRow("run: RELEASEARM") << 1 << 101 << QStringLiteral("event 101");
    QTest::newRow("run: ECLINKRESET") << 1 << 102 << QStringLiteral("event 102");
    QTest::newRow("run: EGRECONFIG") << 1 << 103 << QStringLiteral("event 103");
    QTest::newRow("run: ACK_RECIEVED") << 1 << 200 << QStringLiteral("event 200");
    QTest::newRow("run: BI_FAIL") << 1 << 201 << toNoLink + "event 201";
    QTest::newRow("run: CONFIG_FINISHED") << 1 << 202 << QStringLiteral("event 202");
    QTest::newRow("run: unknown") << 1 << 77 << QStringLiteral("event 77");

    // STARTING lasts only while the configuration is being asked for: the event comes from within that. What follows
    // it belongs to the acknowledged RESET that led to STARTING.
    const QString rest = QStringLiteral("state 1, event 202, state 1, event 200");
    QTest::newRow("starting: RESET") << 2 << 0 << "config, event 0, " + rest;
    QTest::newRow("starting: RECONFIG") << 2 << 100 << "config, event 100, " + rest;
    QTest::newRow("starting: RELEASEARM") << 2 << 101 << "config, event 101, " + rest;
    QTest::newRow("starting: ECLINKRESET") << 2 << 102 << "config, event 102, " + rest;
    QTest::newRow("starting: EGRECONFIG") << 2 << 103 << "config, event 103, " + rest;
    QTest::newRow("starting: ACK_RECIEVED") << 2 << 200 << "config, event 200, " + rest;
    QTest::newRow("starting: BI_FAIL") << 2 << 201
                                       << "config, send 00, state 0, event 201, event 202, state 0, event 200";
    QTest::newRow("starting: CONFIG_FINISHED")
        << 2 << 202 << "config, state 1, event 202, event 202, state 1, event 200";
    QTest::newRow("starting: unknown") << 2 << 77 << "config, event 77, " + rest;
}

void TestSystemEventService::everyEventInEveryState()
{
    QFETCH(int, state);
    QFETCH(int, event);
    QFETCH(QString, expected);
    bringTo(static_cast<Service::SEStates>(state));
    const auto happen = [this, event] {
        m_service->newEvent(static_cast<Service::Events>(event));
    };

    if (state == Service::STARTING) {
        connect(m_service.get(), &Service::BCConfigChanged, this, happen);
        m_service->newEvent(Service::ACK_RECIEVED);
    } else {
        happen();
    }

    QCOMPARE(m_trace.join(QStringLiteral(", ")), expected);
}

void TestSystemEventService::resetIsRepeated()
{
    QTRY_VERIFY(m_trace.size() >= 3);

    QCOMPARE(m_trace.mid(0, 3), (QStringList{"send 00", "send 00", "send 00"}));
}

void TestSystemEventService::resetIsRepeatedOnlyWithoutALink()
{
    const auto* const timer = m_service->findChild<QTimer*>();
    QVERIFY(timer->isActive());

    m_service->resetAckRecieved();
    QVERIFY(!timer->isActive());

    m_service->internalLinkFailed();
    QVERIFY(timer->isActive());
}

void TestSystemEventService::linkIsLostAndFoundAgain()
{
    m_service->resetAckRecieved();
    m_service->internalLinkFailed();
    m_service->internalLinkFailed();
    m_service->resetAckRecieved();

    QCOMPARE(m_trace.join(QStringLiteral(", ")),
             QStringLiteral("config, state 1, event 202, state 1, event 200, send 00, state 0, event 201, event 201, "
                            "config, state 1, event 202, state 1, event 200"));
    m_log->clear();
    m_service->newEvent(Service::RECONFIG);
    QCOMPARE(m_log->lines(), (QStringList{"SystemEventService::newEvent \"RECONFIG\"", "STARTING",
                                          "SystemEventService::newEvent \"CONFIG_FINISHED\"", "RUN"}));
}

void TestSystemEventService::eventsHaveNames_data()
{
    QTest::addColumn<int>("event");
    QTest::addColumn<QString>("name");

    QTest::newRow("0") << 0 << QStringLiteral("RESET");
    QTest::newRow("100") << 100 << QStringLiteral("RECONFIG");
    QTest::newRow("101") << 101 << QStringLiteral("RELEASEARM");
    QTest::newRow("102") << 102 << QStringLiteral("ECLINKRESET");
    QTest::newRow("103") << 103 << QStringLiteral("EGRECONFIG");
    QTest::newRow("200") << 200 << QStringLiteral("ACK_RECIEVED");
    QTest::newRow("201") << 201 << QStringLiteral("BI_FAIL");
    QTest::newRow("202") << 202 << QStringLiteral("CONFIG_FINISHED");
    QTest::newRow("any other") << 1 << QStringLiteral("UNDEF EVENT");
    QTest::newRow("highest") << 255 << QStringLiteral("UNDEF EVENT");
}

void TestSystemEventService::eventsHaveNames()
{
    QFETCH(int, event);
    QFETCH(QString, name);

    QCOMPARE(Service::Events2String(static_cast<Service::Events>(event)), name);
}

void TestSystemEventService::slotsSendOneByte_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<QByteArray>("slot");
    QTest::addColumn<QString>("code");
    QTest::addColumn<QString>("name");

    for (const int state : {0, 1}) {
        const auto row = [state](const char* slot, const char* code, const char* name) {
            QTest::addRow("%s in state %d", slot, state)
                << state << QByteArray(slot) << QString::fromLatin1(code) << QString::fromLatin1(name);
        };
        row("sendReset", "00", "RESET");
        row("sendECLinkReset", "66", "ECLINKRESET");
        row("sendEGReconfig", "67", "EGRECONFIG");
        row("sendReconfig", "64", "RECONFIG");
        row("releaseArm", "65", "RELEASEARM");
        row("configChanged", "64", "RECONFIG");
    }
}

void TestSystemEventService::slotsSendOneByte()
{
    QFETCH(int, state);
    QFETCH(QByteArray, slot);
    QFETCH(QString, code);
    QFETCH(QString, name);
    bringTo(static_cast<Service::SEStates>(state));
    QSignalSpy sent(m_service.get(), &Service::readyReadFromService);
    m_log->clear();

    QVERIFY(QMetaObject::invokeMethod(m_service.get(), slot.constData()));

    QCOMPARE(m_trace, QStringList{"send " + code});
    QCOMPARE(sent.at(0).at(1).value<Link>(), Internal);
    QCOMPARE(sent.at(0).at(2).toInt(), 100);
    QCOMPARE(sent.at(0).at(3).toInt(), 1);
    QCOMPARE(m_log->lines(), QStringList{"SystemEventService::sendData \"" + name + "\""});
}

void TestSystemEventService::configChangedReloadsTheStoreFirst()
{
    StoredConfiguration configuration("FMAP;1;RGP\n");
    Service service(nullptr, Id, configuration.store());
    configuration.writeApp("FMAP;2;RGP\n");
    unsigned int valueWhenSent = 0;
    connect(&service, &Service::readyReadFromService, this,
            [&] { configuration.store()->getAppTag(QStringLiteral("FMAP"), &valueWhenSent); });

    service.configChanged();

    QCOMPARE(valueWhenSent, 2U);
}

void TestSystemEventService::configChangedWorksWithoutAStore()
{
    m_service->configChanged();

    QCOMPARE(m_trace, QStringList{"send 64"});
}

void TestSystemEventService::eventFromTheControllerIsItsFirstByte_data()
{
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<int>("messageClass");
    QTest::addColumn<QString>("log");
    QTest::addColumn<QString>("expected");

    const QString restart = QStringLiteral("send 00, state 0, event 0");
    const QString zero = QChar(QChar::Null);
    QTest::newRow("RESET") << QByteArray(1, '\0') << 1 << "rses:  \"\\x00\"  -  " + zero + "  - system event service "
                           << restart;
    QTest::newRow("nothing counts as RESET")
        << QByteArray() << 1 << "rses:  \"\"  -  " + zero + "  - system event service " << restart;
    QTest::newRow("RECONFIG") << QByteArray("d") << 1 << "rses:  \"d\"  -  d  - system event service "
                              << "config, state 1, event 202, state 1, event 100";
    QTest::newRow("further bytes are not looked at")
        << QByteArray("Ad") << 1 << "rses:  \"Ad\"  -  A  - system event service "
        << "event 65";
    QTest::newRow("the message class is not looked at")
        << QByteArray("A") << 3 << "rses:  \"A\"  -  A  - system event service "
        << "event 65";
    QTest::newRow("unknown code") << QByteArray("M") << 1 << "rses:  \"M\"  -  M  - system event service "
                                  << "event 77";
    QTest::newRow("highest code") << QByteArray(1, '\xFF') << 1
                                  << QString::fromUtf8("rses:  \"\\xFF\"  -  \xC3\xBF  - system event service ")
                                  << "event 255";
}

void TestSystemEventService::eventFromTheControllerIsItsFirstByte()
{
    QFETCH(QByteArray, payload);
    QFETCH(int, messageClass);
    QFETCH(QString, log);
    QFETCH(QString, expected);
    bringTo(Service::RUN);
    m_log->clear();

    m_service->readData(payload, Internal, static_cast<quint8>(messageClass));

    QCOMPARE(m_log->lines().first(), log);
    QCOMPARE(m_trace.join(QStringLiteral(", ")), expected);
}

void TestSystemEventService::internalCodesFromTheControllerAreToldAndChangeNothing_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<int>("code");

    for (const int state : {0, 1}) {
        for (const int code : {200, 201, 202}) {
            QTest::addRow("%d in state %d", code, state) << state << code;
        }
    }
}

void TestSystemEventService::internalCodesFromTheControllerAreToldAndChangeNothing()
{
    QFETCH(int, state);
    QFETCH(int, code);
    bringTo(static_cast<Service::SEStates>(state));

    m_service->readData(QByteArray(1, static_cast<char>(code)), Internal, 1);

    QCOMPARE(m_trace, QStringList{QStringLiteral("event %1").arg(code)});
}

QTEST_GUILESS_MAIN(TestSystemEventService)
#include "tst_system_event_service.moc"
