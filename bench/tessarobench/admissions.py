"""Whom a base unit takes in, in a capture: what each remote unit introduced itself with, and the verdict."""

from __future__ import annotations

from typing import Hashable, Optional

from . import glink, internallink as il

_INIT_BYTES = 22
_BLOCK_HEAD = 4  # of the fallback: the unit, and how many bytes of the message are still to come


def introduction(frame: glink.Frame) -> Optional[glink.Init]:
    """What a unit introduces itself with in this frame, or None when it does something else."""
    is_one = frame.msg_id == glink.INIT and not frame.is_ack and len(frame.payload) == _INIT_BYTES
    return glink.Init.unpack(frame.payload) if is_one else None


def whole_frame(data: bytes) -> Optional[glink.Frame]:
    """The one frame that these bytes are, or None."""
    try:
        (frame, raw), = glink.Assembler().feed(data)
    except (ValueError, glink.Damaged):
        return None
    return frame if len(raw) == len(data) else None


def fallback_frame(packet: il.Packet) -> Optional[glink.Frame]:
    """The message that this packet of the internal link relays as a whole, from a unit or to it."""
    block = packet.payload
    is_whole = int.from_bytes(block[2:_BLOCK_HEAD], "little") == len(block) - _BLOCK_HEAD
    return whole_frame(block[_BLOCK_HEAD:]) if packet.service == il.FALLBACK and is_whole else None


def way_of_block(packet: il.Packet) -> Hashable:
    """That of the unit that the block is from or for."""
    return "fallback", packet.payload[:2]


class Admissions:
    """`accepted` are the units that were taken in, and the checksum of the application that each showed; `paired_here` those of
    them that were strangers before. A `way` is what a unit's question and the answer to it have in common."""

    def __init__(self) -> None:
        self.accepted: dict[int, bytes] = {}
        self.paired_here: set[int] = set()
        self._asking: dict[Hashable, glink.Init] = {}

    def asks(self, way: Hashable, frame: glink.Frame) -> None:
        if init := introduction(frame):
            self._asking[way] = init

    def answered(self, way: Hashable, msg_id: int, payload: bytes) -> None:
        init = self._asking.get(way)
        if init is None or msg_id != glink.INITACK:
            return
        code = int.from_bytes(payload[:2], "little")
        if code == glink.ACCEPTED:
            self.accepted[init.unit] = init.checksum
        elif code == glink.NOT_PAIRED and init.unit not in self.accepted:
            self.paired_here.add(init.unit)  # if it is ever taken in
