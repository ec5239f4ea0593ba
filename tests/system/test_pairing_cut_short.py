"""Pairings that are cut short, at any moment and by any call of the file thread that fails: the old pairing holds or the new
one, nothing is left behind, and a tool that asks again is served."""

import os

import pytest

from tessarobench.pairingtrial import PairingTrial, Tracer, kills, summary

pytestmark = pytest.mark.real_time("kills and tracers come at moments of real time")

TRIES = int(os.environ.get("PAIRING_KILLS", "20"))  # make pairing-kills makes 500
# Everything that changes the disk, and what a descriptor to change it with is had by.
CHANGING = ["mkdir", "write", "fsync", "link", "rename", "unlink", "rmdir"]
# Reading is part of it: what cannot be read must not be taken for empty.
READING = ["openat", "getdents64", "read", "newfstatat", "statx"]
AT_MOST = 400  # calls of one name in a pairing


@pytest.fixture
def trial(bench, monkeypatch):
    # The leak checker cannot look into a process that has a tracer.
    monkeypatch.setenv("ASAN_OPTIONS", os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0")
    return PairingTrial(bench, size=20_000)


def each_in_turn(attempt):
    """Makes the attempt with 1, 2, 3, … until there is no such call any more; the faults, by number."""
    faults = {}
    for number in range(1, AT_MOST):
        outcome = attempt(number)
        if outcome is None:
            assert number > 1, "no such call at all: there was nothing to try"
            return faults
        if outcome.faults:
            faults[number] = outcome.faults
    raise AssertionError(f"more than {AT_MOST} calls")


def test_killed_at_random_moments(bench):
    outcomes = [outcome for _, outcome in kills(bench, TRIES)]
    print(f"\n{summary(outcomes)}")
    assert [outcome.faults for outcome in outcomes if outcome.faults] == []


def test_killed_before_tar_begins_the_next_start_gets_its_ports_back(trial):
    assert trial.kill_before_tar_begins(3).faults == []


@pytest.mark.parametrize("call", CHANGING)
def test_killed_at_each_call(trial, call):
    assert each_in_turn(lambda number: trial.kill_at(call, number)) == {}


def test_a_kill_of_which_the_tracer_did_not_come_to_tell_is_judged_too(trial, monkeypatch):
    """On a busy computer it is asked to end before it has seen the end of the server."""
    monkeypatch.setattr(Tracer, "injected", False)
    outcome = trial.kill_at("write", 1)
    assert outcome is not None and outcome.faults == []
    assert trial.kill_at("write", AT_MOST) is None


@pytest.mark.parametrize("call", CHANGING + READING)
def test_each_call_fails_in_turn(trial, call):
    error = "ENOSPC" if call in ("write", "mkdir", "link") else "EIO"
    assert each_in_turn(lambda number: trial.fail_at(call, number, error)) == {}
