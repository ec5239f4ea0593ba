"""Tests on the emulated board: the program for the board, Debian's kernel, and the bench's peers at the devices' ends.

Booting takes far longer than a test, so all tests share one board. Each gets the files laid anew and starts the server
itself.
"""

import contextlib
import shutil
import sys
from pathlib import Path
from typing import Optional

import pytest

REPOSITORY = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(REPOSITORY / "bench"))

from tessarobench import namespaces  # noqa: E402
from tessarobench.board import EXAMPLES  # noqa: E402
from tessarobench.boardimage import BoardImage  # noqa: E402
from tessarobench.emulatedboard import EmulatedInstallation  # noqa: E402
from tessarobench.emulator import Emulator  # noqa: E402


def pytest_addoption(parser):
    parser.addoption("--server", required=True, help="the binary under test, built for the board")
    parser.addoption("--sysroot", required=True, help="the board's libraries and kernel (scripts/cross-sysroot)")
    parser.addoption("--relay", required=True, help="the program datagramrelay, built for the board")


def pytest_configure(config):
    if not namespaces.in_sandbox():
        raise pytest.UsageError("the emulated board needs a private world: use make board")


@pytest.fixture(scope="session")
def image(request, tmp_path_factory):
    """What the boards of this run boot from."""
    path = {name: Path(request.config.getoption(name)).resolve() for name in ("--server", "--sysroot", "--relay")}
    folder = tmp_path_factory.mktemp("image")
    yield BoardImage(path["--sysroot"], path["--server"], folder, (path["--relay"],))
    shutil.rmtree(folder)


class Rack:
    """One place for a board, with a memory card that holds the example installation."""

    def __init__(self, image: BoardImage, card: Path):
        self.image, self.card = image, image.card(card, EXAMPLES)
        self._booted: Optional[Emulator] = None

    @property
    def emulator(self) -> Emulator:
        """A board that has booted."""
        if self._booted is None:
            self._booted = Emulator(self.image, self.card)
            print(f"\nthe emulated board was up after {self._booted.booted_in:.1f} s")
        return self._booted

    def shut_down(self) -> None:
        """The next one boots from what this one has left on the card."""
        self.emulator.shut_down()
        self._booted = None

    def close(self) -> None:
        if self._booted:
            self._booted.close()


@pytest.fixture(scope="session")
def rack(image, tmp_path_factory):
    with contextlib.closing(Rack(image, tmp_path_factory.mktemp("card") / "card.img")) as place:
        yield place


@pytest.fixture
def emulator(rack):
    return rack.emulator


@pytest.fixture
def bench(emulator):
    """The board with its peers and the example installation; the server is not started yet."""
    with EmulatedInstallation(emulator) as laid:
        yield laid
        laid.loop.raise_failure()


@pytest.fixture
def running(bench):
    """The same with the server running beside a willing base controller: link in RUN, settings exchanged."""
    bench.start_to_run(120)
    return bench


@pytest.fixture
def record_figures(capsys):
    """Shows a line of figures among the dots."""
    def show(text):
        with capsys.disabled():
            print(f"\non the emulated board: {text}")
    return show
