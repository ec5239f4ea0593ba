"""The local tool's side of the UDP API: requests to one port of the loopback address, replies and pushes on another."""

from __future__ import annotations

import functools
import json
import socket
import struct
from typing import Optional

from . import clock
from .journal import FROM_BASE_UNIT, TO_BASE_UNIT, Journal
from .loop import Loop

LINK = "api"
REQUEST_PORT, REPLY_PORT = 6250, 6251
LOOPBACK = "127.0.0.1"

_SO_MEMINFO, _MEMINFO, _DROPS = 55, struct.Struct("9I"), 8


@functools.lru_cache(16)
def status_object(datagram: bytes) -> dict[str, str]:
    """What a status object says; one and the same for all who look at it, and not to be changed."""
    return json.loads(datagram)


class ApiClient:
    """Takes over a UDP socket made on the base unit's own loopback interface.

    `reply_port` is another one where an agent owns the port of the answers and passes them on.
    `status` is the newest status object, `notifies` counts the "NOTIFY" replies, `statuses` the status objects. What is neither
    is an exception, unless it `bears_damage`.
    """

    def __init__(self, loop: Loop, udp: socket.socket, journal: Journal, reply_port: int = REPLY_PORT):
        self._loop, self._udp, self._journal = loop, udp, journal
        self.status: dict[str, str] = {}
        self.statuses = self.notifies = 0
        self._came_at = 0.0  # the newest status object
        self.bears_damage = False
        udp.setblocking(False)
        udp.bind((LOOPBACK, reply_port))
        loop.call(loop.watch, udp, self._readable)

    def send(self, datagram: bytes) -> None:
        """Sends any datagram to the API's port."""
        self._loop.call(self._send, datagram)

    def get(self, timeout: Optional[float] = None) -> dict[str, str]:
        """Asks for the status object and waits for the next one that comes."""
        before = self.statuses
        self.send(b"GET")
        self._loop.wait_for(lambda: self.statuses > before, timeout, "a status object over the API")
        return dict(self.status)

    def settle(self, quiet: float = 0.3) -> None:
        """Waits until no status object has come for `quiet` seconds from now, so that those on their way have come."""
        begun = clock.monotonic()
        self._loop.wait_for(lambda: clock.monotonic() - max(begun, self._came_at) >= quiet, what="no more pushes over the API",
                            poll=0.05)

    def tag(self, key: str) -> Optional[str]:
        """The value of one member in the newest status object."""
        return self.status.get(key)

    def drops(self) -> int:
        """How many datagrams the kernel has dropped for want of room, because they were not read in time."""
        return _MEMINFO.unpack(self._udp.getsockopt(socket.SOL_SOCKET, _SO_MEMINFO, _MEMINFO.size))[_DROPS]

    def close(self) -> None:
        self._loop.call(self._loop.watch, self._udp)
        self._udp.close()

    def _send(self, datagram: bytes) -> None:
        try:
            self._udp.sendto(datagram, (LOOPBACK, REQUEST_PORT))
        except ConnectionRefusedError:  # the answer to an earlier datagram, sent while nobody listened
            self._udp.sendto(datagram, (LOOPBACK, REQUEST_PORT))
        self._journal.add(LINK, TO_BASE_UNIT, "request", datagram, text=datagram[:40].decode("latin-1"))

    def _readable(self) -> None:
        while True:
            try:
                datagram = self._udp.recv(65536)
            except BlockingIOError:
                return
            except ConnectionRefusedError:
                continue
            self._received(datagram)

    def _received(self, datagram: bytes) -> None:
        if datagram == b"NOTIFY":
            self.notifies += 1
            self._journal.add(LINK, FROM_BASE_UNIT, "notify", datagram)
            return
        try:
            new = status_object(datagram)
        except (ValueError, RecursionError):
            self._journal.add(LINK, FROM_BASE_UNIT, "damaged", datagram)
            if self.bears_damage:
                return
            raise
        changed = {key: value for key, value in new.items() if self.status.get(key) != value}
        self.status = new
        self.statuses += 1
        self._came_at = clock.monotonic()
        self._journal.add(LINK, FROM_BASE_UNIT, "status", datagram, changed=changed)
