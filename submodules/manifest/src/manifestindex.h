#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

/// Answers again and again which applications for remote units are installed, without reading all folders each time.
///
/// Remembers the last answer together with the times and inodes of all folders and manifests that it came from. While
/// those are unchanged, so is the answer: asking costs one look at each folder instead of reading it. What changed
/// within the last two seconds is not trusted, as file systems stamp in steps.
///
/// | since the last answer                        | asking costs                                 |
/// |----------------------------------------------|----------------------------------------------|
/// | nothing has changed                          | a `stat` of each folder and manifest         |
/// | something changed, or did shortly before it  | reading all folders, and all manifests again |
/// | another root was asked for                   | the same                                     |
///
/// Either way the disk is waited for. A manifest that was missing or unreadable shows up by itself, since its folder or
/// its rights change then.
///
/// Not shared between threads; each keeps its own.
class ManifestIndex
{
public:
    /// The same as ApplicationManifest::remoteUnitUserApplications(). What changes while the folders are read shows in
    /// the next answer at the latest.
    QStringList remoteUnitUserApplications(const QString& rootPath);

    /// How often the folders were read. For tests.
    int walkCount() const { return m_walkCount; }

private:
    void walk(const QString& rootPath);

    QString m_rootPath;         ///< the last one asked for, which alone is remembered
    QStringList m_watchedPaths; ///< root, all folders below it, all manifests
    QByteArray m_fingerprint;   ///< of the watched paths; empty when the answer is not to be trusted again
    QStringList m_applications; ///< the last answer
    int m_walkCount = 0;
};
