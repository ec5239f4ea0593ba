"""The base controller's relay between the base unit and remote units without a network: services 104 and 105.

Towards a remote unit the base unit sends a message in blocks, the next one after a word of flow control for that unit;
towards the base unit the relay cuts a message into blocks itself, and the internal link paces them.

    block (105)            unit 2, bytes of the message still to come 2 (this block's included), data
    flow control (105)     unit 2
    verdict (105)          one byte: 0 the channel failed, 1 accepted
    short message (104)    unit 2, data
"""

from __future__ import annotations

import struct
from typing import Callable, NamedTuple, Optional

from . import internallink as il
from .basecontroller import BaseController, Sending
from .impair import Impairment
from .journal import BENCH, FROM_BASE_UNIT, TO_BASE_UNIT, Journal
from .loop import Loop

LINK = "relay"
BLOCK_BYTES = 250
REJECTED, ACCEPTED = 0, 1

_UNIT = struct.Struct("<H")
_BLOCK = struct.Struct("<HH")


class Block(NamedTuple):
    """One block from the base unit."""

    when: float
    unit: int
    remaining: int
    data: bytes

    @property
    def is_last(self) -> bool:
        return self.remaining == len(self.data)


class Short(NamedTuple):
    """One short message from the base unit."""

    when: float
    unit: int
    data: bytes


class FallbackRelay:
    """Plugs itself into a base controller. Everything public may be called from any thread.

    `blocks`, `shorts`    what came from the base unit, oldest first
    `flow`                what happens to words of flow control (an Impairment: drop, delay, duplicate)
    `to_units`            what happens to whole messages on their way to a unit
    `rejecting`           when true, blocks are answered with "rejected" in place of flow control, and go nowhere
    `complaints`          malformed blocks and messages, in words; nobody should find anything here
    `early`               blocks that came without waiting for flow control, as after a unit's INIT
    `abandoned`           messages that the base unit began and did not finish
    """

    def __init__(self, loop: Loop, journal: Journal, controller: BaseController):
        self._loop, self._journal, self._controller = loop, journal, controller
        self.blocks: list[Block] = []
        self.shorts: list[Short] = []
        self.complaints: list[str] = []
        self.early: list[Block] = []
        self.abandoned = 0
        self.flow, self.to_units = Impairment(loop), Impairment(loop)
        self.rejecting = False
        self._holding = False
        self._held: list[int] = []
        self._partial: dict[int, tuple[bytes, int]] = {}  # unit -> what came of a message, how much is to come
        self._awaiting_flow: set[int] = set()
        self._units: dict[int, Callable[[bytes], None]] = {}
        controller.handlers[il.FALLBACK] = self._from_base_unit
        controller.handlers[il.SHORT_FALLBACK] = self._short_from_base_unit

    # --- the units' side -------------------------------------------------------------------------------------------

    def attach(self, unit: int, received: Callable[[bytes], None]) -> None:
        """From now on this unit's messages go to `received`, on the loop's thread."""
        self._units[unit] = received

    def detach(self, unit: int) -> None:
        self._units.pop(unit, None)

    def send(self, unit: int, message: bytes, block_bytes: int = BLOCK_BYTES) -> Optional[Sending]:
        """Takes a unit's message to the base unit; gives the sending of its last block."""
        sending = None
        for start in range(0, len(message), block_bytes):
            rest = message[start:]
            sending = self.send_raw(_BLOCK.pack(unit, len(rest)) + rest[:block_bytes])
        self._note(TO_BASE_UNIT, "message", unit=unit, size=len(message))
        return sending

    def send_raw(self, payload: bytes) -> Sending:
        """Any bytes on service 105."""
        return self._controller.send(il.FALLBACK, payload)

    def send_short(self, unit: int, data: bytes) -> Sending:
        """A short message to the base unit."""
        self._note(TO_BASE_UNIT, "short", unit=unit, payload=data)
        return self._controller.send(il.SHORT_FALLBACK, _UNIT.pack(unit) + data)

    # --- faults ----------------------------------------------------------------------------------------------------

    def reject(self) -> Sending:
        """Tells the base unit that the channel failed."""
        self._note(BENCH, "channel rejected")
        return self.send_raw(bytes([REJECTED]))

    def hold_flow(self) -> None:
        """Keeps back flow control; the base unit must wait."""
        self._note(BENCH, "flow control held back")
        self._holding = True

    def release_flow(self) -> None:
        """Lets flow control go, what was held back first."""
        self._note(BENCH, "flow control released")
        self._loop.call(self._release)

    def grant_flow(self, unit: int) -> None:
        """One word of flow control, asked for or not."""
        self._loop.call(self._grant, unit)

    # --- on the loop's thread --------------------------------------------------------------------------------------

    def _note(self, direction: str, kind: str, **detail) -> None:
        self._loop.call(lambda: self._journal.add(LINK, direction, kind, **detail))

    def _release(self) -> None:
        self._holding = False
        held, self._held = self._held, []
        for unit in held:
            self._give_flow(unit)

    def _from_base_unit(self, payload: bytes) -> None:
        if len(payload) <= _BLOCK.size or len(payload) > _BLOCK.size + BLOCK_BYTES:
            self._complain(f"a block of {len(payload)} bytes")
            return
        unit, remaining = _BLOCK.unpack(payload[:_BLOCK.size])
        block = Block(self._journal.now, unit, remaining, payload[_BLOCK.size:])
        self.blocks.append(block)
        if unit in self._awaiting_flow:
            self.early.append(block)
        if self.rejecting:
            self.send_raw(bytes([REJECTED]))
            return
        self._awaiting_flow.add(unit)
        self._reassemble(block)
        self._give_flow(unit)

    def _complain(self, text: str) -> None:
        self.complaints.append(text)
        self._journal.add(LINK, BENCH, "complaint", text=text)

    def _reassemble(self, block: Block) -> None:
        """A block that does not continue what is there begins a new message."""
        begun, to_come = self._partial.pop(block.unit, (b"", block.remaining))
        if to_come != block.remaining:
            self.abandoned += 1
            begun = b""
        message = begun + block.data
        if not block.is_last:
            self._partial[block.unit] = (message, block.remaining - len(block.data))
            return
        self._journal.add(LINK, FROM_BASE_UNIT, "message", unit=block.unit, size=len(message))
        self.to_units.apply(message, lambda data: self._deliver(block.unit, data))

    def _deliver(self, unit: int, message: bytes) -> None:
        if unit in self._units:
            self._units[unit](message)

    def _give_flow(self, unit: int) -> None:
        if self._holding:
            self._held.append(unit)
        else:
            self.flow.apply(_UNIT.pack(unit), lambda word: self._grant(_UNIT.unpack(word)[0]))

    def _grant(self, unit: int) -> None:
        self._awaiting_flow.discard(unit)
        self.send_raw(_UNIT.pack(unit))

    def _short_from_base_unit(self, payload: bytes) -> None:
        if len(payload) < _UNIT.size:
            self._complain(f"a short message of {len(payload)} bytes")
            return
        unit = _UNIT.unpack(payload[:_UNIT.size])[0]
        short = Short(self._journal.now, unit, payload[_UNIT.size:])
        self.shorts.append(short)
        self._journal.add(LINK, FROM_BASE_UNIT, "short", unit=unit, payload=short.data)
