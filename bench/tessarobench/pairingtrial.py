"""Pairings that are cut short: the server is killed at a random moment or at a chosen system call, or one of its system
calls fails. What stands on its disk after that is looked at, and after its next start.

One board serves all tries. Before each the unit is paired, and the base unit's setting CCH1 gets a new number, so that keys,
settings and archive of two pairings can be told apart.
"""

from __future__ import annotations

import io
import os
import random
import re
import signal
import statistics
import subprocess
import tarfile
import threading
import time
from collections import Counter
from pathlib import Path
from typing import Iterator, NamedTuple, Optional

from .board import APPLICATIONS
from .csvfile import Table
from .installation import APP, REMOTES, Installation
from .loop import WaitTimeout
from .servicetool import ServiceTool, ServiceToolError

UNIT = 1003
WORDS = ("PKY1", "PKY2", "PKY3", "PKY4")
APPLICATION = "panel"
PATH = str(APPLICATIONS / APPLICATION)
READY = "PairServer::PairServer(Configuration*, TagDatabase*, QObject*) file transfer server running."
UP_SECONDS = 60.0
END_SECONDS = 5.0
UNANSWERED_SECONDS = 3.0  # of a request whose refusal has no line of its own
REFUSALS = ("pairserver: Refused to send", "pairserver: Could not", "pairserver: Nothing has changed", "pairserver: No archive")
BEYOND = 1.1  # kills come up to this many times the length of a pairing after its begin
FILE_THREAD = "files"


class State(NamedTuple):
    """What one side holds of a pairing."""

    words: tuple[str, ...]
    setting: str


class Outcome(NamedTuple):
    """What became of one try. `faults` says what must not be; empty is good."""

    faults: list[str]
    paired: str  # "old" or "new": what the base unit holds
    fetched: bool  # whether the tool had the whole archive


