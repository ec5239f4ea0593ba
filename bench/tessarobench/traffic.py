"""Numbered commands in both directions, ticked off at the other end: for whoever asks whether any was lost or doubled."""

from __future__ import annotations

from typing import Callable, Optional, Sequence

from . import internallink as il
from .installation import Installation
from .ledger import Ledger
from .loop import WaitTimeout
from .remoteunit import RemoteUnit

CONTROLLER = 9  # the base controller's number in its own ledger


class Traffic:
    """From every unit to the base controller, and from the base controller to every unit, one every `period` seconds.

    `from_units` are the units' own ledgers; `to_units` tells what each of them received of the base controller's.
    """

    def __init__(self, bench: Installation, units: Sequence[RemoteUnit], period: float = 0.015):
        self._bench, self.units, self._downwards = bench, tuple(units), Ledger(CONTROLLER)
        for unit in self.units:
            unit.ledger, unit.inbox = Ledger(unit.id), Ledger(CONTROLLER)
        bench.bc.handlers[il.COMMAND] = self._arrived
        self._timer = bench.bc.send_every(period, lambda: (il.COMMAND, self._downwards.issue()))
        for unit in self.units:
            unit.command_every(period)

    def _arrived(self, payload: bytes) -> None:
        if not any([unit.ledger.tick(payload) for unit in self.units]):
            raise AssertionError(f"a command that nobody sent: {payload.hex(' ')}")

    @property
    def issued(self) -> int:
        """How many commands the base controller has sent so far."""
        return self._downwards.issued

    def progress(self, commands: int) -> Callable[[], bool]:
        """A condition: every unit got through so many more commands from now on, and received so many."""
        goals = [(unit, unit.ledger.seen + commands, unit.inbox.seen + commands) for unit in self.units]
        return lambda: all(unit.ledger.seen >= up and unit.inbox.seen >= down for unit, up, down in goals)

    def run_for(self, commands: int, timeout: Optional[float] = None) -> None:
        self._bench.wait_for(self.progress(commands), timeout, f"{commands} more commands both ways")

    def stop(self, timeout: Optional[float] = None) -> "Traffic":
        """Sends no more, and waits until those under way have left their senders."""
        self._timer.cancel()
        for unit in self.units:
            unit.quiet()
        bench = self._bench
        bench.wait_for(lambda: bench.bc.idle and all(unit.idle for unit in self.units), timeout, "idle senders")
        for unit in self.units:
            unit.inbox.issued = self.issued
        return self

    def wait_arrived(self, unit: RemoteUnit, except_for: int = 0, timeout: Optional[float] = None) -> None:
        """After `stop`: until all is out, but for so many commands towards that unit."""
        def is_out() -> bool:
            return unit.ledger.seen == unit.ledger.issued and unit.inbox.seen >= unit.inbox.issued - except_for

        def seen() -> int:
            return unit.ledger.seen + unit.inbox.seen

        try:
            while not is_out():  # on a busy computer it takes its time; as long as more of them come, they are awaited
                before = seen()
                self._bench.wait_for(lambda before=before: is_out() or seen() > before, timeout, "the rest of the commands")
        except WaitTimeout as missing:
            lost = self._bench.server.logged("Internal link fail")
            raise AssertionError(f"{unit.id}: {unit.ledger}; {unit.inbox}; internal link lost {lost} times") from missing
