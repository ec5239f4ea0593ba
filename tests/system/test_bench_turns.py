"""When the far sides of a recording have their turns in a play."""

from tessarobench.answers import UART
from tessarobench.loop import Loop
from tessarobench.timeline import DATA, Move
from tessarobench.turns import Turns

NEVER_SAID = (UART, "command"), 0


def acted(moves, patience=0.05):
    """What is done, in its order, when the base unit says nothing."""
    loop, done = Loop(), []
    turns = Turns(loop, moves, 0.0, patience, done.append)
    loop.call(turns.begin)
    loop.wait_for(lambda: turns.now > max(move.time for move in moves) + 2 * patience, poll=0.01)
    loop.stop()
    return [move.data for move in done]


def test_two_moves_that_are_alike_are_two():
    """Such as two commands of the same millisecond in one segment."""
    assert acted([Move(0.0, 1, "GLink", DATA, b"same"), Move(0.0, 1, "GLink", DATA, b"same")]) == [b"same", b"same"]


def test_what_waits_for_an_answer_is_not_overtaken_on_its_link():
    """The bytes of a connection would change places."""
    waits = Move(0.0, 1, "GLink", DATA, b"first", after=NEVER_SAID)
    assert acted([waits, Move(0.01, 2, "GLink", DATA, b"second"), Move(0.01, 3, "other link", DATA, b"other")]) == [
        b"other", b"first", b"second"]


def test_an_acknowledgement_that_does_not_come_holds_up_nothing():
    lost = Move(0.0, 1, UART, DATA, b"ack", acknowledges=NEVER_SAID)
    assert acted([lost, Move(0.0, 2, UART, DATA, b"image")]) == [b"image"]
