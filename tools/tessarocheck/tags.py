"""Tag files: types, sizes, and where a tag lies in its image."""
from dataclasses import dataclass

from .keys import emap_of
from .table import Row, expect_columns, number, read_table, real

TAG_COLUMNS = ("label", "startByte", "byteSize", "startBit", "bitSize", "dataType", "minValue", "maxValue",
               "minWarningValue", "maxWarningValue", "minAlarmValue", "maxAlarmValue", "unitLabel")
TAG_COLUMNS_NEEDED = ("startByte", "byteSize", "startBit", "bitSize", "dataType")
TAG_UNSIGNED = ("startByte", "byteSize", "startBit", "bitSize")
TAG_REALS = ("minValue", "maxValue", "minWarningValue", "maxWarningValue", "minAlarmValue", "maxAlarmValue")
TAG_NUMBER_LIMIT = 0xFFFF

WHOLE_SIZES = {"UINT": (1, 2, 4), "BE_UINT": (1, 2, 4), "INT": (1, 2, 4), "BE_INT": (1, 2, 4), "REAL": (4, 8),
               "BE_REAL": (4, 8), "BOOLEAN": (1, 2, 4), "BE_BOOLEAN": (1, 2, 4), "STRING": None, "RAW": None}
BIT_FIELD_TYPES = ("UINT", "BE_UINT", "INT", "BE_INT")
SIGNED_TYPES = ("INT", "BE_INT")
BOOLEAN_TYPES = ("BOOLEAN", "BE_BOOLEAN")

# A frame of the internal link has at most 512 bytes: two of framing, two of header and four of CRC are not image.
BASE_IMAGE_BYTES = 504
# The server ends when it is to pass on more to the machine controller.
PASSED_ON_IMAGE_BYTES = 492
FIELD_BUS_IMAGE_BYTES = 204
# A set of the machine controller has at most 255 sub-packets of 491 bytes.
CONTROLLER_IMAGE_BYTES = 255 * 491


# Tags that the server looks up by their names.
NEEDED = ("bu_identity", "bu_state", "armed_ru", "tsaps", "unarmed_rus", "eglink_stat_out", "eclink_status",
          "clink_status", "ru_state", "BCSR", "BUID", "IFTY", "IVL1", "IVL2", "IVL3", "total_rus", "eglink_status")


@dataclass(frozen=True)
class TagFile:
    path: str
    image_bytes: int  # 0: the tags of this file lie in no image
    what: str


TAG_FILES = (
    TagFile(".config/baseInternalInputTags.csv", BASE_IMAGE_BYTES, "process image from the base controller"),
    TagFile(".config/baseInternalOutputTags.csv", 0, "base output tags"),
    TagFile(".config/baseInternalTags.csv", 0, "tags of no link"),
    TagFile("tessaroserver/config/ECOutputTags.csv", FIELD_BUS_IMAGE_BYTES, "external controller's output image"),
    TagFile("tessaroserver/config/EGOutputTags.csv", CONTROLLER_IMAGE_BYTES, "machine controller's output image"),
)


@dataclass
class TagPlace:
    row: Row
    start: int
    size: int
    bits: tuple  # first and one past the last bit used inside the bytes, or None for whole bytes


def base_image(keys, image_bytes):
    """The size of the process image that tags may lie in, and what to say of it."""
    emap = emap_of(keys["EMAP"]) if "EMAP" in keys else 0
    limit = BASE_IMAGE_BYTES if image_bytes is None else image_bytes
    if emap and limit > PASSED_ON_IMAGE_BYTES:
        return PASSED_ON_IMAGE_BYTES, f"{PASSED_ON_IMAGE_BYTES}, the largest while EMAP is not 0"
    return limit, str(limit)


def check_tags(root, report, keys, image_bytes):
    names = {}
    for tag_file in TAG_FILES:
        path = root / tag_file.path
        table = read_table(path, report, tag_file.what)
        if table is None:
            continue
        judged = expect_columns(table, TAG_COLUMNS, TAG_COLUMNS_NEEDED, report)
        image = tag_file.image_bytes, str(tag_file.image_bytes)
        if tag_file.image_bytes == BASE_IMAGE_BYTES:
            image = base_image(keys, image_bytes)
        check_names(table, names, report)
        if judged:
            check_tag_table(table, image, report)
    for name in NEEDED:
        if name not in names:
            report.add(root / TAG_FILES[0].path, 1, 1, f"missing tag '{name}', which the server needs")
    return names


def check_names(table, names, report):
    for row in table.rows:
        name = row.cells[table.columns[0]].text
        if name in names:
            report.add(table.path, row.line, 1, f"duplicate tag '{name}', first in {names[name]}")
        else:
            names[name] = f"{table.path}:{row.line}"


def check_tag_table(table, image, report):
    places = []
    for row in table.rows:
        place = check_tag(table, row, report)
        if place and image[0]:
            check_inside_image(table, place, image, report)
            places.append(place)
    check_overlaps(table, places, report)


def check_tag(table, row, report):
    values, good = {}, True
    for column in TAG_UNSIGNED:
        values[column] = number(row.text(column) or "0")
        if values[column] is None or values[column] > TAG_NUMBER_LIMIT:
            report.at(table, row, column, f"'{row.text(column)}' is not a number from 0 to {TAG_NUMBER_LIMIT}")
            good = False
    for column in TAG_REALS:
        if row.text(column) and real(row.text(column)) is None:
            report.at(table, row, column, f"'{row.text(column)}' is not a number")
    if not good:
        return None
    return check_type(table, row, values, report)


def check_type(table, row, values, report):
    data_type, size = row.text("dataType"), values["byteSize"]
    start_bit, bit_size = values["startBit"], values["bitSize"]
    if data_type not in WHOLE_SIZES:
        report.at(table, row, "dataType", f"unsupported data type '{data_type}'")
        return None
    accepted = WHOLE_SIZES[data_type]
    if data_type in SIGNED_TYPES and bit_size > 0:
        accepted = (1, 2, 3, 4)
    if accepted and size not in accepted:
        report.at(table, row, "byteSize", f"unsupported size {size} for {data_type}")
        return None
    bits = bits_used(data_type, start_bit, bit_size)
    if bits and bits[1] > 8 * size:
        report.at(table, row, "startBit", f"bit field outside its bytes: bits {bits[0]} to {bits[1] - 1} of {8 * size}")
        return None
    return TagPlace(row, values["startByte"], size, bits)


def bits_used(data_type, start_bit, bit_size):
    if data_type in BOOLEAN_TYPES:
        return start_bit, start_bit + 1
    if data_type in BIT_FIELD_TYPES and bit_size > 0:
        return start_bit, start_bit + bit_size
    return None


def check_inside_image(table, place, image, report):
    size, said = image
    if place.start + place.size > size:
        report.at(table, place.row, "startByte",
                  f"bytes {place.start} to {place.start + place.size - 1} lie outside the image of {said}")


def check_overlaps(table, places, report):
    """Bit fields share bytes by nature; two tags of which one takes whole bytes do not."""
    ordered = sorted(places, key=lambda place: (place.start, place.row.line))
    for index, place in enumerate(ordered):
        for other in ordered[index + 1:]:
            if other.start >= place.start + place.size:
                break
            if place.bits is None or other.bits is None:
                later, earlier = sorted((place, other), key=lambda item: item.row.line, reverse=True)
                report.at(table, later.row, "startByte",
                          f"tag '{later.row.key}' overlaps '{earlier.row.key}' of line {earlier.row.line}")
