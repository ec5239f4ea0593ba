"""What a service tool and a base unit say to each other, as values: requests, the list of applications, an offer.

Written independently of the server. All numbers are big-endian; a text is the number of its bytes in four bytes, then
UTF-16. Nothing here does input or output: `Reader` raises `Incomplete` when a reply has not arrived as a whole.
"""

from __future__ import annotations

import re
import struct
from typing import NamedTuple

REQUEST_PORT, TRANSFER_PORT = 9123, 9124
LARGEST_REQUEST = 64 * 1024
LARGEST_TEXT = 1024 * 1024  # of a reply; a base unit that says more than that is none
_NULL_TEXT = 0xFFFFFFFF
_DIGEST = re.compile("[0-9a-fA-F]{32}")


class Incomplete(Exception):
    """The reply goes on; more bytes are needed."""


class Malformed(Exception):
    """These bytes are no reply of a base unit."""


class Offer(NamedTuple):
    """An archive that is ready to be fetched."""

    name: str
    size: int
    md5: str


def text(value: str) -> bytes:
    raw = value.encode("utf-16-be")
    return struct.pack(">I", len(raw)) + raw


def get_app_list() -> bytes:
    return text("getAppList")


def get_app(unit: int, path: str) -> bytes:
    return text("getApp") + struct.pack(">H", unit) + text(path)


def start_transfer() -> bytes:
    return text("startTransfer")


class Reader:
    """Takes a reply apart from its front; `position` is where the next field begins."""

    def __init__(self, data: bytes):
        self._data, self.position = data, 0

    def take(self, size: int) -> bytes:
        if self.position + size > len(self._data):
            raise Incomplete()
        self.position += size
        return self._data[self.position - size:self.position]

    def number(self, size: int) -> int:
        return int.from_bytes(self.take(size), "big")

    def text(self) -> str:
        length = self.number(4)
        if length == _NULL_TEXT:
            return ""
        if length % 2 or length > LARGEST_TEXT:
            raise Malformed(f"a text of {length} bytes")
        try:
            return self.take(length).decode("utf-16-be")
        except UnicodeDecodeError as error:
            raise Malformed(str(error)) from error

    def expect(self, word: str) -> None:
        found = self.text()
        if found != word:
            raise Malformed(f"the reply begins with {found!r} instead of {word!r}")


def parse_app_list(data: bytes) -> tuple[list[dict[str, str]], int]:
    """The applications, and how many bytes their list took."""
    reader = Reader(data)
    reader.expect("appList")
    records = []
    for _ in range(reader.number(4)):
        record = {}
        for _ in range(reader.number(4)):
            key = reader.text()
            record[key] = reader.text()
        records.append(record)
    return records, reader.position


def parse_offer(data: bytes) -> tuple[Offer, int]:
    """The offered archive, and how many bytes its description took."""
    reader = Reader(data)
    reader.expect("app")
    name, size, md5 = reader.text(), reader.number(8), reader.text()
    if "/" in name or name in ("", ".", "..") or not _DIGEST.fullmatch(md5):
        raise Malformed(f"an archive named {name!r} with the digest {md5!r}")
    return Offer(name, size, md5), reader.position
