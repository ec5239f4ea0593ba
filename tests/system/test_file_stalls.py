"""Files that are large, endless or not files at all: what waits for them waits alone. Machine stops are heard, the status
record keeps its pace and the internal link stays, whatever a service tool, a local program or a disk is about.

`pytest -s` prints how long the longest machine stop took.
"""

import os
import subprocess
import sys
import time

import pytest

from pairing_support import USER, install, words_of_unit
from tessarobench import glink, pairwire
from tessarobench.installation import APP, REMOTES
from tessarobench.servicetool import ServiceToolError
from units_support import HeldUp

pytestmark = pytest.mark.real_time("work on files takes no virtual time, and how long others wait for it is the point")

HEARD = "MsRelayControl::machineStopPressed( void )"
PROMPT = 0.2  # seconds; what a busy computer takes of it is most of it
HELD_UP_SECONDS = 15.0  # more than a computer may hold up the server alone; what stands still here does so for longer
BEAT = 0.5    # seconds between two status records

# For three seconds as fast as a program can, though not at the cost of the bench's processor time; tells how many it sent.
FLOOD = """
import os, socket, sys, time
os.nice(10)
asking = socket.socket(fileno=int(sys.argv[1]))
end, sent = time.monotonic() + 3, 0
while time.monotonic() < end:
    asking.sendto(sys.argv[2].encode(), ("127.0.0.1", 6250))
    sent += 1
print(sent)
"""


def arm(bench, unit_id=1001):
    """The unit's machine stops count from now on, and open the relay as far as the monitor line tells."""
    bench.relay.hold_monitor("1")
    bench.bc.set(bu_state=17, armed_ru=unit_id)
    bench.wait_for(lambda: bench.api.tag("ARMED_RU") == str(unit_id) and bench.api.tag("BU_STATE") == "17")


def wall_clock(stamp):
    """A stamp of the server's log, "20220327 17:52:59.123", as seconds since the epoch."""
    return time.mktime(time.strptime(stamp[:-4], "%Y%m%d %H:%M:%S")) + int(stamp[-3:]) / 1000


@pytest.fixture(autouse=True)
def held_up(bench):
    bench.held_up = HeldUp(bench)


def heard_after(bench, press):
    """How long it takes from a machine stop's leaving the unit to the relay control, by the base unit's own clock: when the
    bench comes to read the line does not matter. Less what the computer has held up all of it."""
    mark, lines, sent = bench.journal.mark(), len(bench.server.log), bench.journal.now
    press()
    heard = bench.server.wait_log(HEARD, since=lines, whole=True)
    written = bench.journal.last("glink", ">", "machine stop", since=mark)
    left = bench.journal.wall_began + (written.time if written else sent)
    return max(0.0, wall_clock(bench.server.log[heard - 1].stamp) - left - bench.held_up.since(sent))


def press_until(bench, unit, done, pause=0.05):
    """Presses again and again until `done`; the times that it took."""
    times = []
    while not done() or not times:
        times.append(heard_after(bench, unit.machine_stop))
        began = bench.journal.now
        bench.wait_for(lambda: bench.journal.now - began > pause and unit.idle, poll=0.01)
    return times


def tell(case, times):
    print(f"\nfile stalls: {case}: longest of {len(times)} machine stops {1000 * max(times):.0f} ms")


