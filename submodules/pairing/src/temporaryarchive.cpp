#include "temporaryarchive.h"

#include "durablefiles.h"
#include "pairingact.h"

#include <sys/stat.h>

TemporaryArchive::TemporaryArchive(const QString& path, const PairingRecords& records)
    : QFile(path)
    , m_path(path)
    , m_records(records)
{}

TemporaryArchive::~TemporaryArchive()
{
    if (isStillInPlace()) {
        DurableFiles::remove(m_path);
    }
    if (isOpen() && DurableFiles::isGone(m_path)) {
        PairingAct::forgetArchive(m_path, m_records);
    }
}

bool TemporaryArchive::isStillInPlace() const
{
    struct stat opened;
    struct stat named;
    return handle() >= 0 && fstat(handle(), &opened) == 0 && stat(QFile::encodeName(m_path).constData(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}
