"""The connections to a base unit in a capture, segment by segment: what each side said, in order, and what the capture lacks."""

from __future__ import annotations

from . import glink
from .captureread import Packet, Transport
from .replies import GLINK_PORT, PORTS, Replies
from .tcpstream import Stream
from .timeline import DATA, FINISH, OPEN, RESET, Timeline


class _Connection:
    def __init__(self, link: str, port: int):
        self.link, self.port = link, port
        self.to_base_unit, self.from_base_unit = Stream(), Stream()
        self.requests = glink.Assembler() if port == GLINK_PORT else None
        self.answers = Replies(link, port)
        self.opened = self.ended = self.answered_end = False


class Connections:
    """Puts what they say onto the timeline. `notes` says what the capture lacks of them. `accepted` are the remote units that
    the base unit took in, and the checksum of the application that each showed; `paired_here` those of them that were
    strangers to it before. Without the internal link in the capture (`has_uart`) the base controller's commands cannot come."""

    def __init__(self, timeline: Timeline, has_uart: bool):
        self._timeline, self._has_uart = timeline, has_uart
        self.notes: list[str] = []
        self.accepted: dict[int, bytes] = {}
        self.paired_here: set[int] = set()
        self.commands: set[bytes] = set()  # of the machine controller, which go on to the units
        self._newest: dict[tuple, _Connection] = {}  # of each pair of ends
        self._all: list[_Connection] = []
        self._inits: dict[str, glink.Init] = {}

    @property
    def ports(self) -> dict[str, int]:
        return {connection.link: connection.port for connection in self._all}

    def segment(self, segment: Transport) -> None:
        """One segment of TCP, be it of such a connection or not."""
        target, source = segment.target[1], segment.source[1]
        if target in PORTS:
            self._stream(segment, (segment.target[0], segment.source, target), True)
        elif source in PORTS:
            self._stream(segment, (segment.source[0], segment.target, source), False)

    def close(self, last: Packet) -> None:
        """At the end of the capture: what is still to be said, and what is missing."""
        for connection in self._all:
            self._close(connection, last)

    def _stream(self, segment: Transport, key: tuple, to_base_unit: bool) -> None:
        connection = self._connection(segment, key, to_base_unit)
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

    def _connection(self, segment: Transport, key: tuple, to_base_unit: bool) -> _Connection:
        connection = self._newest.get(key)
        if connection is None or (segment.opens and to_base_unit and connection.ended):
            number = 1 + sum(each.port == key[2] for each in self._all)
            name = "GLink" if key[2] == GLINK_PORT else f"port {key[2]}"
            connection = self._newest[key] = _Connection(f"{name}, connection {number}", key[2])
            self._all.append(connection)
        return connection

    def _ask(self, connection: _Connection, segment: Transport) -> None:
        packet = segment.packet
        if not connection.opened:
            connection.opened = True
            self._timeline.move(packet, connection.link, OPEN)
            if not segment.opens:
                self.notes.append(f"packet {packet.number}: {connection.link} was open before the capture began; what went "
                                  "before is missing here, and who does not introduce himself is not served")
        if segment.payload:
            self._send(connection, packet, connection.to_base_unit.feed(segment.sequence, segment.payload))
        if (segment.finishes or segment.resets) and not connection.ended:
            connection.ended = True
            self._send(connection, packet, connection.to_base_unit.finish(packet))
            self._timeline.move(packet, connection.link, RESET if segment.resets else FINISH)

    def _close(self, connection: _Connection, last: Packet) -> None:
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
            self._timeline.move(packet, connection.link, DATA, data)
            self._swallow(connection, data)
            return
        frames = []
        try:
            frames = list(assembler.feed(data))
        except glink.Damaged:
            connection.requests = None
        if sum(len(raw) for _, raw in frames) != len(data):
            self._timeline.move(packet, connection.link, DATA, data)
            return
        for frame, raw in frames:
            if frame.msg_id == glink.INIT and not frame.is_ack and len(frame.payload) == 22:
                self._inits[connection.link] = glink.Init.unpack(frame.payload)
            self._timeline.move(packet, connection.link, DATA, raw, (connection.link, frame.msg_id) if frame.is_ack else None)

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
                self._timeline.answer(answer)

    def _hear(self, connection: _Connection, packet: Packet, data: bytes) -> None:
        for answer in connection.answers.feed(packet.time, packet.number, data) if data else []:
            kind = answer.channel[1]
            ids = [msg_id for msg_id, name in glink.NAMES.items() if name == kind]
            mark = (connection.link, ids[0]) if ids else None
            if kind == "command" and not self._has_uart and answer.value not in self.commands:
                self._timeline.cannot_come(mark, packet.time)
                continue
            self._timeline.answer(answer, mark)
            if kind == "INITACK" and connection.link in self._inits:
                self._note_verdict(self._inits[connection.link], int.from_bytes(answer.value[:2], "little"))

    def _note_verdict(self, init: glink.Init, code: int) -> None:
        if code == glink.ACCEPTED:
            self.accepted[init.unit] = init.checksum
        elif code == glink.NOT_PAIRED and init.unit not in self.accepted:
            self.paired_here.add(init.unit)  # if it is ever taken in