def assert_prompt(times, prompt=PROMPT):
    """They were heard at once, but for one in ten that something else may have held up: not for as long as what stands still."""
    late = [seconds for seconds in times if seconds >= prompt]
    assert len(late) <= max(1, len(times) // 10) and max(times) < HELD_UP_SECONDS, times


def status_records(bench, since):
    """When status records came, repeats left out."""
    return [event.time for event in bench.journal.select("uart", "<", "status", since=since) if "again" not in event.detail]


def longest_pause(bench, since):
    """Between two status records; less what the computer has held up all of it."""
    times = status_records(bench, since)
    return max(after - before - bench.held_up.between(before, after) for before, after in zip(times, times[1:]))


def test_a_pipe_in_the_place_of_an_applications_keys_is_refused_at_once(serving):
    """Nobody writes into the pipe: whoever opened it in the usual way would wait for ever."""
    install(serving, "panel", "user")
    os.remove(serving.applications / "panel/config/keys.csv")
    os.mkfifo(serving.applications / "panel/config/keys.csv")
    unit = serving.unit(1001).join().wait_joined()
    arm(serving)
    with serving.service_tool() as tool:
        tool.wait_no_longer_than(3.0)
        with pytest.raises(ServiceToolError):
            tool.ask(USER, 1001)
        times = [heard_after(serving, unit.machine_stop)]
        tell("pipe for keys.csv", times)
        assert_prompt(times)
        serving.server.wait_log("Load Configurations File Error:")
        assert serving.server.logged(f'pairserver: Could not write the pairing into "{USER}/config/keys.csv"') == 1
        assert tool.list(), "the next request is served"


@pytest.mark.parametrize("name", ["app.csv", "keys.csv", "remotes.csv"])
def test_a_pipe_in_the_place_of_a_configuration_file_counts_as_missing(serving, name):
    path = serving.applications / "tessaroserver/config" / name
    os.remove(path)
    os.mkfifo(path)
    mark, line = serving.journal.mark(), len(serving.server.log)
    serving.api.send(b"CCHANGE")
    serving.server.wait_log("Not a regular file", since=line)
    serving.wait_for(lambda: serving.journal.last(link="uart", kind="event", event="RECONFIG", since=mark))
    serving.show_tsaps(3)


@pytest.mark.parametrize("request_, event", [("CCHANGE", "RECONFIG"), ("DISARM", "RELEASEARM"), ("RESET", "ECLINKRESET")])
def test_a_flood_of_requests_holds_up_nobody(serving, request_, event):
    unit = serving.unit(1001).join().wait_joined()
    arm(serving)
    mark, line, notified = serving.journal.mark(), len(serving.server.log), serving.api.notifies
    with serving.local_socket() as asking:
        flood = subprocess.Popen([sys.executable, "-c", FLOOD, str(asking.fileno()), request_],
                                 pass_fds=[asking.fileno()], stdout=subprocess.PIPE)
        began = serving.journal.now
        times = press_until(serving, unit, lambda: serving.journal.now > began + 3)
        sent = int(flood.communicate()[0])
    ended = serving.journal.mark()
    serving.wait_for(lambda: serving.journal.last(link="uart", kind="event", event=event, since=ended),
                     what="the answer to the last requests")
    serving.wait_for(lambda: len(status_records(serving, mark)) >= 7)
    pause = longest_pause(serving, mark)
    tell(f"{sent} times {request_} in 3 s", times)
    print(f"file stalls: longest pause between status records {1000 * pause:.0f} ms, {event} "
          f"{serving.journal.count(link='uart', kind='event', event=event, since=mark)} times")
    assert_prompt(times)
    assert pause < 2 * BEAT
    if request_ == "CCHANGE" and serving.held_up.since(began) < 0.1:
        # With the others a packet is always on its way, and any 150 ms of a late bench lose the link.
        assert serving.server.logged("Internal link fail", line) == 0
    assert serving.api.notifies > notified
    assert sent > 1000


def test_pairing_beside_many_remote_units_holds_up_nobody(bench):
    bench.change(APP, "EMAP", value=0)
    bench.bc.retry_seconds = 1.0
    install(bench, "panel", "user")
    rows = "".join(f"{row};{row + 1};4000000001;4000000002;4000000003;4000000004\n" for row in range(65000))
    heading = (bench.applications / REMOTES).read_text().splitlines(keepends=True)[:2]
    (bench.applications / REMOTES).write_text("".join(heading) + rows)
    bench.start_to_serve(timeout=60.0)
    unit = bench.unit(64999).join().wait_joined()
    arm(bench, 64999)
    mark, line = bench.journal.mark(), len(bench.server.log)
    with bench.service_tool(timeout=60.0) as tool:
        tool.send(pairwire.get_app(65001, USER), "getApp")
        times = press_until(bench, unit, lambda: bench.server.logged("sending app metadata for", line))
    tell("pairing beside 65,000 units", times)
    # Where others want the processors, too, the seconds of work in the file thread count against the whole server.
    assert_prompt(times, 3 * PROMPT)
    assert words_of_unit(bench, 65001)
    assert longest_pause(bench, mark) < 2 * BEAT


def enlarge(application):
    """Half a minute's hashing on a quick computer, without a hold-up, and all of it holes: no disk has to hold them."""
    for number in range(8):
        with open(application / f"large{number}", "wb") as file:
            file.truncate(2 << 30)


def test_a_changed_application_that_is_being_hashed_holds_up_no_machine_stop(serving):
    """Neither that of a unit that joins meanwhile, over its own connection, nor that of one that was there before."""
    serving.pair_units(2)
    serving.api.send(b"CCHANGE")
    there = serving.unit(1002).join().wait_joined()
    arm(serving)
    enlarge(serving.applications / "handset")
    newcomer = serving.unit(1001)
    newcomer.checksum = bytes(16)
    newcomer.join(send_init=False)
    serving.wait_for(lambda: newcomer.connected)

    def introduce_and_stop():
        newcomer.send_init()
        newcomer.send_raw(glink.message(glink.MACHINE_STOP, b"").pack())  # without waiting for the verdict

    times = [heard_after(serving, introduce_and_stop)]
    serving.bc.set(armed_ru=1002)
    serving.wait_for(lambda: serving.api.tag("ARMED_RU") == "1002")
    times.append(heard_after(serving, there.machine_stop))
    tell("many GiB being hashed", times)
    assert_prompt(times)
    for file in (serving.applications / "handset").glob("large*"):
        os.truncate(file, 0)  # that is enough
    assert newcomer.wait_verdict(120).code == glink.OTHER_APPLICATION, "judged by the application as it was"


def test_an_end_while_an_application_is_being_hashed_comes_in_time(serving):
    enlarge(serving.applications / "handset")
    serving.api.send(b"CCHANGE")
    serving.wait_for(lambda: serving.journal.last(link="uart", kind="event", event="RECONFIG"))
    assert serving.server.stop(HELD_UP_SECONDS) == 0
