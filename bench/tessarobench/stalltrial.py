"""One trial: a stall, and in the middle of it something that must open the relay, or be decided on, in time.

What begins is timed before its bytes leave, and what happens when it is seen, so that a busy bench makes a time longer and never
shorter.
"""

from __future__ import annotations

import contextlib
import os
import random
import signal
import socket
import struct
import subprocess
from pathlib import Path
from typing import Callable, NamedTuple, Optional

from . import internallink as il
from .apiclient import REQUEST_PORT
from .installation import APP, IDENTITY, KEYS, Installation
from .journal import FROM_BASE_UNIT, TO_BASE_UNIT
from .remotepaths import ADDRESS
from .stalls import Stall

ARMED, ARMED_STATE = 1001, 17
NEVER_SECONDS = 3.0  # what has not happened by then, will not
SETTLED_SECONDS = 2.0
UP_SECONDS = 60.0  # a start takes longer beside others, and is not what is measured
RELAY_LIMIT, DECISION_LIMIT = 0.700, 0.020

_DECISION_LIBRARY, _DECISION_FILE = "/home/root/decision.so", "/home/root/decision"
_PRIORITY = 60


def build_library(folder: Path) -> Path:
    """The library that tells when the hub has decided (see bench/decision.c)."""
    source, library = Path(__file__).parents[1] / "decision.c", folder / "decision.so"
    subprocess.run(["gcc", "-shared", "-fPIC", "-O1", "-o", str(library), str(source), "-ldl"], check=True)
    return library


class Outcome(NamedTuple):
    """How long it took; None: it did not happen. `remark` says what else was seen."""

    seconds: Optional[float]
    remark: str = ""


class Trial:
    """A board, a server, an armed unit, and the stall, on which one event can be tried. Leave it through `with`."""

    def __init__(self, server: Path, stall: type[Stall], library: Path, seed: int = 1, hold: float = 0.0):
        self._random = random.Random(seed)
        self._hold = hold
        self._last_ack = 0.0
        self.bench = Installation(server)
        try:
            self.stall = stall(self.bench)
            self.stall.lay()
            self._lay_decision(library)
        except BaseException:
            self.bench.close()
            raise

    def __enter__(self) -> "Trial":
        return self

    def __exit__(self, *_exception: object) -> None:
        with contextlib.ExitStack() as closing:
            closing.callback(self.bench.close)
            closing.callback(self.stall.end)
            relax()

    # --- the way to an armed unit, without a look at the log ---------------------------------------------------------

    def arm(self) -> None:
        """Everything up and running, and a unit armed. Raises WaitTimeout when the server does not get there."""
        bench = self.bench
        bench.change(APP, "EMAP", value=0)
        asked = sum(row.get("from") == "BC" for file in (APP, KEYS) for row in bench.table(file))
        bench.loop.call(bench.bc.line.taps.append, self._line_tapped)
        assert bench.api
        bench.start(**self._options())
        bench.server.wait_listening(socket.SOCK_DGRAM, REQUEST_PORT, UP_SECONDS)
        bench.wait_for(lambda: bench.bc.received["ask"] >= asked, UP_SECONDS, "the configuration pass")
        bench.bc.set(bu_identity=IDENTITY)
        bench.server.wait_listening(socket.SOCK_STREAM, ADDRESS[1], UP_SECONDS)
        bench.unit(ARMED).join().wait_joined(UP_SECONDS)
        bench.bc.set(bu_state=ARMED_STATE, armed_ru=ARMED)
        bench.wait_for(lambda: (bench.api.tag("BU_STATE"), bench.api.tag("ARMED_RU")) == (str(ARMED_STATE), str(ARMED)),
                       UP_SECONDS, "an armed unit")
        bench.wait_for(lambda: bench.relay.closed and bench.bc.idle, UP_SECONDS, "a closed relay")
        hurry()

    def begin(self) -> None:
        """The stall, and some time in it, so that the event hits any moment of the server's cycles."""
        self.stall.begin()
        self.bench.let_pass(self._hold + self._random.uniform(0.0, 0.5))

    def openings(self, mark: int) -> int:
        """How often the relay has opened since then: with a base controller that answers, each is a link lost."""
        return self.bench.journal.count("gpio", FROM_BASE_UNIT, "drive", since=mark, value="0")

    # --- events ------------------------------------------------------------------------------------------------------

    def silence(self) -> Outcome:
        """The base controller falls silent: from its last acknowledgement to the drive line at 0."""
        if not self._settled():
            return Outcome(0.0, "the relay was open already")
        self.bench.loop.call(self.bench.bc.mute)
        return self._opened(lambda: self._last_ack)

    def machine_stop(self) -> Outcome:
        """Of the armed unit: from its last byte to the hub's decision."""
        if not self._settled():
            return Outcome(None, "the relay was open already")
        if not self.bench.unit(ARMED).connected:
            return Outcome(None, self._end() or "the armed unit has lost its connection")
        began = self.stall.machine_stop(self.bench.unit(ARMED))
        with contextlib.suppress(AssertionError):
            self.bench.wait_for(lambda: self._decided() > 0, NEVER_SECONDS, "a decision", poll=0.005)
        return Outcome(self._decided() - began if self._decided() > 0 else None, self._end())

    def terminate(self) -> Outcome:
        """SIGTERM, to the drive line at 0."""
        if not self._settled():
            return Outcome(0.0, "the relay was open already")
        began = self.bench.journal.now
        self.bench.server.signal(signal.SIGTERM)
        return self._opened(lambda: began)

    def _settled(self) -> bool:
        """A stall may have cost the link, and it comes back: only a closed relay can be opened."""
        with contextlib.suppress(AssertionError):
            self.bench.wait_for(lambda: self.bench.relay.driven == "1", SETTLED_SECONDS)
        return self.bench.relay.driven == "1"

    def _opened(self, began: Callable[[], float]) -> Outcome:
        bench = self.bench
        with contextlib.suppress(AssertionError):
            bench.wait_for(lambda: bench.relay.driven == "0" or not bench.server.running, NEVER_SECONDS, "the relay opens")
        if bench.relay.driven != "0":
            return Outcome(None, self._end())
        seconds = bench.journal.last("gpio", FROM_BASE_UNIT, "drive").time - began()
        return Outcome(seconds) if seconds > 0 else Outcome(0.0, "the relay had just opened")

    def _end(self) -> str:
        status = self.bench.server.exit_status
        return "" if status is None else f"the server ended with {status}"

    # --- time stamps ---------------------------------------------------------------------------------------------------

    def _of_journal(self, monotonic: float) -> float:
        return monotonic - self.bench.journal.began

    def _line_tapped(self, direction: str, data: bytes) -> None:
        """Before the bytes are written."""
        packet = il.parse(data) if direction == TO_BASE_UNIT else None
        if packet and packet.message_class == il.ACK:
            self._last_ack = self.bench.journal.now

    def _decided(self) -> float:
        """When, on the journal's clock; negative: not yet."""
        nanoseconds, = struct.unpack("q", os.pread(self._decision, 8, 0))
        return self._of_journal(nanoseconds / 1e9) if nanoseconds else -1.0

    # --- preparations ----------------------------------------------------------------------------------------------------

    def _lay_decision(self, library: Path) -> None:
        content = library.read_bytes()
        self.bench.on_board(lambda: Path(_DECISION_LIBRARY).write_bytes(content))
        self.bench.on_board(lambda: Path(_DECISION_FILE).write_bytes(bytes(8)))
        self._decision = self.bench.on_board(os.open, _DECISION_FILE, os.O_RDONLY | os.O_CLOEXEC)

    def _options(self) -> dict:
        options = self.stall.options
        sanitizer = os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
        env = {"LD_PRELOAD": _DECISION_LIBRARY, "TESSARO_DECISION": _DECISION_FILE, "ASAN_OPTIONS": sanitizer}
        return {**options, "env": {**env, **options.get("env", {})}}


