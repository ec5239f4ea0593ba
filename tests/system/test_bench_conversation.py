"""What is read out of a capture of connections: who was taken in, what is missing, what was said."""

import hashlib
import time

import pytest

from tessarobench import captureread, glink, internallink as il, pairwire
from tessarobench.answers import API, END, Answer, parts
from tessarobench.captureread import Packet, Transport
from tessarobench.connections import Connections
from tessarobench.conversation import Conversation
from tessarobench.pcapng import FROM_BASE_CONTROLLER, LINKTYPE_ETHERNET, LINKTYPE_USER0, TO_BASE_CONTROLLER
from tessarobench.replies import GLINK_PORT, Replies
from tessarobench.tcpstream import Stream
from tessarobench.timeline import DATA, Timeline

FIN, SYN, RST, ACK = 1, 2, 4, 16
UNIT, BASE = ("192.168.32.2", 40000), ("192.168.32.1", GLINK_PORT)
CHECKSUM = bytes(range(16))
INIT = glink.message(glink.INIT, glink.Init(1, 0, 1007, 400, CHECKSUM).pack()).pack()
ADMITTED = glink.message(glink.INITACK, bytes(42)).pack()
LINK = "GLink, connection 1"


class Dialogue:
    """One connection, told segment by segment."""

    def __init__(self):
        self.timeline = Timeline()
        self.connections = Connections(self.timeline, has_uart=True)
        self._next = {True: 1000, False: 5000}
        self._number = 0
        for from_unit in (True, False):
            self.says(from_unit, b"", SYN)

    def says(self, from_unit, payload, flags=0, captured=True):
        packet = Packet(self._number, 0.1 * self._number, "wlan0", LINKTYPE_ETHERNET, b"")
        source, target = (UNIT, BASE) if from_unit else (BASE, UNIT)
        if captured:
            self.connections.segment(Transport(packet, source, target, payload, self._next[from_unit], flags | ACK,
                                               self._next[not from_unit]))
        self._number += 1
        self._next[from_unit] += len(payload) + bool(flags & (SYN | FIN))

    def closed(self):
        self.connections.close(Packet(self._number, 0.1 * self._number, "wlan0", LINKTYPE_ETHERNET, b""))
        return self.connections


@pytest.mark.parametrize("cuts", [(), (1,), (17, 30), (39,)], ids=str)
def test_a_unit_that_is_taken_in_is_known_however_its_introduction_was_cut(cuts):
    dialogue, said = Dialogue(), INIT + glink.message(glink.HEARTBEAT, bytes(4)).pack()
    for begin, end in zip((0, *cuts), (*cuts, len(said))):
        dialogue.says(True, said[begin:end])
    dialogue.says(False, ADMITTED)
    assert dialogue.closed().admissions.accepted == {1007: CHECKSUM}
    assert b"".join(move.data for move in dialogue.timeline.moves) == said


def test_a_unit_is_known_that_goes_on_with_something_broken():
    dialogue = Dialogue()
    dialogue.says(True, INIT + bytes(17))
    dialogue.says(False, ADMITTED)
    assert dialogue.closed().admissions.accepted == {1007: CHECKSUM}


def test_what_the_base_unit_said_before_something_broken_is_an_answer():
    answers = Replies(LINK, GLINK_PORT).feed(0, 0, ADMITTED + bytes(17))
    assert [answer.channel[1] for answer in answers] == ["INITACK", "damaged"]


def test_a_unit_that_is_taken_in_over_the_fallback_is_known():
    def line(direction, number, data):
        payload = (1007).to_bytes(2, "little") + len(data).to_bytes(2, "little") + data
        raw = il.frame(il.Packet(il.TRANSPORT_ACK, number, il.FALLBACK, payload))
        return Packet(number, 0.1 * number, "ttymxc0", LINKTYPE_USER0, bytes([direction]) + raw)

    conversation = Conversation([line(FROM_BASE_CONTROLLER, 1, INIT), line(TO_BASE_CONTROLLER, 2, ADMITTED)])
    assert conversation.accepted == {1007: CHECKSUM}


def missing(dialogue):
    return [note.split("before it ")[1].split(" of")[0] for note in dialogue.closed().notes]


@pytest.mark.parametrize("from_unit", [True, False], ids=["from the unit", "from the base unit"])
def test_bytes_that_are_missing_right_before_the_end_of_a_connection_are_noted(from_unit):
    dialogue = Dialogue()
    dialogue.says(from_unit, INIT)
    dialogue.says(from_unit, INIT, captured=False)
    dialogue.says(from_unit, b"", FIN)
    assert missing(dialogue) == [f"{len(INIT)} bytes"]


@pytest.mark.parametrize("from_unit", [True, False], ids=["from the unit", "from the base unit"])
def test_bytes_that_are_missing_at_the_end_of_the_capture_are_noted(from_unit):
    dialogue = Dialogue()
    dialogue.says(from_unit, INIT)
    dialogue.says(from_unit, INIT, captured=False)
    dialogue.says(not from_unit, b"")
    assert missing(dialogue) == [f"{len(INIT)} bytes"]


