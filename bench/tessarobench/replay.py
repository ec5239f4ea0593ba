"""Plays the far sides of a capture to a server, and compares what the server answers with what is recorded.

A far side acts at its recorded time, counted from the base unit's first word; what acknowledges an answer comes as long after
that answer as it did then. An answer is compared with the one that stands at its place among those of its kind:

    identical    the same bytes
    allowed      another number, serial or time stamp; a value of the base unit's own rhythm that was told a moment before
                 or after; a transfer of the same size
    not judged   what passes on the words of the base controller, when the capture does not hold those
    different    anything else, one that is missing, one that is too many, one that is more than the tolerance off its time
"""

from __future__ import annotations

import collections
import socket
from pathlib import Path
from typing import Any, NamedTuple, Optional

from . import clock, glink, internallink as il
from .apiclient import LINK as API_LINK
from .capturefile import CaptureFile
from .conversation import (API, DATA, EGLINK, END, FINISH, OPEN, RESET, UART, Answer, Changes, Channel, Conversation,
                           Move, Replies, api_answer, eglink_answer, follows_images, parts, rules, uart_answer)
from .installation import APP, REMOTES, Installation, controller_group
from .journal import FROM_BASE_UNIT, Event
from .machinecontroller import MachineController
from .remotepaths import ADDRESS, TcpPath
from .serialline import SerialLine
from .serverprocess import LINK as SERVER

TOLERANCE, REAL_TOLERANCE = 0.06, 0.3  # seconds; the base unit's shortest time is its 50 ms repetition
MOMENT = 0.6         # a value of its rhythm may be told so much earlier or later: the longest period is 500 ms
AFTERWARDS = 0.1     # for what is under way at the end of the recording
TICK = 0.001         # of the virtual clock
FAR_SIDE = "far side"
EXIT = (SERVER, "exit")  # the channel of its end
IDENTICAL, ALLOWED = "identical", "allowed"
NOT_JUDGED = "not judged, as they follow a base controller whose words the capture does not hold"


class Difference(NamedTuple):
    """`recorded` and `answered` are None where there is nothing."""

    what: str
    channel: Channel
    recorded: Optional[Answer]
    answered: Optional[Answer]

    def __str__(self) -> str:
        name = " ".join(str(part) for part in self.channel[:2])
        return "\n".join((f"DIFFERENT  {name}: {self.what}", _side("recorded", self.recorded),
                          _side("answered", self.answered)))


def _side(name: str, answer: Optional[Answer]) -> str:
    if answer is None:
        return f"  {name}  nothing"
    origin = f" (packet {answer.packet})" if answer.packet else ""
    value = f"\n  {'':{len(name)}}             {answer.value.hex(' ')}" if answer.value else ""
    return f"  {name}  {answer.time:9.3f} s  {answer.words}{origin}{value}"


