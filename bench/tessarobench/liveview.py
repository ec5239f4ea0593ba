"""The live view of `make run`: links, states, tags and counters of the running installation, with keys to break things.

The screen is drawn afresh four times a second, by lines that fit the terminal; keys come one by one, without Enter.
"""

from __future__ import annotations

import os
import select
import shutil
import sys
import termios
import tty
from typing import Callable, NamedTuple

from .installation import Installation
from .journal import FROM_BASE_UNIT, TO_BASE_UNIT

REFRESH_SECONDS = 0.25
LOG_LINES = 6
TAGS = ("BU_ID", "BU_STATE", "ARMED_RU", "TSAPs", "EC_LINK_STATUS")
EGLINK_STATES = {0: "not configured", 1: "operational", 3: "link error"}
QUIT = ("q", "\x03", "\x04")  # and Ctrl-C, Ctrl-D


class Key(NamedTuple):
    what: str
    press: Callable[[], object]


class LiveView:
    """Runs in the caller's thread until q is pressed, the input ends or the server has ended. Owns nothing of the bench.

    Each key turns a fault on, and off again when it is pressed once more.
    """

    def __init__(self, bench: Installation, source=sys.stdin, out=sys.stdout):
        self._bench, self._source, self._out = bench, source, out
        self._faults: set[str] = set()
        self._note = ""
        self._keys = {
            "m": Key("mute base controller", self._toggle("base controller mute", bench.bc.mute)),
            "n": Key("noise on UART", lambda: bench.bc.send_bytes(b"\x82" + os.urandom(40) + b"\n")),
            "l": Key("lossy UART", self._toggle("UART lossy", self._lossy)),
            "c": Key("controller silent", self._toggle("machine controller silent", self._silent)),
            "e": Key("eth0 down", self._toggle("eth0 down", lambda on: bench.eth0.down() if on else bench.eth0.up())),
            "u": Key("unit 1001 loses network", self._toggle("unit 1001 on the fallback", self._wander)),
            "w": Key("weld relay", self._toggle("relay welded", lambda on: setattr(bench.relay, "welded", on))),
            "s": Key("machine stop", lambda: bench.unit(1001).machine_stop()),
        }

    def run(self) -> None:
        descriptor = self._source.fileno()
        before = termios.tcgetattr(descriptor)
        tty.setcbreak(descriptor)
        self._out.write("\033[?1049h\033[?25l")  # a screen of its own, without a cursor
        try:
            while self._bench.server.running:
                self._draw()
                if select.select([descriptor], [], [], REFRESH_SECONDS)[0] and not self._take(os.read(descriptor, 1)):
                    return
        finally:
            self._out.write("\033[?25h\033[?1049l")
            self._out.flush()
            termios.tcsetattr(descriptor, termios.TCSADRAIN, before)

    # --- keys ------------------------------------------------------------------------------------------------------

    def _take(self, raw: bytes) -> bool:
        key = raw.decode("latin-1")
        if not raw or key in QUIT:
            return False
        if key in self._keys:
            self._note = self._keys[key].what
            try:
                self._keys[key].press()
            except (AssertionError, OSError) as error:  # a fault that does not fit another one that is on
                self._note += f": {str(error).splitlines()[0]}"
        return True

    def _toggle(self, name: str, action: Callable[[bool], object]) -> Callable[[], None]:
        def press() -> None:
            action(name not in self._faults)
            self._faults ^= {name}
        return press

    def _lossy(self, on: bool) -> None:
        for impairment in (self._bench.bc.to_base_unit, self._bench.bc.from_base_unit):
            impairment.chances(loss=0.2 if on else 0)

    def _silent(self, on: bool) -> None:
        self._bench.mc.acknowledges = not on
        if on:
            self._bench.mc.silence()
        else:
            self._bench.mc.cycle(bytes(32))

    def _wander(self, on: bool) -> None:
        unit = self._bench.unit(1001)
        if on:
            unit.lose_network()
            unit.join_fallback()
        else:
            unit.join()

    # --- the screen ------------------------------------------------------------------------------------------------

    def _draw(self) -> None:
        columns, rows = shutil.get_terminal_size((100, 40))
        lines = [line[:columns - 1] for line in self._bench.loop.call(self._lines)][:rows - 1]
        self._out.write("\033[H" + "".join(f"{line}\033[K\r\n" for line in lines) + "\033[J")
        self._out.flush()

    def _lines(self) -> list[str]:
        return ["Tessaro base unit, live", "", *self._links(), "", *self._values(), "", *self._log(), "", *self._help()]

    def _links(self) -> list[str]:
        bench, journal = self._bench, self._bench.journal
        run = next((text for text in reversed(bench.server.texts()) if text in ("RUN", "NO_BI_LINK")), "starting")
        status = journal.last(link="uart", direction="<", kind="status")
        eglink = EGLINK_STATES.get(status.eglink, str(status.eglink)) if status else "unknown"
        units = ", ".join(f"{unit.id} {unit.path or 'away'}" for unit in bench.units) or "none"
        relay = f"{'closed' if bench.relay.closed else 'open'}, driven {bench.relay.driven}"
        states = (("relay", "gpio", relay), ("base controller", "uart", run), ("machine controller", "eglink", eglink),
                  ("remote units", "glink", units), ("local tool", "api", f"{bench.api.statuses} status objects"))
        return [f"{name:20} {self._count(link, TO_BASE_UNIT):8} in {self._count(link, FROM_BASE_UNIT):8} out   {state}"
                for name, link, state in states]

    def _count(self, link: str, direction: str) -> int:
        return sum(count for (where, way, _), count in self._bench.journal.counters.items()
                   if (where, way) == (link, direction))

    def _values(self) -> list[str]:
        usage = self._bench.server.usage()
        return ["tags     " + "   ".join(f"{tag} {self._bench.api.tag(tag) or '-'}" for tag in TAGS),
                f"server   {usage.resident_bytes / 1048576:.1f} MiB, {usage.threads} threads, {usage.descriptors} descriptors",
                "faults   " + (", ".join(sorted(self._faults)) or "none") + (f"   (last key: {self._note})" if self._note else "")]

    def _log(self) -> list[str]:
        return ["log", *(f"  {text}" for text in self._bench.server.texts()[-LOG_LINES:])]

    def _help(self) -> list[str]:
        keys = [f"{key} {entry.what}" for key, entry in self._keys.items()]
        half = (len(keys) + 1) // 2
        return ["  ".join(keys[:half]), "  ".join([*keys[half:], "q end"])]
