"""The emulator as a process, with its serial ports, its console, its control connection and its pins.

Every connection to it is one end of a socket pair and is read always: a few hundred bytes that nobody reads would hold
up the whole emulated board.
"""

from __future__ import annotations

import collections
import json
import os
import re
import shutil
import socket
import subprocess
import time
from pathlib import Path
from typing import Any, Callable, Optional

from .boardimage import BoardImage
from .closing import Closing
from .journal import BENCH, Journal
from .loop import Loop, Timer
from .namespaces import World
from .network import ip, without_ipv6
from .serialline import SerialLine
from .virtualtime import cpu_clock

BOOT_SECONDS = 400  # a board that has not booted by then never will
MEMORY_MEGABYTES = 512
NIC = "cable"
HOST_ADDRESSES = ("10.42.20.2/24", "192.168.32.2/24")

# Above about 8 kB/s the emulated UART pushes back; the pieces are what goes out every few milliseconds.
_PACE_SECONDS, _PACE_BYTES = 0.005, 40

# The base addresses of the registers of the second GPIO bank, in which our lines 37 and 38 are number 5 and 6.
_BANK = "/machine/soc/gpio2"
_BANK_DATA = 0x020A0000
DRIVE_PIN, MONITOR_PIN = 5, 6


class LineReader:
    """Hands over what comes in line by line, without the line ends."""

    def __init__(self, take: Callable[[str], None]):
        self._take, self._rest = take, b""

    def feed(self, data: bytes) -> None:
        *lines, self._rest = (self._rest + data).split(b"\n")
        for line in lines:
            self._take(line.decode("utf-8", "replace").rstrip("\r"))


class Uart:
    """The far end of ttymxc0. `attach` gives a descriptor for a peer; the newest one gets what the board sends.
    What comes while there is no peer is dropped, and what peers write is passed on at a speed that the board stands."""

    def __init__(self, loop: Loop, emulator_side: int):
        self._loop = loop
        self._line = SerialLine(loop, emulator_side, self._from_board)
        self._peer: Optional[socket.socket] = None
        self._pending = bytearray()
        self._pace: Optional[Timer] = None

    def attach(self) -> int:
        ours, theirs = socket.socketpair()
        self._loop.call(self._take_peer, ours)
        return theirs.detach()

    def close(self) -> None:
        self._loop.call(self._drop_peer)
        self._line.close()

    def _take_peer(self, peer: socket.socket) -> None:
        self._drop_peer()
        peer.setblocking(False)
        self._peer = peer
        self._loop.watch(peer, self._from_peer)

    def _drop_peer(self) -> None:
        if self._peer:
            self._loop.watch(self._peer)
            self._peer.close()
        self._peer = None
        self._pending.clear()

    def _from_board(self, data: bytes) -> None:
        try:
            if self._peer:
                self._peer.send(data)
        except BlockingIOError:
            pass  # an overrun: the peer does not read
        except OSError:
            self._drop_peer()

    def _from_peer(self) -> None:
        try:
            data = self._peer.recv(65536)
        except ConnectionResetError:  # the peer went before it had read all that the board sent
            data = b""
        if not data:
            self._drop_peer()
            return
        self._pending += data
        if self._pace is None:
            self._pace = self._loop.every(_PACE_SECONDS, self._pass_on)
            self._pass_on()

    def _pass_on(self) -> None:
        self._line.write(bytes(self._pending[:_PACE_BYTES]))
        del self._pending[:_PACE_BYTES]
        if not self._pending and self._pace:
            self._pace.cancel()
            self._pace = None


