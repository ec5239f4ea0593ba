"""The board as an emulated machine: Debian's kernel on an i.MX6 with a real ttymxc0, a real eth0 and real GPIO lines.

It offers what Board offers to peers and tests, so that the same peers stand at its links. What differs, differs as on a
real board: there is a kernel of its own behind the devices, files reach it when the server is started, and its clock is
not ours.
"""

from __future__ import annotations

import base64
import hashlib
import io
import shutil
import signal
import socket
import tarfile
import tempfile
from functools import cached_property
from pathlib import Path
from typing import Any, Callable, Optional

from .apiclient import LOOPBACK
from .basecontroller import BaseController
from .board import APPLICATIONS, EXAMPLES, PROGRAM, SERVER_DIRECTORY
from .closing import Closing
from .emulator import DRIVE_PIN, HOST_ADDRESSES, MONITOR_PIN, Emulator
from .installation import Peers
from .journal import Journal
from .network import Cable
from .relay import Relay
from .serverprocess import ServerProcess, Usage

BOARD_ADDRESSES = ("10.42.20.1/24", "192.168.32.1/24")
GUEST_RELAY = "datagramrelay"
_UPLOAD_LINE = 900  # characters; the console's line discipline takes 4095
_GUEST_TICKS, _GUEST_PAGE = 100, 4096
_PATIENT_SECONDS = 0.5


class GuestRelay(Relay):
    """The relay on the pins of the emulated processor."""

    def __init__(self, emulator: Emulator, journal: Journal, delay: float = 0.008):
        self._emulator, self._pins = emulator, emulator.pins
        self._prepare(emulator.loop, journal, delay)
        self._pins.changed = self._pin_changed

    def power_off(self) -> None:
        self._emulator.console.run("echo 0 >/sys/class/gpio/gpio37/value")

    def close(self) -> None:
        self._pins.changed = lambda _pin, _level: None

    def _pin_changed(self, pin: int, level: bool) -> None:
        if pin == DRIVE_PIN:
            self._drive_changed("1" if level else "0")

    def _show_monitor(self, text: str) -> None:
        self._pins.drive(MONITOR_PIN, text[:1] == "1")


class GuestServer(ServerProcess):
    """The server as a process of the board. `start` lays changed files down first."""

    def __init__(self, emulator: Emulator, journal: Journal, lay_files: Callable[[], None]):
        super().__init__(emulator.loop, journal, None, str(APPLICATIONS / SERVER_DIRECTORY / PROGRAM))
        self._console, self._lay_files = emulator.console, lay_files
        self._pid: Optional[int] = None
        self._console.listeners.update(pid=self._began, log=lambda text: self._take_line(text.encode()),
                                       ended=self._has_ended)

    def start(self, env: Optional[dict[str, str]] = None, limits: Optional[dict[int, int]] = None) -> "GuestServer":
        assert not env and not limits, "on the emulated board the server starts as it is"
        assert not self.running, "the server runs already"
        self._lay_files()
        self._pid, self.log, self.exit_status = None, [], None
        self._console.run("start")
        self._loop.wait_for(lambda: self._pid, 120, "the server's process id")
        return self

    @property
    def pid(self) -> int:
        return self._pid

    @property
    def running(self) -> bool:
        return self._pid is not None and self.exit_status is None

    def signal(self, number: int) -> None:
        if self.running:
            self._note("signal", name=signal.Signals(number).name)
            self._console.run(f"kill -{int(number)} {self.pid}")

    def kill(self) -> None:
        self.signal(signal.SIGKILL)
        if self._pid:
            self.wait_exit(30.0)

    def wait_listening(self, kind: int, port: int, timeout: float = 120.0) -> None:
        udp = kind == socket.SOCK_DGRAM
        listening = f"grep -q ':{port:04X} 00000000:0000 {'07' if udp else '0A'}' /proc/net/{'udp' if udp else 'tcp'}"
        self._console.run(f"until {listening}; do sleep 0.1; done", timeout)

    def wait_threads(self, most: int, timeout: float = 120.0) -> None:
        """Waits until the server has no more threads than that."""
        self._console.run(f"while [ $(ls /proc/{self.pid}/task | wc -l) -gt {most} ]; do sleep 0.1; done", timeout)

    def usage(self) -> Usage:
        """Figures of the board's /proc, now."""
        shown = self._console.run(f"cat /proc/{self.pid}/stat; ls /proc/{self.pid}/fd 2>/dev/null | wc -l; "
                                  f"cat /proc/{self.pid}/task/*/status | grep ^voluntary").splitlines()
        fields = shown[0].rpartition(")")[2].split()
        user, system, threads, resident_pages = (int(fields[i]) for i in (11, 12, 17, 21))
        return Usage((user + system) / _GUEST_TICKS, resident_pages * _GUEST_PAGE, threads, int(shown[1]),
                     sum(int(line.split()[1]) for line in shown[2:]))

    def _began(self, pid: str) -> None:
        self._pid = int(pid)
        self._note("started", pid=self._pid)

    def _has_ended(self, status: str) -> None:
        number = int(status)
        self.exit_status = 128 - number if number > 128 else number
        self._note("ended", status=self.exit_status)


