"""The clock that peers, journal and tests go by: the system's, or the virtual one of the board that stands.

What has to do with the computer itself (how long laying a board took, how late the kernel is) reads `time` directly.
"""

from __future__ import annotations

import time as system
from typing import Optional, Protocol


class Source(Protocol):
    def monotonic(self) -> float: ...

    def time_ns(self) -> int: ...


_source: Optional[Source] = None


def use(source: Optional[Source]) -> None:
    """From now on everybody goes by this clock; None is the system's."""
    global _source
    assert source is None or _source is None, "one board at a time can have a clock of its own"
    _source = source


def monotonic() -> float:
    """Seconds, as time.monotonic."""
    return _source.monotonic() if _source else system.monotonic()


def time_ns() -> int:
    """Nanoseconds since the epoch."""
    return _source.time_ns() if _source else system.time_ns()


def time() -> float:
    """Seconds since the epoch."""
    return time_ns() / 1e9