class Judge:
    """Compares answers as they come; all times are seconds since the base unit's first word. Without the UART in the capture
    (`has_uart`) nobody knows what the base controller said, nor what should be passed on of that."""

    def __init__(self, recorded: list[Answer], tolerance: float, has_uart: bool = True):
        self._tolerance, self._has_uart = tolerance, has_uart
        self._expected: dict[Channel, list[Answer]] = collections.defaultdict(list)
        for answer in recorded:
            self._expected[answer.channel].append(answer)
        self._came: dict[Channel, list[Answer]] = collections.defaultdict(list)
        self.counts: collections.Counter = collections.Counter()
        self.differences: list[Difference] = []

    def take(self, answer: Answer) -> int:
        """Judges one answer; returns its place among those of its kind."""
        place = len(self._came[answer.channel])
        self._came[answer.channel].append(answer)
        if not self._judges(answer.channel):
            self.counts[NOT_JUDGED] += 1
            return place
        judge = self._in_rhythm if rules(answer.channel).rhythm else self._in_turn
        judge(answer, place)
        return place

    def _judges(self, channel: Channel) -> bool:
        return self._has_uart or not follows_images(channel)

    def _in_turn(self, answer: Answer, place: int) -> None:
        expected = self._expected[answer.channel]
        if place >= len(expected):
            self._differ("one more than is recorded", answer.channel, None, answer)
            return
        recorded = expected[place]
        if recorded.value != answer.value:
            self._differ("something else is said", answer.channel, recorded, answer)
        elif abs(answer.time - recorded.time) > self._tolerance and answer.channel[1] != END:
            self._differ(f"{abs(answer.time - recorded.time):.3f} s {'later' if answer.time > recorded.time else 'earlier'}",
                         answer.channel, recorded, answer)
        else:
            self.counts[IDENTICAL if recorded.identity == answer.identity else f"{ALLOWED}: another number or time stamp"] += 1

    def _in_rhythm(self, answer: Answer, _place: int) -> None:
        expected = self._expected[answer.channel]
        near = self._near(answer, expected)
        if not near:
            self._differ("nothing of the kind is recorded at this time", answer.channel, self._nearest(answer), answer)
        elif not all(self._is_told(answer, name, value, expected) for name, value in parts(answer).items()):
            self._differ("something else is said at this time", answer.channel, self._nearest(answer), answer)
        elif any(each.value == answer.value and abs(each.time - answer.time) <= self._tolerance for each in near):
            self.counts[IDENTICAL] += 1
        else:
            self.counts[f"{ALLOWED}: a value of its moment"] += 1

    def _near(self, answer: Answer, among: list[Answer]) -> list[Answer]:
        return [each for each in among if abs(each.time - answer.time) <= MOMENT + self._tolerance]

    def _is_told(self, answer: Answer, name: str, value: Any, among: list[Answer]) -> bool:
        """Whether a part of an answer stands among those of its time. A blend may also show a part as it was before they
        came, which is not known before the first of all."""
        near = self._near(answer, among)
        if any(parts(each).get(name) == value for each in near):
            return True
        before = [each for each in among if near and each.time < near[0].time]
        return rules(answer.channel).blend and bool(near) and (not before or parts(before[-1]).get(name) == value)

    def _stays(self, answer: Answer, name: str, value: Any, own: list[Answer]) -> bool:
        return not any(parts(each).get(name) != value for each in self._near(answer, own) if each.time >= answer.time)

    def _nearest(self, answer: Answer) -> Optional[Answer]:
        return min(self._expected[answer.channel], key=lambda each: abs(each.time - answer.time), default=None)

    def finish(self) -> None:
        """What is recorded and did not come. Connections that end behind the base unit's last word end with the server, or with
        the recording."""
        last = max((each.time for every in self._expected.values() for each in every if each.channel[1] != END), default=0.0)
        for channel, recorded_here in self._expected.items():
            if not self._judges(channel):
                continue
            expected = [each for each in recorded_here if channel[1] != END or each.time <= last]
            came = self._came[channel]
            if not rules(channel).rhythm:
                for recorded in expected[len(came):]:
                    self._differ("it does not come", channel, recorded, None)
                continue
            for recorded in expected:
                if not all(self._is_told(recorded, name, value, came) or
                           (rules(channel).blend and not self._stays(recorded, name, value, expected))
                           for name, value in parts(recorded).items()):
                    self._differ("it does not come", channel, recorded, None)
        self.differences.sort(key=lambda each: (each.answered or each.recorded).time)

    def _differ(self, what: str, channel: Channel, recorded: Optional[Answer], answered: Optional[Answer]) -> None:
        self.differences.append(Difference(what, channel, recorded, answered))

    @property
    def summary(self) -> str:
        told = [f"{count} {what}" for what, count in sorted(self.counts.items(), key=lambda each: each[0] != IDENTICAL)]
        return f"{sum(self.counts.values()) + len(self.differences)} answers: " + ", ".join(
            told + [f"{len(self.differences)} different" if self.differences else "none different"])


