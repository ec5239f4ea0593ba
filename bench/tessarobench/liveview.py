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

from .faults import Faults
from .installation import Installation
from .journal import FROM_BASE_UNIT, TO_BASE_UNIT

REFRESH_SECONDS = 0.25
LOG_LINES = 6
TAGS = ("BU_ID", "BU_STATE", "ARMED_RU", "TSAPs", "EC_LINK_STATUS")
EGLINK_STATES = {0: "not configured", 1: "operational", 3: "link error"}
QUIT = ("q", "\x03", "\x04")  # and Ctrl-C, Ctrl-D


KEYS = {"m": "mute", "n": "noise", "l": "lossy", "c": "silent", "e": "eth0", "u": "unit", "w": "weld", "s": "stop"}


class LiveView:
    """Runs in the caller's thread until q is pressed, the input ends or the server has ended. Owns nothing of the bench.

    Each key turns a fault on, and off again when it is pressed once more.
    """

    def __init__(self, bench: Installation, source=sys.stdin, out=sys.stdout):
        self._bench, self._source, self._out = bench, source, out
        self._faults = Faults(bench)

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
        if key in KEYS:
            self._faults.press(KEYS[key])
        return True

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
                "faults   " + (", ".join(self._faults.states) or "none")
                + (f"   (last key: {self._faults.note})" if self._faults.note else "")]

    def _log(self) -> list[str]:
        return ["log", *(f"  {text}" for text in self._bench.server.texts()[-LOG_LINES:])]

    def _help(self) -> list[str]:
        keys = [f"{key} {self._faults[name].what}" for key, name in KEYS.items()]
        half = (len(keys) + 1) // 2
        return ["  ".join(keys[:half]), "  ".join([*keys[half:], "q end"])]
