"""What a replay calls identical, allowed and different: recorded answers, changed in one place, against themselves."""

import json
import time
from pathlib import Path

import pytest

from tessarobench.answers import API, END, UART, Answer
from tessarobench.captureread import read
from tessarobench.conversation import Conversation
from tessarobench.judge import Judge
from tessarobench.replay import TOLERANCE

RECORDINGS = sorted((Path(__file__).resolve().parents[1] / "recordings").glob("*.pcapng"))
STATUS = (API, "status")


def recorded(name):
    """The answers of a recording, timed from the first of them."""
    answers = Conversation(read(RECORDINGS[0].with_name(f"{name}.pcapng"))).answers
    return [answer._replace(time=answer.time - answers[0].time) for answer in answers]


def judged(expected, came, until=1e9):
    judge = Judge(expected, TOLERANCE, until=until)
    for answer in came:
        judge.take(answer)
    judge.finish()
    return judge


def differing(expected, came, until=1e9):
    return [(each.what, each.channel) for each in judged(expected, came, until).differences]


def retold(answers, change):
    """The same, with other status objects: `change` gets each as a dictionary."""
    return [answer._replace(value=json.dumps(change(json.loads(answer.value))).encode()) if answer.channel == STATUS else answer
            for answer in answers]


@pytest.mark.parametrize("path", RECORDINGS, ids=lambda path: path.stem)
def test_what_comes_as_recorded_is_no_difference(path):
    assert differing(recorded(path.stem), recorded(path.stem)) == []


@pytest.mark.parametrize("path", RECORDINGS, ids=lambda path: path.stem)
def test_a_tag_that_is_told_wrongly_all_the_time_is_different(path):
    """Also where all status objects were told within one moment, before which nobody knows what held."""
    answers = recorded(path.stem)
    tags = json.loads(next(answer.value for answer in answers if answer.channel == STATUS))
    assert len(tags) > 10
    for tag in tags:
        assert differing(answers, retold(answers, lambda told, tag=tag: {**told, tag: "wrong"})), tag
        assert differing(answers, retold(answers, lambda told, tag=tag: {key: told[key] for key in told if key != tag})), tag


def test_a_tag_that_nobody_recorded_is_different():
    answers = recorded("start")
    assert differing(answers, retold(answers, lambda told: {**told, "NEW": "1"}))


def test_a_part_of_a_blend_may_show_for_a_moment_what_held_before():
    """Two threads may change places at the first of all changes, of which the recording shows one order."""
    def status(when, **told):
        return Answer(when, 0, STATUS, json.dumps(told).encode(), None, "")

    one = [status(0, a=1, b=2)]
    other = [status(0, a=1, b=0), status(0.01, a=1, b=2)]
    assert differing(one, other) == [] and differing(other, one) == []


@pytest.mark.parametrize("later", [3, 0.1, -0.1], ids=lambda later: f"{later:+} s")
def test_a_connection_that_ends_at_another_time_is_different(later):
    answers = recorded("damaged-stream")
    came = sorted((answer._replace(time=answer.time + later) if answer.channel[1] == END else answer for answer in answers),
                  key=lambda answer: answer.time)
    (what, channel), = differing(answers, came)
    assert channel == ("GLink, connection 1", END) and what == f"{abs(later):.3f} s {'later' if later > 0 else 'earlier'}"


def test_what_is_said_after_the_end_of_the_recording_is_no_difference():
    """A capture may end between a question and its answer, or between a change and the image that tells of it."""
    answers = recorded("remote-unit")
    for index in range(20, len(answers)):
        until = answers[index - 1].time
        came = [answer for answer in answers if answer.time <= until + TOLERANCE]
        assert differing(answers[:index], came, until) == [], index


def test_one_more_before_the_end_of_the_recording_is_different():
    answers = recorded("remote-unit")
    command = next(answer for answer in answers if answer.channel[:2] == (UART, "command"))
    assert differing(answers, [*answers, command], answers[-1].time + 1) == [("one more than is recorded", command.channel)]


def test_a_long_recording_takes_no_longer_for_each_answer_than_a_short_one():
    """Ten minutes of an installation at work, fifty status objects a second."""
    values = [json.dumps({"TSAPs": str(number), "BU_STATE": "17"}).encode() for number in range(30_000)]
    answers = [Answer(place / 50, 0, STATUS, value, None, "") for place, value in enumerate(values)]
    began = time.process_time()
    assert judged(answers, answers).counts == {"identical": len(answers)}
    assert time.process_time() - began < 60
