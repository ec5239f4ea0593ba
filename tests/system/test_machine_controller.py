"""The link to the machine controller: its start, its channels, its state, and its periodic data."""

import signal

import pytest

from controllerlink import (EG_TAGS, IDENTITY, LINK_ERROR, LONG_SET, NOT_CONFIGURED, OPERATIONAL, SET, answered, count,
                            identify, linked, reported, reports, start_link, wait_count, wait_reported, with_emap,
                            with_long_sets)
from tessarobench.installation import APP

__all__ = ["linked"]  # a fixture


def died(bench, file: str, line: int, before: str = "") -> bool:
    """Whether the server ended by this fatal assertion; other threads may have left lines between its own."""
    texts = bench.server.texts() if bench.server.wait_exit() == -signal.SIGABRT else []
    expected = [text for text in (before, f'Fatal error in  "{file}" : {line} .', "Fatal") if text]
    return [text for text in texts if text in expected] == expected


# --- start -------------------------------------------------------------------------------------------------------------


def test_the_identity_starts_the_link(bench):
    bench.start_to_run()
    assert not bench.server.logged("EGLink")
    identify(bench)
    step = bench.server.wait_log("Initializing EGLink, datasize 32 bytes", whole=True)
    bench.server.wait_log("EGLink started", since=step, whole=True)
    bench.server.wait_log("EGLink::run() - thread started 0x")
    bench.server.wait_log("JOIN RX MULTICAST SUCCESS", whole=True)


def test_a_second_identity_is_fatal(bench):
    start_link(bench)
    identify(bench, 401)
    assert died(bench, "src/tessaroserver", 168)


def test_a_missing_emap_is_fatal(bench):
    bench.drop(APP, "EMAP")
    bench.start_to_run()
    identify(bench)
    assert died(bench, "src/tessaroserver", 119)


@pytest.mark.parametrize("port, line, text", [(5825, 101, "Tx QUdpSocket bind() failed"),
                                              (5827, 102, "Rx QUdpSocket bind() failed")])
def test_a_port_in_other_hands_is_fatal(bench, port, line, text):
    with bench.local_socket() as occupant:
        occupant.bind(("", port))
        bench.start_to_run()
        identify(bench)
        assert died(bench, "submodules/eg-link/src/eglink", line, before=text)


def test_group_and_port_from_the_configuration(bench):
    bench.change(APP, "MCIP", value="239.1.2.3")
    bench.change(APP, "MCPT", value="7000")
    bench.start_to_run()
    elsewhere = bench.closing(bench.machine_controller(group="239.1.2.3", port=7000, link="elsewhere"))
    identify(bench)
    elsewhere.cycle(SET)
    bench.wait_for(lambda: bench.journal.count(link="elsewhere", direction="<", kind="VRPI"))
    wait_reported(bench, OPERATIONAL)
    assert count(bench, "VRPI") == 0


def test_group_and_port_without_the_keys(bench):
    bench.drop(APP, "MCIP")
    bench.drop(APP, "MCPT")
    start_link(bench)
    wait_count(bench, "VRPI")


# --- channels ----------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("emap", range(8))
def test_each_enable_map(bench, emap):
    with_emap(bench, emap)
    bench.mc
    bench.start_to_run()
    identify(bench)
    bench.server.wait_log("EGLink started" if emap else "EGLink not started.", whole=True)
    if not emap:
        bench.mc.cycle(SET)
        bench.mc.command(b"anybody?")
        bench.let_pass(1.2)
        assert reports(bench) == [NOT_CONFIGURED]
        return

    bench.server.wait_log("JOIN RX MULTICAST SUCCESS", whole=True)
    first = [LINK_ERROR, OPERATIONAL] if emap & 4 else [OPERATIONAL]
    wait_reported(bench, first[0])
    bench.mc.command(b"hello")
    bench.mc.send_set(SET)
    wait_reported(bench, OPERATIONAL)
    bench.let_pass(0.6)  # more than two periods of VRPI
    assert (count(bench, "VRPI") > 0) == bool(emap & 1)
    assert (count(bench, "VRAI") > 0) == bool(emap & 2)
    assert [state for state in reports(bench) if state != NOT_CONFIGURED] in (first, [OPERATIONAL])


def test_emap_256_starts_a_link_in_which_nothing_is_enabled(bench):
    with_emap(bench, 256)
    start_link(bench)
    bench.mc.cycle(SET)
    bench.mc.command(b"anybody?")
    bench.let_pass(1.2)
    assert count(bench, "VRPI") == count(bench, "VRAI") == 0
    assert reports(bench) == [NOT_CONFIGURED]


