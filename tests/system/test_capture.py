"""Captures of everything that crosses the links: complete, once, in order; and what tshark reads of them is what the
bench's own journal says."""

import collections
import os
import signal
import socket
import subprocess
import sys
import time
from pathlib import Path

import pytest

from tessarobench import capture, capturefile, glink, internallink as il
from tessarobench.capturefile import CaptureFile
from tessarobench.installation import UNIT_APPLICATION, Installation
from tessarobench.board import LOOPBACK_NUMBER
from tessarobench.journal import FROM_BASE_UNIT, TO_BASE_UNIT
from tessarobench.packetring import Packet

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests" / "support"))

import tsharkreader  # noqa: E402

pytestmark = pytest.mark.real_time("what is captured has the kernel's stamps")

OUTBOUND = "0x00000002"  # of the packet flags: the base unit sent it
LINK_FIELDS = ("frame.interface_name", "frame.packet_flags_direction", "frame.time_epoch", "tessaro_link.class",
               "tessaro_link.service", "tessaro_link.payload", "tessaro_link.crc.good", "tessaro_glink.id",
               "tessaro_glink.type", "tessaro_eglink.type", "tessaro_api.action", "tessaro_api.answer",
               "tessaro_pairing.command", "tessaro_transfer.so_far", "tessaro_link.unasked", "tessaro_glink.unasked",
               "tessaro_eglink.unasked", "tessaro_link.repeats", "tessaro_glink.repeats", "tessaro_eglink.repeats",
               "tessaro_glink.response_time", "tessaro_eglink.response_time", "tessaro_link.response_time",
               "systemd_journal.message", "systemd_journal.syslog_id")
DAMAGE = ("tessaro_link.bad_crc", "tessaro_glink.bad_crc", "tessaro_eglink.bad_crc", "tessaro_link.malformed",
          "tessaro_glink.malformed", "tessaro_eglink.malformed", "tessaro_pairing.malformed")


@pytest.fixture
def path(tmp_path):
    return tmp_path / "run.pcapng"


@pytest.fixture
def captured(server_path, path):
    """A board of which everything is captured, until the test (or its end) closes it."""
    with Installation(server_path, capture=CaptureFile(path)) as laid:
        yield laid
        laid.loop.raise_failure()


def direction(row):
    return FROM_BASE_UNIT if row["frame.packet_flags_direction"] == [OUTBOUND] else TO_BASE_UNIT


def end(bench):
    """Ends the server, waits until what it sent has reached the peers, then ends them."""
    assert bench.server.stop() == 0
    last = [bench.journal.mark(), time.monotonic()]

    def quiet():
        if bench.journal.mark() != last[0]:
            last[:] = bench.journal.mark(), time.monotonic()
        return time.monotonic() > last[1] + 0.5

    bench.wait_for(quiet, 30, "nothing crosses the links any more", poll=0.05)
    bench.close()


# --- the same as in the journal ----------------------------------------------------------------------------------------


def play_everything(bench):
    """A little of all that the links carry. Every peer listens before anything is sent to it."""
    controller = bench.mc
    bench.start_to_serve(bu_state=16)
    first, second = bench.unit(1001).join().wait_joined(), bench.unit(1002).join_fallback().wait_joined()
    bench.bc.command(b"lights on")
    bench.bc.periodic(bytes(range(16)))
    bench.bc.ask("SID1")
    first.command(b"hoist up")
    first.service_forward(b"battery 83 %")
    second.service_forward(b"a longer report " * 20)  # two blocks
    bench.wait_for(lambda: controller.periodic, what="the link to the machine controller")
    controller.cycle(bytes(32))
    controller.command(b"lamp on")
    bench.api.get()
    bench.api.send(b"DISARM")
    bench.tool.get(bench.tool.find(UNIT_APPLICATION.name), 1003)
    bench.wait_for(lambda: first.idle and second.idle and bench.bc.idle)
    bench.wait_for(lambda: all(b"lamp on" in unit.payloads(glink.CMD) and unit.messages(glink.BASE_STATUS)
                               for unit in (first, second)), what="commands and base status on both ways")
    bench.wait_for(lambda: bench.journal.count(link="eglink", kind="VRAO") and bench.journal.count(link="eglink", kind="VRPI"))
    controller.silence()


