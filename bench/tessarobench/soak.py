"""A long run of the whole installation with seeded faults, and its closing of the books: in real time at ten times the nominal
pace, or in virtual time at the nominal one.

Books keep everything until they are closed, so a run has chapters: after each of them all becomes quiet, the books are closed,
and new ones are opened on the same server.
"""

from __future__ import annotations

import gc
import random
from pathlib import Path
from typing import Callable, NamedTuple, Optional

from . import clock
from .account import Total, slope, statement
from .capturefile import CaptureFile
from .installation import Installation
from .plant import NOMINAL_PACE, PACE, Plant
from .remoteunit import RemoteUnit
from .serverprocess import Usage

PAUSE = (10.0, 30.0)  # seconds between two faults, at the nominal pace
SAMPLES = 500         # of the figures at most
SHORTEST_PERIOD = 0.5  # between two samples
CHAPTER = 3600.0    # seconds, at the nominal pace
OPENING = 1.0       # seconds of a chapter in which nothing breaks: what is kept for a unit then is in the books
JOURNAL = 20_000    # events of each kind
WARM_UP = 0.3       # the part of a run in which memory may still find its size
RESIDENT_GROWTH = 2 << 20  # bytes over the whole run, by the slope
DESCRIPTOR_GROWTH = 4      # connections come and go meanwhile


class Sample(NamedTuple):
    when: float
    usage: Usage


