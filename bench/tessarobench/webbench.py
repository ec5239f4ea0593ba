"""`make run WEB=1`: the simulated installation in the browser, the unit's own page and the bench's controls beside it.

One installation stands at a time. A scene, or another beginning, lays a fresh one; the agent of each goes on with the history
and the address of the one before.
"""

from __future__ import annotations

import contextlib
import queue
import socket
import struct
import tempfile
import threading
from pathlib import Path
from typing import Any, Iterator, NamedTuple, Optional

from . import scenes
from .agentprocess import FORWARD_PORT, AgentProcess
from .apiclient import REQUEST_PORT
from .capturefile import CaptureFile
from .faults import OTHER_UNIT, UNIT, Faults
from .feed import Feed
from .installation import APP, IDENTITY, KEYS, Installation
from .journal import Event
from .narrator import Narrator
from .remotepaths import ADDRESS
from .stalls import STALLS, Stall

NORMAL = ""  # no scene: an installation in normal operation
STALL = "stall:"  # before the name of a stall: normal operation, and then something stands still
START_SECONDS = 10.0
UNITS = (UNIT, OTHER_UNIT)
DISARMED, ARMED = 16, 17
# Scenes count what the base unit says over the API: what the agent is told on its own question would be too much.
ASK_SECONDS, SELDOM_SECONDS = 2, 3600
READY = struct.pack("<H", 1) + struct.pack(">H", 180) + struct.pack("<f4s20s", 42.5, b"\x05\0\0\0", b"ready")


class Outcome(NamedTuple):
    scene: str
    ok: bool
    text: str


class Teller(Narrator):
    """Tells the story of a scene to a feed, and nothing of it to the terminal."""

    def __init__(self, bench: Installation, feed: Feed):
        super().__init__(bench.journal, quiet=True)
        self._feed = feed

    def heading(self, text: str) -> None:
        self._feed.tell("heading", text)

    def say(self, text: str) -> None:
        self._feed.tell("say", text)

    def result(self, ok: bool, text: str) -> None:
        self._feed.tell("ok" if ok else "failed", text)

    def plain(self, text: str) -> None:
        self._feed.tell("say", text)


class Ending:
    """A stall, to be ended with the board."""

    def __init__(self, stall: Stall):
        self.close = stall.end


class Mirror:
    """In normal operation the base controller shows back in its image what the base unit's status record tells it."""

    def __init__(self, bench: Installation):
        self._bench, self._shown = bench, {}
        bench.loop.call(bench.journal.listeners.append, self._event)

    def _event(self, event: Event) -> None:
        if (event.link, event.direction, event.kind) != ("uart", "<", "status"):
            return
        told = {"eglink_stat_out": event.eglink, "unarmed_rus": max(event.units - 1, 0)}
        if told != self._shown:
            self._shown = told
            self._bench.loop.post(lambda: self._bench.bc.set(**told))


def bring_up(bench: Installation, **options: Any) -> None:
    """Normal operation: the link in RUN, two units joined, one of them armed, the machine controller talking. It looks at no
    log, which may be what stands still."""
    assert bench.mc and bench.api and bench.fallback
    asked = sum(row.get("from") == "BC" for file in (APP, KEYS) for row in bench.table(file))
    controller = bench.bc
    bench.start(**options)
    bench.server.wait_listening(socket.SOCK_DGRAM, REQUEST_PORT, START_SECONDS)
    bench.wait_for(lambda: controller.received["ask"] >= asked, START_SECONDS, "the configuration pass")
    controller.set(bu_identity=IDENTITY, bu_state=DISARMED, tsaps=2, eclink_status=1, clink_status=1)
    bench.server.wait_listening(socket.SOCK_STREAM, ADDRESS[1], START_SECONDS)
    Mirror(bench)
    bench.mc.cycle(READY)
    for unit in UNITS:
        bench.unit(unit).join().wait_joined(START_SECONDS)
        bench.unit(unit).rejoin_after = 1.0
    controller.set(bu_state=ARMED, armed_ru=UNIT, ru_state=1)


