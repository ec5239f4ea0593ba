#pragma once

#include <QtGlobal>

class Configuration;
class TagDatabase;

/// What a base unit knows of a remote unit that introduces itself. Used by the transports, for information, and by the
/// hub, which decides; both must judge alike.
///
/// Reads published snapshots of the configuration and of tag values: safe in any thread, and never waits for a reload.
/// Two questions in a row may be answered from two configurations.
namespace RemoteUnitCheck {

/// True when one of the configured remote units has the id. Rows are looked at by their number from 0 up to the first
/// one that is missing or has no "RUID". False for a null configuration. Costs one look into a bit array, however many
/// units there are.
bool isRuPaired(const Configuration* config, quint16 ruId);

/// True when `id` is the value of the tag "bu_identity", read as an unsigned number; that is 0 until the base
/// controller has told it. False for a null database and for one without that tag.
bool isBuId(const TagDatabase* tagDatabase, quint16 id);

} // namespace RemoteUnitCheck
