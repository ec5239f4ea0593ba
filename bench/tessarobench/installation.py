"""A whole installation in one object: a board with its server, and the peers that a test or a scene asks for."""

from __future__ import annotations

import socket
from functools import cached_property
from pathlib import Path
from typing import Any, Optional

from . import eglink
from .apiclient import REPLY_PORT, REQUEST_PORT, ApiClient
from .basecontroller import BaseController
from .board import Board
from .capture import Capture
from .csvfile import Table
from .fallbackrelay import FallbackRelay
from .glink import application_checksum
from .machinecontroller import MachineController
from .processimage import ProcessImage
from .remoteunit import RemoteUnit
from .servicetool import ANSWER_SECONDS, ServiceTool

INPUT_TAGS = Path(".config/baseInternalInputTags.csv")
OUTPUT_TAGS = Path(".config/baseInternalOutputTags.csv")
OTHER_TAGS = Path(".config/baseInternalTags.csv")
APP = Path("tessaroserver/config/app.csv")
REMOTES = Path("tessaroserver/config/remotes.csv")
KEYS = Path("tessaroserver/config/keys.csv")
UNIT_APPLICATION = Path("handset")

IDENTITY = 400
LISTENING = "GLinkServer listening to address"

# What the base controller of the example answers when the base unit asks for its settings.
CONFIG_VALUES = {"BCSR": 30201, "BUID": 400, "IFTY": 2, "IVL1": 1500, "IVL2": 70000, "IVL3": -5}


def missing_in(applications: Path) -> str:
    """Why this folder cannot take the place of /home/root/Applications; empty when it can."""
    for file in (APP, REMOTES):
        if not (applications / file).is_file():
            return f"{applications} is no copy of a base unit's Applications: there is no {file} in it."
        try:
            Table.load(applications / file)
        except IndexError:
            return f"{applications / file} is no table: it lacks the two lines of its head."
    return ""


def controller_group(applications: Path) -> tuple[str, int]:
    """The multicast group and the port on which a base unit with these files speaks to its machine controller."""
    values: dict[str, str] = {}
    for file in (APP, KEYS):
        if (applications / file).is_file():
            values.update({row.get("tag", ""): row.get("value", "") for row in Table.load(applications / file)})
    port = values.get("MCPT", "")
    return values.get("MCIP") or eglink.GROUP, int(port) & 0xFFFF if port.isdecimal() else eglink.PORT


