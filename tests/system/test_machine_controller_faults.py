"""What must not disturb the link: damaged packets, foreign controllers, floods and garbage."""

import random
import socket
import struct

import pytest

from controllerlink import (LINK_ERROR, OPERATIONAL, answered, count, linked, reported, reports, start_link,
                            wait_count, wait_reported)
from tessarobench import crc, eglink
from tessarobench.eglink import Packet

__all__ = ["linked"]  # a fixture

HEADER_ERROR = "Rx header error: packet ignored."
CRC_ERROR = "Rx CRC error: packet ignored."


@pytest.mark.parametrize("fields, cause", [
    ({"kind": "VRXX"}, "Wrong packet type."),
    ({"revision": 1}, "Wrong revision."),
    ({"origin": 1}, "Origin not machine controller."),
    ({"size": 3}, "Wrong data size: 3 (should be 6 )"),
    ({"size": 500}, "Wrong data size: 500 (should be 6 )"),
    ({"size": 0xFFFF}, "Wrong data size: -1 (should be 6 )"),
])
def test_wrong_headers(linked, fields, cause):
    bench, fields = linked, dict(fields)
    kind = fields.pop("kind", "VRCO")
    since = len(bench.server.log)
    bench.mc.send(kind, eglink.command(50, b""), **fields)
    step = bench.server.wait_log(cause, since=since, whole=True)
    bench.server.wait_log(HEADER_ERROR, since=step, whole=True)
    answered(bench)
    assert count(bench, "VRAI", id=50) == 0


@pytest.mark.parametrize("datagram, line", [
    (b"", CRC_ERROR),
    (b"VRP", CRC_ERROR),
    (Packet("VRCO", 1, eglink.command(50, b"")).pack()[:-1], CRC_ERROR),
    (bytes.fromhex("ffffffff"), HEADER_ERROR),
    (crc.with_crc(b"VRCO" + bytes(11)), HEADER_ERROR),
    (Packet("VRCO", 1, eglink.command(50, bytes(487))).pack(), HEADER_ERROR),
    (Packet("VRCO", 1, eglink.command(50, bytes(60000))).pack(), HEADER_ERROR),
], ids=["empty", "3 bytes", "cut", "only a CRC", "15 bytes and CRC", "513 bytes", "60 kB"])
def test_datagrams_that_are_no_packets(linked, datagram, line):
    bench = linked
    since = len(bench.server.log)
    bench.mc.send_raw(datagram)
    bench.server.wait_log(line, since=since, whole=True)
    answered(bench)
    assert count(bench, "VRAI", id=50) == 0


def test_the_largest_packets_pass(linked):
    bench = linked
    bench.mc.command(bytes(486), 50)
    wait_count(bench, "VRAI", id=50)


def test_own_types_in_the_group_are_dropped_without_a_word(linked):
    bench = linked
    since = len(bench.server.log)
    for kind in ("VRPI", "VRCI", "VRAI"):
        bench.mc.send(kind, bytes(2))
    answered(bench)
    assert not bench.server.logged("Rx ", since) and not bench.server.logged("Wrong", since)


def test_two_controllers_of_which_one_is_foreign(linked):
    bench = linked
    foreign = bench.closing(bench.machine_controller(origin=7, link="foreign"))
    foreign.cycle(bytes(32), period=0.05)
    for number in (100, 101, 102):
        foreign.command(b"stop", number)
        foreign.acknowledge(number)
    bench.server.wait_log("Origin not machine controller.", whole=True)
    for number in (20, 21, 22):
        bench.mc.command(b"go on", number)
        wait_count(bench, "VRAI", id=number)
    assert sum(count(bench, "VRAI", id=number) for number in (100, 101, 102)) == 0
    assert reported(bench) == OPERATIONAL

    since = bench.journal.mark()
    bench.mc.silence()  # the foreign one's data do not keep the link up
    wait_reported(bench, LINK_ERROR, since=since)


