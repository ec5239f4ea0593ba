"""A simulated base-unit board: devices, files and networks of its own for one server process.

Every board has two worlds. In the board's world lie /dev with the UART, /sys/class with the GPIO lines, /home/root with
the installation, and the interfaces lo, eth0 and wlan0. In the peers' world lie the far ends of eth0 and wlan0. Boards
do not see each other; a board costs a few hundredths of a second, and nothing of it stays behind.
"""

from __future__ import annotations

import fcntl
import itertools
import os
import shutil
import socket
import struct
import termios
import time
from pathlib import Path
from typing import Any, Callable, Optional

from .capture import LOOPBACK, Capture
from .capturefile import CaptureFile
from .closing import Closing
from .journal import Journal
from .loop import Loop
from .namespaces import MS_BIND, MS_MOVE, World, mount
from .network import Interface, ip, without_ipv6
from .relay import Relay, make_gpio_files
from .serverprocess import ServerProcess
from .virtualtime import VirtualTime

EXAMPLES = Path(__file__).resolve().parents[2] / "examples" / "installation"
APPLICATIONS = Path("/home/root/Applications")
SERVER_DIRECTORY = Path("tessaroserver")
PROGRAM = "tessaroserver"
UART = "ttymxc0"

LOOPBACK_NUMBER = 1  # in every network
_SHARED_DEVICES = ("null", "zero", "full", "random", "urandom", "tty")
_TIOCSPTLCK, _TIOCGPTN = 0x40045431, 0x80045430


