"""Books of conservation: what went into the base unit on one link is what came out, plus what the rules dropped.

An account takes payloads in as they enter the base unit and out as they leave it. What entered and did not leave has to
be explained by a window of time in which the rules drop such payloads (a unit without a link, a lost internal link); what
left without having entered, or more often than it entered, is never explained.
"""

from __future__ import annotations

import bisect
import collections
from typing import Hashable, Iterable, NamedTuple, Optional

from .rules import MEANING


class Window(NamedTuple):
    """A time in which payloads may be dropped, and why."""

    begin: float
    end: float
    reason: str


class Barrier(NamedTuple):
    """What entered before `before` must not leave after `after`: it would come back from before a loss."""

    before: float
    after: float


class Account:
    """Payloads of one kind from one link to one place. Used on the loop's thread, or while nothing is under way.

    `name`     "LINK: what", as it stands in the statement
    `exact`    every single payload is accounted for by its content; otherwise only numbers are compared
    `ordered`  what leaves must leave in the order in which it entered
    `overtaken` how many left behind a later one, and were allowed to
    `dropped`  reason -> how many; `violations` in words, empty when the books balance
    """

    def __init__(self, name: str, exact: bool = True, ordered: bool = True):
        self.name, self.exact, self.ordered = name, exact, ordered
        self.windows: list[Window] = []
        self.barriers: list[Barrier] = []
        self.dropped: collections.Counter = collections.Counter()
        self.violations: list[str] = []
        self.overtaken = 0
        self._in: list[tuple[float, Hashable]] = []
        self._out: list[tuple[Optional[float], Hashable]] = []
        self._ruled_out = 0
        self._excused: collections.Counter = collections.Counter()

    def enter(self, when: float, payload: Hashable) -> None:
        self._in.append((when, payload))

    def leave(self, payload: Hashable, when: Optional[float] = None) -> None:
        """`when` is needed only where there are barriers."""
        self._out.append((when, payload))

    def rule(self, reason: str, count: int = 1) -> None:
        """Payloads entered and were dropped by a rule whose effect is known at once."""
        self.dropped[reason] += count
        self._ruled_out += count

    def may_drop(self, begin: float, end: float, reason: str) -> None:
        self.windows.append(Window(begin, end, reason))

    def excuse(self, reason: str, count: int) -> None:
        """Where numbers alone are compared: so many at most may be missing, for this reason."""
        self._excused[reason] += count

    def must_not_return(self, before: float, after: float) -> None:
        self.barriers.append(Barrier(before, after))

    @property
    def entered(self) -> int:
        return len(self._in) + self._ruled_out

    @property
    def delivered(self) -> int:
        return len(self._out)

    def close(self) -> "Account":
        """Settles the books, once, when nothing is under way any more."""
        if self.exact:
            self._settle()
        else:
            self._settle_numbers()
        unknown = self.dropped.keys() - MEANING.keys()
        self.violations += [f"{self.name}: {self.dropped[reason]} dropped, {reason}, which is no rule" for reason in unknown]
        return self

    def _settle(self) -> None:
        places: dict[Hashable, list[int]] = collections.defaultdict(list)
        for place, (_, payload) in enumerate(self._in):
            places[payload].append(place)
        taken: list[int] = []
        for when, payload in self._out:
            self._take(places[payload], taken, payload, when)
        self._judge_order(taken)
        for place in sorted(place for rest in places.values() for place in rest):
            self._explain(*self._in[place])

    def _take(self, places: list[int], taken: list[int], payload: Hashable, when: Optional[float]) -> None:
        if not places:
            self.violations.append(f"{self.name}: {told(payload)} left more often than it entered")
            return
        taken.append(in_turn(places, taken[-1] if taken else -1))
        entered = self._in[taken[-1]][0]
        if when is not None and any(entered < barrier.before and when > barrier.after for barrier in self.barriers):
            self.violations.append(f"{self.name}: {told(payload)} of {entered:.3f} s came back at {when:.3f} s, after a loss")

    def _judge_order(self, taken: list[int]) -> None:
        """A payload may be overtaken only where it could as well have been dropped: what a unit had under way on the
        path that it left may arrive behind what already came over the new one."""
        passed = [later for earlier, later in zip(taken, taken[1:]) if later < earlier]
        late = sum(self.reason_at(self._in[place][0]) is None for place in passed)
        self.overtaken = len(passed) - late
        if self.ordered and late:
            self.violations.append(f"{self.name}: {late} times a later one came first")

    def reason_at(self, when: float) -> Optional[str]:
        """Why something that entered then may have been dropped."""
        return next((window.reason for window in self.windows if window.begin <= when <= window.end), None)

    def _explain(self, when: float, payload: Hashable) -> None:
        reason = self.reason_at(when)
        if reason is None:
            self.violations.append(f"{self.name}: {told(payload)} entered at {when:.3f} s and never left")
        else:
            self.dropped[reason] += 1

    def _settle_numbers(self) -> None:
        missing = len(self._in) - len(self._out)
        for reason, count in self._excused.items():
            self.dropped[reason] += min(count, max(missing, 0))
            missing -= min(count, max(missing, 0))
        self.dropped = +self.dropped
        if missing < 0:
            self.violations.append(f"{self.name}: {-missing} more left than entered")
        elif missing:
            self.violations.append(f"{self.name}: {missing} never left")

    def __str__(self) -> str:
        return str(Total(self.name, self.exact).add(self))


