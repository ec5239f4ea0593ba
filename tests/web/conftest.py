import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tools"))

from agent_support import Agent, gpio  # noqa: E402
from browser import browser  # noqa: E402
from server_double import Server  # noqa: E402

STATUS = {"BU_ID": "400", "BU_STATE": "17", "ARMED_RU": "1001", "UNARMED_RUs": "1", "TSAPs": "2", "RU_STATE": "1"}


def pytest_addoption(parser):
    parser.addoption("--server", default="build/tessaroserver", help="the binary to run")


@pytest.fixture(scope="session")
def server_path(request):
    return Path(request.config.getoption("--server")).resolve()


@pytest.fixture(scope="session")
def driver():
    with browser() as running:
        yield running


@pytest.fixture
def server():
    instance = Server()
    instance.status.update(STATUS)
    yield instance
    instance.close()


@pytest.fixture
def agent(server, tmp_path):
    gpio(tmp_path / "gpio", 1, 0)
    with Agent(server, tmp_path) as running:
        running.wait_value("ARMED_RU", "1001")
        running.write_log("RUN")
        running.wait_value("link", "RUN")
        yield running
