"""The UDP API on the loopback interface."""

import json
import random

import pytest

KEYS = ["BU_ID", "BU_STATE", "TSAPs", "UNARMED_RUs", "EG_LINK_STATUS", "EC_LINK_STATUS", "C_LINK_STATUS", "ARMED_RU",
        "RU_STATE", "BCSR", "BUID", "IFTY", "IVL1", "IVL2", "IVL3"]


def events(bench, since):
    return [event.event for event in bench.journal.select("uart", "<", "event", since=since)]


def test_get_answers_with_all_fifteen_values_in_one_compact_object(running):
    running.api.get()
    datagram = running.journal.last(link="api", kind="status").data
    assert sorted(json.loads(datagram)) == sorted(KEYS)
    assert all(isinstance(value, str) for value in json.loads(datagram).values())
    assert datagram == json.dumps(json.loads(datagram), separators=(",", ":")).encode()


def test_the_answer_goes_to_the_fixed_port_whoever_asks(running):
    before = running.api.statuses
    with running.local_socket() as stranger:
        stranger.bind(("127.0.0.1", 0))
        stranger.sendto(b"GET", ("127.0.0.1", 6250))
        running.wait_for(lambda: running.api.statuses > before)
        stranger.setblocking(False)
        with pytest.raises(BlockingIOError):
            stranger.recv(100)


@pytest.mark.parametrize("datagram, event", [
    (b"RESET", "ECLINKRESET"), (b"please RESET it", "ECLINKRESET"), (b"DISARM", "RELEASEARM"),
    (b"CCHANGE", "RECONFIG"), (b"RESET DISARM CCHANGE", "ECLINKRESET"), (b"CCHANGE DISARM", "RELEASEARM"),
    (b"x\0DISARM", "RELEASEARM")])
def test_actions_reach_the_base_controller_and_are_confirmed(running, datagram, event):
    mark, notifies = running.journal.mark(), running.api.notifies
    running.api.send(datagram)
    running.wait_for(lambda: running.api.notifies == notifies + 1)
    running.wait_for(lambda: events(running, mark) == [event])


@pytest.mark.parametrize("datagram", [b"GET", b"", b"nonsense", b"get", b"reset", b"GET RESET", b"RESETGET",
                                      b"\0\0\xff\xfe", b"x" * 60000])
def test_everything_else_is_answered_with_the_status(running, datagram):
    mark, statuses, notifies = running.journal.mark(), running.api.statuses, running.api.notifies
    running.api.send(datagram)
    running.wait_for(lambda: running.api.statuses == statuses + 1)
    running.api.send(b"DISARM")  # comes after it, so anything else would have come before
    running.wait_for(lambda: running.api.notifies == notifies + 1)
    running.wait_for(lambda: events(running, mark) == ["RELEASEARM"])
    assert running.api.statuses == statuses + 1


def test_what_was_read_and_how_it_was_taken_is_logged(running):
    running.api.send(b"RE\0SET and DISARM")
    n = running.server.wait_log("APIServer: Read UDP Data: RE", whole=True)
    assert running.server.wait_log("APIServer: Processing", since=n) == n + 1
    assert running.server.log[n].plain == "APIServer: Processing DISARM"


def test_every_change_is_pushed_once_per_tag_and_nothing_else_is(running):
    before = running.api.statuses
    running.bc.set(tsaps=1)
    running.wait_for(lambda: running.api.tag("TSAPs") == "1")
    assert running.api.statuses == before + 1
    running.bc.set(hoist_speed=5)  # not among the fifteen
    sending = running.bc.send_image()
    running.wait_for(lambda: sending.acked)
    running.api.get()
    assert running.api.statuses == before + 2


def test_every_random_datagram_is_answered_once(running):
    source, api = random.Random(6250), running.api
    for _ in range(20):
        answers = api.statuses + api.notifies
        for _ in range(100):  # few enough for the receive buffers of both sides
            api.send(bytes(source.randrange(256) for _ in range(source.randrange(0, 40))))
        running.wait_for(lambda: api.statuses + api.notifies == answers + 100)
    assert running.server.running


def test_requests_for_another_address_are_not_heard(running):
    """The port is bound to the loopback address alone."""
    notifies = running.api.notifies
    with running.peer_socket(kind=2) as outsider:
        outsider.sendto(b"DISARM", ("10.42.20.1", 6250))
    running.api.get()
    assert running.api.notifies == notifies


def test_a_taken_port_leaves_the_api_deaf_and_the_rest_alive(bench):
    with bench.local_socket() as squatter:
        squatter.bind(("127.0.0.1", 6250))
        bench.start_to_run()
        line = bench.server.wait_log("Socket could not be bound to")
        assert bench.server.log[line - 1].plain == "APIServer: Socket could not be bound to 6250"
        sending = bench.bc.set(tsaps=1)
        bench.wait_for(lambda: sending.acked)
