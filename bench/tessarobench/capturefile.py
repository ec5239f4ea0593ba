"""The file of a capture: takes packets and lines of logs from any thread and writes them in the order of their time, in a
thread of its own.

A disk that stalls, is full or fails disturbs nobody: packets wait in memory up to a bound, are counted as lost beyond it,
and what became of the file is told at the end. Whole blocks alone are written, so that the file can be read at any time.
"""

from __future__ import annotations

import bisect
import contextlib
import io
import os
import sys
import threading
import time
from pathlib import Path
from typing import Callable, Iterator, NamedTuple, Optional

from .pcapng import LINKTYPE_ETHERNET, LINKTYPE_USER0, PcapngWriter

# One row per link: name, kind, who is at the other end.
LINKS = (("ttymxc0", LINKTYPE_USER0, "base controller"), ("eth0", LINKTYPE_ETHERNET, "machine controller"),
         ("wlan0", LINKTYPE_ETHERNET, "remote units and service tool"), ("lo", LINKTYPE_ETHERNET, "local tools"))
LOG = "log"
NETWORKS = tuple(name for name, kind, _ in LINKS if kind == LINKTYPE_ETHERNET)

TURN_SECONDS = 0.05
PATIENCE_SECONDS = 5.0  # with a disk that takes nothing, when all else has ended
LARGEST_WAITING = 64 << 20
_ENTRY_BYTES = 256  # what a packet that waits takes beside its bytes


class Entry(NamedTuple):
    """One packet that waits, or a line of the log of `source`."""

    nanoseconds: int
    link: str
    data: bytes
    outbound: Optional[bool]
    source: str

    @property
    def size(self) -> int:
        """Bytes of memory, about."""
        return len(self.data) + _ENTRY_BYTES


