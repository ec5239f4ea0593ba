"""Links that are lost and come back a hundred times: the base unit ends where it began.

Threads and descriptors must be back to the number, resident memory but for what an allocator keeps. The reconnections
of a remote unit on TCP have their own storm, in test_remote_units_faults.py.
"""

import time

import pytest

from controllerlink import SET, linked, wait_count
from units_support import settled

__all__ = ["linked"]  # a fixture

WARM_UP, CYCLES = 20, 100
RESIDENT_GROWTH = 1_000_000  # a leak of 10 kB a cycle would show; an arena of the allocator is less
REMOVED = "RGPCom::removeFallbackLink"


@pytest.fixture
def endure(record_property, capsys):
    """Runs a cycle `cycles` times after `warm_up` times, and holds the server's figures against each other."""
    def run(bench, name, cycle, cycles=CYCLES, warm_up=WARM_UP):
        for number in range(warm_up):
            cycle(number)
        before, memory, began = settled(bench, lambda usage: True), bench.server.memory(), time.monotonic()
        for number in range(warm_up, warm_up + cycles):
            cycle(number)
        seconds = time.monotonic() - began
        after = settled(bench, lambda usage: usage[2:4] <= before[2:4])
        rows = [("threads", before.threads, after.threads), ("descriptors", before.descriptors, after.descriptors),
                ("resident KiB", before.resident_bytes // 1024, after.resident_bytes // 1024)]
        with capsys.disabled():
            print(f"\n{cycles} cycles of {name} in {seconds:.1f} s: "
                  + ", ".join(f"{what} {old} -> {new}" for what, old, new in rows))
        for what, old, new in rows:
            record_property(what, f"{old} -> {new}")
        assert bench.server.memory() - memory < RESIDENT_GROWTH
    return run


def test_the_internal_link_is_lost_and_returns(running, endure):
    """Each time the relay opens and closes again, and the configuration pass starts anew."""
    bench = running

    def cycle(number):
        log = len(bench.server.log)
        bench.bc.mute()
        bench.api.send(b"DISARM")  # something to send, so that the loss shows at once
        bench.wait_for(lambda: not bench.relay.closed, what=f"the relay opens in cycle {number}")
        bench.server.wait_log("NO_BI_LINK", since=log, whole=True)
        bench.bc.forget()
        bench.bc.mute(False)
        bench.server.wait_log("RUN", since=log, whole=True)
        bench.wait_for(lambda: bench.relay.closed, what=f"the relay closes in cycle {number}")

    asked = bench.bc.received["ask"]
    endure(bench, "a mute UART", cycle)
    assert bench.bc.received["ask"] - asked >= WARM_UP + CYCLES


FALLBACK_WAYS = ("farewell", "vanished", "back on TCP")


def test_a_unit_comes_and_goes_on_the_fallback(serving, endure):
    """With a farewell, without a word, and by returning to TCP; the unit beside it keeps its place."""
    bench, unit = serving, serving.unit(1001)
    other = bench.unit(1002).join_fallback().wait_joined()

    def cycle(number):
        way, joins, log = FALLBACK_WAYS[number % len(FALLBACK_WAYS)], unit.joins, len(bench.server.log)
        unit.join_fallback()
        bench.wait_for(lambda: unit.joins == joins + 1 and unit.path == "fallback")
        sent = unit.command()
        bench.wait_for(lambda: sent.acked)
        if way == "farewell":
            unit.leave_fallback()
        elif way == "back on TCP":
            unit.join()
            bench.wait_for(lambda: unit.joins == joins + 2 and unit.path == "TCP")
            unit.leave()
        if way != "vanished":
            bench.server.wait_log(f"{REMOVED} 1001", since=log)

    endure(bench, "joining and leaving the fallback", cycle, 3 * CYCLES)
    assert not bench.fallback.complaints and not unit.damaged
    sent = other.command()
    bench.wait_for(lambda: sent.acked)
    assert other.joins == 1 and other.path == "fallback"


def test_the_machine_controller_falls_silent_and_answers_again(linked, endure):
    """Each time with a command under way, which is repeated while nobody answers and acknowledged in the end."""
    bench = linked
    unit = bench.unit(1001).join().wait_joined()

    def cycle(number):
        since = bench.journal.mark()
        bench.mc.silence()
        bench.mc.acknowledges = False
        text = b"cycle %d" % number
        unit.command(text)
        wait_count(bench, "VRCI", 2, since=since, command=text)
        bench.mc.acknowledges = True
        bench.mc.cycle(SET)
        bench.wait_for(lambda: bench.journal.last(link=bench.mc.link, direction=">", kind="VRAO", since=since))

    endure(bench, "a silent machine controller", cycle)
    assert bench.mc.commands == [b"cycle %d" % number for number in range(WARM_UP + CYCLES)]


def test_eth0_goes_and_comes_back(linked, endure):
    """Taken down, cable pulled, and removed altogether; each time until the base unit's periodic data are there again."""
    bench = linked
    ways = ((bench.eth0.down, bench.eth0.up), (bench.eth0.unplug, bench.eth0.plug),
            (bench.eth0.vanish, bench.eth0.reappear))

    def cycle(number):
        lose, bring_back = ways[number % len(ways)]
        lose()
        if lose == bench.eth0.vanish:
            bench.mc.leave()
        since = bench.journal.mark()
        bring_back()
        if bring_back == bench.eth0.reappear:
            bench.mc.join()
        wait_count(bench, "VRPI", since=since)

    endure(bench, "losing eth0", cycle, 60, 9)
