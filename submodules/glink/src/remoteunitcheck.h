#pragma once

#include <QtGlobal>

class Configuration;
class TagDatabase;

/// What a base unit knows of a remote unit that introduces itself. Used by the transports, for information, and by the
/// hub, which decides; both must judge alike.
///
/// Reads published snapshots of the configuration and of tag values: safe in any thread.
namespace RemoteUnitCheck {

/// True when one of the configured remote units has the id. Rows are looked at by their number from 0 up to the first
/// one that is missing or has no "RUID".
bool isRuPaired(const Configuration* config, quint16 ruId);

/// True when `id` is the value of the tag "bu_identity".
bool isBuId(const TagDatabase* tagDatabase, quint16 id);

} // namespace RemoteUnitCheck