class Console:
    """Commands to process 1 of the board (bench/guest/init), and what it tells by itself.

    `listeners`: word -> function(rest of the line), for the lines "#word rest" other than answers.
    """

    def __init__(self, loop: Loop, fd: int):
        self._loop = loop
        self._number = 0
        self._answers: dict[int, list[str]] = collections.defaultdict(list)
        self._done: set[int] = set()
        self.ready = False
        self.trouble: list[str] = []
        self.listeners: dict[str, Callable[[str], None]] = {}
        self._line = SerialLine(loop, fd, LineReader(self._take).feed)

    def run(self, command: str, timeout: float = 120.0) -> str:
        """Lets the board's shell do one line, waits until it is done, returns its output."""
        number = self._loop.call(self._send, command)
        self._loop.wait_for(lambda: number in self._done, timeout, f"the board's answer to {command[:60]!r}")
        return "".join(f"{line}\n" for line in self._answers.pop(number, []))

    def close(self) -> None:
        self._line.close()

    def _send(self, command: str) -> int:
        self._number += 1
        self._line.write(f"{self._number} {command}\n".encode())
        return self._number

    def _take(self, line: str) -> None:
        word, _, rest = line.partition(" ")
        if word == "#out":
            number, _, text = rest.partition(" ")
            self._answers[int(number)].append(text)
        elif word == "#done":
            self._done.add(int(rest))
        elif word == "#ready":
            self.ready = True
        elif word[1:] in self.listeners and word.startswith("#"):
            self.listeners[word[1:]](rest)
        else:
            self.trouble.append(line)


class Pins:
    """The GPIO bank seen from outside the processor. `changed` is called with (pin, level) when an output moves."""

    def __init__(self, loop: Loop, fd: int):
        self._loop = loop
        self._sent = self._answered = 0
        self._reply = ""
        self.changed: Callable[[int, bool], None] = lambda _pin, _level: None
        self._line = SerialLine(loop, fd, LineReader(self._take).feed)
        self._command(f"irq_intercept_out {_BANK}")

    def drive(self, pin: int, level: bool) -> None:
        """Puts an input of the board to a level. May be called anywhere; does not wait."""
        self._loop.call(self._send, f"set_irq_in {_BANK} unnamed-gpio-in {pin} {int(level)}")

    def output(self, pin: int) -> bool:
        """The level that the board's output register has now."""
        return bool(int(self._command(f"readl {_BANK_DATA:#x}").split()[1], 16) >> pin & 1)

    def close(self) -> None:
        self._line.close()

    def _command(self, text: str) -> str:
        number = self._loop.call(self._send, text)
        self._loop.wait_for(lambda: self._answered >= number, 120, f"the emulator's answer to {text!r}")
        assert self._reply.startswith("OK"), f"{text}: {self._reply}"
        return self._reply

    def _send(self, text: str) -> int:
        self._line.write(f"{text}\n".encode())
        self._sent += 1
        return self._sent

    def _take(self, line: str) -> None:
        edge = re.fullmatch(r"IRQ (raise|lower) (\d+)", line)
        if edge:
            self.changed(int(edge[2]), edge[1] == "raise")
        elif line:
            self._reply = line
            self._answered += 1


class Control:
    """The emulator's own command connection."""

    def __init__(self, loop: Loop, fd: int):
        self._loop = loop
        self._replies: list[dict] = []
        self._line = SerialLine(loop, fd, LineReader(self._take).feed)
        self.execute("qmp_capabilities")

    def execute(self, command: str, **arguments: Any) -> Any:
        def send() -> None:
            self._replies.clear()
            self._line.write(json.dumps({"execute": command, "arguments": arguments}).encode() + b"\n")
        self._loop.call(send)
        self._loop.wait_for(lambda: self._replies, 120, f"the emulator's answer to {command}")
        reply = self._replies[0]
        assert "return" in reply, f"{command}: {reply}"
        return reply["return"]

    def close(self) -> None:
        self._line.close()

    def _take(self, line: str) -> None:
        message = json.loads(line)
        if "return" in message or "error" in message:
            self._replies.append(message)


