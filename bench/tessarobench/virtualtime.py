"""Virtual time: a clock that stands still while anybody works, and jumps to the next deadline when nobody does.

The library in `bench/virtualtime` is preloaded into the server, which then waits and reads clocks by this clock, and is
loaded here for the other half: `settled` tells whether the server has nothing left to do, `advance` moves the clock. All of
it is used on the loop's thread.
"""

from __future__ import annotations

import bisect
import ctypes
import mmap
import os
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import Optional

from . import clock

FOLDER = Path(".virtual-time")  # below the server's home
LIBRARY = Path("bench") / "virtualtime" / "libvirtualtime.so"  # below the folder in which the server was built
_PAGE_VARIABLE = "TESSARO_VIRTUAL_TIME"
_BEGAN = 10_000 * 1_000_000_000  # what the monotonic clock shows at first
_NEVER = 2 ** 63 - 1
_FLOAT_ERROR = 1000  # far more than what a deadline in seconds can miss its nanosecond by
BUSY, SETTLED, TO_SERVER, FROM_SERVER, BENCHS_TURN, CHILD_WORKS = range(6)  # verdicts of the library, see its conductor
_JUMPS = 1000  # of the clock, before the bench looks after itself
_MOMENTS = 100_000
_LOST_SECONDS = 2.0  # real; bytes that take longer are lost on the line, and not only late on a busy computer


def cpu_clock(pid: int) -> int:
    """The clock of the CPU time of all threads of a process, to the nanosecond (see clock_getcpuclockid)."""
    return (~pid << 3) | 2


class Unsuitable(Exception):
    """There can be no virtual time here. The text says why."""


def _load(path: Path) -> ctypes.CDLL:
    try:
        library = ctypes.CDLL(str(path))
    except OSError as error:
        raise Unsuitable(str(error)) from error
    number, pointer = ctypes.c_int64, ctypes.c_void_p
    for name, result, arguments in (
            ("page_size", number, ()), ("prepare", None, (pointer, number, number, number)),
            ("process", ctypes.c_int32, (pointer,)), ("begin", pointer, (pointer, ctypes.c_int32)), ("end", None, (pointer,)),
            ("stride", ctypes.c_int32, (pointer, pointer)), ("look_closely", None, (pointer,)), ("unknown_waits", number, (pointer,)),
            ("line_read", number, (pointer,)), ("line_written", number, (pointer,))):
        try:
            function = getattr(library, f"virtualtime_{name}")
        except AttributeError as error:
            raise Unsuitable(f"{error}; it belongs to another version") from error
        function.restype, function.argtypes = result, arguments
    return library


def _processor_of_now() -> int:
    """The one on which the kernel lets this thread run, as it knows which of them others keep busy."""
    return ctypes.CDLL(None).sched_getcpu()


def preloaded_with(server: os.PathLike) -> Path:
    """Where the library lies that was built with this server."""
    return Path(server).resolve().parent / LIBRARY


def offered(server: os.PathLike) -> Optional[Path]:
    """The library for this server; None, with one line on the standard error, where there can be no virtual time."""
    try:
        check(preloaded_with(server))
        return preloaded_with(server)
    except Unsuitable as reason:
        print(f"No virtual time here, so this runs in real time: {reason}", file=sys.stderr)
        return None


def check(library: Path) -> None:
    """Preloads it into a program that does nothing. Raises Unsuitable when that program takes no part."""
    if not library.exists():
        raise Unsuitable(f"there is no {library}")
    with tempfile.TemporaryDirectory() as folder:
        page = Page(_load(library), Path(folder) / "page")
        done = subprocess.run(["/bin/true"], env=page.environment(library, page.path), capture_output=True, text=True,
                              check=False)
        if done.returncode or not page.process:
            raise Unsuitable(done.stderr.strip() or f"a program with {library.name} before it ended with {done.returncode}")


class Page:
    """The memory that server and bench share, as a file."""

    def __init__(self, library: ctypes.CDLL, path: Path):
        self._functions, self.path = library, path
        with open(path, "w+b") as file:
            file.truncate(library.virtualtime_page_size())
            self._memory = mmap.mmap(file.fileno(), library.virtualtime_page_size())
        self.address = ctypes.addressof(ctypes.c_char.from_buffer(self._memory))
        self.prepare(0, 0, 0)

    def prepare(self, now: int, monotonic_base: int, realtime_base: int) -> None:
        self._functions.virtualtime_prepare(self.address, now, monotonic_base, realtime_base)

    @property
    def process(self) -> int:
        """The process that has taken part since then, 0: none."""
        return self._functions.virtualtime_process(self.address)

    @staticmethod
    def environment(library: Path, page: Path) -> dict[str, str]:
        """For the process that is to take part, with the paths as that process sees them."""
        return {"LD_PRELOAD": str(library), _PAGE_VARIABLE: str(page)}


class _Stride(ctypes.Structure):
    """See the library's conductor."""

    _fields_ = [("now", ctypes.c_int64), ("due", ctypes.c_int64), ("sent", ctypes.c_int64), ("received", ctypes.c_int64),
                ("events", ctypes.c_int32), ("jumps", ctypes.c_int32), ("moment", ctypes.c_int64)]


