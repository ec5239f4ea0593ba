"""However the server ends or hangs, the package's unit has the relay opened: shown with a real systemd as process 1.

The times are printed by `pytest -s`, one line a case.
"""

import os
import re
import signal
import socket
from pathlib import Path

import pytest

import servicemanager
from conftest import clean_root
from servicemanager import UNIT, ServiceManager
from tessarobench import stallingdisk
from tessarobench.installation import IDENTITY, Installation

APPLICATIONS = "home/root/Applications"
DOC = "usr/share/doc/tessaroserver"
OPEN_SECONDS = 2.0  # from the end of the process, on a busy computer; the times are printed
# The service manager's: a server that gives no sign of life, and then does not end however it is told to.
HELD_SECONDS = 2.0 + 0.5 + 3.0
MARGIN_BYTES, CONNECTIONS = 1 << 20, 200


@pytest.fixture(scope="module")
def managed(request, tmp_path_factory):
    """A board on which systemd has started the packaged server, beside a willing base controller."""
    if servicemanager.refused():
        pytest.skip(f"NOT TESTED: the unit under a real systemd. {servicemanager.refused()}")
    with clean_root(request, tmp_path_factory.mktemp("debian")) as root, Installation() as bench:
        root.install(Path(request.config.getoption("--newer")).resolve())
        root.run("cp", "-a", f"/{DOC}/examples/.", f"/{APPLICATIONS}/")
        root.run("systemctl", "disable", UNIT)
        bench.applications = root / APPLICATIONS
        bench.disk = mounted_disk(bench)
        bench.manager = ServiceManager(bench, root.path)
        try:
            yield bench
        finally:
            bench.manager.close()
            if bench.disk:
                bench.on_board(bench.disk.unmount)


def mounted_disk(bench):
    """The one on which the server's folder lies; None where there can be none that stalls."""
    if not stallingdisk.available():
        return None
    disk = stallingdisk.StallingDisk(str(bench.applications))
    bench.on_board(disk.mount, str(bench.applications))
    return disk


@pytest.fixture
def closed(managed):
    """The unit is up, the link in RUN, the relay closed."""
    assert managed.bc
    mark = managed.journal.mark()
    managed.manager.control("start", UNIT)
    managed.wait_for(lambda: managed.journal.count("uart", "<", "status", since=mark), 10, "the server talks")
    managed.bc.set(bu_identity=IDENTITY)
    managed.wait_for(lambda: managed.journal.count("uart", "<", "status", since=mark, identity=IDENTITY), 10,
                     "the server knows who it is")
    managed.wait_for(lambda: managed.relay.closed)
    yield managed
    managed.manager.control("stop", UNIT)
    managed.bc.forget()


def opened_after(bench, mark, began, case, timeout):
    """Seconds until the drive line was at 0, told."""
    bench.wait_for(lambda: bench.journal.select("gpio", "<", "drive", since=mark, value="0"), timeout,
                   "the relay is opened\n" + bench.manager.journal())
    taken = bench.journal.select("gpio", "<", "drive", since=mark, value="0")[0].time - began
    print(f"\nsystemd: {case}: drive line at 0 after {1000 * taken:.0f} ms")
    return taken


def end_by(bench, number):
    """Sends a signal to the server; the place in the journal and the time before that."""
    process = bench.manager.wait_main_process()
    mark, began = bench.journal.mark(), bench.journal.now
    os.kill(process, number)
    return mark, began


def watchdog_seconds(bench):
    text = bench.manager.setting("WatchdogUSec")
    seconds = sum(float(number) * {"min": 60, "s": 1, "ms": 0.001}[unit]
                  for number, unit in re.findall(r"([\d.]+)(min|ms|s)", text))
    assert seconds, f"no watchdog: {text}"
    return seconds


def test_the_unit_is_up_once_the_server_says_so(closed):
    assert closed.manager.setting("Type") == "notify"
    assert closed.manager.setting("ActiveState") == "active"
    assert watchdog_seconds(closed) <= 5


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGSEGV, signal.SIGABRT, signal.SIGTERM])
def test_a_server_that_ends_leaves_an_open_relay(closed, number):
    mark, began = end_by(closed, number)
    assert opened_after(closed, mark, began, signal.Signals(number).name, 5) < OPEN_SECONDS
    assert closed.manager.setting("NRestarts").isdigit()
    closed.wait_for(lambda: closed.journal.select("gpio", "<", "drive", since=mark, value="1"), 10,
                    "the server is started again, and takes charge")


def test_a_server_that_hangs_is_ended_by_the_watchdog(closed):
    limit = watchdog_seconds(closed)
    mark, began = end_by(closed, signal.SIGSTOP)
    taken = opened_after(closed, mark, began, f"SIGSTOP, a hang, with a watchdog of {limit:g} s", limit + 10)
    assert taken < limit + OPEN_SECONDS


@pytest.mark.parametrize("held, limit", [(False, OPEN_SECONDS), (True, HELD_SECONDS + OPEN_SECONDS)],
                         ids=["nobody waits for the disk", "a thread waits for the disk"])
def test_a_disk_that_hangs_keeps_nobody_from_opening_the_relay(closed, held, limit):
    """The server's own folder does not answer when the server is killed. A thread that waits there does not even die."""
    if not closed.disk:
        pytest.skip("NOT TESTED: a server that is killed while its disk hangs. It needs /dev/fuse")
    closed.disk.stall(stallingdisk.HANG)
    try:
        if held:
            closed.api.send(b"CCHANGE")
            closed.wait_for(lambda: closed.disk.hung > 0, 5, "the server waits for its disk", poll=0.05)
        mark, began = end_by(closed, signal.SIGKILL)
        case = f"SIGKILL while the disk hangs, {'and a thread waits for it' if held else 'and nobody waits for it'}"
        assert opened_after(closed, mark, began, case, 30) < limit
    finally:
        closed.disk.recover()
    closed.wait_for(lambda: closed.journal.select("gpio", "<", "drive", since=mark, value="1"), 60,
                    "the server is started again, and takes charge")


def note_end(bench, process):
    """A list that gets the time at which the process ends."""
    ended, descriptor = [], os.pidfd_open(process)

    def note():
        bench.loop.watch(descriptor)
        os.close(descriptor)
        ended.append(bench.journal.now)

    bench.loop.call(bench.loop.watch, descriptor, note)
    return ended


def test_a_server_that_exceeds_its_memory_leaves_an_open_relay(closed):
    """Remote units that join cost memory; the kernel ends the server when its limit is reached."""
    manager = closed.manager
    manager.control("set-property", "--runtime", UNIT, f"MemoryMax={manager.memory.used_by(UNIT) + MARGIN_BYTES}")
    mark, ended, clients = closed.journal.mark(), note_end(closed, manager.wait_main_process()), []
    try:
        for _ in range(CONNECTIONS):
            client = closed.peer_socket(socket.SOCK_STREAM)
            client.setblocking(False)
            client.connect_ex(("192.168.32.1", 1147))
            clients.append(client)
        closed.wait_for(lambda: ended, 10, "the kernel ends the server")
        assert opened_after(closed, mark, ended[0], "memory limit exceeded", 5) < OPEN_SECONDS
    finally:
        for client in clients:
            client.close()
        manager.control("set-property", "--runtime", UNIT, "MemoryMax=infinity")