class Player:
    """Plays one conversation on a board that it lays. `run` returns the judge."""

    def __init__(self, conversation: Conversation, server: Path, virtual_time: Optional[Path],
                 installation: Optional[Path] = None, capture: Optional[CaptureFile] = None):
        self._talk, self._server, self._virtual = conversation, server, virtual_time
        self._installation, self._capture = installation, capture
        self._began: Optional[float] = None  # on the clock, the base unit's first word
        self._zero = 0.0                     # the same in the capture
        self._last = 0.0                     # the end of the recording, from then on
        self._ended_at = 0.0                 # the same of the server, if it does
        self._waiting: dict[tuple[Channel, int], list[Move]] = collections.defaultdict(list)
        self._numbers: dict[tuple, int] = {}  # the base unit's packet numbers then -> now
        self._splitter, self._changes = il.Splitter(), Changes()
        self._recorded_links = {answer.channel[0] for answer in conversation.answers}
        self._done: dict[int, list[Move]] = collections.defaultdict(list)
        self._patience = TOLERANCE if virtual_time else REAL_TOLERANCE
        self._paths: dict[str, TcpPath] = {}
        self._listeners: dict[str, Replies] = {}

    def run(self) -> Judge:
        options: dict[str, Any] = {"installation": self._installation} if self._installation else {}
        with Installation(self._server, capture=self._capture, virtual_time=self._virtual, **options) as bench:
            self._bench = bench
            self._configure()
            self._zero = self._first_word()
            self._last = max(each.time for each in (*self._talk.moves, *self._talk.answers)) - self._zero
            self.judge = Judge([answer._replace(time=answer.time - self._zero) for answer in self._talk.answers],
                               self._patience, self._talk.has_uart)
            self._connect()
            self._wait_for_end()
            self._judge_life()
            self._close()
            bench.loop.raise_failure()
            self.judge.finish()
            return self.judge

    # --- before ----------------------------------------------------------------------------------------------------

    def _configure(self) -> None:
        """What the capture shows of the configuration: the units that belong to the base unit, and whether it spoke to a
        machine controller."""
        bench, table = self._bench, self._bench.table(REMOTES)
        for row, unit in enumerate(sorted(self._talk.accepted.keys() - self._talk.paired_here)):
            table.set(str(row), RUID=unit, **{f"PKY{word}": 0 for word in range(1, 5)})
        if not self._installation:
            table.save(bench.applications / REMOTES)
        if self._talk.begins_at_start and not self._talk.has_eglink:
            bench.change(APP, "EMAP", value=0)

    def _first_word(self) -> float:
        if self._talk.begins_at_start:
            return next(answer.time for answer in self._talk.answers if answer.channel[0] == UART)
        return min(each.time for each in (*self._talk.moves[:1], *self._talk.answers[:1]))

    def _connect(self) -> None:
        """The far sides take their places, and the server starts."""
        bench = self._bench
        self._controller = MachineController(bench.loop, bench.peer_socket(socket.SOCK_DGRAM), bench.journal,
                                             bench.eth0.far_host, *controller_group(bench.applications), link=FAR_SIDE)
        self._controller.acknowledges = False
        bench.closing(self._controller)
        bench.loop.call(bench.journal.listeners.append, self._hears)
        if self._talk.begins_at_start:
            assert bench.api
            self._line = self._take_line()
            bench.start()
        else:
            bench.start_to_serve()
            if self._talk.has_uart:
                bench.bc.close()
                self._line = self._take_line()
            bench.loop.call(self._begin)

    def _take_line(self) -> SerialLine:
        """Tapped before anything is read from it."""
        return self._bench.closing(self._bench.loop.call(self._make_line))

    def _make_line(self) -> SerialLine:
        line = SerialLine(self._bench.loop, self._bench.serial(), self._line_says)
        if self._bench.capture:
            line.taps.append(self._bench.capture.line)
        return line

    # --- what far sides do -----------------------------------------------------------------------------------------

    def _begin(self) -> None:
        """The base unit's first word: from now on time is counted."""
        self._began = clock.monotonic()
        for move in self._talk.moves:
            place, due = move.acknowledges or move.after, move.time - self._zero
            if place:
                self._waiting[place].append(move)
            if not move.acknowledges:
                self._act_later(due + (self._patience if move.after else 0), move)

    def _act_later(self, due: float, move: Move) -> None:
        self._bench.loop.later(max(0.0, due - self._now), lambda: self._act(move))

    @property
    def _now(self) -> float:
        return clock.monotonic() - self._began

    def _act(self, move: Move) -> None:
        """Once, although it may come both after an answer and, when that fails to come, at its time."""
        if move.packet in self._done and move in self._done[move.packet]:
            return
        self._done[move.packet].append(move)
        if move.link == UART:
            self._line.write(self._with_number_of_now(move))
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
            path.write(self._with_checksum_of_now(move.data))
        elif move.what == FINISH:
            path.finish_writing()
        elif move.what == RESET:
            path.close(hard=True)

    def _with_checksum_of_now(self, data: bytes) -> bytes:
        """A unit that was taken in carried the application that was installed then; here another one may be."""
        try:
            (frame, raw), = glink.Assembler().feed(data)
        except (ValueError, glink.Damaged):
            return data
        if frame.msg_id != glink.INIT or frame.is_ack or len(frame.payload) != 22:
            return data
        init = glink.Init.unpack(frame.payload)
        if self._talk.accepted.get(init.unit) != init.checksum:
            return data
        return frame._replace(payload=init._replace(checksum=self._bench.unit_checksum()).pack()).pack()

    def _open(self, link: str) -> None:
        port = self._talk.ports[link]
        self._listeners[link] = Replies(link, port)
        path = TcpPath(self._bench.loop, self._bench.peer_socket(), lambda: None, lambda data: self._stream_says(link, data),
                       lambda _reason: self._ends(link), target=(ADDRESS[0], port))
        self._paths[link] = path.connect()

    # --- what the base unit says -----------------------------------------------------------------------------------

    def _take(self, answer: Answer) -> None:
        if answer.time > self._last + self._patience and answer.channel[1] != END:
            return  # of this nothing is recorded any more
        if not self._talk.begins_at_start and answer.channel[0] not in self._recorded_links:
            return  # the capture was taken elsewhere
        key = answer.channel, self.judge.take(answer)
        if answer.identity is not None:
            self._numbers[key] = answer.identity
        moves, now = self._waiting.pop(key, []), self._now
        if change := self._changes.place(answer):
            moves += self._waiting.pop(change, [])
        for move in moves:
            if move.acknowledges:
                self._act_later(now + move.delay, move)
        # One after the other, and moments later: in virtual time that is when all has been done that went before.
        for place, move in enumerate((move for move in moves if move.after), 1):
            self._act_later(max(now + max(move.delay, place * TICK), move.time - self._zero), move)

    def _line_says(self, data: bytes) -> None:
        for raw in self._splitter.feed(data):
            if self._began is None:
                self._begin()
            self._take(uart_answer(self._now, 0, raw))

    def _hears(self, event: Event) -> None:
        """A listener of the journal, for the links on which a peer of the bench is the far side's ear."""
        if event.link == SERVER and event.kind == "ended":
            self._ended_at = self._now if self._began is not None else 0.0
        if event.direction != FROM_BASE_UNIT or self._began is None:
            return
        if event.link == FAR_SIDE:
            self._take(eglink_answer(self._now, 0, event.data))
        elif event.link == API_LINK:
            self._take(api_answer(self._now, 0, event.data))

    def _stream_says(self, link: str, data: bytes) -> None:
        for answer in self._listeners[link].feed(self._now, 0, data):
            self._take(answer)

    def _ends(self, link: str) -> None:
        for answer in self._listeners[link].end(self._now, 0):
            self._take(answer)

    # --- afterwards ------------------------------------------------------------------------------------------------

    def _wait_for_end(self) -> None:
        last = self._last
        self._bench.wait_for(lambda: self._began is not None, 30, "the first word of the base unit")
        self._bench.wait_for(lambda: self._now >= last + AFTERWARDS, last + 30, "the end of the recording", poll=0.1)

    def _judge_life(self) -> None:
        """A server that has ended is different, whatever it answered before."""
        status = self._bench.server.exit_status
        if status is not None:
            end = Answer(self._ended_at, 0, EXIT, b"", None, f"it ends with status {status}")
            self.judge.differences.append(Difference("it does not last", EXIT, None, end))

    def _close(self) -> None:
        self._bench.loop.call(self._close_on_loop)

    def _close_on_loop(self) -> None:
        for path in self._paths.values():
            path.close()


