"""The books of a whole installation: who takes what in and out, and what the rules drop on the way.

What enters is taken where it leaves the bench (the bytes on the UART, the datagrams on eth0), so behind every impairment:
damaged frames are counted as such, repeated ones as often as they really arrived. `Watch` sees all this on a running
bench; `Books` draws the conclusions, and would draw the same from a record.
"""

from __future__ import annotations

import struct
from typing import Callable, Iterable, NamedTuple, Optional

from . import eglink, glink, internallink as il
from .account import Account, Alike
from .blockbook import Block, BlockBook
from .installation import INPUT_TAGS, Installation
from .journal import FROM_BASE_UNIT, TO_BASE_UNIT, Event
from .ledger import SIZE, Ledger
from .newestbook import SHOWN, ImageBook
from .packetbook import PacketBook
from .rules import DAMAGED, LINK_LOST, NO_CABLE, NO_LINK, NOBODY, OUT_OF_TURN, SUPERSEDED, UNANSWERED, UNCHANGED

BASE_CONTROLLER, MACHINE_CONTROLLER = 9, 7  # their numbers in the payloads of commands
SERVICE = 5        # the base controller's number in service messages to units
UNIT_SERVICES = 20000  # a unit's number in its service messages is this much above its own

SLACK = 1.0    # seconds by which a loss may precede or outlast what the bench sees of it
REBUILD = 3.0  # seconds within which the base unit is back in the group once eth0 is there
LEAVING = 0.1  # the journal says that the cable goes by so much before it has gone
SAME_LOSS = 0.5    # what came so shortly before a loss of the internal link was told may have come after it
NOTICED = 1.0      # seconds after which the base unit has forgotten what waited for a unit that left
UNNOTICED = 4.0    # and how much longer that takes when the unit left without a word

_LEAVES = {"closes its connection", "resets its connection"}
_LOSSES = _LEAVES | {"end", "mute", "raw bytes", "forgets its connection", "loses its network",
                     "gives a silent connection up"}
_EVENTS_OF = {b"RESET": il.ECLINKRESET, b"DISARM": il.RELEASEARM}  # RECONFIG may also come by itself
_SENDER, _BLOCK = struct.Struct("<H"), struct.Struct("<HH")


class Sight(NamedTuple):
    """Something that the bench saw: bytes on the UART ("line"), a datagram to the base unit ("datagram"), or an event of
    the journal ("event")."""

    when: float
    what: str
    direction: str = ""
    data: bytes = b""
    event: Optional[Event] = None


class Start(NamedTuple):
    """How things stand when books are opened: the units, where the API's values lie in the process image, the image, and
    what the API shows."""

    units: tuple[int, ...]
    fields: dict[str, slice]
    image: bytes
    shown: dict[str, str]


class UnitBook:
    """What goes to and comes from one remote unit."""

    def __init__(self, unit: int):
        self.id = unit
        self.down = {BASE_CONTROLLER: Account(f"UART: commands to unit {unit}"),
                     MACHINE_CONTROLLER: Account(f"EGLink: commands to unit {unit}"),
                     SERVICE: Account(f"UART: service messages to unit {unit}")}
        self.up = Account(f"GLink: commands of unit {unit} to UART")
        self.over = Account(f"GLink: commands of unit {unit} to EGLink")
        self.services = Account(f"GLink: service messages of unit {unit} to UART")
        self.periodic = Account(f"GLink: periodic data of unit {unit}")
        self.acks = Alike(f"GLink: messages of unit {unit} acknowledged")
        self.blocks = BlockBook(unit)
        self.away_since: Optional[float] = None
        self.left: Optional[tuple[float, float]] = None  # when it left, and when the base unit has noticed
        self.babbles = False
        self.sent_at = 0.0  # its newest message

    @property
    def accounts(self) -> list[Account]:
        return [*self.down.values(), *self.blocks.accounts, self.up, self.over, self.services, self.periodic,
                *([] if self.babbles else [self.acks])]

    @property
    def linked(self) -> list[Account]:
        """Those whose payloads are lost without a link."""
        return [*self.down.values(), *self.blocks.of.values(), self.up, self.over, self.services, self.acks]

    def lost(self, event: Event) -> None:
        self.acks.may_drop(event.time - SLACK, event.time, NO_LINK)
        self.blocks.link_ended(event.time)
        if self.away_since is None:
            self.away_since = event.time
            noticed = NOTICED + (0 if event.kind in _LEAVES or event.kind == "end" else UNNOTICED)
            self.left = (event.time, event.time + noticed)

    def joined(self, path: str, when: float) -> None:
        self.blocks.joined(when)
        if self.left and when > self.left[1]:
            for account in (*self.down.values(), *self.blocks.of.values()):
                account.must_not_return(self.left[0], when)
        self.left = None
        if path == "TCP":
            self.back(when)

    def back(self, when: float) -> None:
        if self.away_since is not None:
            for account in self.linked:
                account.may_drop(self.away_since - SLACK, when + SLACK, NO_LINK)
        self.away_since = None


