"""Books of conservation: what went into the base unit on one link is what came out, plus what the rules dropped.

An account takes payloads in as they enter the base unit and out as they leave it. What entered and did not leave has to
be explained by a window of time in which the rules drop such payloads (a unit without a link, a lost internal link); what
left without having entered, or more often than it entered, is never explained.
"""

from __future__ import annotations

import collections
from typing import Iterable, NamedTuple


class Window(NamedTuple):
    """A time in which payloads may be dropped, and why."""

    begin: float
    end: float
    reason: str


class Account:
    """Payloads of one kind from one link to one place. Used on the loop's thread, or while nothing is under way.

    `exact`    every single payload is accounted for by its content; otherwise only numbers are compared
    `ordered`  what leaves must leave in the order in which it entered
    `overtaken` how many left behind a later one, and were allowed to
    `dropped`  reason -> how many; `violations` in words, empty when the books balance
    """

    def __init__(self, name: str, exact: bool = True, ordered: bool = True):
        self.name, self.exact, self.ordered = name, exact, ordered
        self.windows: list[Window] = []
        self.dropped: collections.Counter = collections.Counter()
        self.violations: list[str] = []
        self.overtaken = 0
        self._in: list[tuple[float, bytes]] = []
        self._out: list[bytes] = []
        self._ruled_out = 0

    def enter(self, when: float, payload: bytes) -> None:
        self._in.append((when, payload))

    def leave(self, payload: bytes) -> None:
        self._out.append(payload)

    def rule(self, reason: str) -> None:
        """One payload entered and was dropped by a rule whose effect is known at once."""
        self.dropped[reason] += 1
        self._ruled_out += 1

    def may_drop(self, begin: float, end: float, reason: str) -> None:
        self.windows.append(Window(begin, end, reason))

    @property
    def entered(self) -> int:
        return len(self._in) + self._ruled_out

    @property
    def delivered(self) -> int:
        return len(self._out)

    def close(self) -> "Account":
        """Settles the books, once, when nothing is under way any more."""
        if not self.exact:
            self._settle_numbers()
            return self
        places: dict[bytes, collections.deque] = collections.defaultdict(collections.deque)
        for place, (_, payload) in enumerate(self._in):
            places[payload].append(place)
        taken = [self._take(places, payload) for payload in self._out]
        self._judge_order([place for place in taken if place is not None])
        for place in sorted(place for rest in places.values() for place in rest):
            self._explain(*self._in[place])
        return self

    def _take(self, places: dict, payload: bytes):
        if places[payload]:
            return places[payload].popleft()
        self.violations.append(f"{self.name}: {payload[:8].hex(' ')} left more often than it entered")
        return None

    def _judge_order(self, taken: list[int]) -> None:
        """A payload may be overtaken only where it could as well have been dropped: what a unit had under way on the
        path that it left may arrive behind what already came over the new one."""
        passed = [later for earlier, later in zip(taken, taken[1:]) if later < earlier]
        late = sum(self._reason_at(self._in[place][0]) is None for place in passed)
        self.overtaken = len(passed) - late
        if self.ordered and late:
            self.violations.append(f"{self.name}: {late} times a later one came first")

    def _reason_at(self, when: float):
        return next((window.reason for window in self.windows if window.begin <= when <= window.end), None)

    def _explain(self, when: float, payload: bytes) -> None:
        reason = self._reason_at(when)
        if reason is None:
            self.violations.append(f"{self.name}: {payload[:8].hex(' ')} entered at {when:.3f} s and never left")
        else:
            self.dropped[reason] += 1

    def _settle_numbers(self) -> None:
        missing = len(self._in) - len(self._out)
        if missing < 0:
            self.violations.append(f"{self.name}: {-missing} more left than entered")
        elif missing:
            self.dropped[self.windows[0].reason if self.windows else "unexplained"] += missing
            if not self.windows:
                self.violations.append(f"{self.name}: {missing} never left")

    def __str__(self) -> str:
        drops = ", ".join(f"{count} {reason}" for reason, count in sorted(self.dropped.items()))
        if self.overtaken:
            drops += f"{', ' if drops else ''}{self.overtaken} overtaken on a change of path"
        return (f"{self.name:44} {self.entered:7} in = {self.delivered:7} out + {sum(self.dropped.values()):5} dropped"
                f"{' (' + drops + ')' if drops else ''}   [{'exact' if self.exact else 'by number'}]")


def slope(samples: Iterable[tuple[float, float]]) -> float:
    """The steepness of the straight line that fits best, per unit of time."""
    points = list(samples)
    if len(points) < 2:
        return 0.0
    mean_x, mean_y = (sum(values) / len(points) for values in zip(*points))
    spread = sum((x - mean_x) ** 2 for x, _ in points)
    return sum((x - mean_x) * (y - mean_y) for x, y in points) / spread if spread else 0.0
