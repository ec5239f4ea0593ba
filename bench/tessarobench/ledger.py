"""Numbered payloads: what was handed in on one side of the base unit, ticked off as it comes out on the other."""

from __future__ import annotations

import collections
import struct

_ENTRY = struct.Struct("<HI")
SIZE = _ENTRY.size
TOLD = 20  # numbers of each kind of fault, in words


class Ledger:
    """The numbered payloads of one sender (1 to 65535). Extra bytes behind a payload, such as padding, do not count.

    Used on the loop's thread, or while nothing is under way.
    """

    def __init__(self, sender: int):
        self.sender = sender
        self.issued = 0
        self._seen: collections.Counter = collections.Counter()
        self._order: list[int] = []

    def issue(self) -> bytes:
        """The next payload."""
        self.issued += 1
        return _ENTRY.pack(self.sender, self.issued)

    def tick(self, payload: bytes) -> bool:
        """Takes note of a payload that came out; false when it is not one of this ledger's."""
        if len(payload) < SIZE:
            return False
        sender, number = _ENTRY.unpack(payload[:SIZE])
        if sender != self.sender:
            return False
        self._seen[number] += 1
        self._order.append(number)
        return True

    @property
    def seen(self) -> int:
        """How many different ones came out."""
        return len(self._seen)

    @property
    def missing(self) -> list[int]:
        return [number for number in range(1, self.issued + 1) if number not in self._seen]

    @property
    def doubled(self) -> list[int]:
        return sorted(number for number, times in self._seen.items() if times > 1)

    @property
    def overtaken(self) -> list[int]:
        """Those that came out after a later one."""
        newest, late = 0, []
        for number in self._order:
            if number < newest:
                late.append(number)
            newest = max(newest, number)
        return late

    @property
    def balanced(self) -> bool:
        """Whether everything came out, once, and nothing that was never issued."""
        return self.seen == self.issued and not self.missing and not self.doubled

    def __str__(self) -> str:
        faults = (("missing", self.missing), ("doubled", self.doubled), ("overtaken", self.overtaken))
        return (f"of {self.sender}: {self.issued} issued, {self.seen} seen"
                + "".join(f", {len(numbers)} {name} {numbers[:TOLD]}" for name, numbers in faults if numbers))
