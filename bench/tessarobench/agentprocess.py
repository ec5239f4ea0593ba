"""The agent as a process beside a server on a board: it lives in the board's network, and is heard where its socket was made."""

from __future__ import annotations

import os
import shutil
import socket
import subprocess
import sys
import time
from pathlib import Path

from .installation import Installation
from .journal import FROM_BASE_UNIT, Event
from .serverprocess import LINK

AGENT = Path(__file__).resolve().parents[2] / "tools" / "tessaro-agent"
FORWARD_PORT = 6253  # where the bench's own local tool hears what the agent passes on
_FIRST_INHERITED = 3
_END_SECONDS = 5.0


def stamp() -> str:
    """Now, as the server writes it."""
    now = time.time()
    return time.strftime("%Y%m%d %H:%M:%S", time.localtime(now)) + f".{int(now * 1000) % 1000:03d}"


class AgentProcess:
    """Runs from construction to `close`. `listening` stays the caller's; `folder` keeps the log and, over several of them, the
    history. The board's own local tool must be made with `FORWARD_PORT`, as there is one owner of the other."""

    def __init__(self, bench: Installation, listening: socket.socket, folder: Path, *options: str):
        self._bench = bench
        self._log = open(folder / "server.log", "w", encoding="utf-8", buffering=1)
        bench.loop.call(bench.journal.listeners.append, self._event)
        self._process = self._start(listening, folder, options)

    def _start(self, listening: socket.socket, folder: Path, options: tuple[str, ...]) -> subprocess.Popen:
        nsenter = shutil.which("nsenter", path=os.environ.get("PATH", "") + ":/usr/bin:/sbin")
        command = [nsenter, f"--net={self._bench.board_network}", "--", sys.executable, str(AGENT),
                   "--log", str(folder / "server.log"), "--state", str(folder), "--gpio", str(self._bench.gpio),
                   "--root", str(self._bench.applications), "--forward", str(FORWARD_PORT), *options]
        number = listening.fileno()

        def hand_over() -> None:
            os.dup2(number, _FIRST_INHERITED, inheritable=True)
        with open(folder / "agent.log", "ab") as said:
            return subprocess.Popen(command, env={**os.environ, "LISTEN_FDS": "1"}, pass_fds=[_FIRST_INHERITED],
                                    preexec_fn=hand_over, stdin=subprocess.DEVNULL, stdout=said, stderr=said,
                                    start_new_session=True)

    @property
    def running(self) -> bool:
        return self._process.poll() is None

    @property
    def pid(self) -> int:
        return self._process.pid

    def close(self) -> None:
        self._bench.loop.call(self._bench.journal.listeners.remove, self._event)
        self._process.terminate()
        try:
            self._process.wait(_END_SECONDS)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()
        self._log.close()

    def _event(self, event: Event) -> None:
        """On the loop's thread: the server's log goes on into the file that the agent follows."""
        if event.link == LINK and event.direction == FROM_BASE_UNIT:
            self._log.write(f"{stamp()} - {event.text}\n")
