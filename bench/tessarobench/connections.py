"""The connections to a base unit in a capture, segment by segment: what each side said, in order, and what the capture lacks."""

from __future__ import annotations

import collections

from . import glink
from .admissions import Admissions, introduction
from .captureread import Packet, Transport
from .replies import GLINK_PORT, PORTS, Offers, Replies
from .tcpstream import Stream
from .timeline import DATA, FINISH, OPEN, RESET, Timeline


class _Connection:
    """`sent` counts the bytes to the base unit, `framed` those of them that were whole frames."""

    def __init__(self, link: str, port: int, offers: Offers):
        self.link, self.port = link, port
        self.sent = self.framed = 0
        self.to_base_unit, self.from_base_unit = Stream(), Stream()
        self.requests = glink.Assembler() if port == GLINK_PORT else None
        self.answers = Replies(link, port, offers)
        self.opened = self.ended = self.answered_end = False


class Connections:
    """Puts what they say onto the timeline. `notes` says what the capture lacks of them, `admissions` whom the base unit took in,
    and `introductions` with which frames the units asked for that, and at which byte of each link. Without the internal link in
    the capture (`has_uart`) the base controller's commands cannot come."""

    def __init__(self, timeline: Timeline, has_uart: bool):
        self._timeline, self._has_uart = timeline, has_uart
        self.notes: list[str] = []
        self.admissions = Admissions()
        self.introductions: dict[str, list[tuple[int, bytes]]] = collections.defaultdict(list)
        self.commands: set[bytes] = set()  # of the machine controller, which go on to the units
        self._newest: dict[tuple, _Connection] = {}  # of each pair of ends
        self._all: list[_Connection] = []
        self._offers: Offers = set()

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
            connection = self._newest[key] = _Connection(f"{name}, connection {number}", key[2], self._offers)
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
        if segment.finishes or segment.resets:
            self._send(connection, packet, connection.to_base_unit.finish(packet, segment.end))
        if (segment.finishes or segment.resets) and not connection.ended:
            connection.ended = True
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
        if not data:
            return
        is_between = connection.sent == connection.framed
        frames = self._frames(connection, data)
        if is_between and sum(len(raw) for _, raw in frames) == len(data):
            for frame, raw in frames:
                self._timeline.move(packet, connection.link, DATA, raw, (connection.link, frame.msg_id) if frame.is_ack else None)
        else:
            self._timeline.move(packet, connection.link, DATA, data)
        connection.sent += len(data)

    def _frames(self, connection: _Connection, data: bytes) -> list[tuple[glink.Frame, bytes]]:
        """Those that these bytes complete; behind something broken there are none any more."""
        frames: list[tuple[glink.Frame, bytes]] = []
        try:
            for frame, raw in connection.requests.feed(data) if connection.requests else ():
                frames.append((frame, raw))
                self.admissions.asks(connection.link, frame)
                if introduction(frame):
                    self.introductions[connection.link].append((connection.framed, raw))
                connection.framed += len(raw)
        except glink.Damaged:
            connection.requests = None
        return frames

    def _reply(self, connection: _Connection, segment: Transport) -> None:
        packet = segment.packet
        if segment.payload:
            self._hear(connection, packet, connection.from_base_unit.feed(segment.sequence, segment.payload))
        if segment.finishes or segment.resets:
            self._hear(connection, packet, connection.from_base_unit.finish(packet, segment.end))
        if (segment.finishes or segment.resets) and not connection.answered_end:
            connection.ended = connection.answered_end = True
            for answer in connection.answers.end(packet.time, packet.number, connection.from_base_unit.missing):
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
            if ids:
                self.admissions.answered(connection.link, ids[0], answer.value)