class Event(NamedTuple):
    """What happens in a trial, in words; what it must not exceed, in seconds; and how it is tried."""

    title: str
    limit: float
    happen: Callable[[Trial], Outcome]


EVENTS: dict[str, Event] = {
    "silence": Event("the base controller falls silent", RELAY_LIMIT, Trial.silence),
    "stop": Event("machine stop of the armed unit", DECISION_LIMIT, Trial.machine_stop),
    "sigterm": Event("SIGTERM", RELAY_LIMIT, Trial.terminate),
}


def hurry() -> None:
    """The peers are hardware, in truth: where we may, all threads of the bench go before everything else that runs here, the
    server included. What we start does not inherit that."""
    _schedule(os.SCHED_FIFO, _PRIORITY)


def relax() -> None:
    """The laying of a board must not hold up the trials beside it."""
    _schedule(os.SCHED_OTHER, 0)


def _schedule(policy: int, priority: int) -> None:
    with contextlib.suppress(PermissionError):
        for thread in os.listdir("/proc/self/task"):
            with contextlib.suppress(ProcessLookupError):
                os.sched_setscheduler(int(thread), policy | os.SCHED_RESET_ON_FORK, os.sched_param(priority))


def attempt(server: Path, stall: type[Stall], event: str, library: Path, seed: int = 1, hold: float = 0.0) -> Outcome:
    """What was measured stands, also when the board cannot be cleared away afterwards; the remark says so then. With `hold`,
    the stall lasts that many seconds before the event, and a link lost meanwhile is a try that failed."""
    outcome = Outcome(None, "not tried")
    try:
        with Trial(server, stall, library, seed, hold) as trial:
            outcome = _in_trial(trial, event, hold)
    except AssertionError as failure:
        return outcome._replace(remark=f"{outcome.remark} (clearing away: {_first_line(failure)})".strip())
    return outcome


def _in_trial(trial: Trial, event: str, hold: float) -> Outcome:
    try:
        trial.arm()
    except AssertionError as failure:
        return Outcome(None, f"did not come up, {_first_line(failure)}")
    mark = trial.bench.journal.mark()
    trial.begin()
    if hold and trial.openings(mark):
        return Outcome(None, f"the relay opened {trial.openings(mark)} times in {hold:g} s")
    return EVENTS[event].happen(trial)


def _first_line(failure: AssertionError) -> str:
    return (str(failure).splitlines() or ["no reason"])[0]
