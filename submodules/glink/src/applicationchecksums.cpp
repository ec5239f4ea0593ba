#include "applicationchecksums.h"

#include "filetimes.h"
#include "manifestindex.h"
#include "md5checksum.h"
#include "threads.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <QPointer>
#include <QThread>
#include <QThreadPool>

#include <atomic>
#include <chrono>
#include <memory>

#include <sys/stat.h>

namespace {

using namespace std::chrono_literals;

constexpr int IdleThreadMs = 1000;
constexpr auto InterruptionCheck = 50ms;

/// The digest of a file that changed this recently is not kept.
constexpr std::chrono::milliseconds DefaultSettlingTime = 2s;
std::atomic<std::chrono::milliseconds> s_settlingTime{DefaultSettlingTime};

/// What is known of a folder without reading its files. Equal states of a settled folder mean equal contents.
struct FolderState
{
    QByteArray fingerprint;
    bool isSettled = true;
};

template<typename Number>
void addNumber(QCryptographicHash& hash, Number number)
{
    hash.addData(reinterpret_cast<const char*>(&number), sizeof(number));
}

void addFile(const QString& path, QCryptographicHash& fingerprint, bool& isSettled)
{
    struct stat file = {};
    const QByteArray encodedPath = QFile::encodeName(path);
    if (::stat(encodedPath.constData(), &file) != 0 || !S_ISREG(file.st_mode)) {
        return;
    }
    fingerprint.addData(encodedPath.constData(), encodedPath.size() + 1);
    addNumber(fingerprint, file.st_dev);
    addNumber(fingerprint, file.st_ino);
    addNumber(fingerprint, file.st_size);
    addNumber(fingerprint, FileTimes::sinceEpoch(file.st_mtim).count());
    addNumber(fingerprint, FileTimes::sinceEpoch(file.st_ctim).count());
    isSettled = isSettled && FileTimes::isSettled(file, s_settlingTime);
}

FolderState stateOf(const QString& directory)
{
    FolderState state;
    QCryptographicHash fingerprint(QCryptographicHash::Sha1);
    const QStringList paths = Md5Checksum::hashedPaths(QFileInfo(directory));
    for (const QString& path : paths) {
        addFile(path, fingerprint, state.isSettled);
    }
    state.fingerprint = fingerprint.result();
    return state;
}

/// One list that was ordered. `begun` decides whether a later request may share it.
struct Job
{
    explicit Job(const QString& rootPath)
        : root(rootPath)
    {}

    const QString root;
    std::atomic<bool> begun{false};
    std::promise<ApplicationChecksumList> promise;
    const std::shared_future<ApplicationChecksumList> list{promise.get_future().share()};
};

/// The background thread and what it remembers. The pool has one thread at most, so jobs run one after the other and
/// need no lock for the cache.
class Workshop
{
public:
    static Workshop& instance()
    {
        static Workshop workshop;
        return workshop;
    }

    std::shared_future<ApplicationChecksumList> order(const QString& root);
    void whenReady(const std::shared_future<ApplicationChecksumList>& list, QObject* context,
                   const std::function<void(const ApplicationChecksumList&)>& onReady);
    /// The folder of the first application that the last list found below `root`; empty when there was none.
    QString firstApplication(const QString& root) const;
    bool stop(std::chrono::milliseconds limit);
    quint64 hashCount() const { return m_hashCount; }

private:
    struct Discovery
    {
        QString root;
        QString firstApplication;
    };
    struct Digest
    {
        QByteArray fingerprint;
        QByteArray md5;
    };

    Workshop()
    {
        m_pool.setMaxThreadCount(1);
        m_pool.setExpiryTimeout(IdleThreadMs);
        qAddPostRoutine([] { instance().close(); });
    }

    void close();
    void serve(Job& job);
    ApplicationChecksumList listOf(const QString& root);
    QByteArray digestOf(const QString& directory);

