"""What crossed the links, in order: the source of the narration, of the counters and of every expectation in a test."""

from __future__ import annotations

import collections
import itertools
from typing import Any, Callable, Iterator, Optional

from . import clock

TO_BASE_UNIT = ">"    # a peer sent it towards the base unit
FROM_BASE_UNIT = "<"  # the base unit sent it
BENCH = "*"           # the bench did something: a fault, a link taken down, a process started


class Event:
    """One thing that happened on one link.

    `kind` is a short fixed word (the ledger counts by it), `detail` the decoded fields, `data` the bytes as they stood
    on the wire (empty where the link has none), `time` seconds since the journal began. Details read as attributes.
    """

    __slots__ = ("index", "time", "link", "direction", "kind", "detail", "data")

    def __init__(self, index: int, when: float, link: str, direction: str, kind: str, detail: dict, data: bytes):
        self.index, self.time, self.link, self.direction = index, when, link, direction
        self.kind, self.detail, self.data = kind, detail, data

    def __getattr__(self, name: str) -> Any:
        try:
            return self.detail[name]
        except KeyError:
            raise AttributeError(name) from None

    def __str__(self) -> str:
        fields = " ".join(f"{key}={_readable(value)}" for key, value in self.detail.items())
        return f"{self.time:9.3f} {self.link:8} {self.direction} {self.kind:12} {fields}"


def _readable(value: Any) -> str:
    return value.hex(" ") if isinstance(value, (bytes, bytearray)) else str(value)


class Journal:
    """Append-only and bounded: the newest `keep` events (which may be changed) stay readable, and so do the newest of each link and of each kind;
    the counters count all of them.

    Written on the loop's thread, read on any; `select`, `count` and `last` may be used in predicates of `Loop.wait_for`.
    They look only at events of the link, or of the link, direction and kind, that is asked for, so they should be asked so.
    """

    def __init__(self, keep: int = 200_000):
        self._began = clock.monotonic()
        self._wall_began = clock.time()
        self.keep = keep
        self._lists: dict[Optional[tuple], list[Event]] = {None: []}  # all, those of a link, those of a kind
        self._indexes = itertools.count()
        self.counters: collections.Counter = collections.Counter()
        self.listeners: list[Callable[[Event], None]] = []

    @property
    def now(self) -> float:
        return clock.monotonic() - self._began

    @property
    def began(self) -> float:
        """The journal's time 0 on the monotonic clock, for times that others have taken."""
        return self._began

    @property
    def wall_began(self) -> float:
        """Wall-clock time (seconds since the epoch) of the journal's time 0, for captures."""
        return self._wall_began

    def add(self, link: str, direction: str, kind: str, data: bytes = b"", **detail: Any) -> Event:
        event = Event(next(self._indexes), clock.monotonic() - self._began, link, direction, kind, detail, bytes(data))
        exact = (link, direction, kind)
        for key in (None, (link,), exact):
            events = self._lists.get(key)
            if events is None:
                events = self._lists[key] = []
            events.append(event)
            if len(events) > 2 * self.keep:  # another list, lest somebody who reads this one is disturbed
                self._lists[key] = events[-self.keep:]
        self.counters[exact] += 1
        for listener in self.listeners:
            listener(event)
        return event

    def mark(self) -> int:
        """A place in the journal: `since=mark` selects what came afterwards."""
        events = self._lists[None]
        return events[-1].index + 1 if events else 0

    def select(self, link: Optional[str] = None, direction: Optional[str] = None, kind: Optional[str] = None,
               since: int = 0, **detail: Any) -> list[Event]:
        """The kept events that match everything given, oldest first."""
        found = list(self._matches(link, direction, kind, since, detail))
        found.reverse()
        return found

    def last(self, link: Optional[str] = None, direction: Optional[str] = None, kind: Optional[str] = None,
             since: int = 0, **detail: Any) -> Optional[Event]:
        return next(self._matches(link, direction, kind, since, detail), None)

    def count(self, link: Optional[str] = None, direction: Optional[str] = None, kind: Optional[str] = None,
              since: int = 0, **detail: Any) -> int:
        return sum(1 for _ in self._matches(link, direction, kind, since, detail))

    def tail(self, lines: int = 40) -> str:
        """The newest events as text, for the message of a failed expectation."""
        return "\n".join(str(event) for event in self._lists[None][-lines:])

    def _matches(self, link: Optional[str], direction: Optional[str], kind: Optional[str], since: int,
                 detail: dict) -> Iterator[Event]:
        """Newest first."""
        exact = None not in (link, direction, kind)
        events = self._lists.get((link, direction, kind) if exact else (link,) if link is not None else None, [])
        for place in range(len(events) - 1, -1, -1):
            event = events[place]
            if event.index < since:
                return
            if (exact or (direction in (None, event.direction) and kind in (None, event.kind))) \
                    and all(event.detail.get(key) == value for key, value in detail.items()):
                yield event

    def __iter__(self) -> Iterator[Event]:
        return iter(list(self._lists[None]))