class Board(Closing):
    """Lays the board on construction; `close` (or leaving the `with` block) ends the server and everything else.

    `server` is the path of the binary, or None for a board without one; it is copied to its prescribed place, because
    it finds files relative to itself. `installation` is the folder whose content becomes /home/root/Applications. Into
    `capture` goes everything that crosses the links; the file is closed with the board. `virtual_time` is the library that
    makes it (see `virtualtime.offered`); without one the board lives in real time.

    Attributes: `loop`, `journal`, `capture` (Capture or None), `server` (ServerProcess), `relay`, `eth0`, `wlan0`,
    `applications` (the folder /home/root/Applications as seen from outside; an ordinary writable Path), `laid_in`
    (seconds that laying it took).
    """

    def __init__(self, server: Optional[os.PathLike] = None, installation: Path = EXAMPLES,
                 prepare: Optional[Callable[[Path], Any]] = None, relay_delay: float = 0.008,
                 capture: Optional[CaptureFile] = None, virtual_time: Optional[Path] = None):
        began = time.monotonic()
        self.virtual = VirtualTime(virtual_time) if virtual_time else None
        self.loop, self.journal = Loop(virtual=self.virtual), Journal()
        self.loop.describe = self._describe
        super().__init__(*([self.virtual.close] if self.virtual else []), self.loop.stop)
        self._world, self._peers = World("board", with_mounts=True), World("peers")
        self._closing += [self._world.close, self._peers.close]
        self.eth0 = Interface("eth0", "10.42.20.1/24", "10.42.20.2/24", multicast=True)
        self.wlan0 = Interface("wlan0", "192.168.32.1/24", "192.168.32.2/24")
        self.capture: Optional[Capture] = None
        try:
            if capture:
                self._begin_capture(capture)
            self._lay(Path(server) if server else None, installation, prepare, relay_delay)
        except BaseException:
            self.close()
            raise
        self.laid_in = time.monotonic() - began

    def closing(self, peer: Any) -> Any:
        assert not self.loop.on_thread, "mention a peer before waiting on it: made in a condition, it comes too late"
        return super().closing(peer)

    # --- what peers plug into --------------------------------------------------------------------------------------

    def serial(self) -> int:
        """A descriptor of the far end of the UART, for one peer to own. Several may exist, one should read."""
        return os.dup(self._uart_far_end)

    def peer_socket(self, kind: int = socket.SOCK_STREAM, family: int = socket.AF_INET,
                    protocol: int = 0) -> socket.socket:
        """A socket in the peers' world, on the far ends of eth0 and wlan0."""
        return self._peers.run(socket.socket, family, kind, protocol)

    @property
    def board_network(self) -> str:
        """The board's own network namespace as a path, for programs that run beside the server."""
        return self._world.network_path

    @property
    def peer_network(self) -> str:
        """The peers' network namespace as a path, for programs that make sockets there themselves."""
        return self._peers.network_path

    def local_socket(self, kind: int = socket.SOCK_DGRAM, family: int = socket.AF_INET) -> socket.socket:
        """A socket on the board itself, for the loopback interface."""
        return self._world.run(socket.socket, family, kind)

    def on_board(self, action: Callable[..., Any], *args: Any) -> Any:
        """Runs `action` in the board's world, where paths such as /dev/ttymxc0 mean the board's."""
        return self._world.run(action, *args)

    def wait_for(self, predicate: Callable[[], Any], timeout: Optional[float] = None, what: str = "", poll: float = 0) -> Any:
        """See Loop.wait_for."""
        return self.loop.wait_for(predicate, timeout, what, poll)

    # --- laying ----------------------------------------------------------------------------------------------------

    def _begin_capture(self, file: CaptureFile) -> None:
        """Before there is anything to see, and to be ended after everything that could be seen."""
        self.closing(file)
        if self.virtual:
            file.stamp, self.virtual.keeps_moments = self.virtual.at, True
        self.capture = self.closing(Capture(file, self._world, self._interface_name))
        self.journal.listeners.append(self.capture.event)

    def _interface_name(self, number: int) -> Optional[str]:
        if number == LOOPBACK_NUMBER:
            return LOOPBACK
        return next((each.name for each in (self.eth0, self.wlan0) if number in each.numbers), None)

    def _lay(self, server: Optional[Path], installation: Path, prepare: Optional[Callable], relay_delay: float) -> None:
        self._world.run(self._lay_files)
        root = self._keep_open("/home/root")
        self.applications = root / APPLICATIONS.name
        self._install(server, installation)
        if prepare:
            prepare(self.applications)
        self._world.run(self._lay_uart)
        self._lay_network()
        make_gpio_files(self._keep_open("/sys/class") / "gpio")
        self.gpio = self._keep_open("/sys/class/gpio")
        self.relay = self.closing(Relay(self.loop, self.journal, self.gpio, relay_delay))
        if self.virtual:
            self.virtual.lay(root)
        self.server = ServerProcess(self.loop, self.journal, self._world,
                                    str(APPLICATIONS / SERVER_DIRECTORY / PROGRAM))
        self._closing.append(self.server.kill)

    @staticmethod
    def _lay_files() -> None:
        mount("home", "/home", "tmpfs", options="mode=755")
        os.makedirs("/home/root")
        os.makedirs("/home/dev/pts")
        mount("dev", "/home/dev", "tmpfs", options="mode=755")
        os.mkdir("/home/dev/pts")
        for name in _SHARED_DEVICES:
            Path("/home/dev", name).touch()
            mount(f"/dev/{name}", f"/home/dev/{name}", None, MS_BIND)
        mount("devpts", "/home/dev/pts", "devpts", options="ptmxmode=0666")
        os.symlink("pts/ptmx", "/home/dev/ptmx")
        mount("/home/dev", "/dev", None, MS_MOVE)
        os.rmdir("/home/dev/pts")
        os.rmdir("/home/dev")
        mount("class", "/sys/class", "tmpfs", options="mode=755")

    def _keep_open(self, path: str) -> Path:
        """A path, valid in the whole process, for a directory of the board's world."""
        descriptor = self._world.run(os.open, path, os.O_PATH | os.O_DIRECTORY | os.O_CLOEXEC)
        self._closing.append(lambda: os.close(descriptor))
        return Path(f"/proc/{os.getpid()}/fd/{descriptor}")

    def _install(self, server: Optional[Path], installation: Path) -> None:
        shutil.copytree(installation, self.applications, ignore=shutil.ignore_patterns("README.md"))
        directory = self.applications / SERVER_DIRECTORY
        (directory / "config").mkdir(parents=True, exist_ok=True)
        if server:
            shutil.copy(server, directory / PROGRAM)

    def _lay_uart(self) -> None:
        """A pseudo terminal whose line end the server opens. One descriptor of that end stays open here, so that the
        far end survives restarts of the server; it is raw until the server sets its own mode, as nothing must echo."""
        self._uart_far_end = os.open("/dev/ptmx", os.O_RDWR | os.O_NOCTTY | os.O_CLOEXEC)
        fcntl.ioctl(self._uart_far_end, _TIOCSPTLCK, struct.pack("i", 0))
        number, = struct.unpack("I", fcntl.ioctl(self._uart_far_end, _TIOCGPTN, bytes(4)))
        os.symlink(f"pts/{number}", f"/dev/{UART}")
        line_end = os.open(f"/dev/{UART}", os.O_RDWR | os.O_NOCTTY | os.O_CLOEXEC)
        modes = termios.tcgetattr(line_end)
        modes[0] = modes[1] = modes[3] = 0
        termios.tcsetattr(line_end, termios.TCSANOW, modes)
        self._closing += [lambda: os.close(line_end), lambda: os.close(self._uart_far_end)]

    def _lay_network(self) -> None:
        interfaces = (self.eth0, self.wlan0)
        indexes = itertools.count(20)
        without_ipv6(self._world)
        without_ipv6(self._peers)
        for interface in interfaces:
            interface.attach(self._world, self._peers, self.loop, self.journal, indexes)
        ip(self._world, "link set lo up", *(line for each in interfaces for line in each.creation()))
        ip(self._peers, "link set lo up", *(line for each in interfaces for line in each.far_setup()))
        for interface in interfaces:
            interface.wait_ready()

    def _describe(self) -> str:
        return "journal, newest last:\n" + self.journal.tail()
