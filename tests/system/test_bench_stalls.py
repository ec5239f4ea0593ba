"""The bench's stalls by themselves: that what is told to stand still does, that it goes on afterwards, and that a trial notices
a server that is late."""

import errno
import os
import subprocess

import pytest

from tessarobench.memorygroup import MemoryGroup
from tessarobench.stallingdisk import HANG, StallingDisk, available
from tessarobench.stalls import STALLS, Stall
from tessarobench.stalltable import BEGIN, END, Row, rewrite, table
from tessarobench.stalltrial import Outcome, attempt, build_library

pytestmark = pytest.mark.real_time("the kernel stalls in its own time")


@pytest.fixture
def disk(tmp_path):
    if not available():
        pytest.skip("/dev/fuse is not for this user")
    beneath, above = tmp_path / "beneath", tmp_path / "above"
    beneath.mkdir()
    above.mkdir()
    (beneath / "file").write_text("content")
    mounted = StallingDisk(str(beneath))
    mounted.mount(str(above))
    mounted.above, mounted.beneath = above, beneath
    yield mounted
    mounted.unmount()


# --- the disk ----------------------------------------------------------------------------------------------------------


def test_a_disk_that_works_passes_everything_on(disk):
    done = subprocess.run("mkdir d && echo one >d/a && mv d/a d/b && cat d/b file && ls && rm d/b && rmdir d && "
                          "cp /bin/true program && ./program && chmod 640 file && stat -c %a file && truncate -s 3 file",
                          shell=True, cwd=disk.above, capture_output=True, text=True, check=False)
    assert (done.stdout, done.stderr) == ("one\ncontentd\nfile\n640\n", "")
    assert (disk.beneath / "file").read_text() == "con" and not (disk.beneath / "d").exists()


def test_what_is_changed_beneath_a_disk_is_seen_at_once(disk):
    assert (disk.above / "file").read_text() == "content"
    (disk.beneath / "file").write_text("new")
    assert (disk.above / "file").read_text() == "new"


def test_a_disk_that_hangs_holds_even_a_killed_process_until_it_recovers(disk):
    disk.stall(HANG)
    with subprocess.Popen(["cat", disk.above / "file"], stdout=subprocess.PIPE) as reader:
        while not disk.hung:
            assert reader.poll() is None
        reader.kill()
        with pytest.raises(subprocess.TimeoutExpired):
            reader.wait(0.2)
        disk.recover()
        reader.wait(60)
    assert (disk.above / "file").read_text() == "content"


def test_a_disk_that_fails_fails_everything(disk):
    disk.stall(errno.EIO)
    for action in (lambda: (disk.above / "file").read_text(), lambda: os.listdir(disk.above),
                   lambda: (disk.above / "other").write_text("x")):
        with pytest.raises(OSError) as failure:
            action()
        assert failure.value.errno == errno.EIO


def test_a_full_disk_is_read_and_not_written(disk):
    disk.stall(errno.ENOSPC)
    assert (disk.above / "file").read_text() == "content"
    with pytest.raises(OSError) as failure:
        (disk.above / "other").write_text("x")
    assert failure.value.errno == errno.ENOSPC and os.listdir(disk.beneath) == ["file"]


# --- the log and memory --------------------------------------------------------------------------------------------------

TALKATIVE = ("import time\n"
             "for number in range(10**6):\n"
             "    print('line', number, flush=True)\n"
             "    open('/sys/class/gpio/gpio37/value', 'w').write('01'[number % 2])\n"
             "    time.sleep(0.001)\n")


def test_a_stalled_log_blocks_who_writes_it_and_loses_nothing(scripted):
    board = scripted(TALKATIVE)
    board.server.start()
    board.wait_for(lambda: len(board.server.log) > 20)
    board.server.stall_log()
    blocked = board.journal.mark()
    board.wait_for(lambda: open(f"/proc/{board.server.pid}/wchan", encoding="ascii").read().endswith("pipe_write"),
                   poll=0.01)
    lines = len(board.server.log)
    assert board.journal.count("gpio", "<", "drive", since=blocked) <= 2
    board.server.read_log()
    board.wait_for(lambda: len(board.server.log) > lines + 20)
    assert board.server.texts() == [f"line {number}" for number in range(len(board.server.log))]


