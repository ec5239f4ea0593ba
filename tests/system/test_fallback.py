"""Remote units without a network, served through the base controller, and their way there and back."""

import pytest

from tessarobench import glink, internallink as il
from tessarobench.glink import BaseStatus
from tessarobench.installation import APP
from tessarobench.ledger import Ledger
from tessarobench.traffic import Traffic
from units_support import wait_commands

BLOCK_BYTES = 250
REMOVED = "RGPCom::removeFallbackLink"


@pytest.fixture
def relayed(serving):
    """Two units that have joined over the fallback."""
    for unit_id in (1001, 1002):
        serving.unit(unit_id).join_fallback().wait_joined()
    yield serving
    assert serving.fallback.complaints == []


def shorts(bench):
    return [(short.unit, short.data) for short in bench.fallback.shorts]


def blocks_to(bench, unit_id, since=0):
    return [(block.remaining, len(block.data)) for block in bench.fallback.blocks[since:] if block.unit == unit_id]


# --- joining and leaving -----------------------------------------------------------------------------------------------


def test_joining_over_the_fallback(serving):
    unit = serving.unit(1001).join_fallback().wait_joined()
    assert unit.path == "fallback"
    assert [event.kind for event in serving.journal.select("glink", "<", unit=1001)][:2] == ["ack", "INITACK"]
    assert blocks_to(serving, 1001)[:2] == [(21, 21), (63, 63)]
    serving.bc.set(bu_state=16, tsaps=3)
    serving.wait_for(lambda: unit.base_status == BaseStatus(400, 16, 3, 0, 0, 0, 0))
    assert unit.messages(glink.HEARTBEAT) == []
    serving.wait_for(lambda: serving.journal.last(link="uart", direction="<", kind="status").units == 1)


@pytest.mark.parametrize("unit_id, checksum, expected", [
    (2000, None, (1, "This RU is not paired to this BU.")),
    (1001, bytes(16), (4, "Application SW checksum mismatch.")),
])
def test_refusals_are_the_same_as_over_tcp(serving, unit_id, checksum, expected):
    unit = serving.unit(unit_id)
    unit.checksum = checksum or unit.checksum
    assert unit.join_fallback().wait_verdict() == expected


def test_leaving_with_a_farewell(relayed):
    unit, other = relayed.unit(1001), relayed.unit(1002)
    log = len(relayed.server.log)
    unit.leave_fallback()
    relayed.server.wait_log(f"{REMOVED} 1001", since=log)
    relayed.wait_for(lambda: relayed.journal.last(link="glink", direction="<", kind="ack", of="fallback deinit"))
    seen, blocks = len(other.received), len(relayed.fallback.blocks)
    relayed.wait_for(lambda: len(other.messages(glink.BASE_STATUS, seen)) >= 2)
    assert blocks_to(relayed, 1001, blocks) == []
    unit.join_fallback().wait_joined()


def test_periodic_data_are_kept_for_a_unit_that_joins_over_the_fallback(serving):
    serving.bc.periodic(bytes(range(204)))
    unit = serving.unit(1001).join_fallback().wait_joined()
    serving.wait_for(lambda: len(unit.received) >= 2)
    assert [message.msg_id for message in unit.received[:2]] == [glink.INITACK, glink.PERIODIC_DATA]
    assert unit.received[1].payload == b"\1" + bytes(range(204))


# --- messages both ways ------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("size, blocks", [(0, [21]), (1, [22]), (229, [250]), (230, [250, 1]), (479, [250, 250]),
                                          (480, [250, 250, 1])])
def test_messages_to_a_unit_travel_in_blocks(relayed, size, blocks):
    unit, seen = relayed.unit(1001), len(relayed.fallback.blocks)
    data = bytes(number % 256 for number in range(size))
    relayed.fallback.send_short(1001, data)
    relayed.wait_for(lambda: unit.payloads(glink.SERVICE_FORWARD) == [data])
    remaining = [sum(blocks[number:]) for number in range(len(blocks))]
    sent = [block for block in blocks_to(relayed, 1001, seen) if block not in ((30, 30), (21, 21))]  # status, ACKs
    assert sent == [block for block in zip(remaining, blocks) if block != (21, 21)]
    assert relayed.fallback.early == []


@pytest.mark.parametrize("size", [0, 1, 229, 230, 400])
def test_messages_from_a_unit_are_put_together(relayed, size):
    data = bytes((7 * number) % 256 for number in range(size))
    sent = relayed.unit(1001).service_forward(data)
    relayed.wait_for(lambda: sent.acked and shorts(relayed))
    assert shorts(relayed) == [(1001, data)]


