"""How a stream of bytes is cut on its way out: as it was written, in pieces, or gathered with what follows."""

from __future__ import annotations

import random
from typing import Callable, Optional

from .loop import Loop, Timer


class Pieces:
    """Stands before a writer of a stream, on the loop's thread. Neither order nor bytes change, only where a write ends."""

    def __init__(self, loop: Loop, write: Callable[[bytes], None]):
        self._loop, self._write = loop, write
        self._random = random.Random(1)
        self._most, self._seconds = 0, 0.0
        self._pending = bytearray()
        self._timer: Optional[Timer] = None

    def split(self, most: int, seed: int = 1) -> None:
        """From now on at most so many bytes leave in one write, a seeded number of them, one write a turn of the loop."""
        self._most, self._seconds, self._random = most, 0.0, random.Random(seed)

    def gather(self, seconds: float) -> None:
        """From now on whatever is written within so many seconds leaves in one write."""
        self._most, self._seconds = 0, seconds

    def whole(self) -> None:
        """From now on every write leaves as it is."""
        self._most, self._seconds = 0, 0.0

    @property
    def empty(self) -> bool:
        return not self._pending

    def write(self, data: bytes) -> None:
        if not self._most and not self._seconds and not self._pending:
            self._write(data)
            return
        self._pending += data
        self._timer = self._timer or self._loop.later(self._seconds, self._leave)

    def drop(self) -> None:
        """What waits will not leave."""
        self._pending.clear()

    def _leave(self) -> None:
        self._timer = None
        size = self._random.randint(1, self._most) if self._most else len(self._pending)
        piece = bytes(self._pending[:size])
        del self._pending[:size]
        if self._pending:
            self._timer = self._loop.later(self._seconds, self._leave)
        if piece:
            self._write(piece)
