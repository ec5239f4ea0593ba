#include "acknowledgement.h"
#include "cfallback_service_c.h"
#include "configuration_service.h"
#include "fb_cmd_service.h"
#include "fb_periodic_service.h"
#include "gfallback_service_c.h"
#include "logspy.h"
#include "patience.h"
#include "process_data.h"
#include "rgpcom.h"
#include "service_layer.h"
#include "storedconfiguration.h"
#include "system_event_service.h"
#include "tagdatabase.h"
#include "transport_layer.h"

#include <QPointer>
#include <QSignalSpy>
#include <QThread>
#include <QtTest>

#include <memory>

namespace {

QByteArray bytes(const char* hex)
{
    return QByteArray::fromHex(hex);
}

} // namespace

/// The layer in a thread of its own, as in the server, on a machine that need not have the serial line.
class TestServiceLayer : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void hasSevenServices();
    void everythingLivesInTheThreadOfTheLayer();
    void serviceThatListensToNothingStaysSilent();
    void nothingExistsBeforeInitialize();
    void payloadGoesToTheServiceOfItsId();
    void payloadFromTheRemoteSideIsDropped();
    void payloadForNobodyIsDropped_data();
    void payloadForNobodyIsDropped();
    void servicesSendThroughTheTransportLayer();
    void replyGoesOutAtOnce();
    void acknowledgedResetStartsTheLink();
    void failedLinkStartsAnew();
    void failedLinkFreesTheFallback();
    void processImageReachesTagsAndHub();
    void endOfTheThreadTakesEverythingDown();

private:
    TransportLayer* transport() const { return m_layer->findChild<TransportLayer*>(); }
    template<typename Service>
    Service* service(unsigned char id) const
    {
        return qobject_cast<Service*>(m_layer->getServices().value(id));
    }
    /// Runs `function` in the layer's thread and waits for it.
    template<typename Function>
    void inLayer(Function function) const
    {
        QMetaObject::invokeMethod(m_layer.data(), function, Qt::BlockingQueuedConnection);
    }

    std::unique_ptr<LogSpy> m_log;
    std::unique_ptr<StoredConfiguration> m_configuration;
    std::unique_ptr<TagDatabase> m_tags;
    std::unique_ptr<RGPCom> m_hub;
    std::unique_ptr<QThread> m_thread;
    QPointer<ServiceLayer> m_layer;
    QList<QByteArray> m_sent; ///< frames of the transport layer, as they arrive in the test's thread
    QByteArrayList m_received;
};

void TestServiceLayer::init()
{
    m_log = std::make_unique<LogSpy>();
    m_configuration = std::make_unique<StoredConfiguration>("FMAP;3;RGP\nBCSR;0;BC\n");
    m_tags = std::make_unique<TagDatabase>(nullptr);
    m_hub = std::make_unique<RGPCom>(m_tags.get(), m_configuration->store(), nullptr);
    m_thread = std::make_unique<QThread>();
    m_layer = new ServiceLayer(m_hub.get(), m_configuration->store(), m_tags.get(), nullptr);
    m_layer->moveToThread(m_thread.get());
    connect(m_thread.get(), &QThread::finished, m_layer.data(), &QObject::deleteLater);
    m_thread->start(QThread::InheritPriority);
    QVERIFY(QMetaObject::invokeMethod(m_layer.data(), "initialize", Qt::BlockingQueuedConnection));
    m_sent.clear();
    m_received.clear();
    connect(transport(), &TransportLayer::sendOnInternal, this, [this](const QByteArray& frame) { m_sent += frame; });
    const auto receive = [this](const QByteArray& data) {
        m_received += data;
    };
    connect(service<FbPeriodicService>(107), &FbPeriodicService::sendToRGP, this, receive);
    connect(service<FbCmdService>(106), &FbCmdService::sendCmdToRGPCom, this, receive);
    connect(service<ProcessData>(101), &ProcessData::sendProcessDataToRgp, this, receive);
}

void TestServiceLayer::cleanup()
{
    m_thread->quit();
    QVERIFY(m_thread->wait(PatienceMs));
    QVERIFY(m_layer.isNull());
    m_thread.reset();
    m_hub.reset();
    m_tags.reset();
    m_configuration.reset();
    m_log.reset();
}

