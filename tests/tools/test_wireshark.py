"""tools/wireshark/tessaro.lua, read by tshark: every link is named field by field, both CRCs are judged, answers find
their requests."""
import shutil
import struct
import subprocess
import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "bench"))

from tessarobench.crc import with_crc  # noqa: E402
from tessarobench.pcapng import (FROM_BASE_CONTROLLER, LINKTYPE_ETHERNET, LINKTYPE_USER0, TO_BASE_CONTROLLER,  # noqa: E402
                                 PcapngWriter)

SCRIPT = ROOT / "tools" / "wireshark" / "tessaro.lua"
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

    def rows(self, *fields, display_filter=None):
        """What tshark shows: a list of values per packet."""
        self.stream.flush()
        command = ["tshark", "-X", f"lua_script:{SCRIPT}", "-r", str(self.path), "-T", "fields", "-E", "separator=|",
                   "-E", "occurrence=a"]
        for field in fields:
            command += ["-e", field]
        if display_filter:
            command += ["-Y", display_filter]
        result = subprocess.run(command, capture_output=True, text=True, timeout=60)
        assert result.returncode == 0, result.stderr
        assert "Lua" not in result.stderr, result.stderr
        return [line.split("|") for line in result.stdout.splitlines()]


@pytest.fixture
def capture(tmp_path):
    assert shutil.which("tshark"), "tshark is missing: make tool-test installs it"
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
                    ["INITACK code 1", "", "1", "This RU is not paired", "", ""],
                    ["INITACK ACK", "", "", "", "3", "0.125"]]


def test_frames_cut_by_tcp_are_put_together(capture):
    status = glink(8, 0, struct.pack("<HBBBBBH", 400, 17, 3, 2, 1, 0, 1001))
    for byte in range(0, len(status), 7):
        capture.tcp(BASE, 1147, UNIT, 40000, status[byte:byte + 7])
    capture.tcp(UNIT, 40000, BASE, 1147, glink(8, 1) + glink(0, 0, bytes(4)))
    rows = capture.rows("_ws.col.Info", display_filter="tessaro_glink.id")
    assert rows == [["BASE STATUS state 17 armed 1001"], ["BASE STATUS ACK, HEARTBEAT"]]


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
                    ["<- ACK #11 configuration value 9439874", "3", "9439874", "1"],
                    ["-> TRANSP_ACK #12 process data status: identity 400 units 2", "", "", "1"]]


def test_a_damaged_line_is_marked_and_a_fragment_named(capture):
    damaged = bytearray(stuffed(bytes([0x41, 101]) + b"image"))
    damaged[4] ^= 1
    capture.line(FROM_BASE_CONTROLLER, bytes(damaged))
    capture.line(FROM_BASE_CONTROLLER, b"\x82\x41\x0a")
    rows = capture.rows("_ws.col.Info", "tessaro_link.crc.good")
    assert rows[0][0].endswith(" WRONG CRC") and rows[0][1] == "0"
    assert rows[1] == ["fragment of 3 bytes", ""]


def test_commands_to_the_machine_controller_find_their_acknowledgements(capture):
    command = struct.pack("<HI", 7, 0) + b"go"
    capture.udp((10, 42, 20, 1), 5825, GROUP, 5825, eglink(b"VRCI", 400, 9, command))
    capture.udp(CONTROLLER, 5827, GROUP, 5827, eglink(b"VRAO", 0, 1, struct.pack("<H", 7)))
    capture.udp(CONTROLLER, 5827, GROUP, 5827, eglink(b"VRPO", 0, 2, b"\x01data"))
    wrong = bytearray(eglink(b"VRPO", 0, 3, b"\x00data"))
    wrong[-1] ^= 0x80
    capture.udp(CONTROLLER, 5827, GROUP, 5827, bytes(wrong))
    rows = capture.rows("_ws.col.Info", "tessaro_eglink.request_in", "tessaro_eglink.crc.good", "tessaro_eglink.data")
    assert rows == [["VRCI id 7 serial 9 origin 400", "", "1", "676f"],
                    ["VRAO id 7 serial 1 origin 0", "1", "1", ""],
                    ["VRPO [1] serial 2 origin 0", "", "1", "64617461"],
                    ["VRPO [0] serial 3 origin 0", "", "0", "64617461"]]


def test_requests_of_the_udp_api_are_classified_like_the_server_does(capture):
    capture.udp(LOCAL, 50000, LOCAL, 6250, b"please RESET")
    capture.udp(LOCAL, 6250, LOCAL, 6251, b"NOTIFY")
    capture.udp(LOCAL, 50000, LOCAL, 6250, b"GET, not RESET")
    capture.udp(LOCAL, 6250, LOCAL, 6251, b'{"BU_ID":"400"}')
    rows = capture.rows("_ws.col.Info", "tessaro_api.action", "tessaro_api.request_in")
    assert rows == [["request RESET", "RESET", ""], ["NOTIFY", "", "1"],
                    ["request GET", "GET", ""], ["status, 15 bytes", "", "3"]]


def test_pairing_is_read_across_segments(capture):
    request = text("getApp") + struct.pack(">H", 1003) + text("/home/root/Applications/handheld")
    capture.tcp(UNIT, 41000, BASE, 9123, request[:11])
    capture.tcp(UNIT, 41000, BASE, 9123, request[11:])
    capture.tcp(BASE, 9123, UNIT, 41000, text("app") + text("handheld.tar") + struct.pack(">Q", 10240) + text("0f" * 16))
    capture.tcp(UNIT, 41000, BASE, 9123, text("startTransfer"))
    rows = capture.rows("_ws.col.Info", "tessaro_pairing.remote_id", "tessaro_pairing.size",
                        display_filter="tessaro_pairing.command")
    assert rows == [["getApp unit 1003 /home/root/Applications/handheld", "1003", ""], ["app handheld.tar", "", "10240"],
                    ["startTransfer", "", ""]]