def test_the_end_that_answers_an_end_is_no_missing_byte():
    dialogue = Dialogue()
    dialogue.says(False, b"", FIN)
    dialogue.says(True, b"", FIN)
    for _ in range(2):  # acknowledged twice
        dialogue.says(False, b"")
    assert missing(dialogue) == []


# --- the service tool ----------------------------------------------------------------------------------------------------


def offer(archive, digest=None):
    return (pairwire.text("app") + pairwire.text("handset.tar") + len(archive).to_bytes(8, "big") +
            pairwire.text(digest or hashlib.md5(archive).hexdigest()))


def archive_answer(offered, sent, lacking=0):
    offers = set()
    Replies("requests", pairwire.REQUEST_PORT, offers).feed(0, 0, offer(offered))
    transfer = Replies("transfer", pairwire.TRANSFER_PORT, offers)
    transfer.feed(0, 0, sent)
    answer, end = transfer.end(0, 0, lacking)
    assert end.channel[1] == END
    return answer.value


def test_an_archive_that_is_not_what_was_offered_is_something_else():
    """Its size and content may be others each time: keys are drawn for it."""
    whole = archive_answer(b"one archive", b"one archive")
    assert whole == archive_answer(b"another archive", b"another archive")
    assert whole != archive_answer(b"one archive", b"one arch")
    assert whole != archive_answer(b"one archive", b"one archivE")


def test_an_archive_of_which_the_capture_lacks_a_part_is_taken_for_what_was_offered():
    assert archive_answer(b"one archive", b"one arc", 4) == archive_answer(b"one archive", b"one archive")


def test_an_offer_without_a_digest_is_damage_and_no_traceback():
    answers = Replies("requests", pairwire.REQUEST_PORT).feed(0, 0, offer(b"", "no digest, but thirty-two bytes."))
    assert [answer.channel[1] for answer in answers] == ["damaged"]


# --- odd words -----------------------------------------------------------------------------------------------------------


def test_a_verdict_in_another_alphabet_is_an_answer_and_no_traceback():
    raw = glink.message(glink.INITACK, bytes(2) + "für".encode("latin-1").ljust(40, b"\0")).pack()
    assert [answer.channel[1] for answer in Replies(LINK, GLINK_PORT).feed(0, 0, raw)] == ["INITACK"]


def test_a_status_object_of_endless_depth_is_an_answer_and_no_traceback():
    value = b'{"a":' * 100_000
    assert parts(Answer(0, 0, (API, "status"), value, None, "")) == {"": value}


def fragment(more, port):
    """An IPv4 packet of Ethernet with the first part of a datagram."""
    udp = (40000).to_bytes(2, "big") + port.to_bytes(2, "big") + bytes(20)
    head = bytes([0x45, 0]) + (20 + len(udp)).to_bytes(2, "big") + bytes(2) + (0x2000 if more else 0).to_bytes(2, "big")
    return Packet(7, 1.0, "eth0", LINKTYPE_ETHERNET, bytes(12) + b"\x08\x00" + head + bytes([64, 17, 0, 0]) + bytes(8) + udp)


def test_a_part_of_a_datagram_between_others_is_none_of_ours():
    """Cameras on a machine's network send large ones."""
    assert captureread.transport(fragment(True, 40001)).is_part
    said = [Packet(8, 1.1, "lo", LINKTYPE_ETHERNET, fragment(False, port).data) for port in (6250, 6251)]
    assert [move.what for move in Conversation([fragment(True, 40001), *said]).moves] == [DATA]
    with pytest.raises(captureread.BadCapture, match="packet 7: a part of a datagram"):
        Conversation([fragment(True, 6250), *said])


# --- long captures -------------------------------------------------------------------------------------------------------


def test_a_hole_in_a_long_connection_costs_no_more_for_what_stands_far_behind_it():
    """One side alone was captured, so that nobody acknowledges anything."""
    dialogue, part = Dialogue(), bytes(8)
    dialogue.says(True, part)
    dialogue.says(True, part, captured=False)
    began = time.process_time()
    for _ in range(40_000):
        dialogue.says(True, part)
    dialogue.closed()
    assert time.process_time() - began < 20
    assert sum(len(move.data) for move in dialogue.timeline.moves) == 40_001 * len(part)


def test_segments_are_put_in_order_across_the_end_of_their_numbers():
    stream, packet = Stream(), Packet(1, 0.0, "", LINKTYPE_ETHERNET, b"")
    stream.begin(0xFFFFFFFD)
    parts = (0, b"cd"), (2, b"e"), (0xFFFFFFFE, b"ab"), (1, b"de"), (3, b"f")
    said = [stream.feed(*part) for part in parts]
    assert said == [b"", b"", b"abcde", b"", b"f"]
    assert stream.finish(packet) == b"" and stream.missing == 0
