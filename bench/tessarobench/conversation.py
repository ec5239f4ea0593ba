"""What a capture says, link by link: what the far sides sent to the base unit and when, and what it answered.

Frames are taken apart only as far as it takes to tell one answer from another and to see which of them an acknowledgement
of a far side belongs to. What is damaged or has holes stays as it is.
"""

from __future__ import annotations

import collections
import json
from typing import Any, Iterable, Iterator, NamedTuple, Optional

from . import crc, eglink, glink, internallink as il, pairwire
from .apiclient import REPLY_PORT, REQUEST_PORT
from .captureread import BadCapture, Packet, Transport, transport
from .pairwire import REQUEST_PORT as REQUESTS_PORT, TRANSFER_PORT
from .pcapng import FROM_BASE_CONTROLLER, LINKTYPE_USER0
from .remotepaths import ADDRESS
from .tcpstream import Stream

UART, EGLINK, API = "UART", "EGLink", "API"
GLINK_PORT, PAIRING_PORTS = ADDRESS[1], (REQUESTS_PORT, TRANSFER_PORT)
OPEN, DATA, FINISH, RESET, END = "open", "data", "finish", "reset", "end"

_BLOCK_HEAD = 4  # of the fallback: the unit, and how many bytes are still to come
CAUSE_SECONDS = 0.02  # what a far side does so soon after an answer, it may do because of that
_COMMAND_HEAD = 6     # of the machine controller's commands: the number and what is reserved
_UNSAID = ("base controller",)  # the channel of what cannot come when its words are not in the capture

Channel = tuple  # the link, and what tells a series of answers from the others of that link
Place = tuple    # a channel and a place in that


class Answer(NamedTuple):
    """One thing that the base unit said. `value` is what has to be the same, `identity` what may be another one each time."""

    time: float
    packet: int
    channel: Channel
    value: bytes
    identity: Optional[int]
    words: str


class Move(NamedTuple):
    """One thing that a far side did. It `acknowledges` an answer (a channel and a place in that), or comes `after` one that
    was there a moment before it, by `delay` seconds in both cases. Of what comes by the base unit's rhythm, places are
    counted by the changes of its value (see Changes)."""

    time: float
    packet: int
    link: str
    what: str
    data: bytes = b""
    acknowledges: Optional[Place] = None
    after: Optional[Place] = None
    delay: float = 0.0


class Changes:
    """Counts how often each channel of a rhythm has said something else than before."""

    def __init__(self) -> None:
        self._counts: collections.Counter = collections.Counter()
        self._values: dict[Channel, bytes] = {}

    def place(self, answer: Answer) -> Optional[Place]:
        """Of an answer that is a change; None when it is none."""
        if not rules(answer.channel).rhythm or self._values.get(answer.channel) == answer.value:
            return None
        self._values[answer.channel] = answer.value
        self._counts[answer.channel] += 1
        return (*answer.channel, "change"), self._counts[answer.channel]


class Rules(NamedTuple):
    """How the answers of a channel are compared. Those of a `rhythm` come by the base unit's own clock, and say what holds
    at their moment: how many there are between two changes does not count. Of a `blend` every part is looked at by itself, as
    it is up to two threads which of two changes it shows first."""

    rhythm: bool
    blend: bool = False


def _words(kind: str, detail: dict) -> str:
    fields = " ".join(f"{key}={value.hex(' ') if isinstance(value, bytes) else value}" for key, value in detail.items())
    return f"{kind} {fields}".strip()


# --- the base unit's answers, as they come in a capture or from a server -----------------------------------------------


def uart_answer(time: float, number: int, raw: bytes) -> Answer:
    packet = il.parse(raw)
    if packet is None:
        return Answer(time, number, (UART, "damaged"), raw, None, f"damaged {raw.hex(' ')}")
    kind, detail = il.describe(packet, from_base_unit=True)
    told = detail.get("event", detail.get("key", "")) if packet.message_class != il.ACK else ""
    channel = (UART, kind, packet.message_class, packet.service, told)
    if packet.message_class == il.ACK:  # its number is that of the far side's packet, and has to be right
        return Answer(time, number, channel, packet.pack(), None, _words(kind, detail))
    value = _without_stamp(packet.payload) if packet.service == il.FALLBACK else packet.payload
    return Answer(time, number, channel, value, packet.number, _words(kind, detail))


