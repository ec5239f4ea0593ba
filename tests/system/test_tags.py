"""Every data type, from literal bytes on the UART to the text that a local tool reads."""

import pytest

from tessarobench import internallink as il
from tessarobench.csvfile import Table
from tessarobench.installation import INPUT_TAGS, OTHER_TAGS

COLUMNS = ["tag", "label", "startByte", "byteSize", "startBit", "bitSize", "dataType", "unitLabel"]

# The API shows fifteen tags under fixed names, so one of those names carries the type under test.
NAME, KEY = "ru_state", "RU_STATE"


def start_with(bench, kind, size, start_bit="", bits="", start_byte=3):
    """Starts with a single input tag of this definition; every other tag is missing."""
    table = Table(COLUMNS)
    table.set(NAME, startByte=start_byte, byteSize=size, startBit=start_bit, bitSize=bits, dataType=kind)
    table.save(bench.applications / INPUT_TAGS)
    (bench.applications / OTHER_TAGS).unlink()
    bench.start_to_run()
    bench.api.get()


def expect(bench, image, value):
    """Sends an image and waits until the tag reads as expected; changes are pushed by the API."""
    bench.bc.send(il.PROCESS_DATA, bytes.fromhex(image))
    bench.wait_for(lambda: bench.api.tag(KEY) == value, what=f"{KEY} = {value} after {image}")


@pytest.mark.parametrize("kind, size, start_bit, bits, image, expected", [
    ("UINT", 1, "", "", "000000 ff", "255"),
    ("UINT", 2, "", "", "000000 3412", "4660"),
    ("UINT", 4, "", "", "000000 ffffffff", "4294967295"),
    ("UINT", 4, 4, 3, "000000 f0000000", "7"),
    ("UINT", 1, 7, 1, "000000 80", "1"),
    ("BE_UINT", 1, "", "", "000000 ff", "255"),
    ("BE_UINT", 2, "", "", "000000 1234", "4660"),
    ("BE_UINT", 4, "", "", "000000 00010203", "66051"),
    ("BE_UINT", 2, 8, 8, "000000 1234", "18"),
    ("INT", 1, "", "", "000000 ff", "-1"),
    ("INT", 2, "", "", "000000 feff", "-2"),
    ("INT", 4, "", "", "000000 00000080", "-2147483648"),
    ("INT", 1, 4, 4, "000000 f0", "-1"),
    ("INT", 3, 2, 5, "000000 3c0000", "15"),
    ("BE_INT", 1, "", "", "000000 80", "-128"),
    ("BE_INT", 2, "", "", "000000 fffe", "-2"),
    ("BE_INT", 4, "", "", "000000 fffffffd", "-3"),
    ("BE_INT", 2, 8, 8, "000000 80 01", "-128"),
    ("REAL", 4, "", "", "000000 0000c03f", "1.5"),
    ("REAL", 8, "", "", "000000 00000000000002c0", "-2.25"),
    ("BE_REAL", 4, "", "", "000000 3fc00000", "1.5"),
    ("BE_REAL", 8, "", "", "000000 c002000000000000", "-2.25"),
    ("STRING", 8, "", "", "000000 4142004300000000", "AB"),
    ("STRING", 3, "", "", "000000 414243", "ABC"),
    ("RAW", 3, "", "", "000000 616263", "abc"),
    ("BOOLEAN", 1, 7, "", "000000 80", "true"),
    ("BOOLEAN", 2, 8, "", "000000 0001", "true"),
    ("BOOLEAN", 4, 31, "", "000000 00000080", "true"),
    ("BE_BOOLEAN", 2, 0, "", "000000 0001", "true"),
    ("BE_BOOLEAN", 4, 31, "", "000000 80000000", "true"),
])
def test_decoding(bench, kind, size, start_bit, bits, image, expected):
    start_with(bench, kind, size, start_bit, bits)
    expect(bench, image, expected)
    assert not bench.server.logged("Unsupported")


