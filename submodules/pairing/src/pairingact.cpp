#include "pairingact.h"

#include "durablefiles.h"
#include "stagedfolder.h"

#include <QFileInfo>

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace {

const QString ArchiveSuffix = QStringLiteral(".tar");
const QString RemotesFresh = QStringLiteral("/remotes.csv.new");
const QString RemotesOld = QStringLiteral("/remotes.csv.old");

/// The files in an application that a pairing replaces.
const QString PairedFiles[] = {QStringLiteral("/config/keys.csv"), QStringLiteral("/config/app.csv")};

QString folderOf(const QString& path)
{
    return QFileInfo(path).path();
}

QString nameOf(const QString& path)
{
    return QFileInfo(path).fileName();
}

QString workFolder(const QString& appPath)
{
    return folderOf(appPath) + QStringLiteral("/.") + nameOf(appPath) + QStringLiteral(".pairing");
}

QString stagedApplication(const QString& appPath)
{
    return workFolder(appPath) + QLatin1Char('/') + nameOf(appPath);
}

QString oldFolder(const QString& appPath)
{
    return workFolder(appPath) + QStringLiteral("/old");
}

/// The second name of one of the application's files: the places of the two are told apart, whatever links lead there.
QString oldName(const QString& appPath, const QString& pairedFile)
{
    return oldFolder(appPath) + QLatin1Char('/') + nameOf(pairedFile);
}

bool removeTraces(const QString& appPath, const PairingRecords& records)
{
    return DurableFiles::remove(records.folder() + RemotesOld) &&
           DurableFiles::remove(records.folder() + RemotesFresh) && DurableFiles::remove(workFolder(appPath));
}

/// What was removed beside the application stays so after a power cut. Only then its record, which may lie on another
/// disk, has to go.
bool syncRemovals(const QString& appPath)
{
    const QString folder = folderOf(appPath);
    return DurableFiles::isGone(folder) || DurableFiles::sync(folder);
}

bool holdTheSame(const QString& path, const QString& other)
{
    QByteArray one;
    QByteArray two;
    QString error;
    return readTextFile(path, one, error) && readTextFile(other, two, error) && one == two;
}

/// Nothing to put back is fine, too: it did not come to that, or to the renaming.
bool putBack(const QString& old, const QString& path)
{
    if (DurableFiles::isGone(old)) {
        return true;
    }
    if (holdTheSame(old, path)) {
        return DurableFiles::remove(old);
    }
    return !path.isEmpty() && DurableFiles::rename(old, path) && DurableFiles::sync(folderOf(path));
}

} // namespace

PairingAct::PairingAct(const QString& appPath, const PairingRecords& records)
    : m_appPath(appPath)
    , m_records(records)
{}

PairingAct::~PairingAct()
{
    if (m_begun) {
        undo(m_appPath, m_records);
    }
}

QString PairingAct::archiveOf(const QString& appPath)
{
    return appPath + ArchiveSuffix;
}

QString PairingAct::folderToPack() const
{
    return stagedApplication(m_appPath);
}

/// Notes what was in the way when it was not done.
bool PairingAct::attempt(bool done, const QString& what)
{
    if (!done) {
        m_reason = what + QStringLiteral(": ") + qt_error_string(errno);
    }
    return done;
}

bool PairingAct::prepare(const QVector<TextFileChange>& application, const std::optional<TextFileChange>& remotes)
{
    const QString folder = QFileInfo(m_appPath).canonicalFilePath();
    for (int i = 0; i < application.size(); ++i) {
        const QString below = application.at(i).path.mid(folder.size());
        m_replacements.append({application.at(i), folderToPack() + below, oldName(m_appPath, PairedFiles[i])});
        m_leftOut.append(m_appPath + below);
    }
    if (remotes) {
        m_replacements.append({*remotes, m_records.folder() + RemotesFresh, m_records.folder() + RemotesOld});
    }
    // Archives of applications in this one are for whom they were made for.
    const std::optional<QStringList> others = m_records.archives();
    if (!attempt(others.has_value(), m_records.folder())) {
        return false;
    }
    for (const QString& other : *others) {
        m_leftOut.append(archiveOf(other));
    }
    return begin() && stageApplication() && stageReplacements();
}

