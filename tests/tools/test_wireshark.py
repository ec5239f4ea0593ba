"""tools/wireshark/tessaro.lua, read by tshark: every link is named field by field, both CRCs are judged, answers find
their requests."""
import struct
import subprocess
import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "bench"), str(ROOT / "tests" / "support")]

import tsharkreader  # noqa: E402
from tessarobench.crc import with_crc  # noqa: E402
from tessarobench.pcapng import (FROM_BASE_CONTROLLER, LINKTYPE_ETHERNET, LINKTYPE_USER0, TO_BASE_CONTROLLER,  # noqa: E402
                                 PcapngWriter)

BASE, UNIT, CONTROLLER, GROUP = (192, 168, 32, 1), (192, 168, 32, 10), (10, 42, 20, 2), (239, 255, 42, 20)
LOCAL = (127, 0, 0, 1)


class Capture:
    """Builds a capture packet by packet, an eighth of a second apart."""

    def __init__(self, path):
        self.path = path
        self.stream = path.open("wb")
        self.writer = PcapngWriter(self.stream)
        self.network = self.writer.add_interface("eth0", LINKTYPE_ETHERNET)
        self.uart = self.writer.add_interface("ttymxc0", LINKTYPE_USER0)
        self.time = 1024.0
        self.sequence = {}

    def _write(self, interface, data):
        self.time += 0.125
        self.writer.packet(interface, data, self.time)

    def line(self, direction, frame):
        self._write(self.uart, bytes([direction]) + frame)

    def _ip(self, protocol, source, target, body):
        header = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 20 + len(body), 0, 0, 64, protocol, 0, bytes(source), bytes(target))
        self._write(self.network, b"\2\0\0\0\0\1\2\0\0\0\0\2\x08\0" + header + body)

    def udp(self, source, source_port, target, target_port, data):
        self._ip(17, source, target, struct.pack(">HHHH", source_port, target_port, 8 + len(data), 0) + data)

    def tcp(self, source, source_port, target, target_port, data):
        key = (source, source_port, target, target_port)
        other = (target, target_port, source, source_port)
        sequence = self.sequence.get(key, 1)
        self.sequence[key] = sequence + len(data)
        header = struct.pack(">HHIIBBHHH", source_port, target_port, sequence, self.sequence.get(other, 1), 0x50, 0x18,
                             65535, 0, 0)
        self._ip(6, source, target, header + data)

    def rows(self, *fields, display_filter="", options=()):
        """What tshark shows: a list of values per packet, several of one field with a comma between."""
        self.stream.flush()
        return [[",".join(row[field]) for field in fields]
                for row in tsharkreader.read(self.path, *fields, display_filter=display_filter, options=options)]


@pytest.fixture
def capture(tmp_path):
    return Capture(tmp_path / "capture.pcapng")


def glink(message, kind, payload=b"", stream=1):
    header = with_crc(struct.pack("<HBBBII", len(payload), stream, message, kind, 0, 0))
    return with_crc(header + payload)


def stuffed(packet):
    body = b"".join(bytes([0x90, byte ^ 0x80]) if byte in (0x82, 0x0A, 0x90) else bytes([byte])
                    for byte in with_crc(packet))
    return b"\x82" + body + b"\x0a"


def eglink(kind, origin, serial, payload):
    return with_crc(kind + struct.pack("<HHHHI", 0, origin, serial, len(payload), 0) + payload)


def text(value):
    data = value.encode("utf-16-be")
    return struct.pack(">I", len(data)) + data


def test_a_join_over_tcp_is_told_field_by_field(capture):
    init = struct.pack("<BBHH", 1, 2, 1001, 400) + bytes(range(16))
    capture.tcp(UNIT, 40000, BASE, 1147, glink(1, 0, init))
    capture.tcp(BASE, 1147, UNIT, 40000, glink(1, 1))
    capture.tcp(BASE, 1147, UNIT, 40000, glink(2, 0, struct.pack("<H", 1) + b"This RU is not paired".ljust(40, b"\0")))
    capture.tcp(UNIT, 40000, BASE, 1147, glink(2, 1))
    rows = capture.rows("_ws.col.Info", "tessaro_glink.remote_id", "tessaro_glink.error", "tessaro_glink.error_text",
                        "tessaro_glink.request_in", "tessaro_glink.response_time")
    assert rows == [["INIT unit 1001 base 400", "1001", "", "", "", ""],
                    ["INIT ACK", "", "", "", "1", "0.125"],
                    ["INITACK code 1: This RU is not paired", "", "1", "This RU is not paired", "", ""],
                    ["INITACK ACK", "", "", "", "3", "0.125"]]