def test_commands_both_ways(relayed):
    units = [relayed.unit(unit_id) for unit_id in (1001, 1002)]
    for unit in units:
        unit.inbox = Ledger(9)
    ours = Ledger(9)
    for _ in range(30):
        for unit in units:
            unit.command()
    relayed.wait_for(lambda: all(unit.idle for unit in units))
    for number in range(10):
        sending = relayed.bc.command(ours.issue())
        relayed.wait_for(lambda: sending.acked and all(unit.inbox.seen == number + 1 for unit in units))
    arrived = wait_commands(relayed, 60)
    for unit in units:
        for payload in arrived:
            unit.ledger.tick(payload)
        assert unit.ledger.balanced and not unit.ledger.overtaken, unit.ledger
        unit.inbox.issued = ours.issued
        assert unit.inbox.balanced and not unit.inbox.overtaken, unit.inbox


def test_units_take_turns(relayed):
    """What waits for two units leaves in turn, so that neither has to wait for all of the other's."""
    units = [relayed.unit(unit_id) for unit_id in (1001, 1002)]
    for unit in units:
        unit.ack_delay = 0.04
    for number in range(6):
        for unit in units:
            relayed.fallback.send_short(unit.id, b"%d" % number)
    expected = [b"%d" % number for number in range(6)]
    relayed.wait_for(lambda: all(unit.payloads(glink.SERVICE_FORWARD) == expected for unit in units))
    (first, *_, last), (other_first, *_, other_last) = [
        [message.when for message in unit.messages(glink.SERVICE_FORWARD)] for unit in units]
    assert first < other_last and other_first < last


@pytest.mark.parametrize("count, flow_seconds, hertz, period", [(2, 0.02, 20, 0.2), (3, 0.05, 10, 0.2),
                                                                (4, 0.005, 20, 0.02)])
def test_units_on_a_slow_fallback_lose_nothing_and_never_stall(bench, count, flow_seconds, hertz, period):
    """More periodic data than the channel carries, and commands both ways all the time. Data may be replaced by newer
    ones; every command arrives, once and in its order."""
    bench.change(APP, "EMAP", value=0)
    bench.bc.retry_seconds = 1.0
    bench.pair_units(count)
    bench.start_to_serve()
    units = [bench.unit(1001 + number).join_fallback().wait_joined() for number in range(count)]
    bench.fallback.flow.delay = (0.5 * flow_seconds, 1.5 * flow_seconds)
    data = bench.bc.send_every(1 / hertz, lambda: (il.PERIODIC, bytes(204)))
    traffic = Traffic(bench, units, period)
    traffic.run_for(15, timeout=10)
    data.cancel()
    traffic.stop(timeout=10)
    for unit in units:
        traffic.wait_arrived(unit)
        for ledger in (unit.ledger, unit.inbox):
            assert ledger.balanced and not ledger.overtaken, f"{unit.id}: {ledger}"
    assert bench.server.logged("LOST") == 0
    assert bench.fallback.complaints == [] and bench.fallback.abandoned == 0


def test_one_unit_over_tcp_and_one_over_the_fallback(serving):
    near, far = serving.unit(1001).join().wait_joined(), serving.unit(1002).join_fallback().wait_joined()
    data = bytes(range(100))
    serving.bc.periodic(data)
    serving.bc.command(b"both")
    for unit, path in ((near, "TCP"), (far, "fallback")):
        serving.wait_for(lambda: unit.messages(glink.PERIODIC_DATA) and unit.messages(glink.CMD))
        assert {message.path for message in unit.received} == {path}
        assert unit.payloads(glink.PERIODIC_DATA)[-1] == b"\1" + data


# --- flow control and faults of the channel ----------------------------------------------------------------------------


def test_without_flow_control_the_next_block_waits(relayed):
    unit, other = relayed.unit(1001), relayed.unit(1002)
    relayed.fallback.hold_flow()
    seen = len(relayed.fallback.blocks)
    relayed.fallback.send_short(1001, bytes(400))
    relayed.wait_for(lambda: (421, 250) in blocks_to(relayed, 1001, seen))
    relayed.fallback.send_short(1002, b"meanwhile")
    relayed.wait_for(lambda: other.payloads(glink.SERVICE_FORWARD) == [b"meanwhile"])
    assert unit.messages(glink.SERVICE_FORWARD) == []
    assert relayed.fallback.early == []
    relayed.fallback.release_flow()
    relayed.wait_for(lambda: unit.payloads(glink.SERVICE_FORWARD) == [bytes(400)])


