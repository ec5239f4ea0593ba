"""Remote units on the private network of the emulated board, and the server's appetite while it serves them."""

import re

import pytest

from tessarobench import glink

SECONDS = 120
IMAGE_PERIOD, SET_PERIOD, COMMAND_PERIOD = 0.1, 0.1, 0.25
MEASURED_SECONDS = 10


def commands(bench):
    """What reached the base controller as commands; a packet that the base unit repeated counts once."""
    return [event.payload for event in bench.journal.select("uart", "<", "command") if "again" not in event.detail]


@pytest.fixture
def serving(bench):
    """Remote units are served."""
    return bench.start_to_serve(SECONDS)


def test_units_join_and_get_the_status(serving):
    for number in (1001, 1002):
        unit = serving.unit(number).join().wait_joined(SECONDS)
        assert unit.verdict == (glink.ACCEPTED, "")
        serving.wait_for(lambda: unit.base_status, SECONDS)


def test_every_byte_value_crosses_the_uart_in_both_directions(serving):
    """In canonical mode the line discipline must neither edit nor swallow a byte."""
    unit = serving.unit(1001).join().wait_joined(SECONDS)
    sent = [bytes(range(first, first + 16)) for first in range(0, 256, 16)]
    for payload in sent:
        unit.command(payload)
    serving.wait_for(lambda: len(commands(serving)) >= len(sent), SECONDS)
    assert commands(serving) == sent
    every = bytes(range(256))[:200]
    for payload in (every, bytes(range(56, 256))):
        serving.bc.periodic(payload)
        serving.wait_for(lambda: any(data.endswith(payload) for data in unit.payloads(glink.PERIODIC_DATA)), SECONDS)


def armed(bench):
    """A unit that is armed, which makes its machine stop count."""
    unit = bench.unit(1001).join().wait_joined(SECONDS)
    bench.bc.set(bu_state=17, armed_ru=1001)
    bench.wait_for(lambda: bench.api.tag("ARMED_RU") == "1001" and bench.api.tag("BU_STATE") == "17", SECONDS)
    bench.wait_for(lambda: bench.relay.closed, SECONDS)
    return unit


def test_a_machine_stop_that_opened_the_contact_is_confirmed(serving):
    """The base controller opened it; the monitor line is forced accordingly, and the server sees it in sysfs."""
    unit, log = armed(serving), len(serving.server.log)
    unit.machine_stop()
    serving.relay.hold_monitor("1")
    serving.server.wait_log("RelayOpen", SECONDS)
    assert serving.relay.driven == "1" and not serving.server.logged("NO_BI_LINK", log)


@pytest.mark.parametrize("welded", [False, True], ids=["healthy relay", "welded contact"])
def test_a_machine_stop_that_did_not_open_the_contact_opens_the_relay(serving, welded):
    unit = armed(serving)
    serving.relay.welded = welded
    mark = serving.journal.mark()
    unit.machine_stop()
    serving.server.wait_log("Relay closed", SECONDS)
    serving.wait_for(lambda: serving.journal.select("gpio", "<", "drive", mark, value="0"), SECONDS)
    assert not welded or serving.relay.closed


def test_a_unit_returns_after_the_cable_was_out(serving):
    threads = serving.server.usage().threads
    unit = serving.unit(1001).join().wait_joined(SECONDS)
    serving.wlan0.unplug()
    unit.lose_network()
    serving.server.wait_threads(threads, SECONDS)  # the connection was given up, and its thread with it
    serving.wlan0.plug()
    serving.wlan0.wait_carrier(SECONDS)
    unit.join()
    serving.wait_for(lambda: unit.joins == 2, SECONDS)


def test_what_it_takes_under_nominal_load(serving, record_figures):
    """The bounds tell a server that went mad from a healthy one on an emulated processor; they are no promises."""
    server = serving.server
    begun, in_run = (milliseconds(next(line.stamp for line in server.log if line.text.startswith(text)))
                     for text in ("Starting", "RUN"))
    serving.mc.cycle(bytes(32), SET_PERIOD)
    for number in (1001, 1002):
        serving.unit(number).join().wait_joined(SECONDS).command_every(COMMAND_PERIOD)
    serving.bc.send_every(IMAGE_PERIOD, lambda: (101, bytes(serving.bc.image)))
    before, began, emulated = server.usage(), serving.journal.now, serving.emulator.cpu_seconds()
    serving.wait_for(lambda: serving.journal.now - began >= MEASURED_SECONDS, MEASURED_SECONDS + SECONDS, poll=0.1)
    after, took, emulated = server.usage(), serving.journal.now - began, serving.emulator.cpu_seconds() - emulated
    share = 100 * (after.cpu_seconds - before.cpu_seconds) / took
    record_figures(f"banner to RUN {in_run - begun} ms; resident {after.resident_bytes / 2**20:.1f} MiB; "
                   f"CPU {share:.1f} %; {after.threads} threads; {after.descriptors} descriptors; "
                   f"{(after.wakeups - before.wakeups) / took:.0f} wake-ups/s")
    assert in_run - begun < 20_000
    assert after.resident_bytes < 64 * 2**20
    # The board counts the time, too, in which this computer lets the emulator wait. What it really takes is no more than the
    # emulator's own.
    assert min(share, 100 * emulated / took) < 80
    assert all(unit.joined for unit in serving.units)


def milliseconds(stamp):
    hours, minutes, seconds, thousandths = map(int, re.findall(r"\d+", stamp)[1:])
    return ((hours * 60 + minutes) * 60 + seconds) * 1000 + thousandths