def uart_kind(row):
    """The journal's word for what tshark read."""
    message_class, service = int(row["tessaro_link.class"][0]), int(row["tessaro_link.service"][0])
    size = len(row["tessaro_link.payload"][0]) // 2 if row["tessaro_link.payload"] else 0
    if message_class == il.ACK and not size:
        return "ack"
    if service == il.PROCESS_DATA:
        return "status" if direction(row) == FROM_BASE_UNIT and size == 4 else "image"
    if service == il.CONFIGURATION:
        return "ask" if message_class == il.SERVICE_ACK else "answer"
    return il.SERVICE_NAMES[service]


def shown(rows):
    """How many of each kind tshark saw: (link, direction, kind) -> count. Kinds as in the journal."""
    counts = collections.Counter()
    for row in rows:
        way = direction(row)
        if row["tessaro_link.class"]:
            counts["uart", way, uart_kind(row)] += 1
        path = "fallback" if row["tessaro_link.class"] else "TCP"
        for number, kind in zip(row["tessaro_glink.id"], row["tessaro_glink.type"], strict=True):
            counts[f"glink by {path}", way, ("ack of " if kind == "1" else "") + glink.NAMES[int(number)]] += 1
        for kind in row["tessaro_eglink.type"]:
            counts["eglink", way, kind] += 1
        if row["tessaro_api.action"]:
            counts["api", TO_BASE_UNIT, "request"] += 1
        for answer in row["tessaro_api.answer"]:
            counts["api", FROM_BASE_UNIT, "notify" if answer == "NOTIFY" else "status"] += 1
        for command in row["tessaro_pairing.command"]:
            counts["pairing", way, command] += 1
    return counts


def journalled(journal):
    """The same from the journal, of what has been on the wire."""
    counts = collections.Counter()
    for event in journal:
        link, kind = event.link, event.kind
        if event.direction not in (FROM_BASE_UNIT, TO_BASE_UNIT) or kind in ("end", "file"):
            continue
        if link == "glink":
            link, kind = f"glink by {event.path}", f"ack of {event.of}" if kind == "ack" else kind
        if link in ("uart", "eglink", "api", "pairing") or link.startswith("glink"):
            counts[link, event.direction, kind] += 1
    return counts


@pytest.fixture(scope="module")
def played(server_path, tmp_path_factory):
    """A run with a little of everything: what tshark reads of it, and the bench's journal."""
    path = tmp_path_factory.mktemp("played") / "run.pcapng"
    with Installation(server_path, capture=CaptureFile(path)) as bench:
        play_everything(bench)
        end(bench)
    return tsharkreader.read(path, *LINK_FIELDS, *DAMAGE), bench.journal


def test_tshark_reads_what_the_journal_says(played):
    rows, journal = played
    assert shown(rows) == journalled(journal)
    assert {name for row in rows for name in row["frame.interface_name"]} == {"ttymxc0", "eth0", "wlan0", "lo"}
    assert [text for row in rows for text in row["systemd_journal.message"] if row["systemd_journal.syslog_id"] == [
        "tessaroserver"]] == [event.text for event in journal.select("server", FROM_BASE_UNIT, "log")]
    assert [row for row in rows if any(row[field] for field in DAMAGE)] == []
    sizes = [int(size) for row in rows for size in row["tessaro_transfer.so_far"]]
    assert max(sizes) == journal.last(link="pairing", kind="file").size


def test_packets_of_all_links_stand_in_the_order_of_one_clock(played):
    rows, journal = played
    stamps = [float(row["frame.time_epoch"][0]) for row in rows]
    assert stamps == sorted(stamps)
    assert journal.wall_began - 0.1 < stamps[0] and stamps[-1] < journal.wall_began + journal.now + 0.1


def test_answers_find_their_requests_in_plausible_time(played):
    """As many as the journal has acknowledgements, less those of packets that were repeated because the first one came late
    (this computer may be busy); none of them before its request, none later than the links allow."""
    rows, journal = played
    counts = journalled(journal)
    acks = {"glink": sum(count for (link, _, kind), count in counts.items() if kind.startswith("ack of")),
            "eglink": sum(count for (link, _, kind), count in counts.items() if kind in ("VRAI", "VRAO")),
            "link": sum(count for (link, _, kind), count in counts.items() if link == "uart" and kind in ("ack", "answer"))}
    times = {name: [float(value) for row in rows for value in row[f"tessaro_{name}.response_time"]] for name in acks}
    second = {name: sum(1 for row in rows if row[f"tessaro_{name}.unasked"]) for name in acks}
    repeated = {name: sum(1 for row in rows if row[f"tessaro_{name}.repeats"]) for name in acks}
    assert {name: len(times[name]) + second[name] for name in acks} == acks
    assert all(second[name] <= repeated[name] for name in acks) and second["glink"] == 0
    assert all(0 < seconds < 4 for found in times.values() for seconds in found)


