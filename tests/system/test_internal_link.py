"""The packet channel of the internal link as the base controller experiences it."""

import pytest

from tessarobench import internallink as il

LINK_FAIL = "Internal link fail!!!!!!!!"


def sent(bench, since=0, **selection):
    """What the base unit sent apart from acknowledgements, repeats included."""
    return [event for event in bench.journal.select("uart", "<", since=since, **selection) if event.kind != "ack"]


def assert_stop_and_wait(bench):
    """One packet at a time: a new one appears only when the one before was acknowledged, or had its three sends."""
    head, sends, acked = None, 0, True
    for event in bench.journal.select("uart"):
        if event.direction == ">" and event.detail.get("klass") == il.ACK and "fate" not in event.detail:
            acked = acked or event.number == head
        elif event.direction == "<" and event.detail.get("klass") in (il.TRANSPORT_ACK, il.SERVICE_ACK):
            if event.number == head:  # possibly one that crossed its acknowledgement
                sends += 1
                assert sends <= 3, f"sent too often: {event}"
            else:
                assert acked or sends == 3, f"sent before its turn: {event}"
                head, sends, acked = event.number, 1, False


# --- sending -----------------------------------------------------------------------------------------------------------


def test_a_lost_acknowledgement_is_made_good_by_one_repeat(running):
    mark = running.journal.mark()
    running.bc.acks_of(il.EVENTS).script("drop")
    running.api.send(b"RESET")
    running.wait_for(lambda: len(sent(running, mark, event="ECLINKRESET")) == 2)
    first, second = sent(running, mark, event="ECLINKRESET")
    assert first.data == second.data
    assert second.time - first.time > 0.025  # 50 ms, seen on a busy machine
    assert not running.server.logged(LINK_FAIL)


def test_an_acknowledgement_in_the_last_moment_keeps_the_link(running):
    """Two transmissions lost, the third is acknowledged."""
    running.bc.acks_of(il.EVENTS).script("drop", "drop")
    mark = running.journal.mark()
    running.api.send(b"DISARM")
    running.wait_for(lambda: len(sent(running, mark, event="RELEASEARM")) == 3)
    running.wait_for(lambda: sent(running, mark, kind="status"))
    assert not running.server.logged(LINK_FAIL)


def test_three_transmissions_without_an_answer_are_a_lost_link(running):
    mark, log = running.journal.mark(), len(running.server.log)
    running.bc.deaf = True
    running.api.send(b"DISARM")
    running.server.wait_log(LINK_FAIL, since=log)
    running.server.wait_log("SystemEventService::newEvent BI_FAIL", since=log, whole=True)
    running.server.wait_log("NO_BI_LINK", since=log, whole=True)
    first, second, third = sent(running, mark)[:3]  # whatever it was that happened to be sent next
    assert first.data == second.data == third.data
    assert second.time - first.time > 0.025 and third.time - second.time > 0.025  # 50 ms, seen on a busy machine


def test_what_was_queued_before_the_loss_does_not_reappear(running):
    running.bc.deaf = True
    for _ in range(5):
        running.api.send(b"DISARM")
    log = running.server.wait_log(LINK_FAIL)
    mark = running.journal.mark()
    running.bc.deaf = False
    running.server.wait_log("RUN", since=log, whole=True)
    running.wait_for(lambda: sent(running, mark, kind="status"))
    assert sent(running, mark, event="RELEASEARM") == []


def test_packets_queued_together_leave_in_order_one_at_a_time(running):
    """Twenty requests at once, while every second acknowledgement gets lost."""
    running.bc.acks_of(il.EVENTS).script(*["drop", "pass"] * 20)
    mark = running.journal.mark()
    for i in range(20):
        running.api.send(b"DISARM" if i % 2 else b"RESET")
    running.wait_for(lambda: sum("again" not in e.detail for e in sent(running, mark, kind="event")) >= 20, 8)
    order = [event.event for event in sent(running, mark, kind="event") if "again" not in event.detail]
    assert order[:20] == ["ECLINKRESET", "RELEASEARM"] * 10
    assert_stop_and_wait(running)
    assert not running.server.logged(LINK_FAIL)


