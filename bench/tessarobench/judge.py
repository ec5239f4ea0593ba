"""Compares what a server answers with what is recorded. An answer is compared with the one that stands at its place among those of
its kind:

    identical    the same bytes
    allowed      another number, serial or time stamp; a value of the base unit's own rhythm that was told a moment before
                 or after; a transfer of the same size
    not judged   what passes on the words of the base controller, when the capture does not hold those
    different    anything else, one that is missing, one that is too many, one that is more than the tolerance off its time
"""

from __future__ import annotations

import collections
from typing import Any, NamedTuple, Optional

from .answers import END, Answer, Channel, follows_images, parts, rules

MOMENT = 0.6  # seconds; a value of its rhythm may be told so much earlier or later: the longest period is 500 ms
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