def test_seeded_garbage_leaves_the_link_alive(linked):
    """Four thousand datagrams, in volleys that a receive buffer can hold, so that each of them can be accounted for."""
    bench, source = linked, random.Random(42)
    since, told = len(bench.server.log), {CRC_ERROR: 0, HEADER_ERROR: 0}
    for volley in range(80):
        for _ in range(50):
            datagram, line = garbage(source)
            bench.mc.send_raw(datagram)
            told[line] = told.get(line, 0) + 1
        bench.mc.send("VRAI", size=20000 + volley)  # tells when all before it have been read
        step = bench.server.wait_log(f"Wrong data size: {20000 + volley} (should be 0 )", since=since, whole=True)
        bench.server.wait_log(HEADER_ERROR, since=step, whole=True)
    answered(bench)
    assert bench.server.logged(CRC_ERROR, since) == told[CRC_ERROR] > 1000
    assert bench.server.logged(HEADER_ERROR, since) >= told[HEADER_ERROR] + 80 > 1000
    assert reports(bench)[-1] in (OPERATIONAL, LINK_ERROR)  # a wrong acknowledgement may have been among them


def garbage(source: random.Random) -> tuple[bytes, str]:
    """Noise, noise with a right CRC, or a packet of which some fields may be wrong; and the line that is due for it."""
    noise = source.randbytes(source.choice((0, 3, 16, 20, 40, 600)))
    choice = source.randrange(3)
    if choice == 0:
        return noise, CRC_ERROR
    if choice == 1:
        return crc.with_crc(noise), HEADER_ERROR
    packet = Packet(source.choice(("VRPI", "VRPO", "VRCI", "VRCO", "VRAI", "VRAO", "XXXX")), source.randrange(65536),
                    noise, source.choice((0, 0, 0, 1)), source.choice((0, 0, 0, 1)),
                    size=source.choice((None, None, source.randrange(65536))))
    return packet.pack(), "whatever its fields deserve"


def test_a_flood_does_not_hold_up_the_periodic_data(bench):
    """The controller babbles as fast as it can; VRPI keeps its period all the same."""
    start_link(bench)
    wait_count(bench, "VRPI")
    began, since = bench.journal.now, bench.journal.mark()
    noise = bytes(100)

    def babble():
        for _ in range(50):
            bench.mc.send_raw(noise)

    babbling = bench.loop.call(bench.loop.every, 0.001, babble)
    wait_count(bench, "VRPI", 8, since=since, timeout=8)
    babbling.cancel()
    assert bench.journal.now - began < 4  # eight periods are two seconds
    answered(bench)


def test_datagrams_with_a_wrong_udp_checksum_do_not_deafen_the_link(linked):
    """The kernel announces them and then drops them, so the reader is woken and finds nothing."""
    bench = linked
    since = len(bench.server.log)
    good = Packet("VRCO", 900, eglink.command(50, bytes(200))).pack()  # short ones are dropped before the announcement
    wrong = struct.pack(">HHHH", 5825, 5827, 8 + len(good), 0x1234) + good
    with bench.peer_socket(socket.SOCK_RAW, protocol=socket.IPPROTO_UDP) as raw:
        raw.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(bench.eth0.far_host))
        for _ in range(20):
            raw.sendto(wrong, (eglink.GROUP, 0))
            answered(bench)
    assert count(bench, "VRAI", id=50) == 0
    assert not bench.server.logged(CRC_ERROR, since)


def test_every_kind_of_impairment_at_once(linked):
    """A bad cable for three seconds: loss, damage, copies, delays, overtaking. The link's state is right afterwards."""
    bench = linked
    line = bench.mc.to_base_unit
    line.loss, line.corrupt, line.duplicate, line.delay = 0.2, 0.1, 0.1, (0.0, 0.05)
    until = bench.journal.now + 3
    bench.wait_for(lambda: bench.journal.now > until, 10, poll=0.1)
    line.clear()
    wait_reported(bench, OPERATIONAL, timeout=8)
    answered(bench)
