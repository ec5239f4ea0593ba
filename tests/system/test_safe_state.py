"""What the machine-stop relay does when something is wrong with the server or its machine, watched at the GPIO files.

The times behind docs/safety.md are printed by `pytest -s`: one line a case.
"""

import errno
import os
import resource
import signal
import socket
import subprocess
from pathlib import Path

import pytest

from tessarobench import internallink as il
from tessarobench.installation import APP
from tessarobench.namespaces import mount
from tessarobench.servicetool import ServiceToolError
from units_support import HeldUp

pytestmark = pytest.mark.real_time("the figures are those of a real computer")

CONFIG = "/home/root/Applications/tessaroserver/config"
DAY = 24 * 60 * 60
SHIFT_FILE = "/home/root/shift"
SHIFT_LIBRARY = "/home/root/wallclock.so"


def drives(bench, since=0):
    return [event.value for event in bench.journal.select("gpio", "<", "drive", since=since)]


def contact_times(bench, closed, since):
    return [event.time for event in bench.journal.select("gpio", ">", "contact", since=since) if event.closed == closed]


def tell(case, seconds):
    print(f"\nsafe state: {case}: {1000 * seconds:.0f} ms")


@pytest.fixture(autouse=True)
def held_up(bench):
    """Where a computer stands still, so does what is measured."""
    bench.held_up = HeldUp(bench)
    return bench.held_up


def wait_open(bench, case, since_time, mark):
    """Waits until the relay has opened, tells how long that took, and returns it, less what the computer has held up all of it."""
    bench.wait_for(lambda: contact_times(bench, False, mark), what="the relay opens")
    taken = contact_times(bench, False, mark)[0] - since_time
    tell(case, taken)
    return taken - bench.held_up.since(since_time)


def stays_closed(bench, mark, since_time):
    """Or the base controller has been held up: one that is 150 ms late is a lost link, by rights."""
    return (drives(bench, mark) == [] and bench.relay.closed) or bench.held_up.since(since_time) > 0.1


def wait_run(bench, since):
    bench.server.wait_log("RUN", since=since, whole=True)


@pytest.fixture
def closed(running):
    running.wait_for(lambda: running.relay.closed)
    return running


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_an_orderly_end_opens_the_relay_at_once(closed, number):
    mark = closed.journal.mark()
    closed.server.signal(number)
    began = closed.journal.last(link="server", kind="signal").time
    assert wait_open(closed, signal.Signals(number).name, began, mark) < 0.5
    assert closed.server.wait_exit() == 0
    assert drives(closed, mark) == ["0"]


@pytest.mark.parametrize("number", [signal.SIGSEGV, signal.SIGBUS, signal.SIGABRT, signal.SIGQUIT, signal.SIGHUP])
def test_a_process_that_crashes_opens_the_relay_before_it_ends(closed, sanitized, number):
    """With nobody to do it afterwards, and before a core dump could be written."""
    if sanitized and number in (signal.SIGSEGV, signal.SIGBUS):
        pytest.skip("under a sanitizer: the signal is the sanitizer's")
    mark = closed.journal.mark()
    closed.server.signal(number)
    began = closed.journal.last(link="server", kind="signal").time
    assert wait_open(closed, signal.Signals(number).name, began, mark) < 0.5
    assert closed.server.wait_exit() == -number
    assert drives(closed, mark) == ["0"]


def test_after_a_kill_the_relay_stays_closed_and_the_restart_takes_charge(closed):
    """Kept as it is: nobody is left to open the relay. The restarted server drives it anew and supervises the link."""
    mark = closed.journal.mark()
    closed.server.kill()
    killed = closed.journal.now
    assert closed.relay.closed and drives(closed, mark) == []
    closed.start()
    wait_run(closed, 0)
    tell("SIGKILL, restart to RUN", closed.journal.now - killed)
    assert closed.relay.closed
    closed.bc.mute()
    muted = closed.journal.now
    assert wait_open(closed, "link lost after a restart", muted, mark) < 1.5


