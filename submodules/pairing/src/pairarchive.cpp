#include "pairarchive.h"

#include "filedigest.h"

#include <QDebug>
#include <QFile>

namespace {

const QString TarProgram = QStringLiteral("tar");
const QString ArchiveSuffix = QStringLiteral(".tar");
constexpr int KillWaitMs = 1000;

} // namespace

PairArchive::PairArchive(QObject* parent)
    : QObject(parent)
    , tarProcess(new QProcess(this))
{
    tarProcess->setStandardInputFile(QProcess::nullDevice());
    connect(tarProcess, &QProcess::started, this, &PairArchive::tarStarted);
    connect(tarProcess, &QProcess::readyReadStandardOutput, this, &PairArchive::tarReadyReadStandardOutput);
    connect(tarProcess, &QProcess::readyReadStandardError, this, &PairArchive::tarReadyReadStandardError);
    connect(tarProcess, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), this, &PairArchive::tarFinished);
    connect(tarProcess, &QProcess::errorOccurred, this, &PairArchive::tarFailed);
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
        return;
    }
    tarAppDirPath = tarAppDirectory.absolutePath();
    tarAppName = path.section(QLatin1Char('/'), -1);
    tarFilePath = path;
    const QStringList arguments = prepareArguments(type);
    tarProcess->setWorkingDirectory(tarAppDirPath);
    tarProcess->start(TarProgram, arguments, QIODevice::ReadWrite);
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
    }
}

void PairArchive::tarFinished(int exitCode)
{
    Q_UNUSED(exitCode)
    qDebug() << "pairarchive: tarFinished";
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
