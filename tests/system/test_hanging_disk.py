"""A disk that does not answer: who waits for it waits alone, and the process ends without waiting on.

A tracer holds every thread that names one of the chosen files to the system, for longer than any test lasts.
"""

import signal
import subprocess

import pytest

from test_file_stalls import HELD_UP_SECONDS, arm, assert_prompt, heard_after, held_up, tell  # noqa: F401
from tessarobench.installation import UNIT_APPLICATION
from tessarobench.servicetool import ServiceToolError

pytestmark = pytest.mark.real_time("a disk that hangs is a disk of the computer")

CONFIG = ["tessaroserver/config/app.csv", "tessaroserver/config/remotes.csv"]
APPLICATION = [f"{UNIT_APPLICATION}/manifest.csv"]
NAMING = "openat,stat,lstat,newfstatat,statx"


class HangingDisk:
    """The calls of the server that name one of `files`, below the applications' folder, do not return any more."""

    def __init__(self, bench, files):
        paths = [option for file in files for option in ("-P", f"/home/root/Applications/{file}")]
        self._tracer = subprocess.Popen(["strace", "-f", "-e", f"trace={NAMING}", "-e", f"inject={NAMING}:delay_enter=300s",
                                         *paths, "-o", "/dev/null", "-p", str(bench.server.pid)],
                                        stderr=subprocess.PIPE, text=True)
        for line in self._tracer.stderr:
            if "attached" in line:
                return
        raise AssertionError("the tracer could not attach to the server")

    def end(self):
        self._tracer.kill()
        self._tracer.wait()
        self._tracer.stderr.close()


@pytest.fixture
def hang(serving):
    disks = []

    def begin(files):
        disks.append(HangingDisk(serving, files))
        return disks[-1]

    yield begin
    serving.server.kill()
    for disk in disks:
        disk.end()


@pytest.fixture
def armed(serving):
    serving.pair_units(2)
    serving.api.send(b"CCHANGE")
    serving.unit(1001).join().wait_joined()
    with serving.service_tool() as tool:
        tool.list()  # the thread that answers has done all of the reload
    arm(serving)
    return serving


def assert_no_answer(bench, question):
    """A service tool waits in vain."""
    with bench.service_tool() as tool, pytest.raises(ServiceToolError):
        tool.wait_no_longer_than(0.5)
        question(tool)


def assert_ends_in_time(bench, disk, *lines):
    """The relay opens at once, one thread after the other is waited for, each for a second, and then for nobody. Whoever waited
    for the disk would do so for minutes."""
    mark, began = bench.journal.mark(), bench.journal.now
    bench.server.signal(signal.SIGTERM)
    bench.wait_for(lambda: bench.journal.select("gpio", "<", "drive", since=mark), HELD_UP_SECONDS, "the relay is driven open")
    for line in lines:
        bench.server.wait_log(line, HELD_UP_SECONDS)
    print(f"\nhanging disk: given up {bench.journal.now - began:.2f} s after SIGTERM")
    disk.end()  # a held thread does not go before its tracer does
    assert bench.server.wait_exit(HELD_UP_SECONDS) == 0


def test_a_disk_that_hangs_under_the_configuration_holds_up_nobody(armed, hang):
    disk = hang(CONFIG)
    lines = len(armed.server.log)
    armed.api.send(b"CCHANGE")
    armed.server.wait_log("RECONFIG ----", since=lines)
    assert_no_answer(armed, lambda tool: tool.list())
    notified = armed.api.notifies
    times = [heard_after(armed, armed.unit(1001).machine_stop)]
    armed.unit(1002).join().wait_joined()
    armed.api.send(b"CCHANGE")
    armed.wait_for(lambda: armed.api.notifies > notified, what="the local interface answers")
    armed.show_tsaps(5)
    times.append(heard_after(armed, armed.unit(1001).machine_stop))
    tell("disk hangs under the configuration", times)
    assert_prompt(times)
    assert_ends_in_time(armed, disk, "TessaroServer: File thread did not end in time.")


def test_a_disk_that_hangs_under_the_applications_holds_up_nobody(armed, hang):
    disk = hang(APPLICATION)
    lines = len(armed.server.log)
    armed.api.send(b"CCHANGE")
    armed.server.wait_log("RECONFIG", since=lines)
    armed.unit(1002).join().wait_joined()
    times = [heard_after(armed, armed.unit(1001).machine_stop)]
    assert_no_answer(armed, lambda tool: tool.list())  # which reads every manifest
    armed.show_tsaps(6)
    times.append(heard_after(armed, armed.unit(1001).machine_stop))
    tell("disk hangs under the applications", times)
    assert_prompt(times)
    assert_ends_in_time(armed, disk, "TessaroServer: File thread did not end in time.",
                        "TessaroServer: Checksum thread did not end in time.")
