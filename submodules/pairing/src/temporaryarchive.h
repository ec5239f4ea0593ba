#pragma once

#include <QFile>

/// A file that is read once and then goes: its directory entry is removed with this object.
///
/// An archive holds pairing keys and must not outlive its use. Should another file have taken the place of this one by
/// then (the application was packed again while a slow receiver still read the first archive), that one stays.
class TemporaryArchive : public QFile
{
    Q_OBJECT

public:
    explicit TemporaryArchive(const QString& path);
    ~TemporaryArchive() override;

    /// The path, also while the file is open under a descriptor that knows none.
    QString fileName() const override { return m_path; }

private:
    bool isStillInPlace() const;

    const QString m_path;
};