    QThreadPool m_pool;
    std::shared_ptr<Job> m_latest; ///< swapped atomically; requesters may be in several threads
    std::shared_ptr<const Discovery> m_discovery{std::make_shared<const Discovery>()}; ///< swapped atomically
    std::atomic<QThread*> m_servingThread{nullptr};
    std::atomic<bool> m_isClosing{false};
    std::atomic<quint64> m_hashCount{0};
    // Touched by the pool's thread only.
    ManifestIndex m_manifests;
    QMap<QString, Digest> m_digests; ///< by folder
};

std::shared_future<ApplicationChecksumList> Workshop::order(const QString& root)
{
    std::shared_ptr<Job> latest = std::atomic_load(&m_latest);
    if (latest && latest->root == root && !latest->begun) {
        return latest->list;
    }
    auto job = std::make_shared<Job>(root);
    m_pool.start([this, job] { serve(*job); });
    // Only now may others share it: what they start behind it relies on its being under way.
    std::atomic_store(&m_latest, job);
    return job->list;
}

void Workshop::whenReady(const std::shared_future<ApplicationChecksumList>& list, QObject* context,
                         const std::function<void(const ApplicationChecksumList&)>& onReady)
{
    // The pool's thread cannot know whether `context` still exists; this object in the thread of `context` can, and
    // lives until it has reported.
    auto* const messenger = new QObject;
    messenger->moveToThread(context->thread());
    m_pool.start([messenger, list, onReady, receiver = QPointer<QObject>(context)] {
        const auto report = [=] {
            if (receiver) {
                onReady(list.get());
            }
            messenger->deleteLater(); // not before: its deletion must not overtake the report
        };
        QMetaObject::invokeMethod(messenger, report, Qt::QueuedConnection);
    });
}

bool Workshop::stop(std::chrono::milliseconds limit)
{
    m_isClosing = true;
    if (QThread* const thread = m_servingThread) {
        thread->requestInterruption();
    }
    const bool hasStopped = m_pool.waitForDone(static_cast<int>(limit.count()));
    m_isClosing = !hasStopped;
    return hasStopped;
}

void Workshop::close()
{
    stop(std::chrono::milliseconds(-1)); // however long it takes; who may not wait has called stop() before
}

QString Workshop::firstApplication(const QString& root) const
{
    const std::shared_ptr<const Discovery> discovery = std::atomic_load(&m_discovery);
    return discovery->root == root ? discovery->firstApplication : QString();
}

void Workshop::serve(Job& job)
{
    Threads::claimPriority(Threads::Role::Background); // the pool may have made a new thread since the last job
    job.begun = true;
    m_servingThread = QThread::currentThread();
    const ApplicationChecksumList list = listOf(job.root);
    m_servingThread = nullptr;
    job.promise.set_value(m_isClosing ? ApplicationChecksumList() : list);
}

ApplicationChecksumList Workshop::listOf(const QString& root)
{
    ApplicationChecksumList list;
    const QStringList directories = m_manifests.remoteUnitUserApplications(root);
    std::atomic_store(&m_discovery, std::make_shared<const Discovery>(Discovery{root, directories.value(0)}));
    for (const QString& directory : directories) {
        if (!m_isClosing) {
            list.insert(directory, digestOf(directory));
        }
    }
    for (auto digest = m_digests.begin(); digest != m_digests.end();) {
        digest = list.contains(digest.key()) ? std::next(digest) : m_digests.erase(digest);
    }
    return list;
}

QByteArray Workshop::digestOf(const QString& directory)
{
    const FolderState before = stateOf(directory);
    const auto known = m_digests.constFind(directory);
    if (known != m_digests.constEnd() && known->fingerprint == before.fingerprint) {
        return known->md5;
    }
    QByteArray md5;
    Md5Checksum::getChecksum(md5, directory);
    ++m_hashCount;
    if (before.isSettled && !m_isClosing && stateOf(directory).fingerprint == before.fingerprint) {
        m_digests.insert(directory, {before.fingerprint, md5});
    }
    return md5;
}

} // namespace

namespace ApplicationChecksums {

std::shared_future<ApplicationChecksumList> request(const QString& rootPath)
{
    return Workshop::instance().order(rootPath);
}

void whenReady(const std::shared_future<ApplicationChecksumList>& list, QObject* context,
               std::function<void(const ApplicationChecksumList&)> onReady)
{
    Workshop::instance().whenReady(list, context, onReady);
}

ApplicationChecksumList waitFor(const std::shared_future<ApplicationChecksumList>& list)
{
    while (list.wait_for(InterruptionCheck) != std::future_status::ready) {
        if (QThread::currentThread()->isInterruptionRequested()) {
            return {};
        }
    }
    return list.get();
}

bool find(const QString& rootPath, const ApplicationChecksumList& list, QByteArray& result)
{
    static thread_local ManifestIndex index;
    const QStringList directories = index.remoteUnitUserApplications(rootPath);
    if (directories.isEmpty()) {
        return false;
    }
    result = list.value(directories.first());
    return true;
}

bool findPublished(const QString& rootPath, const ApplicationChecksumList& list, QByteArray& result)
{
    const QString directory = Workshop::instance().firstApplication(rootPath);
    if (directory.isEmpty()) {
        return false;
    }
    result = list.value(directory);
    return true;
}

bool stop(std::chrono::milliseconds limit)
{
    return Workshop::instance().stop(limit);
}

void setSettlingTime(std::chrono::milliseconds time)
{
    s_settlingTime = time;
}

quint64 hashCount()
{
    return Workshop::instance().hashCount();
}

} // namespace ApplicationChecksums
