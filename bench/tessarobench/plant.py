"""The whole installation under load: what the soak and the scenarios stand on."""

from __future__ import annotations

import itertools
import random
from typing import Callable, Optional

from . import glink
from .account import Account
from .basecontroller import RETRY_SECONDS
from .books import UNIT_SERVICES, Books, Sight, Watch
from .installation import CONFIG_VALUES, IDENTITY, Installation
from .ledger import Ledger
from .newestbook import NUMBER_TAG
from .remoteunit import RemoteUnit

NOMINAL_PACE, PACE = 1, 10
# Nominal, per second: process images, periodic data, commands, service messages, events and questions of the base
# controller; commands, periodic data and service messages of each unit; sets and commands of the machine controller;
# requests of the local tool.
IMAGES, PERIODIC, COMMANDS, SERVICES, EVENTS, QUESTIONS = 50, 4, 1, 2, 0.5, 0.5
UNIT_COMMANDS, UNIT_PERIODIC, UNIT_SERVICE = 1, 1.3, 0.7  # out of step, so that each finds its moment
SETS, ORDERS, REQUESTS = 4, 0.5, 1
STEADY, WANDERER, RESTLESS = 1001, 1002, 1003

# Answers carry no key: on a bad line one may be taken for the next key's, and must say the same.
SETTING = 7
PATIENT_SECONDS = 2.0
AN_EVENT = 42  # one that changes nothing
LAST_SET_SECONDS = 0.3  # for the machine controller's last set to be with every unit


class Plant:
    """A base unit that serves three units and a machine controller. `load` makes all of them talk, `calm` ends that and
    every impairment, `close_books` tells where everything went. `seed` draws the local tool's requests; `record` gets
    everything that the books are told."""

    def __init__(self, bench: Installation, seed: int = 1, record: Optional[list[Sight]] = None):
        self.bench, self.controller_talks = bench, True
        self._requests = random.Random(seed)
        self._timers = []
        self._record = record
        self._bring_up()
        self.open_books()

    def _bring_up(self) -> None:
        bench = self.bench
        bench.pair_units(3)
        bench.mc
        bench.bc.retry_seconds = PATIENT_SECONDS  # no repeat whose acknowledgement would come when the books are open
        bench.bc.config = dict.fromkeys(CONFIG_VALUES, SETTING)
        bench.start_to_serve()
        bench.server.wait_log("JOIN RX MULTICAST SUCCESS", whole=True)
        self.units = [bench.unit(unit).join().wait_joined() for unit in (STEADY, WANDERER, RESTLESS)]
        self.steady, self.wanderer, self.restless = self.units
        bench.fallback
        shown = {**dict.fromkeys(CONFIG_VALUES, str(SETTING)), "BU_ID": str(IDENTITY)}
        bench.wait_for(lambda: bench.api.status.items() >= shown.items(), what="all settings and the identity shown")
        bench.api.settle()  # pushes that were still on their way would enter no book
        bench.wait_for(lambda: bench.bc.idle)
        bench.bc.retry_seconds = RETRY_SECONDS

    def load(self, pace: float = PACE) -> None:
        bench, books = self.bench, self.books
        numbers, units = itertools.count(1), itertools.cycle(self.units)
        images = itertools.count(1)
        load = [(IMAGES, lambda: bench.bc.set(**{NUMBER_TAG: next(images) & 0xFFFF}) if bench.bc.idle else None),
                (PERIODIC, lambda: bench.bc.periodic(next(numbers).to_bytes(8, "little"))),
                (COMMANDS, lambda: bench.bc.command(books.commands.issue())),
                (SERVICES, lambda: bench.fallback.send_short(next(units).id, books.service_messages.issue())),
                (EVENTS, lambda: bench.bc.event(AN_EVENT)),
                (QUESTIONS, lambda: bench.bc.ask("CCH1")),
                (SETS, lambda: self.controller_talks and bench.mc.send_set(next(numbers).to_bytes(32, "little"))),
                (ORDERS, lambda: self.controller_talks and bench.mc.command(books.orders.issue())),
                (REQUESTS, lambda: bench.api.send(self._random_request()))]
        self._timers = [bench.loop.call(bench.loop.every, 1 / (rate * pace), action) for rate, action in load]
        for unit in self.units:
            unit.command_every(1 / (UNIT_COMMANDS * pace))
            unit.send_every(1 / (UNIT_PERIODIC * pace), lambda: (glink.PERIODIC_DATA, bytes(16)))
            unit.send_every(1 / (UNIT_SERVICE * pace), self._service_messages(unit))

    def _service_messages(self, unit: RemoteUnit) -> Callable[[], tuple[int, bytes]]:
        numbers = Ledger(UNIT_SERVICES + unit.id)
        return lambda: (glink.SERVICE_FORWARD, numbers.issue())

    def _random_request(self) -> bytes:
        return self._requests.choice((b"GET", b"GET", b"DISARM", b"RESET"))

    def calm(self) -> None:
        """No more load and no more faults; what is under way arrives."""
        bench = self.bench
        for timer in self._timers:
            timer.cancel()
        for unit in self.units:
            unit.quiet()
        for impairment in (bench.bc.to_base_unit, bench.bc.from_base_unit, bench.mc.to_base_unit, bench.mc.acks,
                           *(unit.from_base_unit for unit in self.units)):
            impairment.clear()
        bench.mc.cycle(bytes(32))  # its silence would be a fault
        bench.wait_for(lambda: bench.bc.idle and all(unit.idle for unit in self.units), 20, "idle senders")
        log = bench.server.logged("RUN")
        bench.wait_for(lambda: log and bench.relay.closed, 10, "the relay closed")
        self._pass_through()

    def _pass_through(self) -> None:
        """Behind the last of everything: what went before it has arrived, or never will."""
        bench = self.bench
        last = bench.bc.command(self.books.commands.issue())
        bench.wait_for(lambda: last.acked, 5)
        for unit in self.units:
            sent = unit.command()
            bench.wait_for(lambda: sent.acked, 5)
        bench.api.get()
        self.bench.let_pass(1.0)  # more than any repetition of the internal link takes

    def open_books(self, before: Optional[Books] = None) -> None:
        """When nothing is under way; `before` are the books that were closed last."""
        self.watch = Watch(self.bench, [unit.id for unit in self.units], self._record, before)
        self.books = self.watch.books

    def close_books(self) -> list[Account]:
        """What became of everything. The controller is silent from now on, and its last set is with every unit."""
        self.bench.mc.silence()
        self.bench.let_pass(LAST_SET_SECONDS)
        return self.watch.close()
