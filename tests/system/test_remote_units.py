"""Remote units over TCP: joining, what they receive, what becomes of what they send."""

import pytest

from tessarobench import glink, internallink as il
from tessarobench.board import EXAMPLES
from tessarobench.glink import BaseStatus
from tessarobench.installation import APP, UNIT_APPLICATION
from units_support import commands, flushed, pair_more, wait_commands

FATAL = "Fatal error in  src/BI-Link/services/fb_cmd_service :"
REFUSAL = "This RU is not paired to this BU."
MISMATCH = "Application SW checksum mismatch."


# --- joining -----------------------------------------------------------------------------------------------------------


def test_a_paired_unit_is_acknowledged_then_accepted(serving):
    unit = serving.unit(1001).join().wait_joined()
    assert unit.verdict == (glink.ACCEPTED, "")
    first = [event.kind for event in serving.journal.select("glink", "<", unit=1001)][:2]
    assert first == ["ack", "INITACK"]
    assert serving.journal.select("glink", "<", "ack", unit=1001)[0].of == "INIT"


def test_init_frames_are_answered_byte_for_byte(serving):
    unit = serving.unit(1001).join().wait_joined()
    ack, answer = serving.journal.select("glink", "<", unit=unit.id)[:2]
    assert ack.data[:5] == bytes.fromhex("0000 01 01 01") and len(ack.data) == 21
    assert answer.data[:5] == bytes.fromhex("2a00 01 02 00") and answer.data[17:59] == bytes(42)


@pytest.mark.parametrize("unit_id, base_id, checksum, expected", [
    (2000, 400, None, (1, REFUSAL)),
    (1001, 401, None, (1, REFUSAL)),
    (1001, 400, bytes(16), (4, MISMATCH)),
    (2000, 400, bytes(16), (1, REFUSAL)),
])
def test_refusals(serving, unit_id, base_id, checksum, expected):
    """A refused unit is told why, stays connected, and what it sends is still passed on."""
    unit = serving.unit(unit_id)
    unit.base_id, unit.checksum = base_id, checksum or unit.checksum
    assert unit.join().wait_verdict() == expected
    unit.command(b"\1\2\3")
    assert wait_commands(serving, 1) == [b"\1\2\3" + bytes(13)]
    serving.wait_for(lambda: unit.base_status)
    assert unit.connected and not unit.ends


def test_a_unit_that_is_refused_again_and_again_is_reported_once(serving):
    stranger, paired = serving.unit(2000), serving.unit(1001)
    line = "GLINK_MSG_ID_INITACK RU 2000 Error 1"
    for count in range(1, 6):
        stranger.join()
        serving.wait_for(lambda: len(stranger.verdicts) == count)
        stranger.leave()
    assert serving.server.logged(line) == 1
    paired.join().wait_joined()
    stranger.join()
    serving.server.wait_log(line, since=serving.server.wait_log(line))
    assert serving.server.logged(line) == 2


def test_without_an_application_nothing_is_compared(bench):
    (bench.applications / UNIT_APPLICATION / "manifest.csv").unlink()
    bench.start_to_serve()
    bench.unit(1001).checksum = b"something else.."
    bench.unit(1001).join().wait_joined()


def test_a_sites_own_files_do_not_count(bench):
    """Keys, what other systems and the units themselves leave behind, and everything hidden."""
    folder = bench.applications / UNIT_APPLICATION
    (folder / ".cache").mkdir()
    for name in ("config/keys.csv", "Thumbs.db", "screens/main.qmlc", ".version", ".cache/index"):
        (folder / name).write_text("of this site")
    bench.start_to_serve()
    unit = bench.unit(1001)
    unit.checksum = glink.application_checksum(EXAMPLES / UNIT_APPLICATION)
    unit.join().wait_joined()


