"""tools/tessaro-top against a small answering server of the loopback interface, in a pipe and under a pseudo terminal."""
import json
import os
import pty
import select
import socket
import subprocess
import sys
import threading
import time
from pathlib import Path

import pytest

TOOL = Path(__file__).resolve().parents[2] / "tools" / "tessaro-top"
STATUS = {"BU_ID": "4660", "BU_STATE": "16", "TSAPs": "1", "UNARMED_RUs": "2", "EG_LINK_STATUS": "1",
          "EC_LINK_STATUS": "0", "C_LINK_STATUS": "0", "ARMED_RU": "0", "RU_STATE": "", "BCSR": "3", "BUID": "4660",
          "IFTY": "1", "IVL1": "0", "IVL2": "0", "IVL3": "0"}


def free_ports(first):
    """Ports that nobody has, below those that the system hands out by itself: no other program takes one in between."""
    for port in range(first, first + 1000):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            try:
                probe.bind(("127.0.0.1", port))
            except OSError:
                continue
        yield port


WORKER = int(os.environ.get("PYTEST_XDIST_WORKER", "gw0").removeprefix("gw"))
answer_ports = free_ports(20000 + 1000 * (WORKER % 10))


class Server:
    """Answers like the base unit, to a fixed port whoever asks; keeps what it was asked."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind(("127.0.0.1", 0))
        self.answer_port = next(answer_ports)
        self.port = self.socket.getsockname()[1]
        self.status = dict(STATUS)
        self.asked = []
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
                self.socket.sendto(b"NOTIFY", ("127.0.0.1", self.answer_port))

    def push(self):
        self.socket.sendto(json.dumps(self.status).encode(), ("127.0.0.1", self.answer_port))

    def close(self):
        self.socket.sendto(b"end", ("127.0.0.1", self.port))
        self.thread.join(5)
        self.socket.close()


@pytest.fixture
def server():
    instance = Server()
    yield instance
    instance.close()


def command(server, *more):
    return [sys.executable, str(TOOL), "--request-port", str(server.port), "--answer-port", str(server.answer_port),
            "--interval", "0.1", *more]


class Output:
    """Reads a descriptor until a text has come."""

    def __init__(self, fd):
        self.fd = fd
        self.text = ""

    def wait_for(self, wanted, seconds=10):
        deadline = time.monotonic() + seconds
        while wanted not in self.text:
            left = deadline - time.monotonic()
            assert left > 0, f"no {wanted!r} in {self.text[-2000:]!r}"
            if select.select([self.fd], [], [], left)[0]:
                self.text += os.read(self.fd, 65536).decode()


def test_plain_output_names_states_and_tells_changes(server):
    process = subprocess.Popen(command(server), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
    output = Output(process.stdout.fileno())
    output.wait_for("state: 16 DISARMED\n")
    output.wait_for("unit state: (no tag)\n")
    server.status["BU_STATE"] = "17"
    server.push()
    output.wait_for("state: 17 ARMED (was 16 DISARMED)\n")
    process.terminate()
    assert process.wait(10) == 0
    assert "server answers" in output.text
    assert "\x1b" not in output.text
    process.stdout.close()


def test_a_silent_server_is_told_and_gives_exit_code_1(server):
    server.close()
    result = subprocess.run(command(server, "--seconds", "0.5"), stdin=subprocess.DEVNULL, capture_output=True, text=True,
                            timeout=20)
    assert "server is silent" in result.stdout
    assert result.returncode == 1
    server.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    server.thread = threading.Thread(target=lambda: None)
    server.thread.start()


def test_log_lines_of_a_file_are_shown(server, tmp_path):
    log = tmp_path / "server.log"
    log.write_text("first line\n")
    process = subprocess.Popen(command(server, "--journal", str(log)), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
    output = Output(process.stdout.fileno())
    output.wait_for("log first line\n")
    with log.open("a") as stream:
        stream.write("second line\n")
    output.wait_for("log second line\n")
    output.wait_for("server answers")  # the exit code tells whether it does
    process.terminate()
    assert process.wait(10) == 0
    process.stdout.close()


def under_terminal(arguments):
    master, slave = pty.openpty()
    process = subprocess.Popen(arguments, stdin=slave, stdout=slave, stderr=slave, env={**os.environ, "TERM": "xterm"})
    os.close(slave)
    return process, master


def test_on_a_terminal_states_have_colours_and_q_gives_the_screen_back(server):
    process, master = under_terminal(command(server))
    output = Output(master)
    output.wait_for("\x1b[32m  state                     16 DISARMED\x1b[0m")
    server.status["EG_LINK_STATUS"] = "3"
    output.wait_for("\x1b[31m  machine controller link   3 LINK_ERROR\x1b[0m")
    os.write(master, b"q")
    output.wait_for("\x1b[?1049l")
    assert process.wait(10) == 0
    os.close(master)


def test_a_command_is_sent_only_after_confirmation(server):
    process, master = under_terminal(command(server))
    output = Output(master)
    output.wait_for("q quit")
    os.write(master, b"d")
    output.wait_for("Send DISARM to the server? y/n")
    os.write(master, b"n")
    os.write(master, b"r")
    output.wait_for("Send RESET to the server? y/n")
    os.write(master, b"y")
    deadline = time.monotonic() + 10
    while b"RESET" not in server.asked:
        assert time.monotonic() < deadline
        time.sleep(0.01)
    os.write(master, b"q")
    assert process.wait(10) == 0
    assert b"DISARM" not in server.asked
    os.close(master)


def test_a_second_monitor_says_why_it_cannot_run(server):
    holder = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    holder.bind(("127.0.0.1", server.answer_port))
    result = subprocess.run(command(server), stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=20)
    holder.close()
    assert result.returncode == 2
    assert "another monitor may be running" in result.stderr