def test_frames_cut_by_tcp_are_put_together(capture):
    status = glink(8, 0, struct.pack("<HBBBBBH", 400, 17, 3, 2, 1, 0, 1001))
    for byte in range(0, len(status), 7):
        capture.tcp(BASE, 1147, UNIT, 40000, status[byte:byte + 7])
    capture.tcp(UNIT, 40000, BASE, 1147, glink(8, 1) + glink(0, 0, bytes(4)))
    rows = capture.rows("_ws.col.Info", display_filter="tessaro_glink.id")
    assert rows == [["BASE STATUS ARMED by unit 1001"], ["BASE STATUS ACK, HEARTBEAT"]]


@pytest.mark.parametrize("position, header_good, message_good", [(5, "0", "0"), (14, "0", "0"), (18, "1", "0"), (-1, "1", "0")])
def test_a_wrong_crc_is_marked(capture, position, header_good, message_good):
    frame = bytearray(glink(3, 0, b"command", stream=0))
    frame[position] ^= 1
    capture.tcp(UNIT, 40000, BASE, 1147, bytes(frame))
    assert capture.rows("tessaro_glink.header_crc.good", "tessaro_glink.crc.good") == [[header_good, message_good]]
    assert len(capture.rows("frame.number", display_filter="tessaro_glink.bad_crc")) == 1


def test_the_internal_link_is_unstuffed_and_answers_find_their_requests(capture):
    capture.line(TO_BASE_CONTROLLER, stuffed(bytes([0x40 | 10, 100, 0])))
    capture.line(FROM_BASE_CONTROLLER, stuffed(bytes([0xC0 | 10, 100])))
    capture.line(TO_BASE_CONTROLLER, stuffed(bytes([0x80 | 11, 102]) + b"BCSR"))
    capture.line(FROM_BASE_CONTROLLER, stuffed(bytes([0xC0 | 11, 102]) + bytes([0x82, 0x0A, 0x90, 0])))
    capture.line(TO_BASE_CONTROLLER, stuffed(bytes([0x40 | 12, 101, 0x90, 0x01, 2, 3])))
    rows = capture.rows("_ws.col.Info", "tessaro_link.request_in", "tessaro_link.value", "tessaro_link.crc.good")
    assert rows == [["-> TRANSP_ACK #10 system event RESET", "", "", "1"],
                    ["<- ACK #10 system event", "1", "", "1"],
                    ["-> SERVICE_ACK #11 configuration key BCSR", "", "", "1"],
                    ["<- ACK #11 configuration BCSR = 9439874", "3", "9439874", "1"],
                    ["-> TRANSP_ACK #12 process data status: identity 400 units 2 machine controller LINK_ERROR", "", "", "1"]]


def test_a_damaged_line_is_marked_and_a_fragment_named(capture):
    damaged = bytearray(stuffed(bytes([0x41, 101]) + b"image"))
    damaged[4] ^= 1
    capture.line(FROM_BASE_CONTROLLER, bytes(damaged))
    capture.line(FROM_BASE_CONTROLLER, b"\x82\x41\x0a")
    rows = capture.rows("_ws.col.Info", "tessaro_link.crc.good")
    assert rows[0][0].endswith(" WRONG CRC") and rows[0][1] == "0"
    assert rows[1] == ["fragment of 3 bytes", ""]
    assert capture.rows("frame.number", display_filter="tessaro_link.bad_crc") == [["1"]]
    assert capture.rows("frame.number", display_filter="tessaro_link.malformed") == [["2"]]


def test_commands_to_the_machine_controller_find_their_acknowledgements(capture):
    command = struct.pack("<HI", 7, 0) + b"go"
    capture.udp((10, 42, 20, 1), 5825, GROUP, 5825, eglink(b"VRCI", 400, 9, command))
    capture.udp(CONTROLLER, 5827, GROUP, 5827, eglink(b"VRAO", 0, 1, struct.pack("<H", 7)))
    capture.udp(CONTROLLER, 5827, GROUP, 5827, eglink(b"VRPO", 0, 2, b"\x01data"))
    wrong = bytearray(eglink(b"VRPO", 0, 3, b"\x00data"))
    wrong[-1] ^= 0x80
    capture.udp(CONTROLLER, 5827, GROUP, 5827, bytes(wrong))
    rows = capture.rows("_ws.col.Info", "tessaro_eglink.request_in", "tessaro_eglink.crc.good", "tessaro_eglink.data")
    assert rows == [['VRCI id 7 serial 9 origin 400 "go"', "", "1", "676f"],
                    ["VRAO id 7 serial 1 origin 0", "1", "1", ""],
                    ['VRPO [1] serial 2 origin 0 "data"', "", "1", "64617461"],
                    ['VRPO [0] serial 3 origin 0 "data" WRONG CRC', "", "0", "64617461"]]