def test_a_new_application_counts_after_a_configuration_change(serving):
    unit, old = serving.unit(1001), serving.unit_checksum()
    (serving.applications / UNIT_APPLICATION / "screens/more.csv").write_text("row;label\n")
    serving.api.send(b"CCHANGE")
    unit.rejoin_after = 0.02

    def verdict_on(checksum):
        unit.checksum = checksum
        unit.leave()
        unit.join()
        return unit.wait_verdict().code

    serving.wait_for(lambda: serving.journal.last(link="uart", kind="event", event="RECONFIG"))
    for _ in range(100):  # the new checksum is worked out beside everything else
        if verdict_on(serving.unit_checksum()) == glink.ACCEPTED:
            break
    assert verdict_on(serving.unit_checksum()) == glink.ACCEPTED
    assert verdict_on(old) == glink.OTHER_APPLICATION


def test_a_second_init_begins_the_exchange_anew(serving):
    """The unit's program restarts, its connection stays; what was in flight to it must not block what follows."""
    unit = serving.unit(1001)
    unit.ack_delays[glink.PERIODIC_DATA] = None
    unit.join().wait_joined()
    serving.bc.periodic(b"first")
    serving.wait_for(lambda: unit.messages(glink.PERIODIC_DATA))
    unit.ack_delays.clear()
    unit.send_init()
    serving.wait_for(lambda: unit.joins == 2)
    serving.bc.periodic(b"second")
    serving.wait_for(lambda: unit.payloads(glink.PERIODIC_DATA)[-1] == b"\1second")
    assert len(unit.verdicts) == 2


def test_a_connection_may_come_to_speak_for_another_unit(serving):
    """As after the exchange of a unit's identity: the former one has no link any more, the new one has this."""
    unit = serving.unit(1001).join().wait_joined()
    unit.send_init(unit=1002)
    serving.wait_for(lambda: unit.joins == 2)
    for unit_id in (1001, 1002):
        serving.fallback.send_short(unit_id, b"for %d" % unit_id)
    serving.wait_for(lambda: unit.messages(glink.SERVICE_FORWARD))
    seen = len(unit.received)
    serving.wait_for(lambda: len(unit.messages(glink.BASE_STATUS, seen)) >= 3)
    assert unit.payloads(glink.SERVICE_FORWARD) == [b"for 1002"]
    assert min(unit.gaps(since=seen)) > 0.2, "one base status a beat, not one for each of the two"


def test_connected_units_are_counted_in_the_status_record(serving):
    """Every unit that ever introduced itself counts, whether it was accepted or has left."""
    def units():
        record = serving.journal.last(link="uart", direction="<", kind="status")
        return record.units if record else None

    serving.wait_for(lambda: units() == 0)
    for count, unit_id in enumerate((1001, 1002, 2000), 1):
        serving.unit(unit_id).join().wait_verdict()
        serving.wait_for(lambda: units() == count)
    serving.unit(1002).leave()
    serving.unit(1001).send_init()
    serving.wait_for(lambda: serving.unit(1001).joins == 2)
    mark = serving.journal.mark()
    serving.wait_for(lambda: serving.journal.last(link="uart", direction="<", kind="status", since=mark))
    assert units() == 3


# --- towards the units -------------------------------------------------------------------------------------------------


def test_base_status_follows_the_process_image(serving):
    unit = serving.unit(1001).join().wait_joined()
    serving.bc.set(bu_state=17, tsaps=3, unarmed_rus=2, eglink_stat_out=9, eclink_status=1, armed_ru=1001)
    serving.wait_for(lambda: unit.base_status == BaseStatus(400, 17, 3, 2, 9, 1, 1001))
    serving.bc.set(bu_state=16, armed_ru=0)
    serving.wait_for(lambda: unit.base_status == BaseStatus(400, 16, 3, 2, 9, 1, 0))


