"""What a remote unit does by itself: joining, acknowledging, pacing, watching its link. See `remoteunit`.

Everything here runs on the loop's thread.
"""

from __future__ import annotations

import collections
import socket
from typing import Any, Callable, NamedTuple, Optional, Union

from . import clock, glink
from .fallbackrelay import FallbackRelay
from .glink import Frame, InitAck
from .impair import Impairment
from .journal import BENCH, FROM_BASE_UNIT, TO_BASE_UNIT, Journal
from .ledger import Ledger
from .loop import Loop, Timer
from .remotepaths import FallbackPath, TcpPath

LINK = "glink"
HEARTBEAT_SECONDS = 0.25
PATIENCE_SECONDS = 4.0
ON_TIME, NEVER = 0.0, None
WHEN_IDLE, ALWAYS, NONE = "when idle", "always", "none"

Path = Union[TcpPath, FallbackPath]


class Received(NamedTuple):
    """One message from the base unit: when it came (journal's time), by which path, and the sender's time stamp."""

    when: float
    path: str
    msg_id: int
    payload: bytes
    sent: int


class Verdict(NamedTuple):
    """One INITACK."""

    when: float
    path: str
    code: int
    text: str


class End(NamedTuple):
    """One connection that ended without the unit having closed it."""

    when: float
    reason: str


class Outgoing:
    """One message on its way to the base unit. `path` is None until it has left the unit; `lost` when its connection
    ended before the acknowledgement came, so that nobody knows whether it arrived."""

    def __init__(self, msg_id: int, payload: bytes):
        self.msg_id, self.payload = msg_id, bytes(payload)
        self.path: Optional[str] = None
        self.sent_at: Optional[float] = None
        self.acked_at: Optional[float] = None
        self.lost = False

    @property
    def acked(self) -> bool:
        return self.acked_at is not None


