#include "temporaryarchive.h"

#include <sys/stat.h>

TemporaryArchive::TemporaryArchive(const QString& path)
    : QFile(path)
    , m_path(path)
{}

TemporaryArchive::~TemporaryArchive()
{
    if (isStillInPlace()) {
        QFile::remove(m_path);
    }
}

bool TemporaryArchive::isStillInPlace() const
{
    struct stat opened;
    struct stat named;
    return handle() >= 0 && fstat(handle(), &opened) == 0 && stat(QFile::encodeName(m_path).constData(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}