void TestServiceLayer::hasSevenServices()
{
    const QMap<unsigned char, ServiceBase*> services = m_layer->getServices();

    QCOMPARE(services.keys(), (QList<unsigned char>{100, 101, 102, 104, 105, 106, 107}));
    QVERIFY(service<SystemEventService>(100) != nullptr);
    QVERIFY(service<ProcessData>(101) != nullptr);
    QVERIFY(service<ConfigurationService>(102) != nullptr);
    QVERIFY(service<CFallbackServiceC>(104) != nullptr);
    QVERIFY(service<GfallbackServiceC>(105) != nullptr);
    QVERIFY(service<FbCmdService>(106) != nullptr);
    QVERIFY(service<FbPeriodicService>(107) != nullptr);
}

void TestServiceLayer::serviceThatListensToNothingStaysSilent()
{
    ServiceBase service(nullptr, 103);
    const QSignalSpy sent(&service, &ServiceBase::readyReadFromService);
    const QStringList before = m_log->lines();

    service.readData("unheard", Internal, MSG_CLASS_TRANSP_ACK);

    QCOMPARE(sent.count(), 0);
    QCOMPARE(m_log->lines(), before);
}

void TestServiceLayer::everythingLivesInTheThreadOfTheLayer()
{
    QCOMPARE(m_layer->thread(), m_thread.get());
    QCOMPARE(transport()->thread(), m_thread.get());
    for (const ServiceBase* const service : m_layer->getServices()) {
        QCOMPARE(service->thread(), m_thread.get());
        QCOMPARE(service->parent(), m_layer.data());
    }
}

void TestServiceLayer::nothingExistsBeforeInitialize()
{
    const ServiceLayer layer(m_hub.get(), m_configuration->store(), m_tags.get(), nullptr);

    QVERIFY(layer.getServices().isEmpty());
    QVERIFY(layer.children().isEmpty());
}

void TestServiceLayer::payloadGoesToTheServiceOfItsId()
{
    inLayer([this] {
        m_layer->readDataFromTransport("12345", Internal, 107, 1);
        m_layer->readDataFromTransport("abc", Internal, 106, 1);
        m_layer->readDataFromTransport("image", Internal, 101, 1);
    });

    QTRY_COMPARE(m_received, (QByteArrayList{"12345", "abc", "image"}));
}

void TestServiceLayer::payloadFromTheRemoteSideIsDropped()
{
    inLayer([this] {
        m_layer->readDataFromTransport("12345", Graphical, 107, 1);
        m_layer->readDataFromTransport("abc", Internal, 106, 1);
    });

    QTRY_COMPARE(m_received, (QByteArrayList{"abc"}));
}

void TestServiceLayer::payloadForNobodyIsDropped_data()
{
    QTest::addColumn<int>("id");

    QTest::newRow("the id that is not assigned") << 103;
    QTest::newRow("below all services") << 0;
    QTest::newRow("above all services") << 255;
}

void TestServiceLayer::payloadForNobodyIsDropped()
{
    QFETCH(int, id);
    m_log->clear();

    inLayer([this, id] {
        m_layer->readDataFromTransport("12345", Internal, static_cast<quint8>(id), 1);
        m_layer->readDataFromTransport("12345", Internal, static_cast<quint8>(id), 1);
    });

    QVERIFY(m_layer->getServices().value(static_cast<unsigned char>(id)) == nullptr);
    for (const QString& line : m_log->lines()) { // the link is being sought meanwhile, which leaves lines of its own
        QVERIFY2(line.startsWith("SystemEventService::") || line.startsWith("Internal link fail"), qPrintable(line));
    }
}

void TestServiceLayer::servicesSendThroughTheTransportLayer()
{
    const QByteArray command = "\x6A" + QByteArray("abc") + QByteArray(13, '\0');
    QByteArray frame;

    inLayer([&] {
        transport()->clearSendBuffer(2);
        const QMetaObject::Connection watch =
            connect(transport(), &TransportLayer::sendOnInternal, [&frame](const QByteArray& sent) { frame = sent; });
        service<FbCmdService>(106)->sendCmd("abc");
        disconnect(watch);
    });

    QCOMPARE(frame.mid(2, 17), command);
}

void TestServiceLayer::replyGoesOutAtOnce()
{
    QByteArrayList frames;

    inLayer([&] {
        transport()->clearSendBuffer(2);
        service<FbCmdService>(106)->sendCmd("abc"); // in flight
        const QMetaObject::Connection watch =
            connect(transport(), &TransportLayer::sendOnInternal, [&](const QByteArray& sent) { frames += sent; });
        transport()->readDataFromInternal(bytes("828766454D41508D3FF1B20A")); // class 2, number 7: asks for "EMAP"
        disconnect(watch);
    });

    QCOMPARE(frames.size(), 1);
    QCOMPARE(frames.first().left(7), bytes("82C766FFFFFFFF")); // class 3, number 7: unknown
}

