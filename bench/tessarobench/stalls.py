"""What may stand still beside the server: its log, its disk, the processors, memory, tar, descriptors, a local program.

A stall is made for an installation that has not been started yet. `lay` prepares the board, `options` go to the server's
start, `begin` makes it stand still, and `end` lets go of everything that would outlive the board.
"""

from __future__ import annotations

import contextlib
import errno
import os
import resource
import shutil
import signal
import subprocess
import sys
from pathlib import Path
from typing import Any, Optional

from . import glink, pairwire, stallingdisk
from .apiclient import LOOPBACK, REQUEST_PORT
from .board import APPLICATIONS
from .installation import REMOTES, UNIT_APPLICATION, Installation
from .memorygroup import MemoryGroup
from .remoteunit import RemoteUnit
from .stallingdisk import StallingDisk

PANEL = "panel"  # an application that can be paired
MANY_ROWS = 65_000
BIG_FILE_BYTES = 1 << 29
ENDLESS_BYTES = 1 << 40


class Stall:
    """Nothing stands still: what the other rows are compared with.

    `refused` is why this machine cannot do it, or None. `alone`: it takes what others beside it would need.
    """

    title = "nothing"
    alone = False

    def __init__(self, bench: Installation):
        self.bench = bench
        self.options: dict[str, Any] = {}

    @classmethod
    def refused(cls) -> Optional[str]:
        return None

    def lay(self) -> None:
        """Before the server is started."""

    def begin(self) -> None:
        """The server serves, and a unit is armed."""

    def machine_stop(self, unit: RemoteUnit) -> float:
        """The armed unit says machine stop, whatever else it waits for; the time is that before the bytes leave."""
        return self.bench.loop.call(self._say, unit)

    def end(self) -> None:
        """The server may still hang in it."""

    def _say(self, unit: RemoteUnit) -> float:
        began = self.bench.journal.now
        unit.send_raw(glink.message(glink.MACHINE_STOP).pack())
        return began


# --- the log -----------------------------------------------------------------------------------------------------------


class LogFull(Stall):
    title = "log: nobody reads, the pipe is full"

    def begin(self) -> None:
        self.bench.server.stall_log()

    def end(self) -> None:
        self.bench.server.read_log()


class LogFullFromStart(LogFull):
    title = "log: nobody has read it from the start"

    def __init__(self, bench: Installation):
        super().__init__(bench)
        self.options["log_stalled"] = True

    def begin(self) -> None:
        """It has begun."""


class LogReaderGone(Stall):
    title = "log: its reader has gone"

    def begin(self) -> None:
        self.bench.server.lose_log_reader()


class LogClosed(Stall):
    title = "log: no standard error at all"

    def __init__(self, bench: Installation):
        super().__init__(bench)
        self.options["before"] = "exec >&- 2>&-"


# --- the disk ------------------------------------------------------------------------------------------------------------


def lay_application(bench: Installation) -> Path:
    """An application for remote units that the service tool can pair."""
    folder = bench.applications / PANEL
    (folder / "config").mkdir(parents=True)
    (folder / "manifest.csv").write_text("name;Panel\ntarget;ru\ntype;user\n")
    (folder / "config" / "keys.csv").write_text("tag;value\nKey;Value\n" + "".join(f"PKY{n};0\n" for n in range(1, 5)))
    (folder / "config" / "app.csv").write_text("tag;value;from;remark\nKey;Value;From;What it is\nBUID;0;BC;Base unit\n")
    return folder


def ask_for_panel(bench: Installation, unit: int) -> None:
    """The service tool wants it packed and paired; nobody waits for the answer."""
    bench.tool.send(pairwire.get_app(unit, str(APPLICATIONS / PANEL)), "getApp", unit=unit)


