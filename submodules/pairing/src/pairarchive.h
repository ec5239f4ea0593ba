#pragma once

#include <QDir>
#include <QObject>
#include <QProcess>
#include <QString>

class FileDigest;

/// Packs an application's directory into a tar archive, or unpacks one, with the system's tar as a child process: one
/// job at a time, never queued. Lives in the thread of its owner and never blocks it.
///
/// The archive of directory D lies beside D as D.tar and holds D's content under the top-level name D. Whether tar
/// succeeded is not examined: a partial archive is announced like a good one, with the digest of what is there.
///
/// A job that cannot start because the parent directory or the tar program is missing leaves the archiver busy for the
/// rest of its life; later jobs are refused.
class PairArchive : public QObject
{
    Q_OBJECT

public:
    enum ProcessType { NONE = 0, CREATE = 1, EXTRACT = 2 };

    explicit PairArchive(QObject* parent);
    /// A tar that still runs is killed and the archive that it was making is removed.
    ~PairArchive() override;

    /// Packs the directory `path`; `createdTarReady` tells when it is done. Refused with a log line while busy.
    void createTar(QString path);
    /// Unpacks the archive `path` into its own folder and deletes it; `extractedTarReady` tells when that is done.
    /// Refused with a log line while busy.
    void extractTar(QString path);
    /// The MD5 of a file as lower-case hexadecimal text, computed at once; it is logged and kept as `digest()`. A file
    /// that cannot be read counts as an empty one.
    QString createMd5(QString filePath);

    bool isBusy() const { return currentProcess != NONE; }
    /// The archive of the current or last job.
    QString archivePath() const { return tarFilePath; }
    /// The digest computed last; when `createdTarReady` is emitted, that of the archive announced.
    QString digest() const { return md5Hash; }

signals:
    void createdTarReady(QString createTarAppName, QString absolutePath);
    void extractedTarReady();

private slots:
    void tarStarted();
    void tarReadyReadStandardOutput();
    void tarReadyReadStandardError();
    void tarFinished(int exitCode);
    void tarFailed(QProcess::ProcessError error);
    void finishJob(const QString& digest);

private:
    void startTarProcess(const QString& path, ProcessType type);
    QStringList prepareArguments(ProcessType type);
    void keepDigest(const QString& digest);
    void finishExtract();
    void finishCreate();

    ProcessType currentProcess = NONE;
    QProcess* tarProcess;
    QString tarFilePath;
    QString tarAppName;
    QString tarAppDirPath;
    QDir tarAppDirectory;
    QString md5Hash;
};