# --- damage ------------------------------------------------------------------------------------------------------------


def turn_a_harmless_bit(data):
    """One bit of a frame turned, in a byte that means nothing to the line before and after."""
    special = {il.START, il.END, il.ESCAPE}
    for place in range(2, len(data) - 2):
        if not special & {data[place - 1], data[place], data[place] ^ 1}:
            return data[:place] + bytes([data[place] ^ 1]) + data[place + 1:]
    raise AssertionError("no such byte")


def test_exactly_what_was_damaged_is_marked(captured, path):
    captured.start_to_serve()
    unit = captured.unit(1001).join().wait_joined()
    captured.mc.cycle(bytes(32), 10)
    for impairment in (captured.bc.to_base_unit, captured.mc.to_base_unit, unit.to_base_unit):
        impairment.flip = turn_a_harmless_bit
    captured.bc.to_base_unit.script("corrupt", "pass", "drop", "pass", "duplicate")
    images = [captured.bc.send_image() for _ in range(5)]
    captured.wait_for(lambda: all(image.acked for image in images))
    captured.mc.to_base_unit.script("pass", "corrupt", "drop", "duplicate")
    for number in (1, 2, 3, 2):
        captured.mc.command(b"horn", number)
    ends = len(unit.ends)
    unit.to_base_unit.script("corrupt")
    unit.command(b"hoist up")
    captured.wait_for(lambda: len(unit.ends) > ends)
    captured.mc.silence()
    end(captured)

    rows = tsharkreader.read(path, *DAMAGE, "tessaro_link.again", "tessaro_eglink.again", "tessaro_link.service",
                             "frame.interface_name", "frame.packet_flags_direction")
    fates = collections.Counter((event.link, event.fate) for event in captured.journal if "fate" in event.detail)
    assert fates["uart", "corrupted"] == fates["eglink", "corrupted"] == fates["glink", "corrupted"] == 1
    assert fates["uart", "duplicated"] == fates["eglink", "duplicated"] == 1
    marked = collections.Counter(field for row in rows for field in DAMAGE if row[field])
    assert marked == {"tessaro_link.bad_crc": 1, "tessaro_glink.bad_crc": 1, "tessaro_eglink.bad_crc": 1}
    again = collections.Counter((direction(row), field) for row in rows
                                for field in ("tessaro_link.again", "tessaro_eglink.again") if row[field])
    repeats = captured.journal.count(link="uart", direction=FROM_BASE_UNIT, again=True)
    assert again[TO_BASE_UNIT, "tessaro_eglink.again"] == 1
    assert again[FROM_BASE_UNIT, "tessaro_link.again"] == repeats


class LateRing:
    """In the place of the kernel's: hands over two packets one by one, the second long after the first, although its time is
    an earlier one."""

    def __init__(self, network, blocks):
        now = time.time_ns()
        self.waiting = [Packet(now + number, LOOPBACK_NUMBER, False, bytes(5) + bytes([number]) + bytes(54))
                        for number in (1, 0)]
        self.give_at = [time.monotonic(), time.monotonic() + 0.5]
        self.never = os.eventfd(0)
        self.dropped = 0

    @property
    def is_empty(self):
        return not self.waiting

    def fileno(self):
        return self.never

    def take(self):
        due = [self.waiting.pop(0) for at in self.give_at if self.waiting and time.monotonic() >= at]
        del self.give_at[:len(due)]
        return due

    def close(self):
        os.close(self.never)


def test_a_packet_that_the_kernel_hands_over_late_stands_in_its_place(path, monkeypatch):
    monkeypatch.setattr(capture, "PacketRing", LateRing)
    file = CaptureFile(path)
    capture.Capture(file, None, lambda number: "lo").close()
    file.close()
    assert [row["eth.dst"] for row in tsharkreader.read(path, "eth.dst")] == [["00:00:00:00:00:00"], ["00:00:00:00:00:01"]]


