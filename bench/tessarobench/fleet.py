"""A fleet: many simulated base units with their agents, and a real Prometheus that watches them with the fleet's own files."""

from __future__ import annotations

import json
import os
import re
import shutil
import signal
import socket
import subprocess
import threading
import time
import urllib.error
import urllib.request
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any, Optional

from .agentprocess import FORWARD_PORT, AgentProcess
from .closing import Closing
from .installation import Installation
from .webbench import bring_up

FILES = Path(__file__).resolve().parents[2] / "packaging" / "fleet"
TOKEN = "the-token-of-the-simulated-fleet"
HOST = "127.0.0.1"
FIRST_UNIT = 400
AT_ONCE = 4  # installations that are brought up at the same time
QUICK = 10  # times faster, with --quick
_direct = urllib.request.build_opener(urllib.request.ProxyHandler({}))


def fetch(url: str, token: Optional[str] = None) -> bytes:
    headers = {"Authorization": f"Bearer {token}"} if token else {}
    with _direct.open(urllib.request.Request(url, headers=headers), timeout=10) as answer:
        return answer.read()


class Unit(Closing):
    """One base unit with its agent."""

    def __init__(self, server: Path, number: int, folder: Path):
        super().__init__()
        self.number, self._folder = number, folder
        folder.mkdir()
        (folder / "token").write_text(TOKEN, encoding="ascii")
        self._listening = socket.create_server((HOST, 0))
        self._closing.append(self._listening.close)
        self.bench = Installation(server)
        self._closing.append(self.bench.close)
        self.bench.reply_port = FORWARD_PORT
        self.agent = self._start_agent()

    def bring_up(self) -> "Unit":
        bring_up(self.bench)
        return self

    @property
    def address(self) -> str:
        return f"{HOST}:{self._listening.getsockname()[1]}"

    def lose_agent(self) -> None:
        """As when the unit is switched off or its network is gone: nobody listens."""
        self.agent.close()
        self._closing.remove(self.agent.close)
        self._listening.close()

    def find_agent(self) -> None:
        host, port = self.address_before
        self._listening = socket.create_server((host, port))
        self._closing.append(self._listening.close)
        self.agent = self._start_agent()

    def _start_agent(self) -> AgentProcess:
        self.address_before = self._listening.getsockname()
        return self.closing(AgentProcess(self.bench, self._listening, self._folder, "--token-file",
                                         str(self._folder / "token")))


class Prometheus(Closing):
    """A real one, with the files of packaging/fleet as they are; with `faster`, all their times are so many times shorter."""

    def __init__(self, folder: Path, units: list[Unit], faster: int = 1):
        super().__init__()
        program = shutil.which("prometheus")
        if program is None:
            raise FileNotFoundError("the program 'prometheus' is missing: install Debian's package of that name")
        shutil.copytree(FILES, folder)
        (folder / "tessaro-token").write_text(TOKEN, encoding="ascii")
        targets = [{"targets": [unit.address], "labels": {"unit": str(unit.number), "site": "bench"}} for unit in units]
        (folder / "units" / "bench.json").write_text(json.dumps(targets), encoding="ascii")
        if faster > 1:
            self._hurry(folder, faster)
        with socket.create_server((HOST, 0)) as probe:
            self.port = probe.getsockname()[1]
        self._process = self._start(program, folder)
        self._closing.append(self._end)

    @staticmethod
    def _hurry(folder: Path, faster: int) -> None:
        for name in ("prometheus.yml", "tessaro-alerts.yml"):
            text = (folder / name).read_text(encoding="utf-8")
            shorter = re.sub(r"((?:interval|timeout|for): )(\d+)(s|m)\b", lambda found: "%s%dms" % (
                found[1], int(found[2]) * {"s": 1000, "m": 60000}[found[3]] // faster), text)
            (folder / name).write_text(shorter, encoding="utf-8")

    def _start(self, program: str, folder: Path) -> subprocess.Popen:
        command = [program, f"--config.file={folder / 'prometheus.yml'}", f"--storage.tsdb.path={folder / 'data'}",
                   f"--web.listen-address={HOST}:{self.port}", f"--web.console.templates={folder / 'consoles'}",
                   "--web.console.libraries=/etc/prometheus/console_libraries"]
        with open(folder / "prometheus.log", "wb") as said:
            return subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=said, stderr=said, start_new_session=True)

    def _end(self) -> None:
        self._process.send_signal(signal.SIGTERM)
        try:
            self._process.wait(10)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()

    def query(self, expression: str) -> list[dict[str, Any]]:
        """The samples that an expression gives now; none while Prometheus is not ready."""
        url = f"http://{HOST}:{self.port}/api/v1/query?query={urllib.request.quote(expression)}"
        try:
            return json.loads(fetch(url))["data"]["result"]
        except (urllib.error.URLError, OSError):
            return []

    def value(self, expression: str) -> Optional[float]:
        found = self.query(expression)
        return float(found[0]["value"][1]) if found else None

    def firing(self) -> set[tuple[str, str]]:
        """(unit, alert) of everything that somebody would be told now."""
        return {(sample["metric"]["unit"], sample["metric"]["alertname"])
                for sample in self.query('ALERTS{alertstate="firing"}')}

    def console(self, name: str) -> str:
        return fetch(f"http://{HOST}:{self.port}/consoles/{name}").decode()

    @property
    def resident_bytes(self) -> int:
        with open(f"/proc/{self._process.pid}/statm", encoding="ascii") as file:
            return int(file.read().split()[1]) * os.sysconf("SC_PAGESIZE")


class Fleet(Closing):
    """Units side by side, brought up a few at a time."""

    def __init__(self, server: Path, count: int, folder: Path, faster: int = 1):
        super().__init__()
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        self.units: list[Unit] = []
        try:
            for number in range(FIRST_UNIT, FIRST_UNIT + count):
                self.units.append(self.closing(Unit(server, number, folder / f"unit-{number}")))
            with ThreadPoolExecutor(AT_ONCE) as workers:
                list(workers.map(Unit.bring_up, self.units))
            self.prometheus = self.closing(Prometheus(folder / "prometheus", self.units, faster))
        except BaseException:
            self.close()
            raise


def wait(condition: Any, seconds: float, what: str) -> Any:
    until = time.monotonic() + seconds
    while not (found := condition()):
        if time.monotonic() > until:
            raise AssertionError(f"not within {seconds:.0f} s: {what}")
        time.sleep(0.25)
    return found


class Passage:
    """Lets those outside of the sandbox reach a port inside of it, through a socket that was made outside."""

    def __init__(self, listening: socket.socket, port: int):
        self._listening, self._port = listening, port
        threading.Thread(target=self._serve, name="passage", daemon=True).start()

    def _serve(self) -> None:
        while True:
            outer, _ = self._listening.accept()
            try:
                inner = socket.create_connection((HOST, self._port), 5)
            except OSError:
                outer.close()
                continue
            for source, target in ((outer, inner), (inner, outer)):
                threading.Thread(target=self._pump, args=(source, target), daemon=True).start()

    @staticmethod
    def _pump(source: socket.socket, target: socket.socket) -> None:
        try:
            while data := source.recv(65536):
                target.sendall(data)
            target.shutdown(socket.SHUT_WR)
        except OSError:
            pass