def test_packet_numbers_run_from_0_to_63_and_around(running):
    for _ in range(80):
        running.api.send(b"DISARM")
    running.wait_for(lambda: running.bc.received["event"] >= 80, 8)
    numbers = [event.number for event in sent(running) if "again" not in event.detail]
    assert all(later == (earlier + 1) % 64 for earlier, later in zip(numbers, numbers[1:])), numbers
    assert {0, 63} <= set(numbers)
    assert_stop_and_wait(running)


def test_slow_acknowledgements_cost_repeats_but_nothing_else(running):
    running.bc.acks.delay = (0.055, 0.09)
    mark = running.journal.mark()
    for _ in range(10):
        running.api.send(b"DISARM")
    running.wait_for(lambda: sum("again" not in e.detail for e in sent(running, mark, event="RELEASEARM")) >= 10, 8)
    assert not running.server.logged(LINK_FAIL)


def test_an_acknowledgement_for_nothing_is_ignored(running):
    for number in range(64):
        running.bc.send_once(il.Packet(il.ACK, number, 106, b""))
    running.wait_for(lambda: running.bc.set(tsaps=4).acked or running.api.tag("TSAPs") == "4")
    assert running.server.running


# --- receiving ---------------------------------------------------------------------------------------------------------


def test_every_packet_is_acknowledged_with_its_number_and_service(running):
    for number in (0, 10, 16, 63):
        mark = running.journal.mark()
        running.bc.send_once(il.Packet(1, number, 101, bytes(running.bc.image)))
        ack = running.wait_for(lambda: running.journal.last(link="uart", direction="<", kind="ack", since=mark))
        assert (ack.number, ack.service) == (number, 101)


def test_a_repeated_packet_is_acknowledged_and_delivered_again(running):
    mark, log = running.journal.mark(), len(running.server.log)
    for _ in range(2):
        running.bc.send_once(il.Packet(1, 7, 100, bytes([77])))
    running.wait_for(lambda: running.journal.count(link="uart", direction="<", kind="ack", since=mark) == 2)
    running.wait_for(lambda: running.server.logged("SystemEventService::newEvent UNDEF EVENT", log) == 2)


@pytest.mark.parametrize("service", [0, 99, 103, 108, 255])
def test_packets_for_services_that_do_not_exist_are_acknowledged_and_dropped(running, service):
    sending = running.bc.send(service, b"\1\2\3")
    running.wait_for(lambda: sending.acked)
    assert running.api.get()


def test_a_damaged_packet_is_neither_acknowledged_nor_delivered(running):
    mark = running.journal.mark()
    running.bc.to_base_unit.script("corrupt")
    sending = running.bc.set(tsaps=11)
    running.wait_for(lambda: sending.acked)
    assert sending.attempts == 2
    assert running.journal.count(link="uart", direction="<", kind="ack", since=mark) == 1
    running.wait_for(lambda: running.api.tag("TSAPs") == "11")


@pytest.mark.parametrize("payload_size, delivered", [(200, True), (480, True), (500, True), (600, False)])
def test_frames_up_to_512_bytes_arrive_whole(running, payload_size, delivered):
    """A longer one is read in pieces, none of which is a frame; the line is usable again with the next frame."""
    sending = running.bc.send(il.PROCESS_DATA, bytes(payload_size))
    running.wait_for(lambda: sending.done)
    assert sending.acked == delivered
    after = running.bc.set(tsaps=12)
    running.wait_for(lambda: after.acked)


def test_every_byte_value_crosses_the_line(running):
    """Carriage return, zero, delete, flow control and the frame's own bytes mean nothing to the line."""
    sending = running.bc.send(il.PROCESS_DATA, bytes(range(256)))
    running.wait_for(lambda: sending.acked)
    assert sending.attempts == 1
    running.wait_for(lambda: running.api.tag("BU_STATE") == "2")


