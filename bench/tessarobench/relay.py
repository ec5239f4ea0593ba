"""The machine-stop relay behind the two GPIO lines: it watches the drive line and moves the monitor line after it."""

from __future__ import annotations

import ctypes
import os
from pathlib import Path
from typing import Optional

from .journal import BENCH, FROM_BASE_UNIT, TO_BASE_UNIT, Journal
from .loop import Loop

LINK = "gpio"
DRIVE_LINE, MONITOR_LINE = 37, 38
_IN_CLOSE_WRITE, _IN_MODIFY = 0x8, 0x2

_libc = ctypes.CDLL(None, use_errno=True)


def make_gpio_files(directory: Path) -> None:
    """The files of the sysfs interface as plain files, both lines exported, the relay open."""
    for line in (DRIVE_LINE, MONITOR_LINE):
        (directory / f"gpio{line}").mkdir(parents=True)
        (directory / f"gpio{line}" / "direction").write_text("in\n")
    (directory / "export").write_text("")
    (directory / f"gpio{DRIVE_LINE}" / "value").write_text("0\n")
    (directory / f"gpio{MONITOR_LINE}" / "value").write_text("1\n")


class Relay:
    """A relay with a monitor contact (active low: "0" while the main contact is closed).

    `delay` seconds pass between drive and contact. `welded`: once closed, the contact stays closed. `dead_coil`: the
    contact never closes. `closed` is the contact, `driven` the last character that the base unit wrote.
    """

    def __init__(self, loop: Loop, journal: Journal, directory: Path, delay: float = 0.008):
        self._prepare(loop, journal, delay)
        self._drive = directory / f"gpio{DRIVE_LINE}" / "value"
        self._monitor = directory / f"gpio{MONITOR_LINE}" / "value"
        self._inotify = _libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        if _libc.inotify_add_watch(self._inotify, os.fsencode(self._drive), _IN_MODIFY | _IN_CLOSE_WRITE) < 0:
            raise OSError(ctypes.get_errno(), "inotify cannot watch the drive line")
        loop.call(loop.watch, self._inotify, self._drive_written)

    def _prepare(self, loop: Loop, journal: Journal, delay: float) -> None:
        """An open relay, whatever stands for its two lines."""
        self._loop, self._journal, self.delay = loop, journal, delay
        self.welded = self.dead_coil = False
        self.driven = "0"
        self.closed = False
        self._monitor_held: Optional[str] = None

    def hold_monitor(self, text: Optional[str]) -> None:
        """Lets the monitor line read `text` whatever the contact does; None lets it follow the contact again."""
        self._loop.call(self._hold_monitor, text)

    def power_off(self) -> None:
        """As when the board loses its supply: the coil drops, the drive line reads low."""
        self._loop.call(self._write, self._drive, "0\n")

    def close(self) -> None:
        self._loop.call(self._loop.watch, self._inotify)
        os.close(self._inotify)

    def _hold_monitor(self, text: Optional[str]) -> None:
        self._journal.add(LINK, BENCH, "hold" if text is not None else "release", text=text)
        self._monitor_held = text
        self._show_contact()

    def _drive_written(self) -> None:
        os.read(self._inotify, 4096)
        self._drive_changed(self._read_drive())

    def _drive_changed(self, text: str) -> None:
        if text in ("0", "1") and text != self.driven:  # in between, a file being rewritten may be empty
            self.driven = text
            self._journal.add(LINK, FROM_BASE_UNIT, "drive", value=text)
            self._loop.later(self.delay, self._move)

    def _read_drive(self) -> str:
        try:
            with open(self._drive, "rb", buffering=0) as file:
                return file.read(1).decode("latin-1")
        except FileNotFoundError:
            return ""  # a test took the line away

    def _move(self) -> None:
        closed = self.driven == "1"
        if (self.welded and not closed) or (self.dead_coil and closed):
            return
        if closed != self.closed:
            self.closed = closed
            self._journal.add(LINK, TO_BASE_UNIT, "contact", closed=closed)
            self._show_contact()

    def _show_contact(self) -> None:
        held = self._monitor_held
        self._show_monitor(held if held is not None else "0\n" if self.closed else "1\n")

    def _show_monitor(self, text: str) -> None:
        self._write(self._monitor, text)

    @staticmethod
    def _write(path: Path, text: str) -> None:
        """In place and in one go, so that a reader never meets an empty file."""
        with open(path, "r+b", buffering=0) as file:
            file.write(text.encode())
            file.truncate(len(text))
