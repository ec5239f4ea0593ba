"""A byte pipe on a descriptor: the far end of the UART, be it a pseudo terminal or the socket of an emulated board."""

from __future__ import annotations

import errno
import os
from typing import Callable

from .journal import FROM_BASE_UNIT, TO_BASE_UNIT
from .loop import Loop

# A UART has no memory: what a receiver leaves standing for longer than this many bytes is lost.
OVERRUN_BYTES = 256 * 1024


class SerialLine:
    """Reads all that comes, always, and writes without ever blocking the loop. Owns the descriptor.

    `received` is called on the loop's thread with every chunk. Written bytes wait in order until the line takes them;
    `lost` counts those that were given up because the other side did not read. `taps` are called, on the loop's thread,
    with every chunk that is written (TO_BASE_UNIT) or read (FROM_BASE_UNIT), as it is on the line.
    """

    def __init__(self, loop: Loop, fd: int, received: Callable[[bytes], None]):
        self._loop, self._fd, self._received = loop, fd, received
        self._pending = bytearray()
        self.lost = 0
        self.taps: list[Callable[[str, bytes], None]] = []
        self._traffic = loop.virtual.line if loop.virtual else None
        self._is_full = False
        os.set_blocking(fd, False)
        loop.call(self._open)

    def write(self, data: bytes) -> None:
        """Never blocks. What is written after `close` goes nowhere."""
        if self._fd < 0:
            return
        if len(self._pending) + len(data) > OVERRUN_BYTES:
            self.lost += len(data)
            return
        self._tap(TO_BASE_UNIT, data)
        self._pending += data
        self._flush()

    @property
    def drained(self) -> bool:
        """Whether everything written has been handed to the line."""
        return not self._pending

    def close(self) -> None:
        self._loop.call(self._close)

    def _close(self) -> None:
        if self._fd < 0:
            return
        if self._traffic:
            self._traffic.readers -= 1
        self._loop.watch(self._fd)
        os.close(self._fd)
        self._fd = -1
        self._pending.clear()

    def _open(self) -> None:
        if self._traffic:
            self._traffic.readers += 1
        self._watch()

    def _watch(self) -> None:
        if self._fd >= 0:
            self._loop.watch(self._fd, self._read, self._flush if self._pending else None)

    def _read(self) -> None:
        try:
            data = os.read(self._fd, 65536)
        except BlockingIOError:
            return
        except OSError as error:
            if error.errno not in (errno.EIO, errno.ECONNRESET):
                raise
            data = b""
        if self._traffic:
            self._traffic.received += len(data)
        if data:
            self._tap(FROM_BASE_UNIT, data)
            self._received(data)
        else:
            self._loop.watch(self._fd)  # the other side hung up for good

    def _flush(self) -> None:
        while self._pending:
            try:
                written = os.write(self._fd, self._pending)
            except BlockingIOError:
                break
            if self._traffic:
                self._traffic.wrote(self._pending[:written])
            del self._pending[:written]
        if self._is_full != bool(self._pending):
            self._is_full = not self._is_full
            self._watch()

    def _tap(self, direction: str, data: bytes) -> None:
        for tap in self.taps:
            tap(direction, data)