class UnitSession:
    """The state of one unit, and its reactions. `RemoteUnit` is its face."""

    def __init__(self, loop: Loop, journal: Journal, unit_id: int, make_socket: Callable[[], socket.socket],
                 relay: Callable[[], FallbackRelay], base_id: int, checksum: Union[bytes, Callable[[], bytes]]):
        self._loop, self._journal, self._make_socket, self._relay = loop, journal, make_socket, relay
        self.id, self.base_id, self.checksum = unit_id, base_id, checksum
        self.ack_delay: Optional[float] = ON_TIME
        self.ack_delays: dict[int, Optional[float]] = {}
        self.heartbeats = WHEN_IDLE
        self.patience: Optional[float] = PATIENCE_SECONDS
        self.rejoin_after: Optional[float] = None
        self.to_base_unit, self.from_base_unit = Impairment(loop), Impairment(loop)

        self.received: list[Received] = []
        self.verdicts: list[Verdict] = []
        self.ends: list[End] = []
        self.damaged: list[str] = []
        self.joins = 0
        self.ledger = Ledger(unit_id)
        self.inbox: Optional[Ledger] = None

        self._tcp: Optional[TcpPath] = None
        self._fallback: Optional[FallbackPath] = None
        self._lost_paths: list[TcpPath] = []
        self._active: Optional[Path] = None
        self._joining: Optional[Path] = None
        self._waiting: collections.deque[Outgoing] = collections.deque()
        self._in_flight: Optional[tuple[Outgoing, Path]] = None
        self._assembler = glink.Assembler()
        self._muted = False
        self._heartbeat_out = False
        self._heard = 0.0
        self._ticker: Optional[Timer] = None
        self._loads: list[Timer] = []

    # --- paths -------------------------------------------------------------------------------------------------------

    def _open(self, send_init: bool, small_buffer: bool) -> None:
        if self._tcp:
            self._forget(reachable=True)
        self._assembler = glink.Assembler()
        self._heartbeat_out = False
        path = self._tcp = TcpPath(self._loop, self._make_socket(), lambda: self._opened(path, send_init),
                                   lambda data: self._bytes_received(path, data),
                                   lambda reason: self._ended(path, reason), small_buffer)
        path.connect()

    def _opened(self, path: TcpPath, send_init: bool) -> None:
        if path is not self._tcp:
            return
        self._heard = clock.monotonic()
        self._ticker = self._ticker or self._loop.every(HEARTBEAT_SECONDS, self._tick)
        if send_init:
            self._introduce(path, {})

    def _enter_fallback(self) -> None:
        if not self._fallback or self._fallback.is_closed:
            path = self._fallback = FallbackPath(self._relay(), self.id, lambda data: self._message_received(path, data))
        self._introduce(self._fallback, {})

    def _introduce(self, path: Path, changes: dict) -> None:
        """INIT begins the exchange on its path anew."""
        checksum = self.checksum() if callable(self.checksum) else self.checksum
        init = glink.Init(1, 0, self.id, self.base_id, checksum)._replace(**changes)
        if self._in_flight and self._in_flight[1] is path:
            self._give_up_in_flight()
        self._joining = path
        self._write(glink.message(glink.INIT, init.pack()), path)

    def _close_tcp(self, hard: bool) -> None:
        if self._tcp:
            self._note("resets its connection" if hard else "closes its connection")
            self._tcp.close(hard)
            self._detach(self._tcp)

    def _forget(self, reachable: bool) -> Optional[TcpPath]:
        self._note("forgets its connection" if reachable else "loses its network")
        path = self._tcp
        if path and not path.is_closed:
            if not reachable:
                path.vanish()
            self._lost_paths.append(path)
            self._detach(path)
        return path

    def _detach(self, path: Path) -> None:
        """The path is of no use any more."""
        if self._in_flight and self._in_flight[1] is path:
            self._give_up_in_flight()
        if self._active is path:
            self._active = None
        if self._joining is path:
            self._joining = None
        if self._tcp is path:
            self._tcp = None

    def _ended(self, path: TcpPath, reason: str) -> None:
        if path in self._lost_paths:
            self._lost_paths.remove(path)
            return
        self.ends.append(End(self._journal.now, reason))
        self._journal.add(LINK, FROM_BASE_UNIT, "end", unit=self.id, reason=reason)
        self._detach(path)
        if self.rejoin_after is not None:
            self._loop.later(self.rejoin_after, lambda: self._open(True, False) if self._tcp is None else None)

    def _close(self) -> None:
        self.quiet()
        self.rejoin_after = None
        if self._ticker:
            self._ticker.cancel()
        for path in [*self._lost_paths, self._tcp, self._fallback]:
            if path:
                path.close()
        self._active = self._joining = self._tcp = self._fallback = None

    # --- messages ----------------------------------------------------------------------------------------------------

    def _enqueue(self, outgoing: Outgoing) -> None:
        self._waiting.append(outgoing)
        self._send_next()

    def _send_next(self) -> None:
        if self._in_flight or not self._waiting or not self._active:
            return
        outgoing = self._waiting.popleft()
        outgoing.path, outgoing.sent_at = self._active.kind, self._journal.now
        self._in_flight = (outgoing, self._active)
        self._write(glink.message(outgoing.msg_id, outgoing.payload), self._active)

    def _give_up_in_flight(self) -> None:
        self._in_flight[0].lost = True
        self._in_flight = None

    def _write(self, frame: Frame, path: Optional[Path]) -> None:
        if self._muted or path is None or path.is_closed:
            return
        raw = frame.pack()
        if self.to_base_unit.apply(raw, lambda data: self._transmit(path, frame, data, data != raw)) == "dropped":
            self._journal_frame(TO_BASE_UNIT, path, frame, raw, fate="dropped")

    def _transmit(self, path: Path, frame: Frame, data: bytes, is_corrupt: bool) -> None:
        self._journal_frame(TO_BASE_UNIT, path, frame, data, **({"fate": "corrupted"} if is_corrupt else {}))
        path.write(data)

    def _bytes_received(self, path: TcpPath, data: bytes) -> None:
        if path is not self._tcp:
            return  # an older connection of this unit, which it has forgotten
        self._heard = clock.monotonic()
        try:
            for frame, raw in self._assembler.feed(data):
                self._frame_arrives(path, frame, raw)
        except glink.Damaged as damage:
            self._damaged(damage)
            path.close()
            self._detach(path)

    def _message_received(self, path: FallbackPath, data: bytes) -> None:
        assembler = glink.Assembler()
        try:
            for frame, raw in assembler.feed(data):
                self._frame_arrives(path, frame, raw)
            if assembler.waiting:
                raise glink.Damaged(f"{assembler.waiting} bytes too many or too few in a message of {len(data)}")
        except glink.Damaged as damage:
            self._damaged(damage)

    def _damaged(self, damage: glink.Damaged) -> None:
        self.damaged.append(str(damage))
        self._journal.add(LINK, FROM_BASE_UNIT, "damaged", unit=self.id, what=str(damage))

    def _frame_arrives(self, path: Path, frame: Frame, raw: bytes) -> None:
        if self.from_base_unit.apply(raw, lambda _: self._frame_received(path, frame, raw)) == "dropped":
            self._journal_frame(FROM_BASE_UNIT, path, frame, raw, fate="dropped")

    def _frame_received(self, path: Path, frame: Frame, raw: bytes) -> None:
        self._journal_frame(FROM_BASE_UNIT, path, frame, raw)
        if frame.is_ack:
            self._acknowledged(path, frame)
            return
        self._acknowledge(path, frame)
        if frame.msg_id == glink.HEARTBEAT:
            return
        self.received.append(Received(self._journal.now, path.kind, frame.msg_id, frame.payload, frame.time))
        if frame.msg_id == glink.CMD and self.inbox:
            self.inbox.tick(frame.payload)
        elif frame.msg_id == glink.INITACK:
            self._answered(path, InitAck.unpack(frame.payload))

    def _acknowledge(self, path: Path, frame: Frame) -> None:
        delay = self.ack_delays.get(frame.msg_id, self.ack_delay)
        if delay is NEVER:
            return
        if delay:
            self._loop.later(delay, lambda: self._write(glink.acknowledgement(frame), path))
        else:
            self._write(glink.acknowledgement(frame), path)

    def _acknowledged(self, path: Path, frame: Frame) -> None:
        if frame.msg_id == glink.HEARTBEAT:
            self._heartbeat_out = False
            return
        if self._in_flight and self._in_flight[1] is path and self._in_flight[0].msg_id == frame.msg_id:
            self._in_flight[0].acked_at = self._journal.now
            self._in_flight = None
            self._send_next()

    def _answered(self, path: Path, answer: InitAck) -> None:
        """The answer to an INIT over TCP may still come by the fallback; the unit goes by what it asked on."""
        self.verdicts.append(Verdict(self._journal.now, path.kind, *answer))
        self.joins += answer.code == glink.ACCEPTED
        self._active, self._joining = self._joining or path, None
        self._send_next()

    # --- time --------------------------------------------------------------------------------------------------------

    def _tick(self) -> None:
        if not self.connected:
            return
        self._give_up_on_fallback()
        silence = clock.monotonic() - self._heard
        if self.patience is not None and silence > self.patience:
            self._note("gives a silent connection up")
            path = self._tcp
            path.close()
            self._ended(path, "silent")
        elif self.heartbeats == ALWAYS or (self.heartbeats == WHEN_IDLE and silence >= HEARTBEAT_SECONDS):
            self._send_heartbeat()

    def _give_up_on_fallback(self) -> None:
        """Back on TCP, it does not wait for ever for an acknowledgement that the relay has lost."""
        if self._in_flight and self._active is self._tcp and self._in_flight[1] is self._fallback \
                and self._journal.now - self._in_flight[0].sent_at > PATIENCE_SECONDS:
            self._give_up_in_flight()
            self._send_next()

    def _send_heartbeat(self) -> None:
        if not self._heartbeat_out or self.heartbeats == ALWAYS:
            self._heartbeat_out = True
            self._write(glink.message(glink.HEARTBEAT, glink.HEARTBEAT_PAYLOAD), self._tcp)

    def _repeat(self, period: float, action: Callable[[], Any]) -> Timer:
        timer = self._loop.call(self._loop.every, period, action)
        self._loads.append(timer)
        return timer

    # --- words -------------------------------------------------------------------------------------------------------

    def _note(self, kind: str, **detail: Any) -> None:
        self._loop.call(lambda: self._journal.add(LINK, BENCH, kind, unit=self.id, **detail))

    def _journal_frame(self, direction: str, path: Path, frame: Frame, raw: bytes, **extra: Any) -> None:
        kind, detail = ("ack", {"of": frame.name}) if frame.is_ack else (frame.name, glink.describe(frame))
        self._journal.add(LINK, direction, kind, raw, unit=self.id, path=path.kind, **detail, **extra)
