import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tools"))


def pytest_addoption(parser):
    parser.addoption("--server", default="build/tessaroserver", help="the binary to run")


@pytest.fixture(scope="session")
def server_path(request):
    return Path(request.config.getoption("--server")).resolve()
