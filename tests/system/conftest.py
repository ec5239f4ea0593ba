"""System tests: the real binary on a board of its own per test, driven by the bench's peers.

They run in virtual time, but for those that are marked `real_time`, with the reason why it has to be that."""

import re
import sys
from pathlib import Path

import pytest

REPOSITORY = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(REPOSITORY / "bench"))

from tessarobench import namespaces, virtualtime  # noqa: E402
from tessarobench.capturefile import CaptureFile  # noqa: E402
from tessarobench.installation import APP, CONFIG_VALUES, Installation  # noqa: E402
from tessarobench.serverprocess import is_sanitized  # noqa: E402


def pytest_addoption(parser):
    parser.addoption("--server", default=str(REPOSITORY / "build" / "tessaroserver"), help="the binary under test")
    parser.addoption("--captures", type=Path, metavar="DIR", help="keep there, for each failed test that uses the fixture "
                     "`bench`, everything that crossed the links (pcapng)")
    parser.addoption("--real-time", action="store_true", help="run all tests in real time")


def pytest_configure(config):
    config.addinivalue_line("markers", "real_time(reason): this test runs in real time, and why")
    if not namespaces.in_sandbox():
        raise pytest.UsageError("the system tests need a private world: "
                                "bench/sandbox /usr/bin/python3 -m pytest tests/system")


@pytest.fixture(scope="session")
def server_path(request):
    """The binary under test."""
    path = Path(request.config.getoption("--server")).resolve()
    if not path.exists():
        pytest.exit(f"there is no server at {path}: build it first (make build)", returncode=1)
    return path


@pytest.fixture(scope="session")
def sanitized(server_path):
    """Whether it was built with the address or the thread sanitizer."""
    return is_sanitized(server_path)


def unsuitable(config):
    """Why there can be no virtual time; empty when there can."""
    try:
        virtualtime.check(virtualtime.preloaded_with(config.getoption("--server")))
        return ""
    except virtualtime.Unsuitable as reason:
        return str(reason)


def pytest_terminal_summary(terminalreporter, config):
    reason = "asked for" if config.getoption("--real-time") else unsuitable(config)
    if reason:
        terminalreporter.write_line(f"All tests ran in real time: {reason}")


@pytest.fixture(scope="session")
def library_of_server(pytestconfig, server_path):
    """The library that makes virtual time; None where all is to run in real time."""
    if pytestconfig.getoption("--real-time") or unsuitable(pytestconfig):
        return None
    return virtualtime.preloaded_with(server_path)


@pytest.fixture
def virtual_time(request, library_of_server):
    """The same for this test."""
    return None if request.node.get_closest_marker("real_time") else library_of_server


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    if call.when == "call":
        item.has_passed = outcome.get_result().passed


@pytest.fixture
def capture(request):
    """A file for everything that crosses the links, which stays when the test fails; None when nobody asked for it."""
    folder = request.config.getoption("--captures")
    if folder is None:
        yield None
        return
    folder.mkdir(parents=True, exist_ok=True)
    path = folder / (re.sub(r"[^\w.\[\]-]+", "-", request.node.nodeid.split("/")[-1]) + ".pcapng")
    yield CaptureFile(path, "pytest")
    if getattr(request.node, "has_passed", False):
        path.unlink()


@pytest.fixture
def bench(server_path, capture, virtual_time):
    """A freshly laid board with the example installation; the server is not started yet. Whatever a test has put it through,
    the server ends in order when asked: its exit status tells, and so do the leak checker and the coverage of such builds."""
    with Installation(server_path, capture=capture, virtual_time=virtual_time) as laid:
        yield laid
        laid.loop.raise_failure()
        if laid.server.running:
            assert laid.server.stop() == 0


@pytest.fixture
def running(bench):
    """The same with the server running beside a willing base controller: link in RUN, settings exchanged and shown."""
    bench.start_to_run()
    bench.wait_for(lambda: bench.api.statuses == len(CONFIG_VALUES), what="one push for each setting that was fetched")
    return bench


@pytest.fixture
def serving(bench):
    """The same, further: remote units are served. The machine controller link is off, and the base controller takes its
    time before it repeats a packet: the base unit would take the repeat for a new one, and these tests count."""
    bench.change(APP, "EMAP", value=0)
    bench.bc.retry_seconds = 1.0
    yield bench.start_to_serve()
    assert [unit.damaged for unit in bench.units if unit.damaged] == []


@pytest.fixture
def scripted(tmp_path):
    """A function that lays a board whose server is the given Python script."""
    boards = []

    def lay(script):
        program = tmp_path / "program"
        program.write_text("#!/usr/bin/python3 -u\n" + script)
        program.chmod(0o755)
        boards.append(Installation(program))
        return boards[-1]

    yield lay
    for board in boards:
        board.close()
