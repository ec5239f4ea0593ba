"""What a capture says, link by link: what the far sides sent to the base unit and when, and what it answered."""

from __future__ import annotations

from typing import Iterable

from . import eglink, internallink as il
from .admissions import fallback_frame, way_of_block
from .answers import API, EGLINK, UART, Answer, api_answer, eglink_answer, uart_answer
from .apiclient import REPLY_PORT, REQUEST_PORT
from .captureread import BadCapture, Packet, Transport, transport
from .connections import Connections
from .pcapng import FROM_BASE_CONTROLLER, LINKTYPE_USER0
from .replies import PORTS
from .timeline import DATA, Move, Timeline

_COMMAND_HEAD = 6  # of the machine controller's commands: the number and what is reserved


class Conversation:
    """`moves` and `answers` in the order of their times; `notes` says what the capture lacks. `begins_at_start` tells
    whether it holds the internal link from its first word on, `has_uart` whether it holds it at all, `has_eglink` whether the
    base unit speaks to a machine controller. `ports` are those of the connections, by link; `introductions`: see Connections,
    `accepted` and `paired_here`: see Admissions."""

    def __init__(self, packets: Iterable[Packet], port: int = eglink.PORT):
        packets = list(packets)
        self.has_uart, self.has_eglink = any(packet.link_type == LINKTYPE_USER0 for packet in packets), False
        self._port = port
        self._timeline = Timeline()
        self._connections = Connections(self._timeline, self.has_uart)
        self._admissions = self._connections.admissions
        for packet in packets:
            self._take(packet)
        if not self._timeline.moves:
            raise BadCapture(f"among {len(packets)} packets there is none that anybody sent to a base unit")
        if not self._timeline.answers:
            raise BadCapture(f"among {len(packets)} packets there is none that a base unit sent, with which its answers could be "
                             "compared")
        self._connections.close(packets[-1])
        self.moves: list[Move] = self._timeline.moves
        self.answers: list[Answer] = self._timeline.answers
        self.notes, self.ports = self._connections.notes, self._connections.ports
        self.introductions = self._connections.introductions
        self.accepted, self.paired_here = self._admissions.accepted, self._admissions.paired_here

    @property
    def begins_at_start(self) -> bool:
        first = next((answer for answer in self.answers if answer.channel[0] == UART), None)
        return bool(first and first.channel[-1] == "RESET" and first.identity == 0)

    def _take(self, packet: Packet) -> None:
        if packet.link_type == LINKTYPE_USER0:
            self._line(packet)
            return
        segment = transport(packet)
        if segment and segment.is_part:
            self._refuse_part(segment)
        elif segment and segment.sequence is None:
            self._datagram(segment)
        elif segment:
            self._connections.segment(segment)

    def _refuse_part(self, segment: Transport) -> None:
        """Others may send what they like on the same networks."""
        ours = {REQUEST_PORT, REPLY_PORT, self._port, self._port + eglink.BASE_UNIT_PORT_OFFSET, *PORTS}
        if ours & {segment.source[1], segment.target[1]}:
            raise BadCapture(f"packet {segment.packet.number}: a part of a datagram, or cut short; only whole ones can be played")

    def _line(self, packet: Packet) -> None:
        if not packet.data:
            raise BadCapture(f"packet {packet.number}: a line of the UART without its direction")
        direction, raw = packet.data[0], packet.data[1:]
        parsed = il.parse(raw)
        mark = (UART, parsed.number, parsed.service) if parsed else None
        if direction == FROM_BASE_CONTROLLER:
            is_ack = parsed and parsed.message_class == il.ACK
            self._timeline.move(packet, UART, DATA, raw, mark if is_ack else None)
            if frame := parsed and fallback_frame(parsed):
                self._admissions.asks(way_of_block(parsed), frame)
        else:
            is_ack = parsed is None or parsed.message_class == il.ACK
            self._timeline.answer(uart_answer(packet.time, packet.number, raw), None if is_ack else mark)
            if frame := parsed and fallback_frame(parsed):
                self._admissions.answered(way_of_block(parsed), frame.msg_id, frame.payload)

    def _datagram(self, segment: Transport) -> None:
        packet, target, data = segment.packet, segment.target[1], segment.payload
        if target == REQUEST_PORT:
            self._timeline.move(packet, API, DATA, data)
        elif target == REPLY_PORT:
            self._timeline.answer(api_answer(packet.time, packet.number, data))
        elif target == self._port + eglink.BASE_UNIT_PORT_OFFSET:
            parsed = eglink.parse(data)
            acknowledges = parsed and parsed.type == "VRAO"
            if parsed and parsed.type == "VRCO":
                self._connections.commands.add(bytes(parsed.payload[_COMMAND_HEAD:]))
            self._timeline.move(packet, EGLINK, DATA, data, (EGLINK, bytes(parsed.payload)) if acknowledges else None)
        elif target == self._port:
            self.has_eglink = True
            parsed = eglink.parse(data)
            asks = parsed and parsed.type == "VRCI"
            self._timeline.answer(eglink_answer(packet.time, packet.number, data),
                                  (EGLINK, bytes(parsed.payload[:2])) if asks else None)