class Emulator(Closing):
    """One running emulated board, booted when the constructor returns.

    Attributes: `loop`, `peers` (the World at the other end of its network cable), `uart`, `console`, `pins`, `control`,
    `booted_in` (seconds), `unpacked` (the files that lie ready on the board to be installed, None before the first).
    `close` pulls the plug; `shut_down` lets the board unmount its card first.
    """

    def __init__(self, image: BoardImage, card: Path):
        self.loop, self.peers = Loop("emulator"), World("peers")
        super().__init__(self.loop.stop, self.peers.close)
        self.unpacked: Optional[dict[Path, bytes]] = None
        try:
            self._boot(image, card)
        except BaseException:
            self.close()
            raise

    def shut_down(self) -> None:
        """Has everything written and the card unmounted before the plug is pulled."""
        trouble = self.console.run("sync; umount /home/root")
        assert not trouble, trouble
        self.close()

    def cable(self, plugged: bool) -> None:
        self.control.execute("set_link", name=NIC, up=plugged)

    def note(self, journal: Journal, link: str, kind: str, **detail: Any) -> None:
        self.loop.call(lambda: journal.add(link, BENCH, kind, **detail))

    # --- the process -----------------------------------------------------------------------------------------------

    def _boot(self, image: BoardImage, card: Path) -> None:
        began = time.monotonic()
        self._lay_network()
        pairs = [socket.socketpair() for _ in range(4)]
        self._process = self.peers.run(self._spawn, self._command(image, card, [far.fileno() for _, far in pairs]),
                                       [far.fileno() for _, far in pairs])
        self._closing.append(self._end)
        for _, far in pairs:
            far.close()
        uart, console, control, pins = (near.detach() for near, _ in pairs)
        self.uart = self.closing(Uart(self.loop, uart))
        self.console = self.closing(Console(self.loop, console))
        self.loop.describe = lambda: "the console:\n" + "\n".join(self.console.trouble[-40:])
        self.control = self.closing(Control(self.loop, control))
        self.pins = self.closing(Pins(self.loop, pins))
        self.pins.drive(MONITOR_PIN, True)
        self.loop.wait_for(lambda: self.console.ready or self._failed(), BOOT_SECONDS, "the board's start", poll=0.5)
        assert not self._failed(), "the board did not start:\n" + "\n".join(self.console.trouble[-40:])
        self.booted_in = time.monotonic() - began

    def _failed(self) -> bool:
        return self._process.poll() is not None or any("Kernel panic" in line for line in self.console.trouble)

    def _lay_network(self) -> None:
        without_ipv6(self.peers)
        ip(self.peers, "link set lo up", "tuntap add dev eth0 mode tap",
           *(f"addr add {address} dev eth0" for address in HOST_ADDRESSES), "link set eth0 up",
           "route replace 239.0.0.0/8 dev eth0")

    @staticmethod
    def _command(image: BoardImage, card: Path, sockets: list[int]) -> list[str]:
        names = ("uart", "console", "control", "pins")
        chardevs = [word for name, fd in zip(names, sockets) for word in ("-chardev", f"socket,id={name},fd={fd}")]
        return [shutil.which("qemu-system-arm") or "qemu-system-arm", "-M", "sabrelite", "-m", str(MEMORY_MEGABYTES),
                "-accel", "tcg", "-display", "none", "-nodefaults", "-no-reboot", "-kernel", str(image.kernel),
                "-dtb", str(image.device_tree), "-initrd", str(image.initramfs),
                "-append", f"console=ttymxc1,115200 panic=-1 tessaro.time={int(time.time())}",
                *chardevs, "-serial", "chardev:uart", "-serial", "chardev:console",
                "-mon", "chardev=control,mode=control", "-object", "qtest,id=qtest,chardev=pins,log=/dev/null",
                "-nic", f"tap,id={NIC},ifname=eth0,script=no,downscript=no",
                "-drive", f"if=none,id=card,format=raw,file={card}", "-device", "sd-card,drive=card"]

    def cpu_seconds(self) -> float:
        """Processor time that the emulator has taken of the computer that it runs on."""
        return time.clock_gettime(cpu_clock(self._process.pid))

    @staticmethod
    def _spawn(command: list[str], sockets: list[int]) -> subprocess.Popen:
        return subprocess.Popen(command, pass_fds=sockets, stdin=subprocess.DEVNULL, env=dict(os.environ))

    def _end(self) -> None:
        if self._process.poll() is None:
            self._process.kill()
            self._process.wait()
