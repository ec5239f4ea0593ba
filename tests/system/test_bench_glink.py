"""The bench's own GLink codec, checksum and ledger against literal values."""

import hashlib

import pytest

from tessarobench import glink
from tessarobench.glink import Frame
from tessarobench.ledger import Ledger

# The CRC bytes were worked out with another program.
FRAMES = {
    "heartbeat": (Frame(glink.HEARTBEAT, bytes(4)),
                  "0400 01 00 00 00000000 00000000 e8e3282c  00000000 00000000"),
    "acknowledgement of a command": (Frame(glink.CMD, b"", glink.ACK, glink.COMMAND_STREAM, 0x11223344),
                                     "0000 00 03 01 44332211 00000000 76290bd2  00000000"),
    "INIT": (Frame(glink.INIT, glink.Init(1, 0, 1001, 400, bytes(range(16))).pack(), time=0x01020304),
             "1600 01 01 00 04030201 00000000 cfd3527d"
             "0100 e903 9001 000102030405060708090a0b0c0d0e0f  e880cd88"),
    "base status": (Frame(glink.BASE_STATUS, bytes.fromhex("9001 11 02 03 04 05 e903")),
                    "0900 01 08 00 00000000 00000000 e371952d  9001 11 02 03 04 05 e903  099a407e"),
}
REFUSAL = ("2a00 01 02 00 00000000 00000000 a56bc70b  0100 54686973205255206973206e6f742070616972656420746f"
           "20746869732042552e 00000000000000  7c7d29ba")


@pytest.mark.parametrize("name", FRAMES)
def test_frames_byte_for_byte(name):
    frame, wire = FRAMES[name]
    assert frame.pack() == bytes.fromhex(wire)
    assert list(glink.Assembler().feed(bytes.fromhex(wire))) == [(frame, bytes.fromhex(wire))]


def test_records_in_payloads():
    (frame, _), = glink.Assembler().feed(bytes.fromhex(REFUSAL))
    assert glink.InitAck.unpack(frame.payload) == (1, "This RU is not paired to this BU.")
    assert glink.BaseStatus.unpack(FRAMES["base status"][0].payload) == (400, 17, 2, 3, 4, 5, 1001)
    assert glink.describe(frame) == {"code": 1, "text": "This RU is not paired to this BU."}


def test_a_command_and_its_acknowledgement_travel_on_stream_0():
    command = glink.message(glink.CMD, b"x")
    assert (command.stream, glink.acknowledgement(command).stream) == (0, 0)
    assert glink.message(glink.PERIODIC_DATA, b"x").stream == 1


def test_frames_are_found_in_any_portions():
    wire = b"".join(bytes.fromhex(wire) for _, wire in FRAMES.values())
    for size in (1, 7, 25, 26, len(wire)):
        assembler, found = glink.Assembler(), []
        for start in range(0, len(wire), size):
            found += [frame for frame, _ in assembler.feed(wire[start:start + size])]
        assert found == [frame for frame, _ in FRAMES.values()]
        assert assembler.waiting == 0


@pytest.mark.parametrize("position", [0, 12, 13, 16, 17, 25, 29])
def test_one_flipped_bit_is_noticed(position):
    wire = bytearray.fromhex(FRAMES["base status"][1])
    wire[position] ^= 0x10
    with pytest.raises(glink.Damaged):
        list(glink.Assembler().feed(bytes(wire)))


# --- the checksum of an application ------------------------------------------------------------------------------------


@pytest.fixture
def application(tmp_path):
    """Three files, whose paths sort differently from the order in which one meets them."""
    for name, text in (("b/one", "B1"), ("b.txt", "BT"), ("a", "A")):
        (tmp_path / name).parent.mkdir(exist_ok=True)
        (tmp_path / name).write_text(text)
    return tmp_path


def test_the_checksum_is_over_contents_in_the_order_of_paths(application):
    assert glink.application_checksum(application) == hashlib.md5(b"A" + b"BT" + b"B1").digest()
    assert glink.application_checksum(application / "nothing").hex() == "d41d8cd98f00b204e9800998ecf8427e"


@pytest.mark.parametrize("name", ["keys.csv", "b/keys.csv", "Thumbs.db", "b/THUMBS.DB", "main.qmlc", "qmlc", ".hidden",
                                  ".git/config", "b/.cache/x"])
def test_what_does_not_count(application, name):
    before = glink.application_checksum(application)
    (application / name).parent.mkdir(exist_ok=True)
    (application / name).write_text("something else")
    assert glink.application_checksum(application) == before


@pytest.mark.parametrize("name", ["Keys.csv", "keys.csv.bak", "main.qml", "thumbs.db.txt", "b/two", "a.qmlc.old"])
def test_what_does_count(application, name):
    before = glink.application_checksum(application)
    (application / name).write_text("something else")
    assert glink.application_checksum(application) != before


# --- the ledger --------------------------------------------------------------------------------------------------------


def test_a_ledger_finds_what_is_missing_doubled_and_overtaken():
    ledger = Ledger(1001)
    entries = [ledger.issue() for _ in range(5)]
    assert entries[0] == bytes.fromhex("e903 01000000")
    for number in (1, 3, 2, 3, 5):
        assert ledger.tick(entries[number - 1] + bytes(10))
    assert not ledger.tick(Ledger(1002).issue()) and not ledger.tick(b"short")
    assert (ledger.missing, ledger.doubled, ledger.overtaken) == ([4], [3], [2])
    assert not ledger.balanced


def test_a_ledger_balances_when_everything_came_once():
    ledger = Ledger(7)
    assert ledger.balanced
    entries = [ledger.issue() for _ in range(3)]
    assert not ledger.balanced
    for entry in reversed(entries):
        ledger.tick(entry)
    assert ledger.balanced and ledger.overtaken == [2, 1]
    ledger.tick((7).to_bytes(2, "little") + (99).to_bytes(4, "little"))
    assert not ledger.balanced, "99 was never issued"
