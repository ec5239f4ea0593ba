#include "pairingrecovery.h"

#include "pairingact.h"
#include "pairingrecords.h"

#include <QDebug>
#include <QDir>

bool undoPairings(const PairingRecords& records)
{
    bool undone = true;
    const QStringList begun = records.begun();
    for (const QString& appPath : begun) {
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
    if (!QDir(records.folder()).exists()) {
        return true;
    }
    if (!undoPairings(records)) {
        return false;
    }
    bool cleared = true;
    const QStringList archives = records.archives();
    for (const QString& appPath : archives) {
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