class GuestInterface(Cable):
    """One of the networks on the board's eth0. The cable is one for both."""

    def __init__(self, emulator: Emulator, journal: Journal, address: str, far_address: str):
        super().__init__(address, far_address)
        self.name, self._emulator, self._journal = "eth0", emulator, journal

    def unplug(self) -> None:
        """Pulls the cable: the board's network driver sees the carrier go."""
        self._note("unplugged")
        self._emulator.cable(False)

    def plug(self) -> None:
        self._note("plugged")
        self._emulator.cable(True)

    def carrier(self) -> bool:
        """Whether the board's driver sees a carrier."""
        return self._emulator.console.run("cat /sys/class/net/eth0/carrier").strip() == "1"

    def wait_carrier(self, timeout: float = 120.0) -> None:
        self._emulator.console.run("until [ $(cat /sys/class/net/eth0/carrier) = 1 ]; do sleep 0.1; done", timeout)

    def change_address(self, address: str) -> None:
        """Gives the board another address in place of the one it has on this network. It becomes its last one."""
        self._note("address", to=address)
        self._emulator.console.run(f"ip addr del {self.address} dev eth0; ip addr add {address} dev eth0")
        self.address = address

    def _note(self, what: str, **detail: Any) -> None:
        self._emulator.note(self._journal, self.name, what, **detail)


class _LoopbackSocket(socket.socket):
    """A UDP socket whose loopback address is the board's: datagramrelay carries it over the cable."""

    def bind(self, address: tuple) -> None:
        super().bind((HOST_ADDRESSES[0].split("/")[0] if address[0] == LOOPBACK else address[0], address[1]))

    def sendto(self, data: bytes, address: tuple) -> int:
        return super().sendto(data, (BOARD_ADDRESSES[0].split("/")[0] if address[0] == LOOPBACK else address[0],
                                     address[1]))


