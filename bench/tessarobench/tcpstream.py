"""One direction of a TCP connection in a capture: what came is put in order, once.

At a hole the rest waits for the retransmission, until the receiver acknowledges what lies behind: then the bytes have
crossed, and it is the capture that lacks them.
"""

from __future__ import annotations

import heapq
from typing import Optional

from .captureread import DISORDER_SECONDS, Packet


class Stream:
    """`missing` counts the bytes that the capture lacks, and `hole_at` is the packet that first showed it (0: none)."""

    def __init__(self) -> None:
        self._next: Optional[int] = None  # the number of the next byte
        self._position = 0                # which of all bytes that is, as numbers begin anew some time
        self._early: dict[int, bytes] = {}  # what has come of those at and behind it, by position
        self._order: list[int] = []         # a heap of these positions
        self._acknowledged: Optional[tuple[Packet, int]] = None  # by which, and up to where; ahead of what is here
        self._finished = False
        self.missing = self.hole_at = 0

    def begin(self, sequence: int) -> None:
        self._next = sequence + 1 & 0xFFFFFFFF

    def feed(self, sequence: int, data: bytes) -> bytes:
        if self._next is None:
            self._next = sequence
        place = self._position_of(sequence)
        if place not in self._early:
            heapq.heappush(self._order, place)
        self._early[place] = max(self._early.get(place, b""), data, key=len)
        return self._in_order()

    def acknowledge(self, packet: Packet, number: int) -> None:
        """The receiver says in it that it has everything before this byte."""
        ahead = self._next is not None and self._ahead(number) > 0
        if ahead and not self._finished and self._acknowledged is None:
            self._acknowledged = packet, number

    def pass_holes(self, packet: Packet) -> bytes:
        """What stands behind bytes that were acknowledged and are not in the capture, when this packet comes."""
        if self._acknowledged is None or packet.time <= self._acknowledged[0].time + DISORDER_SECONDS:
            return b""
        (shows, number), self._acknowledged = self._acknowledged, None
        return self._skip_to(self._position_of(number), shows)

    def finish(self, packet: Packet, end: Optional[int] = None) -> bytes:
        """At the end of a connection, which is said to be behind the byte before `end`, or of the capture: what stands behind
        holes. The end has a number of its own, which is acknowledged like a byte and is none."""
        acknowledged, self._acknowledged = self._acknowledged, None
        self._finished = True
        out = bytearray()
        while self._order:
            out += self._skip_to(self._order[0], packet)
        if self._next is not None and end is not None:
            out += self._skip_to(self._position_of(end), packet)
        elif acknowledged:
            out += self._skip_to(self._position_of(acknowledged[1]), acknowledged[0])
        return bytes(out)

    def _ahead(self, number: int) -> int:
        """Bytes from the next one; negative behind it."""
        return (number - self._next + (1 << 31) & 0xFFFFFFFF) - (1 << 31)

    def _position_of(self, number: int) -> int:
        return self._position + self._ahead(number)

    def _skip_to(self, until: int, packet: Packet) -> bytes:
        out = bytearray()
        while self._position < until:
            lacking = min([until, *self._order[:1]]) - self._position
            self.missing += lacking
            self.hole_at = self.hole_at or packet.number
            self._go_on(lacking)
            out += self._in_order()
        return bytes(out)

    def _in_order(self) -> bytes:
        out = bytearray()
        while self._order and self._order[0] <= self._position:
            place = heapq.heappop(self._order)
            part = self._early.pop(place)[self._position - place:]
            self._go_on(len(part))
            out += part
        return bytes(out)

    def _go_on(self, count: int) -> None:
        self._position += count
        self._next = self._next + count & 0xFFFFFFFF
