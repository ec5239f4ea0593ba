"""Pairing with tools and receivers that are slow, rude, several, or gone."""

import random
import socket
import time

import pytest

from pairing_support import (NO_HANDLE, SYSTEM, USER, md5, serve, serve_with_gate, sockets, table_in, words_of,
                             words_of_unit)
from tessarobench import pairwire
from tessarobench.servicetool import ServiceToolError
from units_support import HeldUp

LARGE = 24 * 1024 * 1024  # well beyond what the kernel takes for a receiver that reads nothing


@pytest.fixture
def pairing(bench):
    return serve(bench)


@pytest.fixture
def large(bench):
    return serve(bench, content=random.Random(1).randbytes(LARGE))


def connections_gone(bench, idle):
    bench.wait_for(lambda: sockets(bench) == idle, None, "all connections to be freed", poll=0.02)


def test_requests_may_arrive_byte_by_byte(pairing):
    tool = pairing.tool
    for byte in pairwire.get_app(1003, USER):
        tool.send(bytes([byte]))
    offer = tool.reply(pairwire.parse_offer)
    with tool.open_transfer() as receiver:
        for byte in pairwire.start_transfer():
            tool.send(bytes([byte]))
        assert md5(tool.receive(receiver)) == offer.md5


def test_a_request_without_its_last_byte_is_not_acted_on(pairing):
    request = pairwire.get_app(1003, USER)
    pairing.tool.send(request[:-1])
    other = pairing.service_tool()
    assert other.list()  # by now the server has seen the other one's bytes
    assert not pairing.server.logged("Send app") and words_of_unit(pairing, 1003) is None


def test_several_requests_in_one_segment_are_served_in_order(pairing):
    tool = pairing.tool
    tool.send(pairwire.get_app_list() + pairwire.get_app(0, "/first") + pairwire.start_transfer()
              + pairwire.text("what?") + pairwire.get_app(0, "/second") + pairwire.get_app_list())
    for _ in range(2):
        assert len(tool.reply(pairwire.parse_app_list)) >= 2
    position = 0
    for line in ("sending applist", 'appPath: "/first"', NO_HANDLE, 'appPath: "/second"', "sending applist"):
        position = pairing.server.wait_log(line, since=position)


@pytest.mark.parametrize("rude", [
    pytest.param(b"\xff\xff\xff\xfe", id="a command that claims 4 GiB"),
    pytest.param(b"\x00\x01\x00\x00" + bytes(65536), id="a command of 64 KiB"),
    pytest.param(b"\x00\x00\x00\x03abc", id="an odd length"),
    pytest.param(pairwire.text("getApp") + b"\x03\xeb\x7f\xff\xff\xfe", id="a path that claims 2 GiB")])
def test_requests_that_are_too_long_or_unreadable_close_the_connection(pairing, rude):
    tool = pairing.tool
    tool.list()
    before = pairing.server.memory()
    tool.send(rude)
    with pytest.raises((ServiceToolError, ConnectionResetError)):
        tool.reply(pairwire.parse_app_list)
    pairing.server.wait_log("closing the connection")
    assert pairing.service_tool().list()
    assert pairing.server.memory() - before < 4 * 1024 * 1024


def test_an_idle_connection_makes_nobody_deaf(pairing):
    older, idle = pairing.service_tool(), pairing.service_tool()
    assert older.list()
    idle.open()
    pairing.server.wait_log("newClientConnection", since=pairing.server.wait_log("newClientConnection"))
    idle.send(pairwire.get_app(1004, USER)[:7])  # and half of a request
    assert older.list()
    assert older.get(USER, 1003)[0].name == "panel.tar"
    assert words_of_unit(pairing, 1004) is None


