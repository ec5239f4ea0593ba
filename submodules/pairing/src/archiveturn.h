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
class ArchiveTurn
{
public:
    /// For the tool that asked.
    ArchiveTurn(PairClient* client, quint16 ruId, const QString& appPath);
    ~ArchiveTurn();

    /// Null when that tool has left.
    PairClient* client() const { return m_client.data(); }
    const QString& appPath() const { return m_appPath; }

    /// Draws keys, if it is a user application, and makes everything that is to be packed.
    /// @return false, with a log line, when that cannot be done.
    bool prepare(Configuration& configuration, const TagDatabase& tags, const PairingRecords& records);
    QString folderToPack() const { return m_act->folderToPack(); }
    /// The archive has been made: puts it and the keys in their places, and has the configuration read anew.
    /// @return false, with a log line, when nothing has changed.
    bool complete(Configuration& configuration);

private:
    bool preparePairing(Configuration& configuration, const TagDatabase& tags, QVector<TextFileChange>& application,
                        std::optional<TextFileChange>& remotes);

    const QPointer<PairClient> m_client;
    const quint16 m_ruId;
    const QString m_appPath;
    std::optional<PairingKeys> m_keys;
    std::unique_ptr<PairingAct> m_act;
};
