"""The far sides of a capture, on a board of the bench: they do what they did then, and hear what the base unit says now."""

from __future__ import annotations

import collections
import socket
from typing import Callable, Optional

from . import internallink as il
from .admissions import fallback_frame, introduction, whole_frame
from .answers import API, EGLINK, UART, Answer, api_answer, eglink_answer, uart_answer
from .apiclient import LINK as API_LINK
from .conversation import Conversation
from .installation import Installation, controller_group
from .journal import FROM_BASE_UNIT, Event
from .machinecontroller import MachineController
from .remotepaths import ADDRESS, TcpPath
from .replies import Offers, Replies
from .serialline import SerialLine
from .timeline import DATA, FINISH, OPEN, RESET, Move, Place

LINK = "far side"


class FarSides:
    """What they hear goes to `heard` as answers; `now` gives the time of these, None as long as time is not counted: until then
    only the first line on the UART is of interest, and `begin` is called before it is heard.

    `act` and `said` are used on the loop's thread.
    """

    def __init__(self, bench: Installation, talk: Conversation, now: Callable[[], Optional[float]], begin: Callable[[], None],
                 heard: Callable[[Answer], None]):
        self._bench, self._talk, self._now, self._begin, self._heard = bench, talk, now, begin, heard
        self._line: Optional[SerialLine] = None
        self._splitter = il.Splitter()
        self._numbers: dict[Place, int] = {}  # the base unit's packet numbers, by the place of what it said then
        self._sent: collections.Counter = collections.Counter()  # bytes, by connection
        self._offers: Offers = set()
        self._paths: dict[str, TcpPath] = {}
        self._listeners: dict[str, Replies] = {}
        self._controller = MachineController(bench.loop, bench.peer_socket(socket.SOCK_DGRAM), bench.journal,
                                             bench.eth0.far_host, *controller_group(bench.applications), link=LINK)
        self._controller.acknowledges = False
        bench.closing(self._controller)
        bench.loop.call(bench.journal.listeners.append, self._hears)

    def take_line(self) -> None:
        """From now on the base controller is the recorded one. The line is tapped before anything is read from it."""
        self._line = self._bench.closing(self._bench.loop.call(self._make_line))

    def said(self, place: Place, number: int) -> None:
        """What stands at this place has that packet number now."""
        self._numbers[place] = number

    def close(self) -> None:
        """Their connections end."""
        self._bench.loop.call(self._close_paths)

    # --- what they do ----------------------------------------------------------------------------------------------

    def act(self, move: Move) -> None:
        if move.link == UART:
            self._line.write(self._relayed_now(self._with_number_of_now(move)))
        elif move.link == EGLINK:
            self._controller.send_raw(move.data)
        elif move.link == API:
            self._bench.api.send(move.data)
        else:
            self._act_on_connection(move)

    def _with_number_of_now(self, move: Move) -> bytes:
        packet = il.parse(move.data)
        if move.acknowledges is None or packet is None:
            return move.data
        number = self._numbers.get(move.acknowledges, packet.number)
        return il.frame(packet._replace(number=number)) if number != packet.number else move.data

    def _act_on_connection(self, move: Move) -> None:
        path = self._paths.get(move.link)
        if move.what == OPEN:
            self._open(move.link)
        elif path is None or path.is_closed:
            return  # the base unit has ended it; that is for the judge
        elif move.what == DATA:
            path.write(self._introduced_now(move.link, move.data))
        elif move.what == FINISH:
            path.finish_writing()
        elif move.what == RESET:
            path.close(hard=True)

    def _relayed_now(self, data: bytes) -> bytes:
        """A line; over the fallback, too, a unit introduces itself with the application of now."""
        packet = il.parse(data)
        frame = packet and fallback_frame(packet)
        if not frame or not introduction(frame):
            return data
        now = self._with_checksum_of_now(frame.pack())
        return il.frame(packet._replace(payload=packet.payload[:-len(now)] + now))

    def _introduced_now(self, link: str, data: bytes) -> bytes:
        """The next bytes of a connection, of which an introduction may be a part or have one."""
        begins, now = self._sent[link], bytearray(data)
        self._sent[link] += len(data)
        for place, raw in self._talk.introductions.get(link, ()):
            first, behind = max(begins, place), min(begins + len(data), place + len(raw))
            if first < behind and data[first - begins:behind - begins] == raw[first - place:behind - place]:
                now[first - begins:behind - begins] = self._with_checksum_of_now(raw)[first - place:behind - place]
        return bytes(now)

    def _with_checksum_of_now(self, raw: bytes) -> bytes:
        """A unit that was taken in carried the application that was installed then; here another one may be."""
        frame = whole_frame(raw)
        init = introduction(frame)
        if self._talk.accepted.get(init.unit) != init.checksum:
            return raw
        return frame._replace(payload=init._replace(checksum=self._bench.unit_checksum()).pack()).pack()

    # --- what they hear --------------------------------------------------------------------------------------------

    def _make_line(self) -> SerialLine:
        line = SerialLine(self._bench.loop, self._bench.serial(), self._line_says)
        if self._bench.capture:
            line.taps.append(self._bench.capture.line)
        return line

    def _line_says(self, data: bytes) -> None:
        for raw in self._splitter.feed(data):
            if self._now() is None:
                self._begin()
            self._heard(uart_answer(self._now(), 0, raw))

    def _hears(self, event: Event) -> None:
        """A listener of the journal, for the links on which a peer of the bench is the far side's ear."""
        if event.direction != FROM_BASE_UNIT or self._now() is None:
            return
        if event.link == LINK:
            self._heard(eglink_answer(self._now(), 0, event.data))
        elif event.link == API_LINK:
            self._heard(api_answer(self._now(), 0, event.data))

    def _open(self, link: str) -> None:
        port = self._talk.ports[link]
        self._listeners[link] = Replies(link, port, self._offers)
        path = TcpPath(self._bench.loop, self._bench.peer_socket(), lambda: None, lambda data: self._stream_says(link, data),
                       lambda _reason: self._ends(link), target=(ADDRESS[0], port))
        self._paths[link] = path.connect()

    def _stream_says(self, link: str, data: bytes) -> None:
        for answer in self._listeners[link].feed(self._now(), 0, data):
            self._heard(answer)

    def _ends(self, link: str) -> None:
        for answer in self._listeners[link].end(self._now(), 0):
            self._heard(answer)

    def _close_paths(self) -> None:
        for path in self._paths.values():
            path.close()