def test_while_stopped_for_ten_seconds_the_relay_stays_and_the_link_goes_on(closed):
    """Kept as it is: a stopped process drives nothing."""
    mark = closed.journal.mark()
    closed.server.pause()
    closed.wait_for(lambda: closed.journal.now > closed.journal.last(link="server", kind="signal").time + 10, 40,
                    poll=0.1)
    assert closed.relay.closed and drives(closed, mark) == []
    closed.server.resume()
    closed.show_tsaps(7)
    closed.wait_for(lambda: closed.relay.closed)


def test_a_link_lost_while_stopped_opens_the_relay_soon_after(closed):
    mark = closed.journal.mark()
    closed.server.pause()
    closed.bc.mute()
    closed.server.resume()
    resumed = closed.journal.last(link="server", kind="signal").time
    assert wait_open(closed, "link lost while stopped, after SIGCONT", resumed, mark) < 1.5


def test_without_descriptors_the_relay_still_opens(bench):
    """Opening the relay takes a descriptor; connections of remote units must never eat the last one."""
    assert bench.bc and bench.api
    bench.start(limits={resource.RLIMIT_NOFILE: 200})
    wait_run(bench, 0)
    bench.bc.set(bu_identity=400)
    bench.server.wait_log("GLinkServer listening")
    bench.wait_for(lambda: bench.relay.closed)
    sockets = []
    try:
        for _ in range(400):
            client = bench.peer_socket(socket.SOCK_STREAM)
            client.setblocking(False)
            client.connect_ex(("192.168.32.1", 1147))
            sockets.append(client)
        bench.show_tsaps(9)
        bench.wait_for(lambda: bench.relay.closed, what="the relay is closed under the load of connections")
        mark = bench.journal.mark()
        bench.bc.mute()
        muted = bench.journal.now
        assert wait_open(bench, "link lost, descriptors eaten up by connections", muted, mark) < 1.5
        assert bench.server.running
    finally:
        for client in sockets:
            client.close()


def fill_config(bench):
    """A file system of its own for the configuration, with no room left."""
    def lay():
        files = {path.name: path.read_bytes() for path in Path(CONFIG).iterdir()}
        mount("config", CONFIG, "tmpfs", options="size=64k,mode=755")
        for name, content in files.items():
            Path(CONFIG, name).write_bytes(content)
        with pytest.raises(OSError) as error, open(f"{CONFIG}/filler", "wb", buffering=0) as filler:
            while True:
                filler.write(bytes(4096))
        assert error.value.errno == errno.ENOSPC
    bench.on_board(lay)


def test_a_full_disk_while_pairing_costs_neither_keys_nor_relay(serving):
    serving.wait_for(lambda: serving.relay.closed)
    fill_config(serving)
    before = serving.on_board(lambda: Path(CONFIG, "remotes.csv").read_bytes())
    mark, began = serving.journal.mark(), serving.journal.now
    with serving.service_tool() as tool:
        path = next(entry["pairAppPath"] for entry in tool.list() if entry.get("type") == "user")
        tool.wait_no_longer_than(2.0)
        try:
            tool.ask(path, 4711)
        except ServiceToolError:
            pass  # no offer is as good an answer as one
    assert serving.on_board(lambda: Path(CONFIG, "remotes.csv").read_bytes()) == before
    assert stays_closed(serving, mark, began)
    assert serving.unit(1001).join().wait_verdict().code == 0
    serving.wait_for(lambda: serving.relay.closed)
    mark = serving.journal.mark()
    serving.bc.mute()
    muted = serving.journal.now
    assert wait_open(serving, "link lost, disk full", muted, mark) < 1.5


@pytest.fixture(scope="session")
def shift_library(tmp_path_factory):
    library = tmp_path_factory.mktemp("wallclock") / "wallclock.so"
    source = Path(__file__).with_name("wallclock.c")
    subprocess.run(["gcc", "-shared", "-fPIC", "-O1", "-o", str(library), str(source), "-ldl"], check=True)
    return library.read_bytes()