def _without_stamp(block: bytes) -> bytes:
    """A block of a message on the fallback, without the time at which it was written and the check sums over that."""
    head, data = block[:_BLOCK_HEAD], bytearray(block[_BLOCK_HEAD:])
    if len(data) >= glink.HEADER_SIZE and crc.intact(bytes(data[:glink.HEADER_SIZE])):
        data[5:9] = bytes(4)
        data[glink.HEADER_SIZE - crc.SIZE:glink.HEADER_SIZE] = bytes(crc.SIZE)
    if int.from_bytes(head[2:4], "little") == len(data) >= crc.SIZE:
        data[-crc.SIZE:] = bytes(crc.SIZE)
    return head + data


def eglink_answer(time: float, number: int, raw: bytes) -> Answer:
    packet = eglink.parse(raw)
    if packet is None:
        return Answer(time, number, (EGLINK, "damaged"), raw, None, f"damaged {raw.hex(' ')}")
    value = packet.type.encode("latin-1") + packet.origin.to_bytes(2, "little") + packet.payload
    return Answer(time, number, (EGLINK, packet.type), value, packet.serial, _words(packet.type, eglink.describe(packet)))


def glink_answer(time: float, number: int, link: str, frame: glink.Frame) -> Answer:
    kind = "ack of " + frame.name if frame.is_ack else frame.name
    origin = frame.payload[:1] if frame.msg_id == glink.PERIODIC_DATA else b""
    return Answer(time, number, (link, kind, *origin), frame.payload, frame.time, _words(kind, glink.describe(frame)))


def api_answer(time: float, number: int, raw: bytes) -> Answer:
    kind = "status" if raw.startswith(b"{") else "reply"
    return Answer(time, number, (API, kind), raw, None, raw.decode("utf-8", "replace"))


def rules(channel: Channel) -> Rules:
    link, kind = channel[:2]
    if link == UART:
        return Rules(kind == "status" or channel[-1] == "RESET")
    if link == EGLINK:
        return Rules(kind in ("VRPI", "VRCI"))
    if link == API:
        return Rules(kind == "status", blend=kind == "status")
    return Rules(kind in ("heartbeat", "ack of heartbeat", "base status", "periodic data"))


def follows_images(channel: Channel) -> bool:
    """Whether such an answer passes on what the base controller says."""
    link, kind = channel[:2]
    return (kind == "base status" or channel[1:] == ("periodic data", glink.FROM_BASE_CONTROLLER) or
            (link, kind) == (EGLINK, "VRPI") or link == API)


def parts(answer: Answer) -> dict[str, Any]:
    """What of an answer is compared by itself, by a name."""
    try:
        return json.loads(answer.value) if rules(answer.channel).blend else {"": answer.value}
    except ValueError:
        return {"": answer.value}


