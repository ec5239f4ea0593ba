"""What the tests of the monitors share: a small answering server of the loopback interface, ports, and waiting."""
import json
import os
import socket
import threading
import time

STATUS = {"BU_ID": "4660", "BU_STATE": "16", "TSAPs": "1", "UNARMED_RUs": "2", "EG_LINK_STATUS": "1",
          "EC_LINK_STATUS": "0", "C_LINK_STATUS": "0", "ARMED_RU": "0", "RU_STATE": "", "BCSR": "3", "BUID": "4660",
          "IFTY": "1", "IVL1": "0", "IVL2": "0", "IVL3": "0"}


def free_ports(first):
    """Ports that nobody has, below those that the system hands out by itself: no other program takes one in between."""
    for port in range(first, first + 1000):
        if all(is_free(port, kind) for kind in (socket.SOCK_DGRAM, socket.SOCK_STREAM)):
            yield port


def is_free(port, kind):
    with socket.socket(socket.AF_INET, kind) as probe:
        try:
            probe.bind(("127.0.0.1", port))
        except OSError:
            return False
    return True


WORKER = int(os.environ.get("PYTEST_XDIST_WORKER", "gw0").removeprefix("gw"))
answer_ports = free_ports(20000 + 1000 * (WORKER % 10))


class Server:
    """Answers like the base unit, to a fixed port whoever asks; keeps what it was asked."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind(("127.0.0.1", 0))
        self.answer_port = next(answer_ports)
        self.agent_port = next(answer_ports)
        self.port = self.socket.getsockname()[1]
        self.status = dict(STATUS)
        self.asked = []
        self.nonsense = None
        self.thread = threading.Thread(target=self.serve, daemon=True)
        self.thread.start()

    def serve(self):
        while True:
            data = self.socket.recv(65536)
            if data == b"end":
                return
            self.asked.append(data)
            if data == b"GET":
                self.push()
            else:
                self.send(b"NOTIFY")

    def push(self):
        self.send(self.nonsense or json.dumps(self.status).encode())

    def send(self, data):
        self.socket.sendto(data, ("127.0.0.1", self.answer_port))

    def close(self):
        self.socket.sendto(b"end", ("127.0.0.1", self.port))
        self.thread.join(PATIENCE)
        self.socket.close()

    def reopen(self):
        """Answers again after `close`, on the same port."""
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind(("127.0.0.1", self.port))
        self.thread = threading.Thread(target=self.serve, daemon=True)
        self.thread.start()


PATIENCE = 60  # seconds, for what will surely come: a busy machine starts even a program slowly


def wait_for(condition, seconds=PATIENCE, what=""):
    """What `condition` gives as soon as that is true."""
    deadline = time.monotonic() + seconds
    while True:
        found = condition()
        if found:
            return found
        assert time.monotonic() < deadline, f"not within {seconds} s: {what or condition}"
        time.sleep(0.01)


class WallClock:
    """The wall clock of a Python program that runs with `environment`, to be set from outside."""

    PATCH = """
import os, pathlib, time
wall, moved = time.time, pathlib.Path(os.environ["CLOCK_MOVED_BY"])
time.time = lambda: wall() + float(moved.read_text())
"""

    def __init__(self, folder):
        folder.mkdir()
        self._moved = folder / "moved"
        self.move(0)
        (folder / "sitecustomize.py").write_text(self.PATCH)
        self.environment = {"PYTHONPATH": str(folder), "CLOCK_MOVED_BY": str(self._moved)}

    def move(self, seconds):
        new = self._moved.with_name("new")
        new.write_text(str(seconds))
        new.rename(self._moved)
