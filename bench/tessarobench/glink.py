"""GLink, the remote link between remote units and the base unit, as bytes: in the bench's own words.

    frame    header (13 bytes, CRC), payload, CRC over all before it; CRCs travel most significant byte first
    header   payload size 2, stream 1, message id 1, type 1, sender's time in ms 4, reserved 4; least significant first
"""

from __future__ import annotations

import hashlib
import os
import struct
from pathlib import Path
from typing import Iterator, NamedTuple, Optional

from . import clock, crc

(HEARTBEAT, INIT, INITACK, CMD, PERIODIC_DATA, SERVICE_FORWARD, POWER_OFF, MACHINE_STOP, BASE_STATUS,
 FALLBACK_DEINIT) = range(10)
NAMES = {HEARTBEAT: "heartbeat", INIT: "INIT", INITACK: "INITACK", CMD: "command", PERIODIC_DATA: "periodic data",
         SERVICE_FORWARD: "service forward", POWER_OFF: "power off", MACHINE_STOP: "machine stop",
         BASE_STATUS: "base status", FALLBACK_DEINIT: "fallback deinit"}

MESSAGE, ACK = 0, 1           # types
COMMAND_STREAM, DATA_STREAM = 0, 1
FROM_MACHINE_CONTROLLER, FROM_BASE_CONTROLLER = 0, 1  # first byte of periodic data towards a unit

ACCEPTED, NOT_PAIRED, OTHER_APPLICATION = 0, 1, 4     # codes of INITACK

_FIELDS = struct.Struct("<HBBBI4x")
_INIT = struct.Struct("<BBHH16s")
_INITACK = struct.Struct("<H40s")
_BASE_STATUS = struct.Struct("<HBBBBBH")
HEADER_SIZE = _FIELDS.size + crc.SIZE
OVERHEAD = HEADER_SIZE + crc.SIZE
HEARTBEAT_PAYLOAD = bytes(4)


def milliseconds_now() -> int:
    """The time stamp of a frame: milliseconds since the epoch, low 32 bits."""
    return int(clock.time() * 1000) & 0xFFFFFFFF


class Frame(NamedTuple):
    """One message or acknowledgement."""

    msg_id: int
    payload: bytes = b""
    kind: int = MESSAGE
    stream: int = DATA_STREAM
    time: int = 0

    @property
    def is_ack(self) -> bool:
        return self.kind == ACK

    @property
    def name(self) -> str:
        return NAMES.get(self.msg_id, f"message {self.msg_id}")

    def pack(self) -> bytes:
        header = _FIELDS.pack(len(self.payload), self.stream, self.msg_id, self.kind, self.time)
        return crc.with_crc(crc.with_crc(header) + self.payload)


def message(msg_id: int, payload: bytes = b"") -> Frame:
    """A message as a remote unit sends it now."""
    stream = COMMAND_STREAM if msg_id == CMD else DATA_STREAM
    return Frame(msg_id, bytes(payload), MESSAGE, stream, milliseconds_now())


def acknowledgement(frame: Frame) -> Frame:
    return Frame(frame.msg_id, b"", ACK, frame.stream, milliseconds_now())


class Damaged(Exception):
    """A frame failed one of its checks. The stream cannot be trusted any more."""


class Assembler:
    """Cuts a byte stream into frames."""

    def __init__(self) -> None:
        self._rest = bytearray()

    @property
    def waiting(self) -> int:
        """How many bytes of an unfinished frame are there."""
        return len(self._rest)

    def feed(self, data: bytes) -> Iterator[tuple[Frame, bytes]]:
        """Yields the frames that `data` completes, with their bytes; raises Damaged at the first one that is wrong."""
        self._rest += data
        while (taken := self._take()) is not None:
            yield taken

    def _take(self) -> Optional[tuple[Frame, bytes]]:
        if len(self._rest) < HEADER_SIZE:
            return None
        header = bytes(self._rest[:HEADER_SIZE])
        if not crc.intact(header):
            raise Damaged(f"header {header.hex(' ')}")
        size, stream, msg_id, kind, sent = _FIELDS.unpack(header[:_FIELDS.size])
        if len(self._rest) < size + OVERHEAD:
            return None
        raw = bytes(self._rest[:size + OVERHEAD])
        del self._rest[:size + OVERHEAD]
        if not crc.intact(raw):
            raise Damaged(f"frame {raw[:60].hex(' ')}")
        return Frame(msg_id, raw[HEADER_SIZE:-crc.SIZE], kind, stream, sent), raw


# --- payloads ----------------------------------------------------------------------------------------------------------


class Init(NamedTuple):
    major: int
    minor: int
    unit: int
    base: int
    checksum: bytes

    def pack(self) -> bytes:
        return _INIT.pack(*self)

    @classmethod
    def unpack(cls, payload: bytes) -> "Init":
        return cls(*_INIT.unpack(payload))


class InitAck(NamedTuple):
    code: int
    text: str

    @classmethod
    def unpack(cls, payload: bytes) -> "InitAck":
        code, text = _INITACK.unpack(payload)
        return cls(code, text.rstrip(b"\0").decode("ascii", "replace"))


class BaseStatus(NamedTuple):
    bu_identity: int
    bu_state: int
    tsaps: int
    unarmed_rus: int
    eglink_stat_out: int
    eclink_status: int
    armed_ru: int

    @classmethod
    def unpack(cls, payload: bytes) -> "BaseStatus":
        return cls(*_BASE_STATUS.unpack(payload))


_RECORDS = {INIT: (Init, _INIT.size), INITACK: (InitAck, _INITACK.size), BASE_STATUS: (BaseStatus, _BASE_STATUS.size)}


def describe(frame: Frame) -> dict:
    """The fields of a message, for the journal."""
    record, size = _RECORDS.get(frame.msg_id, (None, 0))
    if record and len(frame.payload) == size:
        fields = record.unpack(frame.payload)._asdict()
        return {("of" if name == "unit" else name): value for name, value in fields.items()}
    return {"payload": frame.payload} if frame.payload else {}


# --- the checksum of an application ------------------------------------------------------------------------------------


def application_checksum(folder: Path) -> bytes:
    """The MD5 over the contents of all files of an application, in the order of their paths.

    Left out are what a site changes (keys.csv), what other systems drop into folders (thumbs.db), what is compiled on
    the unit (names that end with qmlc), and everything hidden.
    """
    digest = hashlib.md5()
    for path in sorted(_hashed_files(Path(folder))):
        with open(Path(folder) / path, "rb") as file:
            while chunk := file.read(1 << 20):
                digest.update(chunk)
    return digest.digest()


def _hashed_files(folder: Path) -> Iterator[str]:
    """Paths below the folder; files that cannot be read count for nothing."""
    for directory, folders, files in os.walk(folder):
        folders[:] = [name for name in folders if not name.startswith(".")]
        for name in files:
            path = os.path.join(directory, name)
            if not _left_out(name) and os.access(path, os.R_OK):
                yield os.path.relpath(path, folder)


def _left_out(name: str) -> bool:
    return name.startswith(".") or name.endswith("qmlc") or name == "keys.csv" or name.lower() == "thumbs.db"
