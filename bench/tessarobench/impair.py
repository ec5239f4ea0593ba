"""What may happen to one unit (frame, datagram, segment) on its way: scripted one by one, or seeded at random."""

from __future__ import annotations

import collections
import random
from typing import Callable, Union

from . import clock
from .loop import Loop

DROP, CORRUPT, DUPLICATE, PASS = "drop", "corrupt", "duplicate", "pass"
Fate = Union[str, float]  # one of the words above, or a delay in seconds


class Impairment:
    """One direction of one link.

    `script` decides the next units one by one; after that the probabilities rule, drawn from the seeded generator, so
    that a run can be repeated. `mute` drops everything and leaves the script alone. Units keep their order, also when
    they are delayed; `reorder=True` lets a delayed one be overtaken, as datagrams may be.
    """

    def __init__(self, loop: Loop, reorder: bool = False):
        self._loop, self._random = loop, random.Random(1)
        self.reorder, self.mute = reorder, False
        self._script: collections.deque[Fate] = collections.deque()
        self._waiting: collections.deque[tuple[bytes, Callable[[bytes], None]]] = collections.deque()
        self._busy_until = 0.0
        self.chances()

    def chances(self, seed: int = 1, *, loss: float = 0, corrupt: float = 0, duplicate: float = 0,
                delay: tuple[float, float] = (0, 0)) -> None:
        """What happens at random from now on: probabilities per unit, and the range of its delay in seconds."""
        self._random = random.Random(seed)
        self.loss, self.corrupt, self.duplicate, self.delay = loss, corrupt, duplicate, delay

    def script(self, *fates: Fate) -> None:
        """What happens to the next units, in order."""
        self._script.extend(fates)

    def clear(self) -> None:
        """Back to a faultless link. Units that are under way still arrive."""
        self.chances()
        self.mute = False
        self._script.clear()

    @property
    def faultless(self) -> bool:
        """Whether the next unit passes unharmed and at once."""
        return not (self.mute or self._script or self.loss or self.corrupt or self.duplicate or any(self.delay))

    def apply(self, data: bytes, deliver: Callable[[bytes], None]) -> str:
        """Hands `data` to `deliver` never, once or twice, now or later. Returns a word for the journal."""
        fate = self._fate()
        if fate == DROP:
            return "dropped"
        if fate == CORRUPT:
            self._deliver(self.flip(data), deliver, 0)
            return "corrupted"
        delay = fate if isinstance(fate, (int, float)) else self._random.uniform(*self.delay)
        for _ in range(2 if fate == DUPLICATE else 1):
            self._deliver(data, deliver, delay)
        return "duplicated" if fate == DUPLICATE else "delayed" if delay else "passed"

    def flip(self, data: bytes) -> bytes:
        """One random bit of `data` flipped."""
        changed = bytearray(data)
        if changed:
            changed[self._random.randrange(len(changed))] ^= 1 << self._random.randrange(8)
        return bytes(changed)

    def _fate(self) -> Fate:
        if self.mute:
            return DROP
        if self._script:
            return self._script.popleft()
        drawn = self._random.random() if self.loss or self.corrupt or self.duplicate else 1.0
        for probability, fate in ((self.loss, DROP), (self.corrupt, CORRUPT), (self.duplicate, DUPLICATE)):
            if drawn < probability:
                return fate
            drawn -= probability
        return PASS

    def _deliver(self, data: bytes, deliver: Callable[[bytes], None], delay: float) -> None:
        if not delay and (not self._waiting or self.reorder):
            deliver(data)
            return
        if self.reorder:
            self._loop.later(delay, lambda: deliver(data))
            return
        due = self._busy_until = max(clock.monotonic() + delay, self._busy_until)
        self._waiting.append((data, deliver))
        self._loop.later(max(0.0, due - clock.monotonic()), self._next_arrives)

    def _next_arrives(self) -> None:
        """Whichever timer it was: in the order in which they were sent."""
        data, deliver = self._waiting.popleft()
        deliver(data)
