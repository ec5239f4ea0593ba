#pragma once

#include <QString>
#include <QStringList>

#include <optional>

/// What has been begun with applications and is not over, on the disk: the next start of the server reads it, however
/// this one ends.
///
/// The folder ".pairing" beside the remotes file holds one small file for each application of which something is to be
/// cleared away; its content is the application's path. It goes with its last file.
///
///     NAME.undo       a pairing, or the making of an archive, is under way: put everything back
///     NAME.archive    all is complete, and an archive stands: remove that
///
/// NAME is made of the path. Renaming the one to the other is the step that makes a pairing valid.
///
/// Belongs to the thread that writes the configuration's files; waits for the disk.
class PairingRecords
{
public:
    explicit PairingRecords(const QString& remotesFile);

    /// The folder, which also has room for files that are about to take the remotes file's place.
    const QString& folder() const { return m_folder; }
    /// The remotes file, with links resolved.
    const QString& remotesFile() const { return m_remotesFile; }

    /// A pairing of the application in `appPath` begins. @return false, with the reason in `errno`, when that could not
    /// be put down; then nothing may begin.
    bool begin(const QString& appPath) const;
    /// It is complete from here on. @return false, and it is not, when that could not be put down.
    bool settle(const QString& appPath) const;
    /// It has been undone. @return false when the disk does not let it be forgotten; then it is to be undone again.
    bool forgetBegun(const QString& appPath) const;
    /// The archive is gone.
    void forgetArchive(const QString& appPath) const;

    /// The applications of either kind; nothing, with a log line, when the disk does not let all of them be read.
    std::optional<QStringList> begun() const;
    std::optional<QStringList> archives() const;

    /// Removes whatever is left of the folder, once everything is cleared away.
    void clear() const;

private:
    QString fileOf(const QString& appPath, const QString& kind) const;
    std::optional<QStringList> pathsOf(const QString& kind) const;
    bool forget(const QString& appPath, const QString& kind) const;

    QString m_remotesFile;
    QString m_folder;
};
