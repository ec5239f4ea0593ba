"""Virtual time: the server waits by a clock that stands still while anybody works."""

import os
import select
import subprocess
import sys
import time
from pathlib import Path

import pytest

from tessarobench import clock, pairwire, virtualtime
from tessarobench.installation import Installation
from tessarobench.soak import Soak

SOAK = Path(__file__).resolve().parents[2] / "bench" / "soak"
WAITS = {"poll": 100, "ppoll": 200, "select": 300, "nanosleep": 200, "usleep": 40, "sleep": 2000, "clock_nanosleep": 60,
         "poll until written": 70, "pthread_join": 0, "condition clockwait": 110, "condition timedwait": 120,
         "condition without an end": 190, "condition until notified": 130, "timed mutex": 140, "semaphore": 150, "futex": 160, "futex bitset": 170,
         "futex wall": 180, "asking for the time without end": 5, "a day": 86_400_000}


@pytest.fixture(scope="module")
def library(server_path):
    if not virtualtime.preloaded_with(server_path).exists():
        pytest.skip("a build with sanitizers has no library for virtual time")
    return virtualtime.preloaded_with(server_path)


@pytest.fixture
def virtual_bench(server_path, library):
    with Installation(server_path, virtual_time=library) as laid:
        yield laid
        laid.loop.raise_failure()


@pytest.fixture(scope="module")
def waits_program(tmp_path_factory):
    program = tmp_path_factory.mktemp("virtualwaits") / "virtualwaits"
    source = Path(__file__).with_name("virtualwaits.cpp")
    subprocess.run(["c++", "-std=c++17", "-O1", "-pthread", "-o", str(program), str(source)], check=True)
    return program


def test_every_kind_of_wait_takes_exactly_what_it_asked_for(waits_program, library):
    with Installation(waits_program, virtual_time=library) as bench:
        bench.server.start()
        assert bench.server.wait_exit(100_000) == 0
        took = {name: int(milliseconds) for name, _, milliseconds in (text.rpartition(" ") for text in bench.server.texts())}
    assert 1000 <= took.pop("polling without end") <= 2001  # to the second after the next
    assert took == WAITS


def test_a_link_is_held_for_an_hour_in_far_less(virtual_bench):
    virtual_bench.start_to_run()
    began, log = time.monotonic(), len(virtual_bench.server.log)
    before = virtual_bench.journal.now
    virtual_bench.let_pass(3600)
    assert time.monotonic() - began < 360
    assert 3600 <= virtual_bench.journal.now - before < 3601
    assert virtual_bench.relay.closed
    assert virtual_bench.server.texts(log) == []


def test_no_deadline_passes_while_the_bench_is_held_up(virtual_bench):
    virtual_bench.start_to_run()
    log = len(virtual_bench.server.log)
    virtual_bench.loop.call(time.sleep, 0.5)  # three times what ends the link
    virtual_bench.let_pass(1)
    assert virtual_bench.relay.closed and not virtual_bench.server.logged("Internal link fail", since=log)


def test_the_server_stamps_its_log_with_the_time_that_the_bench_sees(virtual_bench):
    virtual_bench.start_to_run()
    virtual_bench.let_pass(100)
    virtual_bench.bc.set(bu_state=17)
    virtual_bench.server.wait_log("BU State changed to")
    stamp = virtual_bench.server.log[-1].stamp
    assert stamp == time.strftime("%Y%m%d %H:%M:%S", time.localtime(clock.time())) + stamp[-4:]


def test_the_same_run_takes_the_same_virtual_time(server_path, library):
    def times():
        with Installation(server_path, virtual_time=library) as bench:
            bench.start_to_run()
            bench.let_pass(1)
            muted = bench.journal.now
            bench.bc.mute()
            bench.wait_for(lambda: not bench.relay.closed)
            return round(bench.journal.now - muted, 6)

    assert len({times() for _ in range(5)}) == 1


