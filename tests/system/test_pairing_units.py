"""Remote units before and after they are paired: the base unit's files, the archive and INIT in one story."""

import random
import time

import pytest

from pairing_support import READY, words_of, words_of_unit
from tessarobench import glink
from tessarobench.csvfile import Table
from tessarobench.glink import ACCEPTED, NOT_PAIRED, OTHER_APPLICATION, application_checksum
from tessarobench.installation import APP, LISTENING, UNIT_APPLICATION
from tessarobench.servicetool import NoAnswer, unpack

HANDSET = str(UNIT_APPLICATION)
NEWCOMER = 1003


def pair(bench, unit_id, folder, tool=None):
    """Has a unit paired, and puts the archive's content into its hands. Returns the unpacked application's folder."""
    tool = tool or bench.tool
    done = len(bench.server.log)
    _, archive = tool.get(tool.find(HANDSET), unit_id)
    bench.server.wait_log("Transfer complete of", since=done)
    application = unpack(archive, folder)
    bench.unit(unit_id).checksum = application_checksum(application)
    return application


def wait_accepted(bench, unit, timeout=5.0):
    """Joins until it is accepted, as a unit does: the base unit works out its checksum anew beside its other work."""
    until = time.monotonic() + timeout
    while unit.join().wait_verdict().code != ACCEPTED:
        assert unit.verdict.code == OTHER_APPLICATION and time.monotonic() < until, unit.verdicts
        unit.leave()


def test_a_stranger_is_refused_then_paired_then_accepted(serving, tmp_path):
    stranger = serving.unit(NEWCOMER)
    assert stranger.join().wait_verdict().code == NOT_PAIRED
    stranger.leave()
    application = pair(serving, NEWCOMER, tmp_path)
    assert words_of(Table.load(application / "config" / "keys.csv")) == words_of_unit(serving, NEWCOMER)
    wait_accepted(serving, stranger)
    stranger.command(b"up")
    serving.wait_for(lambda: serving.bc.received["command"])
    serving.wait_for(lambda: stranger.base_status)


def test_a_paired_unit_is_accepted_after_a_restart(serving, tmp_path):
    pair(serving, NEWCOMER, tmp_path)
    words = words_of_unit(serving, NEWCOMER)
    serving.server.restart()
    serving.server.wait_log(READY)
    serving.bc.set(bu_identity=400)
    serving.server.wait_log(LISTENING)
    assert words_of_unit(serving, NEWCOMER) == words
    assert serving.unit(NEWCOMER).join().wait_verdict().code == ACCEPTED


def test_new_settings_reach_the_unit_that_is_paired_and_shut_out_the_others(bench, tmp_path):
    """The settings are part of the application that INIT compares: the hub follows, without a restart."""
    bench.change(APP, "EMAP", value=0)
    bench.change(APP, "CCH1", value=13)
    bench.bc.retry_seconds = 1.0
    bench.start_to_serve()
    old = bench.unit(1001)
    old.checksum = bench.unit_checksum()  # what is installed now, before anybody is paired
    assert old.join().wait_verdict().code == ACCEPTED
    application = pair(bench, NEWCOMER, tmp_path)
    assert Table.load(application / "config" / "app.csv").row("CCH1")["value"] == "13"
    wait_accepted(bench, bench.unit(NEWCOMER))
    old.leave()
    assert old.join().wait_verdict().code == OTHER_APPLICATION
    pair(bench, 1001, tmp_path / "again")
    wait_accepted(bench, old)


def test_pairing_again_with_the_same_settings_leaves_the_other_units_accepted(serving, tmp_path):
    """Only keys differ from unit to unit, and keys are not compared."""
    pair(serving, NEWCOMER, tmp_path / "first")
    pair(serving, 1004, tmp_path / "second")
    for unit_id in (NEWCOMER, 1004):
        wait_accepted(serving, serving.unit(unit_id))
    assert words_of_unit(serving, NEWCOMER) != words_of_unit(serving, 1004)


def test_units_in_service_do_not_notice_a_large_transfer(bench, tmp_path):
    """48 MiB are packed, hashed on both ways, sent, and hashed by the hub, three times over."""
    (bench.applications / UNIT_APPLICATION / "maps").write_bytes(random.Random(1).randbytes(48 * 1024 * 1024))
    bench.change(APP, "EMAP", value=0)
    bench.bc.retry_seconds = 1.0
    bench.start_to_serve(timeout=10)
    unit = bench.unit(1001)
    wait_accepted(bench, unit, 10)
    bench.wait_for(lambda: unit.base_status)
    since = len(unit.received)
    for _ in range(3):
        pair(bench, NEWCOMER, tmp_path)
    bench.wait_for(lambda: len(unit.messages(glink.BASE_STATUS, since)) >= 3)
    gaps = sorted(unit.gaps(glink.BASE_STATUS, since))
    # Whatever the pairing did would show three times over; a computer that is busy otherwise may be late once or twice.
    assert gaps[-1] < 1.0 and (len(gaps) < 3 or gaps[-3] < 0.65), gaps
    assert unit.joins == 1 and not unit.ends
    wait_accepted(bench, bench.unit(NEWCOMER), 10)


def test_a_unit_is_not_known_before_its_keys_are_stored(serving):
    """A refused request changes nobody's standing."""
    (serving.applications / UNIT_APPLICATION / "config" / "keys.csv").unlink()
    tool = serving.service_tool()
    path = tool.find(HANDSET)
    tool.wait_no_longer_than(0.3)
    with pytest.raises(NoAnswer):
        tool.ask(path, NEWCOMER)
    assert serving.unit(NEWCOMER).join().wait_verdict().code == NOT_PAIRED
