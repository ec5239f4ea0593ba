"""Recordings are played again: the server answers as it did, and what is different is shown."""

import shutil
import struct

import pytest

from recordings_support import RECORDINGS, REMOTE_UNIT, START, pcap
from tessarobench import captureread, glink, internallink as il
from tessarobench.answers import API, END, Answer
from tessarobench.board import EXAMPLES
from tessarobench.capturefile import CaptureFile
from tessarobench.captureread import read
from tessarobench.conversation import Conversation
from tessarobench.csvfile import Table
from tessarobench.farsides import FarSides
from tessarobench.installation import APP, UNIT_APPLICATION, controller_group
from tessarobench.judge import NOT_JUDGED
from tessarobench.loop import WaitTimeout
from tessarobench.pcapng import LINKTYPE_ETHERNET
from tessarobench.replay import EXIT, Player
from tessarobench.timeline import FINISH, OPEN


@pytest.fixture
def played(server_path, virtual_time):
    """Plays a conversation; gives the judge."""
    if virtual_time is None:
        pytest.skip("recordings are compared in virtual time, for which a build with sanitizers has no library")
    return lambda conversation: Player(conversation, server_path, virtual_time).run()


def told(judge):
    return "\n".join(map(str, judge.differences))


@pytest.mark.parametrize("path", sorted(RECORDINGS.glob("*.pcapng")), ids=lambda path: path.stem)
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
    path = RECORDINGS / ("machine-controller.pcapng" if kind[0] == "EGLink" else "remote-unit.pcapng")
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


def cooked(packet):
    """An Ethernet packet as an older `tcpdump -i any` writes it."""
    return b"\0\0\0\1\0\6" + packet.data[6:12] + b"\0\0" + packet.data[12:]


def cooked_2(packet):
    """The same as a newer one does."""
    return packet.data[12:14] + b"\0\0\0\0\0\3\0\1\0\6" + packet.data[6:12] + b"\0\0" + packet.data[14:]


BOARDS = {"Ethernet": (LINKTYPE_ETHERNET, lambda packet: packet.data), "cooked": (captureread.LINKTYPE_COOKED, cooked),
          "cooked 2": (captureread.LINKTYPE_COOKED_2, cooked_2)}


@pytest.mark.parametrize("order", ["<", ">"], ids=["little-endian", "big-endian"])
@pytest.mark.parametrize("kind", BOARDS)
def test_what_a_board_captured_on_its_networks_is_played(played, tmp_path, kind, order):
    """The internal link is not in it: the bench brings the base unit up."""
    wlan0 = [packet for packet in read(REMOTE_UNIT) if packet.interface == "wlan0"]
    file = tmp_path / "site.pcap"
    link_type, as_captured = BOARDS[kind]
    file.write_bytes(pcap([(packet.time, as_captured(packet)) for packet in wlan0], link_type, order))
    conversation = Conversation(read(file))
    assert not conversation.has_uart and len(conversation.accepted) == 1
    judge = played(conversation)
    assert not judge.differences, told(judge)
    assert judge.counts["allowed: another number or time stamp"] + judge.counts["identical"] > 6


@pytest.mark.parametrize("name", ["machine-stop", "silent-controller"])
def test_what_follows_from_the_base_controller_is_not_judged_without_its_words(played, name):
    """States, images and commands come over the UART, on which nobody on a board can capture."""
    path = RECORDINGS / f"{name}.pcapng"
    conversation = Conversation(packet for packet in read(path) if packet.interface in ("eth0", "wlan0"))
    judge = played(conversation)
    assert not judge.differences, told(judge)
    assert judge.counts[NOT_JUDGED] > 5 and judge.counts["identical"] > 5
    conversation.answers = [answer._replace(value=answer.value + b"!") if answer.channel[1] == "INITACK" else answer
                            for answer in conversation.answers]
    assert [difference.channel[1] for difference in played(conversation).differences] == ["INITACK"]


