"""What can be broken on a running installation at a key or at a click, and mended again."""

from __future__ import annotations

import os
from typing import Callable, NamedTuple

from . import glink
from .installation import Installation

UNIT, OTHER_UNIT, STRANGER = 1001, 1002, 2000
QUIET_DATA = bytes(32)  # the machine controller's, when it speaks again


class Fault(NamedTuple):
    """`what` is done; `state` names it while it lasts, and is empty for what is over at once. `act` gets whether to begin; the
    faults in `mends` are over with it."""

    name: str
    link: str
    what: str
    state: str
    act: Callable[[Installation, bool], object]
    mends: tuple[str, ...] = ()


def lossy(bench: Installation, on: bool) -> None:
    for impairment in (bench.bc.to_base_unit, bench.bc.from_base_unit):
        impairment.chances(loss=0.2 if on else 0)


def damaged(bench: Installation, on: bool) -> None:
    for impairment in (bench.bc.to_base_unit, bench.bc.from_base_unit):
        impairment.chances(corrupt=0.2 if on else 0)


def silent(bench: Installation, on: bool) -> None:
    bench.mc.acknowledges = not on
    if on:
        bench.mc.silence()
    else:
        bench.mc.cycle(QUIET_DATA)


def wander(bench: Installation, on: bool) -> None:
    unit = bench.unit(UNIT)
    if on:
        unit.lose_network()
        unit.join_fallback()
    else:
        unit.join()


def stopped(bench: Installation, on: bool) -> None:
    """The base controller opens the contact as long as somebody holds machine stop, unless that is welded."""
    if on:
        bench.unit(UNIT).machine_stop()
    bench.relay.hold_monitor("1\n" if on and not bench.relay.welded else None)


def refuse(bench: Installation, _on: bool) -> None:
    stranger = bench.stranger(STRANGER)
    stranger.join()


def babble(bench: Installation, on: bool) -> None:
    unit = bench.unit(OTHER_UNIT)
    if on:
        unit.babble(glink.message(glink.PERIODIC_DATA, bytes(200)))
    else:
        unit.quiet()


def away(interface: str, begin: str, end: str) -> Callable[[Installation, bool], object]:
    return lambda bench, on: getattr(getattr(bench, interface), begin if on else end)()


def paused(bench: Installation, on: bool) -> None:
    if on:
        bench.server.pause()
    else:
        bench.server.resume()


def restarted(bench: Installation, _on: bool) -> None:
    bench.server.kill()
    bench.server.start()


FAULTS = (
    Fault("mute", "uart", "mute base controller", "base controller mute", lambda bench, on: bench.bc.mute(on)),
    Fault("noise", "uart", "noise on UART", "",
          lambda bench, on: bench.bc.send_bytes(b"\x82" + os.urandom(40) + b"\n")),
    Fault("lossy", "uart", "lossy UART", "UART lossy", lossy),
    Fault("damaged", "uart", "damage the UART", "UART damaged", damaged),
    Fault("silent", "eglink", "controller silent", "machine controller silent", silent),
    Fault("eth0", "eglink", "eth0 down", "eth0 down", away("eth0", "down", "up")),
    Fault("cable", "eglink", "pull the cable of eth0", "cable of eth0 out", away("eth0", "unplug", "plug")),
    Fault("wlan0", "glink", "take wlan0 away", "wlan0 down", away("wlan0", "down", "up")),
    Fault("unit", "glink", "unit 1001 loses network", "unit 1001 on the fallback", wander),
    Fault("unit-mute", "glink", "unit 1002 goes mute", "unit 1002 mute", lambda bench, on: bench.unit(OTHER_UNIT).mute(on)),
    Fault("babble", "glink", "unit 1002 sends without pause", "unit 1002 babbles", babble),
    Fault("stranger", "glink", "an unpaired unit tries", "", refuse),
    Fault("stop", "gpio", "machine stop", "machine stop pressed", stopped),
    Fault("weld", "gpio", "weld relay", "relay welded", lambda bench, on: setattr(bench.relay, "welded", on)),
    Fault("coil", "gpio", "break the relay's coil", "relay without a coil",
          lambda bench, on: setattr(bench.relay, "dead_coil", on)),
    Fault("pause", "server", "stop the server's process", "server stopped", paused),
    Fault("restart", "server", "kill the server and start it again", "", restarted, mends=("pause",)),
)


class Faults:
    """The faults of one installation. `on` holds the names of those that last, `note` what came of the newest one."""

    def __init__(self, bench: Installation):
        self._bench = bench
        self._known = {fault.name: fault for fault in FAULTS}
        self.on: set[str] = set()
        self.note = ""

    def __getitem__(self, name: str) -> Fault:
        return self._known[name]

    def press(self, name: str) -> str:
        """Begins it, or ends it when it is on; returns why that could not be done, or nothing."""
        fault = self._known[name]
        begin = name not in self.on
        self.note = fault.what
        try:
            fault.act(self._bench, begin)
        except (AssertionError, OSError) as error:  # a fault that does not fit another one that is on
            reason = (str(error) or type(error).__name__).splitlines()[0]
            self.note += f": {reason}"
            return reason
        self.on.difference_update(fault.mends)
        if fault.state:
            self.on ^= {name}
        return ""

    @property
    def states(self) -> list[str]:
        """What lasts, in words."""
        return sorted(self._known[name].state for name in self.on)
