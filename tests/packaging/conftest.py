"""Tests of the Debian package in a clean Debian: installed, upgraded and removed for real, in a copy that is thrown away."""

import contextlib
import os
import subprocess
import sys
from pathlib import Path

import pytest

REPOSITORY = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(REPOSITORY / "bench"))

from tessarobench import namespaces  # noqa: E402


def pytest_addoption(parser):
    parser.addoption("--root", required=True, help="a clean Debian (scripts/clean-root)")
    parser.addoption("--older", required=True, help="the package with a lower version")
    parser.addoption("--newer", required=True, help="the package with a higher version")


def pytest_configure(config):
    if not namespaces.in_sandbox():
        raise pytest.UsageError("the package is installed in a private world only: use make package-test")


class CleanRoot:
    """A Debian that begins clean; what is done to it is kept in memory and gone afterwards."""

    def __init__(self, base: Path, folder: Path):
        self.path = folder / "root"
        upper = folder / "memory"
        for path in (self.path, upper):
            path.mkdir()
        namespaces.mount("memory", str(upper), "tmpfs")
        for name in ("files", "work"):
            (upper / name).mkdir()
        namespaces.mount("root", str(self.path), "overlay",
                         options=f"lowerdir={base},upperdir={upper}/files,workdir={upper}/work")
        namespaces.mount("proc", str(self.path / "proc"), "proc")

    def run(self, *command, ok=True, env=None):
        """Runs a command inside; its output. With `ok` it must succeed."""
        done = subprocess.run(["chroot", self.path, *map(str, command)], capture_output=True, text=True, check=False,
                              env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8",
                                   "DEBIAN_FRONTEND": "noninteractive", **(env or {})})
        assert not ok or done.returncode == 0, f"{command}: {done.stdout}{done.stderr}"
        return done.stdout + done.stderr

    def install(self, package: Path) -> str:
        inside = self.path / package.name
        inside.write_bytes(package.read_bytes())
        return self.run("dpkg", "--install", f"/{package.name}")

    def __truediv__(self, name: str) -> Path:
        return self.path / name


@contextlib.contextmanager
def clean_root(request, folder: Path):
    root = CleanRoot(Path(request.config.getoption("--root")).resolve(), folder)
    yield root
    subprocess.run(["umount", "-R", root.path], check=True)
    subprocess.run(["umount", folder / "memory"], check=True)


@pytest.fixture
def clean(request, tmp_path):
    with clean_root(request, tmp_path) as root:
        yield root


@pytest.fixture
def older(request):
    return Path(request.config.getoption("--older")).resolve()


@pytest.fixture
def newer(request):
    return Path(request.config.getoption("--newer")).resolve()


@pytest.fixture(scope="session", autouse=True)
def only_root():
    assert os.geteuid() == 0, "in the private world we are root"
