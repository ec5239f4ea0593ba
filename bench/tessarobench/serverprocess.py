"""The server under test as a process: started and ended inside the board's world, its log read line by line."""

from __future__ import annotations

import contextlib
import fcntl
import mmap
import os
import resource
import signal
import socket
import subprocess
import time
from pathlib import Path
from typing import NamedTuple, Optional

from .journal import BENCH, FROM_BASE_UNIT, Journal
from .loop import Loop, WaitTimeout
from .namespaces import World
from .virtualtime import cpu_clock

LINK = "server"
STAMP_LENGTH = len("20220327 17:52:59.123")
_FILLER = b"\0"  # fills the pipe of a log that nobody reads; no line holds one
_PAGE = os.sysconf("SC_PAGESIZE")


HOME = Path("/home/root")


class LogLine(NamedTuple):
    """One line of the server's log. `stamp` is its own time stamp, empty when the line carries none."""

    stamp: str
    text: str

    @property
    def plain(self) -> str:
        """The text without the quotes that the server's log puts around its strings."""
        return self.text.replace('"', "")


class Usage(NamedTuple):
    """What the process has used and holds."""

    cpu_seconds: float
    resident_bytes: int
    threads: int
    descriptors: int
    wakeups: int

    def holds_more_than(self, before: Usage) -> bool:
        return self.threads > before.threads or self.descriptors > before.descriptors


def _bound(table: str, port: int, state: str) -> bool:
    """Whether a table of /proc/PID/net holds a socket on this local port in this state. A process that has ended has none."""
    try:
        with open(table, encoding="ascii") as file:
            rows = [line.split() for line in file][1:]
    except FileNotFoundError:
        return False
    return any(row[1].endswith(f":{port:04X}") and row[3] == state for row in rows)


def is_sanitized(program: os.PathLike | str) -> bool:
    """Whether it was built with the address or the thread sanitizer."""
    with open(program, "rb") as file, mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ) as content:
        return content.find(b"__asan_init") >= 0 or content.find(b"__tsan_init") >= 0


def unusable(program: Path) -> str:
    """Why no server can be started from this file, for whoever named it; empty when one can."""
    if not program.exists():
        return f"There is no server at {program}: build it first (make build)."
    return "" if program.is_file() and os.access(program, os.X_OK) else f"{program} is no program: nobody can start it."


def split_line(raw: str) -> LogLine:
    stamp, separator, text = raw.partition(" - ")
    if separator and len(stamp) == STAMP_LENGTH and stamp[:8].isdigit():
        return LogLine(stamp, text)
    return LogLine("", raw)


