#include "archiveturns.h"

#include "pairarchive.h"
#include "pairingrecovery.h"

#include <QDebug>

#include <algorithm>

namespace {

bool isTurnOf(const std::unique_ptr<ArchiveTurn>& turn, const PairClient* client)
{
    return turn != nullptr && turn->client() == client;
}

} // namespace

ArchiveTurns::ArchiveTurns(PairArchive* archiver, Configuration* configuration, const TagDatabase* tags,
                           const PairingRecords& records)
    : m_archiver(archiver)
    , m_configuration(configuration)
    , m_tags(tags)
    , m_records(records)
{}

ArchiveTurns::~ArchiveTurns() = default;

bool ArchiveTurns::has(const PairClient* client) const
{
    return isTurnOf(m_current, client) || std::any_of(m_waiting.begin(), m_waiting.end(),
                                                      [client](const auto& turn) { return isTurnOf(turn, client); });
}

void ArchiveTurns::add(PairClient* client, quint16 ruId, const QString& appPath)
{
    if (m_current != nullptr) {
        qInfo() << "pairserver:" << appPath << "has to wait for its turn";
    }
    m_waiting.push_back(std::make_unique<ArchiveTurn>(client, ruId, appPath));
    beginNext();
}

void ArchiveTurns::next()
{
    m_current.reset();
    beginNext();
}

void ArchiveTurns::giveUp(const PairClient* client)
{
    m_waiting.erase(std::remove_if(m_waiting.begin(), m_waiting.end(),
                                   [client](const auto& turn) { return isTurnOf(turn, client); }),
                    m_waiting.end());
    if (isTurnOf(m_current, client)) {
        m_archiver->endTar();
    }
}

void ArchiveTurns::beginNext()
{
    while (m_current == nullptr && !m_waiting.empty()) {
        m_current = std::move(m_waiting.front());
        m_waiting.erase(m_waiting.begin());
        if (!begin(*m_current)) {
            m_current.reset();
        }
    }
}

/// What an earlier turn could not undo comes first: the files in its way are needed again.
bool ArchiveTurns::begin(ArchiveTurn& turn)
{
    if (!undoPairings(m_records) || !turn.prepare(*m_configuration, *m_tags, m_records)) {
        return false;
    }
    m_archiver->createTar(turn.folderToPack());
    return true;
}
