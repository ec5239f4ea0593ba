"""Figures of the server's process and of its connections, out of /proc; everything that cannot be read is None."""
import os
import time
from pathlib import Path
from typing import NamedTuple, Optional

PROGRAM = "tessaroserver"
PAGE = os.sysconf("SC_PAGESIZE")
TICKS = os.sysconf("SC_CLK_TCK")
UNIT_PORT, ESTABLISHED = 1147, "01"
MOST_ROWS = 4096
PAUSES = 4


class Process(NamedTuple):
    pid: int
    birth: float  # seconds after the computer's start
    age: float  # seconds since then
    cpu_seconds: float
    resident_bytes: int
    threads: int
    descriptors: Optional[int]


def stat_fields(folder):
    """The fields of a process from its state on, or None when it has gone."""
    try:
        return (folder / "stat").read_text(encoding="ascii", errors="replace").rpartition(")")[2].split()
    except OSError:
        return None


def descriptors(folder):
    """How many descriptors it has open. Only root may look; newer kernels tell the number to all."""
    try:
        return len(os.listdir(folder / "fd"))
    except OSError:
        pass
    try:
        return (folder / "fd").stat().st_size or None
    except OSError:
        return None


def is_server(folder, program):
    try:
        if (folder / "comm").read_text(encoding="ascii", errors="replace").strip() != PROGRAM[:15]:
            return False
        try:
            return os.path.samefile(folder / "exe", program)
        except PermissionError:
            return (folder / "cmdline").read_bytes().split(b"\0")[0] == os.fsencode(program)
    except OSError:
        return False


class ServerProcess:
    """Finds the process of the server again and again."""

    def __init__(self, program: Path, proc: Path = Path("/proc")):
        self._program, self._proc = program, proc
        self._folder: Optional[Path] = None
        self._pauses = 0

    def figures(self) -> Optional[Process]:
        """To be asked every other second. Looking through all processes costs something, so a server that has gone is looked for at
        once, and then less often."""
        found = self._read() if self._folder else None
        if found is None and self._pauses <= 0:
            self._folder = self._find()
            found = self._read() if self._folder else None
        self._pauses = PAUSES if self._pauses <= 0 else self._pauses - 1
        if found is None:
            self._folder = None
        else:
            self._pauses = 0
        return found

    def _find(self):
        with os.scandir(self._proc) as entries:
            numbers = [entry.name for entry in entries if entry.name.isdigit()]
        return next((self._proc / number for number in numbers if is_server(self._proc / number, self._program)), None)

    def _read(self):
        values = stat_fields(self._folder)
        if values is None or len(values) < 22 or values[0] in "ZX":
            return None
        birth = int(values[19]) / TICKS
        age = time.clock_gettime(time.CLOCK_BOOTTIME) - birth
        cpu_seconds = (int(values[11]) + int(values[12])) / TICKS
        return Process(int(self._folder.name), birth, age, cpu_seconds, int(values[21]) * PAGE, int(values[17]),
                       descriptors(self._folder))


def own_figures():
    """(CPU seconds, resident bytes) of this process."""
    values = stat_fields(Path("/proc/self"))
    return (int(values[11]) + int(values[12])) / TICKS, int(values[21]) * PAGE


def unit_connections(proc: Path = Path("/proc")) -> Optional[int]:
    """How many connections of remote units stand."""
    ending = f":{UNIT_PORT:04X}"
    try:
        with open(proc / "net/tcp", encoding="ascii") as table:
            rows = [row.split() for _, row in zip(range(MOST_ROWS), table)][1:]
    except OSError:
        return None
    return sum(1 for row in rows if len(row) > 3 and row[1].endswith(ending) and row[3] == ESTABLISHED)
