"""Compares what a server answers with what is recorded. An answer is compared with the one that stands at its place among those of
its kind:

    identical    the same bytes
    allowed      another number, serial or time stamp; a value of the base unit's own rhythm that was told a moment before
                 or after; a transfer of the same size
    not judged   what passes on the words of the base controller, when the capture does not hold those; what comes at the
                 end of the recording or behind it
    different    anything else, one that is missing, one that is too many, one that is more than the tolerance off its time
"""

from __future__ import annotations

import bisect
import collections
import math
from typing import Any, Iterable, NamedTuple, Optional

from .answers import END, Answer, Channel, follows_images, parts, rules

MOMENT = 0.6  # seconds; a value of its rhythm may be told so much earlier or later: the longest period is 500 ms
IDENTICAL, ALLOWED = "identical", "allowed"
NOT_JUDGED = "not judged, as they follow a base controller whose words the capture does not hold"
AFTERWARDS = "not judged, as the recording ends there"


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


class _Series:
    """Answers of one kind in the order of their times; `parts` are what of each is compared by itself."""

    def __init__(self, answers: Iterable[Answer] = ()):
        self.answers: list[Answer] = []
        self.parts: list[dict[str, Any]] = []
        self._times: list[float] = []
        for answer in sorted(answers, key=lambda each: each.time):
            self.add(answer)

    def add(self, answer: Answer) -> None:
        """One that is later than those before."""
        self.answers.append(answer)
        self.parts.append(parts(answer))
        self._times.append(answer.time)

    def near(self, time: float, reach: float) -> range:
        """The places of those that came at most so long before or after."""
        return range(bisect.bisect_left(self._times, time - reach), bisect.bisect_right(self._times, time + reach))

    def nearest(self, time: float) -> Optional[Answer]:
        place = bisect.bisect_left(self._times, time)
        return min(self.answers[max(0, place - 1):place + 1], key=lambda each: abs(each.time - time), default=None)


