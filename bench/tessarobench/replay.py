"""Plays the far sides of a capture to a server, and compares what the server answers with what is recorded (see `judge`).

A far side acts at its recorded time, counted from the base unit's first word; what acknowledges an answer comes as long after
that answer as it did then.
"""

from __future__ import annotations

from pathlib import Path
from typing import Any, Optional

from .answers import UART, Answer
from .capturefile import CaptureFile
from .conversation import Conversation
from .farsides import FarSides
from .installation import APP, REMOTES, Installation
from .journal import Event
from .judge import Difference, Judge
from .loop import WaitTimeout
from .serverprocess import LINK as SERVER
from .turns import Turns

TOLERANCE, REAL_TOLERANCE = 0.06, 0.3  # seconds; the base unit's shortest time is its 50 ms repetition
AFTERWARDS = 0.01    # for what is under way then
EXIT = (SERVER, "exit")  # the channel of its end


class CannotBegin(Exception):
    """The server does not come so far that anything could be played. The text says why."""


class Player:
    """Plays one conversation on a board that it lays. `run` returns the judge, or raises CannotBegin."""

    def __init__(self, conversation: Conversation, server: Path, virtual_time: Optional[Path],
                 installation: Optional[Path] = None, capture: Optional[CaptureFile] = None):
        self._talk, self._server, self._virtual = conversation, server, virtual_time
        self._installation, self._capture = installation, capture
        self._ended_at = 0.0  # when the server did, if it does
        self._recorded_links = {answer.channel[0] for answer in conversation.answers} | conversation.ports.keys()
        self._stuck = ""  # in which way the server stands still, if it does
        self._patience = TOLERANCE if virtual_time else REAL_TOLERANCE

    def run(self) -> Judge:
        options: dict[str, Any] = {"installation": self._installation} if self._installation else {}
        with Installation(self._server, capture=self._capture, virtual_time=self._virtual, **options) as bench:
            self._bench = bench
            self._configure()
            self._prepare()
            self._begin()
            self._wait_for_end()
            self._judge_life()
            self._far.close()
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

    def _prepare(self) -> None:
        """Everybody who has to do with the play. All times are counted from the base unit's first word."""
        talk, zero = self._talk, self._first_word()
        self._last = max(each.time for each in (*talk.moves, *talk.answers)) - zero  # the end of the recording
        self.judge = Judge([answer._replace(time=answer.time - zero) for answer in talk.answers], self._patience, talk.has_uart,
                           self._last)
        # Who waits in vain for an answer must not be answered too late for that.
        self._turns = Turns(self._bench.loop, talk.moves, zero, self._patience / 2, lambda move: self._far.act(move))
        self._far = FarSides(self._bench, talk, lambda: self._turns.now if self._turns.have_begun else None, self._turns.begin,
                             self._take)
        self._bench.loop.call(self._bench.journal.listeners.append, self._note_end)

    def _first_word(self) -> float:
        if self._talk.begins_at_start:
            return next(answer.time for answer in self._talk.answers if answer.channel[0] == UART)
        return min(each.time for each in (*self._talk.moves[:1], *self._talk.answers[:1]))

    def _begin(self) -> None:
        try:
            self._connect()
            self._bench.wait_for(lambda: self._turns.have_begun, 30, "the first word of the base unit")
        except (WaitTimeout, OSError) as failure:
            raise CannotBegin(str(failure)) from failure

    def _connect(self) -> None:
        """The far sides take their places, and the server starts."""
        bench = self._bench
        bench.api.bears_damage = True  # that is for the judge
        if self._talk.begins_at_start:
            self._far.take_line()
            bench.start()
        else:
            bench.start_to_serve()
            if self._talk.has_uart:
                bench.bc.close()
                self._far.take_line()
            bench.loop.call(self._turns.begin)

    # --- meanwhile, on the loop's thread ---------------------------------------------------------------------------

    def _take(self, answer: Answer) -> None:
        """The base unit says something."""
        if answer.time > self._last + self._patience:
            return  # of this nothing is recorded any more
        if not self._talk.begins_at_start and answer.channel[0] not in self._recorded_links:
            return  # the capture was taken elsewhere
        place = answer.channel, self.judge.take(answer)
        if answer.identity is not None:
            self._far.said(place, answer.identity)
        self._turns.answered(answer, place)

    def _note_end(self, event: Event) -> None:
        if event.link == SERVER and event.kind == "ended":
            self._ended_at = self._turns.now if self._turns.have_begun else 0.0

    # --- afterwards ------------------------------------------------------------------------------------------------

    def _wait_for_end(self) -> None:
        last = self._last + self._patience + AFTERWARDS  # an answer may come so late
        try:
            self._bench.wait_for(lambda: self._turns.now >= last, last + 30, "the end of the recording", poll=0.1)
        except WaitTimeout as failure:
            self._stuck = str(failure).partition("\n")[0]

    def _judge_life(self) -> None:
        """A server that has ended, or goes on for ever, is different, whatever it answered before."""
        status = self._bench.server.exit_status
        if status is not None:
            self._differ(self._ended_at, f"it ends with status {status}")
        elif self._stuck:
            self._differ(self._turns.now, self._stuck)

    def _differ(self, when: float, words: str) -> None:
        self.judge.differences.append(Difference("it does not last", EXIT, None, Answer(when, 0, EXIT, b"", None, words)))
