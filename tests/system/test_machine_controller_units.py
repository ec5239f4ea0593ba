"""Between the machine controller and the remote units: data and commands in both directions."""

import pytest

from controllerlink import (LINK_ERROR, LONG_SET, OPERATIONAL, SET, count, linked, reported, reports, start_link,
                            wait_count, wait_reported, with_emap, with_long_sets)
from tessarobench import glink

__all__ = ["linked"]  # a fixture

UNITS = (1001, 1002)


def join(bench, *units):
    return [bench.unit(unit).join().wait_joined() for unit in units or UNITS]


def wait_periodic(bench, unit, *expected):
    """The periodic data that a unit has received from the machine controller, all of them."""
    bench.wait_for(lambda: from_controller(unit) == list(expected), what=f"periodic data at unit {unit.id}")


def from_controller(unit):
    return [payload for payload in unit.payloads(glink.PERIODIC_DATA)
            if payload[0] == glink.FROM_MACHINE_CONTROLLER]


def sendings(bench, since=0):
    """All VRCI since then."""
    return bench.journal.select(bench.mc.link, "<", "VRCI", since)


# --- periodic data -----------------------------------------------------------------------------------------------------


def test_periodic_data_reach_all_units_with_origin_0(bench):
    start_link(bench)
    units = join(bench)
    bench.mc.send_set(SET)
    for unit in units:
        wait_periodic(bench, unit, b"\0" + SET)


def test_unchanged_sets_are_not_forwarded(bench):
    start_link(bench)
    unit, = join(bench, 1001)
    other = bytes(reversed(SET))
    for data in (SET, SET, SET, other, other, SET):
        bench.mc.send_set(data)
        bench.wait_for(lambda data=data: from_controller(unit)[-1:] == [b"\0" + data])
    assert from_controller(unit) == [b"\0" + SET, b"\0" + other, b"\0" + SET]


def test_parts_are_joined_by_index_whatever_their_order(bench):
    with_long_sets(bench)
    start_link(bench)
    unit, = join(bench, 1001)
    bench.mc.send_set(LONG_SET, order=[0, 2, 0, 1])
    wait_periodic(bench, unit, b"\0" + LONG_SET)
    bench.server.wait_log("Duplicate partial VRPO received.", whole=True)


def test_torn_sets_never_reach_a_unit(bench):
    """Every second set lacks a part, and what is left of it must not be mixed into the next one."""
    with_long_sets(bench)
    start_link(bench)
    unit, = join(bench, 1001)
    whole = []
    for number in range(1, 6):
        bench.mc.send_set(bytes([100 + number]) * 1240, order=[(0, 1), (1, 2), (2, 0)][number % 3])
        bench.mc.send_set(bytes([number]) * 1240)
        whole.append(b"\0" + bytes([number]) * 1240)
        bench.wait_for(lambda: from_controller(unit)[-1:] == whole[-1:])
    assert from_controller(unit) == whole


def test_a_unit_that_joins_later_gets_the_newest_data_at_once(linked):
    unit, = join(linked, 1001)
    wait_periodic(linked, unit, b"\0" + SET)


# --- commands of the controller ------------------------------------------------------------------------------------------


def test_a_command_of_the_controller_reaches_all_units(linked):
    bench = linked
    units = join(bench)
    bench.mc.command(b"lower the boom")
    for unit in units:
        bench.wait_for(lambda unit=unit: unit.payloads(glink.CMD) == [b"lower the boom"])
    wait_count(bench, "VRAI", id=0)


def test_a_dropped_command_reaches_nobody(linked):
    bench = linked
    unit, = join(bench, 1001)
    for number, text in ((5, b"first"), (5, b"same id"), (6, b"third")):
        bench.mc.command(text, number)
    bench.wait_for(lambda: unit.payloads(glink.CMD) == [b"first", b"third"])
    bench.server.wait_log("Unexpected VRCO command id 6 got 5", whole=True)


@pytest.mark.parametrize("payload", [b"\x07\x00", b"\x07\x00abc", b"\x07\x00\x00\x00\x00\x00"])
def test_a_command_without_content_is_an_empty_one(linked, payload):
    bench = linked
    unit, = join(bench, 1001)
    bench.mc.send("VRCO", payload)
    bench.wait_for(lambda: unit.payloads(glink.CMD) == [b""])


# --- commands of the units -----------------------------------------------------------------------------------------------