def test_a_site_with_its_machine_controller_elsewhere_is_played(server_path, virtual_time, tmp_path):
    """The port is part of its configuration."""
    if virtual_time is None:
        pytest.skip("recordings are compared in virtual time")
    site = tmp_path / "Applications"
    shutil.copytree(EXAMPLES, site)
    Table.load(site / APP).set("MCPT", value=6000).set("MCIP", value="239.255.42.21").save(site / APP)
    assert controller_group(site) == ("239.255.42.21", 6000)

    def elsewhere(packet):
        ports = packet.data[34:38].replace(struct.pack(">H", 5825), struct.pack(">H", 6000)).replace(
            struct.pack(">H", 5827), struct.pack(">H", 6002))
        return packet._replace(data=packet.data[:34] + ports + packet.data[38:]) if packet.interface == "eth0" else packet

    recording = read(RECORDINGS / "machine-controller.pcapng")
    conversation = Conversation(map(elsewhere, recording), controller_group(site)[1])
    judge = Player(conversation, server_path, virtual_time, site).run()
    assert not judge.differences, told(judge)
    assert any(answer.channel == ("EGLink", "VRAI") for answer in conversation.answers)


def test_what_is_played_can_be_captured_and_played_again(server_path, virtual_time, tmp_path):
    if virtual_time is None:
        pytest.skip("recordings are compared in virtual time")
    file = CaptureFile(tmp_path / "again.pcapng")
    assert not Player(Conversation(read(REMOTE_UNIT)), server_path, virtual_time, capture=file).run().differences
    conversation = Conversation(read(tmp_path / "again.pcapng"))
    assert conversation.begins_at_start and len(conversation.accepted) == 1
    judge = Player(conversation, server_path, virtual_time).run()
    assert not judge.differences, told(judge)


def test_a_connection_that_ends_with_the_recording_is_no_difference(played):
    """A server that is ended at last takes its connections with it; here it runs on."""
    conversation = Conversation(read(REMOTE_UNIT))
    recorded, last = conversation.answers, max(answer.time for answer in conversation.answers)
    one_more = Answer(last + 0.01, 0, ("GLink, connection 1", END), b"", None, "the connection's end")
    conversation.answers = [*recorded, one_more]
    assert not played(conversation).differences
    conversation.answers = [*recorded, one_more._replace(time=last - 0.5)]
    assert [difference.what for difference in played(conversation).differences] == ["it does not come"]


def test_a_unit_that_is_paired_in_the_recording_is_a_stranger_before():
    def verdict(packet, code):
        """The answer to the unit's INIT, with another code."""
        raw = glink.Frame(glink.INITACK, code.to_bytes(2, "little") + bytes(40), glink.MESSAGE, glink.DATA_STREAM, 0).pack()
        return packet._replace(data=packet.data[:-len(raw)] + raw)

    packets = [packet for packet in read(REMOTE_UNIT) if packet.interface == "wlan0"]
    initack = next(packet for packet in packets if packet.number == 34)
    refused = [verdict(packet, glink.NOT_PAIRED) if packet is initack else packet for packet in packets]
    later = [packet._replace(time=packet.time + 10) for packet in packets]
    assert Conversation(packets).paired_here == set()
    assert Conversation(refused + later).paired_here == {1001}


@pytest.mark.parametrize("name, after", [("machine-controller", 0.5), ("settings", 0.1)])
def test_a_capture_that_begins_in_the_middle_is_played(played, name, after):
    """The bench's base controller brings the base unit up, and the recorded one goes on."""
    packets = read(RECORDINGS / f"{name}.pcapng")
    conversation = Conversation(packet for packet in packets if packet.time > packets[0].time + after)
    assert conversation.has_uart and not conversation.begins_at_start
    judge = played(conversation)
    assert not judge.differences, told(judge)
    assert sum(judge.counts.values()) >= 5


def on_the_way(towards_base_unit):
    """The packets of the networks in a recording, and those of them that carry bytes of a unit's connection."""
    packets = [packet for packet in read(REMOTE_UNIT) if packet.interface == "wlan0"]
    segments = [captureread.transport(packet) for packet in packets]
    return packets, [segment.packet for segment in segments if segment and segment.payload and
                     (segment.target if towards_base_unit else segment.source)[1] == 1147]


