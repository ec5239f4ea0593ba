#include "pairarchive.h"

#include "filedigest.h"

#include <QDebug>
#include <QFile>
#include <QFileInfo>

#include <csignal>
#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

/// The process for which this thread is just starting tar; 0 when it is not.
thread_local pid_t startingFor = 0;

/// In the child: it ends with the thread that started it, however that ends. Nobody would clear up behind it, and it
/// would go on writing beside the next start of the server.
void endWithParent()
{
    constexpr int EndedBefore = 125;
    if (startingFor != 0 && (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != startingFor)) {
        _exit(EndedBefore);
    }
}

class TarProcess : public QProcess
{
public:
    explicit TarProcess(QObject* parent)
        : QProcess(parent)
    {
        // Before setupChildProcess the child waits for a word of its parent, with all its sockets. It is to end there,
        // too.
        static const int registered = pthread_atfork(nullptr, nullptr, endWithParent);
        Q_UNUSED(registered)
    }

    void startTar(const QStringList& arguments);

protected:
    void setupChildProcess() override { endWithParent(); }
};

const QString TarProgram = QStringLiteral("tar");
const QString ArchiveSuffix = QStringLiteral(".tar");
constexpr int KillWaitMs = 1000;

void TarProcess::startTar(const QStringList& arguments)
{
    startingFor = getpid();
    start(TarProgram, arguments, QIODevice::ReadWrite);
    startingFor = 0;
}

} // namespace

PairArchive::PairArchive(QObject* parent)
    : QObject(parent)
    , tarProcess(new TarProcess(this))
{
    tarProcess->setStandardInputFile(QProcess::nullDevice());
    connect(tarProcess, &QProcess::started, this, &PairArchive::tarStarted);
    connect(tarProcess, &QProcess::readyReadStandardOutput, this, &PairArchive::tarReadyReadStandardOutput);
    connect(tarProcess, &QProcess::readyReadStandardError, this, &PairArchive::tarReadyReadStandardError);
    connect(tarProcess, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), this, &PairArchive::tarFinished);
    connect(tarProcess, &QProcess::errorOccurred, this, &PairArchive::tarFailed);
    m_patience.setInterval(0);
    connect(&m_patience, &QTimer::timeout, this, &PairArchive::losePatience);
}

PairArchive::~PairArchive()
{
    if (tarProcess->state() == QProcess::NotRunning) {
        return;
    }
    tarProcess->disconnect(this);
    if (tarProcess->processId() <= 0) {
        // The system refused the process, which Qt takes for number -1, and -1 to kill means all processes. There is
        // nothing to end; the object is left alone, as its own destructor would do the same.
        tarProcess->setParent(nullptr);
        return;
    }
    tarProcess->kill();
    tarProcess->waitForFinished(KillWaitMs);
    if (currentProcess == CREATE) {
        QFile::remove(tarFilePath);
    }
}

void PairArchive::createTar(QString path)
{
    qDebug() << "Start creating" << path;
    if (isBusy()) {
        qDebug() << "pairarchive: Unable to create tar. Another process is running.";
        return;
    }
    startTarProcess(path, CREATE);
}

void PairArchive::extractTar(QString path)
{
    qDebug() << "Start extracting" << path;
    if (isBusy()) {
        qDebug() << "Unable to extract tar. Another process is running.";
        return;
    }
    startTarProcess(path, EXTRACT);
}

QString PairArchive::createMd5(QString filePath)
{
    keepDigest(FileDigest::of(filePath));
    return md5Hash;
}

void PairArchive::startTarProcess(const QString& path, ProcessType type)
{
    currentProcess = type;
    tarAppDirectory = QDir(QDir::cleanPath(path + QStringLiteral("/..")));
    if (!tarAppDirectory.exists()) {
        // Busy from here on: nothing will ever finish this job.
        qWarning() << "pairarchive: Could not find the directory one up from this app!";
        emit couldNotStart();
        return;
    }
    tarAppDirPath = tarAppDirectory.absolutePath();
    tarAppName = path.section(QLatin1Char('/'), -1);
    tarFilePath = path;
    const QStringList arguments = prepareArguments(type);
    tarProcess->setWorkingDirectory(tarAppDirPath);
    static_cast<TarProcess*>(tarProcess)->startTar(arguments);
}

