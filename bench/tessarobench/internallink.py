"""The internal link as bytes: frames, packets and service payloads, in the bench's own words.

    frame    0x82, stuffed (packet + CRC), 0x0A; inside, 0x82 0x90 0x0A travel as 0x90 and the byte with bit 7 turned
    packet   control byte (message class in bits 7-6, packet number in bits 5-0), service id, payload
"""

from __future__ import annotations

import functools
import re
from typing import NamedTuple, Optional

from . import crc

START, END, ESCAPE = 0x82, 0x0A, 0x90
ESCAPE_BIT = 0x80

TRANSPORT_ACK, SERVICE_ACK, ACK = 1, 2, 3  # message classes; class 0 must never be sent

EVENTS, PROCESS_DATA, CONFIGURATION, SHORT_FALLBACK, FALLBACK, COMMAND, PERIODIC = 100, 101, 102, 104, 105, 106, 107
SERVICE_NAMES = {EVENTS: "event", PROCESS_DATA: "process", CONFIGURATION: "config", SHORT_FALLBACK: "cfallback",
                 FALLBACK: "fallback", COMMAND: "command", PERIODIC: "periodic"}

RESET, RECONFIG, RELEASEARM, ECLINKRESET, EGRECONFIG = 0, 100, 101, 102, 103
EVENT_NAMES = {RESET: "RESET", RECONFIG: "RECONFIG", RELEASEARM: "RELEASEARM", ECLINKRESET: "ECLINKRESET",
               EGRECONFIG: "EGRECONFIG"}


class Packet(NamedTuple):
    message_class: int
    number: int
    service: int
    payload: bytes

    def pack(self) -> bytes:
        return bytes([self.message_class << 6 | self.number & 0x3F, self.service]) + self.payload

    @classmethod
    def unpack(cls, raw: bytes) -> "Packet":
        return cls(raw[0] >> 6, raw[0] & 0x3F, raw[1], raw[2:])


_ESCAPED = {byte: bytes([ESCAPE, byte ^ ESCAPE_BIT]) for byte in (ESCAPE, START, END)}  # the escape byte comes first
_START, _END, _ESCAPE = bytes([START]), bytes([END]), bytes([ESCAPE])
_ESCAPE_AND_BYTE = re.compile(re.escape(_ESCAPE) + b"(.?)|[" + re.escape(_START + _END) + b"]", re.DOTALL)
_RECENT = 1024  # frames; acknowledgements come again and again, and whoever looks at a line sees what its reader sees


def stuff(body: bytes) -> bytes:
    """A body as a frame on the line."""
    for byte, pair in _ESCAPED.items():
        body = body.replace(bytes([byte]), pair)
    return _START + body + _END


def unstuff(frame: bytes) -> bytes:
    """The body of a frame; start and end bytes are dropped wherever they stand, a dangling escape is dropped too."""
    if _ESCAPE not in frame:
        return frame.translate(None, _START + _END)
    return _ESCAPE_AND_BYTE.sub(lambda found: bytes([found[1][0] ^ ESCAPE_BIT]) if found[1] else b"", frame)


@functools.lru_cache(_RECENT)
def frame(packet: Packet) -> bytes:
    return stuff(crc.with_crc(packet.pack()))


@functools.lru_cache(_RECENT)
def parse(raw: bytes) -> Optional[Packet]:
    """The packet in a frame, or None when it is damaged."""
    body = unstuff(raw)
    if len(body) < 2 + crc.SIZE or not crc.intact(body):
        return None
    return Packet.unpack(body[:-crc.SIZE])


class Splitter:
    """Cuts the byte stream of a line into frames, each with its end byte."""

    def __init__(self) -> None:
        self._rest = b""

    def feed(self, data: bytes) -> list[bytes]:
        *frames, self._rest = (self._rest + data).split(_END)
        return [part + _END for part in frames]


def describe(packet: Packet, from_base_unit: bool) -> tuple[str, dict]:
    """A word for what a packet is, and its fields, for the journal."""
    common = {"number": packet.number, "klass": packet.message_class, "service": packet.service}
    payload = packet.payload
    if packet.message_class == ACK and not payload:
        return "ack", common
    if packet.service == EVENTS and payload:
        return "event", {"event": EVENT_NAMES.get(payload[0], str(payload[0])), **common}
    if packet.service == PROCESS_DATA and from_base_unit and len(payload) == 4:
        return "status", {"identity": int.from_bytes(payload[:2], "little"), "units": payload[2],
                          "eglink": payload[3], **common}
    if packet.service == PROCESS_DATA:
        return "image", {"size": len(payload), **common}
    if packet.service == CONFIGURATION and packet.message_class == SERVICE_ACK:
        unit = {"unit": int.from_bytes(payload[4:6], "little")} if len(payload) == 6 else {}
        return "ask", {"key": payload[:4].decode("latin-1"), **unit, **common}
    if packet.service == CONFIGURATION and packet.message_class == ACK:
        return "answer", {"value": payload, **common}
    return SERVICE_NAMES.get(packet.service, "unknown"), {"payload": payload, **common}