class Judge:
    """Compares answers as they come; all times are seconds since the base unit's first word. The recording goes on `until`
    then: of what is said later, nobody knows whether it would have been recorded. Without the UART in the capture
    (`has_uart`) nobody knows what the base controller said, nor what should be passed on of that."""

    def __init__(self, recorded: list[Answer], tolerance: float, has_uart: bool = True, until: float = math.inf):
        self._tolerance, self._has_uart, self._known_until = tolerance, has_uart, until - tolerance
        self._expected: dict[Channel, list[Answer]] = collections.defaultdict(list)
        for answer in recorded:
            self._expected[answer.channel].append(answer)
        self._counted: collections.Counter = collections.Counter()  # what came, by its channel
        self._told = {channel: _Series(answers) for channel, answers in self._expected.items() if rules(channel).rhythm}
        self._came: dict[Channel, _Series] = collections.defaultdict(_Series)  # of those with a rhythm
        self.counts: collections.Counter = collections.Counter()
        self.differences: list[Difference] = []

    def take(self, answer: Answer) -> int:
        """Judges one answer; returns its place among those of its kind."""
        place = self._counted[answer.channel]
        self._counted[answer.channel] += 1
        if not self._judges(answer.channel):
            self.counts[NOT_JUDGED] += 1
        elif rules(answer.channel).rhythm:
            self._came[answer.channel].add(answer)
            self._in_rhythm(answer, self._told.get(answer.channel) or _Series())
        else:
            self._in_turn(answer, place)
        return place

    def _judges(self, channel: Channel) -> bool:
        return self._has_uart or not follows_images(channel)

    # --- one by one ------------------------------------------------------------------------------------------------

    def _in_turn(self, answer: Answer, place: int) -> None:
        expected = self._expected[answer.channel]
        if place >= len(expected):
            self._exceed("one more than is recorded", None, answer)
            return
        recorded = expected[place]
        if recorded.value != answer.value:
            self._differ("something else is said", answer.channel, recorded, answer)
        elif abs(answer.time - recorded.time) > self._tolerance:
            self._differ(f"{abs(answer.time - recorded.time):.3f} s {'later' if answer.time > recorded.time else 'earlier'}",
                         answer.channel, recorded, answer)
        else:
            self.counts[IDENTICAL if recorded.identity == answer.identity else f"{ALLOWED}: another number or time stamp"] += 1

    # --- in a rhythm -----------------------------------------------------------------------------------------------

    def _in_rhythm(self, answer: Answer, expected: _Series) -> None:
        near = expected.near(answer.time, MOMENT + self._tolerance)
        if not near:
            self._exceed("nothing of the kind is recorded at this time", expected.nearest(answer.time), answer)
        elif not all(self._is_told(answer, name, value, expected) or self._is_from_before(name, near, expected)
                     for name, value in parts(answer).items()):
            self._exceed("something else is said at this time", expected.nearest(answer.time), answer)
        elif any(expected.answers[place].value == answer.value for place in expected.near(answer.time, self._tolerance)):
            self.counts[IDENTICAL] += 1
        else:
            self.counts[f"{ALLOWED}: a value of its moment"] += 1

    def _is_told(self, answer: Answer, name: str, value: Any, among: _Series) -> bool:
        """Whether a part of an answer stands among those of its time. A blend may also show a part as it was before they
        came."""
        near = among.near(answer.time, MOMENT + self._tolerance)
        if any(among.parts[place].get(name) == value for place in near):
            return True
        return rules(answer.channel).blend and bool(near and near.start) and among.parts[near.start - 1].get(name) == value

    @staticmethod
    def _is_from_before(name: str, near: range, among: _Series) -> bool:
        """Whether a part may be as it was before the first of all, which is not known. What is told for longer is missed in
        the end among what came."""
        return near.start == 0 and any(name in among.parts[place] for place in near) and rules(among.answers[0].channel).blend

    def _stays(self, place: int, name: str, value: Any, own: _Series) -> bool:
        """Whether all that is told in the next moment has it so, too."""
        near = own.near(own.answers[place].time, MOMENT + self._tolerance)
        return all(own.parts[later].get(name) == value for later in range(place, near.stop))

    # --- in the end ------------------------------------------------------------------------------------------------

    def finish(self) -> None:
        """What is recorded and did not come. Connections that end behind the base unit's last word end with the server, or with
        the recording."""
        last = max((each.time for every in self._expected.values() for each in every if each.channel[1] != END), default=0.0)
        for channel, recorded_here in self._expected.items():
            if not self._judges(channel):
                continue
            if rules(channel).rhythm:
                self._finish_rhythm(self._told[channel], self._came[channel])
                continue
            expected = [each for each in recorded_here if channel[1] != END or each.time <= last]
            for recorded in expected[self._counted[channel]:]:
                self._differ("it does not come", channel, recorded, None)
        self.differences.sort(key=lambda each: (each.answered or each.recorded).time)

    def _finish_rhythm(self, expected: _Series, came: _Series) -> None:
        for place, recorded in enumerate(expected.answers):
            blend = rules(recorded.channel).blend
            if not all(self._is_told(recorded, name, value, came) or (blend and not self._stays(place, name, value, expected))
                       for name, value in expected.parts[place].items()):
                self._differ("it does not come", recorded.channel, recorded, None)

    def _exceed(self, what: str, recorded: Optional[Answer], answered: Answer) -> None:
        if answered.time > self._known_until:
            self.counts[AFTERWARDS] += 1
        else:
            self._differ(what, answered.channel, recorded, answered)

    def _differ(self, what: str, channel: Channel, recorded: Optional[Answer], answered: Optional[Answer]) -> None:
        self.differences.append(Difference(what, channel, recorded, answered))

    @property
    def summary(self) -> str:
        told = [f"{count} {what}" for what, count in sorted(self.counts.items(), key=lambda each: each[0] != IDENTICAL)]
        return f"{sum(self.counts.values()) + len(self.differences)} answers: " + ", ".join(
            told + [f"{len(self.differences)} different" if self.differences else "none different"])
