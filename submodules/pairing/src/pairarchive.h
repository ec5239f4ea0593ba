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
/// | what happens                        | `wasTarContent` | told by                                | busy then  |
/// |-------------------------------------|-----------------|----------------------------------------|------------|
/// | tar ends with 0                     | true            | createdTarReady or extractedTarReady   | no         |
/// | tar ends with another code, crashes | false           | the same                               | no         |
/// | endTar(), or patience is lost       | false           | the same; no archive is left           | no         |
/// | tar cannot start                    | as before       | couldNotStart                          | yes        |
/// | a job is asked for while busy       | as before       | a log line                             | yes        |
///
/// Between the end of tar and the signal the archive is hashed, in slices; the archiver is busy until then.
///
/// tar does not outlive the thread that started it, however that ends. It runs with the server's environment, is found
/// by PATH, reads nothing, and what it prints is logged.
class PairArchive : public QObject
{
    Q_OBJECT

public:
    /// What the job at hand is; NONE when there is none.
    enum ProcessType { NONE = 0, CREATE = 1, EXTRACT = 2 };

    explicit PairArchive(QObject* parent);
    /// A tar that still runs is killed and the archive that it was making is removed. Waits a second at most for its
    /// end.
    ~PairArchive() override;

    /// Packs the directory `path`; `createdTarReady` tells when it is done. Refused with a log line while busy. An
    /// archive that lies there already is overwritten.
    /// @param path  absolute and without a "/" at its end; its last part must not look like an option of tar.
    void createTar(QString path);
    /// Unpacks the archive `path` into its own folder and deletes it, whether tar was content or not;
    /// `extractedTarReady` tells when that is done. Refused with a log line while busy.
    void extractTar(QString path);
    /// The MD5 of a file as lower-case hexadecimal text, computed at once; it is logged and kept as `digest()`. A file
    /// that cannot be read counts as an empty one. Blocks for as long as it takes to read the file.
    QString createMd5(QString filePath);

    /// From now on a tar is ended whose archive does not grow for this long, or is not complete after `PatienceTimes`
    /// as long; without this it has all the time it wants. The job comes to its end as after any other end of tar.
    ///
    /// The archive is looked at once in each such time. Unpacking is not limited.
    void limitPatience(std::chrono::milliseconds patience) { m_patience.setInterval(patience); }
    static constexpr int PatienceTimes = 10;
    /// Ends a tar that runs. The job comes to its end soon, as after any other end of tar; an archive that it was
    /// making is removed. Nothing happens when none runs, or when it has ended and its archive is being hashed.
    void endTar();
    /// Forgets a job that could not start, so that there can be another one. Nothing while tar runs.
    void giveUp();

    /// Whether tar was content, in the last job that came to its end. What it made is not to be relied on otherwise.
    bool wasTarContent() const { return m_tarContent; }

    /// Also from a job that could not start until `giveUp`.
    bool isBusy() const { return currentProcess != NONE; }
    /// The archive of the current or last job; empty before the first.
    QString archivePath() const { return tarFilePath; }
    /// The digest computed last; when `createdTarReady` is emitted, that of the archive announced.
    QString digest() const { return md5Hash; }

signals:
    /// The job is over and the archiver free for another one, which may be asked for from within. Says nothing of
    /// success: there may be no archive at all, see wasTarContent().
    /// @param createTarAppName  the last part of the directory's path.
    /// @param absolutePath  where the archive lies, or would.
    void createdTarReady(QString createTarAppName, QString absolutePath);
    /// The same of unpacking; the archive is gone.
    void extractedTarReady();
    /// The job will never end, see giveUp(). May come from within createTar() and extractTar().
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
    QProcess* tarProcess;  ///< child, used for all jobs
    QString tarFilePath;   ///< of the archive
    QString tarAppName;    ///< last part of the path that was given
    QString tarAppDirPath; ///< the folder above it, in which tar runs
    QDir tarAppDirectory;  ///< the same
    QString md5Hash;       ///< computed last

    bool m_tarContent = false;
    QTimer m_patience;       ///< an interval of 0 means without end
    int m_patienceTaken = 0; ///< intervals since tar began
    qint64 m_sizeSeen = 0;   ///< of the archive, at the end of the last interval
};
