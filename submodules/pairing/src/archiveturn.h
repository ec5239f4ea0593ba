#pragma once

#include "pairclient.h"
#include "pairingact.h"
#include "pairingkeys.h"

#include <QPointer>
#include <QString>

#include <memory>
#include <optional>

class Configuration;
class TagDatabase;

/// One turn at the archiver: an application is prepared for a remote unit, packed by the archiver, and made valid.
///
/// Up to `complete` nothing changes that anybody else looks at; a turn that is dropped before leaves nothing behind.
///
/// | after      | done by     | there is                                    | cut off here                        |
/// |------------|-------------|---------------------------------------------|-------------------------------------|
/// | `prepare`  | this        | keys, settings, remotes file beside the old | undone: by this object's end, or by |
/// |            |             |                                             | the next start if the process ends  |
/// | packing    | PairArchive | also the archive, beside what it holds      | the same                            |
/// | `complete` | this        | everything in its place                     | the pairing holds, the archive goes |
///
/// An application that is no user application goes the same way without keys: only the archive takes its place.
///
/// Used once, in the thread that writes the configuration's files. Waits for the disk: `prepare` for as long as the
/// number of the application's files takes (their size, where a file cannot have two names), `complete` until the whole
/// archive is on the disk.
class ArchiveTurn
{
public:
    /// For the tool that asked. Touches no file; whether the application may be handed out has been decided before.
    /// @param ruId  the remote unit to pair; means nothing for other than user applications.
    /// @param appPath  a clean absolute path.
    ArchiveTurn(PairClient* client, quint16 ruId, const QString& appPath);
    /// Undoes what `complete` has not made valid. Whoever packs must have ended by then.
    ~ArchiveTurn();

    /// Null when that tool has left and its object is gone; one that is just leaving is still named, and not open.
    PairClient* client() const { return m_client.data(); }
    const QString& appPath() const { return m_appPath; }

    /// Draws keys, if it is a user application, and makes everything that is to be packed. For such a one the
    /// configuration is read anew first, so that it gets the settings that stand in the files now.
    /// @param records  outlive this object.
    /// @return false, with a log line, when that cannot be done: unit 0, settings that cannot be read, an application
    ///         without its manifest or its two files, a full disk. What had been made goes with this object.
    bool prepare(Configuration& configuration, const TagDatabase& tags, const PairingRecords& records);
    /// Only after `prepare` succeeded. The archive is to lie beside that folder, under its name and ".tar".
    QString folderToPack() const { return m_act->folderToPack(); }
    /// The archive has been made: puts it and the keys in their places, and has the configuration read anew. The keys
    /// are logged, as the last step. Once, after `prepare` succeeded.
    /// @return false, with a log line, when nothing has changed.
    bool complete(Configuration& configuration);

private:
    bool preparePairing(Configuration& configuration, const TagDatabase& tags, QVector<TextFileChange>& application,
                        std::optional<TextFileChange>& remotes);

    const QPointer<PairClient> m_client;
    const quint16 m_ruId;
    const QString m_appPath;
    std::optional<PairingKeys> m_keys; ///< of a user application, from `prepare` on
    std::unique_ptr<PairingAct> m_act; ///< null until `prepare` has keys, or needs none
};