@pytest.mark.parametrize("kind, size, warning", [
    ("UINT", 3, "Unsupported tag size for data type UINT"),
    ("BE_UINT", 8, "Unsupported tag size for data type BE_UINT"),
    ("INT", 3, "Unsupported tag size for data type INT"),
    ("BE_INT", 5, "Unsupported tag size for data type BE_INT"),
    ("REAL", 2, "Unsupported tag size for data type REAL"),
    ("BE_REAL", 6, "Unsupported tag size for data type BE_REAL"),
    ("BOOLEAN", 3, "Unsupported tag size for data type TDBT_BOOLEAN"),
    ("BE_BOOLEAN", 3, "Unsupported size for data type TDBT_BE_BOOLEAN"),
    ("uint", 1, "setTagValue - type error for"),
])
def test_sizes_and_types_that_do_not_decode(bench, kind, size, warning):
    """One line per new content, not per image, and everything else goes on."""
    start_with(bench, kind, size)
    for image in ("0000000102030405060708", "0000000102030405060708", "0000001102030405060708"):
        bench.bc.send(il.PROCESS_DATA, bytes.fromhex(image))
    n = bench.server.wait_log(warning)
    bench.server.wait_log(warning, since=n)
    assert bench.server.logged(warning) == 2
    assert bench.api.get()[KEY] == "0"


def test_a_short_image_counts_as_zeros(bench):
    start_with(bench, "UINT", 4)
    expect(bench, "000000 01020304", "67305985")
    expect(bench, "000000 05", "5")
    expect(bench, "00", "0")


def test_an_empty_image_is_all_zeros(bench):
    start_with(bench, "UINT", 2, start_byte=0)
    expect(bench, "0102", "513")
    expect(bench, "", "0")


def test_the_first_tag_of_a_name_wins(bench):
    """IVL1 is an input here and defined once more in a later file."""
    bench.change(INPUT_TAGS, "IVL1", startByte=0, byteSize=2, dataType="BE_UINT")
    bench.start_to_run()
    assert "Database tag IVL1 exists, not appended" in bench.server.plain_texts()


def test_every_field_of_the_example_image(running):
    """The whole example at once: what the API shows of it, and no complaint about the rest."""
    log = len(running.server.log)
    running.bc.set(bu_state=17, tsaps=3, unarmed_rus=2, eglink_stat_out=4, eclink_status=5, clink_status=6,
                   armed_ru=1001, ru_state=7, drive_mode=5, mains_present=True, oil_low=True, hoist_speed=-1200,
                   load_on_hook=8000, oil_temperature=45.5, slope=-2.5, hook_height=31.25, boom_angle=60.125,
                   slew_position=-70000, trim=-3, valve_offset=-9, guard_chain=True, cylinder_offset=-17,
                   machine_name="Crane 7", diagnostics=b"\1\2\3\4\5\6\7\x08", operating_hours=12345,
                   serial_number=400123)
    running.wait_for(lambda: running.api.tag("RU_STATE") == "7")
    status = running.api.get()
    assert {key: status[key] for key in ("BU_STATE", "TSAPs", "UNARMED_RUs", "EG_LINK_STATUS", "EC_LINK_STATUS",
                                         "C_LINK_STATUS", "ARMED_RU", "RU_STATE")} == {
        "BU_STATE": "17", "TSAPs": "3", "UNARMED_RUs": "2", "EG_LINK_STATUS": "4", "EC_LINK_STATUS": "5",
        "C_LINK_STATUS": "6", "ARMED_RU": "1001", "RU_STATE": "7"}
    assert running.server.logged("Unsupported", log) == running.server.logged("type error", log) == 0


@pytest.mark.parametrize("state, text", [(1, "STOPPED"), (2, "EXTERNAL_LINK_ERROR"), (3, "BLOCKED"), (4, "FAILED"),
                                         (16, "DISARMED"), (17, "ARMED"), (5, "UNKNOWN"), (255, "UNKNOWN")])
def test_base_unit_states_are_logged_by_name(running, state, text):
    running.bc.set(bu_state=state)
    line = running.server.wait_log("BU State changed to")
    assert running.server.log[line - 1].plain == f"BU State changed to {text}"
