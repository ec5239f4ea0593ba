"""A capture that cannot be played is refused with the packet that is to blame, and so is whatever else bench/replay cannot use."""

import shutil
import struct
import subprocess
import sys
from pathlib import Path

import pytest

from recordings_support import REMOTE_UNIT, START, pcap
from tessarobench.board import EXAMPLES
from tessarobench.captureread import BadCapture, read
from tessarobench.conversation import Conversation
from tessarobench.csvfile import Table
from tessarobench.installation import APP, controller_group
from tessarobench.pcapng import LINKTYPE_USER0

REPLAY = Path(__file__).resolve().parents[2] / "bench" / "replay"


def raised(tmp_path, raw):
    file = tmp_path / "bad.pcapng"
    file.write_bytes(raw)
    with pytest.raises(BadCapture) as failure:
        Conversation(read(file))
    return str(failure.value)


@pytest.mark.parametrize("size", [0, 3, 20, 200, -1, -40])
def test_a_capture_that_is_cut_off_is_refused_with_the_packet(tmp_path, size):
    raw = START.read_bytes()
    # The statistics at the end are no packets; without them the last block is one.
    message = raised(tmp_path, raw[:size] if size >= 0 else raw[:len(raw) + size])
    assert "packet" in message or "no capture" in message or "cut off" in message, message


def test_every_length_of_a_cut_capture_is_refused_or_played_as_far_as_it_goes(tmp_path):
    raw = START.read_bytes()[:4000]
    for size in range(len(raw)):
        file = tmp_path / "cut.pcapng"
        file.write_bytes(raw[:size])
        try:
            Conversation(read(file))
        except BadCapture as refusal:
            assert str(refusal)


def test_a_packet_of_another_link_type_is_named(tmp_path):
    assert raised(tmp_path, pcap([(1.0, bytes(60))], link_type=105)).startswith("packet 1: link type 105 ")


def test_packets_out_of_order_are_named(tmp_path):
    message = raised(tmp_path, pcap([(1.0, bytes(60)), (3.0, bytes(60)), (2.0, bytes(60))]))
    assert message.startswith("packet 3 is 1.000000 s earlier than packet 2 before it")


def test_a_packet_days_after_the_one_before_is_named(tmp_path):
    """A clock that was set, or damage: nobody could wait for its end."""
    message = raised(tmp_path, pcap([(1.0, bytes(60)), (2.0, bytes(60)), (864_002.0, bytes(60))]))
    assert message.startswith("packet 3 comes 10.0 days after packet 2 before it")


def test_what_is_cut_off_behind_the_last_packet_is_not_called_a_packet(tmp_path):
    last = read(START)[-1].number
    assert raised(tmp_path, START.read_bytes()[:-1]).startswith(f"the block after packet {last}: the file ends within it")
    packet = struct.pack("<III", 6, 64, 0)
    assert raised(tmp_path, START.read_bytes() + packet).startswith(f"packet {last + 1}: the file ends within it")


def test_another_version_of_the_format_is_named(tmp_path):
    raw = bytearray(START.read_bytes())
    raw[12:14] = struct.pack("<H", 2)
    assert raised(tmp_path, bytes(raw)) == "the section at byte 0 is of version 2.0 of pcapng; 1 is known"
    assert raised(tmp_path, pcap([(1.0, bytes(60))], version=(1, 0))) == "the file is of version 1.0 of pcap; 2 is known"


def test_a_packet_that_was_captured_in_part_is_named(tmp_path):
    raw = pcap([(1.0, bytes(60))])
    assert raised(tmp_path, raw[:36] + struct.pack("<I", 90) + raw[40:]).startswith("packet 1: only 60 of its 90 bytes")


def test_a_capture_without_anybody_to_play_is_refused(tmp_path):
    assert "none that anybody sent to a base unit" in raised(tmp_path, pcap([(1.0, bytes(60))]))
    assert raised(tmp_path, pcap([])) == "there is no packet in it"
    assert raised(tmp_path, b"something else") == "the file begins with 73 6f 6d 65: neither pcapng nor pcap"
    assert "without its direction" in raised(tmp_path, pcap([(1.0, b"")], link_type=LINKTYPE_USER0))


@pytest.mark.parametrize("place", range(0, 400, 7))
def test_a_damaged_capture_never_ends_in_a_traceback(tmp_path, place):
    raw = bytearray(START.read_bytes())
    raw[place] ^= 0x41
    file = tmp_path / "damaged.pcapng"
    file.write_bytes(bytes(raw))
    try:
        Conversation(read(file))
    except BadCapture as refusal:
        assert str(refusal)


