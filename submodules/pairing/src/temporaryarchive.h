#pragma once

#include "pairingrecords.h"

#include <QFile>

/// The archive of an application, which is read once and then goes: its directory entry is removed with this object,
/// and behind it what the records say of it.
///
/// An archive holds pairing keys and must not outlive its use. Should another file have taken the place of this one by
/// then (the application was packed again while a slow receiver still read the first archive), that one stays, with its
/// record.
class TemporaryArchive : public QFile
{
    Q_OBJECT

public:
    TemporaryArchive(const QString& path, const PairingRecords& records);
    ~TemporaryArchive() override;

    /// The path, also while the file is open under a descriptor that knows none.
    QString fileName() const override { return m_path; }

private:
    bool isStillInPlace() const;

    const QString m_path;
    const PairingRecords m_records;
};