@pytest.mark.parametrize("seconds", [DAY, -DAY], ids=["forwards", "backwards"])
def test_a_wall_clock_that_jumps_by_a_day_changes_nothing(bench, shift_library, seconds):
    bench.on_board(lambda: Path(SHIFT_LIBRARY).write_bytes(shift_library))
    bench.on_board(lambda: Path(SHIFT_FILE).write_text("0"))
    bench.change(APP, "EMAP", value=0)
    assert bench.bc and bench.api
    bench.start(env={"LD_PRELOAD": SHIFT_LIBRARY, "TESSARO_WALL_CLOCK_SHIFT": SHIFT_FILE,
                     "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"})
    wait_run(bench, 0)
    bench.bc.set(bu_identity=400)
    bench.server.wait_log("GLinkServer listening")
    unit = bench.unit(1001).join().wait_joined()
    day_before = bench.server.log[-1].stamp[:8]
    mark, began = bench.journal.mark(), bench.journal.now
    bench.on_board(lambda: Path(SHIFT_FILE).write_text(str(seconds)))

    bench.bc.set(bu_state=16)
    line = bench.server.wait_log("BU State changed to DISARMED")
    assert bench.server.log[line - 1].stamp[:8] != day_before, "the clock of the server did not jump"
    seen = len(unit.received)
    bench.wait_for(lambda: unit.gaps(since=seen)[2:], what="base status goes on")
    assert max(unit.gaps(since=seen)) < 1.0 + bench.held_up.since(began)
    assert stays_closed(bench, mark, began) and unit.connected


def end_by_class_0(bench):
    bench.bc.send_once(il.Packet(0, 1, 101, b""))


def end_by_long_command(bench):
    bench.bc.command(bytes(17))


def end_by_short_periodic_data(bench):
    bench.bc.periodic(bytes(4))


def end_by_long_setting(bench):
    bench.bc.ask("MCIP")


def end_by_second_identity(bench):
    bench.bc.set(bu_identity=400)
    bench.server.wait_log("EGLink started")
    bench.bc.set(bu_identity=401)


@pytest.mark.parametrize("end", [end_by_class_0, end_by_long_command, end_by_short_periodic_data, end_by_long_setting,
                                 end_by_second_identity])
def test_a_fatal_assertion_opens_the_relay_and_the_restart_takes_charge(closed, end):
    """The restart is back in RUN quickly, closes the relay, and supervises again."""
    mark = closed.journal.mark()
    end(closed)
    assert closed.server.wait_exit() == -signal.SIGABRT
    ended = closed.journal.now
    assert drives(closed, mark) == ["0"]
    closed.bc.forget()
    closed.start()
    wait_run(closed, 0)
    tell(f"{end.__name__}, restart to RUN", closed.journal.now - ended)
    closed.wait_for(lambda: closed.relay.closed)
    mark = closed.journal.mark()
    closed.bc.mute()
    muted = closed.journal.now
    assert wait_open(closed, f"link lost after {end.__name__}", muted, mark) < 1.5


def test_after_a_failed_check_the_relay_closes_again_with_the_link(serving):
    """Kept as it is: a stop circuit that stays closed is reported and the relay driven open, and the next RUN closes it
    again, with a healthy base controller so soon that the contact hardly moves."""
    unit = serving.unit(1001).join().wait_joined()
    serving.bc.set(bu_state=17, armed_ru=1001)
    serving.wait_for(lambda: serving.api.tag("ARMED_RU") == "1001" and serving.api.tag("BU_STATE") == "17")
    serving.wait_for(lambda: serving.relay.closed)
    mark = serving.journal.mark()
    unit.machine_stop()
    stopped = serving.journal.now
    serving.wait_for(lambda: drives(serving, mark) == ["0", "1"], what="the relay is driven open, and closed again")
    opened, closed_again = (event.time for event in serving.journal.select("gpio", "<", "drive", since=mark))
    tell("machine stop, stop circuit still closed, driven open", opened - stopped)
    tell("driven closed again after that", closed_again - opened)
    assert 0.9 < opened - stopped < 1.5 + serving.held_up.since(stopped)
    serving.server.wait_log("Relay closed", whole=True)