def test_tools_that_ask_at_once_each_get_their_own(pairing, tmp_path):
    tools = {unit: pairing.service_tool() for unit in range(1011, 1019)}
    for unit, tool in tools.items():
        tool.send(pairwire.get_app(unit, USER))
    offers = {unit: tool.reply(pairwire.parse_offer) for unit, tool in tools.items()}
    for unit, tool in reversed(tools.items()):
        archive = tool.fetch(offers[unit])
        assert words_of(table_in(archive, "panel/config/keys.csv", tmp_path)) == words_of_unit(pairing, unit)
    assert words_of(pairing.table("panel/config/keys.csv")) == words_of_unit(pairing, 1018), "paired last"
    pairing.wait_for(lambda: not list(pairing.applications.glob("**/*.tar")), poll=0.02)


def test_a_tool_that_goes_away_gives_up_its_turn(bench, tmp_path):
    serve_with_gate(bench, tmp_path)
    first, gone, last = (bench.service_tool() for _ in range(3))
    first.send(pairwire.get_app(1011, USER))
    bench.server.wait_log("pairarchive: tarStarted()")
    gone.send(pairwire.get_app(1012, USER))
    waits = bench.server.wait_log("has to wait for its turn")
    last.send(pairwire.get_app(1013, SYSTEM))
    bench.server.wait_log("has to wait for its turn", since=waits)
    idle = sockets(bench)
    gone.close()
    connections_gone(bench, idle - 1)
    (tmp_path / "go").touch()
    assert first.reply(pairwire.parse_offer).name == "panel.tar"
    assert last.reply(pairwire.parse_offer).name == "display.tar"
    assert words_of_unit(bench, 1012) is None and words_of_unit(bench, 1011)


def test_a_tool_that_goes_away_while_its_archive_is_made_pairs_nobody(bench, tmp_path):
    serve_with_gate(bench, tmp_path)
    gone, next_one = bench.service_tool(), bench.service_tool()
    gone.send(pairwire.get_app(1011, USER))
    bench.server.wait_log("pairarchive: tarStarted()")
    next_one.send(pairwire.get_app(1012, USER))
    bench.server.wait_log("has to wait for its turn")
    gone.close()
    bench.server.wait_log("pairserver: Nobody is left to take")  # and tar is not waited for
    (tmp_path / "go").touch()
    assert next_one.reply(pairwire.parse_offer).name == "panel.tar"
    assert words_of_unit(bench, 1011) is None and words_of_unit(bench, 1012)


def test_two_tools_fetch_side_by_side(large):
    tools = [large.service_tool(), large.service_tool()]
    offers = [tool.ask(path, 1011) for tool, path in zip(tools, (USER, SYSTEM))]
    with tools[0].open_transfer() as first, tools[1].open_transfer() as second:
        for tool in tools:
            tool.start_transfer()
        assert md5(tools[1].receive(second)) == offers[1].md5
        assert md5(tools[0].receive(first)) == offers[0].md5


def test_an_older_tool_still_gets_the_archive_it_asked_for(large):
    older, newer = large.service_tool(), large.service_tool()
    older.send(pairwire.get_app(1003, SYSTEM))
    large.server.wait_log("pairarchive: tarStarted()")
    newer.open()
    assert older.reply(pairwire.parse_offer).name == "display.tar"
    newer.send(pairwire.get_app_list())
    assert newer.reply(pairwire.parse_app_list)  # and not the metadata of somebody else's archive


def test_a_stalled_receiver_holds_up_nobody_and_grows_nothing(large):
    large.bc.set(bu_identity=400)
    large.wait_for(lambda: large.bc.received["status"] >= 1)
    tool = large.tool
    first = tool.ask(USER, 1003)
    before = large.server.memory()
    with tool.open_transfer() as stalled:
        tool.start_transfer()
        large.server.wait_log("Sending first chunc of data")
        # Others are served meanwhile, the same application included, with other keys and so another archive.
        second = tool.ask(USER, 1003)
        assert second.md5 != first.md5
        assert md5(tool.fetch(second)) == second.md5
        large.server.wait_log("Application sent")
        assert large.server.logged("Application sent") == 1
        assert large.server.memory() - before < 3 * 1024 * 1024
        assert md5(tool.receive(stalled)) == first.md5
    large.wait_for(lambda: not list(large.applications.glob("*.tar")), poll=0.02)


