"""The base controller of the machine, at the far end of the UART.

It acknowledges what the base unit sends, answers its configuration requests, and sends process images, events, commands
and periodic data. It can be made deaf, mute, late and noisy. It knows a descriptor, an event loop and a journal, and
nothing of the board behind the descriptor.
"""

from __future__ import annotations

import collections
from typing import Callable, Optional, Union

from . import internallink as il
from .impair import Impairment
from .journal import BENCH, FROM_BASE_UNIT, TO_BASE_UNIT, Journal
from .loop import Loop, Timer
from .pieces import Pieces
from .processimage import ProcessImage
from .serialline import SerialLine

LINK = "uart"
RETRY_SECONDS = 0.05
ATTEMPTS = 3


class Sending:
    """One packet on its way to the base unit. `acked` once acknowledged (then `answer` holds the acknowledgement's
    payload), `failed` once given up after three transmissions."""

    def __init__(self, message_class: int, service: int, payload: bytes):
        self.message_class, self.service, self.payload = message_class, service, bytes(payload)
        self.number: Optional[int] = None
        self.attempts = 0
        self.acked = self.failed = False
        self.answer: Optional[bytes] = None

    @property
    def done(self) -> bool:
        return self.acked or self.failed


class BaseController:
    """Everything public may be called from any thread; what it did and saw stands in the journal under "uart".

    `config`       key -> value (a number, or the answer's literal bytes) for the base unit's configuration requests
    `image`        the registers; `send_image` sends them as they are
    `to_base_unit`, `from_base_unit`   what happens to frames on the way; `acks` what happens to the acknowledgements
                   that it sends (before `to_base_unit`)
    `answers_config`, `answers_repeats`   whether it answers those requests at all, and a repeated one once more
    `deaf`         when true, received frames are journalled and otherwise ignored
    `deaf_to`      the same for single services
    `pieces`       how what it sends is cut into writes
    `handlers`     service id -> function(payload) for services that others add, such as the fallback relay; a repeated
                   packet is handed over once
    `retry_seconds`   how long it waits for an acknowledgement. The base unit takes a repeat for a new packet, so where
                   that matters more than the pace, this may be longer than a busy computer pauses
    """

    def __init__(self, loop: Loop, fd: int, journal: Journal, image: Optional[ProcessImage] = None,
                 config: Optional[dict[str, Union[int, bytes]]] = None):
        self._loop, self._journal = loop, journal
        self.image = image
        self.config: dict[str, Union[int, bytes]] = dict(config or {})
        self.answers_config, self.answers_repeats = True, False
        self.retry_seconds = RETRY_SECONDS
        self.deaf = False
        self.deaf_to: set[int] = set()
        self.to_base_unit, self.from_base_unit, self.acks = Impairment(loop), Impairment(loop), Impairment(loop)
        self._acks_of: dict[int, Impairment] = {}
        self.handlers: dict[int, Callable[[bytes], None]] = {}
        self.received: collections.Counter = collections.Counter()
        self._splitter = il.Splitter()
        self._queue: collections.deque[Sending] = collections.deque()
        self._retry: Optional[Timer] = None
        self._next_number = 0
        self._last_frame: bytes = b""
        self._answered: Optional[il.Packet] = None
        self._answered_at = 0.0
        self._periodic: list[Timer] = []
        loop.call(self._open, fd)

    # --- sending ---------------------------------------------------------------------------------------------------

    def send(self, service: int, payload: bytes, message_class: int = il.TRANSPORT_ACK) -> Sending:
        """Queues a packet: one at a time, repeated every 50 ms, given up after three transmissions."""
        sending = Sending(message_class, service, payload)
        self._loop.call(self._enqueue, sending)
        return sending

    def send_image(self) -> Sending:
        return self.send(il.PROCESS_DATA, bytes(self.image))

    def set(self, **values) -> Sending:
        """Changes fields of the process image and sends it."""
        for name, value in values.items():
            self.image.set(name, value)
        return self.send_image()

    def event(self, code: int) -> Sending:
        return self.send(il.EVENTS, bytes([code]))

    def command(self, payload: bytes) -> Sending:
        return self.send(il.COMMAND, payload)

    def periodic(self, payload: bytes) -> Sending:
        return self.send(il.PERIODIC, payload)

    def ask(self, key: str, unit: Optional[int] = None) -> Sending:
        """Asks the base unit for a setting, of one remote unit when `unit` is given; the value is in `answer`."""
        tail = b"" if unit is None else unit.to_bytes(2, "little")
        return self.send(il.CONFIGURATION, key.encode("latin-1") + tail, il.SERVICE_ACK)

    def send_every(self, period: float, make: Callable[[], tuple[int, bytes]]) -> Timer:
        """Sends (service, payload) as `make` gives it, every `period` seconds, until the timer is cancelled."""
        timer = self._loop.call(self._loop.every, period, lambda: self._enqueue(Sending(il.TRANSPORT_ACK, *make())))
        self._periodic.append(timer)
        return timer

    def send_once(self, packet: il.Packet) -> None:
        """One transmission of exactly this packet, outside the queue; nobody waits for an acknowledgement."""
        self._loop.call(self._transmit, packet)

    def send_bytes(self, raw: bytes) -> None:
        """Raw bytes on the line, unimpaired."""
        self._journal_bench("raw bytes", raw, size=len(raw))
        self._loop.call(self.pieces.write, raw)

    @property
    def idle(self) -> bool:
        """Whether everything queued was acknowledged or given up, and all bytes have left."""
        return not self._queue and self.pieces.empty and self.line.drained

    # --- faults ----------------------------------------------------------------------------------------------------

    def mute(self, on: bool = True) -> None:
        """A dead line in both directions, as seen by both sides."""
        self._journal_bench("mute" if on else "unmute")
        self.to_base_unit.mute = self.from_base_unit.mute = on

    def acks_of(self, service: int) -> Impairment:
        """What happens to the acknowledgements of one service's packets, in place of `acks`."""
        return self._acks_of.setdefault(service, Impairment(self._loop))

    def forget(self) -> None:
        """As after a restart of the controller: nothing queued, numbers from 0."""
        self._loop.call(self._forget)

    def close(self) -> None:
        for timer in self._periodic:
            timer.cancel()
        self._loop.call(self._forget)
        self.line.close()

    # --- on the loop's thread --------------------------------------------------------------------------------------

    def _open(self, fd: int) -> None:
        """On the loop's thread as a whole: what comes at once finds everything in its place."""
        self.line = SerialLine(self._loop, fd, self._bytes_received)
        self.pieces = Pieces(self._loop, self.line.write)

    def _forget(self) -> None:
        self._queue.clear()
        self._next_number = 0
        if self._retry:
            self._retry.cancel()

    def _journal_bench(self, kind: str, raw: bytes = b"", **detail) -> None:
        self._loop.call(lambda: self._journal.add(LINK, BENCH, kind, raw, **detail))

    def _enqueue(self, sending: Sending) -> None:
        self._queue.append(sending)
        if len(self._queue) == 1:
            self._send_head()

    def _send_head(self) -> None:
        if self._retry:
            self._retry.cancel()
        if not self._queue:
            return
        head = self._queue[0]
        if head.attempts >= ATTEMPTS:
            self._journal.add(LINK, BENCH, "gave up", number=head.number, service=head.service)
            head.failed = True
            self._advance()
            return
        if head.number is None:
            head.number, self._next_number = self._next_number, (self._next_number + 1) & 0x3F
        head.attempts += 1
        self._retry = self._loop.later(self.retry_seconds, self._send_head)
        self._transmit(il.Packet(head.message_class, head.number, head.service, head.payload), again=head.attempts > 1)

    def _advance(self) -> None:
        self._queue.popleft()
        self._send_head()

    def _transmit(self, packet: il.Packet, **extra) -> None:
        raw = il.frame(packet)
        kind, detail = il.describe(packet, from_base_unit=False)
        outcome = self.to_base_unit.apply(raw, self.pieces.write)
        if outcome != "passed":
            extra["fate"] = outcome
        self._journal.add(LINK, TO_BASE_UNIT, kind, raw, **detail, **{key: v for key, v in extra.items() if v})

    def _bytes_received(self, data: bytes) -> None:
        for raw in self._splitter.feed(data):
            if self.from_base_unit.apply(raw, self._frame_received) == "dropped":
                self._journal_frame(raw, fate="dropped")

    def _journal_frame(self, raw: bytes, **extra) -> Optional[il.Packet]:
        packet = il.parse(raw)
        if packet is None:
            self._journal.add(LINK, FROM_BASE_UNIT, "damaged", raw, **extra)
            return None
        kind, detail = il.describe(packet, from_base_unit=True)
        if raw == self._last_frame and packet.message_class != il.ACK:
            extra["again"] = True
        self._last_frame = raw if packet.message_class != il.ACK else self._last_frame
        self.received[kind] += 1
        self._journal.add(LINK, FROM_BASE_UNIT, kind, raw, **detail, **extra)
        return packet

    def _frame_received(self, raw: bytes) -> None:
        repeated = raw == self._last_frame
        packet = self._journal_frame(raw)
        if packet is None or self.deaf or packet.service in self.deaf_to:
            return
        if packet.message_class == il.ACK:
            self._acknowledged(packet)
        elif packet.message_class == il.SERVICE_ACK:
            self._asked(packet)
        elif packet.message_class == il.TRANSPORT_ACK:
            self._acknowledge(il.Packet(il.ACK, packet.number, packet.service, b""))
        if packet.message_class != il.ACK and packet.service in self.handlers and not repeated:
            self.handlers[packet.service](packet.payload)

    def _acknowledge(self, packet: il.Packet) -> bool:
        """Sends an acknowledgement, as `acks` decides; false when it was lost or damaged there."""
        outcome = self._acks_of.get(packet.service, self.acks).apply(il.frame(packet), lambda raw: self._send_ack(packet, raw))
        if outcome == "dropped":
            kind, detail = il.describe(packet, from_base_unit=False)
            self._journal.add(LINK, TO_BASE_UNIT, kind, **detail, fate="dropped")
        return outcome not in ("dropped", "corrupted") and self.to_base_unit.faultless

    def _send_ack(self, packet: il.Packet, raw: bytes) -> None:
        if raw == il.frame(packet):
            self._transmit(packet)
        else:
            self._journal.add(LINK, TO_BASE_UNIT, "damaged", raw, fate="corrupted")
            self.pieces.write(raw)

    def _asked(self, packet: il.Packet) -> None:
        """A repeated question whose answer has left already gets no second one: answers carry no key, so the base unit
        would take it for the next key's. (Ours may be late on a busy machine; the question is repeated after 50 ms.)"""
        if not self.answers_config or self._already_answered(packet):
            return
        value = self.config.get(packet.payload.decode("latin-1"), 0)
        answer = value if isinstance(value, bytes) else (value & 0xFFFFFFFF).to_bytes(4, "little")
        if self._acknowledge(il.Packet(il.ACK, packet.number, packet.service, answer)):
            self._answered, self._answered_at = packet, self._journal.now

    def _already_answered(self, packet: il.Packet) -> bool:
        recent = self._journal.now - self._answered_at < ATTEMPTS * RETRY_SECONDS
        return packet == self._answered and recent and not self.answers_repeats

    def _acknowledged(self, packet: il.Packet) -> None:
        if self._queue and self._queue[0].number == packet.number and self._queue[0].service == packet.service:
            self._queue[0].acked, self._queue[0].answer = True, packet.payload
            self._advance()
