#include "basestatus.h"

#include "tag.h"
#include "tagdatabase.h"
#include "utillityfunctions.h"

namespace BaseStatus {

namespace {

struct Item
{
    const char* tagName;
    int size;
};

constexpr Item Items[] = {
    {"bu_identity", 2},     {"bu_state", 1},      {"tsaps", 1},    {"unarmed_rus", 1},
    {"eglink_stat_out", 1}, {"eclink_status", 1}, {"armed_ru", 2},
};

constexpr int totalSize()
{
    int total = 0;
    for (const Item& item : Items) {
        total += item.size;
    }
    return total;
}
static_assert(totalSize() == Size, "remote units expect 9 bytes of base status");

const Tag* tagOf(const TagDatabase& tagDatabase, const Item& item)
{
    return tagDatabase.get(QString::fromLatin1(item.tagName));
}

} // namespace

QByteArray payload(const TagDatabase* tagDatabase)
{
    QByteArray bytes;
    bytes.reserve(Size);
    for (const Item& item : Items) {
        const Tag* const tag = tagDatabase != nullptr ? tagOf(*tagDatabase, item) : nullptr;
        const unsigned int value = tag != nullptr ? tag->getValue().toUInt() : 0;
        if (item.size == 1) {
            bytes.append(static_cast<char>(value));
        } else {
            appendUint16(bytes, static_cast<unsigned short>(value));
        }
    }
    return bytes;
}

QStringList missingTags(const TagDatabase& tagDatabase)
{
    QStringList missing;
    for (const Item& item : Items) {
        if (tagOf(tagDatabase, item) == nullptr) {
            missing.append(QString::fromLatin1(item.tagName));
        }
    }
    return missing;
}

} // namespace BaseStatus
