"""Captures in the pcapng format: several interfaces of different kinds in one file, for Wireshark and tshark.

Only what a capture needs: a section header, an interface description per link, and enhanced packet blocks with
nanosecond time stamps and direction. Frames of the internal link are written as link type USER0, one byte of direction
(0 to the base controller, 1 from it) before the bytes of the line; `tools/wireshark/tessaro.lua` reads them so.
"""

from __future__ import annotations

import struct
import time
from typing import BinaryIO

LINKTYPE_ETHERNET = 1
LINKTYPE_USER0 = 147

_SECTION_HEADER = 0x0A0D0D0A
_INTERFACE_DESCRIPTION = 1
_ENHANCED_PACKET = 6
_BYTE_ORDER_MAGIC = 0x1A2B3C4D
_UNKNOWN_LENGTH = 0xFFFFFFFFFFFFFFFF
_OPTION_END = 0
_OPTION_NAME = 2
_OPTION_TIME_RESOLUTION = 9
_NANOSECONDS = 9
_SNAP_LENGTH = 262144

TO_BASE_CONTROLLER = 0
FROM_BASE_CONTROLLER = 1


def _padded(data: bytes) -> bytes:
    return data + bytes(-len(data) % 4)


def _option(code: int, data: bytes) -> bytes:
    return struct.pack("<HH", code, len(data)) + _padded(data)


def _block(kind: int, body: bytes) -> bytes:
    total = len(body) + 12
    return struct.pack("<II", kind, total) + body + struct.pack("<I", total)


class PcapngWriter:
    """Writes blocks to a binary stream; not thread-safe, one thread writes."""

    def __init__(self, stream: BinaryIO):
        self._stream = stream
        self._interfaces = 0
        stream.write(_block(_SECTION_HEADER, struct.pack("<IHHQ", _BYTE_ORDER_MAGIC, 1, 0, _UNKNOWN_LENGTH)))

    def add_interface(self, name: str, link_type: int) -> int:
        """The number under which packets of this interface are written."""
        options = _option(_OPTION_NAME, name.encode()) + _option(_OPTION_TIME_RESOLUTION, bytes([_NANOSECONDS]))
        options += _option(_OPTION_END, b"")
        self._stream.write(_block(_INTERFACE_DESCRIPTION, struct.pack("<HHI", link_type, 0, _SNAP_LENGTH) + options))
        self._interfaces += 1
        return self._interfaces - 1

    def packet(self, interface: int, data: bytes, seconds: float | None = None) -> None:
        """One packet, now or at a time since the epoch."""
        nanoseconds = time.time_ns() if seconds is None else round(seconds * 1e9)
        head = struct.pack("<IIIII", interface, nanoseconds >> 32, nanoseconds & 0xFFFFFFFF, len(data), len(data))
        self._stream.write(_block(_ENHANCED_PACKET, head + _padded(data)))
