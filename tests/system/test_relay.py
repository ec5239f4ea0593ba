"""The machine-stop relay, watched at the GPIO files."""

import os
import shutil

import pytest

ASSERTION = "Fatal error in  src/hardware/msrelaycontrol :"


def gpio(bench, name):
    return bench.on_board(lambda: open(f"/sys/class/gpio/{name}", encoding="ascii").read())


def drives(bench, since=0):
    return [event.value for event in bench.journal.select("gpio", "<", "drive", since=since)]


def test_start_exports_both_lines_sets_directions_and_closes(bench):
    bench.start()
    bench.wait_for(lambda: bench.relay.closed)
    assert gpio(bench, "export") in ("3738", "38")
    assert gpio(bench, "gpio37/direction").rstrip() in ("out",)
    assert gpio(bench, "gpio38/direction").startswith("in")
    assert drives(bench) == ["1"]


def test_it_stays_closed_while_a_link_that_never_came_up_is_silent(bench):
    bench.bc.deaf = True
    bench.start()
    bench.wait_for(lambda: bench.server.logged("Internal link fail!!!!!!!!") >= 3)
    assert drives(bench) == ["1"] and bench.relay.closed


def test_it_opens_with_the_loss_of_the_link_and_closes_with_run(running):
    running.wait_for(lambda: running.relay.closed)
    mark = running.journal.mark()
    running.bc.mute()
    running.wait_for(lambda: not running.relay.closed)
    running.bc.mute(False)
    running.wait_for(lambda: running.relay.closed)
    assert drives(running, mark) == ["0", "1"]


def test_it_opens_within_a_second_of_silence(running):
    """A status record goes out twice a second and is given up after 150 ms."""
    running.wait_for(lambda: running.relay.closed)
    mark = running.journal.mark()
    running.bc.mute()
    muted = running.journal.last(link="uart", kind="mute").time
    running.wait_for(lambda: not running.relay.closed)
    opened = running.journal.select("gpio", ">", "contact", since=mark)[0].time
    assert opened - muted < 1.0


def test_a_welded_contact_is_driven_open_all_the_same(running):
    running.wait_for(lambda: running.relay.closed)
    running.relay.welded = True
    running.bc.mute()
    running.wait_for(lambda: running.relay.driven == "0")
    assert running.relay.closed and gpio(running, "gpio38/value") == "0\n"
    assert running.server.running


@pytest.mark.parametrize("missing", ["export", "gpio37/direction", "gpio38/direction", "gpio37/value"])
def test_missing_files_are_fatal(bench, missing):
    bench.on_board(os.unlink, f"/sys/class/gpio/{missing}")
    bench.start()
    assert bench.server.wait_exit() == -6
    assert bench.server.log[-2].plain.startswith(ASSERTION) and bench.server.log[-2].plain.endswith(" .")
    assert bench.server.log[-1].text == "Fatal"


@pytest.mark.parametrize("unwritable", ["gpio37/direction", "gpio38/direction", "gpio37/value"])
def test_short_writes_are_fatal(bench, unwritable):
    bench.on_board(os.unlink, f"/sys/class/gpio/{unwritable}")
    bench.on_board(os.symlink, "/dev/full", f"/sys/class/gpio/{unwritable}")
    bench.start()
    assert bench.server.wait_exit() == -6
    assert bench.server.log[-2].plain.startswith(ASSERTION)


def test_a_failing_export_is_not_fatal(bench):
    """A line that is exported already refuses to be exported again."""
    bench.on_board(os.unlink, "/sys/class/gpio/export")
    bench.on_board(os.symlink, "/dev/full", "/sys/class/gpio/export")
    bench.start()
    bench.wait_for(lambda: bench.relay.closed)


def test_losing_the_value_file_while_running_is_fatal(running):
    running.wait_for(lambda: running.relay.closed)
    running.on_board(shutil.rmtree, "/sys/class/gpio/gpio37")
    running.bc.mute()
    assert running.server.wait_exit() == -6
    assert any(text.startswith(ASSERTION) for text in running.server.plain_texts()[-3:])