def test_lost_flow_control_costs_that_unit_its_channel_until_it_joins_again(relayed):
    unit, other = relayed.unit(1001), relayed.unit(1002)
    relayed.wait_for(lambda: unit.idle and relayed.bc.idle)
    relayed.fallback.flow.mute = True
    seen = len(relayed.fallback.blocks)
    relayed.fallback.send_short(1001, bytes(400))
    relayed.wait_for(lambda: (421, 250) in blocks_to(relayed, 1001, seen))
    relayed.fallback.flow.mute = False
    relayed.fallback.grant_flow(1002)
    relayed.fallback.send_short(1002, b"still here")
    relayed.wait_for(lambda: other.payloads(glink.SERVICE_FORWARD) == [b"still here"])
    unit.join_fallback()
    relayed.wait_for(lambda: unit.joins == 2)
    relayed.fallback.send_short(1001, b"back")
    relayed.wait_for(lambda: b"back" in unit.payloads(glink.SERVICE_FORWARD))


def test_a_rejected_channel_takes_the_link_from_the_unit_of_the_last_send(relayed):
    log, unit = len(relayed.server.log), relayed.unit(1001)
    relayed.fallback.reject()
    relayed.server.wait_log(REMOVED, since=log)
    assert relayed.server.logged(REMOVED, log) == 1
    unit.join_fallback()
    relayed.wait_for(lambda: unit.joins == 2)


@pytest.mark.parametrize("raw", [b"", b"\1", b"\2", b"\xff", b"\xe9\x03\x05", b"\xe9\x03\x00\x00", b"\xe9\x03\x01\x00ab",
                                 b"\xe9\x03\xff\xff" + bytes(250), b"\xe8\x03"])
def test_malformed_blocks_are_survived(relayed, raw):
    """What is left of a message that never ends is forgotten with the next block of another unit."""
    sending = relayed.fallback.send_raw(raw)
    relayed.wait_for(lambda: sending.acked)
    for unit_id in (1002, 1001):
        relayed.unit(unit_id).join_fallback()
        relayed.wait_for(lambda: relayed.unit(unit_id).joins == 2)
    relayed.unit(1002).command()
    wait_commands(relayed, 1)


@pytest.mark.real_time("the server is busy without a pause, and that takes no virtual time")
def test_an_endless_message_is_bounded(relayed):
    """Blocks that always announce more: memory stays flat, and the next whole message is taken."""
    block = (1001).to_bytes(2, "little") + b"\xff\xff" + bytes(250)
    last = [relayed.fallback.send_raw(block) for _ in range(400)][-1]
    relayed.wait_for(lambda: last.acked, 60)
    before = relayed.server.memory()
    last = [relayed.fallback.send_raw(block) for _ in range(3000)][-1]
    relayed.wait_for(lambda: last.acked, 60)
    assert relayed.server.memory() - before < 400_000, "3000 blocks are 750000 bytes"
    unit = relayed.unit(1002)
    unit.join_fallback()
    relayed.wait_for(lambda: unit.joins == 2)


def test_half_a_message_of_one_unit_is_not_joined_with_anothers(relayed):
    frame = glink.message(glink.SERVICE_FORWARD, bytes(300)).pack()
    relayed.fallback.send_raw((1001).to_bytes(2, "little") + len(frame).to_bytes(2, "little") + frame[:250])
    relayed.unit(1002).service_forward(b"whole")
    relayed.wait_for(lambda: shorts(relayed))
    relayed.unit(1001).service_forward(b"whole as well")
    relayed.wait_for(lambda: len(shorts(relayed)) == 2)
    assert shorts(relayed) == [(1002, b"whole"), (1001, b"whole as well")]
    assert not relayed.server.logged("CRC error")


def test_a_corrupt_frame_costs_one_unit_its_link_and_nothing_else(relayed):
    log = len(relayed.server.log)
    unit, other = relayed.unit(1001), relayed.unit(1002)
    unit.to_base_unit.script("corrupt")
    lost = unit.command(b"never arrives")
    relayed.server.wait_log(REMOVED, since=log)
    assert relayed.server.logged(REMOVED, log) == 1, "one bad frame closes once"
    for number, each in enumerate((unit, other), 1):
        each.join_fallback()
        relayed.wait_for(lambda: each.joins == 2)
        each.command(b"%d" % number)
    assert [payload[:1] for payload in wait_commands(relayed, 2)] == [b"1", b"2"]
    assert not lost.acked


