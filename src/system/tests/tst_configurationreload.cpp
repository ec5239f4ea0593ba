#include "configuration.h"
#include "configurationfiles.h"
#include "configurationreload.h"
#include "logspy.h"
#include "patience.h"

#include <QSemaphore>
#include <QThread>
#include <QtTest>

#include <atomic>
#include <memory>

namespace {

const QString ReloadLine = QStringLiteral("------------------------- RECONFIG -------------------------");

} // namespace

/// A reload in a thread of its own, which a test can hold up behind the end of a reload.
class TestConfigurationReload : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void requestReadsTheFilesInItsOwnThread();
    void requestsDuringAReloadMakeExactlyOneMore();
    void everyRequestIsFollowedByAReadingThatBeganAfterIt();
    void floodMakesOneReloadPerRest();
    void misnumberedRemotesAreRepairedInTheWritingThread();

private:
    void start(std::chrono::milliseconds rest);
    int reloads() const { return m_log->count(ReloadLine) - 1; } // without that of the store's making

    std::unique_ptr<LogSpy> m_log;
    std::unique_ptr<ConfigurationFiles> m_files;
    std::unique_ptr<Configuration> m_store;
    std::unique_ptr<QThread> m_thread;
    ConfigurationReload* m_reload = nullptr;
    std::atomic<int> m_reloaded{0};
    QSemaphore m_turns{0}; ///< a reload takes one before it counts as done
    bool m_isHeld = false;
};

void TestConfigurationReload::init()
{
    m_log = std::make_unique<LogSpy>();
    m_files = std::make_unique<ConfigurationFiles>();
    m_store = std::make_unique<Configuration>(m_files->sources(), nullptr);
    m_thread = std::make_unique<QThread>();
    m_reloaded = 0;
    m_isHeld = false;
}

void TestConfigurationReload::start(std::chrono::milliseconds rest)
{
    m_reload = new ConfigurationReload(m_store.get(), rest);
    m_reload->moveToThread(m_thread.get());
    m_store->writeFilesIn(m_reload);
    const auto finishReload = [this] {
        if (m_isHeld) {
            m_turns.acquire();
        }
        ++m_reloaded;
    };
    connect(m_reload, &ConfigurationReload::reloaded, m_reload, finishReload, Qt::DirectConnection);
    connect(m_thread.get(), &QThread::finished, m_reload, &QObject::deleteLater);
    m_thread->start();
}

void TestConfigurationReload::cleanup()
{
    m_turns.release(1000);
    m_thread->quit();
    QVERIFY(m_thread->wait(PatienceMs));
    m_turns.acquire(m_turns.available());
    m_thread.reset();
    m_store.reset();
    m_files.reset();
    m_log.reset();
}

void TestConfigurationReload::requestReadsTheFilesInItsOwnThread()
{
    m_isHeld = true;
    start(std::chrono::milliseconds(1));
    m_files->putApp("FMAP;BC;3\n");

    m_reload->request(); // and returns, though the reload is held

    unsigned int value = 0;
    QTRY_VERIFY(m_store->getAppTag("FMAP", &value));
    QCOMPARE(value, 3U);
    QCOMPARE(m_reloaded.load(), 0);
    m_turns.release();
    QTRY_COMPARE(m_reloaded.load(), 1);
}

void TestConfigurationReload::requestsDuringAReloadMakeExactlyOneMore()
{
    m_isHeld = true;
    start(std::chrono::milliseconds(1));
    m_reload->request();
    QTRY_COMPARE(reloads(), 1);

    for (int i = 0; i < 1000; ++i) {
        m_reload->request();
    }
    m_turns.release(1000);

    QTRY_COMPARE(m_reloaded.load(), 2);
    QTest::qWait(50);
    QCOMPARE(m_reloaded.load(), 2);
    QCOMPARE(reloads(), 2);
}

void TestConfigurationReload::everyRequestIsFollowedByAReadingThatBeganAfterIt()
{
    start(std::chrono::milliseconds(0));
    for (int round = 1; round <= 40; ++round) {
        m_files->putApp("FMAP;BC;" + QByteArray::number(round) + '\n');
        m_reload->request();
        unsigned int value = 0;
        QTRY_VERIFY2(m_store->getAppTag("FMAP", &value) && value == unsigned(round), "a request was lost");
    }
}

void TestConfigurationReload::floodMakesOneReloadPerRest()
{
    start(std::chrono::milliseconds(100));
    QElapsedTimer elapsed;
    elapsed.start();
    while (elapsed.elapsed() < 500) {
        m_reload->request();
    }
    const qint64 took = elapsed.elapsed();
    QTRY_VERIFY(m_reloaded >= 2);
    QTest::qWait(250);

    // At once, after each rest, and the last one for what came during that.
    QVERIFY2(m_reloaded <= took / 100 + 3, qPrintable(QString::number(m_reloaded)));
}

void TestConfigurationReload::misnumberedRemotesAreRepairedInTheWritingThread()
{
    start(std::chrono::milliseconds(1));
    m_files->putRemotes("5;7;10;20;30;40\n");

    m_reload->request();

    QTRY_COMPARE(m_files->remoteRows(), QByteArray("0;7;10;20;30;40\n")); // without this thread's help:
    m_files->putRemotes("5;8;10;20;30;40\n");
    m_store->reConfig();
    QTRY_COMPARE(m_files->remoteRows(), QByteArray("0;8;10;20;30;40\n"));
}

QTEST_GUILESS_MAIN(TestConfigurationReload)
#include "tst_configurationreload.moc"
