"""The agent as a process between a server's double and HTTP clients."""
import http.client
import json
import os
import socket
import subprocess
import sys
import time
from pathlib import Path

from server_double import PATIENCE, wait_for

TOOLS = Path(__file__).resolve().parents[2] / "tools"
AGENT = TOOLS / "tessaro-agent"
HOST = "127.0.0.1"


class Agent:
    """Started with `start`; `folder` holds its log, its GPIO lines and its state."""

    def __init__(self, server, folder, *options, env=None, log=True):
        self.server, self.folder = server, folder
        self.port = server.agent_port
        self.log = folder / "server.log"
        self.log.touch()
        self.state = folder / "state"
        self.state.mkdir(exist_ok=True)
        self.gpio = folder / "gpio"
        self.environment = {**os.environ, **(env or {})}
        self.options = [*(["--log", str(self.log)] if log else []), *options]
        self.process = None

    def start(self):
        self.process = subprocess.Popen(
            [sys.executable, str(AGENT), "--listen", f"{HOST}:{self.port}", "--request-port", str(self.server.port),
             "--answer-port", str(self.server.answer_port), "--gpio", str(self.gpio), "--state", str(self.state),
             "--root", str(self.folder), *self.options],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=self.environment)
        line = self.process.stdout.readline()
        assert "listening" in line, line + self.process.stderr.read()
        return self

    def stop(self):
        if self.process and self.process.poll() is None:
            self.process.terminate()
            assert self.process.wait(PATIENCE) == 0
        if self.process:
            self.said = self.process.stderr.read()
            self.process.stdout.close()
            self.process.stderr.close()
            self.process = None

    def __enter__(self):
        return self.start()

    def __exit__(self, *_):
        self.stop()

    def request(self, method, path, body=None, headers=None):
        """(status, headers, text) of one request."""
        connection = http.client.HTTPConnection(HOST, self.port, timeout=PATIENCE)
        try:
            if isinstance(body, dict):
                body, headers = json.dumps(body), {"Content-Type": "application/json", **(headers or {})}
            connection.request(method, path, body, headers or {})
            answer = connection.getresponse()
            return answer.status, answer.headers, answer.read().decode()
        finally:
            connection.close()

    def get(self, path, **headers):
        return self.request("GET", path, headers=headers)

    def json(self, path):
        return json.loads(self.get(path)[2])

    def value(self, key):
        return self.json("/api/status")["values"][key]["value"]

    def wait_value(self, key, value):
        wait_for(lambda: self.value(key) == value, what=f"{key} {value}")

    def problems(self):
        return {problem["code"]: problem for problem in self.json("/healthz")["problems"]}

    def wait_problem(self, code):
        return wait_for(lambda: self.problems().get(code), what=code)

    def metrics(self):
        """Every series with its value."""
        lines = (line for line in self.get("/metrics")[2].splitlines() if line and not line.startswith("#"))
        return {series: float(value) for series, _, value in (line.rpartition(" ") for line in lines)}

    def events_of_log(self):
        return [change for change in self.json("/api/history")["changes"] if change["key"] == "log"]

    def write_log(self, *lines):
        """Writes new lines: behind what the agent takes for the past."""
        if self.process and self.log.exists():
            wait_for(lambda: self.json("/healthz")["log"], what="the log is followed")
        with self.log.open("a") as file:
            file.write("".join(f"20261121 09:00:00.000 - {line}\n" for line in lines))

    def resident(self):
        with open(f"/proc/{self.process.pid}/statm", encoding="ascii") as file:
            return int(file.read().split()[1]) * os.sysconf("SC_PAGESIZE")

    def cpu_seconds(self):
        with open(f"/proc/{self.process.pid}/stat", encoding="ascii") as file:
            fields = file.read().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def serves(self, port):
        """Whether its end of the connection from that port stands."""
        ends = (f"{self.port:04X}", f"{port:04X}", "01")
        with open("/proc/net/tcp", encoding="ascii") as table:
            rows = [line.split() for line in table][1:]
        return any((row[1][-4:], row[2][-4:], row[3]) == ends for row in rows)

    def watch(self, receive_buffer=None, **headers):
        return Watcher(self.port, receive_buffer, headers)


class Watcher:
    """One open stream of events."""

    def __init__(self, port, receive_buffer=None, headers=None):
        self.socket = socket.socket()
        if receive_buffer:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.socket.settimeout(PATIENCE)
        self.socket.connect((HOST, port))
        more = "".join(f"{name}: {value}\r\n" for name, value in (headers or {}).items())
        self.socket.sendall(f"GET /api/events HTTP/1.0\r\nHost: {HOST}\r\n{more}\r\n".encode())
        self.text = b""

    def wait_text(self, wanted, seconds=PATIENCE):
        deadline = time.monotonic() + seconds
        while wanted.encode() not in self.text:
            assert time.monotonic() < deadline, f"no {wanted!r} in the stream"  # it has beats of its own
            data = self.socket.recv(65536)
            assert data, f"the stream ended without {wanted!r}"
            self.text += data
        return self.text.decode()

    def close(self):
        self.socket.close()


def gpio(folder, driven, monitor):
    """Writes the two lines."""
    for line, value in ((37, driven), (38, monitor)):
        (folder / f"gpio{line}").mkdir(parents=True, exist_ok=True)
        (folder / f"gpio{line}" / "value").write_text(f"{value}\n")
