"""Captures in the pcapng format: several interfaces of different kinds in one file, for Wireshark and tshark.

Only what a capture needs: a section header, an interface description per link, enhanced packet blocks with nanosecond
time stamps and direction, lines of logs between them, and at the end statistics per interface. Frames of the internal
link are written as link type USER0, one byte of direction (0 to the base controller, 1 from it) before the bytes of the line;
`tools/wireshark/tessaro.lua` reads them so.
"""

from __future__ import annotations

import struct
import time
from typing import BinaryIO, Optional

LINKTYPE_ETHERNET = 1
LINKTYPE_USER0 = 147

_SECTION_HEADER, _INTERFACE_DESCRIPTION, _INTERFACE_STATISTICS, _ENHANCED_PACKET = 0x0A0D0D0A, 1, 5, 6
_JOURNAL_ENTRY = 9  # one entry as systemd's journal exports it
_BYTE_ORDER_MAGIC = 0x1A2B3C4D
_UNKNOWN_LENGTH = 0xFFFFFFFFFFFFFFFF
# Options. The first two mean the same in every block.
_END, _COMMENT = 0, 1
_SECTION_APPLICATION = 4
_INTERFACE_NAME, _INTERFACE_WHAT, _INTERFACE_RESOLUTION = 2, 3, 9
_PACKET_FLAGS, _INBOUND, _OUTBOUND = 2, 1, 2
_STATISTICS_RECEIVED, _STATISTICS_DROPPED = 4, 5
_NANOSECONDS = 9
SNAP_LENGTH = 262144  # the longest packet that readers take

TO_BASE_CONTROLLER = 0
FROM_BASE_CONTROLLER = 1


def _padded(data: bytes) -> bytes:
    return data + bytes(-len(data) % 4)


def _option(code: int, data: bytes) -> bytes:
    return struct.pack("<HH", code, len(data)) + _padded(data)


def _options(*options: bytes) -> bytes:
    """Given options and what ends them; no options need no end."""
    given = b"".join(options)
    return given + _option(_END, b"") if given else b""


def _block(kind: int, body: bytes) -> bytes:
    total = len(body) + 12
    return struct.pack("<II", kind, total) + body + struct.pack("<I", total)


def _stamp(nanoseconds: int) -> bytes:
    return struct.pack("<II", nanoseconds >> 32, nanoseconds & 0xFFFFFFFF)


class PcapngWriter:
    """Writes blocks to a binary stream; not thread-safe, one thread writes."""

    def __init__(self, stream: BinaryIO, application: str = ""):
        self._stream = stream
        self._interfaces = 0
        head = struct.pack("<IHHQ", _BYTE_ORDER_MAGIC, 1, 0, _UNKNOWN_LENGTH)
        named = _option(_SECTION_APPLICATION, application.encode()) if application else b""
        stream.write(_block(_SECTION_HEADER, head + _options(named)))

    def add_interface(self, name: str, link_type: int, what: str = "") -> int:
        """The number under which packets of this interface are written."""
        options = _options(_option(_INTERFACE_NAME, name.encode()),
                           _option(_INTERFACE_WHAT, what.encode()) if what else b"",
                           _option(_INTERFACE_RESOLUTION, bytes([_NANOSECONDS])))
        self._stream.write(_block(_INTERFACE_DESCRIPTION, struct.pack("<HHI", link_type, 0, SNAP_LENGTH) + options))
        self._interfaces += 1
        return self._interfaces - 1

    def packet(self, interface: int, data: bytes, seconds: float | None = None) -> None:
        """One packet, now or at a time since the epoch."""
        self.packet_at(interface, data, time.time_ns() if seconds is None else round(seconds * 1e9))

    def packet_at(self, interface: int, data: bytes, nanoseconds: int, outbound: Optional[bool] = None) -> None:
        """One packet; `outbound` is the base unit's point of view."""
        options = b"" if outbound is None else _options(
            _option(_PACKET_FLAGS, struct.pack("<I", _OUTBOUND if outbound else _INBOUND)))
        head = struct.pack("<I", interface) + _stamp(nanoseconds) + struct.pack("<II", len(data), len(data))
        self._stream.write(_block(_ENHANCED_PACKET, head + _padded(data) + options))

    def log_line(self, text: str, source: str, nanoseconds: int) -> None:
        """One line of a log, of the program `source`; readers show it in a row of its own."""
        fields = (f"__REALTIME_TIMESTAMP={nanoseconds // 1000}", f"MESSAGE={' '.join(text.splitlines())}",
                  f"SYSLOG_IDENTIFIER={source}")
        entry = "".join(f"{field}\n" for field in fields)
        self._stream.write(_block(_JOURNAL_ENTRY, _padded(entry.encode("utf-8", "replace"))))

    def statistics(self, interface: int, received: int, dropped: Optional[int], comment: str = "") -> None:
        """How many packets of an interface there were, and how many of them are missing here (None: that is not known of
        this interface alone)."""
        options = _options(_option(_COMMENT, comment.encode()) if comment else b"",
                           _option(_STATISTICS_RECEIVED, struct.pack("<Q", received)),
                           _option(_STATISTICS_DROPPED, struct.pack("<Q", dropped)) if dropped is not None else b"")
        body = struct.pack("<I", interface) + _stamp(time.time_ns()) + options
        self._stream.write(_block(_INTERFACE_STATISTICS, body))