def test_requests_of_the_udp_api_are_classified_like_the_server_does(capture):
    capture.udp(LOCAL, 50000, LOCAL, 6250, b"please RESET")
    capture.udp(LOCAL, 6250, LOCAL, 6251, b"NOTIFY")
    capture.udp(LOCAL, 50000, LOCAL, 6250, b"GET, not RESET")
    capture.udp(LOCAL, 6250, LOCAL, 6251, b'{"BU_ID":"400"}')
    rows = capture.rows("_ws.col.Info", "tessaro_api.action", "tessaro_api.request_in")
    assert rows == [["request RESET", "RESET", ""], ["NOTIFY", "", "1"],
                    ["request GET", "GET", ""], ["status BU_ID=400", "", "3"]]


def test_pairing_is_read_across_segments(capture):
    request = text("getApp") + struct.pack(">H", 1003) + text("/home/root/Applications/handheld")
    capture.tcp(UNIT, 41000, BASE, 9123, request[:11])
    capture.tcp(UNIT, 41000, BASE, 9123, request[11:])
    capture.tcp(BASE, 9123, UNIT, 41000, text("app") + text("handheld.tar") + struct.pack(">Q", 10240) + text("0f" * 16))
    capture.tcp(UNIT, 41000, BASE, 9123, text("startTransfer"))
    rows = capture.rows("_ws.col.Info", "tessaro_pairing.remote_id", "tessaro_pairing.size",
                        display_filter="tessaro_pairing.command")
    assert rows == [["getApp unit 1003 /home/root/Applications/handheld", "1003", ""], ["app handheld.tar, 10240 bytes", "", "10240"],
                    ["startTransfer", "", ""]]


# --- what belongs together ---------------------------------------------------------------------------------------------


def block(unit, remaining, data, number, direction_class=0x40):
    return stuffed(bytes([direction_class | number, 105]) + struct.pack("<HH", unit, remaining) + data)


def test_a_repeated_packet_is_marked_and_answered_once(capture):
    """The time counts from the first transmission; a second acknowledgement answers nothing."""
    for _ in range(2):
        capture.line(TO_BASE_CONTROLLER, stuffed(bytes([0x40 | 5, 100, 0])))
    for _ in range(2):
        capture.line(FROM_BASE_CONTROLLER, stuffed(bytes([0xC0 | 5, 100])))
    capture.line(TO_BASE_CONTROLLER, stuffed(bytes([0x40 | 6, 100, 0])))
    rows = capture.rows("_ws.col.Info", "tessaro_link.repeats", "tessaro_link.request_in", "tessaro_link.response_time",
                        "tessaro_link.unasked")
    assert [row[1:4] for row in rows] == [["", "", ""], ["1", "", ""], ["", "1", "0.25"], ["", "", ""], ["", "", ""]]
    assert rows[1][0] == "-> TRANSP_ACK #5 system event RESET (again)"
    assert [bool(row[4]) for row in rows] == [False, False, False, True, False]


def test_a_request_shows_its_answer_once_all_packets_are_known(capture):
    capture.line(TO_BASE_CONTROLLER, stuffed(bytes([0x80 | 11, 102]) + b"SID1"))
    capture.line(FROM_BASE_CONTROLLER, stuffed(bytes([0xC0 | 11, 102]) + b"TZ40"))
    rows = capture.rows("_ws.col.Info", "tessaro_link.request_in", "tessaro_link.response_in", options=["-2"])
    assert rows == [["-> SERVICE_ACK #11 configuration key SID1", "", "2"],
                    ['<- ACK #11 configuration SID1 = "TZ40"', "1", ""]]


