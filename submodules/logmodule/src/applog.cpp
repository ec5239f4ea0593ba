#include "applog.h"

#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QSet>
#include <QStringList>

#include <algorithm>
#include <limits>
#include <new>

namespace {

constexpr quint16 FewestFiles = 2;
constexpr int HighestFileNumber = std::numeric_limits<quint16>::max();
constexpr int NoFile = -1;

/// The files of a log that exist in a folder, told in the diagnostic stream.
QStringList existingFiles(const QString& directory, const QString& prefix)
{
    const QString pattern = prefix + QStringLiteral("_*");
    QStringList files = QDir(directory).entryList({pattern});
    qDebug() << "Searching with pattern" << pattern;
    if (files.isEmpty()) {
        qDebug() << "No existing files.";
        return files;
    }
    qDebug() << "Existing files:";
    for (const QString& file : qAsConst(files)) {
        qDebug() << file;
    }
    return files;
}

int highestNumber(const QStringList& files, const QString& prefix)
{
    const QSet<QString> names(files.begin(), files.end());
    for (int number = HighestFileNumber; number >= 0; --number) {
        const QString name = prefix + QLatin1Char('_') + QString::number(number);
        if (names.contains(name)) {
            qDebug() << name << "exists.";
            return number;
        }
    }
    qDebug() << "No files found.";
    return NoFile;
}

} // namespace

AppLog::AppLog(const QString& prefix, const QString& directory, quint16 maxLines, quint16 maxFiles, QObject* parent)
    : QObject(parent)
    , m_fileName(directory + QLatin1Char('/') + prefix)
    , m_logFile(new (std::nothrow) QFile(this))
    , m_maxFiles(std::max(maxFiles, FewestFiles))
    , m_maxLines(maxLines)
{
    qDebug() << "AppLog::AppLog()";
    if (m_logFile == nullptr) {
        qDebug() << "QFile creation failed.";
        return;
    }
    qDebug() << "Using log file prefix" << m_fileName;
    const int highest = highestNumber(existingFiles(directory, prefix), prefix);
    if (highest != NoFile) {
        qDebug() << "Max file id should be" << m_maxFiles - 1 << ", highest found is" << highest;
        m_fileNo = static_cast<quint16>(highest);
        if (highest > m_maxFiles - 1) {
            packFiles(highest);
        }
    }
    openCurrentFile();
    qDebug() << "Using file" << m_logFile->fileName();
    countLines();
    qDebug() << "Line count" << m_lineCount;
}

AppLog::~AppLog()
{
    qDebug() << "AppLog::~AppLog()";
    if (m_logFile != nullptr) {
        m_logFile->close(); // flushes
        delete m_logFile;
    }
}

void AppLog::write(QString label, QString tagDbReference, QString logMessage)
{
    qDebug() << "AppLog::write()";
    if (m_logFile == nullptr) {
        return;
    }
    if (m_lineCount >= m_maxLines) {
        rotateFiles();
    }
    const QString time = QDateTime::currentDateTime().toString(Qt::ISODate);
    const QStringList fields = {time, label, tagDbReference, logMessage};
    if (m_logFile->isOpen()) {
        m_logFile->write(fields.join(QLatin1Char(';')).toUtf8() + '\n');
        m_logFile->flush();
    }
    ++m_lineCount;
}

void AppLog::rotateFiles()
{
    qDebug() << "AppLog::rotateFiles()";
    if (m_logFile == nullptr) {
        return;
    }
    m_logFile->close();
    ++m_fileNo;
    if (m_fileNo == m_maxFiles) {
        QFile::remove(numberedName(0));
        qDebug() << "Removed" << numberedName(0);
        for (int number = 1; number < m_maxFiles; ++number) {
            renameFile(number, number - 1);
        }
        m_fileNo = m_maxFiles - 1;
    }
    QFile::remove(numberedName(m_fileNo));
    openCurrentFile();
    qDebug() << "Current file:" << m_logFile->fileName();
    m_lineCount = 0;
}

QString AppLog::numberedName(int number) const
{
    return m_fileName + QLatin1Char('_') + QString::number(number);
}

void AppLog::renameFile(int from, int to)
{
    QFile::rename(numberedName(from), numberedName(to));
    qDebug() << "Renamed" << numberedName(from) << " --> " << numberedName(to);
}

/// Removes the oldest files until the limit holds, and renumbers the others from 0 in their old order.
void AppLog::packFiles(int highest)
{
    qDebug() << "Rearranging log files...";
    const int firstKept = highest - m_maxFiles + 1;
    for (int number = 0; number < firstKept; ++number) {
        if (QFile::exists(numberedName(number))) {
            QFile::remove(numberedName(number));
            qDebug() << "Removed" << numberedName(number);
        }
    }
    int packed = 0;
    for (int number = firstKept; number <= highest; ++number) {
        if (QFile::exists(numberedName(number))) {
            renameFile(number, packed);
            ++packed;
        }
    }
    m_fileNo = static_cast<quint16>(packed - 1);
}

void AppLog::openCurrentFile()
{
    m_logFile->setFileName(numberedName(m_fileNo));
    m_logFile->open(QIODevice::ReadWrite | QIODevice::Text);
}

/// Reads to the end of the file, where the next record is to go. A last line without line feed counts too.
void AppLog::countLines()
{
    if (!m_logFile->isOpen()) {
        return;
    }
    char chunk[4096];
    char last = '\n';
    qint64 count = 0;
    while ((count = m_logFile->read(chunk, sizeof(chunk))) > 0) {
        m_lineCount += static_cast<quint32>(std::count(chunk, chunk + count, '\n'));
        last = chunk[count - 1];
    }
    if (last != '\n') {
        ++m_lineCount;
    }
}