def test_bytes_that_are_missing_in_a_capture_are_missing_in_the_play():
    """The base unit has acknowledged them, so what comes behind them is not held up."""
    packets, to_base_unit = on_the_way(True)
    conversation = Conversation(packet for packet in packets if packet is not to_base_unit[2])
    assert conversation.notes == [f"packet {to_base_unit[2].number + 1}: before it 26 bytes of GLink, connection 1 towards the base "
                                  "unit are missing in the capture, and are missing here"]
    whole, others = ([(move.time, move.data) for move in each.moves if move.data] for each in (Conversation(packets), conversation))
    assert others == whole[:2] + whole[3:]


def test_what_follows_the_last_hole_is_played_although_the_connection_does_not_end():
    packets, to_base_unit = on_the_way(True)
    until = packets.index(to_base_unit[-1]) + 1
    conversation = Conversation(packet for packet in packets[:until] if packet is not to_base_unit[-2])
    assert conversation.moves[-1].data and conversation.moves[-1].packet == to_base_unit[-1].number


def test_answers_that_are_missing_in_a_capture_are_noted():
    packets, from_base_unit = on_the_way(False)
    conversation = Conversation(packet for packet in packets if packet is not from_base_unit[3])
    assert conversation.notes == [f"packet {from_base_unit[4].number + 1}: before it 21 bytes of GLink, connection 1 from the base "
                                  "unit are missing in the capture, and come in addition here"]
    assert conversation.answers[-1].packet >= from_base_unit[-1].number


def test_a_number_that_acknowledges_the_end_of_a_connection_is_no_missing_byte():
    assert all(Conversation(read(path)).notes == [] for path in RECORDINGS.glob("*.pcapng"))


def test_connections_between_the_same_ends_are_one_after_the_other():
    packets = [packet for packet in read(REMOTE_UNIT) if packet.interface == "wlan0"]
    again = [packet._replace(time=packet.time + 10 * turn) for turn in range(3) for packet in packets]
    conversation = Conversation(again)
    names = [f"GLink, connection {number}" for number in (1, 2, 3)]
    assert [move.link for move in conversation.moves if move.what == OPEN] == names
    assert list(conversation.ports) == names


def test_a_server_that_ends_is_different(played, monkeypatch):
    """Although it has answered all that is recorded."""
    def end(player):
        player._bench.server.kill()  # pylint: disable=protected-access

    monkeypatch.setattr(Player, "_wait_for_end", lambda player, wait=Player._wait_for_end: (wait(player), end(player)))
    judge = played(Conversation(read(START)))
    assert [(difference.channel, difference.answered.words) for difference in judge.differences] == [(EXIT, "it ends with status -9")]


@pytest.mark.real_time("a busy computer answers late, and as late as that may be it is waited for")
def test_what_comes_late_at_the_end_of_the_recording_is_awaited(server_path, monkeypatch):
    def late(far, move, act=FarSides.act):
        far._bench.loop.later(0.2, lambda: act(far, move))  # pylint: disable=protected-access

    packets = [packet for packet in read(REMOTE_UNIT) if packet.interface == "wlan0"]
    initack = next(answer.packet for answer in Conversation(packets).answers if answer.channel[1] == "INITACK")
    monkeypatch.setattr(FarSides, "act", late)
    judge = Player(Conversation(packet for packet in packets if packet.number <= initack), server_path, None).run()
    assert not judge.differences, told(judge)
    assert judge.counts["allowed: another number or time stamp"] == 2  # the acknowledgement and the verdict


@pytest.mark.parametrize("number", [25, 34, 40, 60, 80])
def test_a_capture_that_ends_anywhere_is_played(played, number):
    """Between a question and its answer, too."""
    judge = played(Conversation(packet for packet in read(REMOTE_UNIT) if packet.number <= number))
    assert not judge.differences, told(judge)


