#pragma once

#include <QObject>
#include <QString>

class QFile;

/// A rotating log of labelled event records in text files `<directory>/<prefix>_0`, `_1`, ...: 0 is the oldest, the
/// highest number is the current file. At most `maxFiles` files exist, each with at most `maxLines` records.
///
///     AppLog("events", directory, 3, 2, parent), after the records a to h:
///
///     events_0    d e f    goes with the second record from now on, and events_1 takes its name
///     events_1    g h      gets the next record
///
/// Belongs to the thread that made it; other threads call write() by queued invocation. File operations that fail are
/// not reported: the log goes on with whatever file it has.
///
/// Every call waits for the disk, and leaves lines of its own in the server's log: not for a thread that anybody's
/// safety depends on. One object for a set of files; two would overwrite each other's records.
class AppLog : public QObject
{
    Q_OBJECT

public:
    /// Opens the newest file of an earlier run, to append to it, or creates file 0. Files beyond the limit (after it
    /// was lowered) are removed, oldest first, and the others renumbered from 0. Reads the newest file once, to count
    /// its records. A record that was cut off at the end of that file counts, and the next one goes on in its line.
    ///
    /// @param prefix     file name without number
    /// @param directory  an existing folder; without it nothing is written, and no line tells so
    /// @param maxLines   records per file; 0 makes a new file for each record
    /// @param maxFiles   files kept; less than 2 counts as 2
    AppLog(const QString& prefix, const QString& directory, quint16 maxLines, quint16 maxFiles, QObject* parent);
    /// Leaves all files as they are.
    ~AppLog() override;

    /// Starts a new, empty file; when the set is full, the oldest file goes and the others move down by one number.
    /// By itself before the record that would be one too many; from elsewhere at any time.
    void rotateFiles();

public slots:
    /// Appends the record `<local time, ISO 8601>;label;tagDbReference;logMessage` in UTF-8 and flushes it. The fields
    /// are written as they are: nothing keeps a ";" or a line end inside them apart.
    ///
    ///     2024-05-17T09:30:02;pump;speed;above the limit
    ///
    /// The time has whole seconds and names no zone. The kernel has the record when this returns, the disk perhaps not.
    void write(QString label, QString tagDbReference, QString logMessage);

private:
    QString numberedName(int number) const;
    void renameFile(int from, int to);
    void packFiles(int highest);
    void openCurrentFile();
    void countLines();

    const QString m_fileName; ///< path of all files of this log, up to the "_" before the number
    QFile* const m_logFile;   ///< null only when memory ran out: the log then does nothing
    const quint16 m_maxFiles;
    const quint16 m_maxLines;
    quint16 m_fileNo = 0;    ///< of the current file
    quint32 m_lineCount = 0; ///< records in the current file, those that could not be written included
};