@pytest.mark.parametrize("size", [5, 204])
def test_periodic_data_reach_every_unit_and_a_late_joiner(serving, size):
    first, second, late = (serving.unit(unit_id) for unit_id in (1001, 1002, 1003))
    serving.bc.periodic(b"\xee" * size)
    for unit in (first, second):
        unit.join().wait_joined()
    data = bytes(range(size))
    serving.bc.periodic(data)
    for unit in (first, second):
        serving.wait_for(lambda: unit.payloads(glink.PERIODIC_DATA)[-1:] == [b"\1" + data])
    pair_more(serving, 3)
    late.join().wait_joined()
    serving.wait_for(lambda: len(late.received) >= 2)
    assert [(message.msg_id, message.payload) for message in late.received[:2]] == [
        (glink.INITACK, bytes(42)), (glink.PERIODIC_DATA, b"\1" + data)]


def test_the_machine_controllers_data_go_before_the_base_controllers(bench):
    """One block is kept of each for late joiners, and one of them can wait: that of the machine controller does."""
    bench.start_to_serve()
    early = bench.unit(1001).join().wait_joined()
    bench.bc.periodic(b"from the base controller")
    bench.wait_for(lambda: early.messages(glink.PERIODIC_DATA))
    data = bytes(range(32))
    bench.mc.cycle(data)
    bench.wait_for(lambda: early.payloads(glink.PERIODIC_DATA)[-1:] == [b"\0" + data])
    bench.mc.silence()
    late = bench.unit(1002).join().wait_joined()
    bench.wait_for(lambda: late.messages(glink.PERIODIC_DATA))
    assert late.payloads(glink.PERIODIC_DATA) == [b"\0" + data]
    assert [message.msg_id for message in late.received[:2]] == [glink.INITACK, glink.PERIODIC_DATA]


def test_commands_of_the_machine_controller_reach_every_unit(bench):
    bench.start_to_serve()
    units = [bench.unit(unit_id).join().wait_joined() for unit_id in (1001, 1002)]
    bench.server.wait_log("JOIN RX MULTICAST SUCCESS")  # sent once, so somebody must listen
    bench.mc.command(b"lamp on")
    for unit in units:
        bench.wait_for(lambda: unit.payloads(glink.CMD) == [b"lamp on"])


def test_a_refused_unit_gets_no_kept_data_but_the_newer_ones(serving):
    kept = serving.bc.periodic(b"kept data")
    serving.wait_for(lambda: kept.acked)
    stranger = serving.unit(2000).join()
    stranger.wait_verdict()
    serving.bc.periodic(b"newer data")
    serving.wait_for(lambda: stranger.messages(glink.PERIODIC_DATA))
    assert stranger.payloads(glink.PERIODIC_DATA) == [b"\1newer data"]


def test_only_the_newest_periodic_data_wait(serving):
    """While one message is in flight, what comes meanwhile replaces what waits."""
    unit = serving.unit(1001).join().wait_joined()
    unit.ack_delays[glink.PERIODIC_DATA] = 0.3
    seen = len(unit.received)
    serving.bc.periodic(b"block 0")
    serving.wait_for(lambda: unit.payloads(glink.PERIODIC_DATA, seen) == [b"\1block 0"])
    sendings = [serving.bc.periodic(b"block %d" % number) for number in range(1, 20)]
    serving.wait_for(lambda: sendings[-1].acked)
    serving.wait_for(lambda: b"\1block 19" in unit.payloads(glink.PERIODIC_DATA, seen))
    blocks = unit.payloads(glink.PERIODIC_DATA, seen)
    assert blocks[-1] == b"\1block 19" and len(blocks) < 6


def test_commands_of_the_base_controller_reach_every_unit_and_overtake(serving):
    first, second = (serving.unit(unit_id).join().wait_joined() for unit_id in (1001, 1002))
    first.ack_delays[glink.PERIODIC_DATA] = 0.2
    seen = len(first.received)
    serving.bc.periodic(b"in flight")
    for number in range(3):
        serving.fallback.send_short(1001, b"forward %d" % number)
    sendings = [serving.bc.command(payload) for payload in (b"", b"\x0a\x82\x90", bytes(range(16)))]
    serving.wait_for(lambda: sendings[-1].acked)
    serving.wait_for(lambda: len(first.messages(glink.SERVICE_FORWARD, seen)) == 3)
    order = [message.msg_id for message in first.received[seen:] if message.msg_id != glink.BASE_STATUS]
    assert order == [glink.PERIODIC_DATA, *[glink.CMD] * 3, *[glink.SERVICE_FORWARD] * 3]
    for unit in (first, second):
        serving.wait_for(lambda: unit.payloads(glink.CMD) == [b"", b"\x0a\x82\x90", bytes(range(16))])


