"""The machine controller's link as bytes: packets and their payloads, in the bench's own words.

    packet   type 4, revision 2, origin 2, serial 2, payload size 2, spare 4, payload, CRC 4
    VRPO     sub-packet index 1, data          VRCI, VRCO   command id 2, reserved 4, command
    VRPI     data                              VRAI, VRAO   command id 2

Numbers are little-endian, the CRC is not. "I" is into the controller, "O" out of it.
"""

from __future__ import annotations

import struct
from typing import NamedTuple, Optional

from . import crc

GROUP, PORT = "239.255.42.20", 5825
BASE_UNIT_PORT_OFFSET = 2  # the base unit listens on the second port above the controller's

CONTROLLER = 0  # origin of the machine controller; a base unit writes its identity
PART_SIZE = 491  # data bytes in one sub-packet of the periodic data
RESERVED = bytes(4)

_HEADER = struct.Struct("<4sHHHHI")
_ID = struct.Struct("<H")


class Packet(NamedTuple):
    """One packet. `size` is what its size field claims when that is not the truth."""

    type: str
    serial: int
    payload: bytes = b""
    origin: int = CONTROLLER
    revision: int = 0
    spare: int = 0
    size: Optional[int] = None

    def pack(self) -> bytes:
        size = len(self.payload) if self.size is None else self.size
        return crc.with_crc(_HEADER.pack(self.type.encode("latin-1"), self.revision, self.origin, self.serial & 0xFFFF,
                                         size & 0xFFFF, self.spare) + self.payload)


def parse(raw: bytes) -> Optional[Packet]:
    """The packet in a datagram, or None when it is damaged. Only the CRC and the sizes are judged."""
    if len(raw) < _HEADER.size + crc.SIZE or not crc.intact(raw):
        return None
    kind, revision, origin, serial, size, spare = _HEADER.unpack_from(raw)
    payload = raw[_HEADER.size:-crc.SIZE]
    if size != len(payload):
        return None
    return Packet(kind.decode("latin-1"), serial, payload, origin, revision, spare)


def part(index: int, data: bytes) -> bytes:
    """Payload of a VRPO."""
    return bytes([index]) + data


def parts(data: bytes, size: int = PART_SIZE) -> list[bytes]:
    """Periodic data cut into the payloads of their VRPO packets, in order."""
    return [part(index, data[start:start + size]) for index, start in enumerate(range(0, len(data), size))]


def command(number: int, text: bytes) -> bytes:
    """Payload of a VRCO or VRCI."""
    return _ID.pack(number & 0xFFFF) + RESERVED + text


def acknowledgement(number: int) -> bytes:
    """Payload of a VRAO or VRAI."""
    return _ID.pack(number & 0xFFFF)


def describe(packet: Packet) -> dict:
    """The fields of a packet, for the journal."""
    common = {"serial": packet.serial, "origin": packet.origin}
    payload = packet.payload
    if packet.type == "VRPI":
        return {"payload": payload, **common}
    if packet.type == "VRPO" and payload:
        return {"part": payload[0], "size": len(payload) - 1, **common}
    if packet.type in ("VRCI", "VRCO") and len(payload) >= _ID.size + len(RESERVED):
        return {"id": _ID.unpack_from(payload)[0], "command": payload[_ID.size + len(RESERVED):], **common}
    if packet.type in ("VRAI", "VRAO") and len(payload) == _ID.size:
        return {"id": _ID.unpack(payload)[0], **common}
    return {"payload": payload, **common}
