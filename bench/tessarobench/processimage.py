"""The base controller's registers: named fields laid out as the tag file of the installation tells."""

from __future__ import annotations

import struct
from typing import Union

from .csvfile import Table

Value = Union[int, float, str, bytes, bool]


class ProcessImage:
    """The process image that the base controller sends, with `set` for one field of it by its tag name.

    Encodes from the data types' definitions: "BE_" puts the most significant byte first; bit 0 is the least significant
    bit of the least significant byte; strings are padded with zero bytes.
    """

    def __init__(self, tags: Table):
        self._fields = {row["tag"]: row for row in tags}
        self.data = bytearray(max((self._end(row) for row in tags), default=0))

    def set(self, name: str, value: Value) -> "ProcessImage":
        row = self._fields[name]
        start, end = int(row["startByte"] or 0), self._end(row)
        if end > len(self.data):
            raise ValueError(f"{name} lies outside the image")
        self.data[start:end] = self._encode(row, value, bytes(self.data[start:end]))
        return self

    def __bytes__(self) -> bytes:
        return bytes(self.data)

    @staticmethod
    def _end(row: dict) -> int:
        return int(row["startByte"] or 0) + int(row["byteSize"] or 0)

    @classmethod
    def _encode(cls, row: dict, value: Value, old: bytes) -> bytes:
        kind = row["dataType"]
        big = kind.startswith("BE_")
        kind = kind[3:] if big else kind
        if kind == "REAL":
            return struct.pack((">" if big else "<") + {4: "f", 8: "d"}[len(old)], value)
        if kind in ("STRING", "RAW"):
            raw = value.encode("ascii") if isinstance(value, str) else bytes(value)
            return raw[:len(old)].ljust(len(old), b"\0")
        bits = 1 if kind == "BOOLEAN" else int(row.get("bitSize") or 0)
        return cls._encode_bits(int(value), old, big, int(row.get("startBit") or 0), bits)

    @staticmethod
    def _encode_bits(value: int, old: bytes, big: bool, start: int, bits: int) -> bytes:
        order = "big" if big else "little"
        start, bits = (start, bits) if bits else (0, 8 * len(old))
        mask = ((1 << bits) - 1) << start
        word = int.from_bytes(old, order) & ~mask | (value << start) & mask
        return word.to_bytes(len(old), order)
