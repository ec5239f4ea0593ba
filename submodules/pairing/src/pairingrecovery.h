#pragma once

#include <QString>

class PairingRecords;

/// Clears away what an earlier run of the server has left of pairings, however it ended: one that did not come to its
/// end is undone, an archive that nobody has fetched is removed. A log line for each.
///
/// At the start before the configuration is read, and before a pairing begins after one that could not be undone at
/// once. In the thread that writes the configuration's files; waits for the disk.
/// @return false, with a log line, when the disk did not let it; it is to be tried again.
bool recoverPairings(const QString& remotesFile);

/// The first half of it, for one who has archives on offer.
bool undoPairings(const PairingRecords& records);
