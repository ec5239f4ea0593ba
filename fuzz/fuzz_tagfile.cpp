// A tag file and process images of any content. Fields that lie outside their tag's bytes end the server by design and
// are passed over here; everything else must decode.

#include "configfile.h"
#include "fuzzing.h"
#include "tagdatabase.h"
#include "tagrow.h"

namespace {

bool endsTheServer(const Tag& tag)
{
    const int type = tag.getDataType();
    const unsigned int bits = 8U * tag.getByteSize();
    if (type == TDBT_BOOLEAN || type == TDBT_BE_BOOLEAN) {
        return tag.getStartBit() >= bits;
    }
    if ((type == TDBT_INT || type == TDBT_BE_INT) && tag.getBitSize() != 0) {
        return tag.getByteSize() > 4 || tag.getStartBit() >= bits || tag.getStartBit() + tag.getBitSize() > bits;
    }
    return false;
}

void fill(TagDatabase& tags, const QByteArray& content)
{
    ConfigFile file(fileWith(content), nullptr);
    for (const QString& row : file.getAllTags()) {
        Tag* const tag = makeTag(file, row, Tag::BIIT, &tags);
        if (!endsTheServer(*tag)) {
            tags.append(tag);
        }
    }
}

QByteArray slice(const QByteArray& image, const Tag& tag)
{
    QByteArray bytes(tag.getByteSize(), '\0');
    for (int i = 0; i < bytes.size() && tag.getStartByte() + i < image.size(); ++i) {
        bytes[i] = image.at(tag.getStartByte() + i);
    }
    return bytes;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    silenceLog();
    FuzzInput input(data, size);
    TagDatabase tags(nullptr);
    fill(tags, "tag;startByte;byteSize;startBit;bitSize;dataType\n;;;;;\n" + input.bytes(input.word()));
    while (!input.isAtEnd()) {
        const QByteArray image = input.bytes(input.byte());
        tags.processProsessData(image);
        for (int index = 0; index < tags.size(); ++index) {
            FUZZ_CHECK(tags.at(index)->getRawData() == slice(image, *tags.at(index)));
        }
    }
    return 0;
}