class Soak:
    """`run` returns the violations, in words; none is what one hopes for. `say` gets what happens, line by line, and
    `capture`, when set, what crosses the links. With `virtual_time` (the library) it lasts so many seconds of that."""

    def __init__(self, server: Path, seed: int, say: Callable[[str], None], virtual_time: Optional[Path] = None):
        self._server, self._seed, self._random, self._say = server, seed, random.Random(seed), say
        self._virtual_time, self._pace = virtual_time, NOMINAL_PACE if virtual_time else PACE
        self.faults: dict[str, int] = {}
        self.capture: Optional[CaptureFile] = None

    def run(self, seconds: float, chapter: float = CHAPTER) -> list[str]:
        """For so many seconds, without those that it takes between two chapters."""
        gc.disable()  # nearly all that is made is kept until the books are closed
        try:
            with Installation(self._server, capture=self.capture, virtual_time=self._virtual_time) as bench:
                return self._run_on(bench, seconds, chapter / self._pace)
        finally:
            gc.enable()

    def _run_on(self, bench: Installation, seconds: float, chapter: float) -> list[str]:
        self.bench, bench.journal.keep = bench, JOURNAL
        self.plant = Plant(bench, self._seed)
        self._wanderer, self._restless = self.plant.wanderer, self.plant.restless
        before, self._began, samples = self._settled(5), clock.monotonic(), []
        totals: dict[str, Total] = {}
        while seconds > 0:
            self._impair()
            self.plant.load(self._pace)
            samples += self._endure(min(seconds, chapter), max(SHORTEST_PERIOD, seconds / SAMPLES))
            self.plant.calm()
            for account in self.plant.close_books():
                totals.setdefault(account.name, Total(account.name, account.exact)).add(account)
            seconds -= chapter
            if seconds > 0:
                self._turn_page()
        for line in statement(totals.values()):
            self._say(line)
        violations = [violation for total in totals.values() for violation in total.violations]
        violations += self._judge_figures(before, samples)
        bench.loop.raise_failure()
        return violations

    def _turn_page(self) -> None:
        """New books; what nobody will ask for any more is forgotten."""
        bench, relay = self.bench, self.bench.fallback
        bench.api.settle()
        bench.server.log[:] = [line for line in bench.server.log if line.text == "RUN"][-1:]
        for kept in (relay.blocks, relay.shorts, relay.early, *(unit.received for unit in self.plant.units)):
            kept.clear()
        self.plant.open_books(self.plant.books)
        gc.collect()

    # --- all the time -----------------------------------------------------------------------------------------------

    def _impair(self) -> None:
        """All the time, on every link; damage on TCP is a fault of its own, as it costs the connection."""
        bench, seed = self.bench, self._seed
        bench.bc.to_base_unit.chances(seed, loss=0.01, corrupt=0.01, duplicate=0.005, delay=(0, 0.002))
        bench.bc.from_base_unit.chances(seed + 1, loss=0.01, corrupt=0.01, duplicate=0.005)
        bench.mc.to_base_unit.chances(seed + 2, loss=0.02, corrupt=0.02, duplicate=0.02, delay=(0, 0.005))
        bench.mc.acks.chances(seed + 3, loss=0.1)
        for unit in self.plant.units:
            unit.from_base_unit.chances(seed + unit.id, delay=(0, 0.003))

    # --- faults ----------------------------------------------------------------------------------------------------

    def _endure(self, seconds: float, period: float) -> list[Sample]:
        bench, began, samples = self.bench, clock.monotonic(), []

        def look() -> None:
            samples.append(Sample(clock.monotonic() - self._began, bench.server.usage()))

        sampler = bench.loop.call(bench.loop.every, period, look)
        self.bench.let_pass(OPENING / self._pace)
        faults = (self._mute_controller, self._lose_network, self._reconnect, self._damage_stream,
                  self._silence_machine_controller, self._slow_unit)
        while clock.monotonic() - began < seconds:
            fault = self._random.choice(faults)
            name = fault.__name__.strip("_").replace("_", " ")
            self.faults[name] = self.faults.get(name, 0) + 1
            self._say(f"{clock.monotonic() - self._began:8.1f} s  {name}")
            fault()
            self.bench.let_pass(self._random.uniform(*PAUSE) / self._pace)
        sampler.cancel()
        bench.loop.call(look)
        return samples

    def _mute_controller(self) -> None:
        bench, log = self.bench, len(self.bench.server.log)
        bench.bc.mute()
        bench.wait_for(lambda: not bench.relay.closed, 5, "the relay opens")
        self.bench.let_pass(self._random.uniform(0, 1))
        bench.bc.mute(False)
        bench.server.wait_log("RUN", 10, since=log, whole=True)

    def _lose_network(self) -> None:
        """Out of reach, on the fallback for a while, and back. On a bad UART the fallback may break: tried again."""
        bench, unit = self.bench, self._wanderer
        unit.lose_network()
        for _ in range(10):
            joins = unit.joins
            unit.join_fallback()
            if self._within(2, lambda: unit.joins > joins):
                break
        self.bench.let_pass(self._random.uniform(0.5, 2))
        self._back(unit)

    def _reconnect(self) -> None:
        """Half open, reset, or superseded."""
        unit = self._restless
        self._random.choice((lambda: unit.leave(), lambda: unit.leave(hard=True), lambda: unit.forget_connection(False),
                             lambda: unit.forget_connection(True)))()
        self._back(unit)

    def _damage_stream(self) -> None:
        unit, ends = self._restless, len(self._restless.ends)
        unit.send_raw(bytes(17))
        self.bench.wait_for(lambda: len(unit.ends) > ends, 5, "a damaged stream is ended")
        self._back(unit)

    def _back(self, unit: RemoteUnit) -> None:
        joins = unit.joins
        unit.join()
        self.bench.wait_for(lambda: unit.joins > joins and unit.path == "TCP", 10, f"unit {unit.id} is back on TCP")

    def _silence_machine_controller(self) -> None:
        self.plant.controller_talks = False
        self.bench.let_pass(self._random.uniform(0.5, 3))
        self.plant.controller_talks = True

    def _slow_unit(self) -> None:
        self._restless.ack_delay = 0.1
        self.bench.let_pass(1)
        self._restless.ack_delay = 0.0

    def _within(self, seconds: float, condition: Callable[[], bool]) -> bool:
        try:
            self.bench.wait_for(condition, seconds)
            return True
        except AssertionError:
            return False

    # --- judgement -------------------------------------------------------------------------------------------------

    def _settled(self, timeout: float) -> Usage:
        """Its figures when threads and descriptors have stood for a second."""
        history: list[Usage] = []

        def steady() -> bool:
            history.append(self.bench.server.usage())
            return len(history) >= 10 and len({usage[2:4] for usage in history[-10:]}) == 1

        self.bench.wait_for(steady, timeout, "threads and descriptors stand", poll=0.1)
        return history[-1]

    def _judge_figures(self, before: Usage, samples: list[Sample]) -> list[str]:
        after, late = self._settled(10), samples[int(len(samples) * WARM_UP):]
        memory = 60 * slope((when, usage.resident_bytes) for when, usage in late)
        descriptors = 60 * slope((when, usage.descriptors) for when, usage in late)
        self._say(f"resident memory {before.resident_bytes // 1024} -> {after.resident_bytes // 1024} KiB, "
                  f"slope {memory / 1024:+.1f} KiB a minute; descriptors {before.descriptors} -> {after.descriptors}, "
                  f"slope {descriptors:+.2f} a minute; threads {before.threads} -> {after.threads}")
        minutes = samples[-1].when / 60
        tells_nothing = self.bench.server.sanitized
        if tells_nothing:
            self._say("Resident memory is not judged: the server runs with a sanitizer.")
        judged = ((tells_nothing or memory * minutes < RESIDENT_GROWTH, "resident memory grows"),
                  (descriptors * minutes < DESCRIPTOR_GROWTH, "descriptors grow"),
                  (after.threads <= before.threads and after.descriptors <= before.descriptors,
                   "threads and descriptors are not back where they were"))
        return [text for good, text in judged if not good]
