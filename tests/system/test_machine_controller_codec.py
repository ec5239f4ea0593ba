"""The bench's codec of the machine controller's link against literal bytes."""

import pytest

from tessarobench import eglink
from tessarobench.eglink import Packet


@pytest.mark.parametrize("packet, raw", [
    (Packet("VRPO", 5, b"\0\xca\xfe"), "5652504f 0000 0000 0500 0300 00000000 00cafe 5bbee7ad"),
    (Packet("VRCO", 1, eglink.command(7, b"\xaa\xbb")),
     "5652434f 0000 0000 0100 0800 00000000 0700 00000000 aabb 326ff92d"),
    (Packet("VRAO", 3, eglink.acknowledgement(0)), "5652414f 0000 0000 0300 0200 00000000 0000 b9184716"),
    (Packet("VRPI", 0xFFFF, b"", 0x1234), "56525049 0000 3412 ffff 0000 00000000 07e6488a"),
    (Packet("VRCI", 1, eglink.command(1, b"\1\2"), 0x1234),
     "56524349 0000 3412 0100 0800 00000000 0100 00000000 0102 b4d0a2f1"),
    (Packet("VRAI", 0, eglink.acknowledgement(0xFFFE), 0x1234), "56524149 0000 3412 0000 0200 00000000 feff 1ded6e65"),
])
def test_packets_byte_for_byte(packet, raw):
    assert packet.pack() == bytes.fromhex(raw)
    assert eglink.parse(bytes.fromhex(raw)) == packet


def test_every_field_can_be_wrong():
    raw = Packet("VRPO", 0x10002, b"\0", origin=0x0304, revision=0x0506, spare=0x0708090A, size=0x0B0C).pack()
    assert raw[:17] == bytes.fromhex("5652504f 0605 0403 0200 0c0b 0a090807 00")


def test_damaged_packets_are_none():
    good = Packet("VRPI", 1, b"data", 400).pack()
    assert eglink.parse(good[:-1]) is None
    assert eglink.parse(good[:17] + b"x" + good[18:]) is None
    assert eglink.parse(b"") is None
    assert eglink.parse(Packet("VRPI", 1, b"data", 400, size=3).pack()) is None


def test_periodic_data_are_cut_after_491_bytes():
    data = bytes(range(256)) * 4
    assert eglink.parts(data) == [b"\0" + data[:491], b"\1" + data[491:982], b"\2" + data[982:]]
    assert eglink.parts(b"") == []
    assert [len(part) for part in eglink.parts(bytes(982))] == [492, 492]


def test_descriptions():
    assert eglink.describe(Packet("VRCI", 4, eglink.command(9, b"up"), 400)) == {
        "id": 9, "command": b"up", "serial": 4, "origin": 400}
    assert eglink.describe(Packet("VRAI", 4, b"\x02\x01", 400))["id"] == 0x0102
    assert eglink.describe(Packet("VRPO", 4, b"\x03abc")) == {"part": 3, "size": 3, "serial": 4, "origin": 0}
    assert eglink.describe(Packet("VRCO", 4, b"\x03"))["payload"] == b"\x03"
