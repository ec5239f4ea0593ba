#pragma once

#include <QDir>
#include <QObject>
#include <QProcess>
#include <QString>
#include <QTimer>

#include <chrono>

class FileDigest;

/// Packs an application's directory into a tar archive, or unpacks one, with the system's tar as a child process: one
/// job at a time, never queued. Lives in the thread of its owner and never blocks it.
///
/// The archive of directory D lies beside D as D.tar and holds D's content under the top-level name D. Whether tar
/// succeeded is not examined: a partial archive is announced like a good one, with the digest of what is there.
///
/// A job that cannot start because the parent directory or the tar program is missing leaves the archiver busy, and
/// later jobs are refused, until its owner gives the job up.
///
/// tar does not outlive the thread that started it, however that ends.
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

    /// From now on a tar is ended whose archive does not grow for this long, or is not complete after `PatienceTimes`
    /// as long; without this it has all the time it wants. The job comes to its end as after any other end of tar.
    void limitPatience(std::chrono::milliseconds patience) { m_patience.setInterval(patience); }
    static constexpr int PatienceTimes = 10;
    /// Ends a tar that runs. The job comes to its end soon, as after any other end of tar; the archive is removed.
    void endTar();
    /// Forgets a job that could not start, so that there can be another one.
    void giveUp();

    /// Whether tar was content, in the last job that came to its end. What it made is not to be relied on otherwise.
    bool wasTarContent() const { return m_tarContent; }

    bool isBusy() const { return currentProcess != NONE; }
    /// The archive of the current or last job.
    QString archivePath() const { return tarFilePath; }
    /// The digest computed last; when `createdTarReady` is emitted, that of the archive announced.
    QString digest() const { return md5Hash; }

signals:
    void createdTarReady(QString createTarAppName, QString absolutePath);
    void extractedTarReady();
    /// The job will never end, see giveUp().
    void couldNotStart();

private slots:
    void tarStarted();
    void tarReadyReadStandardOutput();
    void tarReadyReadStandardError();
    void tarFinished(int exitCode);
    void tarFailed(QProcess::ProcessError error);
    void finishJob(const QString& digest);
    void losePatience();

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

    bool m_tarContent = false;
    QTimer m_patience; ///< an interval of 0 means without end
    int m_patienceTaken = 0;
    qint64 m_sizeSeen = 0;
};
