#include "configuration.h"
#include "configurationfiles.h"
#include "heldline.h"
#include "logspy.h"
#include "patience.h"
#include "textfile.h"

#include <QThread>
#include <QtTest>

#include <atomic>
#include <functional>
#include <memory>

/// A thread that repeats one action until it is destroyed, and then is joined.
class Repeater
{
public:
    explicit Repeater(const std::function<void()>& action)
        : m_thread(QThread::create([this, action] {
            while (!m_stop) {
                action();
                ++m_rounds;
            }
        }))
    {
        m_thread->start();
    }
    ~Repeater()
    {
        m_stop = true;
        m_thread->wait();
    }
    Repeater(const Repeater&) = delete;
    Repeater& operator=(const Repeater&) = delete;

    int rounds() const { return m_rounds; }

private:
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_rounds{0};
    std::unique_ptr<QThread> m_thread;
};

/// The store under calls from several threads. Meant to be run under the thread sanitizer too.
class TestConfigurationThreads : public QObject
{
    Q_OBJECT

private slots:
    void lookupsNeverMeetAHalfFilledStore();
    void pairingOutrunsEveryOlderReload();
    void olderReloadThatEndsLaterIsDropped();
    void foreignReloadLeavesTheRepairToTheOwner();
    void foreignReloadRepairsNeverLoseAPairing();

private:
    ConfigurationFiles m_files;
};

namespace {

constexpr qint64 HammerMs = 500;

void runInOtherThread(const std::function<void()>& action)
{
    std::unique_ptr<QThread> thread(QThread::create(action));
    thread->start();
    thread->wait();
}

/// Counts how often a lookup failed that must always succeed.
void lookAround(const Configuration& configuration, std::atomic<int>& failures)
{
    unsigned int number = 0;
    bool found = false;
    failures += configuration.getAppTag("FMAP", &number) && number == 3 ? 0 : 1;
    failures += configuration.getAppTag("EGDH", &found) == QByteArray::fromHex("0100007F") && found ? 0 : 1;
    failures += configuration.getRemoteTag(1, "RUID", &found) == QByteArray::fromHex("09000000") && found ? 0 : 1;
    failures += configuration.getRemoteTag(1, "RUID", "", &number) && number == 9 ? 0 : 1;
    failures += configuration.isRemotePaired(0) ? 0 : 1;
    failures += configuration.getAppConfigKeysFromBC() == QStringList{"FMAP"} ? 0 : 1;
}

} // namespace

void TestConfigurationThreads::lookupsNeverMeetAHalfFilledStore()
{
    const LogSpy quiet;
    m_files.putApp("FMAP;BC;3\nEGDH;local;\n");
    m_files.putRemotes("0;7;10;20;30;40\n1;9;11;21;31;41\n");
    Configuration configuration(m_files.sources("lo"), nullptr);
    std::atomic<int> failures{0};
    {
        const Repeater reloading([&] { configuration.reConfig(); });
        const Repeater reading([&] { lookAround(configuration, failures); });
        QElapsedTimer elapsed;
        elapsed.start();
        int reloads = 0;
        while (elapsed.elapsed() < HammerMs || reloads < 10 || reloading.rounds() < 10 || reading.rounds() < 10) {
            configuration.reConfig();
            configuration.verifyEGLinkIp();
            ++reloads;
        }
    }
    QCOMPARE(failures.load(), 0);
}

