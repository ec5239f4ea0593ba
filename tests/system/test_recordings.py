"""Recordings are played again: the server answers as it did, and what is different is shown. A capture that cannot be played is
refused with the packet that is to blame."""

import struct
import subprocess
import sys
from pathlib import Path

import pytest

from tessarobench import captureread
from tessarobench.captureread import BadCapture, read
from tessarobench.conversation import Conversation
from tessarobench.pcapng import LINKTYPE_ETHERNET, LINKTYPE_USER0
from tessarobench.replay import Player

REPOSITORY = Path(__file__).resolve().parents[2]
REPLAY = REPOSITORY / "bench" / "replay"
RECORDINGS = sorted((REPOSITORY / "tests" / "recordings").glob("*.pcapng"))
REMOTE_UNIT = REPOSITORY / "tests" / "recordings" / "remote-unit.pcapng"
START = REPOSITORY / "tests" / "recordings" / "start.pcapng"


@pytest.fixture
def played(server_path, virtual_time):
    """Plays a conversation; gives the judge."""
    if virtual_time is None:
        pytest.skip("recordings are compared in virtual time, for which a build with sanitizers has no library")
    return lambda conversation: Player(conversation, server_path, virtual_time).run()


def told(judge):
    return "\n".join(map(str, judge.differences))


@pytest.mark.parametrize("path", RECORDINGS, ids=lambda path: path.stem)
def test_the_server_answers_as_recorded(played, path):
    conversation = Conversation(read(path))
    judge = played(conversation)
    assert not judge.differences, told(judge)
    assert conversation.notes == []
    assert sum(judge.counts.values()) > 0.8 * len(conversation.answers)


def changed(path, pick, change):
    """The conversation of a recording in which the first answer that `pick` chooses is another one."""
    conversation = Conversation(read(path))
    index = next(index for index, answer in enumerate(conversation.answers) if pick(answer))
    conversation.answers[index:index + 1] = change(conversation.answers[index])
    return conversation


@pytest.mark.parametrize("change, told_as", [
    (lambda answer: [answer._replace(value=answer.value[:-1] + b"!", words="recorded otherwise")], "something else is said"),
    (lambda answer: [], "one more than is recorded"),
    (lambda answer: [answer, answer._replace(words="recorded twice")], "it does not come"),
    (lambda answer: [answer._replace(time=answer.time - 0.2)], "later"),
], ids=["otherwise", "too many", "missing", "late"])
@pytest.mark.parametrize("kind", [("UART", "command"), ("GLink, connection 1", "command"), ("EGLink", "VRAI")],
                         ids=["UART", "GLink", "EGLink"])
def test_an_answer_that_is_different_is_shown(played, kind, change, told_as):
    path = REPOSITORY / "tests" / "recordings" / ("machine-controller.pcapng" if kind[0] == "EGLink" else "remote-unit.pcapng")
    judge = played(changed(path, lambda answer: answer.channel[:2] == kind, change))
    assert any(told_as in difference.what and difference.channel[:2] == kind for difference in judge.differences), told(judge)


def test_a_value_of_the_base_units_own_rhythm_has_to_be_one_of_its_moment(played):
    def lies(answer):
        return answer.channel[1] == "base status" and answer.value[2] == 0

    conversation = Conversation(read(REMOTE_UNIT))
    conversation.answers = [answer._replace(value=b"\xff" * len(answer.value)) if lies(answer) else answer
                            for answer in conversation.answers]
    judge = played(conversation)
    assert any(difference.channel[1] == "base status" for difference in judge.differences)


def test_the_first_difference_is_shown_side_by_side(played):
    judge = played(changed(REMOTE_UNIT, lambda answer: answer.channel[1] == "INITACK",
                           lambda answer: [answer._replace(value=b"\1" + answer.value[1:], words="INITACK code=1")]))
    first, *lines = str(judge.differences[0]).splitlines()
    assert first == "DIFFERENT  GLink, connection 1 INITACK: something else is said"
    assert "recorded" in lines[0] and "INITACK code=1" in lines[0] and "(packet " in lines[0]
    assert lines[1].strip().startswith("01 00 ")
    assert "answered" in lines[2] and "INITACK code=0" in lines[2]
    assert lines[3].strip().startswith("00 00 ")


# --- captures of a site --------------------------------------------------------------------------------------------------


def pcap(packets, link_type=LINKTYPE_ETHERNET, order="<", version=(2, 4)):
    """The older format, of (seconds, bytes)."""
    head = struct.pack(order + "IHHIIII", 0xA1B2C3D4, *version, 0, 0, 262144, link_type)
    return head + b"".join(struct.pack(order + "IIII", int(seconds), round(seconds % 1 * 1e6), len(data), len(data)) + data
                           for seconds, data in packets)


def cooked(packet):
    """An Ethernet packet as `tcpdump -i any` writes it."""
    return b"\0\0\0\1\0\6" + packet.data[6:12] + b"\0\0" + packet.data[12:]


@pytest.mark.parametrize("order", ["<", ">"], ids=["little-endian", "big-endian"])
@pytest.mark.parametrize("kind", ["Ethernet", "cooked"])
def test_what_a_board_captured_on_its_networks_is_played(played, tmp_path, kind, order):
    """The internal link is not in it: the bench brings the base unit up."""
    wlan0 = [packet for packet in read(REMOTE_UNIT) if packet.interface == "wlan0"]
    file = tmp_path / "site.pcap"
    is_cooked = kind == "cooked"
    file.write_bytes(pcap([(packet.time, cooked(packet) if is_cooked else packet.data) for packet in wlan0],
                          captureread.LINKTYPE_COOKED if is_cooked else LINKTYPE_ETHERNET, order))
    conversation = Conversation(read(file))
    assert not conversation.has_uart and len(conversation.accepted) == 1
    judge = played(conversation)
    kinds = {difference.channel[1] for difference in judge.differences}
    assert kinds <= {"base status", "command", "periodic data"}, told(judge)  # what comes from the base controller
    assert judge.counts["allowed: another number or time stamp"] + judge.counts["identical"] > 8


def test_bytes_that_are_missing_in_a_capture_are_missing_in_the_play(tmp_path):
    packets = [packet for packet in read(REMOTE_UNIT) if packet.interface == "wlan0"]
    to_base_unit = [packet for packet in packets if captureread.transport(packet) and
                    captureread.transport(packet).target[1] == 1147 and captureread.transport(packet).payload]
    conversation = Conversation(packet for packet in packets if packet is not to_base_unit[2])
    assert len(conversation.notes) == 1
    assert "are missing in the capture" in conversation.notes[0]


# --- what cannot be played -----------------------------------------------------------------------------------------------


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
