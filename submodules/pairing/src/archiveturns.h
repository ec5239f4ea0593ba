#pragma once

#include "archiveturn.h"

#include <QString>

#include <memory>
#include <vector>

class PairArchive;

/// Whose application the archiver packs, and who waits for it, in the order in which they asked: one turn of a tool at
/// most.
///
///     add() -> the archiver works for current() -> its owner completes that turn -> next()
///
/// A turn that cannot be prepared is passed over, with a log line. Used in the thread of the archiver; waits for the
/// disk whenever a turn begins.
class ArchiveTurns
{
public:
    /// All four outlive this object, but the archiver may have gone when it ends.
    ArchiveTurns(PairArchive* archiver, Configuration* configuration, const TagDatabase* tags,
                 const PairingRecords& records);
    /// Undoes the current turn; the archiver must be at rest.
    ~ArchiveTurns();
    ArchiveTurns(const ArchiveTurns&) = delete;
    ArchiveTurns& operator=(const ArchiveTurns&) = delete;

    /// Whether it is this tool's turn, or will be.
    bool has(const PairClient* client) const;
    /// A further turn, as ArchiveTurn takes it; it begins at once when nobody is before it.
    void add(PairClient* client, quint16 ruId, const QString& appPath);
    /// Null when the archiver is at work for nobody.
    ArchiveTurn* current() const { return m_current.get(); }
    /// The current turn is over, and undone if it was not completed; the next one begins.
    void next();
    /// A tool leaves: it waits no longer. If it is its turn, the archiver is told to end, and its owner hears of that
    /// as of any other end.
    void giveUp(const PairClient* client);

private:
    void beginNext();
    bool begin(ArchiveTurn& turn);

    PairArchive* m_archiver;
    Configuration* m_configuration;
    const TagDatabase* m_tags;
    const PairingRecords& m_records;
    std::unique_ptr<ArchiveTurn> m_current;
    std::vector<std::unique_ptr<ArchiveTurn>> m_waiting;
};