class WebBench:
    """Everything that the front asks for. Methods may be called from any thread but `run`, which is the main thread's.

    `agent_socket` is where the agent listens; `origins` are those of the pages that may show the unit's page inside them.
    """

    def __init__(self, server: Path, agent_socket: socket.socket, origins: str):
        self._server, self._agent_socket, self._origins = server, agent_socket, origins
        self._orders: queue.SimpleQueue = queue.SimpleQueue()
        self._folder: Optional[Path] = None
        self._bench: Optional[Installation] = None
        self._lock = threading.Lock()
        self.feed, self.scenes = Feed(), scenes.load()
        self.faults: Optional[Faults] = None
        self.playing: Optional[str] = None
        self.outcome: Optional[Outcome] = None
        self.capture_path: Optional[Path] = None

    @property
    def agent_port(self) -> int:
        return self._agent_socket.getsockname()[1]

    def press(self, name: str) -> str:
        """Begins or ends a fault; returns why it could not, or nothing."""
        with self._lock:
            if self.faults is None:
                return "no installation stands at the moment"
            if self.playing is not None:
                return "what is playing is not to be disturbed"
            what = self.faults[name].what + (" (over)" if name in self.faults.on else "")
            reason = self.faults.press(name)
            self.feed.tell("fault", f"{what}: {reason}" if reason else what)
            return reason

    def begin(self, scene: str) -> None:
        """Lays a fresh installation, for a scene or for NORMAL operation."""
        self._orders.put(scene)

    def end(self) -> None:
        self._orders.put(None)

    def run(self, first: str = NORMAL) -> None:
        """One installation after the other, until `end`."""
        with tempfile.TemporaryDirectory(prefix="tessaro-bench-") as folder:
            self._folder = Path(folder)
            scene: Optional[str] = first
            while scene is not None:
                scene = self._one(scene)

    def _one(self, scene: str) -> Optional[str]:
        """Stands until the next order comes, which it returns."""
        self.capture_path = self._folder / "bench.pcapng"
        capture = CaptureFile(self.capture_path, "bench/run --web")
        with Installation(self._server, capture=capture) as bench:
            bench.reply_port = FORWARD_PORT
            bench.api  # hears what the agent passes on
            bench.loop.call(bench.journal.listeners.append, self.feed.event)
            agent = bench.closing(AgentProcess(bench, self._agent_socket, self._folder, "--allow-control", "--interval",
                                               str(ASK_SECONDS if scene not in self.scenes else SELDOM_SECONDS),
                                               "--frame-from", self._origins))
            assert agent.running
            with self._standing(bench, scene):
                self._play(bench, scene)
                self.playing = None
                return self._orders.get()

    @contextlib.contextmanager
    def _standing(self, bench: Installation, scene: str) -> Iterator[None]:
        with self._lock:
            self._bench, self.faults, self.playing = bench, Faults(bench), scene
        try:
            yield
        finally:
            with self._lock:
                self._bench = self.faults = None

    def _play(self, bench: Installation, name: str) -> None:
        teller = Teller(bench, self.feed)
        try:
            if name == NORMAL or name.startswith(STALL):
                self._operate(bench, name, teller)
                return
            stage = scenes.Stage(bench, teller)
            for scene in scenes.with_needs([name]):
                teller.heading(scene.title)
                scene.play(stage)
                bench.loop.raise_failure()
            self.outcome = Outcome(name, True, "everything came out as told")
        except (AssertionError, OSError) as failure:
            self.outcome = Outcome(name, False, (str(failure) or type(failure).__name__).splitlines()[0])
            self.feed.tell("failed", self.outcome.text)

    def _operate(self, bench: Installation, name: str, teller: Teller) -> None:
        """Normal operation, or with one thing that stands still from then on."""
        stall = STALLS[name[len(STALL):] or "nothing"](bench)
        reason = stall.refused()
        if reason:
            raise AssertionError(f"this machine cannot do that: {reason}")
        bench.closing(Ending(stall))
        stall.lay()
        teller.heading("Normal operation")
        bring_up(bench, **stall.options)
        stall.begin()
        self.outcome = Outcome(name, True, "everything is in normal operation" if name == NORMAL
                               else f"in normal operation, but for this: {stall.title}")
        teller.say(self.outcome.text)