class Peers:
    """What makes an installation of any kind of board: peers that come into being when they are first used, and end with
    the board.

    Change the files under `applications` before `start`; `table` and `change` help with that.
    """

    capture: Optional[Capture] = None  # of a board that can
    reply_port = REPLY_PORT  # where the local tool hears the base unit

    # --- files -----------------------------------------------------------------------------------------------------

    def table(self, file: Path) -> Table:
        return Table.load(self.applications / file)

    def change(self, file: Path, key: str, **values: object) -> None:
        """Sets cells of one row of a configuration file ("from_" stands for the column "from")."""
        self.table(file).set(key, **values).save(self.applications / file)

    def drop(self, file: Path, key: str) -> None:
        """Removes one row of a configuration file."""
        self.table(file).remove(key).save(self.applications / file)

    # --- peers -----------------------------------------------------------------------------------------------------

    @cached_property
    def bc(self) -> BaseController:
        """The base controller. It acknowledges from the moment it is first mentioned."""
        tags = self.applications / INPUT_TAGS
        image = ProcessImage(Table.load(tags)) if tags.exists() else None
        return self.closing(self.loop.call(self._make_controller, image))

    def _make_controller(self, image: Optional[ProcessImage]) -> BaseController:
        """On the loop's thread, so that nothing is read from the line before it is tapped."""
        controller = BaseController(self.loop, self.serial(), self.journal, image, CONFIG_VALUES)
        if self.capture:
            controller.line.taps.append(self.capture.line)
        return controller

    @cached_property
    def api(self) -> ApiClient:
        return self.closing(ApiClient(self.loop, self.local_socket(), self.journal, self.reply_port))

    @cached_property
    def mc(self) -> MachineController:
        """The machine controller. It acknowledges commands; periodic data it sends when told to."""
        return self.closing(self.machine_controller())

    def machine_controller(self, **options: Any) -> MachineController:
        """One more controller on the group, for the caller to close."""
        return MachineController(self.loop, self.peer_socket(socket.SOCK_DGRAM), self.journal, self.eth0.far_host,
                                 **options)

    @cached_property
    def tool(self) -> ServiceTool:
        """The service tool on the private network."""
        return self.service_tool()

    def service_tool(self, timeout: float = ANSWER_SECONDS) -> ServiceTool:
        """One more of them. Like all others it is closed with the board."""
        return self.closing(ServiceTool(self._reach, timeout, self.journal, self.loop))

    def _reach(self, port: int) -> socket.socket:
        """A connection from the private network to a port of the base unit."""
        connection = self.peer_socket()
        connection.settimeout(ANSWER_SECONDS)
        # A second request would wait for the acknowledgement of the first, which the kernel delays in its own time.
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        connection.connect((self.wlan0.host, port))
        return connection

    @cached_property
    def fallback(self) -> FallbackRelay:
        """The base controller's relay to remote units."""
        return FallbackRelay(self.loop, self.journal, self.bc)

    @cached_property
    def _units(self) -> dict[int, RemoteUnit]:
        return {}

    def unit(self, unit_id: int = 1001) -> RemoteUnit:
        """The remote unit with this number, the same one every time; it carries the installed application."""
        if unit_id not in self._units:
            self._units[unit_id] = self.stranger(unit_id)
        return self._units[unit_id]

    def stranger(self, unit_id: int = 0) -> RemoteUnit:
        """One more remote unit, with a number that others may have as well."""
        return self.closing(RemoteUnit(self.loop, self.journal, unit_id, self.peer_socket, lambda: self.fallback,
                                       IDENTITY, self.unit_checksum))

    @property
    def units(self) -> list[RemoteUnit]:
        """All units so far, in the order of their first mention."""
        return list(self._units.values())

    def unit_checksum(self) -> bytes:
        """The checksum of the remote units' application as it is installed on the base unit now."""
        return application_checksum(self.applications / UNIT_APPLICATION)

    def pair_units(self, count: int, first: int = 1001) -> list[int]:
        """Makes `count` units with consecutive numbers belong to the base unit; before the server starts."""
        table = self.table(REMOTES)
        for row in range(count):
            table.set(str(row), RUID=first + row, **{f"PKY{word}": 0 for word in range(1, 5)})
        table.save(self.applications / REMOTES)
        return [first + row for row in range(count)]

    def show_tsaps(self, number: int, timeout: float = 30.0) -> None:
        """Sends this number in the process image, ten times a second at most, until the API shows it: whatever the link has
        gone through, it works again."""
        sender = self.loop.call(self.loop.every, 0.1, lambda: self.bc.idle and self.bc.set(tsaps=number))
        try:
            self.wait_for(lambda: self.api.tag("TSAPs") == str(number), timeout, f"TSAPs {number} over the API")
        finally:
            sender.cancel()

    def let_pass(self, seconds: float) -> None:
        """Waits until so much time has passed on the bench's clock, while everybody else goes on."""
        over = []
        self.loop.call(self.loop.later, seconds, lambda: over.append(True))
        self.wait_for(lambda: over, seconds + 30, "the passing of time")

    # --- the way to normal operation -------------------------------------------------------------------------------

    def start(self, **options: Any) -> "Peers":
        """Starts the server with nobody at the other ends yet."""
        self.server.start(**options)
        return self

    def start_to_run(self, timeout: Optional[float] = None) -> "Peers":
        """Starts the server beside a willing base controller and a local tool, and waits until the API listens, the
        internal link is in RUN and the configuration pass is through."""
        controller, _ = self.bc, self.api
        self.start()
        self.server.wait_listening(socket.SOCK_DGRAM, REQUEST_PORT, timeout)
        self.server.wait_log("RUN", timeout, whole=True)
        keys = sum(1 for file in (APP, KEYS) if (self.applications / file).exists()
                   for row in self.table(file) if row.get("from") == "BC")
        self.wait_for(lambda: controller.received["ask"] >= keys, timeout, "the whole configuration pass")
        return self

    def start_to_serve(self, timeout: Optional[float] = None, **image: Any) -> "Peers":
        """The same, and further until remote units are served; `image` are more fields of the process image."""
        self.start_to_run(timeout)
        self.bc.set(bu_identity=IDENTITY, **image)
        self.server.wait_log(LISTENING, timeout)
        return self


class Installation(Peers, Board):
    """A board in namespaces together with its peers."""