class Disk(Stall):
    """Everybody wants something of the disk at the moment at which it stalls: configuration, pairing, a checksum."""

    fault: Any = None

    @classmethod
    def refused(cls) -> Optional[str]:
        return None if stallingdisk.available() else "the kernel or its /dev/fuse does not let this user mount a file system"

    def lay(self) -> None:
        lay_application(self.bench)
        beneath = os.open(self.bench.applications, os.O_PATH | os.O_DIRECTORY | os.O_CLOEXEC)
        self.bench.applications = Path(f"/proc/{os.getpid()}/fd/{beneath}")
        self._disk = StallingDisk(str(self.bench.applications))
        self.bench.on_board(self._disk.mount, str(APPLICATIONS))

    def begin(self) -> None:
        (self.bench.applications / UNIT_APPLICATION / "changed").write_text("since the last checksum")
        self._disk.stall(self.fault)
        ask_for_panel(self.bench, 1003)
        self.bench.api.send(b"CCHANGE")
        self.bench.unit(1002).join()

    def end(self) -> None:
        self._disk.recover()
        self.bench.server.kill()
        self.bench.on_board(self._disk.unmount)


class DiskHangs(Disk):
    title = "disk: every operation hangs"
    fault = stallingdisk.HANG


class DiskFails(Disk):
    title = "disk: every operation fails (EIO)"
    fault = errno.EIO


class DiskFull(Disk):
    title = "disk: full"
    fault = errno.ENOSPC


class PipeForKeys(Stall):
    title = "disk: a FIFO stands where the keys of a paired application should be"

    def lay(self) -> None:
        keys = lay_application(self.bench) / "config" / "keys.csv"
        keys.unlink()
        os.mkfifo(keys)

    def begin(self) -> None:
        ask_for_panel(self.bench, 1003)


class ManyUnits(Stall):
    title = "disk: one pairing after the other, 65,000 units are paired already"

    def lay(self) -> None:
        lay_application(self.bench)
        table = self.bench.table(REMOTES)
        text = table.text() + "".join(f"{row};{row + 1000};0;0;0;0\n" for row in range(2, MANY_ROWS - 1000))
        (self.bench.applications / REMOTES).write_text(text)

    def begin(self) -> None:
        for unit in range(5):
            ask_for_panel(self.bench, 1003 + unit)


class EndlessFiles(Stall):
    """Nobody can tell such a file from one that never ends before he has read more of it than he should."""

    title = "disk: manifest, keys and a file of applications are without end"

    def lay(self) -> None:
        endless(lay_application(self.bench) / "config" / "keys.csv")
        other = self.bench.applications / "endless"
        other.mkdir()
        endless(other / "manifest.csv")

    def begin(self) -> None:
        endless(self.bench.applications / UNIT_APPLICATION / "changed")
        ask_for_panel(self.bench, 1003)
        self.bench.tool.send(pairwire.get_app_list(), "getAppList")
        self.bench.api.send(b"CCHANGE")
        unit = self.bench.unit(1002)
        unit.checksum = bytes(16)  # the bench does not read it all
        unit.join()


def endless(path: Path) -> None:
    """A file that is all hole: it takes no space, and hours to read."""
    with open(path, "wb") as file:
        file.truncate(ENDLESS_BYTES)


class Hashing(Stall):
    title = "disk: a big application has changed, and is being read for its checksum"

    def lay(self) -> None:
        self._unit_checksum = self.bench.unit_checksum()

    def begin(self) -> None:
        with open(self.bench.applications / UNIT_APPLICATION / "big", "wb") as file:
            file.truncate(BIG_FILE_BYTES)
        unit = self.bench.unit(1002)
        unit.checksum = bytes(16)  # the bench does not read it all
        unit.join()
        self.bench.wait_for(lambda: unit.path or unit.awaits_verdict, what="a unit that waits for a checksum")

    def machine_stop(self, unit: RemoteUnit) -> float:
        """The armed unit has lost its connection, joins again, and does not wait for the answer."""
        answered = len(unit.verdicts)
        unit.checksum = self._unit_checksum
        unit.join()
        self.bench.wait_for(lambda: unit.awaits_verdict or len(unit.verdicts) > answered, what="the unit asks to join")
        return super().machine_stop(unit)


# --- the machine -----------------------------------------------------------------------------------------------------------