class Books:
    """Opened on a base unit that serves units; `take` wants everything that the bench sees, in order; `close` gives the
    accounts, settled. The times in which payloads may be dropped are read off the journal: a unit has no link from the loss
    of its connection until it is accepted over TCP again, the internal link is lost until the log says RUN, and nothing can
    be said about eth0 while it is away."""

    def __init__(self, start: Start, before: Optional[Books] = None):
        """`before` are the books that were closed when these were opened."""
        self.commands, self.orders = Ledger(BASE_CONTROLLER), Ledger(MACHINE_CONTROLLER)
        self.service_messages = Ledger(SERVICE)
        self.packets = PacketBook(self._packet_left, self._packet_entered, self._packet_acked)
        self.images = ImageBook(start.fields, start.image, start.shown)
        self.units = {unit: UnitBook(unit) for unit in start.units}
        self.events = Alike("API: orders to events on the UART")
        self.datagrams = Account("EGLink: commands acknowledged")
        self.sets = Account("EGLink: sets that say something new", exact=False)
        self.answers = Account("EGLink: commands of the base unit acknowledged")
        self._expected: Optional[int] = before._expected if before else None
        # serial and id of the newest command to the machine controller
        self._order: Optional[tuple[int, int]] = before._order if before else None
        self._unanswered: Optional[int] = None
        self._set: Optional[bytes] = before._set if before else None
        self._lost_since: Optional[float] = None
        self._cable_out_since: Optional[float] = None
        self._handlers: dict[str, Callable[[Event], None]] = {
            "glink": self._on_glink, "eglink": self._on_eglink, "api": self._on_api, "server": self._on_log,
            "eth0": self._on_cable}

    def take(self, sight: Sight) -> None:
        if sight.what == "line":
            self.packets.seen(sight.direction, sight.data, sight.when)
        elif sight.what == "datagram":
            self._on_network(sight.data, sight.when)
        else:
            self.take_event(sight.event)

    def take_event(self, event: Event) -> None:
        handler = self._handlers.get(event.link)
        if handler:
            handler(event)

    def close(self, now: float) -> list[Account]:
        if self._lost_since is not None:
            self._link_is_back(now)
        self._cable_is_back(now)
        if self._unanswered is not None:
            self.answers.enter(now, f"command {self._unanswered}")
        self.packets.close(now)
        self._share_delays()
        for unit in self.units.values():
            unit.back(now)
            unit.blocks.close(now)
        return [account.close() for account in self.accounts]

    def _share_delays(self) -> None:
        """A block that was late for more than one unit was so in the base unit, and may have been replaced there for
        another unit."""
        delays: dict[Block, list[float]] = {}
        for unit in self.units.values():
            for block, seconds in unit.blocks.match():
                delays.setdefault(block, []).append(seconds)
        for block, seconds in delays.items():
            if len(seconds) > 1:
                for unit in self.units.values():
                    unit.blocks.took(block.when, min(seconds))

    @property
    def accounts(self) -> list[Account]:
        """Link by link, by where things enter."""
        found = [*self.packets.accounts, *self.images.accounts, self.events, self.datagrams, self.sets, self.answers,
                 *(account for unit in self.units.values() for account in unit.accounts)]
        return sorted(found, key=lambda account: ("UART", "GLink", "EGLink", "API").index(account.name.partition(":")[0]))

    # --- UART ------------------------------------------------------------------------------------------------------

    def _packet_acked(self, when: float, seconds: float) -> None:
        """A base unit that the computer holds up is late everywhere, and takes in together what came meanwhile."""
        for unit in self.units.values():
            unit.blocks.took(when, seconds)

    def _packet_entered(self, packet: il.Packet, when: float) -> None:
        payload = packet.payload
        if packet.service == il.PROCESS_DATA:
            self.images.image_entered(payload, when)
        elif packet.service == il.COMMAND:
            for unit in self.units.values():
                unit.down[BASE_CONTROLLER].enter(when, payload)
        elif packet.service == il.PERIODIC:
            for unit in self.units.values():
                unit.blocks.entered(glink.FROM_BASE_CONTROLLER, payload, when)
        elif packet.service == il.SHORT_FALLBACK and len(payload) >= _SENDER.size:
            if unit := self.units.get(_SENDER.unpack_from(payload)[0]):
                unit.down[SERVICE].enter(when, payload[_SENDER.size:])
        elif packet.service == il.FALLBACK:
            self._block_entered(payload, when)

    def _block_entered(self, payload: bytes, when: float) -> None:
        """A message over the fallback is one block here; a repeated block is a second message to the base unit."""
        if len(payload) <= _BLOCK.size:
            return
        unit, remaining = _BLOCK.unpack_from(payload)
        if remaining == len(payload) - _BLOCK.size and unit in self.units:
            for frame, _ in glink.Assembler().feed(payload[_BLOCK.size:]):
                if not frame.is_ack:
                    self._message_entered(self.units[unit], frame.msg_id, frame.payload, when)

    def _packet_left(self, packet: il.Packet, when: float) -> None:
        payload = packet.payload
        if packet.service == il.COMMAND:
            self.units[_SENDER.unpack_from(payload)[0]].up.leave(payload[:SIZE], when)
        elif packet.service == il.SHORT_FALLBACK:
            self.units[_SENDER.unpack_from(payload)[0]].services.leave(payload[_SENDER.size:], when)
        elif packet.service == il.EVENTS and payload[0] in _EVENTS_OF.values():
            self.events.leave(payload, when)

    # --- remote units ----------------------------------------------------------------------------------------------

    def _message_entered(self, unit: UnitBook, msg_id: int, payload: bytes, when: float) -> None:
        if msg_id == glink.CMD:
            unit.up.enter(when, payload[:SIZE])
            unit.over.enter(when, payload[:SIZE])
        elif msg_id == glink.SERVICE_FORWARD:
            unit.services.enter(when, payload)
        elif msg_id == glink.PERIODIC_DATA:
            unit.periodic.rule(NOBODY)

    def _on_glink(self, event: Event) -> None:
        unit = self.units.get(event.detail.get("unit"))
        if unit is None:
            return
        if event.kind in _LOSSES or event.detail.get("fate") == "corrupted":
            unit.lost(event)
        unit.babbles |= event.kind == "babbles"
        if event.direction == TO_BASE_UNIT and event.path == "TCP" and "fate" not in event.detail:
            self._sent_by_unit(unit, event)
        elif event.direction == FROM_BASE_UNIT and "path" in event.detail:
            self._received_by_unit(unit, event)

    def _sent_by_unit(self, unit: UnitBook, event: Event) -> None:
        """Over TCP; over the fallback a message enters with its block."""
        if event.kind == "ack":
            if event.of != glink.NAMES[glink.HEARTBEAT]:
                unit.blocks.acknowledged(event.time)
            return
        unit.acks.enter(event.time, event.kind)
        unit.sent_at = event.time
        self._message_entered(unit, _ID_OF[event.kind], event.detail.get("payload", b""), event.time)

    def _received_by_unit(self, unit: UnitBook, event: Event) -> None:
        if event.kind == "ack":
            if event.path == "TCP":
                unit.acks.leave(event.of, event.time)
                unit.blocks.took(unit.sent_at, event.time - unit.sent_at)
            return
        if event.kind != glink.NAMES[glink.HEARTBEAT]:
            unit.blocks.message(event.time)
        if event.kind == "INITACK" and event.code == glink.ACCEPTED:
            unit.joined(event.path, event.time)
        elif event.kind == "command":
            unit.down[_SENDER.unpack_from(event.payload)[0]].leave(event.payload, event.time)
        elif event.kind == "service forward":
            unit.down[SERVICE].leave(event.payload, event.time)
        elif event.kind == "periodic data":
            unit.blocks.arrived(event.payload, event.path, event.time)

    # --- machine controller ----------------------------------------------------------------------------------------

    def _on_network(self, datagram: bytes, when: float) -> None:
        packet = eglink.parse(datagram)
        if packet is None:
            self.datagrams.rule(DAMAGED)
        elif packet.type == "VRPO":
            self._set_entered(packet.payload[1:], when)
        elif packet.type == "VRCO":
            self._order_entered(packet, when)
        elif packet.type == "VRAO" and eglink.describe(packet).get("id") == self._unanswered:
            self.answers.enter(when, f"command {self._unanswered}")
            self.answers.leave(f"command {self._unanswered}", when)
            self._unanswered = None

    def _set_entered(self, data: bytes, when: float) -> None:
        """Sets have one part here. What is the same as before is not passed on."""
        if data == self._set:
            self.sets.rule(UNCHANGED)
            return
        self._set = data
        self.sets.enter(when, data)
        self.sets.leave(data)
        for unit in self.units.values():
            unit.blocks.entered(glink.FROM_MACHINE_CONTROLLER, data, when)

    def _order_entered(self, packet: eglink.Packet, when: float) -> None:
        """The base unit takes a command whose id follows the last one; another is dropped, and the next one taken."""
        if self._cable_out_since is not None and when > self._cable_out_since + LEAVING:
            self.datagrams.rule(NO_CABLE)
            return
        fields = eglink.describe(packet)
        if self._expected not in (None, fields["id"]):
            self._expected = None
            self.datagrams.rule(OUT_OF_TURN)
            return
        self._expected = (fields["id"] + 1) & 0xFFFF
        self.datagrams.enter(when, f"command {fields['id']}")
        for unit in self.units.values():
            unit.down[MACHINE_CONTROLLER].enter(when, fields["command"])

    def _on_eglink(self, event: Event) -> None:
        if event.direction != FROM_BASE_UNIT:
            return
        if event.kind == "VRAI":
            self.datagrams.leave(f"command {event.id}", event.time)
        elif event.kind == "VRPI":
            self.images.periodic_left(event.payload)
        elif event.kind == "VRCI" and (event.serial, event.id) != self._order:
            self._order = (event.serial, event.id)
            if self._unanswered is not None:
                self.answers.rule(SUPERSEDED)
            self._unanswered = event.id
            self.units[_SENDER.unpack_from(event.command)[0]].over.leave(event.command[:SIZE], event.time)

    # --- local tool ------------------------------------------------------------------------------------------------

    def _on_api(self, event: Event) -> None:
        if event.kind == "request":
            order = self.images.request_entered(event.data, event.time)
            if order in _EVENTS_OF:
                self.events.enter(event.time, bytes([_EVENTS_OF[order]]))
        elif event.kind == "notify":
            self.images.notify_left()
        elif event.kind == "status":
            self.images.status_left(event.data)

    # --- losses ----------------------------------------------------------------------------------------------------

    def _on_log(self, event: Event) -> None:
        if event.kind != "log":
            return
        if event.text == "Internal link fail!!!!!!!!":
            self.packets.link_failed(event.time)
            for account in self._to_uart():
                account.must_not_return(event.time - SAME_LOSS, event.time + SAME_LOSS)
        if event.text in ("Internal link fail!!!!!!!!", "NO_BI_LINK") and self._lost_since is None:
            self._lost_since = event.time
        elif event.text == "RUN" and self._lost_since is not None:
            self._link_is_back(event.time)
        elif event.text.startswith("No VRAO for") and self._unanswered is not None:
            self.answers.rule(UNANSWERED)
            self._unanswered = None

    def _to_uart(self) -> Iterable[Account]:
        """What leaves the base unit over the UART."""
        return [self.events, *(account for unit in self.units.values() for account in (unit.up, unit.services))]

    def _link_is_back(self, now: float) -> None:
        for account in self._to_uart():
            account.may_drop(self._lost_since - SLACK, now + SLACK, LINK_LOST)
        self._lost_since = None

    def _on_cable(self, event: Event) -> None:
        if event.kind in ("down", "unplugged", "vanished"):
            self._cable_out_since = event.time
        else:
            self._cable_is_back(event.time)

    def _cable_is_back(self, now: float) -> None:
        if self._cable_out_since is None:
            return
        for account in (self.datagrams, self.answers,
                        *(account for unit in self.units.values() for account in
                          (unit.over, unit.down[MACHINE_CONTROLLER], unit.blocks.of[glink.FROM_MACHINE_CONTROLLER]))):
            account.may_drop(self._cable_out_since - SLACK, now + REBUILD, NO_CABLE)
        self._cable_out_since = None