def test_a_log_that_is_stalled_from_the_start_blocks_the_first_line(scripted):
    board = scripted(TALKATIVE)
    board.server.start(log_stalled=True)
    board.wait_for(lambda: open(f"/proc/{board.server.pid}/wchan", encoding="ascii").read().endswith("pipe_write"),
                   poll=0.01)
    assert board.journal.count("gpio", "<", "drive") == 0


def test_a_log_whose_reader_has_gone_ends_with_a_broken_pipe(scripted):
    board = scripted("import os, time\ntime.sleep(0.2)\n"
                     "while True:\n"
                     "    try: os.write(2, b'line'); time.sleep(0.001)\n"
                     "    except BrokenPipeError: os._exit(7)\n")
    board.server.start()
    board.server.lose_log_reader()
    assert board.server.wait_exit() == 7


def test_a_memory_group_leaves_hardly_anything(scripted):
    if MemoryGroup.refused():
        pytest.skip(MemoryGroup.refused())
    board = scripted("import time\n"
                     "while True: time.sleep(0.01)\n")
    group = MemoryGroup()
    board.server.start(before=group.joining)
    group.press()
    try:
        board.wait_for(lambda: group.ended > 2, 60, "greedy programs are ended", poll=0.05)
        assert board.server.running
    finally:
        board.server.kill()
        group.close()


# --- trials --------------------------------------------------------------------------------------------------------------


class Stopped(Stall):
    title = "the server itself"

    def begin(self):
        self.bench.server.pause()


@pytest.mark.parametrize("event", ["silence", "stop", "sigterm"])
def test_a_trial_notices_a_server_that_does_nothing(server_path, tmp_path, event):
    assert attempt(server_path, Stopped, event, build_library(tmp_path)).seconds is None


def test_a_trial_notices_a_server_that_ends(server_path, tmp_path):
    class Killed(Stopped):
        def begin(self):
            self.bench.server.kill()

    outcome = attempt(server_path, Killed, "silence", build_library(tmp_path))
    assert outcome == Outcome(None, "the server ended with -9")


def test_a_trial_knows_a_server_that_did_not_come_up(tmp_path):
    program = tmp_path / "program"
    program.write_text("#!/bin/sh\nexit 3\n")
    program.chmod(0o755)
    outcome = attempt(program, Stall, "stop", build_library(tmp_path))
    assert outcome.seconds is None and outcome.remark.startswith("did not come up, ")


# --- the table -----------------------------------------------------------------------------------------------------------


def test_the_table_says_what_was_late_and_what_could_not_be_tried():
    rows = [Row("nothing", "stop", [Outcome(0.001), Outcome(0.0204), Outcome(0.002)]),
            Row("tar", "silence", [Outcome(0.65), Outcome(None, "the server ended with -6")]),
            Row("memory", "sigterm", [], "no groups here")]
    assert [len(row.late) for row in rows] == [1, 1, 0]
    assert table(rows).splitlines()[2:] == [
        "| nothing | machine stop of the armed unit | 2.0 ms | **20.4 ms** (1 of 3 beyond the limit) | 3 | 20.0 ms |",
        "| tar: never ends | the base controller falls silent | 650 ms | **not within 3 s** (1 of 2 beyond the limit) | 2 "
        "| 700 ms |",
        f"| {STALLS['memory'].title} | SIGTERM | – | not measured: no groups here | 0 | 700 ms |"]


def test_the_table_takes_the_place_of_the_old_one(tmp_path):
    page = tmp_path / "page.md"
    page.write_text(f"before\n{BEGIN}\nold\n{END}\nafter\n")
    rewrite(page, "new\n")
    assert page.read_text() == f"before\n{BEGIN}\nnew\n{END}\nafter\n"
    page.write_text("no marks")
    with pytest.raises(ValueError):
        rewrite(page, "new\n")
