"""The 32-bit CRC of the internal link and of both remote links (CRC-32/MPEG-2), by way of another one.

Written from the definition, not from the server's code: polynomial 0x04C11DB7, start 0xFFFFFFFF, most significant bit
first, no final inversion; the four bytes travel most significant byte first. The CRC of zlib has the same polynomial and
start, takes the least significant bit first and inverts the end: so it is ours in a mirror.
"""

from __future__ import annotations

import zlib

SIZE = 4

_MIRRORED = bytes(int(f"{byte:08b}"[::-1], 2) for byte in range(256))
_mirrored_crc = zlib.crc32


def crc_bytes(data: bytes) -> bytes:
    """The four bytes as they travel."""
    return (_mirrored_crc(data.translate(_MIRRORED)) ^ 0xFFFFFFFF).to_bytes(SIZE, "little").translate(_MIRRORED)


def crc32(data: bytes) -> int:
    return int.from_bytes(crc_bytes(data), "big")


def with_crc(data: bytes) -> bytes:
    """`data` followed by its four CRC bytes."""
    return data + crc_bytes(data)


def intact(data: bytes) -> bool:
    """Whether `data` ends with the CRC of what stands before it."""
    return len(data) >= SIZE and crc_bytes(data[:-SIZE]) == data[-SIZE:]
