"""The 32-bit CRC of the internal link and of both remote links (CRC-32/MPEG-2), bit by bit folded into a table.

Written from the definition, not from the server's code: polynomial 0x04C11DB7, start 0xFFFFFFFF, most significant bit
first, no final inversion; the four bytes travel most significant byte first.
"""

from __future__ import annotations

POLYNOMIAL = 0x04C11DB7
SIZE = 4


def _table_entry(index: int) -> int:
    register = index << 24
    for _ in range(8):
        register = ((register << 1) ^ (POLYNOMIAL if register & 0x80000000 else 0)) & 0xFFFFFFFF
    return register


_TABLE = [_table_entry(index) for index in range(256)]


def crc32(data: bytes) -> int:
    register = 0xFFFFFFFF
    for byte in data:
        register = ((register << 8) & 0xFFFFFFFF) ^ _TABLE[(register >> 24) ^ byte]
    return register


def with_crc(data: bytes) -> bytes:
    """`data` followed by its four CRC bytes."""
    return bytes(data) + crc32(data).to_bytes(SIZE, "big")


def intact(data: bytes) -> bool:
    """Whether `data` ends with the CRC of what stands before it."""
    return len(data) >= SIZE and crc32(data[:-SIZE]) == int.from_bytes(data[-SIZE:], "big")
