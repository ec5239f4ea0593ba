"""When a far side of a capture has its turn: at the recorded time, or when what it answered has been said again."""

from __future__ import annotations

import collections
from typing import Callable, Optional

from . import clock
from .answers import Answer
from .loop import Loop
from .timeline import Changes, Move, Place

TICK = 0.001  # of the virtual clock


class _Turn:
    """One move's; due from its time on, or from its answer on."""

    __slots__ = ("move", "is_due")

    def __init__(self, move: Move):
        self.move, self.is_due = move, False


class Turns:
    """Calls `act` once for each move, on the loop's thread; all of it is used there.

    Times are counted from the base unit's first word, which `begin` tells and which was said at `zero` in the capture. A move
    that comes after an answer waits for that, but no longer than `patience`, and so does what came behind it on its link; one
    that acknowledges an answer does not come without it, and holds up nothing.
    """

    def __init__(self, loop: Loop, moves: list[Move], zero: float, patience: float, act: Callable[[Move], None]):
        self._loop, self._moves, self._zero, self._patience, self._do = loop, moves, zero, patience, act
        self._began: Optional[float] = None  # on the clock
        self._waiting: dict[Place, list[_Turn]] = collections.defaultdict(list)
        self._in_order: dict[str, collections.deque[_Turn]] = collections.defaultdict(collections.deque)  # of each link
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
        for turn in map(_Turn, self._moves):
            move = turn.move
            place = move.acknowledges or move.after
            if place:
                self._waiting[place].append(turn)
            if not move.acknowledges:
                self._in_order[move.link].append(turn)
                self._take_later(move.time - self._zero + (self._patience if move.after else 0), turn)

    def answered(self, answer: Answer, place: Place) -> None:
        """This was said, at this place among what is of its kind."""
        turns, now = self._waiting.pop(place, []), self.now
        if change := self._changes.place(answer):
            turns += self._waiting.pop(change, [])
        for turn in turns:
            if turn.move.acknowledges:
                self._take_later(now + turn.move.delay, turn)
        # One after the other, and moments later: in virtual time that is when all has been done that went before.
        for number, turn in enumerate((turn for turn in turns if turn.move.after), 1):
            self._take_later(max(now + max(turn.move.delay, number * TICK), turn.move.time - self._zero), turn)

    def _take_later(self, due: float, turn: _Turn) -> None:
        self._loop.later(max(0.0, due - self.now), lambda: self._take(turn))

    def _take(self, turn: _Turn) -> None:
        """It may come both after an answer and, when that fails to come, at its time."""
        turn.is_due = True
        if turn.move.acknowledges:
            self._do(turn.move)
            return
        others = self._in_order[turn.move.link]
        while others and others[0].is_due:
            self._do(others.popleft().move)
