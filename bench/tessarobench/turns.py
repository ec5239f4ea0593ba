"""When a far side of a capture has its turn: at the recorded time, or when what it answered has been said again."""

from __future__ import annotations

import collections
from typing import Callable, Optional

from . import clock
from .answers import Answer
from .loop import Loop
from .timeline import Changes, Move, Place

TICK = 0.001  # of the virtual clock


class Turns:
    """Calls `act` once for each move, on the loop's thread; all of it is used there.

    Times are counted from the base unit's first word, which `begin` tells and which was said at `zero` in the capture. A move
    that comes after an answer waits for that, but no longer than `patience`; one that acknowledges an answer does not come
    without it.
    """

    def __init__(self, loop: Loop, moves: list[Move], zero: float, patience: float, act: Callable[[Move], None]):
        self._loop, self._moves, self._zero, self._patience, self._do = loop, moves, zero, patience, act
        self._began: Optional[float] = None  # on the clock
        self._waiting: dict[Place, list[Move]] = collections.defaultdict(list)
        self._done: dict[int, list[Move]] = collections.defaultdict(list)  # by the packet
        self._changes = Changes()

    @property
    def have_begun(self) -> bool:
        return self._began is not None

    @property
    def now(self) -> float:
        """Seconds since they have begun."""
        return clock.monotonic() - self._began

    def begin(self) -> None:
        self._began = clock.monotonic()
        for move in self._moves:
            place, due = move.acknowledges or move.after, move.time - self._zero
            if place:
                self._waiting[place].append(move)
            if not move.acknowledges:
                self._act_later(due + (self._patience if move.after else 0), move)

    def answered(self, answer: Answer, place: Place) -> None:
        """This was said, at this place among what is of its kind."""
        moves, now = self._waiting.pop(place, []), self.now
        if change := self._changes.place(answer):
            moves += self._waiting.pop(change, [])
        for move in moves:
            if move.acknowledges:
                self._act_later(now + move.delay, move)
        # One after the other, and moments later: in virtual time that is when all has been done that went before.
        for number, move in enumerate((move for move in moves if move.after), 1):
            self._act_later(max(now + max(move.delay, number * TICK), move.time - self._zero), move)

    def _act_later(self, due: float, move: Move) -> None:
        self._loop.later(max(0.0, due - self.now), lambda: self._act(move))

    def _act(self, move: Move) -> None:
        """Once, although it may come both after an answer and, when that fails to come, at its time."""
        if move.packet in self._done and move in self._done[move.packet]:
            return
        self._done[move.packet].append(move)
        self._do(move)