class Replies:
    """The base unit's half of a connection, taken apart into answers; what cannot be one is an answer as well."""

    def __init__(self, link: str, port: int):
        self._link, self._port = link, port
        self._assembler, self._rest, self._transferred = glink.Assembler(), b"", 0

    def feed(self, time: float, number: int, data: bytes) -> list[Answer]:
        if self._port == TRANSFER_PORT:
            self._transferred += len(data)
            return []
        if self._port == REQUESTS_PORT:
            self._rest += data
            return list(self._records(time, number))
        try:
            return [glink_answer(time, number, self._link, frame) for frame, _ in self._assembler.feed(data)]
        except glink.Damaged as damage:
            self._assembler = glink.Assembler()
            return [Answer(time, number, (self._link, "damaged"), data, None, f"damaged: {damage}")]

    def end(self, time: float, number: int) -> list[Answer]:
        """Of an archive only that it came, and its size: it carries times, and keys that are drawn."""
        answers = [Answer(time, number, (self._link, "archive"), b"", self._transferred, f"{self._transferred} bytes")]
        ends = [Answer(time, number, (self._link, END), b"", None, "the connection's end")]
        return (answers if self._transferred else []) + ends

    def _records(self, time: float, number: int) -> Iterator[Answer]:
        while self._rest:
            try:
                answer, size = self._record(time, number)
            except pairwire.Incomplete:
                return
            except pairwire.Malformed as error:
                answer, size = Answer(time, number, (self._link, "damaged"), self._rest, None, f"damaged: {error}"), len(self._rest)
            self._rest = self._rest[size:]
            yield answer

    def _record(self, time: float, number: int) -> tuple[Answer, int]:
        word = pairwire.Reader(self._rest).text()
        if word == "appList":
            records, size = pairwire.parse_app_list(self._rest)
            return Answer(time, number, (self._link, word), repr(records).encode(), None, f"{word} {records}"), size
        offer, size = pairwire.parse_offer(self._rest)
        return Answer(time, number, (self._link, word), offer.name.encode(), int(offer.md5, 16), f"{word} {offer}"), size


# --- a whole capture -----------------------------------------------------------------------------------------------------


class _Connection:
    def __init__(self, link: str, port: int):
        self.link, self.port = link, port
        self.to_base_unit, self.from_base_unit = Stream(), Stream()
        self.requests = glink.Assembler() if port == GLINK_PORT else None
        self.answers = Replies(link, port)
        self.opened = self.ended = self.answered_end = False


