"""The service tool: lists the applications that a base unit holds for remote units, and fetches one.

It is one peer of the simulated installation and, through `bench/servicetool`, a program for use by hand. It talks over
plain blocking sockets in the thread of whoever uses it, so that it needs nothing else of the bench.
"""

from __future__ import annotations

import contextlib
import hashlib
import io
import socket
import tarfile
from pathlib import Path, PurePosixPath
from typing import Any, Callable, Optional, TypeVar

from . import pairwire
from .journal import FROM_BASE_UNIT, TO_BASE_UNIT, Journal
from .loop import Loop
from .pairwire import REQUEST_PORT, TRANSFER_PORT, Offer

LINK = "pairing"
ANSWER_SECONDS = 10.0
_Parsed = TypeVar("_Parsed")


class ServiceToolError(Exception):
    """The base unit did not answer as it should; the text says what happened."""


class NoAnswer(ServiceToolError):
    """Nothing came in time. A base unit that refuses a request says so in its log only."""


def connect_to(host: str, timeout: float = ANSWER_SECONDS) -> Callable[[int], socket.socket]:
    """How to reach a port of a base unit: what a `ServiceTool` wants to know."""
    return lambda port: socket.create_connection((host, port), timeout)


class ServiceTool:
    """One conversation with a base unit: a request connection, opened when it is first needed, and one further
    connection for each archive.

    `connect` opens a connection to a port of the base unit; `timeout` bounds every single wait, in seconds. With
    `journal` and `loop`, everything that crosses is noted there. Not for use by several threads at a time.
    """

    def __init__(self, connect: Callable[[int], socket.socket], timeout: float = ANSWER_SECONDS,
                 journal: Optional[Journal] = None, loop: Optional[Loop] = None):
        self._connect, self._timeout, self._journal, self._loop = connect, timeout, journal, loop
        self._requests: Optional[socket.socket] = None
        self._received = b""

    def __enter__(self) -> "ServiceTool":
        return self

    def __exit__(self, *_exception: object) -> None:
        self.close()

    def close(self) -> None:
        if self._requests:
            self._requests.close()
        self._requests, self._received = None, b""

    def leave(self) -> None:
        """Ends the request connection under the hands of whoever waits for something on it; from another thread."""
        if self._requests:
            with contextlib.suppress(OSError):  # the base unit was faster
                self._requests.shutdown(socket.SHUT_RDWR)

    def wait_no_longer_than(self, seconds: float) -> None:
        """Bounds every single wait from now on."""
        self._timeout = seconds
        if self._requests:
            self._requests.settimeout(seconds)

    # --- what a service technician does ----------------------------------------------------------------------------

    def list(self) -> list[dict[str, str]]:
        """The applications for remote units, each as its manifest's keys and values and its folder "pairAppPath"."""
        self.send(pairwire.get_app_list(), "getAppList")
        records = self.reply(pairwire.parse_app_list)
        self._note(FROM_BASE_UNIT, "appList", apps=len(records))
        return records

    def find(self, name: str) -> str:
        """The folder of the application called `name` (the last part of its folder), as the base unit lists it."""
        if name.startswith("/"):
            return name
        paths = [record.get("pairAppPath", "") for record in self.list()]
        found = [path for path in paths if PurePosixPath(path).name == name]
        if len(found) != 1:
            raise ServiceToolError(f"there {'is no' if not found else 'are several'} {name!r}; the base unit has: "
                                   + (", ".join(sorted(paths)) or "nothing"))
        return found[0]

    def ask(self, path: str, unit: int) -> Offer:
        """Has the application packed for a remote unit; a user application is paired with that unit by this."""
        self.send(pairwire.get_app(unit, path), "getApp", unit=unit, path=path)
        offer = self.reply(pairwire.parse_offer)
        self._note(FROM_BASE_UNIT, "app", **offer._asdict())
        return offer

    def fetch(self, offer: Offer) -> bytes:
        """Fetches the archive that was offered last, and checks it."""
        with self.open_transfer() as receiver:
            self.start_transfer()
            archive = self.receive(receiver)
        check(offer, archive)
        return archive

    def get(self, path: str, unit: int) -> tuple[Offer, bytes]:
        """`ask` and `fetch`."""
        offer = self.ask(path, unit)
        return offer, self.fetch(offer)

    # --- the single steps, for tests that do something else between them -------------------------------------------

    def open(self) -> socket.socket:
        """The request connection."""
        if self._requests is None:
            self._requests = self._connect(REQUEST_PORT)
            self._requests.settimeout(self._timeout)
        return self._requests

    def open_transfer(self) -> socket.socket:
        """One more connection, for an archive."""
        receiver = self._connect(TRANSFER_PORT)
        receiver.settimeout(self._timeout)
        return receiver

    def start_transfer(self) -> None:
        self.send(pairwire.start_transfer(), "startTransfer")

    def send(self, data: bytes, kind: str = "raw", **detail: Any) -> None:
        self.open().sendall(data)
        self._note(TO_BASE_UNIT, kind, data, **detail)

    def reply(self, parse: Callable[[bytes], tuple[_Parsed, int]]) -> _Parsed:
        """Waits for one whole reply. Further bytes are kept for the next one."""
        while True:
            try:
                parsed, size = parse(self._received)
            except pairwire.Incomplete:
                self._received += self._more()
                continue
            except pairwire.Malformed as error:
                raise ServiceToolError(f"this is no base unit's answer: {error}") from error
            self._received = self._received[size:]
            return parsed

    def receive(self, receiver: socket.socket) -> bytes:
        """Everything up to the end of the connection."""
        parts = []
        try:
            while part := receiver.recv(65536):
                parts.append(part)
        except TimeoutError as error:
            raise NoAnswer(f"nothing more of the archive came within {self._timeout:g} s") from error
        archive = b"".join(parts)
        self._note(FROM_BASE_UNIT, "file", size=len(archive))
        return archive

    def _more(self) -> bytes:
        try:
            part = self.open().recv(65536)
        except TimeoutError as error:
            raise NoAnswer(f"no answer within {self._timeout:g} s; when the base unit refuses a request, "
                           "only its log says so") from error
        if not part:
            raise ServiceToolError("the base unit closed the connection")
        return part

    def _note(self, direction: str, kind: str, data: bytes = b"", **detail: Any) -> None:
        if self._journal and self._loop:
            self._loop.call(lambda: self._journal.add(LINK, direction, kind, data, **detail))