void TestServiceLayer::acknowledgedResetStartsTheLink()
{
    auto* const events = service<SystemEventService>(100);
    // As the server connects it: both ends live in the layer's thread, so the request goes out within the change.
    connect(events, &SystemEventService::BCConfigChanged, service<ConfigurationService>(102),
            &ConfigurationService::readBCConfig);
    QList<int> states;
    connect(events, &SystemEventService::systemStateChanged, this, [&states](quint8 state) { states += state; });
    QByteArrayList frames;

    inLayer([&] {
        transport()->clearSendBuffer(2);
        const QMetaObject::Connection watch =
            connect(transport(), &TransportLayer::sendOnInternal, [&](const QByteArray& sent) { frames += sent; });
        events->sendReset();
        transport()->readDataFromInternal(acknowledgementOf(frames.value(0)));
        disconnect(watch);
    });

    // Nobody acknowledges the request, so the link does not last.
    QTRY_VERIFY(states.size() >= 2);
    QCOMPARE(states.mid(0, 2), (QList<int>{1, 1}));
    QCOMPARE(frames.size(), 2);
    QCOMPARE(frames.at(0).mid(2, 2), bytes("6400"));
    QCOMPARE(frames.at(1).mid(2, 5), "\x66" + QByteArray("BCSR"));
}

void TestServiceLayer::failedLinkStartsAnew()
{
    auto* const events = service<SystemEventService>(100);
    QList<int> states;
    inLayer([&] {
        events->resetAckRecieved();
        connect(events, &SystemEventService::systemStateChanged, this, [&](quint8 state) {
            states += state;
            m_sent.clear();
        });
    });

    QTRY_VERIFY(!states.isEmpty()); // nobody acknowledges the status records

    QCOMPARE(states.first(), 0);
    QTRY_VERIFY(!m_sent.isEmpty());
    QCOMPARE(m_sent.first().mid(2, 2), bytes("6400"));
}

void TestServiceLayer::failedLinkFreesTheFallback()
{
    auto* const events = service<SystemEventService>(100);
    auto* const fallback = service<GfallbackServiceC>(105);
    const auto status = [&] {
        GfallbackServiceC::LinkStatus found = GfallbackServiceC::FREE;
        inLayer([&] { found = fallback->linkStatus(7); });
        return found;
    };
    const auto send = [fallback] {
        fallback->fallbackTxInTurn(7, QByteArray(30, 'm'));
    };
    inLayer(send);
    QCOMPARE(status(), GfallbackServiceC::FREE); // there is no link yet
    GfallbackServiceC::LinkStatus statusBehind = GfallbackServiceC::FREE;
    inLayer([&] { // at once, as the RESET that nobody acknowledges costs the link soon
        events->resetAckRecieved();
        send();
        statusBehind = fallback->linkStatus(7);
    });
    QCOMPARE(statusBehind, GfallbackServiceC::BUSY_MSG_LAST_BLOCK);

    QTRY_COMPARE(status(), GfallbackServiceC::FREE); // nobody acknowledges the block
}

void TestServiceLayer::processImageReachesTagsAndHub()
{
    auto* const tag = new Tag(QStringLiteral("speed"), m_tags.get());
    tag->setHostLink(Tag::BIIT);
    tag->setDataType(TDBT_UINT);
    tag->setStartByte(0);
    tag->setByteSize(1);
    m_tags->append(tag);
    QSignalSpy fromHub(m_hub.get(), &RGPCom::sendToEGLink);

    inLayer([this] { transport()->readDataFromInternal(bytes("824565908A90029010B9561CE50A")); }); // 0A 82 90

    QTRY_COMPARE(m_received, QByteArrayList{bytes("0A8290")});
    QTRY_COMPARE(tag->getValue().toUInt(), 0x0AU);
    QTRY_COMPARE(fromHub.count(), 1);
}

void TestServiceLayer::endOfTheThreadTakesEverythingDown()
{
    QList<QPointer<QObject>> all{transport()};
    for (ServiceBase* const service : m_layer->getServices()) {
        all.append(service);
    }
    inLayer([this] { // packets wait when the thread ends
        m_layer->readDataFromService("x", Internal, 101, 1);
        m_layer->readDataFromService("y", Internal, 101, 1);
    });

    m_thread->quit();
    QVERIFY(m_thread->wait(PatienceMs));

    QVERIFY(m_layer.isNull());
    for (const QPointer<QObject>& object : all) {
        QVERIFY(object.isNull());
    }
}

QTEST_GUILESS_MAIN(TestServiceLayer)
#include "tst_service_layer.moc"
