#pragma once

#include "pairingkeys.h"

#include <QString>
#include <QVector>

/// One row of an application's file app.csv that pairing sets.
struct ApplicationSetting
{
    QString tag;
    QString value;
};

/// Writes a pairing into an application before it is packed: the key words, in decimal, into rows "PKY1" to "PKY4" of
/// its config/keys.csv, and `settings` into its config/app.csv, all in the column "value". Missing rows are added;
/// everything else in the files keeps its meaning. Each file is replaced in one step.
///
/// Runs in the caller's thread and waits for the disk.
/// @return false, with a log line, when a file is missing, lacks its header lines or the column, cannot be written, or
///         is a link that leads out of the application's folder. The file before it may be written by then.
bool writeApplicationConfig(const QString& appPath, const PairingKeys& keys,
                            const QVector<ApplicationSetting>& settings);
