"""Remote units: what operators hold in their hands, as simulated peers.

A unit joins over TCP or over the base controller's fallback relay, acknowledges, keeps one message of its own in flight,
watches the link with heartbeats, and keeps everything that it received. Every rule that it follows can be broken.
"""

from __future__ import annotations

from typing import Any, Callable, Optional

from . import glink
from .glink import Frame, InitAck
from .loop import Timer
from .pieces import Pieces
from .remotepaths import TcpPath
from .unitsession import Outgoing, Received, UnitSession


class RemoteUnit(UnitSession):
    """Everything public may be called from any thread; what went and came stands in the journal under "glink".

    What it is:       `id`, `base_id`, `checksum` (or a function that works it out when the unit joins)
    What it does:     `ack_delay` for all messages and `ack_delays` by message id: seconds, or NEVER
                      `heartbeats`: WHEN_IDLE (after 250 ms without anything received), ALWAYS, or NONE
                      `patience`: it gives a silent connection up after so many seconds, None: never
                      `rejoin_after`: seconds after which a lost connection is opened again, None: not by itself
                      `to_base_unit`, `from_base_unit`: what happens to its frames on the way
    What it went through: `received`, `verdicts` (INITACKs), `ends`, `damaged` (frames that failed their checks),
                      `joins` (accepted ones), `inbox` (a Ledger of the base controller's commands, when given)
    """

    # --- joining and leaving ---------------------------------------------------------------------------------------

    def join(self, send_init: bool = True, small_buffer: bool = False) -> "RemoteUnit":
        """Opens a connection and, when it stands, sends INIT. An older connection is forgotten, not closed."""
        self._loop.call(self._open, send_init, small_buffer)
        return self

    def join_fallback(self) -> "RemoteUnit":
        """Sends INIT over the base controller."""
        self._loop.call(self._enter_fallback)
        return self

    def send_init(self, **changes: Any) -> None:
        """One more INIT over TCP; `changes` replaces fields of it (see glink.Init)."""
        self._loop.call(self._introduce, self._tcp, changes)

    def leave(self, hard: bool = False) -> None:
        """Closes the TCP connection; with `hard` by a reset."""
        self._loop.call(self._close_tcp, hard)

    def leave_fallback(self) -> None:
        """Sends FALLBACK DEINIT and stays in the relay for its acknowledgement."""
        self._loop.call(lambda: self._write(glink.message(glink.FALLBACK_DEINIT), self._fallback))

    def lose_network(self) -> None:
        """Out of reach from one moment to the next: the base unit is left with a half-open connection."""
        self._loop.call(self._forget, False)

    def forget_connection(self, reachable: bool = True) -> Optional[TcpPath]:
        """Acts as if it had none, without ending it: as after a restart of the unit. What still comes on it is read and
        dropped; with `reachable` false, nothing comes any more. Gives it, to be closed whenever one likes."""
        return self._loop.call(self._forget, reachable)

    @property
    def path(self) -> Optional[str]:
        """The path by which the unit sends: "TCP", "fallback", or None when it has not been answered on any."""
        return self._active.kind if self._active else None

    @property
    def joined(self) -> bool:
        """Whether the newest INIT was answered with "accepted"."""
        return bool(self._active and not self._joining and self.verdicts and self.verdicts[-1].code == glink.ACCEPTED)

    @property
    def verdict(self) -> Optional[InitAck]:
        """The newest answer to an INIT, or None while it is awaited."""
        return InitAck(*self.verdicts[-1][2:]) if self.verdicts and not self._joining else None

    @property
    def awaits_verdict(self) -> bool:
        """Whether an INIT has been sent that is not answered yet."""
        return self._joining is not None

    @property
    def connected(self) -> bool:
        return bool(self._tcp and self._tcp.is_open and not self._tcp.is_closed and not self._tcp.has_vanished)

    def wait_joined(self, timeout: Optional[float] = None) -> "RemoteUnit":
        self._wait(lambda: self.joined, timeout, f"unit {self.id} joined")
        return self

    def wait_verdict(self, timeout: Optional[float] = None) -> InitAck:
        self._wait(lambda: self.verdict, timeout, f"an INITACK for unit {self.id}")
        return self.verdict

    # --- sending ---------------------------------------------------------------------------------------------------

    def send(self, msg_id: int, payload: bytes = b"") -> Outgoing:
        """Queues a message: one at a time, the next after the acknowledgement of the one before."""
        outgoing = Outgoing(msg_id, payload)
        self._loop.call(self._enqueue, outgoing)
        return outgoing

    def command(self, payload: Optional[bytes] = None) -> Outgoing:
        """A command; without a payload, one that is numbered in `ledger`."""
        return self._loop.call(lambda: self.send(glink.CMD, self.ledger.issue() if payload is None else payload))

    def periodic(self, payload: bytes) -> Outgoing:
        return self.send(glink.PERIODIC_DATA, payload)

    def service_forward(self, payload: bytes) -> Outgoing:
        return self.send(glink.SERVICE_FORWARD, payload)

    def machine_stop(self) -> Outgoing:
        return self.send(glink.MACHINE_STOP)

    def power_off(self) -> Outgoing:
        return self.send(glink.POWER_OFF)

    def send_every(self, period: float, make: Callable[[], tuple[int, bytes]]) -> Timer:
        """Queues (message id, payload) as `make` gives it, until the timer is cancelled; skipped while one waits."""
        return self._repeat(period, lambda: None if self._waiting else self.send(*make()))

    def command_every(self, period: float) -> Timer:
        """Numbered commands, as long as the unit has a path."""
        return self._repeat(period, lambda: self.command() if self._active and not self._waiting else None)

    @property
    def in_flight(self) -> Optional[Outgoing]:
        """The message that waits for its acknowledgement."""
        return self._in_flight[0] if self._in_flight else None

    @property
    def idle(self) -> bool:
        """Whether everything queued was acknowledged or given up."""
        return not self._waiting and not self._in_flight

    # --- bad manners -----------------------------------------------------------------------------------------------

    def mute(self, on: bool = True) -> None:
        """Keeps the connection, receives, and sends nothing at all."""
        self._note("mute" if on else "unmute")
        self._muted = on

    def babble(self, frame: Frame, burst: int = 50, period: float = 0.005) -> Timer:
        """Sends `frame` over TCP without end and without waiting, `burst` at a time."""
        raw = frame.pack() * burst
        self._note("babbles", what=frame.name)
        return self._repeat(period, lambda: self._tcp.write(raw) if self.connected and not self._tcp.unsent else None)

    def send_raw(self, raw: bytes) -> None:
        """Any bytes, in order with the rest, by the path in use (TCP before the first INITACK)."""
        self._note("raw bytes", size=len(raw))
        self._loop.call(lambda: (self._active or self._joining or self._tcp).write(raw))

    def write_bytewise(self, pause: Optional[float] = 0.0) -> None:
        self._loop.call(self._tcp.write_bytewise, pause)

    @property
    def pieces(self) -> Pieces:
        """How what it sends on its present connection is cut into writes."""
        return self._tcp.pieces

    def read_slowly(self, size: int, period: float) -> None:
        self._loop.call(self._tcp.read_slowly, size, period)

    def stop_reading(self, stop: bool = True) -> None:
        self._loop.call(self._tcp.stop_reading, stop)

    def finish_writing(self) -> None:
        self._loop.call(self._tcp.finish_writing)

    def quiet(self) -> None:
        """Ends everything that `send_every`, `command_every` and `babble` began."""
        for timer in self._loads:
            timer.cancel()
        self._loads.clear()

    # --- looking back ----------------------------------------------------------------------------------------------

    def messages(self, msg_id: int, since: int = 0) -> list[Received]:
        """What came of one kind, of `received[since:]`."""
        return [message for message in self.received[since:] if message.msg_id == msg_id]

    def payloads(self, msg_id: int, since: int = 0) -> list[bytes]:
        return [message.payload for message in self.messages(msg_id, since)]

    @property
    def base_status(self) -> Optional[glink.BaseStatus]:
        """The newest base status."""
        found = next((message for message in reversed(self.received) if message.msg_id == glink.BASE_STATUS), None)
        return glink.BaseStatus.unpack(found.payload) if found else None

    def gaps(self, msg_id: int = glink.BASE_STATUS, since: int = 0) -> list[float]:
        """Seconds between messages of one kind, by the base unit's own clock: what keeps the bench busy is not in it."""
        stamps = [message.sent for message in self.messages(msg_id, since)]
        return [((later - earlier) & 0xFFFFFFFF) / 1000 for earlier, later in zip(stamps, stamps[1:])]

    def close(self) -> None:
        """Switches the unit off. What it keeps may still be looked at."""
        self._loop.call(self._close)

    def _wait(self, predicate: Callable[[], Any], timeout: Optional[float], what: str) -> None:
        self._loop.wait_for(predicate, timeout, what)
