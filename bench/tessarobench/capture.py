"""Everything that crosses the links of one board, into one file: the UART's lines, and all packets of its network; between
them the server's log, and what the bench does to the links.

What crosses a network is captured on the board's side of the cables, so that interfaces may go, come and change as they
like. The UART's bytes are cut into lines, which is how the base unit reads them. Both carry the time of the same clock,
the system's real time: packets that of the kernel, lines that at which the bench wrote or read the last of their bytes.
"""

from __future__ import annotations

import select
import threading
import time
from typing import Callable, Optional

from .capturefile import NETWORKS, CaptureFile
from .journal import BENCH, FROM_BASE_UNIT, TO_BASE_UNIT, Event
from .namespaces import World
from .packetring import BLOCKS, RETIRE_MILLISECONDS, PacketRing
from .pcapng import FROM_BASE_CONTROLLER, TO_BASE_CONTROLLER

UART, LOOPBACK = "ttymxc0", "lo"
SERVER, RELAY = "server", "gpio"  # links of the journal
_TOLD = ("unit", "number", "id", "fate", "value", "closed", "to", "text", "status", "name", "what", "reason")  # details
LONGEST_LINE = 64 * 1024  # what has no end is cut
_END_OF_LINE = b"\n"
# By then, with room to spare, the kernel has handed over what had arrived, if the computer is not busy.
_HANDED_OVER_SECONDS = 5 * RETIRE_MILLISECONDS / 1000
_PATIENCE_SECONDS = 2.0  # more of them, if it is
# The kernel takes the time of a packet before it finds a place for it: two of them on two processors may come in the wrong order,
# and one may wait meanwhile for a thread of the kernel that nobody lets run. A tenth of a second was too little beside four busy
# loops a processor.
_STAMPED_NANOSECONDS = 1_000_000_000


class Capture:
    """Captures from construction to `close`, and leaves the file to be closed. Raises OSError where the kernel refuses.

    `name_of` tells an interface's name by its number, or None for one that is not captured.
    """

    def __init__(self, file: CaptureFile, network: World, name_of: Callable[[int], Optional[str]], blocks: int = BLOCKS):
        self._file, self._name_of = file, name_of
        self._lines = {FROM_BASE_UNIT: b"", TO_BASE_UNIT: b""}
        self._ring = PacketRing(network, blocks)
        self._newest = 0  # the time of what the ring handed over
        self._stop_at: Optional[float] = None
        self._thread = threading.Thread(target=self._run, name="capture ring", daemon=True)
        self._thread.start()

    def line(self, direction: str, data: bytes) -> None:
        """A tap for the serial line, on the loop's thread."""
        *lines, rest = (self._lines[direction] + data).split(_END_OF_LINE)
        for whole in lines:
            self._put_line(direction, whole + _END_OF_LINE)
        while len(rest) >= LONGEST_LINE:
            self._put_line(direction, rest[:LONGEST_LINE])
            rest = rest[LONGEST_LINE:]
        self._lines[direction] = rest

    def event(self, event: Event) -> None:
        """A listener of the journal, on the loop's thread: keeps what does not show on the links."""
        if event.link == SERVER and event.direction == FROM_BASE_UNIT:
            self._file.log(event.text, "tessaroserver")
        elif event.link == RELAY or "fate" in event.detail or (event.direction == BENCH and not event.data):
            fields = " ".join(f"{name} {value}" for name, value in event.detail.items() if name in _TOLD)
            self._file.log(f"{event.link} {event.direction} {event.kind} {fields}".strip(), "bench")

    def close(self) -> None:
        """What has crossed so far, be it a moment ago, is still captured."""
        self._stop_at = time.monotonic() + _HANDED_OVER_SECONDS
        self._thread.join()
        for direction, rest in self._lines.items():
            if rest:
                self._put_line(direction, rest)

    def _put_line(self, direction: str, line: bytes) -> None:
        outbound = direction == FROM_BASE_UNIT
        self._file.put(UART, bytes([TO_BASE_CONTROLLER if outbound else FROM_BASE_CONTROLLER]) + line, outbound)

    # --- on the ring's thread --------------------------------------------------------------------------------------

    def _run(self) -> None:
        poller = select.poll()
        poller.register(self._ring, select.POLLIN)
        while self._stop_at is None or time.monotonic() < self._stop_at + (0 if self._ring.is_empty else _PATIENCE_SECONDS):
            poller.poll(2 * RETIRE_MILLISECONDS)
            self._take()
        self._file.lost_in_kernel = self._ring.dropped
        self._ring.close()

    def _take(self) -> None:
        """How late the kernel hands over, on a busy computer, nobody can say. What is handed over last, or what the ring lacks,
        tells which packets cannot come any more."""
        began = time.time_ns()
        for packet in self._ring.take():
            self._newest = max(self._newest, packet.nanoseconds)
            name = self._name_of(packet.interface)
            if name == LOOPBACK and not packet.outbound:  # each comes twice there: as it leaves, and as it arrives
                self._file.put(name, packet.data, None, packet.nanoseconds)
            elif name in NETWORKS and name != LOOPBACK:
                self._file.put(name, packet.data, packet.outbound, packet.nanoseconds)
        self._file.settle((began if self._ring.is_empty else min(began, self._newest)) - _STAMPED_NANOSECONDS)