class ServerProcess:
    """At most one process at a time. `log` holds the lines since the last start, `exit_status` the way it ended
    (negative: by that signal) or None while it runs."""

    def __init__(self, loop: Loop, journal: Journal, world: World, program: str):
        self._loop, self._journal, self._world, self._program = loop, journal, world, program
        self._process: Optional[subprocess.Popen] = None
        self._pipe = self._pidfd = -1
        self._rest = b""
        self.log: list[LogLine] = []
        self.exit_status: Optional[int] = None

    # --- life ------------------------------------------------------------------------------------------------------

    def start(self, env: Optional[dict[str, str]] = None, limits: Optional[dict[int, int]] = None,
              log_stalled: bool = False, before: str = "") -> "ServerProcess":
        """Starts the program as the only thing in its environment; `limits` are resource limits (RLIMIT_... -> number).
        `log_stalled`: see stall_log. `before`: what a shell does before it becomes the program."""
        assert not self.running, "the server runs already"
        virtual = self._loop.virtual
        environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": str(HOME), "LC_ALL": "C.UTF-8",
                       **{key: value for key, value in os.environ.items() if key.endswith("SAN_OPTIONS")},
                       **(virtual.environment(HOME) if virtual else {}), **(env or {})}
        # On that thread, where no interrupt cuts it in two.
        self._world.run(self._spawn, environment, {resource.RLIMIT_CORE: 0, **(limits or {})}, log_stalled, before)
        return self

    @property
    def pid(self) -> int:
        return self._process.pid

    @property
    def running(self) -> bool:
        return self._process is not None and self.exit_status is None

    def signal(self, number: int) -> None:
        if self.running:
            self._note("signal", name=signal.Signals(number).name)
            with contextlib.suppress(ProcessLookupError):  # it has just ended by itself
                self._loop.call(self._kill, number)

    def stop(self, timeout: Optional[float] = None) -> int:
        """Asks it to end (SIGTERM) and returns the exit status; one that does not obey is killed and raises."""
        self.signal(signal.SIGTERM)
        try:
            return self.wait_exit(timeout)
        except AssertionError:
            self.kill()
            raise

    def kill(self) -> None:
        """Ends it the hard way (SIGKILL). No harm if it has ended."""
        self.signal(signal.SIGKILL)
        if self._process:
            self.wait_exit()

    def pause(self) -> None:
        """Stops all its threads (SIGSTOP) and waits until they stand."""
        self.signal(signal.SIGSTOP)
        self._loop.wait_for(lambda: self._stat()[0] == "T", None, "the stop of the server", poll=0.002)

    def resume(self) -> None:
        self.signal(signal.SIGCONT)

    def restart(self) -> None:
        """Ends it in an orderly way and starts it again."""
        self.stop()
        self.start()

    def wait_exit(self, timeout: Optional[float] = None) -> int:
        self._loop.wait_for(lambda: self.exit_status is not None, timeout, "the end of the server")
        return self.exit_status

    def wait_listening(self, kind: int, port: int, timeout: Optional[float] = None) -> None:
        """Waits until somebody on the board listens on this UDP (SOCK_DGRAM) or TCP (SOCK_STREAM) port."""
        table = f"/proc/{self.pid}/net/{'udp' if kind == socket.SOCK_DGRAM else 'tcp'}"
        state = "07" if kind == socket.SOCK_DGRAM else "0A"
        self._loop.wait_for(lambda: not self.running or _bound(table, port, state), timeout,
                            f"somebody listening on port {port}", poll=0.005)
        if not self.running:
            raise WaitTimeout(f"the server ended with {self.exit_status} before it listened on port {port}")

    # --- log -------------------------------------------------------------------------------------------------------

    def wait_log(self, text: str, timeout: Optional[float] = None, since: int = 0, whole: bool = False) -> int:
        """Waits for a log line that contains `text` (or, with `whole`, is `text`) at index `since` or later.

        `text` may leave out the quotes that the log puts around strings. Returns the index after that line, so that a sequence of lines reads as
        `n = wait_log(a); n = wait_log(b, since=n)`.
        """
        return self._loop.wait_for(lambda: self._find(text, since, whole), timeout, f"the log line {text!r}")

    def logged(self, text: str, since: int = 0) -> int:
        """How many lines contain `text`."""
        return sum(text in line.text or text in line.plain for line in self.log[since:])

    def texts(self, since: int = 0) -> list[str]:
        """The lines without their time stamps."""
        return [line.text for line in self.log[since:]]

    def plain_texts(self, since: int = 0) -> list[str]:
        """The lines without their time stamps and without quotes."""
        return [line.plain for line in self.log[since:]]

    def _find(self, text: str, since: int, whole: bool) -> Optional[int]:
        for index in range(since, len(self.log)):
            line = self.log[index]
            if text in (line.text, line.plain) or (not whole and (text in line.text or text in line.plain)):
                return index + 1
        return None

    # --- a log that stalls -----------------------------------------------------------------------------------------

    def stall_log(self) -> None:
        """From now on nobody reads the log, and its pipe is full: the next line blocks whoever writes it."""
        self._loop.call(self._stall_log)

    def read_log(self) -> None:
        """Somebody reads the log again; what had been written is not lost."""
        self._note("log read")
        self._loop.call(lambda: self._pipe >= 0 and self._loop.watch(self._pipe, self._read_log))

    def lose_log_reader(self) -> None:
        """The log's reader has gone for good: every write ends with EPIPE."""
        self._note("log reader gone")
        self._loop.call(self._close_log)

    # --- figures ---------------------------------------------------------------------------------------------------

    def usage(self) -> Usage:
        """Figures of /proc, now."""
        fields = self._stat()
        threads, resident_pages = int(fields[17]), int(fields[21])
        return Usage(time.clock_gettime(cpu_clock(self.pid)), resident_pages * _PAGE, threads,
                     len(os.listdir(f"/proc/{self.pid}/fd")), self._wakeups())

    @property
    def sanitized(self) -> bool:
        """Whether it runs with the address or the thread sanitizer: such a server keeps what it has freed on purpose, or a
        shadow of all that it touches, so that its resident memory tells nothing."""
        return is_sanitized(f"/proc/{self.pid}/exe")

    def memory(self) -> int:
        """Resident bytes, for comparing with later ones; always 0 when `sanitized`."""
        return 0 if self.sanitized else self.usage().resident_bytes

    def _stat(self) -> list[str]:
        """The fields of /proc/PID/stat from the state on."""
        with open(f"/proc/{self.pid}/stat", encoding="ascii") as file:
            return file.read().rpartition(")")[2].split()

    def _wakeups(self) -> int:
        total = 0
        for task in os.listdir(f"/proc/{self.pid}/task"):
            try:
                with open(f"/proc/{self.pid}/task/{task}/status", encoding="ascii") as file:
                    total += sum(int(line.split()[1]) for line in file if line.startswith("voluntary_ctxt_switches"))
            except (FileNotFoundError, ProcessLookupError):
                continue  # a thread that has just ended
        return total

    # --- inside ----------------------------------------------------------------------------------------------------

    def _spawn(self, environment: dict[str, str], limits: dict[int, int], log_stalled: bool, before: str) -> None:
        if self._loop.virtual:
            self._loop.virtual.stay_together()
        self._pipe, write_end = os.pipe2(os.O_CLOEXEC | os.O_NONBLOCK)
        if log_stalled:
            self._fill_log()
        os.set_blocking(write_end, True)
        command = ["/bin/sh", "-c", f'{before}; exec "$0"', self._program] if before else [self._program]
        try:
            self._process = subprocess.Popen(command, cwd=HOME, env=environment,
                                             stdin=subprocess.DEVNULL, stdout=write_end, stderr=write_end,
                                             start_new_session=True)  # an interrupt at the terminal is for the bench
        except BaseException:
            os.close(self._pipe)
            raise
        finally:
            os.close(write_end)
        self._pidfd = os.pidfd_open(self.pid)
        for limit, value in limits.items():
            resource.prlimit(self.pid, limit, (value, value))
        self._loop.call(self._begin, not log_stalled)

    def _begin(self, reading: bool) -> None:
        self.log, self.exit_status, self._rest = [], None, b""
        if self._loop.virtual:
            self._loop.virtual.begin(self.pid)
        self._journal.add(LINK, BENCH, "started", pid=self.pid)
        if reading:
            self._loop.watch(self._pipe, self._read_log)
        self._loop.watch(self._pidfd, self._ended)

    def _stall_log(self) -> None:
        self._loop.watch(self._pipe)
        while self._read_log():
            pass
        self._journal.add(LINK, BENCH, "log stalled")
        self._fill_log()

    def _fill_log(self) -> None:
        size = fcntl.fcntl(self._pipe, fcntl.F_GETPIPE_SZ)
        filling = os.open(f"/proc/self/fd/{self._pipe}", os.O_WRONLY | os.O_NONBLOCK | os.O_CLOEXEC)
        with contextlib.suppress(BlockingIOError):
            while True:
                os.write(filling, _FILLER * size)
        os.close(filling)

    def _close_log(self) -> None:
        if self._pipe >= 0:
            self._loop.watch(self._pipe)
            os.close(self._pipe)
            self._pipe = -1

    def _read_log(self) -> bool:
        try:
            data = os.read(self._pipe, 65536)
        except BlockingIOError:
            return False
        if not data:
            self._loop.watch(self._pipe)
            return False
        data = data.replace(_FILLER, b"")
        *lines, self._rest = (self._rest + data).split(b"\n")
        for raw in lines:
            self._take_line(raw)
        return True

    def _take_line(self, raw: bytes) -> None:
        line = split_line(raw.decode("utf-8", "replace"))
        self.log.append(line)
        self._journal.add(LINK, FROM_BASE_UNIT, "log", text=line.text)

    def _ended(self) -> None:
        while self._pipe >= 0 and self._read_log():
            pass
        if self._rest:
            self._take_line(self._rest)
        self._loop.watch(self._pidfd)
        os.close(self._pidfd)
        self._close_log()
        if self._loop.virtual:
            self._loop.virtual.end()
        status = self._process.wait()
        self._journal.add(LINK, BENCH, "ended", status=status)
        self.exit_status = status

    def _kill(self, number: int) -> None:
        os.kill(self.pid, number)
        if self._loop.virtual:
            self._loop.virtual.signalled()

    def _note(self, kind: str, **detail) -> None:
        self._loop.call(lambda: self._journal.add(LINK, BENCH, kind, **detail))
