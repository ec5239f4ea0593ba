"""eth0 goes, comes back and changes, and the link follows without a restart."""

import pytest

from controllerlink import (LINK_ERROR, OPERATIONAL, SET, answered, identify, linked, start_link, wait_count,
                            wait_reported, with_emap)
from tessarobench.network import Interface

__all__ = ["linked"]  # a fixture

CHECK_SECONDS = 2.0  # how often the link looks for its interface


def new_acknowledgement(bench, since):
    """Sends a command now and then until one is acknowledged."""
    commands = bench.loop.call(bench.loop.every, 0.2, lambda: bench.mc.command(b"alive?"))
    try:
        wait_count(bench, "VRAI", since=since, timeout=3 * CHECK_SECONDS)
    finally:
        commands.cancel()


@pytest.mark.parametrize("lose, give_back", [(Interface.down, Interface.up), (Interface.unplug, Interface.plug)],
                         ids=["eth0 down and up", "the cable pulled and plugged"])
def test_the_link_comes_back_with_the_network(linked, lose, give_back):
    bench = linked
    lose(bench.eth0)
    wait_reported(bench, LINK_ERROR)
    since = bench.journal.mark()
    give_back(bench.eth0)
    wait_count(bench, "VRPI", since=since, timeout=2)  # the next period finds the interface
    new_acknowledgement(bench, since)
    wait_reported(bench, OPERATIONAL, timeout=8)


def test_eth0_vanishes_and_comes_back_as_another_device(linked):
    bench = linked
    bench.eth0.vanish()
    bench.server.wait_log('EGLink: waiting for multicast on "eth0"', whole=True)
    wait_reported(bench, LINK_ERROR)
    since = bench.journal.mark()
    bench.eth0.reappear()
    bench.mc.join()
    wait_count(bench, "VRPI", since=since)
    new_acknowledgement(bench, since)
    wait_reported(bench, OPERATIONAL, timeout=8)


@pytest.mark.parametrize("emap", [2, 4, 6, 7])
def test_eth0_appears_after_the_start(bench, emap):
    """A link that only listens recovers as well, although no send of its own ever fails."""
    with_emap(bench, emap)
    bench.mc
    bench.eth0.vanish()
    bench.start_to_run()
    identify(bench)
    bench.server.wait_log('EGLink: waiting for multicast on "eth0"', whole=True)
    bench.eth0.reappear()
    bench.mc.join()
    bench.mc.cycle(SET)
    bench.server.wait_log("JOIN RX MULTICAST SUCCESS", 2 * CHECK_SECONDS, whole=True)
    if emap & 4:
        wait_reported(bench, OPERATIONAL)
    if emap & 2:
        answered(bench)


def test_eth0_down_at_the_start(bench):
    bench.mc
    bench.eth0.down()
    bench.start_to_run()
    identify(bench)
    bench.server.wait_log("EGLink started", whole=True)
    bench.mc.cycle(SET)
    wait_reported(bench, LINK_ERROR)
    bench.eth0.up()
    wait_count(bench, "VRPI")
    wait_reported(bench, OPERATIONAL, timeout=8)
    answered(bench)


def test_a_listening_link_survives_the_loss_of_its_interface(bench):
    with_emap(bench, 4)
    start_link(bench)
    bench.mc.cycle(SET)
    wait_reported(bench, OPERATIONAL)
    bench.eth0.vanish()
    wait_reported(bench, LINK_ERROR)
    bench.eth0.reappear()
    bench.mc.join()
    wait_reported(bench, OPERATIONAL, timeout=10)


@pytest.mark.parametrize("outage", ["down", "vanish", "remove_address"])
def test_an_outage_costs_next_to_nothing(linked, outage):
    """Sockets are rebuilt once a failed send, four times a second; no busy loop, no descriptor left behind."""
    bench = linked
    before = bench.server.usage()
    since = len(bench.server.log)
    getattr(bench.eth0, outage)()
    bench.let_pass(2.5)
    after = bench.server.usage()
    assert after.cpu_seconds - before.cpu_seconds < 0.25
    assert after.descriptors <= before.descriptors
    assert bench.server.logged("JOIN RX MULTICAST SUCCESS", since) <= 12
    assert bench.server.running


def test_another_address_is_told_to_the_base_controller_and_used(linked):
    bench = linked
    since = bench.journal.mark()
    bench.eth0.change_address("10.42.20.77/24")
    wait_count(bench, "VRPI", since=since, source="10.42.20.77")
    bench.wait_for(lambda: bench.journal.last(link="uart", kind="event", event="EGRECONFIG", since=since),
                   what="EGRECONFIG to the base controller")
    asked = bench.bc.ask("EGDH")
    bench.wait_for(lambda: asked.done)
    assert asked.answer == bytes([77, 20, 42, 10])
    new_acknowledgement(bench, since)


def test_a_lost_address_comes_back(linked):
    bench = linked
    bench.eth0.remove_address()
    wait_reported(bench, LINK_ERROR)
    since = bench.journal.mark()
    bench.eth0.change_address("10.42.20.78/24")
    wait_count(bench, "VRPI", since=since, source="10.42.20.78")
    new_acknowledgement(bench, since)
    wait_reported(bench, OPERATIONAL, timeout=8)


@pytest.mark.parametrize("outage", [None, "down", "vanish"])
def test_the_server_ends_in_order_whatever_the_interface_does(linked, outage):
    bench = linked
    if outage:
        getattr(bench.eth0, outage)()
        wait_reported(bench, LINK_ERROR)
    assert bench.server.stop() == 0
