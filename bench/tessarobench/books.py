"""The books of a whole installation: who takes what in and out, and what the rules drop on the way.

What enters is taken where it leaves the bench (the bytes on the UART, the datagrams on eth0), so behind every impairment:
damaged frames are counted as such, repeated ones as often as they really arrived.
"""

from __future__ import annotations

import collections
import struct
from typing import Optional

from . import eglink, glink, internallink as il
from .account import Account
from .installation import Installation
from .journal import FROM_BASE_UNIT, TO_BASE_UNIT, Event
from .ledger import SIZE, Ledger
from .remoteunit import RemoteUnit

BASE_CONTROLLER, MACHINE_CONTROLLER = 9, 7  # their numbers in the payloads of commands
SLACK = 1.0  # seconds by which a loss may precede or outlast what the bench sees of it

LINK_LOST, NO_LINK, NO_CABLE = "internal link lost", "unit without a link", "eth0 away"
REBUILD = 3.0  # seconds within which the base unit is back in the group once eth0 is there
_LOSSES = {"end", "mute", "raw bytes", "closes its connection", "resets its connection", "forgets its connection",
           "loses its network", "gives a silent connection up"}
_SENDER, _BLOCK = struct.Struct("<H"), struct.Struct("<HH")


class Books:
    """Opened on a base unit that serves `units`. `close` gives the accounts, settled. The times in which payloads may be
    dropped are read off the journal: a unit has no link from the loss of its connection until it is accepted over TCP
    again, the internal link is lost until the log says RUN, and nothing can be said about eth0 while it is away."""

    def __init__(self, bench: Installation, units: list[RemoteUnit]):
        self.bench, self.units = bench, units
        self.commands = Ledger(BASE_CONTROLLER)
        self.orders = Ledger(MACHINE_CONTROLLER)
        self.frames = Account("UART: packets to acknowledgements", exact=False)
        self.datagrams = Account("EGLink: commands to acknowledgements")
        self.notifies = Account("API: requests to NOTIFY", exact=False)
        self.down = {(sender, unit.id): Account(f"{name} to unit {unit.id}") for unit in units
                     for sender, name in ((BASE_CONTROLLER, "UART: commands"), (MACHINE_CONTROLLER, "EGLink: commands"))}
        self.up = {unit.id: Account(f"GLink: commands of unit {unit.id} to UART") for unit in units}
        self.over = {unit.id: Account(f"GLink: commands of unit {unit.id} to EGLink") for unit in units}
        self._pipes = {TO_BASE_UNIT: il.Splitter(), FROM_BASE_UNIT: il.Splitter()}
        self._expected: Optional[int] = None
        self._last_order: Optional[tuple[int, int]] = None
        self._last_command: collections.deque = collections.deque(maxlen=64)
        self._lost_since: Optional[float] = None
        self._cable_out_since: Optional[float] = None
        self._away_since: dict[int, float] = {}
        bench.loop.call(self._open)

    # --- the end ---------------------------------------------------------------------------------------------------

    def close(self) -> list[Account]:
        self.bench.loop.call(self._stop)
        accounts = [self.frames, self.notifies, self.datagrams, *self.down.values(), *self.up.values(),
                    *self.over.values()]
        return [account.close() for account in accounts]

    # --- on the loop's thread --------------------------------------------------------------------------------------

    def _open(self) -> None:
        self.bench.bc.line.taps.append(self._on_line)
        self.bench.mc.taps.append(self._on_network)
        self.bench.journal.listeners.append(self._on_event)

    def _stop(self) -> None:
        self.bench.bc.line.taps.remove(self._on_line)
        self.bench.mc.taps.remove(self._on_network)
        self.bench.journal.listeners.remove(self._on_event)
        if self._lost_since is not None:
            self._link_is_back()
        for unit in self.units:
            self._unit_is_back(unit.id)
        self._cable_is_back()

    def _on_line(self, direction: str, data: bytes) -> None:
        for raw in self._pipes[direction].feed(data):
            packet = il.parse(raw)
            if packet is None:
                if direction == TO_BASE_UNIT:
                    self.frames.rule("damaged")
            elif direction == FROM_BASE_UNIT and packet.message_class == il.ACK:
                self.frames.leave(raw)
            elif direction == TO_BASE_UNIT and packet.message_class != il.ACK:
                self._packet_entered(packet, raw)

    def _packet_entered(self, packet: il.Packet, raw: bytes) -> None:
        now = self.bench.journal.now
        self.frames.enter(now, raw)
        if packet.service == il.COMMAND:
            for unit in self.units:
                self.down[BASE_CONTROLLER, unit.id].enter(now, packet.payload)
        elif packet.service == il.FALLBACK:
            self._block_entered(packet.payload, now)

    def _block_entered(self, payload: bytes, now: float) -> None:
        """A command over the fallback is one block; a repeated block is a second command to the base unit."""
        if len(payload) <= _BLOCK.size:
            return
        unit, remaining = _BLOCK.unpack_from(payload)
        if remaining == len(payload) - _BLOCK.size and unit in self.up:
            for frame, _ in glink.Assembler().feed(payload[_BLOCK.size:]):
                if frame.msg_id == glink.CMD and not frame.is_ack:
                    self._command_entered(unit, frame.payload, now)

    def _command_entered(self, unit: int, payload: bytes, when: float) -> None:
        for account in (self.up[unit], self.over[unit]):
            account.enter(when, payload[:SIZE])

    def _on_network(self, datagram: bytes) -> None:
        """The base unit takes a command whose id follows the last one; another is dropped, and the next one taken."""
        packet, now = eglink.parse(datagram), self.bench.journal.now
        if packet is None:
            self.datagrams.rule("damaged")
            return
        if packet.type != "VRCO":
            return
        if self._cable_out_since is not None:
            self.datagrams.rule(NO_CABLE)
            return
        number = eglink.describe(packet)["id"]
        if self._expected not in (None, number):
            self._expected = None
            self.datagrams.rule("id out of turn")
            return
        self._expected = (number + 1) & 0xFFFF
        self.datagrams.enter(now, _SENDER.pack(number))
        for unit in self.units:
            self.down[MACHINE_CONTROLLER, unit.id].enter(now, eglink.describe(packet)["command"])

    def _on_event(self, event: Event) -> None:
        handler = {"glink": self._on_glink, "uart": self._on_uart, "eglink": self._on_eglink, "api": self._on_api,
                   "server": self._on_log, "eth0": self._on_cable}.get(event.link)
        if handler:
            handler(event)

    def _on_glink(self, event: Event) -> None:
        if event.kind in _LOSSES or event.detail.get("fate") == "corrupted":
            self._away_since.setdefault(event.unit, event.time)
        elif event.kind == "INITACK" and event.path == "TCP" and event.code == glink.ACCEPTED:
            self._unit_is_back(event.unit)
        if event.kind != "command" or event.detail.get("fate") in ("dropped", "corrupted"):
            return
        if event.direction == TO_BASE_UNIT:
            if event.path == "TCP":  # over the fallback it enters with its block
                self._command_entered(event.unit, event.payload, event.time)
        elif event.direction == FROM_BASE_UNIT:
            sender, = _SENDER.unpack(event.payload[:_SENDER.size])
            self.down[sender, event.unit].leave(event.payload)

    def _on_uart(self, event: Event) -> None:
        if event.direction != FROM_BASE_UNIT or event.kind != "command" or "fate" in event.detail:
            return
        key = event.payload[:SIZE]
        if key not in self._last_command:  # a packet that the base unit repeats is one
            self._last_command.append(key)
            self.up[_SENDER.unpack(key[:2])[0]].leave(key)

    def _on_eglink(self, event: Event) -> None:
        if event.direction != FROM_BASE_UNIT:
            return
        if event.kind == "VRAI":
            self.datagrams.leave(_SENDER.pack(event.id))
        elif event.kind == "VRCI" and (event.serial, event.id) != self._last_order:
            self._last_order = (event.serial, event.id)
            self.over[_SENDER.unpack(event.command[:2])[0]].leave(event.command[:SIZE])

    def _on_api(self, event: Event) -> None:
        if event.kind == "request" and event.text in ("DISARM", "RESET"):
            self.notifies.enter(event.time, b"")
        elif event.kind == "notify":
            self.notifies.leave(b"")

    def _on_log(self, event: Event) -> None:
        if event.kind != "log":
            return
        if event.text in ("Internal link fail!!!!!!!!", "NO_BI_LINK") and self._lost_since is None:
            self._lost_since = event.time
        elif event.text == "RUN" and self._lost_since is not None:
            self._link_is_back()

    def _unit_is_back(self, unit: int) -> None:
        begin = self._away_since.pop(unit, None)
        if begin is not None:
            for account in (self.down[BASE_CONTROLLER, unit], self.down[MACHINE_CONTROLLER, unit], self.up[unit],
                            self.over[unit]):
                account.may_drop(begin - SLACK, self.bench.journal.now + SLACK, NO_LINK)

    def _on_cable(self, event: Event) -> None:
        if event.kind in ("down", "unplugged", "vanished"):
            self._cable_out_since = event.time
        else:
            self._cable_is_back()

    def _cable_is_back(self) -> None:
        if self._cable_out_since is None:
            return
        for account in (self.datagrams, *self.over.values(),
                        *(self.down[MACHINE_CONTROLLER, unit.id] for unit in self.units)):
            account.may_drop(self._cable_out_since - SLACK, self.bench.journal.now + REBUILD, NO_CABLE)
        self._cable_out_since = None

    def _link_is_back(self) -> None:
        for account in self.up.values():
            account.may_drop(self._lost_since - SLACK, self.bench.journal.now + SLACK, LINK_LOST)
        self._lost_since = None