_ID_OF = {name: msg_id for msg_id, name in glink.NAMES.items()}


class Watch:
    """The eyes of the books on a running bench: whatever they see goes to `books`, and to `record` if there is one."""

    def __init__(self, bench: Installation, units: Iterable[int], record: Optional[list[Sight]] = None,
                 before: Optional[Books] = None):
        self._bench, self._record = bench, record
        self.start = Start(tuple(units), _fields_shown(bench), bytes(bench.bc.image), dict(bench.api.status))
        self.books = Books(self.start, before)
        self._drops = bench.api.drops()
        bench.loop.call(self._open)

    def close(self) -> list[Account]:
        """The accounts, settled."""
        self._bench.loop.call(self._stop)
        self.books.images.lost_at_the_tool(self._bench.api.drops() - self._drops)
        return self.books.close(self._bench.journal.now)

    def _open(self) -> None:
        self._bench.bc.line.taps.append(self._on_line)
        self._bench.mc.taps.append(self._on_datagram)
        self._bench.journal.listeners.append(self._on_event)

    def _stop(self) -> None:
        self._bench.bc.line.taps.remove(self._on_line)
        self._bench.mc.taps.remove(self._on_datagram)
        self._bench.journal.listeners.remove(self._on_event)

    def _on_line(self, direction: str, data: bytes) -> None:
        self._see(Sight(self._bench.journal.now, "line", direction, data))

    def _on_datagram(self, datagram: bytes) -> None:
        self._see(Sight(self._bench.journal.now, "datagram", TO_BASE_UNIT, datagram))

    def _on_event(self, event: Event) -> None:
        if self._record is None:
            self.books.take_event(event)
        else:
            self._see(Sight(event.time, "event", event.direction, event.data, event))

    def _see(self, sight: Sight) -> None:
        self.books.take(sight)
        if self._record is not None:
            self._record.append(sight)


def _fields_shown(bench: Installation) -> dict[str, slice]:
    rows = {row["tag"]: row for row in bench.table(INPUT_TAGS)}
    return {tag: slice(int(rows[tag]["startByte"]), int(rows[tag]["startByte"]) + int(rows[tag]["byteSize"]))
            for tag in SHOWN.values()}