class Processors(Stall):
    title = "processors: taken by others, at nice -10"
    alone = True
    nice = -10

    @classmethod
    def refused(cls) -> Optional[str]:
        if not shutil.which("stress-ng"):
            return "stress-ng is not installed"
        return None if os.geteuid() == 0 and nice_allowed(cls.nice) else f"this user may not use nice {cls.nice}"

    def begin(self) -> None:
        self._stress = subprocess.Popen(["nice", "-n", str(self.nice), "stress-ng", "--quiet", "--cpu", str(os.cpu_count()),
                                         "--timeout", "0"], start_new_session=True)
        with contextlib.suppress(FileNotFoundError):  # some kernels share the processors out among sessions first
            Path(f"/proc/{self._stress.pid}/autogroup").write_text(str(self.nice))
        self.bench.let_pass(0.2)

    def end(self) -> None:
        end_group(self._stress)


class Memory(Stall):
    title = "memory: the server's control group is full"
    alone = True

    @classmethod
    def refused(cls) -> Optional[str]:
        return MemoryGroup.refused()

    def lay(self) -> None:
        self._group = MemoryGroup()
        self.options["before"] = self._group.joining

    def begin(self) -> None:
        self._group.press()
        self.bench.let_pass(0.2)

    def end(self) -> None:
        self.bench.server.kill()
        self._group.close()


class TarForEver(Stall):
    title = "tar: never ends"

    def __init__(self, bench: Installation):
        super().__init__(bench)
        self.options["env"] = {"PATH": "/home/root/slow:/usr/bin:/bin"}

    def lay(self) -> None:
        lay_application(self.bench)
        self.bench.on_board(self._lay_tar)

    @staticmethod
    def _lay_tar() -> None:
        tar = Path("/home/root/slow/tar")
        tar.parent.mkdir()
        tar.write_text("#!/bin/sh\nexec sleep 60\n")
        tar.chmod(0o755)

    def begin(self) -> None:
        ask_for_panel(self.bench, 1003)


class NoDescriptors(Stall):
    title = "descriptors: none is left"

    def begin(self) -> None:
        pid = self.bench.server.pid
        used = {int(name) for name in os.listdir(f"/proc/{pid}/fd")}
        lowest_free = next(number for number in range(len(used) + 1) if number not in used)
        resource.prlimit(pid, resource.RLIMIT_NOFILE, (lowest_free, lowest_free))


class Flood(Stall):
    """By a program of its own, so that the bench stays free."""

    title = "a local program sends CCHANGE without pause"
    request = b"CCHANGE"
    _SENDER = ("import socket, sys; s = socket.socket(fileno=int(sys.argv[1]))\n"
               "while True:\n"
               "    try: s.sendto(sys.argv[2].encode(), (sys.argv[3], int(sys.argv[4])))\n"
               "    except OSError: pass")

    def begin(self) -> None:
        with self.bench.local_socket() as sender:
            self._sender = subprocess.Popen(
                [sys.executable, "-S", "-c", self._SENDER, str(sender.fileno()), self.request.decode(), LOOPBACK,
                 str(REQUEST_PORT)], pass_fds=[sender.fileno()], start_new_session=True)
        self.bench.let_pass(0.5)

    def end(self) -> None:
        end_group(self._sender)


def nice_allowed(nice: int) -> bool:
    return subprocess.run(["nice", "-n", str(nice), "true"], capture_output=True, check=False).stderr == b""


def end_group(process: subprocess.Popen) -> None:
    with contextlib.suppress(ProcessLookupError):
        os.killpg(process.pid, signal.SIGKILL)
    process.wait()


STALLS: dict[str, type[Stall]] = {
    "nothing": Stall, "log-full": LogFull, "log-full-from-start": LogFullFromStart, "log-reader-gone": LogReaderGone,
    "log-closed": LogClosed, "disk-hangs": DiskHangs, "disk-fails": DiskFails, "disk-full": DiskFull, "fifo": PipeForKeys,
    "endless": EndlessFiles, "pairing": ManyUnits, "hashing": Hashing, "processors": Processors, "memory": Memory,
    "tar": TarForEver, "descriptors": NoDescriptors, "cchange": Flood,
}