def test_a_units_command_reaches_both_controllers(linked):
    bench = linked
    unit, = join(bench, 1001)
    unit.command(b"hoist up")
    bench.wait_for(lambda: bench.mc.commands == [b"hoist up"])
    bench.wait_for(lambda: bench.journal.last(link="uart", direction="<", kind="command",
                                              payload=b"hoist up" + bytes(8)))
    bench.server.wait_log("EGLink::send() 34 \"VRCI")
    assert sendings(bench)[0].id == 0


def test_commands_are_numbered_and_acknowledged_one_by_one(linked):
    bench = linked
    unit, = join(bench, 1001)
    texts = [b"one", b"two", b"three"]
    for number, text in enumerate(texts):
        unit.command(text)
        bench.wait_for(lambda number=number: bench.journal.last(link=bench.mc.link, direction=">", kind="VRAO", id=number))
    assert bench.mc.commands == texts
    assert [packet.id for packet in sendings(bench)] == [0, 1, 2]
    assert reported(bench) == OPERATIONAL


def test_a_command_that_nobody_acknowledges_is_sent_twenty_times(linked):
    bench = linked
    unit, = join(bench, 1001)
    bench.mc.acknowledges = False
    since = bench.journal.mark()
    unit.command(b"anybody?")
    bench.server.wait_log("No VRAO for 2000  ms, timeout. Timer stopped.", whole=True)
    packets = sendings(bench)
    assert len(packets) == 20
    assert len({packet.data for packet in packets}) == 1  # serial and id included
    assert 1.8 < packets[-1].time - packets[0].time < 2.1
    wait_reported(bench, LINK_ERROR, since=since)
    wait_reported(bench, OPERATIONAL, timeout=8)
    assert len(sendings(bench)) == 20

    bench.mc.acknowledges = True
    unit.command(b"you there")
    bench.wait_for(lambda: bench.mc.commands == [b"anybody?", b"you there"])


def test_a_late_acknowledgement_ends_the_repetition(linked):
    bench = linked
    unit, = join(bench, 1001)
    bench.mc.acks.script(0.45, *["drop"] * 19)
    unit.command(b"patience")
    bench.wait_for(lambda: any("fate" not in event.detail
                               for event in bench.journal.select(bench.mc.link, ">", "VRAO")))
    sent = count(bench, "VRCI")
    until = bench.journal.now + 0.5
    bench.wait_for(lambda: bench.journal.now > until, poll=0.05)
    assert count(bench, "VRCI") <= sent + 1  # one may have been under way
    assert 4 <= sent <= 7
    assert reports(bench)[-1] == OPERATIONAL


def test_a_wrong_acknowledgement_is_an_error_and_the_right_one_still_counts(linked):
    bench = linked
    unit, = join(bench, 1001)
    bench.mc.wrong_by = -1
    since = bench.journal.mark()
    unit.command(b"hold")
    bench.server.wait_log("VRAO: expected id 0 , got 65535", whole=True)
    bench.wait_for(lambda: count(bench, "VRCI") >= 3)
    bench.mc.wrong_by = 0
    bench.wait_for(lambda: bench.journal.last(link=bench.mc.link, direction=">", kind="VRAO", id=0))
    wait_reported(bench, LINK_ERROR, since=since)
    wait_reported(bench, OPERATIONAL, timeout=8)
    assert count(bench, "VRCI") < 20


def test_a_newer_command_replaces_the_one_that_is_being_repeated(linked):
    bench = linked
    unit, = join(bench, 1001)
    bench.mc.acknowledges = False
    unit.command(b"old")
    wait_count(bench, "VRCI", 3, id=0)
    unit.command(b"new")
    wait_count(bench, "VRCI", id=1)
    since = bench.journal.mark()
    wait_count(bench, "VRCI", 3, id=1, since=since)
    assert count(bench, "VRCI", id=0, since=since) == 0
    bench.mc.acknowledges = True
    bench.wait_for(lambda: bench.journal.last(link=bench.mc.link, direction=">", kind="VRAO", id=1))
    assert reported(bench) == OPERATIONAL


def test_without_the_command_channel_commands_go_to_the_base_controller_alone(bench):
    with_emap(bench, 5)
    start_link(bench)
    unit, = join(bench, 1001)
    unit.command(b"hoist up")
    bench.wait_for(lambda: bench.journal.last(link="uart", direction="<", kind="command"))
    until = bench.journal.now + 0.3
    bench.wait_for(lambda: bench.journal.now > until, poll=0.05)
    assert bench.mc.commands == []