def test_a_service_message_reaches_its_unit_alone(serving):
    first, second = (serving.unit(unit_id).join().wait_joined() for unit_id in (1001, 1002))
    for unit_id in (1002, 9999):
        serving.fallback.send_short(unit_id, b"for %d" % unit_id)
    serving.server.wait_log("Unknown receiver 9999")
    serving.wait_for(lambda: second.payloads(glink.SERVICE_FORWARD) == [b"for 1002"])
    assert first.messages(glink.SERVICE_FORWARD) == []


def test_nothing_queued_for_a_unit_that_left_reaches_it_later(serving):
    unit = serving.unit(1001).join().wait_joined()
    unit.mute()
    serving.wait_for(lambda: serving.bc.periodic(b"in flight").acked or unit.messages(glink.PERIODIC_DATA), poll=0.05)
    serving.bc.command(b"before")
    serving.fallback.send_short(9999, b"")
    serving.server.wait_log("Unknown receiver 9999")  # the command went before it the same way, and waits by now
    unit.leave(hard=True)
    unit.mute(False)
    seen = len(unit.received)
    serving.server.wait_log("No connection: clearing command message queue.")
    unit.join().wait_joined()
    serving.bc.command(b"after")
    serving.wait_for(lambda: unit.payloads(glink.CMD, seen))
    assert unit.payloads(glink.CMD, seen) == [b"after"]


# --- from the units ----------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("command", [b"", b"\7", bytes(range(16))])
def test_commands_are_padded_to_sixteen_bytes(serving, command):
    unit = serving.unit(1001).join().wait_joined()
    sent = unit.command(command)
    assert wait_commands(serving, 1) == [command.ljust(16, b"\0")]
    assert sent.acked


def test_commands_keep_their_order(serving):
    units = [serving.unit(unit_id).join().wait_joined() for unit_id in (1001, 1002)]
    for _ in range(100):
        for unit in units:
            unit.command()
    arrived = wait_commands(serving, 200, 10)
    for unit in units:
        for payload in arrived:
            unit.ledger.tick(payload)
        assert unit.ledger.balanced and not unit.ledger.overtaken, unit.ledger


@pytest.mark.parametrize("value, passes", [(0, False), (4, False), (1, True), (2, True)])
def test_whether_commands_pass_is_set_by_fmap(bench, value, passes):
    bench.change(APP, "EMAP", value=0)
    bench.change(APP, "FMAP", value=value)
    bench.start_to_serve()
    unit = bench.unit(1001).join().wait_joined()
    sent = unit.command(b"move")
    flushed(bench, unit)
    assert sent.acked
    if passes:
        wait_commands(bench, 1)
    assert len(commands(bench)) == passes


def test_a_command_without_fmap_is_fatal(bench):
    bench.change(APP, "EMAP", value=0)
    bench.drop(APP, "FMAP")
    bench.start_to_serve()
    bench.unit(1001).join().wait_joined()
    bench.unit(1001).command(b"move")
    assert bench.server.wait_exit() == -6
    assert bench.server.log[-2].plain == f"{FATAL} 44 ."


def test_a_command_of_seventeen_bytes_is_fatal(serving):
    serving.unit(1001).join().wait_joined()
    serving.unit(1001).command(bytes(17))
    assert serving.server.wait_exit() == -6
    assert serving.server.log[-2].plain == f"{FATAL} 45 ."