def test_fallback_messages_are_put_together_and_read(capture):
    """A message in two blocks, the first of which is repeated, between two blocks for another unit."""
    init = glink(1, 0, struct.pack("<BBHH", 1, 2, 1001, 400) + bytes(16))
    command = glink(3, 0, b"x" * 260, stream=0)
    capture.line(FROM_BASE_CONTROLLER, block(1001, len(init), init, 1))
    capture.line(FROM_BASE_CONTROLLER, block(1001, len(command), command[:250], 2))
    capture.line(TO_BASE_CONTROLLER, block(1002, 21, glink(0, 1), 1))
    capture.line(FROM_BASE_CONTROLLER, block(1001, len(command), command[:250], 2))
    capture.line(FROM_BASE_CONTROLLER, block(1001, len(command) - 250, command[250:], 3))
    capture.line(TO_BASE_CONTROLLER, block(1001, 21, glink(3, 1, stream=0), 2))
    rows = capture.rows("_ws.col.Info", "tessaro_glink.unit", "tessaro_glink.crc.good", "tessaro_glink.request_in")
    assert rows == [["<- TRANSP_ACK #1 fallback unit 1001: INIT unit 1001 base 400", "1001", "1", ""],
                    ["<- TRANSP_ACK #2 fallback unit 1001, 250 of 281 bytes", "", "", ""],
                    ["-> TRANSP_ACK #1 fallback unit 1002: HEARTBEAT ACK", "1002", "1", ""],
                    ["<- TRANSP_ACK #2 fallback unit 1001, 250 of 281 bytes (again)", "", "", ""],
                    [f'<- TRANSP_ACK #3 fallback unit 1001, last 31 bytes: CMD "{"x" * 260}"', "1001", "1", ""],
                    ["-> TRANSP_ACK #2 fallback unit 1001: CMD ACK", "1001", "1", "5"]]


def test_an_abandoned_fallback_message_does_not_spoil_the_next(capture):
    capture.line(TO_BASE_CONTROLLER, block(1001, 281, bytes(250), 1))
    capture.line(TO_BASE_CONTROLLER, block(1001, 21, glink(3, 1), 2))
    rows = capture.rows("_ws.col.Info", "tessaro_glink.crc.good")
    assert rows[1] == ["-> TRANSP_ACK #2 fallback unit 1001: CMD ACK", "1"]


def test_several_units_on_one_address_are_told_apart(capture):
    for port, unit in ((40000, 1001), (40001, 1002)):
        capture.tcp(UNIT, port, BASE, 1147, glink(1, 0, struct.pack("<BBHH", 1, 2, unit, 400) + bytes(16)))
    capture.tcp(BASE, 1147, UNIT, 40000, glink(3, 0, b"lights on", stream=0))
    capture.tcp(UNIT, 40001, BASE, 1147, glink(7, 0))
    rows = capture.rows("_ws.col.Info", "tessaro_glink.unit")
    assert rows[2:] == [['CMD "lights on"', "1001"], ["E STOP", "1002"]]


def test_each_message_of_a_burst_finds_its_acknowledgement(capture):
    capture.tcp(UNIT, 40000, BASE, 1147, glink(4, 0, b"one") + glink(4, 0, b"two"))
    capture.tcp(UNIT, 40000, BASE, 1147, glink(4, 0, b"three"))
    capture.tcp(BASE, 1147, UNIT, 40000, glink(4, 1) + glink(4, 1) + glink(4, 1) + glink(4, 1))
    rows = capture.rows("_ws.col.Info", "tessaro_glink.request_in")
    assert rows[0][0] == 'PERIODIC DATA "one", PERIODIC DATA "two"'
    assert rows[2][1] == "1,1,2"
    assert capture.rows("frame.number", display_filter="tessaro_glink.unasked") == [["3"]]


def test_rubbish_in_a_stream_is_marked_and_swallows_nothing(capture):
    """Its first two bytes promise 65535 more."""
    capture.tcp(UNIT, 40000, BASE, 1147, b"\xff" * 30)
    capture.tcp(UNIT, 40000, BASE, 1147, glink(0, 0, bytes(4)))
    rows = capture.rows("_ws.col.Info", "tessaro_glink.id")
    assert rows == [["30 bytes of no frame, WRONG CRC", ""], ["HEARTBEAT", "0"]]
    assert capture.rows("frame.number", display_filter="tessaro_glink.bad_crc") == [["1"]]


def test_the_end_of_one_frame_and_the_next_share_a_line(capture):
    """TCP gives the first one put together and the second one as it stands: two calls for one packet."""
    first, second = glink(3, 0, b"hoist up", stream=0), glink(0, 0, bytes(4))
    capture.tcp(UNIT, 40000, BASE, 1147, first[:20])
    capture.tcp(UNIT, 40000, BASE, 1147, first[20:] + second)
    assert capture.rows("_ws.col.Info", display_filter="tessaro_glink.id") == [['CMD "hoist up", HEARTBEAT']]


