#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QString>

// Whole-file reading and power-safe rewriting of the small text files that configure the unit. Stateless; callable from
// any thread, but one file must be rewritten by one thread at a time.

/// The largest file that is read, in bytes. The biggest real files, tag tables, have some hundred kilobytes; the bound
/// keeps a damaged file system or a misplaced file from eating the board's memory.
constexpr int MaxTextFileBytes = 4 * 1024 * 1024;

/// A file that is to be replaced, with all links resolved: its content now and the one that is to come.
struct TextFileChange
{
    QString path;      ///< absolute, of the file itself
    QByteArray before; ///< whoever replaces the file may look whether it still is so
    QByteArray after;
};

/// Reads the whole file, bytes as they are.
/// @return false, with `content` empty and the reason in `error`, when it is no regular file, cannot be opened or read,
///         or has more than MaxTextFileBytes. `error` is a text for the log, and stays as it is on success.
bool readTextFile(const QString& path, QByteArray& content, QString& error);

/// Cuts a text after every line feed. Each line keeps its line feed; a last line without one counts as a line. Carriage
/// returns are no line ends and stay where they are. An empty text has no lines.
QByteArrayList splitLines(const QByteArray& text);

/// Replaces the file's content in one step: temporary file in the same folder, sync to disk, rename over the old file.
/// A power cut or a full disk leaves either the old file or the new one, whole. Permissions of the old file are kept.
/// Who has the old file open goes on reading that. A link stays: what it names is replaced.
/// @return false, with the old file untouched, when any step fails.
bool replaceTextFile(const QString& path, const QByteArray& content);