class _Line:
    """Counts the bytes on the UART, which a worker of the kernel carries: nobody else knows of those under way.

    The base unit reads whole lines; what stands behind the last newline has nobody to take it."""

    def __init__(self) -> None:
        self.readers = 0
        self._sent = self.readable = self.received = 0
        self.missed_since: Optional[float] = None  # real; bytes have been under way

    def wrote(self, data: bytes) -> None:
        newline = data.rfind(b"\n")
        if newline >= 0:
            self.readable = self._sent + newline + 1
        self._sent += len(data)

    def is_lost(self) -> bool:
        """Whether bytes have been under way for too long to be still."""
        now = time.monotonic()
        if self.missed_since is None:
            self.missed_since = now
        return now - self.missed_since > _LOST_SECONDS


class VirtualTime:
    """The clock of one board, from its laying to its end. At most one in a process."""

    def __init__(self, library: Path):
        self._path, self._library = library, _load(library)
        self._stride = _Stride()
        self._stride_address = ctypes.addressof(self._stride)
        # Timers of the server look at the fraction of the second: it is the same in every run.
        self._now, self._began, self._began_wall = 0, _BEGAN, int(time.time()) * 1_000_000_000
        self._seconds = self._began / 1e9
        self._page: Optional[Page] = None
        self._pid = 0
        self._conductor: Optional[int] = None
        self._expects = False
        self._read_before = self._written_before = 0  # what the counts of the line differ by
        self.keeps_moments = False  # for `at`
        self._moments = [(0, self._began_wall)]  # from which real time on the clock showed what
        self.line = _Line()
        self.lost_on_line = self.steps = 0
        self._processor = {_processor_of_now()}
        clock.use(self)

    def close(self) -> None:
        clock.use(None)

    def stay_together(self) -> None:
        """Keeps the calling thread, and what it starts, on the processor of this board. Bench and server take turns: on one
        processor handing over costs a fraction of what it costs to wake another one."""
        os.sched_setaffinity(0, self._processor)

    # --- the clock -------------------------------------------------------------------------------------------------

    def monotonic(self) -> float:
        return self._seconds

    def time_ns(self) -> int:
        return self._began_wall + self._now

    def at(self, real: int) -> int:
        """What `time_ns` was at a real moment, of the last minutes; what the kernel stamps, it stamps with those."""
        return self._moments[max(0, bisect.bisect_right(self._moments, (real, _NEVER)) - 1)][1]

    # --- the server ------------------------------------------------------------------------------------------------

    def lay(self, home: Path) -> None:
        """Puts library and page below the server's home, as it is seen from here."""
        (home / FOLDER).mkdir()
        shutil.copy(self._path, home / FOLDER / self._path.name)
        self._page = Page(self._library, home / FOLDER / "page")

    def environment(self, home: Path) -> dict[str, str]:
        """For a server that is about to begin: the clock stands until it has taken part. `home` is as the server sees it."""
        self._expects = True
        self._page.prepare(self._now, self._began, self._began_wall)
        return Page.environment(home / FOLDER / self._path.name, home / FOLDER / "page")

    def begin(self, pid: int) -> None:
        self._conductor, self._expects = self._library.virtualtime_begin(self._page.address, pid), False
        self._pid = pid
        self._read_before, self._written_before = self.line.readable, self.line.received

    def end(self) -> None:
        if self._conductor:
            self._library.virtualtime_end(self._conductor)
        self._conductor, self._expects = None, False

    # --- its way ---------------------------------------------------------------------------------------------------

    def signalled(self) -> None:
        """The server has got a signal, which none of the numbers tells."""
        if self._conductor is not None:
            self._library.virtualtime_look_closely(self._conductor)

    def worked(self) -> float:
        """Seconds of processor time that the server has used."""
        try:
            return time.clock_gettime(cpu_clock(self._pid)) if self._conductor is not None else 0.0
        except OSError:
            return 0.0  # it has ended

    def stride(self, own: Optional[float], events: int, may_move: bool) -> int:
        """Lets the server do what it has to do, and if it `may_move` lets the clock jump from deadline to deadline, until the
        bench has something to do: BENCHS_TURN. `own` is its next deadline, `events` the number of its epoll instance. SETTLED
        when nobody has a deadline, or the clock should move and may not; others when it takes longer than a few real
        milliseconds."""
        if self._conductor is None and self._expects:
            return BUSY
        stride, line = self._stride, self.line
        stride.now, stride.events = self._now, events
        stride.due = _NEVER if own is None else round(own * 1e9) - self._began - _FLOAT_ERROR
        stride.sent = line.readable - self._read_before
        stride.received = line.received - self._written_before if line.readers else -1
        stride.jumps = 0 if not may_move else 1 if self.keeps_moments else _JUMPS
        verdict = self._library.virtualtime_stride(self._conductor, self._stride_address)
        if stride.jumps:
            self._moved_to(stride.now, stride.moment, stride.jumps)
        if verdict in (TO_SERVER, FROM_SERVER):
            if line.is_lost():
                self._forget_lost()
        elif verdict != BUSY:
            line.missed_since = None
        return verdict

    def _moved_to(self, now: int, moment: int, jumps: int) -> None:
        self._now, self._seconds = now, (self._began + now) / 1e9
        self.steps += jumps
        if self.keeps_moments:
            self._moments.append((moment, self.time_ns()))
            if len(self._moments) > 2 * _MOMENTS:
                self._moments = self._moments[-_MOMENTS:]

    def _forget_lost(self) -> None:
        self.lost_on_line += 1
        address = self._page.address
        self._read_before = self.line.readable - self._library.virtualtime_line_read(address)
        self._written_before = self.line.received - self._library.virtualtime_line_written(address)
        self.line.missed_since = None
