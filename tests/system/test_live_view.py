"""The live view behind the tour, on a pseudo terminal."""

import os
import pty
import re
import select
import subprocess
import time
from pathlib import Path

import pytest

pytestmark = pytest.mark.real_time("the tour is for people")

RUN = Path(__file__).resolve().parents[2] / "bench" / "run"
_CONTROL = re.compile(r"\x1b\[[?0-9;]*[a-zA-Z]")


class Terminal:
    """A program on a pseudo terminal; `text` is everything that it has shown so far, without control sequences."""

    def __init__(self, *command):
        self._master, slave = pty.openpty()
        self.raw = b""
        self.process = subprocess.Popen([str(part) for part in command], stdin=slave, stdout=slave, stderr=slave,
                                        start_new_session=True, env={**os.environ, "COLUMNS": "120", "LINES": "40"})
        os.close(slave)

    def press(self, key):
        os.write(self._master, key.encode())

    def wait(self, text, timeout=60.0):
        """Waits until `text` is shown after everything that was waited for before."""
        until = time.monotonic() + timeout
        while text not in _CONTROL.sub("", self.raw.decode("utf-8", "replace")):
            assert time.monotonic() < until, f"{text!r} is not shown:\n{self.raw[-3000:].decode('utf-8', 'replace')}"
            self._read()
        self.raw = b""

    def end(self, timeout=60.0):
        until = time.monotonic() + timeout
        while self.process.poll() is None and time.monotonic() < until:
            self._read()
        return self.process.wait(1)

    def close(self):
        if self.process.poll() is None:
            self.process.terminate()
            self.process.wait(60)
        os.close(self._master)

    def _read(self):
        if select.select([self._master], [], [], 0.1)[0]:
            try:
                self.raw += os.read(self._master, 65536)
            except OSError:  # the other side has been closed
                time.sleep(0.01)


@pytest.fixture
def terminal(server_path):
    shown = Terminal(RUN, "--server", server_path, "--scene", "images", "--quiet")
    yield shown
    shown.close()


def test_it_stays_shows_faults_and_ends(terminal):
    terminal.wait("Tessaro base unit, live")
    terminal.wait("q end")
    terminal.wait("BU_ID 400")
    terminal.press("m")
    terminal.wait("faults   base controller mute")
    terminal.wait("NO_BI_LINK")
    terminal.wait("open, driven 0")
    terminal.press("m")
    terminal.wait("faults   none")
    terminal.wait("closed, driven 1")
    terminal.press("q")
    terminal.wait("Everything came out as told.")
    assert terminal.end() == 0


def test_keys_that_mean_nothing_and_the_end_of_the_terminal(terminal):
    terminal.wait("q end")
    for key in "?" + 2 * "nlcuws":
        terminal.press(key)
    terminal.wait("(last key: machine stop)")
    terminal.wait("faults   none")
    terminal.press("e")
    terminal.wait("faults   eth0 down")
    terminal.press("\x04")
    assert terminal.end() == 0
