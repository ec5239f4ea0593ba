#include "tagrow.h"

#include "configfile.h"

#include <algorithm>
#include <iterator>

namespace {

struct TextColumn
{
    const char* name;
    void (Tag::*set)(const QString&);
};

constexpr TextColumn TextColumns[] = {
    {"label", &Tag::setLabel},
    {"unitLabel", &Tag::setUnitLabel},
};

struct NumberColumn
{
    const char* name;
    void (Tag::*set)(const quint16&);
};

constexpr NumberColumn NumberColumns[] = {
    {"startByte", &Tag::setStartByte},
    {"byteSize", &Tag::setByteSize},
    {"startBit", &Tag::setStartBit},
    {"bitSize", &Tag::setBitSize},
};

struct LimitColumn
{
    const char* name;
    void (Tag::*set)(const float&);
};

constexpr LimitColumn LimitColumns[] = {
    {"minValue", &Tag::setMinimumValue},
    {"maxValue", &Tag::setMaximumValue},
    {"minWarningValue", &Tag::setMinimumWarningValue},
    {"maxWarningValue", &Tag::setMaximumWarningValue},
    {"minAlarmValue", &Tag::setMinimumAlarmValue},
    {"maxAlarmValue", &Tag::setMaximumAlarmValue},
};

constexpr char TypeColumn[] = "dataType";

struct TypeWord
{
    const char* word;
    tagDataType type;
    QVariant::Type initialType; ///< Invalid: the tag starts with zero bytes instead of a null value
};

constexpr TypeWord TypeWords[] = {
    {"UINT", TDBT_UINT, QVariant::UInt},       {"BE_UINT", TDBT_BE_UINT, QVariant::UInt},
    {"INT", TDBT_INT, QVariant::Int},          {"BE_INT", TDBT_BE_INT, QVariant::Int},
    {"REAL", TDBT_REAL, QVariant::Double},     {"BE_REAL", TDBT_BE_REAL, QVariant::Double},
    {"STRING", TDBT_STRING, QVariant::String}, {"RAW", TDBT_RAW, QVariant::Invalid},
    {"BOOLEAN", TDBT_BOOLEAN, QVariant::Bool}, {"BE_BOOLEAN", TDBT_BE_BOOLEAN, QVariant::Bool},
};

void setType(Tag& tag, const QString& word)
{
    const auto* const known =
        std::find_if(std::begin(TypeWords), std::end(TypeWords),
                     [&word](const TypeWord& candidate) { return word == QLatin1String(candidate.word); });
    if (known == std::end(TypeWords)) {
        return;
    }
    tag.setDataType(known->type);
    if (known->initialType == QVariant::Invalid) {
        tag.setValue(QByteArray(tag.getByteSize(), '\0'));
    } else {
        tag.setValue(QVariant(known->initialType));
    }
}

} // namespace

Tag* makeTag(const ConfigFile& file, const QString& rowName, Tag::HostLinkType hostLink, QObject* parent)
{
    auto* const tag = new Tag(rowName, parent);
    const auto cell = [&](const char* column) {
        return file.getValue(rowName, QLatin1String(column));
    };
    for (const TextColumn& column : TextColumns) {
        (tag->*column.set)(cell(column.name));
    }
    for (const NumberColumn& column : NumberColumns) {
        (tag->*column.set)(static_cast<quint16>(cell(column.name).toUInt()));
    }
    for (const LimitColumn& column : LimitColumns) {
        (tag->*column.set)(cell(column.name).toFloat());
    }
    tag->setHostLink(hostLink);
    setType(*tag, cell(TypeColumn));
    return tag;
}