def test_repeated_commands_and_parts_are_marked(capture):
    command = eglink(b"VRCI", 400, 9, struct.pack("<HI", 7, 0) + b"go")
    for _ in range(3):
        capture.udp((10, 42, 20, 1), 5825, GROUP, 5825, command)
    capture.udp(CONTROLLER, 5827, GROUP, 5827, eglink(b"VRAO", 0, 1, struct.pack("<H", 7)))
    for serial, part in ((2, 0), (2, 1), (2, 0), (3, 0)):
        capture.udp(CONTROLLER, 5827, GROUP, 5827, eglink(b"VRPO", 0, serial, bytes([part]) + b"data"))
    rows = capture.rows("tessaro_eglink.repeats", "tessaro_eglink.request_in", "tessaro_eglink.response_time")
    assert rows == [["", "", ""], ["1", "", ""], ["1", "", ""], ["", "1", "0.375"], ["", "", ""], ["", "", ""], ["5", "", ""],
                    ["", "", ""]]


@pytest.mark.parametrize("datagram, info", [(b"VRPO", "fragment of 4 bytes"),
                                            (eglink(b"WHAT", 0, 1, b""), "WHAT serial 1 origin 0"),
                                            (with_crc(eglink(b"VRAI", 0, 1, b"12")[:-4] + b"34"), None)])
def test_datagrams_that_are_no_packets_are_marked(capture, datagram, info):
    capture.udp(CONTROLLER, 5827, GROUP, 5827, datagram)
    rows = capture.rows("_ws.col.Info", display_filter="tessaro_eglink.malformed")
    assert len(rows) == 1 and info in (None, rows[0][0])


def test_status_pushes_are_told_from_answers_and_changes_named(capture):
    capture.udp(LOCAL, 6250, LOCAL, 6251, b'{"BU_ID":"400","BU_STATE":"16"}')
    capture.udp(LOCAL, 6250, LOCAL, 6251, b'{"BU_ID":"400","BU_STATE":"17"}')
    capture.udp(LOCAL, 50000, LOCAL, 6250, b"GET")
    capture.udp(LOCAL, 6250, LOCAL, 6251, b'{"BU_ID":"400","BU_STATE":"17"}')
    rows = capture.rows("_ws.col.Info", "tessaro_api.member", "tessaro_api.pushed")
    assert rows[1:] == [["status push BU_STATE=ARMED", "BU_ID = 400,BU_STATE = 17", "1"], ["request GET", "", ""],
                        ["status unchanged", "BU_ID = 400,BU_STATE = 17", "0"]]


def test_a_pairing_message_is_shown_when_it_is_whole_and_rubbish_at_once(capture):
    answer = text("appList") + struct.pack(">II", 1, 1) + text("target") + text("ru")
    for start in range(0, len(answer), 9):
        capture.tcp(BASE, 9123, UNIT, 41000, answer[start:start + 9])
    capture.tcp(UNIT, 41000, BASE, 9123, struct.pack(">I", 3) + b"odd")
    rows = capture.rows("_ws.col.Info", "tessaro_pairing.entry", display_filter="tessaro_pairing")
    assert [row for row in rows if row[1]] == [["appList of 1", "1: target = ru"]]
    assert rows[-1] == ["7 bytes of no message", ""]


def test_a_line_that_the_base_unit_cannot_read_in_one_piece_is_marked(capture):
    capture.line(FROM_BASE_CONTROLLER, stuffed(bytes([0x41, 101]) + bytes(505)))
    capture.line(FROM_BASE_CONTROLLER, stuffed(bytes([0x42, 101]) + bytes(504)))
    assert capture.rows("frame.number", display_filter="tessaro_link.malformed") == [["1"]]


def test_the_class_that_must_never_be_sent_is_marked(capture):
    capture.line(FROM_BASE_CONTROLLER, stuffed(bytes([0x01, 100, 0])))
    assert capture.rows("frame.number", display_filter="tessaro_link.malformed") == [["1"]]


def test_the_packed_dissectors_are_one_file_that_shows_the_same(capture, tmp_path, monkeypatch):
    capture.udp(LOCAL, 50000, LOCAL, 6250, b"GET")
    capture.udp(LOCAL, 6250, LOCAL, 6251, b'{"BU_ID":"400"}')
    capture.line(TO_BASE_CONTROLLER, stuffed(b"\x41\x64\0"))
    capture.tcp(UNIT, 40000, BASE, 1147, glink(3, 0, b"command"))
    shown = capture.rows("_ws.col.Protocol", "_ws.col.Info")
    packed = tmp_path / "alone" / "tessaro.lua"
    packed.parent.mkdir()
    subprocess.run([tsharkreader.SCRIPT.parent / "pack", packed], check=True, timeout=120)
    monkeypatch.setattr(tsharkreader, "SCRIPT", packed)
    assert capture.rows("_ws.col.Protocol", "_ws.col.Info") == shown
    assert all("Tessaro" in protocol or protocol in ("GLink", "Internal link") for protocol, _ in shown)