def check(offer: Offer, archive: bytes) -> None:
    """Compares what came with what was promised."""
    if len(archive) != offer.size:
        raise ServiceToolError(f"{offer.name} has {len(archive)} bytes instead of {offer.size}")
    digest = hashlib.md5(archive, usedforsecurity=False).hexdigest()
    if digest != offer.md5:
        raise ServiceToolError(f"{offer.name} has the MD5 {digest} instead of {offer.md5}")


def unpack(archive: bytes, folder: Path) -> Path:
    """Unpacks an archive below `folder` and returns the application's folder.

    Whatever the archive says, nothing is written outside that folder: names that lead out, links that point out, and
    anything that is no file, folder or link are refused before the first byte is written.
    """
    try:
        with tarfile.open(fileobj=io.BytesIO(archive), mode="r:") as tar:
            members = tar.getmembers()
            tops = {_checked(member).parts[0] for member in members}
            if len(tops) != 1:
                raise ServiceToolError(f"the archive holds {len(tops)} applications instead of one")
            folder.mkdir(parents=True, exist_ok=True)
            tar.extractall(folder, members)
    except tarfile.TarError as error:
        raise ServiceToolError(f"the archive cannot be unpacked: {error}") from error
    return folder / tops.pop()


def _checked(member: tarfile.TarInfo) -> PurePosixPath:
    path = PurePosixPath(member.name)
    if path.is_absolute() or ".." in path.parts or not path.parts:
        raise ServiceToolError(f"the archive names {member.name!r}, outside the application")
    if member.issym() or member.islnk():
        target = PurePosixPath(member.linkname)
        if target.is_absolute() or ".." in target.parts:
            raise ServiceToolError(f"the archive's link {member.name!r} points to {member.linkname!r}")
    elif not (member.isfile() or member.isdir()):
        raise ServiceToolError(f"the archive's {member.name!r} is neither a file nor a folder")
    return path
