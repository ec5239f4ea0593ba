#include "pairingrecords.h"

#include "durablefiles.h"
#include "textfile.h"

#include <QCryptographicHash>
#include <QDebug>
#include <QDir>
#include <QFileInfo>

#include <cerrno>

namespace {

const QString FolderName = QStringLiteral("/.pairing");
const QString Begun = QStringLiteral(".undo");
const QString Archive = QStringLiteral(".archive");
const QString Unfinished = QStringLiteral(".new");

QString resolved(const QString& path)
{
    const QString canonical = QFileInfo(path).canonicalFilePath();
    return canonical.isEmpty() ? path : canonical;
}

} // namespace

PairingRecords::PairingRecords(const QString& remotesFile)
    : m_remotesFile(resolved(remotesFile))
    , m_folder(QFileInfo(m_remotesFile).path() + FolderName)
{}

bool PairingRecords::begin(const QString& appPath) const
{
    const QString beside = QFileInfo(m_folder).path();
    const QString file = fileOf(appPath, Begun);
    const QString unfinished = file + Unfinished;
    return (DurableFiles::makeFolder(m_folder, beside) || errno == EEXIST) && DurableFiles::remove(unfinished) &&
           DurableFiles::create(unfinished, appPath.toUtf8()) && DurableFiles::rename(unfinished, file) &&
           DurableFiles::sync(m_folder) && DurableFiles::sync(beside);
}

bool PairingRecords::settle(const QString& appPath) const
{
    const QString begunFile = fileOf(appPath, Begun);
    const QString archiveFile = fileOf(appPath, Archive);
    if (!DurableFiles::rename(begunFile, archiveFile)) {
        return false;
    }
    if (DurableFiles::sync(m_folder)) {
        return true;
    }
    const int error = errno;
    DurableFiles::rename(archiveFile, begunFile);
    errno = error;
    return false;
}

bool PairingRecords::forgetBegun(const QString& appPath) const
{
    return forget(appPath, Begun);
}

void PairingRecords::forgetArchive(const QString& appPath) const
{
    forget(appPath, Archive);
}

std::optional<QStringList> PairingRecords::begun() const
{
    return pathsOf(Begun);
}

std::optional<QStringList> PairingRecords::archives() const
{
    return pathsOf(Archive);
}

void PairingRecords::clear() const
{
    DurableFiles::remove(m_folder);
}

/// Any text can be a path; this makes a file name of it.
QString PairingRecords::fileOf(const QString& appPath, const QString& kind) const
{
    const QByteArray name = QCryptographicHash::hash(appPath.toUtf8(), QCryptographicHash::Md5).toHex();
    return m_folder + QLatin1Char('/') + QString::fromLatin1(name) + kind;
}

/// A record that cannot be read must not be taken for none: what it speaks of would stay as it is for good.
std::optional<QStringList> PairingRecords::pathsOf(const QString& kind) const
{
    QStringList names;
    if (!DurableFiles::isGone(m_folder) && !DurableFiles::namesIn(m_folder, names)) {
        qWarning() << "pairserver: Could not read" << m_folder << "-" << qPrintable(qt_error_string(errno));
        return std::nullopt;
    }
    QStringList paths;
    for (const QString& name : qAsConst(names)) {
        QByteArray content;
        QString error;
        const QString file = m_folder + QLatin1Char('/') + name;
        if (!name.endsWith(kind)) {
            continue;
        }
        if (!readTextFile(file, content, error)) {
            qWarning() << "pairserver: Could not read" << file << "-" << qPrintable(error);
            return std::nullopt;
        }
        paths.append(QString::fromUtf8(content));
    }
    return paths;
}

bool PairingRecords::forget(const QString& appPath, const QString& kind) const
{
    const QString file = fileOf(appPath, kind);
    const bool forgotten =
        DurableFiles::isGone(m_folder) ||
        (DurableFiles::remove(file) && DurableFiles::remove(file + Unfinished) && DurableFiles::sync(m_folder));
    QDir().rmdir(m_folder); // which the file system refuses while there is anything in it
    return forgotten;
}
