#pragma once

#include "tag.h"

class ConfigFile;
class QObject;
class QString;

/// Makes a tag, owned by `parent`, from one row of a tag file.
///
/// Never fails: an unreadable number counts as 0, and a type word that is not exactly one of the known ones leaves the
/// type unset. The value starts as the type's null value, that of a RAW tag as zero bytes.
Tag* makeTag(const ConfigFile& file, const QString& rowName, Tag::HostLinkType hostLink, QObject* parent);