def pace_of(bench, unit, seconds):
    """The longest time between two BASE_STATUS that the unit gets from now on."""
    seen = len(unit.received)
    bench.wait_for(lambda: len(unit.messages(glink.BASE_STATUS, seen)) > 2 * seconds, 3 * seconds, "BASE_STATUS")
    return max(unit.gaps(since=seen))


@pytest.mark.parametrize("number", range(2))
def test_lost_acknowledgements_on_the_fallback_silence_nobody(relayed, number):
    """One of each unit, again and again, at whatever moment. The unit of the other ones does not even notice."""
    unit, other = relayed.unit(1001), relayed.unit(1002)
    for lossy, steady in ((unit, other), (other, unit)):
        for _ in range(3):
            relayed.wait_for(lambda: lossy.idle)
            lossy.to_base_unit.script("drop")
            relayed.wait_for(lambda: lossy.to_base_unit.faultless)
            assert pace_of(relayed, steady, 2) < 0.8
        assert pace_of(relayed, lossy, 3) < 0.8
    relayed.bc.command(b"for both")
    relayed.wait_for(lambda: all(each.payloads(glink.CMD)[-1:] == [b"for both"] for each in (unit, other)), 2)


def test_a_unit_that_vanished_on_the_fallback_holds_up_nobody(relayed):
    """It hears nothing, says nothing, and the base controller has commands for everybody."""
    gone, other = relayed.unit(1001), relayed.unit(1002)
    log = len(relayed.server.log)
    gone.mute()
    other.inbox = Ledger(9)
    commands = relayed.bc.send_every(0.1, lambda: (il.COMMAND, other.inbox.issue()))
    assert pace_of(relayed, other, 5) < 0.8
    commands.cancel()
    relayed.wait_for(lambda: other.inbox.balanced, 1)
    assert not other.inbox.overtaken
    assert relayed.server.logged("message to RU 1001 given up", log) == 1
    assert relayed.server.logged("message to RU 1002 given up", log) == 0

    seen = len(gone.received)
    gone.mute(False)
    relayed.wait_for(lambda: len(gone.messages(glink.BASE_STATUS, seen)) >= 2, 3)


def test_units_that_vanished_on_the_fallback_cost_bounded_memory(relayed):
    """Nothing ends their link there: messages for each are queued to a limit, and said so once; who comes back is served, while
    another stays away, too."""
    refused = "command queue of RU {} is full, command refused."
    units = relayed.unit(1001), relayed.unit(1002)
    inbox = Ledger(3)
    for unit in units:
        unit.mute()
    for _ in range(330):
        relayed.bc.command(inbox.issue())
    for unit in units:
        relayed.server.wait_log(refused.format(unit.id), 10)
    for unit in units:
        unit.inbox = Ledger(3)
        unit.mute(False)
        unit.join_fallback()
        relayed.wait_for(lambda: unit.joins == 2 and unit.inbox.seen, 10)
    assert [relayed.server.logged(refused.format(unit.id)) for unit in units] == [1, 1]


def test_a_lost_internal_link_and_its_return(relayed):
    """The units need not join anew, but may."""
    log, units = len(relayed.server.log), [relayed.unit(unit_id) for unit_id in (1001, 1002)]
    relayed.bc.mute()
    relayed.server.wait_log("NO_BI_LINK", since=log, whole=True)
    relayed.bc.forget()
    seen = {unit.id: len(unit.received) for unit in units}
    relayed.bc.mute(False)
    relayed.server.wait_log("RUN", since=log, whole=True)
    relayed.wait_for(lambda: all(unit.messages(glink.BASE_STATUS, seen[unit.id]) for unit in units), 2)
    for unit in units:
        unit.join_fallback()
        relayed.wait_for(lambda: unit.joins == 2)


# --- from TCP to the fallback and back ---------------------------------------------------------------------------------


@pytest.mark.parametrize("number", range(3))
def test_fallback_and_return_under_load_lose_and_double_nothing(serving, number):
    """A unit whose network gets weak joins over the fallback while TCP still stands, and goes back later. A second unit
    stays on TCP. Commands run both ways all the time; every one arrives once."""
    unit, other = (serving.unit(unit_id).join().wait_joined() for unit_id in (1001, 1002))
    traffic = Traffic(serving, (unit, other))
    for cycle in range(1, 4):
        traffic.run_for(12)
        unit.join_fallback()
        serving.wait_for(lambda: unit.joins == 2 * cycle and unit.path == "fallback")
        traffic.run_for(12)
        unit.leave()
        traffic.run_for(12)
        unit.join()
        serving.wait_for(lambda: unit.joins == 2 * cycle + 1 and unit.path == "TCP")
    traffic.run_for(12)
    traffic.stop()
    for each in (unit, other):
        traffic.wait_arrived(each)
        assert each.ledger.balanced, f"from {each.ledger}"
        assert each.inbox.balanced, f"to {each.id}: {each.inbox}"
    assert not other.ledger.overtaken and not other.inbox.overtaken
    assert serving.fallback.complaints == [] and serving.fallback.abandoned == 0