# --- loss and recovery -------------------------------------------------------------------------------------------------


def test_loss_and_recovery(running):
    running.wait_for(lambda: running.relay.closed)
    log = len(running.server.log)
    running.bc.mute()
    n = running.server.wait_log("NO_BI_LINK", since=log, whole=True)
    running.wait_for(lambda: not running.relay.closed)
    asked = running.bc.received["ask"]
    running.bc.mute(False)
    running.server.wait_log("RUN", since=n, whole=True)
    running.wait_for(lambda: running.relay.closed)
    running.wait_for(lambda: running.bc.received["ask"] >= asked + 6)
    running.show_tsaps(3)


def test_twenty_losses_leave_no_trace(running):
    """Threads, descriptors and memory stand where they stood after the first of them."""
    def lose_and_find_again():
        log = len(running.server.log)
        running.bc.mute()
        running.api.send(b"DISARM")  # so that the loss shows at once
        log = running.server.wait_log("NO_BI_LINK", since=log, whole=True)
        running.bc.mute(False)
        running.server.wait_log("RUN", since=log, whole=True)

    lose_and_find_again()
    before, memory = running.server.usage(), running.server.memory()
    for _ in range(20):
        lose_and_find_again()
    assert not running.server.usage().holds_more_than(before)
    assert running.server.memory() - memory < 2_000_000


def test_a_reset_from_the_base_controller_restarts_the_link(running):
    mark, log = running.journal.mark(), len(running.server.log)
    running.bc.event(il.RESET)
    n = running.server.wait_log("NO_BI_LINK", since=log, whole=True)
    running.server.wait_log("RUN", since=n, whole=True)
    n = running.server.wait_log("MSState::OPEN", since=log, whole=True)  # too short for the relay's coil to follow
    running.server.wait_log("MSState::CLOSED", since=n, whole=True)
    running.wait_for(lambda: len(sent(running, mark, kind="ask")) >= 6)


def test_an_empty_event_is_a_reset(running):
    log = len(running.server.log)
    running.bc.send(il.EVENTS, b"")
    n = running.server.wait_log("NO_BI_LINK", since=log, whole=True)
    running.server.wait_log("RUN", since=n, whole=True)


def test_a_reconfig_from_the_base_controller_repeats_the_settings(running):
    mark, log = running.journal.mark(), len(running.server.log)
    running.bc.event(il.RECONFIG)
    n = running.server.wait_log("STARTING", since=log, whole=True)
    running.server.wait_log("RUN", since=n, whole=True)
    running.wait_for(lambda: len(sent(running, mark, kind="ask")) >= 6)
    assert running.journal.count(link="gpio", kind="drive", since=mark) == 0, "the relay must stay closed"


@pytest.mark.parametrize("code", [101, 102, 103, 200, 201, 202, 1, 255])
def test_event_codes_that_mean_nothing_here_change_nothing(running, code):
    mark, log = running.journal.mark(), len(running.server.log)
    sending = running.bc.event(code)
    running.wait_for(lambda: sending.acked)
    running.server.wait_log("SystemEventService::newEvent", since=log)
    running.wait_for(lambda: sent(running, mark, kind="status"))
    assert running.journal.count(link="gpio", kind="drive", since=mark) == 0
    assert not [text for text in running.server.plain_texts(log) if text in ("NO_BI_LINK", "STARTING", "RUN")]


# --- field bus ---------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("service, size", [(il.COMMAND, 0), (il.COMMAND, 16), (il.PERIODIC, 5), (il.PERIODIC, 204)])
def test_field_bus_data_of_the_outermost_sizes_is_taken(running, service, size):
    sending = running.bc.send(service, bytes(size))
    running.wait_for(lambda: sending.acked)
    assert running.api.get() and running.server.running
