#include "pairingrecovery.h"

#include "durablefiles.h"
#include "pairingact.h"
#include "pairingrecords.h"

#include <QDebug>

bool undoPairings(const PairingRecords& records)
{
    const std::optional<QStringList> begun = records.begun();
    if (!begun) {
        return false;
    }
    bool undone = true;
    for (const QString& appPath : *begun) {
        if (PairingAct::undo(appPath, records)) {
            qInfo() << "pairserver: Undid what had been begun with" << appPath;
        } else {
            qWarning() << "pairserver: Could not undo what had been begun with" << appPath;
            undone = false;
        }
    }
    return undone;
}

bool recoverPairings(const QString& remotesFile)
{
    const PairingRecords records(remotesFile);
    if (DurableFiles::isGone(records.folder())) {
        return true;
    }
    if (!undoPairings(records)) {
        return false;
    }
    const std::optional<QStringList> archives = records.archives();
    if (!archives) {
        return false;
    }
    bool cleared = true;
    for (const QString& appPath : *archives) {
        if (PairingAct::clearAway(appPath, records)) {
            qInfo() << "pairserver: Removed the archive that was left of" << appPath;
        } else {
            qWarning() << "pairserver: Could not remove what was left of" << appPath;
            cleared = false;
        }
    }
    if (cleared) {
        records.clear();
    }
    return cleared;
}