PROCESSOR = """
import sys
sys.path.insert(0, sys.argv[1])
from tessarobench.virtualtime import VirtualTime
time = VirtualTime(sys.argv[2])
time.stay_together()
"""


def own_world(library, then):
    """A tool of the bench in a sandbox of its own, which tells on which processor its board would live, and does `then`."""
    command = [SOAK.parent / "sandbox", sys.executable, "-c", f"{PROCESSOR}\nimport os\nprint(*os.sched_getaffinity(0), flush=True)"
               f"\n{then}", SOAK.parent, library]
    return subprocess.Popen(command, stdout=subprocess.PIPE, text=True)


@pytest.mark.skipif(len(os.sched_getaffinity(0)) < 2, reason="there is one processor alone")
def test_two_tools_side_by_side_do_not_keep_to_the_same_processor(library):
    """Each is the second process of its world."""
    with own_world(library, "while True: pass") as busy:
        taken = busy.stdout.readline()
        try:
            assert any(own_world(library, "").communicate()[0] not in ("", taken) for _ in range(30))
        finally:
            busy.terminate()


def test_time_stands_while_a_child_process_is_at_work(virtual_bench):
    """The archive is packed by another program, which knows nothing of virtual time."""
    virtual_bench.start_to_serve()
    path, requests, before = virtual_bench.tool.find("handset"), virtual_bench.tool.open(), virtual_bench.journal.now
    virtual_bench.tool.send(pairwire.get_app(1001, path))
    virtual_bench.wait_for(lambda: select.select([requests], [], [], 0)[0])
    assert virtual_bench.journal.now == before


def test_the_books_of_a_soak_balance_chapter_by_chapter(server_path, library):
    said = []
    assert Soak(server_path, 3, said.append, library).run(60, chapter=20) == []
    images = next(line for line in said if line.startswith("  process images to the API"))
    assert int(images.split()[5]) > 60 * 45  # of all chapters together, fifty a second


def test_a_soak_may_be_shorter_than_the_time_between_two_looks_at_its_figures(server_path, library):
    assert Soak(server_path, 3, lambda text: None, library).run(0.1) == []


@pytest.mark.parametrize("options", [("--days", "0"), ("--hours", "-1"), ("--minutes", "0"), ("--days", "inf"), ("--days", "week")])
def test_a_soak_of_no_length_is_refused(server_path, options):
    """And not taken for one of the usual length in real time."""
    done = subprocess.run([sys.executable, SOAK, *options, "--server", server_path], capture_output=True, text=True, check=False)
    assert done.returncode == 2 and f"argument {options[0]}: '{options[1]}' is no length of time" in done.stderr


def test_where_there_is_no_library_it_says_so_and_goes_on(tmp_path, capfd):
    assert virtualtime.offered(tmp_path / "tessaroserver") is None
    assert "No virtual time here, so this runs in real time: there is no" in capfd.readouterr().err


def test_where_the_library_does_not_fit_it_says_so_and_goes_on(tmp_path, capfd):
    library = virtualtime.preloaded_with(tmp_path / "tessaroserver")
    library.parent.mkdir(parents=True)
    library.write_bytes(b"\x7fELF of another kind")
    assert virtualtime.offered(tmp_path / "tessaroserver") is None
    assert "No virtual time here, so this runs in real time: " in capfd.readouterr().err


def test_a_library_of_another_version_is_not_used(tmp_path, capfd):
    """It can be loaded, and has nothing of what the bench asks it for."""
    library = virtualtime.preloaded_with(tmp_path / "tessaroserver")
    library.parent.mkdir(parents=True)
    source = tmp_path / "other.c"
    source.write_text("int other(void) { return 0; }\n")
    subprocess.run(["cc", "-shared", "-o", str(library), str(source)], check=True)
    assert virtualtime.offered(tmp_path / "tessaroserver") is None
    told = capfd.readouterr().err
    assert told.startswith("No virtual time here, so this runs in real time: ") and "belongs to another version" in told
