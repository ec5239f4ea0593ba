"""What crossed the links, in order: the source of the narration, of the counters and of every expectation in a test."""

from __future__ import annotations

import collections
import itertools
import time
from typing import Any, Callable, Iterator, Optional

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
    """Append-only and bounded: the newest `keep` events stay readable, the counters count all of them.

    Written and read on the loop's thread; `select`, `count` and `last` may be used in predicates of `Loop.wait_for`.
    """

    def __init__(self, keep: int = 200_000):
        self._began = time.monotonic()
        self._wall_began = time.time()
        self._events: collections.deque[Event] = collections.deque(maxlen=keep)
        self._indexes = itertools.count()
        self.counters: collections.Counter = collections.Counter()
        self.listeners: list[Callable[[Event], None]] = []

    @property
    def now(self) -> float:
        return time.monotonic() - self._began

    @property
    def wall_began(self) -> float:
        """Wall-clock time (seconds since the epoch) of the journal's time 0, for captures."""
        return self._wall_began

    def add(self, link: str, direction: str, kind: str, data: bytes = b"", **detail: Any) -> Event:
        event = Event(next(self._indexes), self.now, link, direction, kind, detail, bytes(data))
        self._events.append(event)
        self.counters[link, direction, kind] += 1
        for listener in self.listeners:
            listener(event)
        return event

    def mark(self) -> int:
        """A place in the journal: `since=mark` selects what came afterwards."""
        return self._events[-1].index + 1 if self._events else 0

    def select(self, link: Optional[str] = None, direction: Optional[str] = None, kind: Optional[str] = None,
               since: int = 0, **detail: Any) -> list[Event]:
        """The kept events that match everything given, oldest first."""
        found = [event for event in self._newest_first(since)
                 if link in (None, event.link) and direction in (None, event.direction) and kind in (None, event.kind)
                 and all(event.detail.get(key) == value for key, value in detail.items())]
        found.reverse()
        return found

    def last(self, **selection: Any) -> Optional[Event]:
        found = self.select(**selection)
        return found[-1] if found else None

    def count(self, **selection: Any) -> int:
        return len(self.select(**selection))

    def tail(self, lines: int = 40) -> str:
        """The newest events as text, for the message of a failed expectation."""
        return "\n".join(str(event) for event in list(self._events)[-lines:])

    def _newest_first(self, since: int) -> Iterator[Event]:
        for event in reversed(tuple(self._events)):
            if event.index < since:
                return
            yield event

    def __iter__(self) -> Iterator[Event]:
        return iter(list(self._events))