def lay(bench: Installation, size: int) -> None:
    """A user application of some size, beside which the unit is paired for the first time."""
    folder = bench.applications / APPLICATION
    (folder / "config").mkdir(parents=True)
    (folder / "manifest.csv").write_text("name;Panel\ntarget;ru\ntype;user\n")
    (folder / "config" / "keys.csv").write_text("tag;value\nKey;Value\n" + "".join(f"{word};0\n" for word in WORDS))
    (folder / "config" / "app.csv").write_text("tag;value;from\nKey;Value;From\nBUID;0;BC\nCCH1;0;local\n")
    for part in range(4):
        (folder / f"map{part}").write_bytes(random.Random(part).randbytes(size // 4))


class PairingTrial:
    """A board whose server is paired with again and again, and cut short."""

    def __init__(self, bench: Installation, size: int = 2_000_000):
        self.bench = bench
        self._setting = 10
        lay(bench, size)
        self._start()
        self._pair_anew()
        self._names = self._listing()

    # --- one try ----------------------------------------------------------------------------------------------------

    def kill_after(self, seconds: float) -> Outcome:
        """Kills the server so long after a tool has begun to ask."""
        before = self._pair_anew()
        tool = _Asking(self.bench.service_tool(UP_SECONDS))
        time.sleep(seconds)
        self.bench.server.kill()
        return self._judge_after_the_next_start(before, tool.end())

    def kill_at(self, call: str, number: int) -> Optional[Outcome]:
        """Kills the server when its file thread enters this system call for the nth time. None: there is no such one."""
        before = self._pair_anew()
        tracer = Tracer(self.bench.server.pid, f"{call}:signal=SIGKILL:when={number}")
        tool = _Asking(self.bench.service_tool(UP_SECONDS))
        self.bench.wait_for(lambda: tool.has_ended, UP_SECONDS, "the end of server or transfer", poll=0.005)
        archive = tool.end()
        tracer.end()
        if not tracer.injected and self._answers():
            return None
        self.bench.server.wait_exit(UP_SECONDS)
        return self._judge_after_the_next_start(before, archive)

    def kill_before_tar_begins(self, held: float) -> Outcome:
        """Kills the server when tar has been forked and has not begun: held for so many seconds, it holds what it inherited."""
        before = self._pair_anew()
        tracer = Tracer(self.bench.server.pid, f"execve:delay_enter={held}s", "-f")
        tool = _Asking(self.bench.service_tool(UP_SECONDS))
        self.bench.wait_for(self._has_child, UP_SECONDS, "the begin of tar", poll=0.005)
        self.bench.server.kill()
        outcome = self._judge_after_the_next_start(before, tool.end())
        tracer.end()
        return outcome

    def fail_at(self, call: str, number: int, error: str) -> Optional[Outcome]:
        """Lets this system call of the file thread fail for the nth time. None: there is no such one."""
        before = self._pair_anew()
        tracer, mark = Tracer(self.bench.server.pid, f"{call}:error={error}:when={number}"), len(self.bench.server.log)
        tool = _Asking(self.bench.service_tool(UNANSWERED_SECONDS))
        self.bench.wait_for(lambda: tool.has_ended or any(self.bench.server.logged(line, mark) for line in REFUSALS),
                            UP_SECONDS, "the archive, or a line that says why not", poll=0.005)
        archive = tool.end()
        tracer.end()
        if not tracer.injected:
            return None
        with self.bench.service_tool(UP_SECONDS) as other:
            other.list()  # by now the server has done all that belongs to the request
        running = self._judge(before, archive, "with the server running")
        if not self.bench.server.running:
            running.faults.append(f"the server ended with {self.bench.server.exit_status}")
        self.bench.server.kill()
        restarted = self._judge_after_the_next_start(before, archive)
        return Outcome(running.faults + restarted.faults, restarted.paired, restarted.fetched)

    def length(self) -> float:
        """How long a pairing takes from the request to the end of the archive, in the median."""
        def once() -> float:
            with self.bench.service_tool(UP_SECONDS) as tool:
                tool.open()
                began = time.monotonic()
                tool.get(PATH, UNIT)
                return time.monotonic() - began
        return statistics.median(once() for _ in range(9))

    # --- what must be ----------------------------------------------------------------------------------------------

    def _judge_after_the_next_start(self, before: State, archive: Optional[bytes]) -> Outcome:
        self._start()
        outcome = self._judge(before, archive, "after the next start")
        left = sorted(self._listing() ^ self._names)
        if left:
            outcome.faults.append(f"left over or missing after the next start: {', '.join(left)}")
        if strays := self._lasting_tars():
            outcome.faults.append(f"tar {strays} runs on")
            for pid in strays:
                os.kill(pid, signal.SIGKILL)
        try:
            self._pair_anew()
        except ServiceToolError as error:
            outcome.faults.append(f"a tool that asks again fails: {error}")
            self.bench.server.kill()
            self._start()
        return outcome

    def _judge(self, before: State, archive: Optional[bytes], when: str) -> Outcome:
        """Base unit, application and what the tool has must be of one pairing, the old one or the new."""
        application, base = self._application(), self._base_words()
        faults = []
        if application.words != base:
            faults.append(f"{when} the application has other keys than the base unit")
        if archive is not None and self._packed(archive).words != base:
            faults.append(f"{when} the archive that was fetched has other keys than the base unit")
        if (application.words == before.words) != (application.setting == before.setting):
            faults.append(f"{when} the application has keys of one pairing and settings of another")
        return Outcome(faults, "old" if base == before.words else "new", archive is not None)

    def _application(self) -> State:
        folder = self.bench.applications / APPLICATION / "config"
        return _state(Table.load(folder / "keys.csv"), Table.load(folder / "app.csv"))

    def _base_words(self) -> tuple[str, ...]:
        row = next(row for row in self.bench.table(REMOTES) if row["RUID"] == str(UNIT))
        return tuple(row[word] for word in WORDS)

    @staticmethod
    def _packed(archive: bytes) -> State:
        with tarfile.open(fileobj=io.BytesIO(archive), mode="r:") as tar:
            keys, app = (_table(tar.extractfile(f"{APPLICATION}/config/{name}").read()) for name in ("keys.csv", "app.csv"))
        return _state(keys, app)

    def _listing(self) -> set[str]:
        root = str(self.bench.applications)
        return {os.path.relpath(os.path.join(folder, name), root)
                for folder, folders, files in os.walk(root) for name in folders + files}

    def _tars(self) -> list[int]:
        """Processes beside the server that work in the board's applications folder."""
        board = os.readlink(f"/proc/{self.bench.server.pid}/ns/mnt")
        return [pid for pid in _processes() if _works_in(pid, board, str(APPLICATIONS)) and pid != self.bench.server.pid]

    def _has_child(self) -> bool:
        return any(map(_children, Path(f"/proc/{self.bench.server.pid}/task").iterdir()))

    def _lasting_tars(self) -> list[int]:
        """Those that do not end by themselves: what the kernel has killed with the server may take its time to end."""
        try:
            self.bench.wait_for(lambda: not self._tars(), END_SECONDS, poll=0.01)
        except WaitTimeout:
            pass
        return self._tars()

    # --- the way to it ---------------------------------------------------------------------------------------------

    def _start(self) -> None:
        if not self.bench.server.running:
            self.bench.start()
        self.bench.server.wait_log(READY, UP_SECONDS)

    def _answers(self) -> bool:
        """Whether the server is still there: a tracer that is asked to end may not come to say that it killed, and who was
        killed takes its time to end."""
        try:
            with self.bench.service_tool(UP_SECONDS) as tool:
                tool.list()
            return True
        except (ServiceToolError, OSError):
            return False

    def _pair_anew(self) -> State:
        """A whole pairing, with a new setting; the base unit has another one after that, for the pairing that follows."""
        with self.bench.service_tool(UP_SECONDS) as tool:
            done = len(self.bench.server.log)
            _, archive = tool.get(PATH, UNIT)
            self.bench.server.wait_log("Transfer complete of", UP_SECONDS, since=done)
        state = self._packed(archive)
        assert state.words == self._base_words()
        self._setting += 1
        self.bench.change(APP, "CCH1", value=self._setting, from_="local")
        return state


class _Asking:
    """A service tool in a thread of its own: asks for the application, and fetches it."""

    def __init__(self, tool: ServiceTool):
        self._tool, self._archive = tool, None
        tool.open()
        self._thread = threading.Thread(target=self._get)
        self._thread.start()

    def _get(self) -> None:
        try:
            self._archive = self._tool.get(PATH, UNIT)[1]
        except (ServiceToolError, OSError):
            pass  # cut short, or refused; what it has is not whole

    @property
    def has_ended(self) -> bool:
        return not self._thread.is_alive()

    def end(self) -> Optional[bytes]:
        """The whole archive, compared with its digest; None when the tool did not get it."""
        if not self.has_ended:
            self._tool.leave()
        self._thread.join()
        self._tool.close()
        return self._archive


class Tracer:
    """Stands between the kernel and the thread of the server that works with files, from now on, and interferes once."""

    _ATTACHED = re.compile("attached")

    def __init__(self, pid: int, injection: str, *options: str):
        thread = next(int(task) for task in os.listdir(f"/proc/{pid}/task")
                      if Path(f"/proc/{pid}/task/{task}/comm").read_text(encoding="ascii").strip() == FILE_THREAD)
        self._output = ""
        self._process = subprocess.Popen(["strace", *options, "-p", str(thread), "-e", f"trace={injection.split(':')[0]}",
                                          "-e", f"inject={injection}", "-e", "signal=none"],
                                         stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                         text=True)
        for line in self._process.stderr:
            self._output += line
            if self._ATTACHED.search(line):
                return
        raise RuntimeError(f"the tracer did not attach: {self._output}")

    def end(self) -> None:
        self._process.send_signal(signal.SIGTERM)
        self._output += self._process.stderr.read()
        self._process.stderr.close()
        self._process.wait()

    @property
    def injected(self) -> bool:
        """After the end: whether it came to that."""
        return "(INJECTED" in self._output or "= ?\n" in self._output  # a call that nobody came back from


def kills(bench: Installation, tries: int, seed: int = 1) -> Iterator[tuple[float, Outcome]]:
    """So many kills at random moments of a pairing: each moment, in seconds after the request, and what became of it."""
    trial, moments = PairingTrial(bench), random.Random(seed)
    length = trial.length()
    for _ in range(tries):
        moment = moments.uniform(0, BEYOND * length)
        yield moment, trial.kill_after(moment)


def summary(outcomes: list[Outcome]) -> str:
    """How many ended how, a line each."""
    count = Counter((outcome.paired, outcome.fetched) for outcome in outcomes)
    lines = [f"{number:5}  the {paired} pairing holds, the tool {'has' if fetched else 'has not'} the whole archive"
             for (paired, fetched), number in sorted(count.items(), reverse=True)]
    faults = Counter(re.sub(r"\d+", "n", fault) for outcome in outcomes for fault in outcome.faults)
    lines += [f"{number:5}  FAULT: {fault}" for fault, number in faults.most_common()]
    return "\n".join(lines)


def _state(keys: Table, app: Table) -> State:
    return State(tuple(keys.row(word)["value"] for word in WORDS), app.row("CCH1")["value"])


def _table(content: bytes) -> Table:
    lines = [line.split(";") for line in content.decode("latin-1").splitlines()]
    table = Table(lines[0], lines[1])
    table.rows = [dict(zip(lines[0], line)) for line in lines[2:]]
    return table


def _processes() -> list[int]:
    return [int(name) for name in os.listdir("/proc") if name.isdigit()]


def _children(thread: Path) -> str:
    try:
        return (thread / "children").read_text(encoding="ascii")
    except OSError:
        return ""  # it has just ended


def _works_in(pid: int, board: str, folder: str) -> bool:
    try:
        return os.readlink(f"/proc/{pid}/ns/mnt") == board and os.readlink(f"/proc/{pid}/cwd").startswith(folder)
    except OSError:
        return False  # it has just ended
