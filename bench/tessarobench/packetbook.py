"""The UART's part of the books: every packet of every service, in both directions, up to its acknowledgement.

A packet to the base unit is acknowledged, or answered, once for every time that it arrives undamaged. A packet from the
base unit goes out up to three times with the same number, until an acknowledgement arrives; without one the link is
lost, and with it what waits behind. The numbers run on, so that what never went out is known as well.
"""

from __future__ import annotations

import collections
from typing import Callable, Optional

from . import internallink as il
from .account import Account
from .basecontroller import ATTEMPTS
from .journal import FROM_BASE_UNIT, TO_BASE_UNIT
from .rules import DAMAGED, LINK_LOST, QUEUED_BEHIND, UNKNOWN_SERVICE

NUMBERS = 64
SLACK = 1.0         # seconds by which the log may tell of a loss before or after the line shows it
UNDER_WAY = 0.3     # what began so shortly before the end need not be through
FORGOTTEN = 2.0     # seconds after which no acknowledgement comes any more: the packet was lost with the link
FROM_BASE_UNIT_TOO = (il.EVENTS, il.PROCESS_DATA, il.CONFIGURATION, il.SHORT_FALLBACK, il.FALLBACK, il.COMMAND)
HANDLED = (*FROM_BASE_UNIT_TOO, il.PERIODIC)


class Head:
    """The packet of the base unit that waits for its acknowledgement."""

    def __init__(self, place: int, packet: il.Packet, raw: bytes, when: float):
        self.place, self.packet, self.raw = place, packet, raw
        self.first = self.last = when
        self.attempts, self.acked = 1, False


class PacketBook:
    """`fresh(packet, when)` is called for every packet of the base unit as it goes out for the first time,
    `arrived(packet, when)` for every undamaged one that comes to it, `acked(when, seconds)` for every one that it
    acknowledges: when it came, and how long that took."""

    def __init__(self, fresh: Callable[[il.Packet, float], None], arrived: Callable[[il.Packet, float], None],
                 acked: Callable[[float, float], None] = lambda when, seconds: None):
        self._fresh, self._arrived, self._acked = fresh, arrived, acked
        self._waiting: dict[tuple[int, int], collections.deque[float]] = collections.defaultdict(collections.deque)
        self._to = {service: Account(f"UART: {il.SERVICE_NAMES[service]} ({service}) to the base unit") for service in HANDLED}
        self._from = {service: Account(f"UART: {il.SERVICE_NAMES[service]} ({service}) of the base unit")
                      for service in FROM_BASE_UNIT_TOO}
        self.others = Account("UART: anything else")
        self._pipes = {TO_BASE_UNIT: il.Splitter(), FROM_BASE_UNIT: il.Splitter()}
        self._head: Optional[Head] = None
        self._count = 0
        self._unacked: list[Head] = []
        self._gaps: list[tuple[Head, float, int]] = []
        self._failures: list[float] = []

    @property
    def accounts(self) -> list[Account]:
        return [*self._to.values(), *self._from.values(), self.others]

    def seen(self, direction: str, data: bytes, when: float) -> None:
        """Bytes on the line, in any pieces."""
        for raw in self._pipes[direction].feed(data):
            packet = il.parse(raw)
            if packet is None:
                if direction == TO_BASE_UNIT:
                    self.others.rule(DAMAGED)
                else:
                    self.others.violations.append(f"UART: the base unit sent {raw[:12].hex(' ')}")
            elif packet.message_class == il.ACK:
                if direction == TO_BASE_UNIT:
                    self._acknowledges(packet)
                else:
                    self._is_acknowledged(packet, when)
            elif direction == TO_BASE_UNIT:
                self._comes(packet, when)
            else:
                self._goes(packet, raw, when)

    def link_failed(self, when: float) -> None:
        """The base unit's log says so."""
        self._failures.append(when)

    def close(self, now: float) -> None:
        """Before the accounts are settled."""
        if self._head and not self._head.acked and now - self._head.first > UNDER_WAY:
            self._unacked.append(self._head)
        elif self._head and not self._head.acked:
            self._from[self._head.packet.service].leave(self._head.place)  # nobody can tell yet
        for head in self._unacked:
            self._judge_unacked(head)
        for head, when, count in self._gaps:
            if self._failed_between(head.first, when):
                self.others.rule(QUEUED_BEHIND, count)
            else:
                self.others.violations.append(f"UART: {count} numbers of the base unit were skipped at {when:.3f} s")

    # --- to the base unit ------------------------------------------------------------------------------------------

    def _comes(self, packet: il.Packet, when: float) -> None:
        if packet.service in self._to:
            self._to[packet.service].enter(when, _key(packet.number, packet.message_class == il.SERVICE_ACK))
            self._waiting[packet.service, packet.number].append(when)
        else:
            self.others.rule(UNKNOWN_SERVICE)
        self._arrived(packet, when)

    def _is_acknowledged(self, packet: il.Packet, when: float) -> None:
        if packet.service not in self._to:
            return
        self._to[packet.service].leave(_key(packet.number, bool(packet.payload)))
        waiting = self._waiting[packet.service, packet.number]
        while waiting and waiting[0] < when - FORGOTTEN:
            waiting.popleft()
        if waiting:
            came = waiting.popleft()
            self._acked(came, when - came)

    # --- of the base unit ------------------------------------------------------------------------------------------

    def _goes(self, packet: il.Packet, raw: bytes, when: float) -> None:
        if self._head and raw == self._head.raw:
            self._repeats(when)
            return
        self._close_head(packet.number, when)
        self._count += 1
        self._head = Head(self._count, packet, raw, when)
        if packet.service not in self._from:
            self.others.violations.append(f"UART: the base unit sent a packet of service {packet.service}")
            return
        self._from[packet.service].enter(when, self._count)
        self._fresh(packet, when)

    def _repeats(self, when: float) -> None:
        self._head.attempts += 1
        self._head.last = when
        if self._head.attempts > ATTEMPTS:
            self.others.violations.append(f"UART: the base unit sent packet {self._head.packet.number} "
                                          f"{self._head.attempts} times, the last at {when:.3f} s")

    def _close_head(self, number: int, when: float) -> None:
        head = self._head
        if head is None:
            return
        if not head.acked and head.packet.service in self._from:
            self._unacked.append(head)
        if skipped := (number - head.packet.number - 1) % NUMBERS:
            self._gaps.append((head, when, skipped))

    def _acknowledges(self, packet: il.Packet) -> None:
        head = self._head
        if head and not head.acked and head.packet.number == packet.number and head.packet.service in self._from:
            head.acked = True
            self._from[head.packet.service].leave(head.place)

    def _judge_unacked(self, head: Head) -> None:
        """It may be missing only if it went out as often as it may, and the link was lost over it."""
        if head.attempts == ATTEMPTS and self._failed_between(head.first, head.last):
            self._from[head.packet.service].may_drop(head.first, head.first, LINK_LOST)

    def _failed_between(self, begin: float, end: float) -> bool:
        return any(begin - SLACK <= failure <= end + SLACK for failure in self._failures)


def _key(number: int, answered: bool) -> str:
    return f"{'answer to' if answered else 'acknowledgement of'} packet {number}"
