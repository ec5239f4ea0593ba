#pragma once

#include "pairingkeys.h"
#include "textfile.h"

#include <QString>
#include <QVector>

/// One row of an application's file app.csv that pairing sets.
struct ApplicationSetting
{
    QString tag;   ///< the row's key, such as "BUID"
    QString value; ///< for its column "value"; one with ";" or a line end in it is left out, with a log line
};

/// A pairing as it is to be written into an application before it is packed: the key words, in decimal, in rows "PKY1"
/// to "PKY4" of its config/keys.csv, and `settings` in its config/app.csv, all in the column "value". Missing rows are
/// added; everything else in the files keeps its meaning. Touches no file.
///
/// Runs in the caller's thread and waits for the disk.
/// @param appPath  without a "/" at its end.
/// @return the two files, keys first; none, with a log line, when one is missing, lacks its header lines or the column,
///         or is a link that leads out of the application's folder. A link within it stays: the file that it leads to
///         is the one to be replaced. The contents hold the keys in the clear.
QVector<TextFileChange> prepareApplicationConfig(const QString& appPath, const PairingKeys& keys,
                                                 const QVector<ApplicationSetting>& settings);
