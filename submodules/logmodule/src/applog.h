#pragma once

#include <QObject>
#include <QString>

class QFile;

/// A rotating log of labelled event records in text files `<directory>/<prefix>_0`, `_1`, ...: 0 is the oldest, the
/// highest number is the current file. At most `maxFiles` files exist, each with at most `maxLines` records.
///
/// Belongs to the thread that made it; other threads call write() by queued invocation. File operations that fail are
/// not reported: the log goes on with whatever file it has.
class AppLog : public QObject
{
    Q_OBJECT

public:
    /// Opens the newest file of an earlier run, to append to it, or creates file 0. Files beyond the limit (after it
    /// was lowered) are removed, oldest first, and the others renumbered from 0.
    ///
    /// @param prefix     file name without number
    /// @param directory  an existing folder
    /// @param maxLines   records per file
    /// @param maxFiles   files kept; less than 2 counts as 2
    AppLog(const QString& prefix, const QString& directory, quint16 maxLines, quint16 maxFiles, QObject* parent);
    ~AppLog() override;

    /// Starts a new, empty file; when the set is full, the oldest file goes and the others move down by one number.
    void rotateFiles();

public slots:
    /// Appends the record `<local time, ISO 8601>;label;tagDbReference;logMessage` in UTF-8 and flushes it. The fields
    /// are written as they are: nothing keeps a ";" or a line end inside them apart.
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
    quint16 m_fileNo = 0;
    quint32 m_lineCount = 0;
};
