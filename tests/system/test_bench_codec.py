"""The bench's own codecs against literal bytes: a mistake shared with the server must not go unseen."""

from tessarobench import crc, internallink as il
from tessarobench.csvfile import Table
from tessarobench.processimage import ProcessImage


def test_crc_of_the_nine_digits():
    assert crc.crc32(b"123456789") == 0x0376E6E7
    assert crc.with_crc(b"123456789") == b"123456789" + bytes.fromhex("0376e6e7")


def test_crc_of_nothing_is_its_start_value():
    assert crc.with_crc(b"") == bytes.fromhex("ffffffff")


def test_one_flipped_bit_is_not_intact():
    assert crc.intact(bytes.fromhex("313233343536373839 0376e6e7"))
    assert not crc.intact(bytes.fromhex("313233343536373839 0376e6e6"))
    assert not crc.intact(b"")


def test_stuffing_escapes_exactly_three_bytes():
    assert il.stuff(b"") == bytes.fromhex("820a")
    assert il.stuff(bytes.fromhex("0a 82 90 10 02 8a")) == bytes.fromhex("82 908a 9002 9010 10 02 8a 0a")


def test_unstuffing_drops_embedded_start_bytes():
    assert il.unstuff(bytes.fromhex("82 41 82 42 0a")) == b"AB"
    assert il.unstuff(bytes.fromhex("82 908a 9002 9010 0a")) == bytes.fromhex("0a8290")


def test_reset_frame_byte_for_byte():
    # 40 = class 1, packet number 0; 64 = service 100; 00 = RESET; the CRC e58e2703 was worked out with another program
    assert il.frame(il.Packet(1, 0, 100, b"\0")) == bytes.fromhex("82 40 64 00 e5 8e 27 03 0a")


def test_packet_header_fields():
    assert il.parse(il.frame(il.Packet(3, 63, 107, b"\x0a\x82\x90"))) == (3, 63, 107, b"\x0a\x82\x90")


def test_a_damaged_frame_is_no_packet():
    assert il.parse(bytes.fromhex("82 40 64 01 e5 8e 27 03 0a")) is None
    assert il.parse(b"\x82\x0a") is None


def test_splitter_takes_bytes_in_any_portions():
    splitter = il.Splitter()
    assert splitter.feed(b"\x82A") == []
    assert splitter.feed(b"B\n\x82C\n\x82") == [b"\x82AB\n", b"\x82C\n"]
    assert splitter.feed(b"\n") == [b"\x82\n"]


def _image(kind, size, start_bit=0, bits=0):
    table = Table(["tag", "startByte", "byteSize", "startBit", "bitSize", "dataType"])
    return ProcessImage(table.set("x", startByte=1, byteSize=size, startBit=start_bit, bitSize=bits, dataType=kind))


def test_image_encodes_every_type():
    def encoded(kind, size, value, *bits):
        return bytes(_image(kind, size, *bits).set("x", value)).hex()

    assert encoded("UINT", 2, 0x1234) == "003412"
    assert encoded("BE_UINT", 2, 0x1234) == "001234"
    assert encoded("INT", 4, -2) == "00feffffff"
    assert encoded("BE_INT", 2, -2) == "00fffe"
    assert encoded("REAL", 4, 1.0) == "000000803f"
    assert encoded("BE_REAL", 8, 1.0) == "003ff0000000000000"
    assert encoded("STRING", 4, "AB") == "0041420000"
    assert encoded("RAW", 3, b"\1\2\3") == "00010203"
    assert encoded("BOOLEAN", 2, True, 9) == "000002"
    assert encoded("BE_BOOLEAN", 2, True, 9) == "000200"
    assert encoded("UINT", 1, 7, 4, 3) == "0070"
    assert encoded("BE_INT", 2, -1, 0, 6) == "00003f"


def test_image_keeps_the_other_bits_of_a_shared_byte():
    table = Table(["tag", "startByte", "byteSize", "startBit", "bitSize", "dataType"])
    table.set("low", startByte=0, byteSize=1, bitSize=4, dataType="UINT")
    table.set("flag", startByte=0, byteSize=1, startBit=7, dataType="BOOLEAN")
    image = ProcessImage(table).set("flag", True).set("low", 5)
    assert bytes(image).hex() == "85"
    assert bytes(image.set("flag", False)).hex() == "05"