@pytest.mark.parametrize("payload", [b"", b"\x0a\x82\x90", bytes(300)], ids=["nothing", "special bytes", "300 bytes"])
def test_service_messages_are_handed_to_the_base_controller(serving, payload):
    unit = serving.unit(1001).join().wait_joined()
    serving.fallback  # listens
    unit.service_forward(payload)
    serving.wait_for(lambda: serving.fallback.shorts)
    assert [short[1:] for short in serving.fallback.shorts] == [(1001, payload)]


@pytest.mark.parametrize("msg_id", [glink.PERIODIC_DATA, glink.POWER_OFF, glink.MACHINE_STOP, glink.BASE_STATUS,
                                    glink.FALLBACK_DEINIT, 10, 77, 255])
def test_other_messages_are_acknowledged_and_go_nowhere(serving, msg_id):
    unit = serving.unit(1001).join().wait_joined()
    mark = serving.journal.mark()
    sent = unit.send(msg_id, b"data")
    flushed(serving, unit)
    assert sent.acked
    seen = [event.kind for event in serving.journal.select("uart", "<", since=mark)]
    assert set(seen) <= {"ack", "status", "cfallback"}, seen


def test_a_message_of_an_unknown_type_is_ignored(serving):
    """Neither a message nor an acknowledgement: not answered, and the next one is read as usual."""
    unit = serving.unit(1001).join().wait_joined()
    mark = serving.journal.mark()
    unit.send_raw(glink.message(glink.CMD, b"ignored")._replace(kind=2).pack())
    unit.command(b"heard")
    assert wait_commands(serving, 1) == [b"heard".ljust(16, b"\0")]
    assert serving.journal.count(link="glink", direction="<", kind="ack", of="command", since=mark) == 1


# --- machine stop ------------------------------------------------------------------------------------------------------

CHECKED_OPEN, CHECKED_CLOSED = "RelayOpen", "Relay closed"


def armed(bench, unit_id=1001, state=17):
    for paired in (1001, 1002):
        bench.unit(paired).join().wait_joined()
    bench.bc.set(bu_state=state, armed_ru=unit_id)
    bench.wait_for(lambda: bench.api.tag("ARMED_RU") == str(unit_id) and bench.api.tag("BU_STATE") == str(state))
    return bench.unit(1001)


def test_a_machine_stop_that_opened_the_relay_is_confirmed(serving):
    """The base controller has opened the contact, as it should: the base unit looks after a second and is content."""
    unit, log = armed(serving), len(serving.server.log)
    unit.machine_stop()
    serving.relay.hold_monitor("1\n")
    serving.server.wait_log(CHECKED_OPEN)
    assert serving.relay.driven == "1"
    assert "NO_BI_LINK" not in serving.server.texts(log)


@pytest.mark.parametrize("welded", [False, True], ids=["healthy relay", "welded contact"])
def test_a_machine_stop_that_did_not_open_the_relay_opens_it(serving, welded):
    """And counts as a loss of the link, which comes back when the base controller answers a RESET."""
    unit, log = armed(serving), len(serving.server.log)
    serving.relay.welded = welded
    serving.bc.deaf_to.add(il.EVENTS)
    began = serving.journal.now
    unit.machine_stop()
    serving.server.wait_log(CHECKED_CLOSED)
    assert 0.9 < serving.journal.now - began < 2.0
    serving.wait_for(lambda: serving.relay.driven == "0" and serving.relay.closed == welded)
    serving.server.wait_log("NO_BI_LINK", since=log, whole=True)
    serving.bc.deaf_to.clear()
    serving.server.wait_log("RUN", since=log, whole=True)
    serving.wait_for(lambda: serving.relay.driven == "1")


@pytest.mark.parametrize("unit_id, state", [(1002, 17), (1001, 16), (0, 17)],
                         ids=["another unit is armed", "disarmed", "nobody is armed"])
def test_a_machine_stop_that_does_not_count(serving, unit_id, state):
    unit = armed(serving, unit_id, state)
    unit.machine_stop()
    flushed(serving, unit)
    assert not serving.server.logged("MsRelayControl::machineStopPressed")
    assert serving.relay.closed