void TestConfigurationThreads::pairingOutrunsEveryOlderReload()
{
    const LogSpy quiet;
    m_files.putRemotes("0;7;0;0;0;0\n");
    Configuration configuration(m_files.sources(), nullptr);
    const Repeater reloading([&] { configuration.reConfig(); });
    const Repeater reloadingToo([&] { configuration.reConfig(); });
    QElapsedTimer elapsed;
    elapsed.start();
    for (unsigned int key = 1; elapsed.elapsed() < HammerMs || key < 10; ++key) {
        configuration.updateRemotePairing(7, key, key, key, key);
        // From here on every reload reads this key or is dropped.
        for (int look = 0; look < 100; ++look) {
            unsigned int stored = 0;
            QVERIFY(configuration.getRemoteTag(0, "PKY1", "", &stored));
            QCOMPARE(stored, key);
            bool found = false;
            QCOMPARE(configuration.getRemoteTag(0, "PKY4", &found).size(), 4);
            QVERIFY(found);
        }
    }
}

void TestConfigurationThreads::olderReloadThatEndsLaterIsDropped()
{
    m_files.putRemotes("0;7;10;20;30;40\n");
    Configuration configuration(m_files.sources(), nullptr);

    // The keys file, read last, is missing: the foreign reload has read the old remotes file, and is held where it
    // says so.
    QVERIFY(QFile::remove(m_files.sources().keysFile));
    const LogSpy quiet;
    HeldLine line("Load Configurations File Error:");
    std::unique_ptr<QThread> slow(QThread::create([&] { configuration.reConfig(); }));
    slow->start();
    QTRY_VERIFY(line.isReached());

    m_files.putKeys("");
    configuration.updateRemotePairing(7, 1, 2, 3, 4);
    line.release();
    QVERIFY(slow->wait(PatienceMs));

    unsigned int stored = 0;
    QVERIFY(configuration.getRemoteTag(0, "PKY1", "", &stored));
    QCOMPARE(stored, 1U);
    bool found = false;
    QCOMPARE(configuration.getRemoteTag(0, "PKY1", &found), QByteArray::fromHex("01000000"));
}

void TestConfigurationThreads::foreignReloadLeavesTheRepairToTheOwner()
{
    const LogSpy log;
    Configuration configuration(m_files.sources(), nullptr);
    m_files.putRemotes("5;7;10;20;30;40\n5;9;11;21;31;41\n");
    runInOtherThread([&] { configuration.reConfig(); });

    // In memory the rows are right at once; the file waits for this thread's event loop.
    unsigned int stored = 0;
    QVERIFY(configuration.getRemoteTag(0, "RUID", "", &stored));
    QCOMPARE(stored, 7U);
    QVERIFY(configuration.getRemoteTag(1, "RUID", "", &stored));
    QCOMPARE(stored, 9U);
    QVERIFY(!configuration.getRemoteTag(5, "RUID", "", &stored));
    QCOMPARE(m_files.remoteRows(), QByteArray("5;7;10;20;30;40\n5;9;11;21;31;41\n"));
    QTRY_COMPARE(m_files.remoteRows(), QByteArray("0;7;10;20;30;40\n1;9;11;21;31;41\n"));
}

void TestConfigurationThreads::foreignReloadRepairsNeverLoseAPairing()
{
    const LogSpy quiet;
    m_files.putRemotes("");
    Configuration configuration(m_files.sources(), nullptr);
    const Repeater reloading([&] { configuration.reConfig(); });
    QByteArray expected;
    for (unsigned int remote = 1; remote <= 20; ++remote) {
        // Somebody edits the file by hand: every row is misnumbered.
        QByteArray misnumbered;
        const QByteArrayList rows = splitLines(expected);
        for (const QByteArray& row : rows) {
            misnumbered += '9' + row;
        }
        m_files.putRemotes(misnumbered);
        QCoreApplication::processEvents(); // posted repairs

        configuration.updateRemotePairing(static_cast<unsigned short>(remote), remote, 2, 3, 4);
        const QByteArray number = QByteArray::number(remote);
        expected += QByteArray::number(remote - 1) + ';' + number + ';' + number + ";2;3;4\n";
        QCoreApplication::processEvents();
        QCOMPARE(m_files.remoteRows(), expected);
    }
}

QTEST_GUILESS_MAIN(TestConfigurationThreads)
#include "tst_configurationthreads.moc"
