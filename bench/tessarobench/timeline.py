"""What far sides did and what the base unit answered, in the order of their times: each move with the answer that it may follow
from."""

from __future__ import annotations

import collections
from typing import NamedTuple, Optional

from .answers import Answer, Channel, rules
from .captureread import Packet

OPEN, DATA, FINISH, RESET = "open", "data", "finish", "reset"

CAUSE_SECONDS = 0.02  # what a far side does so soon after an answer, it may do because of that
_UNSAID = ("base controller",)  # the channel of what cannot come when its words are not in the capture

Place = tuple  # a channel and a place in that


class Move(NamedTuple):
    """One thing that a far side did. It `acknowledges` an answer (a channel and a place in that), or comes `after` one that
    was there a moment before it, by `delay` seconds in both cases. Of what comes by the base unit's rhythm, places are
    counted by the changes of its value (see Changes)."""

    time: float
    packet: int
    link: str
    what: str
    data: bytes = b""
    acknowledges: Optional[Place] = None
    after: Optional[Place] = None
    delay: float = 0.0


class Changes:
    """Counts how often each channel of a rhythm has said something else than before."""

    def __init__(self) -> None:
        self._counts: collections.Counter = collections.Counter()
        self._values: dict[Channel, bytes] = {}

    def place(self, answer: Answer) -> Optional[Place]:
        """Of an answer that is a change; None when it is none."""
        if not rules(answer.channel).rhythm or self._values.get(answer.channel) == answer.value:
            return None
        self._values[answer.channel] = answer.value
        self._counts[answer.channel] += 1
        return (*answer.channel, "change"), self._counts[answer.channel]


class Timeline:
    """`moves` and `answers`, to which is added what comes next."""

    def __init__(self) -> None:
        self.moves: list[Move] = []
        self.answers: list[Answer] = []
        self._counts: collections.Counter = collections.Counter()
        self._last: dict[tuple, tuple[Channel, int, float]] = {}  # the newest answer that may be acknowledged, by its mark
        self._cause: Optional[tuple[Channel, int, float]] = None  # the newest answer that does not come by itself
        self._change: Optional[tuple[Channel, int, float]] = None  # the newest one that does, and says something new
        self._changes = Changes()

    def answer(self, answer: Answer, mark: Optional[tuple] = None) -> None:
        """The base unit says something; `mark` is what an acknowledgement of it has in common with it."""
        self.answers.append(answer)
        place = answer.channel, self._counts[answer.channel], answer.time
        if mark:
            self._last[mark] = place
        change = self._changes.place(answer)
        if change:
            self._change = *change, answer.time
        if not rules(answer.channel).rhythm:
            self._cause = place
        self._counts[answer.channel] += 1

    def cannot_come(self, mark: tuple, time: float) -> None:
        """The base unit says something that it will not say in the play: nor is it acknowledged there."""
        self._last[mark] = _UNSAID, 0, time

    def move(self, packet: Packet, link: str, what: str, data: bytes = b"", mark: Optional[tuple] = None) -> None:
        """A far side does something; with `mark` it acknowledges the newest answer of that mark."""
        acknowledged = self._last.get(mark)
        fresh = [each for each in (self._cause, self._change) if each and packet.time - each[2] <= CAUSE_SECONDS]
        if acknowledged:
            self.moves.append(Move(packet.time, packet.number, link, what, data, acknowledged[:2], None,
                                   packet.time - acknowledged[2]))
        elif fresh:
            self.moves.append(Move(packet.time, packet.number, link, what, data, None, fresh[0][:2], packet.time - fresh[0][2]))
        else:
            self.moves.append(Move(packet.time, packet.number, link, what, data))
