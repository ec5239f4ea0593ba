"""Blocks of periodic data on their way to one remote unit, from the base controller and from the machine controller.

One block at most waits for a unit while a message stands unacknowledged: a newer one, of either origin, takes its place.
What is never sent must therefore have had such a message before it and a newer block behind it. After every join the unit
gets, once, the newest block that is kept, also when it had it before.
"""

from __future__ import annotations

import bisect
from typing import NamedTuple, Optional

from .account import Account, in_turn
from .glink import FROM_BASE_CONTROLLER, FROM_MACHINE_CONTROLLER
from .remotepaths import TCP
from .rules import SUPERSEDED
from .unitsession import PATIENCE_SECONDS

PATIENCE = 0.010  # seconds that the way through base unit and bench may take, beside what it is seen to take
NEARBY = 1.0      # seconds before and after a block in which that is looked for
KEPT_WITHIN = 1.0  # a unit that stays joined for longer has got its kept block


class Block(NamedTuple):
    when: float
    origin: int
    payload: bytes


class Arrival(NamedTuple):
    when: float
    origin: int
    payload: bytes
    path: str
    joins: int  # how often the unit had joined by then


class BlockBook:
    """Accounts are those of the two origins; windows and barriers are set on them from outside."""

    def __init__(self, unit: int):
        self.unit = unit
        self.of = {FROM_BASE_CONTROLLER: _Origin(f"UART: periodic data to unit {unit}"),
                   FROM_MACHINE_CONTROLLER: _Origin(f"EGLink: periodic data to unit {unit}")}
        self.kept = Account(f"GLink: kept periodic data to unit {unit}, anew", exact=False)
        self._blocks: list[Block] = []
        self._arrivals: list[Arrival] = []
        self._joins: list[float] = []
        self._ends: list[float] = []
        self._taken: list[tuple[float, float]] = []
        self._delivered: Optional[dict[int, Arrival]] = None  # by the block's place, once matched
        self._busy: list[list[float]] = []  # [message received, acknowledgement written] one after the other

    @property
    def accounts(self) -> list[Account]:
        return [*self.of.values(), self.kept]

    def entered(self, origin: int, payload: bytes, when: float) -> None:
        self._blocks.append(Block(when, origin, payload))
        self.of[origin].enter(when, payload)

    def joined(self, when: float) -> None:
        """An INITACK that accepts the unit has come."""
        self._joins.append(when)

    def link_ended(self, when: float) -> None:
        self._ends.append(when)

    def message(self, when: float) -> None:
        """Any message of the base unit that wants an acknowledgement has come."""
        self._busy.append([when, float("inf")])

    def acknowledged(self, when: float) -> None:
        """The unit has acknowledged the oldest one that waited for it."""
        for stretch in reversed(self._busy):
            if stretch[1] != float("inf"):
                break
            stretch[1] = when
            self.took(stretch[0], when - stretch[0])

    def took(self, when: float, seconds: float) -> None:
        """How long something took on the way to this unit or from it."""
        self._taken.append((when, seconds))

    def arrived(self, data: bytes, path: str, when: float) -> None:
        self._arrivals.append(Arrival(when, data[0], data[1:], path, len(self._joins)))

    def match(self) -> list[tuple[Block, float]]:
        """Decides which arrival is which block, when all have arrived; gives how long each block took."""
        if self._delivered is None:
            self._tick_off()
        return [(self._blocks[place], arrival.when - self._blocks[place].when) for place, arrival in self._delivered.items()]

    def close(self, now: float) -> None:
        """Decides for every block what became of it, before the accounts are settled."""
        self.match()
        self._in_order = sorted(((arrival, self._blocks[place].when) for place, arrival in self._delivered.items()),
                                key=lambda pair: pair[0].when)
        self._in_order_times = [arrival.when for arrival, _ in self._in_order]
        self._taken = sorted([*self._taken, *((entered, arrival.when - entered) for arrival, entered in self._in_order)])
        for place, block in enumerate(self._blocks):
            if place not in self._delivered and self.of[block.origin].reason_at(block.when) is None \
                    and self._was_replaced(block):
                self.of[block.origin].superseded.add(block.when)
        self._judge_kept(now)

    # --- what arrived ----------------------------------------------------------------------------------------------

    def _tick_off(self) -> None:
        self._delivered = {}
        places: dict[tuple[int, bytes], list[int]] = {}
        for place, block in enumerate(self._blocks):
            places.setdefault((block.origin, block.payload), []).append(place)
        last: dict[int, int] = {}  # of each origin
        taken: dict[tuple[int, bytes], int] = {}  # the arrival that was last taken for a block of its own
        anew_since = -1  # how often the unit had joined when it last got a kept block
        for index, arrival in enumerate(self._arrivals):
            key = (arrival.origin, arrival.payload)
            waiting = places.get(key, [])
            if waiting:
                taken[key] = index
                last[arrival.origin] = in_turn(waiting, last.get(arrival.origin, -1))
                self._delivered[last[arrival.origin]] = arrival
                self.of[arrival.origin].leave(arrival.payload, arrival.when)
            elif (joins := self._join_of_kept(index, taken.get(key), anew_since)) is not None:
                anew_since = joins
                self.kept.enter(arrival.when, b"")
                self.kept.leave(b"")
            else:
                self.of[arrival.origin].leave(arrival.payload, arrival.when)  # once too often

    def _join_of_kept(self, index: int, taken: Optional[int], anew_since: int) -> Optional[int]:
        """The join for which this arrival is the kept block, or for which the one taken for the block itself was: then
        this one was under way on the path that the unit has left."""
        candidates = [index]
        if taken is not None and self._arrivals[taken].path != self._arrivals[index].path:
            candidates.append(taken)
        return next((self._arrivals[candidate].joins for candidate in candidates if self._is_kept(candidate, anew_since)), None)

    def _is_kept(self, index: int, anew_since: int) -> bool:
        arrival = self._arrivals[index]
        return arrival.joins > anew_since and self._is_first(index) and self._was_newest(arrival)

    def _is_first(self, index: int) -> bool:
        """Of its join."""
        return index == 0 or self._arrivals[index - 1].joins < self._arrivals[index].joins

    def _was_newest(self, arrival: Arrival) -> bool:
        """Whether it is what was kept when the unit joined: the newest of its origin then, or one that came about then."""
        about = (self._joins[arrival.joins - 1] if arrival.joins else 0.0) - NEARBY
        same = [block for block in self._blocks if block.origin == arrival.origin and block.when < arrival.when]
        before = [block for block in same if block.when < about]
        return arrival.payload in [block.payload for block in before[-1:] + same[len(before):]]

    # --- what did not ----------------------------------------------------------------------------------------------

    def _was_replaced(self, block: Block) -> bool:
        """Whether it had to wait until a newer one came: from its coming to that of the one which was sent next, there
        was always a message that stood unacknowledged. In virtual time all of that may be one moment."""
        patience = self._patience(block.when)
        for arrival, entered in self._in_order[bisect.bisect_left(self._in_order_times, block.when):]:
            if entered > block.when - patience:
                return arrival.path != TCP or self._was_busy(block.when + patience, entered - patience, patience)
        return False

    def _patience(self, when: float) -> float:
        """How long things take at that time, by what went and came about then."""
        begin = bisect.bisect_left(self._taken, (when - NEARBY, 0.0))
        end = bisect.bisect_right(self._taken, (when + NEARBY, 0.0))
        return PATIENCE + 2 * max((seconds for _, seconds in self._taken[begin:end]), default=0.0)

    def _was_busy(self, begin: float, end: float, patience: float) -> bool:
        """Whether a message stood unacknowledged all the time from `begin` to `end`."""
        for received, acknowledged in self._busy[bisect.bisect_left(self._busy, [begin - PATIENCE_SECONDS - 1]):]:
            if begin >= end or received - patience > end:
                break
            if received - patience <= begin <= acknowledged + patience:
                begin = acknowledged + patience
        return begin >= end

    def _judge_kept(self, now: float) -> None:
        """Whoever joins and stays gets periodic data at once, if any are kept."""
        for number, joined in enumerate(self._joins, 1):
            ended = min((end for end in self._ends if end > joined), default=now)
            nothing = not any(arrival.joins == number for arrival in self._arrivals)
            kept = any(block.when < joined - NEARBY for block in self._blocks)
            last = number == len(self._joins) or self._joins[number] - joined > KEPT_WITHIN
            if kept and nothing and last and ended - joined > KEPT_WITHIN:
                self.kept.violations.append(f"{self.kept.name}: nothing came after the join at {joined:.3f} s")


class _Origin(Account):
    """Blocks of one origin; those entered at the times in `superseded` may have been replaced by newer ones."""

    def __init__(self, name: str):
        super().__init__(name)
        self.superseded: set[float] = set()

    def reason_at(self, when: float) -> Optional[str]:
        return SUPERSEDED if when in self.superseded else super().reason_at(when)