# --- periodic data to the controller ---------------------------------------------------------------------------------


def test_vrpi_comes_every_250_ms_with_running_serials(bench):
    start_link(bench)
    wait_count(bench, "VRPI", 9)
    packets = bench.journal.select(bench.mc.link, "<", "VRPI")[:9]
    assert [packet.serial for packet in packets] == list(range(9))
    assert {packet.origin for packet in packets} == {IDENTITY}
    assert {packet.source for packet in packets} == {bench.eth0.host}
    assert 1.8 < packets[8].time - packets[0].time < 2.3


def test_vrpi_carries_the_process_image_without_its_first_two_bytes(bench):
    start_link(bench)
    bench.bc.set(bu_state=17, armed_ru=1001, machine_name="crane 5")
    expected = bytes(bench.bc.image)[2:] + b"\0\0"
    bench.wait_for(lambda: bench.mc.periodic == expected, what="the new image in a VRPI")
    assert len(expected) == 80


# --- periodic data from the controller -------------------------------------------------------------------------------


def test_the_first_complete_set_makes_the_link_operational(bench):
    with_long_sets(bench)
    start_link(bench)
    bench.server.wait_log("Initializing EGLink, datasize 1240 bytes", whole=True)
    wait_reported(bench, LINK_ERROR)
    serial = bench.mc.send_set(LONG_SET, order=[0, 2])
    bench.let_pass(0.6)
    assert reported(bench) == LINK_ERROR
    bench.mc.send_set(LONG_SET, order=[1], serial=serial)
    wait_reported(bench, OPERATIONAL)


def test_torn_and_repeated_parts_are_told_and_complete_nothing(bench):
    with_long_sets(bench)
    start_link(bench)
    wait_reported(bench, LINK_ERROR)
    bench.mc.send_set(LONG_SET, order=[0, 1])
    bench.mc.send_set(LONG_SET, order=[2])
    bench.server.wait_log("Out of sequence partial VRPO received.", whole=True)
    bench.mc.send_set(LONG_SET, order=[1, 1])
    bench.server.wait_log("Duplicate partial VRPO received.", whole=True)
    bench.mc.send_part(3, b"beyond the last")
    bench.server.wait_log("Out of range VRPO subpacket index received, ignored. ( 3 )", whole=True)
    bench.let_pass(0.6)
    assert reported(bench) == LINK_ERROR
    bench.mc.send_set(LONG_SET, order=[2, 1, 0])
    wait_reported(bench, OPERATIONAL)


def test_without_a_size_no_set_ever_completes(bench):
    for row in list(bench.table(EG_TAGS)):
        bench.drop(EG_TAGS, row["tag"])
    start_link(bench)
    bench.server.wait_log("Initializing EGLink, datasize 0 bytes", whole=True)
    bench.mc.cycle(SET)
    bench.server.wait_log("Out of range VRPO subpacket index received, ignored. ( 0 )", whole=True)
    bench.let_pass(1.2)
    assert [state for state in reports(bench) if state != NOT_CONFIGURED] == [LINK_ERROR]


# --- the link's state ------------------------------------------------------------------------------------------------


def test_silence_gives_link_error_and_the_link_recovers_five_seconds_after_the_last_fault(linked):
    bench = linked
    since = bench.journal.mark()
    bench.mc.silence()
    silent = bench.journal.now
    wait_reported(bench, LINK_ERROR, since=since)
    fell = bench.journal.now
    assert 1.8 < fell - silent < 3.2  # 2000 ms since the last data before it, and up to 500 ms until the next status record

    bench.server.wait_log("Periodic data timer expired. 2", whole=True)  # the second expiry, still silent
    back = bench.journal.now
    bench.mc.cycle(SET)
    bench.let_pass(4.0)
    assert reported(bench) == LINK_ERROR  # good data do not shorten the wait
    wait_reported(bench, OPERATIONAL)
    assert 4.7 < bench.journal.now - back < 6.2
    assert reports(bench, since) == [OPERATIONAL, LINK_ERROR, OPERATIONAL]


def test_an_acknowledgement_out_of_the_blue_is_a_link_error(linked):
    bench = linked
    since = bench.journal.mark()
    bench.mc.acknowledge(40000)
    bench.server.wait_log("VRAO: expected id 0 , got 40000", whole=True)
    wait_reported(bench, LINK_ERROR, since=since)
    wait_reported(bench, OPERATIONAL, timeout=8)
    answered(bench)