QStringList PairArchive::prepareArguments(ProcessType type)
{
    switch (type) {
    case CREATE: tarFilePath += ArchiveSuffix; return {QStringLiteral("-cf"), tarAppName + ArchiveSuffix, tarAppName};
    case EXTRACT: return {QStringLiteral("-xf"), tarFilePath};
    case NONE: break;
    }
    qWarning() << "pairarchive: Invalid ProcessType";
    return {};
}

void PairArchive::tarStarted()
{
    qDebug() << "pairarchive: tarStarted()";
    m_sizeSeen = 0;
    m_patienceTaken = 0;
    if (currentProcess == CREATE && m_patience.interval() > 0) {
        m_patience.start();
    }
}

void PairArchive::tarReadyReadStandardOutput()
{
    qDebug() << "pairarchive: tarReadyReadStandardOutput():" << tarProcess->readAllStandardOutput();
}

void PairArchive::tarReadyReadStandardError()
{
    qDebug() << "pairarchive: tarReadyReadStandardError():" << tarProcess->readAllStandardError();
}

void PairArchive::tarFailed(QProcess::ProcessError error)
{
    if (error == QProcess::FailedToStart) {
        // Busy from here on: a program that never ran never finishes.
        qWarning() << "pairarchive: Could not start tar:" << tarProcess->errorString();
        emit couldNotStart();
    }
}

void PairArchive::giveUp()
{
    if (tarProcess->state() == QProcess::NotRunning) {
        currentProcess = NONE;
    }
}

/// Without the archive there is nothing to hash, however much tar has made of it.
void PairArchive::endTar()
{
    if (tarProcess->state() == QProcess::NotRunning || tarProcess->processId() <= 0) {
        return;
    }
    if (currentProcess == CREATE) {
        QFile::remove(tarFilePath);
    }
    tarProcess->kill();
}

void PairArchive::losePatience()
{
    const qint64 size = QFileInfo(tarFilePath).size();
    const bool grows = size > m_sizeSeen;
    m_sizeSeen = size;
    if (++m_patienceTaken >= PatienceTimes || !grows) {
        qWarning() << "pairarchive: tar does not come to its end with" << tarFilePath;
        endTar();
    }
}

void PairArchive::tarFinished(int exitCode)
{
    qDebug() << "pairarchive: tarFinished";
    m_patience.stop();
    m_tarContent = exitCode == 0 && tarProcess->exitStatus() == QProcess::NormalExit;
    auto* digest = new FileDigest(tarFilePath, this);
    connect(digest, &FileDigest::finished, this, &PairArchive::finishJob);
    connect(digest, &FileDigest::finished, digest, &FileDigest::deleteLater);
    digest->start();
}

void PairArchive::finishJob(const QString& digest)
{
    keepDigest(digest);
    switch (currentProcess) {
    case CREATE: finishCreate(); break;
    case EXTRACT: finishExtract(); break;
    case NONE: break;
    }
}

void PairArchive::keepDigest(const QString& digest)
{
    md5Hash = digest;
    qDebug() << "Hash:" << md5Hash;
}

void PairArchive::finishExtract()
{
    qDebug() << "Removing" << tarFilePath;
    QFile::remove(tarFilePath);
    currentProcess = NONE;
    qDebug() << "extractedTarReady";
    emit extractedTarReady();
}

void PairArchive::finishCreate()
{
    currentProcess = NONE;
    qDebug() << "cretedTarReady" << tarFilePath;
    emit createdTarReady(tarAppName, tarFilePath);
}
