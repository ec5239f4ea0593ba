#include "archiveturn.h"

#include "applicationconfig.h"
#include "applicationmanifest.h"
#include "applications.h"
#include "configuration.h"
#include "tag.h"
#include "tagdatabase.h"

#include <QDebug>

namespace {

const QString BuIdentityTag = QStringLiteral("bu_identity");

/// The base unit's own settings that a paired application takes over.
const QString CopiedSettings[] = {
    QStringLiteral("CCH1"), QStringLiteral("CCH2"), QStringLiteral("CCH3"),
    QStringLiteral("SID1"), QStringLiteral("WPA1"),
};

unsigned int baseUnitId(const TagDatabase& tags)
{
    const Tag* identity = tags.get(BuIdentityTag);
    return identity != nullptr ? identity->getValue().toUInt() : 0;
}

QVector<ApplicationSetting> baseUnitSettings(const Configuration& configuration, const TagDatabase& tags)
{
    QVector<ApplicationSetting> settings{{QStringLiteral("BUID"), QString::number(baseUnitId(tags))}};
    for (const QString& tag : CopiedSettings) {
        bool found = false;
        const QString value = configuration.getAppTagText(tag, &found);
        if (found) {
            settings.append({tag, value});
        }
    }
    return settings;
}

} // namespace

ArchiveTurn::ArchiveTurn(PairClient* client, quint16 ruId, const QString& appPath)
    : m_client(client)
    , m_ruId(ruId)
    , m_appPath(appPath)
{}

ArchiveTurn::~ArchiveTurn() = default;

bool ArchiveTurn::prepare(Configuration& configuration, const TagDatabase& tags, const PairingRecords& records)
{
    QVector<TextFileChange> application;
    std::optional<TextFileChange> remotes;
    const auto manifest = ApplicationManifest::read(m_appPath + QStringLiteral("/manifest.csv"));
    if (!manifest) {
        // Nobody knows whether to pair then, and the keys in there belong to another unit.
        qWarning() << "pairserver: Could not prepare" << m_appPath << "- its manifest cannot be read";
        return false;
    }
    if (isUserApp(*manifest) && !preparePairing(configuration, tags, application, remotes)) {
        return false;
    }
    m_act = std::make_unique<PairingAct>(m_appPath, records);
    if (m_act->prepare(application, remotes)) {
        return true;
    }
    qWarning() << "pairserver: Could not prepare" << m_appPath << "-" << m_act->reason();
    return false;
}

bool ArchiveTurn::preparePairing(Configuration& configuration, const TagDatabase& tags,
                                 QVector<TextFileChange>& application, std::optional<TextFileChange>& remotes)
{
    if (m_ruId == 0) {
        qDebug() << "PairServer: invalid ruId:" << m_ruId;
        return false;
    }
    configuration.reConfig();
    if (!configuration.hasReadSettings()) {
        qWarning() << "pairserver: Could not read the base unit's own settings for" << m_appPath;
        return false;
    }
    m_keys = PairingKeys::draw();
    application = prepareApplicationConfig(m_appPath, *m_keys, baseUnitSettings(configuration, tags));
    if (application.isEmpty()) {
        return false;
    }
    const auto& [key1, key2, key3, key4] = m_keys->words;
    remotes.emplace();
    if (!configuration.prepareRemotePairing(m_ruId, key1, key2, key3, key4, &*remotes)) {
        qWarning() << "pairserver: Could not store the keys of remote unit" << m_ruId;
        return false;
    }
    return true;
}

bool ArchiveTurn::complete(Configuration& configuration)
{
    if (!m_act->complete()) {
        qWarning() << "pairserver: Nothing has changed with" << m_appPath << "-" << m_act->reason();
        return false;
    }
    if (m_keys) {
        configuration.remotePairingStored();
        const auto& [key1, key2, key3, key4] = m_keys->words;
        qDebug() << "PairServer generated new keys:" << m_ruId << "(ruid)" << key1 << "(pky1)" << key2 << "(pky2)"
                 << key3 << "(pky3)" << key4 << "(pky4)";
    }
    return true;
}