# --- complete, and once ------------------------------------------------------------------------------------------------


def datagrams(path, link):
    """The payloads of all datagrams on one link, in their order."""
    return [bytes.fromhex(row["udp.payload"][0]) for row in tsharkreader.read(
        path, "udp.payload", display_filter=f'frame.interface_name == "{link}" && udp.dstport == 7777')]


def test_interfaces_may_go_and_come_and_no_packet_is_missing_or_there_twice(path):
    with Installation(capture=CaptureFile(path)) as board:
        with board.local_socket(socket.SOCK_DGRAM) as receiver, board.local_socket(socket.SOCK_DGRAM) as local:
            receiver.bind(("", 7777))
            receiver.settimeout(60)

            def send(text):
                with board.peer_socket(socket.SOCK_DGRAM) as sender:
                    sender.sendto(text, (board.eth0.host, 7777))
                assert receiver.recv(100) == text

            send(b"at first")
            board.eth0.down()
            board.eth0.up()
            send(b"up again")
            board.eth0.unplug()
            board.eth0.plug()
            send(b"plugged again")
            board.eth0.vanish()
            local.sendto(b"loopback", ("127.0.0.1", 7777))
            assert receiver.recv(100) == b"loopback"
            board.eth0.reappear()
            send(b"another device")
            board.eth0.vanish()  # what has come a moment ago is still known by its name
    assert datagrams(path, "eth0") == [b"at first", b"up again", b"plugged again", b"another device"]
    assert datagrams(path, "lo") == [b"loopback"]


def test_multicast_of_the_board_is_there_once(path):
    """The board is a member of the group itself and hears what it sends."""
    with Installation(capture=CaptureFile(path)) as board:
        with board.local_socket(socket.SOCK_DGRAM) as member:
            member.bind(("", 7777))
            member.settimeout(60)
            member.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                              socket.inet_aton("239.255.42.20") + socket.inet_aton(board.eth0.host))
            member.sendto(b"to all", ("239.255.42.20", 7777))
            assert member.recv(100) == b"to all"
    assert datagrams(path, "eth0") == [b"to all"]


def test_a_burst_is_kept_by_the_kernel_until_somebody_has_time(path):
    """The threads that capture share an interpreter with the one that sends."""
    burst = [number.to_bytes(4, "big") for number in range(5000)]
    with Installation(capture=CaptureFile(path)) as board:
        with board.local_socket(socket.SOCK_DGRAM) as receiver, board.local_socket(socket.SOCK_DGRAM) as sender:
            receiver.bind(("", 7777))
            for datagram in burst:
                sender.sendto(datagram, ("127.0.0.1", 7777))
    assert datagrams(path, "lo") == burst


def test_lines_are_cut_at_their_end_however_they_come(path):
    """Pieces of lines one way, a line the other way meanwhile, and one that never ends."""
    with Installation(capture=CaptureFile(path)) as board:
        for direction_, piece in ((FROM_BASE_UNIT, b"\x82on"), (TO_BASE_UNIT, b"\x82back\n"),
                                  (FROM_BASE_UNIT, b"e\n\x82two\n\x82th"), (FROM_BASE_UNIT, b"ree")):
            board.loop.call(board.capture.line, direction_, piece)
    rows = tsharkreader.read(path, "_ws.col.Info", "tessaro_link.direction")
    assert [(*row["_ws.col.Info"], *row["tessaro_link.direction"]) for row in rows] == [
        ("fragment of 6 bytes", "1"), ("fragment of 5 bytes", "0"), ("fragment of 5 bytes", "0"), ("fragment of 6 bytes", "0")]


# --- the file ----------------------------------------------------------------------------------------------------------


def test_packets_and_lines_of_logs_are_sorted_by_time(path):
    file = CaptureFile(path, "a test")
    now = time.time_ns()
    file.put("eth0", bytes(14), True, now + 2_000)
    file.log("what comes\nnow", "bench")
    file.put("ttymxc0", b"\0\x82\n", True)
    file.put("wlan0", bytes(14), False, now + 1_000)
    file.close()
    fields = ("frame.interface_name", "frame.packet_flags_direction", "systemd_journal.message")
    assert [tuple(row[field] for field in fields) for row in tsharkreader.read(path, *fields)] == [
        (["wlan0"], ["0x00000001"], []), (["eth0"], [OUTBOUND], []), ([], [], ["what comes now"]), (["ttymxc0"], [OUTBOUND], [])]
    assert "3 packets (ttymxc0 1, eth0 1, wlan0 1, lo 0) and 1 lines" in file.summary and "none is missing" in file.summary