class CaptureFile:
    """Open from construction to `close`; raises OSError when the file cannot be opened. For any thread.

    `taken`     how many packets of each link, and lines of logs, came here, by name; `lost` how many of those did not get
                into the file
    `lost_in_kernel`   how many did not even come here; of the networks together, as nobody knows of which
    `trouble`   what went wrong with the file, in words, or ""
    """

    def __init__(self, path: os.PathLike, application: str = "", largest_waiting: int = LARGEST_WAITING):
        self._path, self._largest_waiting = Path(path), largest_waiting
        self._file = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC | os.O_CLOEXEC, 0o666)
        self._blocks = io.BytesIO()
        self._writer = PcapngWriter(self._blocks, application)
        self._numbers = {name: self._writer.add_interface(name, kind, what) for name, kind, what in LINKS}
        self.taken, self.lost = dict.fromkeys((*self._numbers, LOG), 0), dict.fromkeys((*self._numbers, LOG), 0)
        self.lost_in_kernel = 0
        self.trouble, self._written = "", 0
        self._lock = threading.Lock()
        self._waiting: list[Entry] = []
        self._waiting_bytes, self._settled = 0, 0
        self._sorted: list[Entry] = []
        self.stamp: Callable[[int], int] = lambda nanoseconds: nanoseconds  # what an entry's time becomes in the file
        self._ending = threading.Event()
        self._thread = threading.Thread(target=self._run, name="capture file", daemon=True)
        self._thread.start()

    # --- from any thread -------------------------------------------------------------------------------------------

    def put(self, link: str, data: bytes, outbound: Optional[bool], nanoseconds: Optional[int] = None) -> None:
        """One packet, which crosses the link now, or whose time has been taken by the kernel. It may be `outbound` from the
        base unit, inbound (False), or neither (None)."""
        self._take(link, data, outbound, "", nanoseconds)

    def log(self, text: str, source: str) -> None:
        """One line of the log of `source`, written now."""
        self._take(LOG, text.encode("utf-8", "replace"), None, source, None)

    def settle(self, nanoseconds: int) -> None:
        """Says that no packet will be put any more whose time is an earlier one: what is older may be written."""
        with self._lock:
            self._settled = nanoseconds

    def close(self) -> None:
        """Writes what waits. Nothing is put any more; closing twice is harmless."""
        self._ending.set()
        self._thread.join(PATIENCE_SECONDS)
        if self._thread.is_alive():
            self.trouble = self.trouble or "takes nothing more"

    @property
    def summary(self) -> str:
        """What was captured, in one line."""
        kept = {name: count - self.lost[name] for name, count in self.taken.items()}
        lines, missing = kept.pop(LOG), sum(self.lost.values()) + self.lost_in_kernel
        return (f"{sum(kept.values())} packets ({', '.join(f'{name} {count}' for name, count in kept.items())}) "
                f"and {lines} lines of logs in {self._path}, {self._written / 1e6:.2f} MB; "
                + (f"{missing} MORE ARE MISSING" if missing else "none is missing")
                + (f"; the file ends early: {self.trouble}" if self.trouble else ""))

    def _take(self, link: str, data: bytes, outbound: Optional[bool], source: str, nanoseconds: Optional[int]) -> None:
        with self._lock:
            self.taken[link] += 1
            entry = Entry(nanoseconds or time.time_ns(), link, data, outbound, source)
            if self._waiting_bytes + entry.size > self._largest_waiting:
                self.lost[link] += 1
                return
            self._waiting_bytes += entry.size
            self._waiting.append(entry)

    # --- on the file's thread --------------------------------------------------------------------------------------

    def _run(self) -> None:
        while not self._ending.wait(TURN_SECONDS):
            self._write_settled()
        self._settled = time.time_ns() + 1
        self._write_settled()
        for name, number in self._numbers.items():
            self._add_statistics(name, number)
        self._flush()
        os.close(self._file)

    def _write_settled(self) -> None:
        with self._lock:
            news, self._waiting = self._waiting, []
            until = self._settled
        self._sorted = sorted(self._sorted + news, key=lambda entry: entry.nanoseconds)
        count = bisect.bisect_left(self._sorted, until, key=lambda entry: entry.nanoseconds)
        due, self._sorted = self._sorted[:count], self._sorted[count:]
        for entry in due:
            self._add(entry)
        written = self._flush()
        with self._lock:
            for entry in due:
                self._waiting_bytes -= entry.size
                self.lost[entry.link] += not written

    def _add(self, entry: Entry) -> None:
        stamp = self.stamp(entry.nanoseconds)
        if entry.link == LOG:
            self._writer.log_line(entry.data.decode(), entry.source, stamp)
        else:
            self._writer.packet_at(self._numbers[entry.link], entry.data, stamp, entry.outbound)

    def _add_statistics(self, name: str, number: int) -> None:
        shared = self.lost_in_kernel if name in NETWORKS else 0
        self._writer.statistics(number, self.taken[name], None if shared else self.lost[name],
                                f"{shared} packets of {', '.join(NETWORKS)} together found no room" if shared else "")

    def _flush(self) -> bool:
        """Hands whole blocks to the file. After the first failure the file stays as it was before."""
        blocks = memoryview(self._blocks.getvalue())
        self._blocks.seek(0)
        self._blocks.truncate()
        try:
            done = 0
            while done < len(blocks) and not self.trouble:
                done += os.write(self._file, blocks[done:])
            self._written += done
            return not self.trouble
        except OSError as error:
            self.trouble = error.strerror or str(error)
            self._cut_back()
            return False

    def _cut_back(self) -> None:
        """Takes away the part of a block that may have been written."""
        try:
            os.ftruncate(self._file, self._written)
        except OSError:
            pass  # a pipe; its reader sees where it ends


@contextlib.contextmanager
def capturing(path: Optional[os.PathLike], application: str) -> Iterator[Optional[CaptureFile]]:
    """A file at `path`, or none without one. However the work with it ends, it is complete, and its summary is printed.
    Where it cannot be opened one line says why, and the program ends with status 2."""
    if path is None:
        yield None
        return
    try:
        file = CaptureFile(path, application)
    except OSError as error:
        print(f"{path}: {error.strerror}", file=sys.stderr)
        sys.exit(2)
    try:
        yield file
    finally:
        file.close()
        print(f"Captured {file.summary}.", flush=True)
