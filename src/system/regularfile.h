#pragma once

#include <QFile>
#include <QString>

/// What became of opening a file.
enum class FileOpening : quint8 {
    Opened,
    NotRegular, ///< something is there that is no regular file
    Failed,     ///< there is no such file, or it may not be read
};

/// Opens `path` for reading, if it is a regular file, as `file` (which does not learn the name). Whatever the server
/// reads from the disk is opened here.
///
/// Everything else is refused unopened: a pipe or a socket would wait for somebody at its other end, a terminal or a
/// device may never end, and some devices begin to do something when they are opened. What takes the place of the file
/// meanwhile is not waited for either, and refused, too. Links are followed.
/// @param error  the reason when the file is not open; untouched when it is.
///
/// Safe in any thread. The disk itself is waited for.
FileOpening openRegularFile(const QString& path, QFile& file, QString& error);