def test_the_tool_says_why_and_ends_with_2(tmp_path, server_path):
    file = tmp_path / "cut.pcapng"
    file.write_bytes(START.read_bytes()[:700])
    done = subprocess.run([sys.executable, REPLAY, file, "--server", server_path], capture_output=True, text=True, check=False)
    assert done.returncode == 2 and done.stdout == ""
    assert done.stderr.startswith(f"{file}: ") and "packet" in done.stderr and "Traceback" not in done.stderr
    done = subprocess.run([sys.executable, REPLAY, tmp_path / "none", "--server", server_path], capture_output=True, text=True,
                          check=False)
    assert done.returncode == 2 and done.stderr == f"{tmp_path / 'none'}: No such file or directory\n"


def refused(server_path, *options, file=START):
    done = subprocess.run([sys.executable, REPLAY, file, "--server", server_path, *options], capture_output=True, text=True,
                          check=False)
    assert (done.returncode, done.stdout) == (2, "") and "Traceback" not in done.stderr, done.stderr
    return done.stderr


def test_a_server_or_an_installation_that_is_none_is_refused_in_one_line(tmp_path, server_path):
    assert refused(tmp_path) == f"{tmp_path} is no program: nobody can start it.\n"
    assert refused(START) == f"{START} is no program: nobody can start it.\n"
    assert refused(server_path, "--installation", tmp_path) == (
        f"{tmp_path} is no copy of a base unit's Applications: there is no tessaroserver/config/app.csv in it.\n")


def program(folder, text):
    path = folder / "tessaroserver"
    path.write_text(text)
    path.chmod(0o755)
    return path


@pytest.fixture
def site_capture(tmp_path):
    """One that a base unit's tcpdump took, without the internal link."""
    file = tmp_path / "site.pcap"
    file.write_bytes(pcap([(packet.time, packet.data) for packet in read(REMOTE_UNIT) if packet.interface == "wlan0"]))
    return file


def test_a_server_that_does_not_come_up_is_no_difference(tmp_path, site_capture):
    """It ends in order, without a word."""
    server = program(tmp_path, "#!/bin/sh\nexit 3\n")
    message = refused(server, "--real-time")
    assert f"{server} does not come so far that this could be played" in message and "status=3" in message
    message = refused(server, "--real-time", file=site_capture)
    assert f"{server} does not come so far that this could be played: the server ended with 3 before it listened" in message


def test_a_server_for_another_processor_is_no_difference(tmp_path):
    assert "does not come so far that this could be played: [Errno 8] Exec format error" in refused(
        program(tmp_path, "no program"), "--real-time")


def test_a_capture_is_not_overwritten_by_its_own_play(server_path, site_capture):
    before = site_capture.read_bytes()
    assert refused(server_path, "--capture", site_capture, file=site_capture) == (
        f"{site_capture} is the capture to be played, and would be overwritten: name another file.\n")
    assert site_capture.read_bytes() == before


def test_a_capture_without_any_answer_is_refused(tmp_path):
    """Nothing could be different from that."""
    packets = [packet for packet in read(REMOTE_UNIT) if packet.interface == "wlan0" and packet.data[36:38] == b"\x04\x7b"]
    message = raised(tmp_path, pcap([(packet.time, packet.data) for packet in packets]))
    assert message == (f"among {len(packets)} packets there is none that a base unit sent, with which its answers could be "
                       "compared")


def test_a_table_that_is_none_is_named(tmp_path, server_path):
    site = tmp_path / "Applications"
    shutil.copytree(EXAMPLES, site)
    (site / APP).write_bytes(b"\xff\xfe")
    assert refused(server_path, "--installation", site) == f"{site / APP} is no table: it lacks the two lines of its head.\n"


def test_of_a_port_that_is_none_the_base_unit_takes_what_is_left_of_it(tmp_path):
    site = tmp_path / "Applications"
    shutil.copytree(EXAMPLES, site)
    Table.load(site / APP).set("MCPT", value=65536 + 6000).save(site / APP)
    assert controller_group(site)[1] == 6000


def test_what_is_no_file_is_refused():
    done = subprocess.run([sys.executable, REPLAY, "/dev/null", "--server", sys.executable], capture_output=True, text=True,
                          check=False)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr == "/dev/null: this is no ordinary file, and a capture has to be one\n"
