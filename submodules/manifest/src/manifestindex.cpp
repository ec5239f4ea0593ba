#include "manifestindex.h"

#include "applicationmanifest.h"
#include "filetimes.h"

#include <QDirIterator>
#include <QFile>

#include <chrono>

#include <sys/stat.h>

namespace {

using namespace std::chrono_literals;

constexpr auto SettlingTime = 2s;

/// Times and identities of the entries; a missing one counts as such.
/// @param isTrusted  becomes false when one of them changed a moment ago.
QByteArray fingerprintOf(const QStringList& paths, bool& isTrusted)
{
    struct Trace
    {
        quint64 device;
        quint64 inode;
        qint64 changedNs;
    };
    QByteArray fingerprint;
    fingerprint.reserve(paths.size() * int(sizeof(Trace)));
    for (const QString& path : paths) {
        struct stat entry = {};
        Trace trace = {};
        if (::stat(QFile::encodeName(path).constData(), &entry) == 0) {
            // Every change of contents, names or rights sets the change time, which nobody can set back.
            trace = {entry.st_dev, entry.st_ino, FileTimes::sinceEpoch(entry.st_ctim).count()};
            isTrusted = isTrusted && FileTimes::isSettled(entry, SettlingTime);
        }
        fingerprint.append(reinterpret_cast<const char*>(&trace), sizeof(trace));
    }
    return fingerprint;
}

} // namespace

QStringList ManifestIndex::remoteUnitUserApplications(const QString& rootPath)
{
    bool isTrusted = true;
    const bool isKnown = rootPath == m_rootPath && !m_fingerprint.isEmpty();
    if (!isKnown || fingerprintOf(m_watchedPaths, isTrusted) != m_fingerprint) {
        walk(rootPath);
    }
    return m_applications;
}

void ManifestIndex::walk(const QString& rootPath)
{
    ++m_walkCount;
    m_rootPath = rootPath;
    m_watchedPaths = QStringList{rootPath} + ApplicationManifest::find(rootPath);
    QDirIterator folder(rootPath, QDir::Dirs | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (!rootPath.isEmpty() && folder.hasNext()) {
        m_watchedPaths.append(folder.next());
    }
    // Taken before the manifests are read: what changes meanwhile shows the next time.
    bool isTrusted = true;
    m_fingerprint = fingerprintOf(m_watchedPaths, isTrusted);
    if (!isTrusted) {
        m_fingerprint.clear();
    }
    m_applications = ApplicationManifest::remoteUnitUserApplications(rootPath);
}
