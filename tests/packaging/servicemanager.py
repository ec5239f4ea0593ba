"""A real systemd as process 1 of a clean Debian, on a simulated board: the package's unit runs there as it does on a board.

The container shares the board's network; the UART and the GPIO lines are the board's. It needs root, systemd-nspawn, and for a
memory limit a memory controller.
"""

import os
import shutil
import signal
import subprocess
import time
from pathlib import Path
from typing import Optional

from tessarobench.installation import Installation
from tessarobench.memorygroup import MemoryGroup
from tessarobench.namespaces import unmount

UNIT = "tessaroserver.service"
LINES, UART = "/mnt/gpio", "/mnt/uart"
BOOT_SECONDS, MAIN_PROCESS_SECONDS = 60.0, 10.0
_HOST_CGROUP_1 = Path("/sys/fs/cgroup/memory")

# The bench's UART is a pseudo terminal; everything else is as the package has it.
BENCH_DROP_IN = "[Service]\nDeviceAllow=char-pts rw\n"


def refused() -> Optional[str]:
    """Why there can be none here, or None."""
    if os.geteuid() != 0 or Path("/proc/self/uid_map").read_text(encoding="ascii").split()[2] == "1":
        return "a container with its own systemd needs root"
    if not shutil.which("systemd-nspawn"):
        return "systemd-nspawn (package systemd-container) is missing"
    return None


class ServiceManager:
    """Booted when the constructor returns; `close` pulls the plug."""

    def __init__(self, bench: Installation, root: Path):
        self._bench, self._root = bench, root
        self.memory = MemoryGroup()
        self._leader, self._log = 0, root.parent / "container.log"
        self._write_drop_in("bench", BENCH_DROP_IN)
        self._container = bench.on_board(self._boot)
        try:
            bench.wait_for(self._up, BOOT_SECONDS, "systemd is up", poll=0.1)
            self._lay_devices()
        except BaseException:
            self.close()
            raise

    def close(self) -> None:
        if self._leader:
            os.kill(self._leader, signal.SIGKILL)  # and everything in the container with it
        self._container.kill()
        self._container.wait()
        self.memory.close()

    def run(self, *command: str, ok: bool = True) -> str:
        """Runs a command inside; its output."""
        done = subprocess.run(["nsenter", "-t", str(self._leader), "-a", *command], capture_output=True, text=True, check=False)
        assert not ok or done.returncode == 0, f"{command}: {done.stdout}{done.stderr}"
        return done.stdout + done.stderr

    def control(self, *words: str, ok: bool = True) -> str:
        return self.run("systemctl", "--no-pager", *words, ok=ok)

    def setting(self, name: str) -> str:
        return self.control("show", "--value", "--property", name, UNIT).strip()

    def wait_main_process(self) -> int:
        """The server's, as the bench numbers processes. It is looked for in this thread: the peers must not wait for that."""
        until = time.monotonic() + MAIN_PROCESS_SECONDS
        while time.monotonic() < until:
            if process := self._main_process():
                return process
        raise AssertionError("the unit has no main process\n" + self.journal())

    def _main_process(self) -> Optional[int]:
        inside = self.setting("MainPID")
        return next((pid for pid in self._processes() if self._numbers(pid)[-2:] == [str(pid), inside]), None)

    def journal(self) -> str:
        return self.run("journalctl", "--no-pager", "--output=cat", "--unit", UNIT, ok=False)

    # --- inside ----------------------------------------------------------------------------------------------------

    def _boot(self) -> subprocess.Popen:
        unmount(str(self._root / "proc"))  # the container's process 1 wants one of its own
        uart = os.path.realpath("/dev/ttymxc0")
        command = ["systemd-nspawn", "--boot", f"--directory={self._root}", f"--machine={self.memory.name}",
                   "--register=no", "--keep-unit", "--console=pipe", "--resolv-conf=off", "--timezone=off", "--link-journal=no",
                   "--capability=CAP_IPC_LOCK", f"--bind=/sys/class/gpio:{LINES}", f"--bind={uart}:{UART}"]
        with open(self._log, "wb") as said:
            return subprocess.Popen(["/bin/sh", "-c", f'{self.memory.joining}; exec "$@"', "sh", *command], stdin=subprocess.DEVNULL,
                                stdout=said, stderr=said, start_new_session=True)

    def _up(self) -> bool:
        assert self._container.poll() is None, "the container has ended:\n" + self._log.read_text(encoding="utf-8")
        children = Path(f"/proc/{self._container.pid}/task/{self._container.pid}/children").read_text(encoding="ascii").split()
        self._leader = int(children[0]) if children else 0
        return bool(self._leader) and self.control("is-system-running", ok=False).strip() in ("running", "degraded")

    def _lay_devices(self) -> None:
        """Where the board has them. Where control groups are of the first kind, nspawn lets nobody inside limit memory; here
        the container is our own."""
        script = (f"mount -t tmpfs class /sys/class && mkdir /sys/class/gpio && mount --bind {LINES} /sys/class/gpio && "
                  f"touch /dev/ttymxc0 && mount --bind {UART} /dev/ttymxc0")
        if (_HOST_CGROUP_1 / "memory.limit_in_bytes").exists():
            script += f" && mount -o remount,rw,bind {_HOST_CGROUP_1}"
        subprocess.run(["nsenter", "-t", str(self._leader), "-m", "/bin/sh", "-c", script], check=True)
        self.control("daemon-reexec")

    def _write_drop_in(self, name: str, text: str) -> None:
        folder = self._root / f"etc/systemd/system/{UNIT}.d"
        folder.mkdir(parents=True, exist_ok=True)
        (folder / f"{name}.conf").write_text(text)

    @staticmethod
    def _processes() -> list[int]:
        return [int(name) for name in os.listdir("/proc") if name.isdigit()]

    @staticmethod
    def _numbers(pid: int) -> list[str]:
        """What the process is called in each namespace of processes, from ours inwards."""
        try:
            lines = Path(f"/proc/{pid}/status").read_text(encoding="ascii").splitlines()
        except (FileNotFoundError, ProcessLookupError):
            return []
        return next(line for line in lines if line.startswith("NSpid:")).split()[1:]