def test_nothing_is_written_before_what_may_still_come(path):
    """A packet of the network reaches the file later than a line of the UART that is younger."""
    file = CaptureFile(path)
    line_at = time.time_ns()
    file.put("ttymxc0", b"\0\x82\n", True)
    file.settle(line_at)
    time.sleep(3 * capturefile.TURN_SECONDS)  # the file's thread has had its turn
    file.put("eth0", bytes(14), True, line_at)
    file.close()
    assert [row["frame.interface_name"] for row in tsharkreader.read(path, "frame.interface_name")] == [["eth0"], ["ttymxc0"]]


def test_what_finds_no_room_is_counted_and_told(path):
    file = CaptureFile(path, largest_waiting=1000)
    for _ in range(5):
        file.put("lo", bytes(200), None)
    file.lost_in_kernel = 7
    file.close()
    assert file.lost["lo"] == 3 and "2 packets" in file.summary and "10 MORE ARE MISSING" in file.summary
    assert len(tsharkreader.read(path, "frame.number")) == 2


def test_a_full_disk_disturbs_nobody_and_is_told(server_path):
    file = CaptureFile("/dev/full")
    with Installation(server_path, capture=file) as bench:
        bench.start_to_run()
    assert "No space left on device" in file.summary and file.summary.startswith("0 packets")


def test_a_disk_that_takes_nothing_disturbs_nobody(server_path, tmp_path, monkeypatch):
    """A pipe of which its reader takes nothing; whole blocks alone have gone into it."""
    monkeypatch.setattr(capturefile, "PATIENCE_SECONDS", 0.2)
    monkeypatch.setattr(capture, "_STAMPED_NANOSECONDS", 0)  # it writes at once
    pipe = tmp_path / "pipe"
    os.mkfifo(pipe)
    reader = os.open(pipe, os.O_RDONLY | os.O_NONBLOCK)
    file = CaptureFile(pipe)
    with Installation(server_path, capture=file) as bench:
        for _ in range(1000):
            file.put("lo", bytes(200), None)
        bench.start_to_run()
        bench.api.get()
    os.close(reader)
    assert "takes nothing more" in file.summary


# --- the tour ----------------------------------------------------------------------------------------------------------


BENCH = ROOT / "bench"


def test_a_captured_scene_tells_its_story_between_the_packets(server_path, path):
    tour = subprocess.run([BENCH / "run", "--server", server_path, "--scene", "settings", "--capture", path],
                          capture_output=True, text=True, timeout=240, check=False)
    assert tour.returncode == 0, tour.stdout + tour.stderr
    assert "; none is missing." in tour.stdout.splitlines()[-1]
    told = [text for row in tsharkreader.read(path, "systemd_journal.message",
                                              display_filter='systemd_journal.syslog_id == "tour"')
            for text in row["systemd_journal.message"]]
    assert told[0].startswith("1. The internal link comes up")
    assert "A local tool announces that the configuration has changed." in told
    assert "ok: the base controller is told RECONFIG" in told


@pytest.mark.parametrize("number, status", [(signal.SIGINT, 130), (signal.SIGTERM, 143)])
def test_an_interrupted_tour_leaves_a_whole_capture(server_path, path, number, status):
    with subprocess.Popen([BENCH / "run", "--server", server_path, "--capture", path], stdout=subprocess.PIPE, text=True,
                          start_new_session=True) as tour:
        while "the link is in RUN" not in tour.stdout.readline():
            pass
        os.killpg(tour.pid, number)
        assert tour.wait(60) == status
        assert "Captured" in tour.stdout.read()
    rows = tsharkreader.read(path, "tessaro_link.event")
    assert ["0"] in [row["tessaro_link.event"] for row in rows]


def test_a_file_that_cannot_be_written_is_said_before_anything_is_played(server_path, tmp_path):
    refused = subprocess.run([BENCH / "run", "--server", server_path, "--capture", tmp_path / "no" / "folder.pcapng"],
                             capture_output=True, text=True, timeout=240, check=False)
    assert refused.returncode == 2 and refused.stderr.count("\n") == 1 and "No such file" in refused.stderr
    assert refused.stdout == ""
