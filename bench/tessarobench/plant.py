"""The whole installation under load: what the soak and the scenarios stand on."""

from __future__ import annotations

import random

from .account import Account
from .books import Books
from .installation import Installation

PACE = 10
# Nominal, per second: process images, periodic data and commands of the base controller, commands of each unit, sets and
# commands of the machine controller, requests of the local tool.
IMAGES, PERIODIC, COMMANDS, UNIT_COMMANDS, SETS, ORDERS, REQUESTS = 50, 4, 1, 1, 4, 0.5, 1
STEADY, WANDERER, RESTLESS = 1001, 1002, 1003


class Plant:
    """A base unit that serves three units and a machine controller. `load` makes all of them talk, `calm` ends that and
    every impairment, `close_books` tells where everything went. `seed` draws the local tool's requests."""

    def __init__(self, bench: Installation, seed: int = 1):
        self.bench, self.controller_talks = bench, True
        self._requests = random.Random(seed)
        self._timers = []
        self._bring_up()

    def _bring_up(self) -> None:
        bench = self.bench
        bench.pair_units(3)
        bench.mc
        bench.start_to_serve()
        bench.server.wait_log("JOIN RX MULTICAST SUCCESS", whole=True)
        self.units = [bench.unit(unit).join().wait_joined() for unit in (STEADY, WANDERER, RESTLESS)]
        self.steady, self.wanderer, self.restless = self.units
        bench.fallback
        self.books = Books(bench, self.units)

    def load(self, pace: float = PACE) -> None:
        bench, loop = self.bench, self.bench.loop
        counter = iter(range(1, 1 << 30))
        load = [(IMAGES, lambda: bench.bc.set(trim=next(counter) % 1000) if bench.bc.idle else None),
                (PERIODIC, lambda: bench.bc.periodic(next(counter).to_bytes(8, "little"))),
                (COMMANDS, lambda: bench.bc.command(self.books.commands.issue())),
                (SETS, lambda: self.controller_talks and bench.mc.send_set(next(counter).to_bytes(32, "little"))),
                (ORDERS, lambda: self.controller_talks and bench.mc.command(self.books.orders.issue())),
                (REQUESTS, lambda: bench.api.send(self._random_request()))]
        self._timers = [loop.call(loop.every, 1 / (rate * pace), action) for rate, action in load]
        for unit in self.units:
            unit.command_every(1 / (UNIT_COMMANDS * pace))

    def _random_request(self) -> bytes:
        return self._requests.choice((b"GET", b"GET", b"DISARM"))

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
        until = bench.journal.now + 1.0  # more than any repetition of the internal link takes
        bench.wait_for(lambda: bench.journal.now > until, 5, poll=0.1)

    def close_books(self) -> list[Account]:
        return self.books.close()
