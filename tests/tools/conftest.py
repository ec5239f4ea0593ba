import pytest
from server_double import Server


@pytest.fixture
def server():
    instance = Server()
    yield instance
    instance.close()
