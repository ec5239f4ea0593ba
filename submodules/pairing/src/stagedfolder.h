#pragma once

#include <QString>
#include <QStringList>

/// Makes `copy`, a folder that holds what `folder` holds, hidden entries included. Files are not copied but get a
/// further name in it, and links stay links; what `leftOut` names, as `folder`/..., is left out.
///
/// @param failed  on failure, the entry with which it ended; `errno` says why.
/// @return false when anything could not be made. What was made by then stays.
bool stageFolder(const QString& folder, const QString& copy, const QStringList& leftOut, QString& failed);
