#pragma once

#include <QByteArray>
#include <QStringList>

class TagDatabase;

/// The state of the base unit as remote units see it, in the payload of BASE_STATUS. Tags are read as unsigned
/// integers; a missing tag counts as 0.
///
/// | offset | size | tag                     |
/// |-------:|-----:|-------------------------|
/// |      0 | 2 LE | bu_identity             |
/// |      2 |    1 | bu_state                |
/// |      3 |    1 | tsaps                   |
/// |      4 |    1 | unarmed_rus             |
/// |      5 |    1 | eglink_stat_out         |
/// |      6 |    1 | eclink_status           |
/// |      7 | 2 LE | armed_ru                |
namespace BaseStatus {

constexpr int Size = 9;

/// The payload as of now. Main thread; a null database gives zeros.
QByteArray payload(const TagDatabase* tagDatabase);

/// Names of the tags above that the database lacks.
QStringList missingTags(const TagDatabase& tagDatabase);

} // namespace BaseStatus
