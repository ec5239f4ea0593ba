"""The machine controller, on the multicast group at the far end of eth0.

It sends periodic data in numbered parts and commands, acknowledges the base unit's commands, and can do all of it late,
wrongly, twice, damaged or not at all. It knows a UDP socket, an event loop and a journal, and nothing of the board.
"""

from __future__ import annotations

import socket
from typing import Callable, Iterable, Optional

from . import eglink
from .eglink import GROUP, PORT, Packet
from .impair import Impairment
from .journal import BENCH, FROM_BASE_UNIT, TO_BASE_UNIT, Journal
from .loop import Loop, Timer

LINK = "eglink"
CYCLE_SECONDS = 0.1


class MachineController:
    """Everything public may be called from any thread; what it did and saw stands in the journal under `link`.

    `udp`          a fresh UDP socket in the network where the controller lives; `host` is its address there
    `origin`       what it writes into its packets; another number than 0 makes a foreign controller
    `acknowledges` whether it answers the base unit's commands; `wrong_by` is added to the id that it acknowledges
    `acks`         what happens to its acknowledgements before `to_base_unit`, which all its packets pass
    `commands`     the base unit's commands, each once, in the order of their first arrival
    `taps`         called on the loop's thread with every datagram as it goes onto the network
    `periodic`     the newest periodic data of the base unit, None before the first
    """

    def __init__(self, loop: Loop, udp: socket.socket, journal: Journal, host: str, group: str = GROUP,
                 port: int = PORT, origin: int = eglink.CONTROLLER, link: str = LINK):
        self._loop, self._udp, self._journal, self._host, self.link = loop, udp, journal, host, link
        self._group, self._port, self.origin = group, port, origin
        self.acknowledges, self.wrong_by = True, 0
        self.acks, self.to_base_unit = Impairment(loop), Impairment(loop, reorder=True)
        self.commands: list[bytes] = []
        self.taps: list[Callable[[bytes], None]] = []
        self.periodic: Optional[bytes] = None
        self._serial = self._next_command = 0
        self._last_command: Optional[tuple[int, int]] = None
        self._cycle: Optional[Timer] = None
        udp.setblocking(False)
        udp.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        udp.bind(("", port))
        self.join()
        loop.call(loop.watch, udp, self._readable)

    def join(self) -> None:
        """Enters the group on its interface; once more after that interface was made anew."""
        host = socket.inet_aton(self._host)
        self._udp.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, socket.inet_aton(self._group) + host)
        self._udp.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, host)

    def leave(self) -> None:
        """Gives up its place in the group, while the interface is gone: until then it counts against the twenty places
        that the kernel grants a socket."""
        self._udp.setsockopt(socket.IPPROTO_IP, socket.IP_DROP_MEMBERSHIP,
                             socket.inet_aton(self._group) + socket.inet_aton(self._host))

    def close(self) -> None:
        self._loop.call(self._end_cycle)
        self._loop.call(self._loop.watch, self._udp)
        self._udp.close()

    # --- periodic data ---------------------------------------------------------------------------------------------

    def cycle(self, data: bytes, period: float = CYCLE_SECONDS) -> None:
        """Sends `data` as a whole set, now and every `period` seconds, until it is told otherwise."""
        self._loop.call(self._begin_cycle, data, period)

    def silence(self) -> None:
        """No more sets by itself."""
        self._loop.call(self._journal.add, self.link, BENCH, "silence")
        self._loop.call(self._end_cycle)

    def send_set(self, data: bytes, order: Optional[Iterable[int]] = None, serial: Optional[int] = None,
                 size: int = eglink.PART_SIZE) -> int:
        """Sends one set, its parts in the given order (an index may be missing, or stand there twice). Returns the
        serial that all of them carried: the next one, unless it is given."""
        return self._loop.call(self._send_set, data, order, serial, size)

    def send_part(self, index: int, data: bytes, serial: Optional[int] = None) -> int:
        """Sends one part of a set; returns its serial."""
        return self.send("VRPO", eglink.part(index, data), serial)

    # --- commands --------------------------------------------------------------------------------------------------

    def command(self, text: bytes, number: Optional[int] = None) -> int:
        """Sends a command, once; returns its id: the next one, unless it is given."""
        return self._loop.call(self._send_command, text, number)

    def acknowledge(self, number: int) -> None:
        """Sends an acknowledgement that nobody may have asked for."""
        self.send("VRAO", eglink.acknowledgement(number))

    # --- anything --------------------------------------------------------------------------------------------------

    def send(self, kind: str, payload: bytes = b"", serial: Optional[int] = None, **fields: int) -> int:
        """Sends one packet of any type; `fields` are those of eglink.Packet. Returns its serial."""
        return self._loop.call(self._send, kind, payload, serial, fields)

    def send_raw(self, datagram: bytes) -> None:
        """Sends any bytes as one datagram, unimpaired."""
        self._loop.call(self._send_raw, datagram)

    # --- on the loop's thread --------------------------------------------------------------------------------------

    def _begin_cycle(self, data: bytes, period: float) -> None:
        self._end_cycle()
        self._cycle = self._loop.every(period, lambda: self._send_set(data, None, None, eglink.PART_SIZE, again=True))
        self._send_set(data, None, None, eglink.PART_SIZE)

    def _end_cycle(self) -> None:
        if self._cycle:
            self._cycle.cancel()
        self._cycle = None

    def _take_serial(self) -> int:
        self._serial = (self._serial + 1) & 0xFFFF
        return self._serial

    def _send_set(self, data: bytes, order: Optional[Iterable[int]], serial: Optional[int], size: int,
                  again: bool = False) -> int:
        payloads = eglink.parts(data, size)
        serial = self._take_serial() if serial is None else serial
        for index in range(len(payloads)) if order is None else order:
            self._send("VRPO", payloads[index], serial, {}, **({"again": True} if again else {}))
        return serial

    def _send_command(self, text: bytes, number: Optional[int]) -> int:
        number = self._next_command if number is None else number
        self._next_command = (number + 1) & 0xFFFF
        self._send("VRCO", eglink.command(number, text), None, {})
        return number

    def _send(self, kind: str, payload: bytes, serial: Optional[int], fields: dict, **remarks) -> int:
        packet = Packet(kind, self._take_serial() if serial is None else serial, payload,
                        **{"origin": self.origin, **fields})
        raw = packet.pack()
        outcome = self.to_base_unit.apply(raw, self._transmit)
        if outcome != "passed":
            remarks["fate"] = outcome
        self._journal.add(self.link, TO_BASE_UNIT, kind, raw, **eglink.describe(packet), **remarks)
        return packet.serial

    def _send_raw(self, datagram: bytes) -> None:
        self._journal.add(self.link, BENCH, "raw", datagram, size=len(datagram))
        self._transmit(datagram)

    def _transmit(self, datagram: bytes) -> None:
        try:
            self._udp.sendto(datagram, (self._group, self._port + eglink.BASE_UNIT_PORT_OFFSET))
            for tap in self.taps:
                tap(datagram)
        except OSError as error:  # the cable is out, or the interface is gone
            self._journal.add(self.link, BENCH, "unsent", text=error.strerror)

    def _readable(self) -> None:
        while True:
            try:
                datagram, source = self._udp.recvfrom(65536)
            except BlockingIOError:
                return
            self._received(datagram, source[0])

    def _received(self, datagram: bytes, source: str) -> None:
        packet = eglink.parse(datagram)
        if packet is None:
            self._journal.add(self.link, FROM_BASE_UNIT, "damaged", datagram, source=source)
            return
        detail = eglink.describe(packet)
        again = self._note_news(packet, detail)
        self._journal.add(self.link, FROM_BASE_UNIT, packet.type, datagram, source=source, **detail,
                          **({"again": True} if again else {}))
        if packet.type == "VRCI":
            self._acknowledge(detail["id"])

    def _note_news(self, packet: Packet, detail: dict) -> bool:
        """Keeps what is new in a packet; returns whether it repeats the one before it of its kind."""
        if packet.type == "VRPI":
            again, self.periodic = self.periodic == packet.payload, packet.payload
            return again
        if packet.type == "VRCI":
            again = self._last_command == (packet.serial, detail["id"])
            self._last_command = (packet.serial, detail["id"])
            if not again:
                self.commands.append(detail["command"])
            return again
        return False

    def _acknowledge(self, number: int) -> None:
        if not self.acknowledges:
            return
        answer = eglink.acknowledgement(number + self.wrong_by)
        outcome = self.acks.apply(answer, lambda payload: self._send("VRAO", payload, None, {}))
        if outcome == "dropped":
            self._journal.add(self.link, TO_BASE_UNIT, "VRAO", id=number + self.wrong_by, fate=outcome)
