"""What the bench does to a link is drawn from a seed, so that a run can be repeated."""

import collections

import pytest

from tessarobench.impair import Impairment
from tessarobench.loop import Loop
from tessarobench.pieces import Pieces


@pytest.fixture
def loop():
    running = Loop("test")
    yield running
    running.stop()
    running.raise_failure()


UNITS = [bytes([number]) * 8 for number in range(200)]


def fates(loop, seed, **chances):
    """What became of every unit, and what was delivered, in order."""
    impairment, delivered = Impairment(loop, reorder=True), []
    impairment.chances(seed, **chances)
    outcomes = loop.call(lambda: [impairment.apply(unit, delivered.append) for unit in UNITS])
    expected = sum({"dropped": 0, "duplicated": 2}.get(outcome, 1) for outcome in outcomes)
    loop.wait_for(lambda: len(delivered) == expected, 2)
    return outcomes, delivered


CHANCES = {"loss": 0.1, "corrupt": 0.1, "duplicate": 0.1}


def test_the_same_seed_breaks_the_same_things(loop):
    assert fates(loop, 5, **CHANCES) == fates(loop, 5, **CHANCES)
    assert fates(loop, 5, **CHANCES) != fates(loop, 6, **CHANCES)


def test_each_kind_of_damage_happens_about_as_often_as_asked(loop):
    outcomes, delivered = fates(loop, 5, **CHANCES)
    counts = collections.Counter(outcomes)
    assert all(5 < counts[kind] < 40 for kind in ("dropped", "corrupted", "duplicated"))
    flipped = [unit for unit in delivered if unit not in UNITS]
    assert len(flipped) == counts["corrupted"]
    assert all(min(distance(unit, whole) for whole in UNITS) == 1 for unit in flipped)


def distance(one, other):
    return sum((a ^ b).bit_count() for a, b in zip(one, other))


def test_delayed_datagrams_overtake_and_delayed_frames_do_not(loop):
    _, delivered = fates(loop, 5, delay=(0, 0.02))
    assert delivered != UNITS and sorted(delivered) == UNITS
    in_order, impairment = [], Impairment(loop)
    impairment.chances(5, delay=(0, 0.02))
    loop.call(lambda: [impairment.apply(unit, in_order.append) for unit in UNITS])
    loop.wait_for(lambda: len(in_order) == len(UNITS), 2)
    assert in_order == UNITS


def writes(loop, shape):
    """The writes in which the bytes of ten units leave."""
    done = []
    pieces = Pieces(loop, done.append)
    shape(pieces)
    loop.call(lambda: [pieces.write(unit) for unit in UNITS[:10]])
    loop.wait_for(lambda: pieces.empty, 2)
    assert b"".join(done) == b"".join(UNITS[:10])
    return done


def test_writes_are_split_by_a_seed_and_gathered(loop):
    assert writes(loop, lambda pieces: None) == UNITS[:10]
    split = writes(loop, lambda pieces: pieces.split(5, seed=3))
    assert max(map(len, split)) <= 5 and len({len(piece) for piece in split}) > 1
    assert split == writes(loop, lambda pieces: pieces.split(5, seed=3)) != writes(loop, lambda pieces: pieces.split(5, seed=4))
    assert writes(loop, lambda pieces: pieces.gather(0.01)) == [b"".join(UNITS[:10])]


def test_whole_again_keeps_the_order_of_what_waits(loop):
    done = []
    pieces = Pieces(loop, done.append)

    def write():
        pieces.gather(0.01)
        pieces.write(b"one")
        pieces.whole()
        pieces.write(b"two")

    loop.call(write)
    loop.wait_for(lambda: b"".join(done) == b"onetwo", 2)
    loop.call(pieces.write, b"three")
    assert done[-1] == b"three"