def test_a_receiver_that_vanishes_half_way_leaves_nothing_behind(large):
    tool = large.tool
    tool.list()
    idle = sockets(large)
    offer = tool.ask(USER, 1003)
    receiver = tool.open_transfer()
    tool.start_transfer()
    assert receiver.recv(100_000)
    receiver.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\0\0\0\0\0\0\0")  # gone without a word
    receiver.close()
    large.server.wait_log("pairserver: The receiver left before it had all of")
    connections_gone(large, idle)
    large.wait_for(lambda: not list(large.applications.glob("*.tar")), poll=0.02)
    assert not large.server.logged("Transfer complete of")
    again = tool.ask(USER, 1003)
    assert again.md5 != offer.md5 and md5(tool.fetch(again)) == again.md5


def test_start_transfer_without_a_file_connection_does_nothing(pairing):
    offer = pairing.tool.ask(SYSTEM, 1003)
    pairing.tool.start_transfer()
    pairing.server.wait_log("pairserver: No file connection to send the application over")
    assert (pairing.applications / "display.tar").exists()
    assert md5(pairing.tool.fetch(offer)) == offer.md5


def test_a_file_connection_is_replaced_by_the_next(pairing):
    tool = pairing.tool
    offer = tool.ask(SYSTEM, 1003)
    with tool.open_transfer() as first:
        pairing.server.wait_log("Got connection from")
        assert md5(tool.fetch(offer)) == offer.md5
        assert first.recv(1) == b""


@pytest.mark.real_time("packing takes no virtual time")
def test_packing_and_sending_leave_the_rhythm_of_the_unit_alone(large):
    """The status record to the base controller is made twice a second, whatever the pairing service does."""
    large.bc.set(bu_identity=400)
    large.wait_for(lambda: large.bc.received["status"] >= 2)
    held_up = HeldUp(large)
    since = large.journal.mark()
    until = time.monotonic() + 3
    while time.monotonic() < until or large.bc.received["status"] < 10:
        large.tool.get(USER, 1003)
    times = [event.time for event in large.journal.select("uart", "<", "status", since=since)]
    gaps = [later - earlier - held_up.between(earlier, later) for earlier, later in zip(times, times[1:])]
    # Packing comes again and again; the computer, busy with something else, may be late once.
    assert len(gaps) >= 4 and sorted(gaps)[-2] < 0.75 and max(gaps) < 1.0, gaps


def test_many_pairings_leave_descriptors_threads_and_memory_where_they_were(pairing):
    tool = pairing.tool
    for _ in range(10):
        tool.get(USER, 1003)
    before, resident = pairing.server.usage(), pairing.server.memory()
    for _ in range(60):
        tool.get(USER, 1003)
    pairing.wait_for(lambda: not pairing.server.usage().holds_more_than(before), poll=0.02)
    assert pairing.server.memory() - resident < 1024 * 1024


def test_garbage_on_many_connections_leaves_the_service_alive(pairing):
    """Seeded noise, much of it beginning like a request, on 300 connections; every tenth end is cut hard."""
    pairing.tool.list()
    idle = sockets(pairing) - 1
    pairing.tool.close()
    noise = random.Random(2022)
    for number in range(300):
        rude = pairing.service_tool()
        parts = [pairwire.get_app_list(), pairwire.text("getApp"), noise.randbytes(noise.randrange(60)),
                 bytes(noise.randrange(8)), pairwire.get_app(noise.randrange(65536), "/" + "x" * noise.randrange(30))]
        noise.shuffle(parts)
        try:
            for part in parts[:noise.randrange(1, 6)]:
                rude.send(part)
        except OSError:
            pass  # the base unit has closed it already: that is what should happen
        if number % 10 == 0:
            rude.open().setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\0\0\0\0\0\0\0")
        rude.close()
    connections_gone(pairing, idle)
    assert pairing.service_tool().get(USER, 1003)[0].name == "panel.tar"