class Conversation:
    """`moves` and `answers` in the order of their times; `notes` says what the capture lacks. `begins_at_start` tells
    whether it holds the internal link from its first word on, `has_uart` whether it holds it at all. `accepted` are the
    remote units that the base unit took in, and the checksum of the application that each showed; `paired_here` those of them
    that were strangers to it before."""

    def __init__(self, packets: Iterable[Packet], port: int = eglink.PORT):
        self.moves: list[Move] = []
        self.answers: list[Answer] = []
        self.notes: list[str] = []
        self.accepted: dict[int, bytes] = {}
        self.paired_here: set[int] = set()
        self._port = port
        self._counts: collections.Counter = collections.Counter()
        self._last: dict[tuple, tuple[Channel, int, float]] = {}  # the newest answer that may be acknowledged, by its mark
        self._cause: Optional[tuple[Channel, int, float]] = None  # the newest answer that does not come by itself
        self._change: Optional[tuple[Channel, int, float]] = None  # the newest one that does, and says something new
        self._changes = Changes()
        self._connections: dict[tuple, _Connection] = {}  # the newest of each pair of ends
        self._all_connections: list[_Connection] = []
        self._commands: set[bytes] = set()  # of the machine controller, which go on to the units
        self._inits: dict[str, glink.Init] = {}
        packets = list(packets)
        self.has_uart, self.has_eglink = any(packet.link_type == LINKTYPE_USER0 for packet in packets), False
        for packet in packets:
            if packet.link_type == LINKTYPE_USER0:
                self._line(packet)
            else:
                segment = transport(packet)
                if segment:
                    self._segment(segment)
        if not self.moves:
            raise BadCapture(f"among {len(packets)} packets there is none that anybody sent to a base unit")
        for connection in self._all_connections:
            self._close(connection, packets[-1])

    @property
    def begins_at_start(self) -> bool:
        first = next((answer for answer in self.answers if answer.channel[0] == UART), None)
        return bool(first and first.channel[-1] == "RESET" and first.identity == 0)

    @property
    def ports(self) -> dict[str, int]:
        return {connection.link: connection.port for connection in self._all_connections}

    def _answer(self, answer: Answer, mark: Optional[tuple] = None) -> None:
        self.answers.append(answer)
        place = answer.channel, self._counts[answer.channel], answer.time
        if mark:
            self._last[mark] = place
        change = self._changes.place(answer)
        if change:
            self._change = *change, answer.time
        if not rules(answer.channel).rhythm:
            self._cause = place
        self._counts[answer.channel] += 1

    def _move(self, packet: Packet, link: str, what: str, data: bytes = b"", mark: Optional[tuple] = None) -> None:
        acknowledged = self._last.get(mark)
        fresh = [each for each in (self._cause, self._change) if each and packet.time - each[2] <= CAUSE_SECONDS]
        if acknowledged:
            self.moves.append(Move(packet.time, packet.number, link, what, data, acknowledged[:2], None,
                                   packet.time - acknowledged[2]))
        elif fresh:
            self.moves.append(Move(packet.time, packet.number, link, what, data, None, fresh[0][:2], packet.time - fresh[0][2]))
        else:
            self.moves.append(Move(packet.time, packet.number, link, what, data))

    # --- UART ------------------------------------------------------------------------------------------------------

    def _line(self, packet: Packet) -> None:
        if not packet.data:
            raise BadCapture(f"packet {packet.number}: a line of the UART without its direction")
        direction, raw = packet.data[0], packet.data[1:]
        parsed = il.parse(raw)
        mark = (UART, parsed.number, parsed.service) if parsed else None
        if direction == FROM_BASE_CONTROLLER:
            is_ack = parsed and parsed.message_class == il.ACK
            self._move(packet, UART, DATA, raw, mark if is_ack else None)
        else:
            is_ack = parsed is None or parsed.message_class == il.ACK
            self._answer(uart_answer(packet.time, packet.number, raw), None if is_ack else mark)

    # --- networks --------------------------------------------------------------------------------------------------

    def _segment(self, segment: Transport) -> None:
        target, source = segment.target[1], segment.source[1]
        if segment.sequence is None:
            self._datagram(segment)
        elif target in (GLINK_PORT, *PAIRING_PORTS):
            self._stream(segment, (segment.target[0], segment.source, target), True)
        elif source in (GLINK_PORT, *PAIRING_PORTS):
            self._stream(segment, (segment.source[0], segment.target, source), False)

    def _datagram(self, segment: Transport) -> None:
        packet, target, data = segment.packet, segment.target[1], segment.payload
        if target == REQUEST_PORT:
            self._move(packet, API, DATA, data)
        elif target == REPLY_PORT:
            self._answer(api_answer(packet.time, packet.number, data))
        elif target == self._port + eglink.BASE_UNIT_PORT_OFFSET:
            parsed = eglink.parse(data)
            acknowledges = parsed and parsed.type == "VRAO"
            if parsed and parsed.type == "VRCO":
                self._commands.add(bytes(parsed.payload[_COMMAND_HEAD:]))
            self._move(packet, EGLINK, DATA, data, (EGLINK, bytes(parsed.payload)) if acknowledges else None)
        elif target == self._port:
            self.has_eglink = True
            parsed = eglink.parse(data)
            asks = parsed and parsed.type == "VRCI"
            self._answer(eglink_answer(packet.time, packet.number, data),
                         (EGLINK, bytes(parsed.payload[:2])) if asks else None)

    def _stream(self, segment: Transport, key: tuple, to_base_unit: bool) -> None:
        connection = self._connections.get(key)
        if connection is None or (segment.opens and to_base_unit and connection.ended):
            number = 1 + sum(each.port == key[2] for each in self._all_connections)
            name = "GLink" if key[2] == GLINK_PORT else f"port {key[2]}"
            connection = self._connections[key] = _Connection(f"{name}, connection {number}", key[2])
            self._all_connections.append(connection)
        self._send(connection, segment.packet, connection.to_base_unit.pass_holes(segment.packet))
        self._hear(connection, segment.packet, connection.from_base_unit.pass_holes(segment.packet))
        streams = (connection.to_base_unit, connection.from_base_unit)
        stream, other = streams if to_base_unit else streams[::-1]
        if segment.opens:
            stream.begin(segment.sequence)
        if segment.acknowledged is not None:
            other.acknowledge(segment.packet, segment.acknowledged)
        if to_base_unit:
            self._ask(connection, segment)
        else:
            self._reply(connection, segment)

    def _ask(self, connection: _Connection, segment: Transport) -> None:
        packet = segment.packet
        if not connection.opened:
            connection.opened = True
            self._move(packet, connection.link, OPEN)
            if not segment.opens:
                self.notes.append(f"packet {packet.number}: {connection.link} was open before the capture began; what went "
                                  "before is missing here, and who does not introduce himself is not served")
        if segment.payload:
            self._send(connection, packet, connection.to_base_unit.feed(segment.sequence, segment.payload))
        if (segment.finishes or segment.resets) and not connection.ended:
            connection.ended = True
            self._send(connection, packet, connection.to_base_unit.finish(packet))
            self._move(packet, connection.link, RESET if segment.resets else FINISH)

    def _close(self, connection: _Connection, last: Packet) -> None:
        """At the end of the capture: what is still to be said, and what is missing."""
        to, back = connection.to_base_unit, connection.from_base_unit
        self._send(connection, last, to.finish(last))
        self._hear(connection, last, back.finish(last))
        if to.missing:
            self.notes.append(f"packet {to.hole_at}: before it {to.missing} bytes of {connection.link} towards the base unit "
                              "are missing in the capture, and are missing here")
        if back.missing:
            self.notes.append(f"packet {back.hole_at}: before it {back.missing} bytes of {connection.link} from the base unit "
                              "are missing in the capture, and come in addition here")

    def _send(self, connection: _Connection, packet: Packet, data: bytes) -> None:
        """Whole frames one by one, so that each acknowledgement finds what it belongs to; anything else as it came."""
        assembler = connection.requests
        if not data:
            return
        if assembler is None or assembler.waiting:
            self._move(packet, connection.link, DATA, data)
            self._swallow(connection, data)
            return
        frames = []
        try:
            frames = list(assembler.feed(data))
        except glink.Damaged:
            connection.requests = None
        if sum(len(raw) for _, raw in frames) != len(data):
            self._move(packet, connection.link, DATA, data)
            return
        for frame, raw in frames:
            if frame.msg_id == glink.INIT and not frame.is_ack and len(frame.payload) == 22:
                self._inits[connection.link] = glink.Init.unpack(frame.payload)
            self._move(packet, connection.link, DATA, raw, (connection.link, frame.msg_id) if frame.is_ack else None)

    @staticmethod
    def _swallow(connection: _Connection, data: bytes) -> None:
        if connection.requests:
            try:
                list(connection.requests.feed(data))
            except glink.Damaged:
                connection.requests = None

    def _reply(self, connection: _Connection, segment: Transport) -> None:
        packet = segment.packet
        if segment.payload:
            self._hear(connection, packet, connection.from_base_unit.feed(segment.sequence, segment.payload))
        if (segment.finishes or segment.resets) and not connection.answered_end:
            connection.ended = connection.answered_end = True
            self._hear(connection, packet, connection.from_base_unit.finish(packet))
            for answer in connection.answers.end(packet.time, packet.number):
                self._answer(answer)

    def _hear(self, connection: _Connection, packet: Packet, data: bytes) -> None:
        for answer in connection.answers.feed(packet.time, packet.number, data) if data else []:
            kind = answer.channel[1]
            ids = [msg_id for msg_id, name in glink.NAMES.items() if name == kind]
            mark = (connection.link, ids[0]) if ids else None
            if kind == "command" and not self.has_uart and answer.value not in self._commands:
                self._last[mark] = _UNSAID, 0, packet.time
                continue
            self._answer(answer, mark)
            if kind == "INITACK" and connection.link in self._inits:
                self._note_verdict(self._inits[connection.link], int.from_bytes(answer.value[:2], "little"))

    def _note_verdict(self, init: glink.Init, code: int) -> None:
        if code == glink.ACCEPTED:
            self.accepted[init.unit] = init.checksum
        elif code == glink.NOT_PAIRED and init.unit not in self.accepted:
            self.paired_here.add(init.unit)  # if it is ever taken in
