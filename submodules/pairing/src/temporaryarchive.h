#pragma once

#include "pairingrecords.h"

#include <QFile>

/// The archive of an application, which is read once and then goes: its directory entry is removed with this object,
/// and behind it what the records say of it.
///
/// An archive holds pairing keys and must not outlive its use. Should another file have taken the place of this one by
/// then (the application was packed again while a slow receiver still read the first archive), that one stays, with its
/// record.
///
/// It is on offer with a PairClient, then read by a FileTransfer; whichever of the two deletes it ends its use. Should
/// the process end before, the record has the next start remove the archive.
class TemporaryArchive : public QFile
{
    Q_OBJECT

public:
    /// Opens nothing. Only when it has been opened, by openRegularFile(), does its end remove anything.
    /// @param records  copied.
    TemporaryArchive(const QString& path, const PairingRecords& records);
    /// Waits for the disk. A file that cannot be removed stays, and so does its record.
    ~TemporaryArchive() override;

    /// The path, also while the file is open under a descriptor that knows none.
    QString fileName() const override { return m_path; }

private:
    bool isStillInPlace() const; ///< whether the name still leads to the open file

    const QString m_path;
    const PairingRecords m_records;
};