class EmulatedBoard(Closing):
    """One test's view of a running emulator: freshly laid files, peers of its own, the server not started yet.

    `close` ends the server and the peers and leaves the emulator as it found it. `applications` is a folder here; it is
    carried over when the server starts, and `fetch` brings back what the server has changed.
    """

    def __init__(self, emulator: Emulator, installation: Path = EXAMPLES,
                 prepare: Optional[Callable[[Path], Any]] = None, lay_files: bool = True):
        self.emulator, self.loop, self.journal = emulator, emulator.loop, Journal()
        self.console = emulator.console
        super().__init__()
        self._laid: Optional[dict] = None
        self._lay_stage(installation, prepare)
        if not lay_files:
            self.fetch()
        self.loop.describe = lambda: "journal, newest last:\n" + self.journal.tail()
        self.eth0 = GuestInterface(emulator, self.journal, BOARD_ADDRESSES[0], HOST_ADDRESSES[0])
        self.wlan0 = GuestInterface(emulator, self.journal, BOARD_ADDRESSES[1], HOST_ADDRESSES[1])
        self.relay = self.closing(GuestRelay(emulator, self.journal))
        self.server = GuestServer(emulator, self.journal, self._lay_files)
        self._closing.append(self._end_server)

    # --- what peers plug into --------------------------------------------------------------------------------------

    def serial(self) -> int:
        """A descriptor of the far end of ttymxc0, for one peer to own. The newest one gets what the board sends."""
        return self.emulator.uart.attach()

    def peer_socket(self, kind: int = socket.SOCK_STREAM, family: int = socket.AF_INET,
                    protocol: int = 0) -> socket.socket:
        """A socket at the far end of the board's network cable."""
        return self.emulator.peers.run(socket.socket, family, kind, protocol)

    def local_socket(self, kind: int = socket.SOCK_DGRAM, family: int = socket.AF_INET) -> socket.socket:
        """A socket that takes the board's loopback interface for its own. It needs the cable plugged."""
        return self.emulator.peers.run(_LoopbackSocket, family, kind)

    def wait_for(self, predicate: Callable[[], Any], timeout: float = 120.0, what: str = "", poll: float = 0) -> Any:
        """See Loop.wait_for; the board is slower than this machine, hence the longer bound."""
        return self.loop.wait_for(predicate, timeout, what, poll)

    # --- files -----------------------------------------------------------------------------------------------------

    def fetch(self) -> None:
        """Brings the board's files, as they are now, into `applications`."""
        shutil.rmtree(self.applications)
        self.applications.mkdir()
        packed = base64.b64decode(self.console.run("collect"))
        with tarfile.open(fileobj=io.BytesIO(packed)) as archive:
            archive.extractall(self.applications)
        self._laid = self._content()

    def _lay_stage(self, installation: Path, prepare: Optional[Callable[[Path], Any]]) -> None:
        folder = tempfile.TemporaryDirectory(prefix="board-")
        self._closing.append(folder.cleanup)
        self.applications = Path(folder.name) / APPLICATIONS.name
        shutil.copytree(installation, self.applications, ignore=shutil.ignore_patterns("README.md"))
        if prepare:
            prepare(self.applications)

    def _content(self) -> dict[Path, bytes]:
        return {path.relative_to(self.applications): hashlib.sha256(path.read_bytes()).digest()
                for path in self.applications.rglob("*") if path.is_file()}

    def _lay_files(self) -> None:
        """Carries the staged files over unless the board has them."""
        content = self._content()
        if content == self._laid:
            return
        if content != self.emulator.unpacked:
            self._upload()
            self.emulator.unpacked = content
        self._run("install")
        self._laid = content

    def _upload(self) -> None:
        packed = io.BytesIO()
        with tarfile.open(fileobj=packed, mode="w:gz") as archive:
            archive.add(self.applications, ".")
        text = base64.b64encode(packed.getvalue()).decode()
        for begin in range(0, len(text), _UPLOAD_LINE):
            self._run(f"receive {text[begin:begin + _UPLOAD_LINE]}")
        self._run("unpack")

    def _run(self, command: str) -> None:
        trouble = self.console.run(command)
        assert not trouble, f"the board's files: {trouble}"

    def _end_server(self) -> None:
        self.server.kill()
        self.console.listeners.clear()
        self.emulator.cable(True)
        self.console.run("[ ! -e /sys/class/gpio/gpio37 ] || echo 0 >/sys/class/gpio/gpio37/value")
        self.emulator.pins.drive(MONITOR_PIN, True)


class EmulatedInstallation(Peers, EmulatedBoard):
    """An emulated board together with its peers. Its processor may take longer for a packet than a base controller waits:
    this one is patient."""

    @cached_property
    def bc(self) -> BaseController:
        controller = super().bc
        controller.retry_seconds = _PATIENT_SECONDS
        return controller