def test_what_the_base_controller_has_not_asked_for_comes_first_over_tcp(relayed):
    """Neither lost nor late nor out of order, however slowly the base controller asks."""
    unit, other = relayed.unit(1001), relayed.unit(1002)
    relayed.wait_for(lambda: unit.idle and other.idle and relayed.bc.idle)
    relayed.fallback.hold_flow()
    commands = [b"command %d" % number for number in range(4)]
    for command in commands:
        relayed.bc.command(command)
    relayed.wait_for(lambda: unit.payloads(glink.CMD))
    unit.join()
    relayed.wait_for(lambda: unit.joins == 2 and len(unit.messages(glink.CMD)) == len(commands))
    assert unit.payloads(glink.CMD) == commands
    assert [message.path for message in unit.messages(glink.CMD)][-1] == "TCP"
    relayed.fallback.release_flow()
    relayed.wait_for(lambda: other.payloads(glink.CMD) == commands)
    assert unit.payloads(glink.CMD) == commands
    assert relayed.server.logged("dropped, it is back on TCP") == 0


def test_a_network_that_breaks_off_costs_only_what_was_under_way(serving):
    """Out of reach from one moment to the next. What the base controller sent until the unit joined over the fallback
    may be lost, as nobody can know; nothing afterwards, nothing twice, and nothing for the other unit."""
    unit, other = (serving.unit(unit_id).join().wait_joined() for unit_id in (1001, 1002))
    traffic = Traffic(serving, (unit, other))
    traffic.run_for(20)
    serving.wait_for(lambda: not unit.in_flight and unit.lose_network() is None)
    safe = traffic.issued - 5  # received, or in the queues of the internal link
    unit.join_fallback()
    serving.wait_for(lambda: unit.joins == 2)
    issued = traffic.issued
    traffic.run_for(20)
    unit.join()
    serving.wait_for(lambda: unit.joins == 3 and unit.path == "TCP")
    traffic.run_for(20)
    traffic.stop()
    traffic.wait_arrived(unit, except_for=issued - safe)
    traffic.wait_arrived(other)
    assert other.ledger.balanced and other.inbox.balanced, f"{other.ledger} {other.inbox}"
    assert unit.ledger.balanced and unit.inbox.doubled == [], f"{unit.ledger} {unit.inbox}"
    assert all(safe <= number <= issued for number in unit.inbox.missing), unit.inbox


def test_init_over_tcp_while_on_the_fallback_is_answered_once(serving):
    unit = serving.unit(1001)
    for cycle in range(1, 11):
        unit.join_fallback()
        serving.wait_for(lambda: unit.joins == 2 * cycle - 1)
        unit.join()
        serving.wait_for(lambda: unit.joins == 2 * cycle)
        serving.bc.command(b"%d" % cycle)
        serving.wait_for(lambda: unit.payloads(glink.CMD)[-1:] == [b"%d" % cycle])
        unit.leave()
    assert len(unit.verdicts) == 20


def test_after_the_return_everything_travels_over_tcp(serving):
    unit = serving.unit(1001).join_fallback().wait_joined()
    unit.join()
    serving.wait_for(lambda: unit.joins == 2)
    serving.server.wait_log(f"{REMOVED} 1001")
    seen = len(unit.received)
    serving.bc.periodic(b"by TCP")
    serving.wait_for(lambda: len(unit.messages(glink.BASE_STATUS, seen)) >= 2 and unit.messages(glink.PERIODIC_DATA, seen))
    assert {message.path for message in unit.received[seen:]} == {"TCP"}


def test_losing_the_network_without_a_fallback_and_returning(serving):
    """The unit comes back over TCP before the base unit has noticed that it was away."""
    unit = serving.unit(1001).join().wait_joined()
    for cycle in range(2, 6):
        unit.lose_network()
        unit.join()
        serving.wait_for(lambda: unit.joins == cycle)
    seen = len(unit.received)
    serving.wait_for(lambda: len(unit.messages(glink.BASE_STATUS, seen)) >= 2)
