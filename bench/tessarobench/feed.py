"""What crosses the links, decoded, for everybody who watches: bounded, and never waiting for anyone."""

from __future__ import annotations

import collections
import threading
import time
from typing import Optional

from .journal import Event
from .narrator import PEERS, TELLERS

KEEP = 600
SHOWN_BYTES = 48


class Feed:
    """`event` is a listener of a journal; `since` is for other threads. Items are dictionaries that JSON can hold."""

    def __init__(self) -> None:
        self._items: collections.deque[dict] = collections.deque(maxlen=KEEP)
        self._changed = threading.Condition()
        self._next = 1

    def tell(self, kind: str, text: str) -> None:
        """A line of the story."""
        self._put({"link": "bench", "direction": "*", "kind": kind, "words": text})

    def event(self, event: Event) -> None:
        words = self._told(event)
        if words is None and event.link == "server":
            return
        # Acknowledgements and heartbeats go without saying; a reader may ask for them.
        self._put({"link": event.link, "direction": event.direction, "kind": event.kind if words else "small",
                   "words": words or event.kind, "peer": PEERS.get(event.link, event.link),
                   "bytes": event.data[:SHOWN_BYTES].hex(" "), "size": len(event.data)})

    @staticmethod
    def _told(event: Event) -> Optional[str]:
        try:
            teller = TELLERS.get(event.link)
            return teller(event) if teller else event.kind
        except AttributeError:  # of a request that lacks on purpose what others have
            return f"{event.kind} {' '.join(f'{key} {value}' for key, value in event.detail.items())}"

    def _put(self, item: dict) -> None:
        with self._changed:
            self._items.append({"n": self._next, "time": time.time(), **item})
            self._next += 1
            self._changed.notify_all()

    def since(self, number: int, timeout: float) -> list[dict]:
        """What came after item `number`, oldest first; waits so long for something to come."""
        with self._changed:
            self._changed.wait_for(lambda: self._next > number + 1, timeout)
            return [item for item in self._items if item["n"] > number]
