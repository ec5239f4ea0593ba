#pragma once

#include "tag.h"

class ConfigFile;
class QObject;
class QString;

/// Makes a tag, owned by `parent`, from one row of a tag file.
///
/// Never fails: an unreadable number counts as 0, and a type word that is not exactly one of the known ones leaves the
/// type unset. Of a number above 65535 the low 16 bits count.
///
/// The value starts as an empty text for STRING, as zero bytes for RAW, and as the int 0 for all others: a number of
/// another type, or a boolean, has its own type from its first change on.
///
/// The row is not checked against itself: sizes and bits that its type cannot have show when the tag gets its bytes,
/// see Tag::setValue(). Columns that the file does not have count as empty, further ones are ignored.
/// @param rowName  the key of a row, which becomes the tag's name; of no row it makes a tag of empty cells.
Tag* makeTag(const ConfigFile& file, const QString& rowName, Tag::HostLinkType hostLink, QObject* parent);