def test_a_unit_that_is_gone_at_once_has_said_all_the_same_what_it_said(played):
    """It connects, introduces itself and ends the connection within one moment. The answer to its introduction is another thread's,
    which may or may not come before the end; that it was heard, the acknowledgement tells."""
    conversation = Conversation(packet for packet in read(REMOTE_UNIT) if packet.interface == "wlan0")
    opened, init = conversation.moves[:2]
    conversation.moves = [move._replace(time=opened.time, after=None) for move in (opened, init, init._replace(what=FINISH))]
    judge = played(conversation)
    assert judge.counts["allowed: another number or time stamp"] >= 1, told(judge)
    assert "ack of INIT" not in {difference.channel[1] for difference in judge.differences}


@pytest.mark.parametrize("name, cut", [("remote-unit", 0), ("remote-unit", 25), ("fallback", 0)])
def test_units_show_the_application_that_is_installed_here(server_path, virtual_time, tmp_path, name, cut):
    """However their introduction was cut, and by whichever way it comes."""
    if virtual_time is None:
        pytest.skip("recordings are compared in virtual time")
    site = tmp_path / "Applications"
    shutil.copytree(EXAMPLES, site)
    (site / UNIT_APPLICATION / "more.qml").write_text("of a later version\n")
    conversation = Conversation(read(REMOTE_UNIT.with_name(f"{name}.pcapng")))
    place = next(place for place, move in enumerate(conversation.moves) if move.link == "GLink, connection 1" and move.data)
    init = conversation.moves[place]
    conversation.moves[place:place + 1] = [init._replace(data=part) for part in (init.data[:cut], init.data[cut:]) if part]
    judge = Player(conversation, server_path, virtual_time, site).run()
    assert not judge.differences, told(judge)


def test_a_connection_that_nobody_answered_is_judged_without_the_internal_link_too(played):
    """Here it is answered."""
    conversation = Conversation(packet for packet in read(REMOTE_UNIT) if packet.interface in ("wlan0", "eth0"))
    conversation.answers = [answer for answer in conversation.answers if answer.channel[0] != "GLink, connection 1"]
    assert {"ack of INIT", "INITACK"} <= {difference.channel[1] for difference in played(conversation).differences}


@pytest.mark.real_time("another program speaks in the server's place")
def test_a_status_object_that_is_broken_is_different_and_no_traceback(tmp_path):
    """And what comes behind it is heard."""
    word = il.frame(il.Packet(il.TRANSPORT_ACK, 0, il.EVENTS, bytes([il.RESET])))
    server = tmp_path / "tessaroserver"
    server.write_text(f"""#!/usr/bin/python3
import os, socket, time
os.write(os.open("/dev/ttymxc0", os.O_RDWR | os.O_NOCTTY), {word!r})
speaker = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
while True:  # what comes before the first word of the line has been heard is not judged
    for datagram in (b'{{"BU_STATE":', b"NOTIFY"):
        speaker.sendto(datagram, ("127.0.0.1", 6251))
    time.sleep(0.1)
""")
    server.chmod(0o755)
    judge = Player(Conversation(read(START)), server, None).run()
    heard = [(difference.channel, difference.answered.value) for difference in judge.differences if difference.answered]
    assert ((API, "status"), b'{"BU_STATE":') in heard and ((API, "reply"), b"NOTIFY") in heard


def test_a_server_at_which_time_stands_still_is_different(played, monkeypatch):
    """It works and works, and is no capture that cannot be played."""
    def stuck(player, bench_wait=Player._wait_for_end):
        monkeypatch.setattr(player._bench, "wait_for", fail)
        bench_wait(player)

    def fail(*_args, **_options):
        raise WaitTimeout("virtual time stands still\njournal")

    monkeypatch.setattr(Player, "_wait_for_end", stuck)
    judge = played(Conversation(read(START)))
    assert ("it does not last", "virtual time stands still") in [(each.what, each.answered.words) for each in judge.differences
                                                                 if each.channel == EXIT]
