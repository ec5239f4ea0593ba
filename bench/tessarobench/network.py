"""The board's network interfaces: virtual cables whose far ends lie in the peers' world."""

from __future__ import annotations

import fcntl
import os
import shutil
import socket
import struct
import subprocess
import time
from typing import Iterator, Optional

from .journal import BENCH, Journal
from .loop import Loop
from .namespaces import World

_SEARCH = os.environ.get("PATH", "") + ":/usr/sbin:/sbin"
_SIOCGIFFLAGS, _IFF_RUNNING = 0x8913, 0x40
MULTICAST = "239.0.0.0/8"


def ip(world: World, *commands: str) -> None:
    """Runs `ip` commands inside a world, all in one process."""
    program = shutil.which("ip", path=_SEARCH)
    if program is None:
        raise FileNotFoundError("the program 'ip' is missing: install the package iproute2")
    done = world.run(lambda: subprocess.run([program, "-batch", "-"], input="\n".join(commands) + "\n", text=True,
                                            capture_output=True, check=False))
    if done.returncode:
        raise OSError(f"ip: {done.stderr.strip()} (of: {'; '.join(commands)})")


def without_ipv6(world: World) -> None:
    """Keeps the links free of the kernel's own neighbour chatter; where the kernel has no IPv6 there is none."""
    for scope in ("default", "all"):
        path = f"/proc/sys/net/ipv6/conf/{scope}/disable_ipv6"
        if os.path.exists(path):
            world.run(_write, path, "1")


def _write(path: str, text: str) -> None:
    with open(path, "w", encoding="ascii") as file:
        file.write(text)


def _running(name: str) -> bool:
    """Whether the interface of this name is up and has a carrier, in the world of the calling thread."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        answer = fcntl.ioctl(any_socket, _SIOCGIFFLAGS, struct.pack("16sh22x", name.encode(), 0))
    return bool(struct.unpack("16sh22x", answer)[1] & _IFF_RUNNING)


class Cable:
    """Two ends. `address`, that of the board, and `far_address`, that of the peers, are "a.b.c.d/length"."""

    def __init__(self, address: str, far_address: str):
        self.address, self.far_address = address, far_address

    @property
    def host(self) -> str:
        return self.address.split("/")[0]

    @property
    def far_host(self) -> str:
        """The peers' address on this network."""
        return self.far_address.split("/")[0]


class Interface(Cable):
    """One interface of the board and the far end of its cable. With `multicast`, multicast leaves through this interface.
    `numbers` are those of the devices that have been this interface, the newest one last.
    """

    def __init__(self, name: str, address: str, far_address: str, multicast: bool = False):
        super().__init__(address, far_address)
        self.name, self.multicast = name, multicast
        self.numbers: list[int] = []
        self._indexes: Iterator[int] = iter(())
        self._board: Optional[World] = None
        self._far: Optional[World] = None
        self._journal: Optional[Journal] = None
        self._loop: Optional[Loop] = None

    def attach(self, board: World, far: World, loop: Loop, journal: Journal, indexes: Iterator[int]) -> None:
        """Says where the two ends lie; `indexes` yields the numbers of the board's devices."""
        self._board, self._far, self._loop, self._journal, self._indexes = board, far, loop, journal, indexes

    def creation(self) -> list[str]:
        # The kernel announces a new carrier at once only where both ends differ in number, else after up to a second;
        # and no two devices of a board ever have the same number.
        self.numbers.append(next(self._indexes))
        return [f"link add {self.name} index {self.numbers[-1]} type veth peer name {self.name} "
                f"netns {self._far.network_path}",
                f"addr add {self.address} dev {self.name}", *self._up_commands()]

    def far_setup(self) -> list[str]:
        return [f"addr add {self.far_address} dev {self.name}", *self._up_commands()]

    def wait_ready(self, timeout: float = 30.0) -> None:
        """The kernel brings a carrier up in its own time, and drops what is sent before."""
        until = time.monotonic() + timeout
        while not (self._board.run(_running, self.name) and self._far.run(_running, self.name)):
            if time.monotonic() > until:
                raise TimeoutError(f"{self.name} gets no carrier")
            time.sleep(0.001)

    def down(self) -> None:
        """Takes the interface down on the board."""
        self._note("down")
        ip(self._board, f"link set {self.name} down")

    def up(self) -> None:
        self._note("up")
        ip(self._board, *self._up_commands())
        self.wait_ready()

    def unplug(self) -> None:
        """Pulls the cable: the board's interface stays up and has no carrier."""
        self._note("unplugged")
        ip(self._far, f"link set {self.name} down")

    def plug(self) -> None:
        self._note("plugged")
        ip(self._far, *self._up_commands())
        self.wait_ready()

    def vanish(self) -> None:
        """Removes the interface, and with it the cable: all memberships and routes on it are lost at both ends."""
        self._note("vanished")
        ip(self._board, f"link del {self.name}")

    def reappear(self) -> None:
        """Makes it anew, as another device of the same name and address."""
        self._note("reappeared")
        ip(self._board, *self.creation())
        ip(self._far, *self.far_setup())
        self.wait_ready()

    def remove_address(self) -> None:
        self._note("address removed")
        ip(self._board, f"addr flush dev {self.name}")

    def change_address(self, address: str) -> None:
        """Gives the board's interface another address in place of the one it has."""
        self._note("address", to=address)
        self.address = address
        ip(self._board, f"addr flush dev {self.name}", f"addr add {address} dev {self.name}", *self._up_commands())

    def _up_commands(self) -> list[str]:
        route = [f"route replace {MULTICAST} dev {self.name}"] if self.multicast else []
        return [f"link set {self.name} up", *route]

    def _note(self, what: str, **detail) -> None:
        self._loop.call(lambda: self._journal.add(self.name, BENCH, what, **detail))
