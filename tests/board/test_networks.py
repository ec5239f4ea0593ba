"""The server on a real network driver: multicast with the machine controller, TCP on the private network, the cable."""

import pytest


SECONDS = 120
OPERATIONAL, LINK_ERROR = 1, 3
SET = bytes(range(32))
GLINK_PORT, PAIRING_PORT = 1147, 9123


def reported(bench):
    record = bench.journal.last(link="uart", direction="<", kind="status")
    return record.eglink if record else None


def wait_reported(bench, state):
    bench.wait_for(lambda: reported(bench) == state, SECONDS, f"link state {state} in the status record")


@pytest.fixture
def linked(bench):
    """Link to the machine controller OPERATIONAL."""
    bench.mc
    bench.start_to_run(SECONDS)
    bench.bc.set(bu_identity=400)
    bench.server.wait_log("JOIN RX MULTICAST SUCCESS", SECONDS, whole=True)
    bench.mc.cycle(SET)
    wait_reported(bench, OPERATIONAL)
    return bench


def test_the_address_of_eth0_becomes_known(running):
    """Its own, not that of the remote units' network, which is the second one on the interface."""
    asked = running.bc.ask("EGDH")
    running.wait_for(lambda: asked.done, SECONDS)
    assert asked.answer == bytes([1, 20, 42, 10])


def test_periodic_data_and_commands_cross_by_multicast(linked):
    linked.wait_for(lambda: linked.mc.periodic is not None, SECONDS)
    packet = linked.journal.last(link=linked.mc.link, direction="<", kind="VRPI")
    assert packet.source == "10.42.20.1" and packet.origin == 400
    number = linked.mc.command(b"hello")
    linked.wait_for(lambda: linked.journal.count(link=linked.mc.link, direction="<", kind="VRAI", id=number), SECONDS)


def test_the_cable_is_pulled_and_plugged(linked):
    assert linked.eth0.carrier()
    linked.eth0.unplug()
    wait_reported(linked, LINK_ERROR)
    assert not linked.eth0.carrier()
    linked.eth0.plug()
    wait_reported(linked, OPERATIONAL)
    assert linked.eth0.carrier() and linked.server.running


def test_remote_units_and_service_tools_find_their_ports(linked):
    for port in (GLINK_PORT, PAIRING_PORT):
        with linked.peer_socket() as unit:
            unit.settimeout(SECONDS)
            unit.connect(("192.168.32.1", port))


def test_ports_of_the_private_network_are_closed_on_the_other_one(linked):
    for port in (GLINK_PORT, PAIRING_PORT):
        with linked.peer_socket() as stranger, pytest.raises(ConnectionRefusedError):
            stranger.settimeout(SECONDS)
            stranger.connect(("10.42.20.1", port))
