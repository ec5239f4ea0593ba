"""The two ways of a remote unit's bytes to the base unit: a TCP connection, and the base controller's fallback relay."""

from __future__ import annotations

import contextlib
import ctypes
import errno
import os
import socket
import struct
from typing import Callable, Optional

from .fallbackrelay import FallbackRelay
from .loop import Loop, Timer
from .pieces import Pieces

TCP, FALLBACK = "TCP", "fallback"

ADDRESS = ("192.168.32.1", 1147)
SMALL_BUFFER_BYTES = 2048

_SO_ATTACH_FILTER = 26
_DROP_EVERYTHING = ctypes.create_string_buffer(struct.pack("HBBI", 0x06, 0, 0, 0), 8)  # "return 0" for every packet


class TcpPath:
    """One connection, from connecting to its end. Used on the loop's thread; takes over the socket.

    `pieces` says how what is written is cut. `opened()` is called when it stands, `received(data)` with what comes, `ended(reason)` once when it is over without
    our having closed it.
    """

    kind = TCP

    def __init__(self, loop: Loop, tcp: socket.socket, opened: Callable[[], None], received: Callable[[bytes], None],
                 ended: Callable[[str], None], small_buffer: bool = False, target: tuple[str, int] = ADDRESS):
        self._loop, self._tcp, self._target = loop, tcp, target
        self._opened, self._received, self._ended = opened, received, ended
        self.pieces = Pieces(loop, self._queue)
        self._pending = bytearray()
        self._dribble: Optional[float] = None
        self._dribbler: Optional[Timer] = None
        self._reading = True
        self._watching: Optional[tuple[bool, bool]] = None  # for what comes, for room
        self.is_open = self.is_closed = self.has_vanished = self._finishes = False
        tcp.setblocking(False)
        tcp.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        if small_buffer:
            tcp.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, SMALL_BUFFER_BYTES)

    def connect(self) -> "TcpPath":
        number = self._tcp.connect_ex(self._target)
        if number not in (0, errno.EINPROGRESS):
            self._loop.later(0, lambda: self._end(os.strerror(number)))
        else:
            self._loop.watch(self._tcp, None, self._connected)
        return self

    def write(self, data: bytes) -> None:
        """Bytes wait in order until the connection takes them; after its end they are dropped."""
        self.pieces.write(data)

    def _queue(self, data: bytes) -> None:
        if self.is_closed or self.has_vanished:
            return
        self._pending += data
        if self.is_open and self._dribble is None:
            self._flush()
        elif self.is_open and self._dribbler is None:
            self._write_one_byte()

    @property
    def unsent(self) -> int:
        return len(self._pending)

    # --- faults ----------------------------------------------------------------------------------------------------

    def write_bytewise(self, pause: Optional[float]) -> None:
        """From now on one byte at a time leaves, each in a segment of its own; None writes normally again."""
        self._dribble = pause

    def stop_reading(self, stop: bool = True) -> None:
        """What the base unit sends piles up in the kernel's buffers, then at the base unit."""
        self._reading = not stop
        self._watch()

    def read_slowly(self, size: int, period: float) -> None:
        """From now on at most `size` bytes are read every `period` seconds."""
        self.stop_reading()
        ticker = self._loop.every(period, lambda: ticker.cancel() if self.is_closed else self._read(size))

    def vanish(self) -> None:
        """As if the unit were out of reach: nothing goes out, not even acknowledgements of TCP, and nothing comes in.
        The base unit is left with a half-open connection."""
        instruction = struct.pack("HP", 1, ctypes.addressof(_DROP_EVERYTHING))
        self._tcp.setsockopt(socket.SOL_SOCKET, _SO_ATTACH_FILTER, instruction)
        self.has_vanished = True
        self.pieces.drop()
        self._pending.clear()
        self._watch()

    # --- ends ------------------------------------------------------------------------------------------------------

    def close(self, hard: bool = False) -> None:
        """An orderly end, or with `hard` a reset. Nothing is reported."""
        if self.is_closed:
            return
        self.is_closed = True
        self._loop.watch(self._tcp)
        if hard:
            self._tcp.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self._tcp.close()

    def finish_writing(self) -> None:
        """Half of an orderly end: when all that was written has left nothing more will come, and everything is still read."""
        self._finishes = True
        self._finish()

    # --- inside ----------------------------------------------------------------------------------------------------

    def _connected(self) -> None:
        number = self._tcp.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR)
        if number:
            self._end(os.strerror(number))
            return
        self.is_open = True
        self._watch()
        self._opened()
        self.write(b"")

    def _watch(self) -> None:
        if self.is_open and not self.is_closed:
            writes = self._pending and self._dribble is None
            wanted = (self._reading and not self.has_vanished, bool(writes))
            if wanted != self._watching:
                self._watching = wanted
                self._loop.watch(self._tcp, self._read if wanted[0] else None, self._flush if wanted[1] else None)

    def _read(self, size: int = 65536) -> None:
        if self.is_closed or self.has_vanished:
            return
        try:
            data = self._tcp.recv(size)
        except BlockingIOError:
            return
        except OSError as error:
            self._end(error.strerror)
            return
        if data:
            self._received(data)
        else:
            self._end("closed")

    def _flush(self) -> None:
        try:
            while self._pending:
                del self._pending[:self._tcp.send(self._pending)]
        except BlockingIOError:
            pass
        except OSError as error:
            self._end(error.strerror)
            return
        self._finish()
        self._watch()

    def _finish(self) -> None:
        if self._finishes and self.is_open and not self.is_closed and not self._pending:
            self._finishes = False
            with contextlib.suppress(OSError):  # the base unit has ended it already
                self._tcp.shutdown(socket.SHUT_WR)

    def _write_one_byte(self) -> None:
        self._dribbler = None
        if self.is_closed or not self._pending:
            self._finish()
            return
        try:
            del self._pending[:self._tcp.send(self._pending[:1])]
        except BlockingIOError:
            pass
        except OSError as error:
            self._end(error.strerror)
            return
        self._dribbler = self._loop.later(self._dribble or 0, self._write_one_byte)

    def _end(self, reason: str) -> None:
        if not self.is_closed:
            self.close()
            self._ended(reason)


class FallbackPath:
    """A remote unit's place in the fallback relay. Messages arrive whole or not at all; there is no connection to lose."""

    kind = FALLBACK

    def __init__(self, relay: FallbackRelay, unit: int, received: Callable[[bytes], None]):
        self._relay, self._unit = relay, unit
        self.is_closed = False
        relay.attach(unit, received)

    def write(self, data: bytes) -> None:
        if not self.is_closed:
            self._relay.send(self._unit, data)

    def close(self) -> None:
        """The unit leaves the base controller's reach; what is relayed to it is lost."""
        self.is_closed = True
        self._relay.detach(self._unit)
