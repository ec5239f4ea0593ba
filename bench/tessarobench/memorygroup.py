"""A control group in which the server and a greedy program share too little memory."""

from __future__ import annotations

import contextlib
import os
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import NamedTuple, Optional

_MOUNT = Path("/sys/fs/cgroup")
_PROCESSES = "cgroup.procs"
_MARGIN_BYTES = 16 << 20
# The kernel ends the greedy program first, from its first moment on, and before the server whoever starts it.
_KEEPER = ("import os, subprocess, sys\n"
           "def offer(score): open('/proc/self/oom_score_adj', 'w').write(score)\n"
           "open(sys.argv[1], 'w').write(str(os.getpid()))\n"
           "offer('900')\n"
           "while True: subprocess.run([sys.executable, '-S', '-c', sys.argv[2]], preexec_fn=lambda: offer('1000'))")
_GREEDY = ("taken = []\n"
           "while True: taken.append(bytearray(b'x') * (1 << 20))")


class _Files(NamedTuple):
    """What the two kinds of control groups call the same things."""

    folder: Path
    limit: str
    used: str


def _own_group() -> Optional[_Files]:
    """Where this process stands in the memory controller's tree."""
    for line in Path("/proc/self/cgroup").read_text(encoding="ascii").splitlines():
        _, controllers, path = line.split(":", 2)
        if "memory" in controllers.split(","):
            return _Files(_MOUNT / "memory" / path.lstrip("/"), "memory.limit_in_bytes", "memory.usage_in_bytes")
        if not controllers and (_MOUNT / path.lstrip("/") / "memory.max").exists():
            return _Files(_MOUNT / path.lstrip("/"), "memory.max", "memory.current")
    return None


class MemoryGroup:
    """A new group, for what is started with the shell command `joining` before it. `press` leaves it hardly more memory than
    it uses, and lets a greedy program loose there, again and again: that takes all there is, the kernel looks for more in
    vain and ends it."""

    def __init__(self) -> None:
        own = _own_group()
        assert own, "see refused"
        self._files = own._replace(folder=Path(tempfile.mkdtemp(prefix="tessarobench-", dir=own.folder)))
        self._pressing: Optional[subprocess.Popen] = None

    @classmethod
    def refused(cls) -> Optional[str]:
        """Why this machine cannot have one, or None."""
        if _own_group() is None:
            return "there is no memory controller for control groups"
        try:
            probe = cls()
            writable = os.access(probe._files.folder / probe._files.limit, os.W_OK)
            probe.close()
        except OSError as error:
            return f"no control group can be made here ({error.strerror})"
        return None if writable else "no control group with a memory limit can be made here"

    @property
    def name(self) -> str:
        """One that no other group has."""
        return self._files.folder.name.replace("_", "x")

    @property
    def joining(self) -> str:
        return f"echo $$ >{self._files.folder / _PROCESSES}"

    def press(self) -> None:
        used = int((self._files.folder / self._files.used).read_text(encoding="ascii"))
        (self._files.folder / self._files.limit).write_text(str(used + _MARGIN_BYTES))
        self._pressing = subprocess.Popen([sys.executable, "-S", "-c", _KEEPER, str(self._files.folder / _PROCESSES), _GREEDY],
                                          stderr=subprocess.DEVNULL, start_new_session=True)

    def used_by(self, name: str) -> int:
        """Bytes in use of a group below it."""
        folder = next(path for path in self._files.folder.rglob(name) if path.is_dir())
        return int((folder / self._files.used).read_text(encoding="ascii"))

    @property
    def ended(self) -> int:
        """How many programs the kernel has ended for want of memory."""
        for name in ("memory.oom_control", "memory.events"):
            with contextlib.suppress(FileNotFoundError):
                words = (self._files.folder / name).read_text(encoding="ascii").split()
                return int(words[words.index("oom_kill") + 1])
        return 0

    def close(self) -> None:
        """After everything else in it has ended."""
        if self._pressing:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(self._pressing.pid, signal.SIGKILL)
            self._pressing.wait()
        for _ in range(500):
            with contextlib.suppress(OSError):
                for folder, _, _ in os.walk(self._files.folder, topdown=False):
                    os.rmdir(folder)
                return
            time.sleep(0.01)  # the kernel takes its time to forget ended processes