class Total:
    """The figures of closed accounts of one name, one after the other."""

    def __init__(self, name: str, exact: bool):
        self.name, self.exact = name, exact
        self.entered = self.delivered = self.overtaken = 0
        self.dropped: collections.Counter = collections.Counter()
        self.violations: list[str] = []

    def add(self, account: Account) -> "Total":
        self.entered += account.entered
        self.delivered += account.delivered
        self.overtaken += account.overtaken
        self.dropped += account.dropped
        self.violations += account.violations
        return self

    def __str__(self) -> str:
        drops = ", ".join(f"{count} {reason}" for reason, count in sorted(self.dropped.items()))
        if self.overtaken:
            drops += f"{', ' if drops else ''}{self.overtaken} overtaken on a change of path"
        return f"{self.entered:8} in = {self.delivered:8} out + {sum(self.dropped.values()):6} dropped  {drops}".rstrip()


class Alike(Account):
    """Payloads of which many look the same, so that nobody can tell which of them was dropped: each that leaves is taken
    for the newest that may have been meant, the last first. What leaves out of order then finds none."""

    def _settle(self) -> None:
        end, missing = len(self._in), set(range(len(self._in)))
        for when, payload in reversed(self._out):
            place = end - 1
            while place >= 0 and (self._in[place][1] != payload or self._in[place][0] > when):
                place -= 1
            if place < 0:
                self.violations.append(f"{self.name}: {told(payload)} left at {when:.3f} s without having entered in its turn")
            else:
                end = place
                missing.discard(place)
        for place in sorted(missing):
            self._explain(*self._in[place])


def in_turn(places: list[int], last: int) -> int:
    """Takes that one of the places of equal payloads, in order, out of the list which is meant by what leaves next: the
    first behind the `last` one that left, or the first of all where there is none."""
    behind = bisect.bisect_right(places, last)
    return places.pop(behind if behind < len(places) else 0)


def told(payload: Hashable) -> str:
    """A payload in a message: the first bytes of one that is bytes."""
    return payload[:8].hex(" ") if isinstance(payload, bytes) else str(payload)


def statement(accounts: Iterable[Account | Total]) -> list[str]:
    """The accounts as a table, link by link, with the meaning of every reason in it."""
    lines, link, reasons = [], None, set()
    for account in accounts:
        here, _, what = account.name.partition(": ")
        if here != link:
            link = here
            lines += ["", link]
        lines.append(f"  {what:44}{account}{'' if account.exact else '   (by number)'}")
        reasons |= account.dropped.keys()
    lines += ["", "Dropped"]
    return lines + [f"  {reason:44}{MEANING.get(reason, 'NO RULE')}" for reason in sorted(reasons)]


def slope(samples: Iterable[tuple[float, float]]) -> float:
    """The steepness of the straight line that fits best, per unit of time."""
    points = list(samples)
    if len(points) < 2:
        return 0.0
    mean_x, mean_y = (sum(values) / len(points) for values in zip(*points))
    spread = sum((x - mean_x) ** 2 for x, _ in points)
    return sum((x - mean_x) * (y - mean_y) for x, y in points) / spread if spread else 0.0