/// Old names from an earlier act must have gone before this one is put down: they would be put back as if they were its
/// own.
bool PairingAct::begin()
{
    const QString work = workFolder(m_appPath);
    if (!attempt(removeTraces(m_appPath, m_records) && DurableFiles::sync(folderOf(work)), work)) {
        return false;
    }
    m_begun = attempt(m_records.begin(m_appPath), m_records.folder());
    if (!m_begun) {
        m_records.forgetBegun(m_appPath);
    }
    return m_begun;
}

bool PairingAct::stageApplication()
{
    const QString work = workFolder(m_appPath);
    QString failed;
    return attempt(DurableFiles::makeFolder(work, folderOf(m_appPath)) &&
                       DurableFiles::makeFolder(oldFolder(m_appPath), work),
                   work) &&
           attempt(stageFolder(m_appPath, folderToPack(), m_leftOut, failed), failed);
}

bool PairingAct::stageReplacements()
{
    for (const Replacement& replacement : qAsConst(m_replacements)) {
        const TextFileChange& change = replacement.change;
        if (!attempt(DurableFiles::create(replacement.fresh, change.after, change.path), change.path)) {
            return false;
        }
    }
    return true;
}

bool PairingAct::complete()
{
    const QString archive = folderToPack() + ArchiveSuffix;
    if (!attempt(DurableFiles::sync(archive), archive) || !nothingHasChanged() || !nameTheOld() || !replaceAll() ||
        !attempt(m_records.settle(m_appPath), m_records.folder())) {
        return false;
    }
    m_begun = false;
    removeTraces(m_appPath, m_records);
    return true;
}

/// What somebody else has written meanwhile must not be lost.
bool PairingAct::nothingHasChanged()
{
    for (const Replacement& replacement : qAsConst(m_replacements)) {
        QByteArray content;
        const TextFileChange& change = replacement.change;
        if (!readTextFile(change.path, content, m_reason) || content != change.before) {
            m_reason = change.path + QStringLiteral(": changed by somebody else meanwhile");
            return false;
        }
    }
    return true;
}

/// They have reached the disk, and so have all folders that lead to them, before anything is replaced.
bool PairingAct::nameTheOld()
{
    for (const Replacement& replacement : qAsConst(m_replacements)) {
        if (!attempt(DurableFiles::addName(replacement.change.path, replacement.old), replacement.old)) {
            return false;
        }
    }
    const QString work = workFolder(m_appPath);
    const QString folders[] = {oldFolder(m_appPath), work, folderOf(work), m_records.folder()};
    return std::all_of(std::begin(folders), std::end(folders),
                       [this](const QString& folder) { return attempt(DurableFiles::sync(folder), folder); });
}

bool PairingAct::replaceAll()
{
    for (const Replacement& replacement : qAsConst(m_replacements)) {
        const QString& path = replacement.change.path;
        if (!attempt(DurableFiles::rename(replacement.fresh, path) && DurableFiles::sync(folderOf(path)), path)) {
            return false;
        }
    }
    const QString archive = archiveOf(m_appPath);
    return attempt(DurableFiles::rename(folderToPack() + ArchiveSuffix, archive) &&
                       DurableFiles::sync(folderOf(archive)),
                   archive);
}

bool PairingAct::undo(const QString& appPath, const PairingRecords& records)
{
    bool undone = putBack(records.folder() + RemotesOld, records.remotesFile());
    for (const QString& file : PairedFiles) {
        const QString path = appPath + file;
        // Whoever has removed the application has no use for what was in it.
        undone = (DurableFiles::isGone(path) || putBack(oldName(appPath, file), QFileInfo(path).canonicalFilePath())) &&
                 undone;
    }
    if (!undone || !clearAway(appPath, records)) {
        return false;
    }
    records.forgetArchive(appPath);
    return records.forgetBegun(appPath);
}

bool PairingAct::clearAway(const QString& appPath, const PairingRecords& records)
{
    // A folder of that name is nobody's archive.
    const QString archive = archiveOf(appPath);
    return removeTraces(appPath, records) && (QFileInfo(archive).isDir() || DurableFiles::remove(archive)) &&
           syncRemovals(appPath);
}

void PairingAct::forgetArchive(const QString& archive, const PairingRecords& records)
{
    const QString appPath = archive.chopped(ArchiveSuffix.size());
    if (DurableFiles::isGone(workFolder(appPath)) && syncRemovals(appPath)) {
        records.forgetArchive(appPath);
    }
}
