"""From the start of the process to RUN: what is logged, in which order, and what the line carries."""

import os
import re
from pathlib import Path

import pytest

from tessarobench.installation import APP, CONFIG_VALUES, INPUT_TAGS, KEYS, OTHER_TAGS, OUTPUT_TAGS, REMOTES

BANNER = re.compile(r"\d{8} \d\d:\d\d:\d\d\.\d{3} - Starting TZ-400 Tessaro Server \[ build of  "
                    r"[A-Z][a-z]{2} [ \d]\d \d{4}   \d\d:\d\d:\d\d \]")
SLOW_CONNECTIONS = "/home/root/slowconnect.so"
CONFIGURATION = "/home/root/Applications/tessaroserver/config/"
TAG_FILES = ["/home/root/Applications/.config/baseInternalInputTags.csv",
             "/home/root/Applications/.config/baseInternalOutputTags.csv",
             "/home/root/Applications/.config/baseInternalTags.csv",
             CONFIGURATION + "ECOutputTags.csv", CONFIGURATION + "EGOutputTags.csv"]


def test_the_banner_byte_for_byte(bench):
    bench.start().server.wait_log("Starting TZ-400")
    first = bench.server.log[0]
    assert BANNER.fullmatch(f"{first.stamp} - {first.text}")


def test_every_log_line_carries_a_time_stamp(running):
    assert [line for line in running.server.log if not line.stamp] == []


def test_components_come_up_in_their_order(running):
    expected = ["Starting TZ-400", "MsRelayControl::MsRelayControl(QObject *parent) : QObject(parent)",
                *(f"loading {path}" for path in TAG_FILES), "------------------------- RECONFIG -------------------------",
                "Serial_port_c: Start connection", "Serial_port_c: Successfully connected to: ",
                "Serial_port_c: Config success", "Serial_port_c: Start reading data", "sendResetTimer initiated",
                "SystemEventService::newEvent ACK_RECIEVED", "ConfigurationService::readBCConfig"]
    log = running.server.plain_texts()
    position = 0
    for wanted in expected:
        found = next((i for i in range(position, len(log)) if wanted in log[i]), None)
        assert found is not None, f"{wanted!r} is missing after line {position} of:\n" + "\n".join(log)
        position = found + 1


def test_the_line_before_and_after_the_first_acknowledgement(bench):
    """Silence is answered by RESET packets, one at a time; the first acknowledged one leads to RUN at once."""
    bench.bc.deaf = True
    bench.start()
    bench.wait_for(lambda: bench.bc.received["event"] >= 2)
    first = bench.journal.select("uart", "<")[0]
    assert first.data[2:4] == bytes([100, 0]) and first.klass == 1 and first.event == "RESET"
    assert not bench.server.logged("SystemEventService::newEvent ACK_RECIEVED")
    bench.bc.deaf = False
    n = bench.server.wait_log("SystemEventService::newEvent ACK_RECIEVED", whole=True)
    n = bench.server.wait_log("STARTING", since=n, whole=True)
    n = bench.server.wait_log("SystemEventService::newEvent CONFIG_FINISHED", since=n, whole=True)
    bench.server.wait_log("RUN", since=n, whole=True)


def test_reset_is_repeated_while_nobody_answers(bench):
    """Every 100 ms one is queued, each is sent three times, so the line is never silent for long."""
    bench.bc.deaf = True
    bench.start()
    bench.wait_for(lambda: bench.bc.received["event"] >= 12)
    frames = bench.journal.select("uart", "<", "event")
    assert {event.event for event in frames} == {"RESET"}
    assert bench.server.logged("Internal link fail!!!!!!!!") >= 2
    assert max(b.time - a.time for a, b in zip(frames, frames[1:])) < 1.0


def test_resets_stop_in_run_and_the_status_record_goes_on(running):
    mark = running.journal.mark()
    running.wait_for(lambda: running.journal.count(link="uart", direction="<", kind="status", since=mark) >= 4)
    since = running.journal.select("uart", "<", since=mark)
    assert not [event for event in since if event.kind == "event"], "RESETs must have ceased"
    times = [event.time for event in since if event.kind == "status" and "again" not in event.detail]
    assert all(0.3 < b - a < 0.9 for a, b in zip(times, times[1:])), times


def test_status_record_before_anything_is_known(running):
    record = running.wait_for(lambda: running.journal.last(link="uart", direction="<", kind="status"))
    assert record.data[2:8].startswith(bytes([101, 0, 0, 0, 0]))


def test_a_restarted_server_finds_the_link_again(running):
    running.bc.set(tsaps=5)
    running.server.restart()
    running.server.wait_log("RUN", whole=True)
    running.wait_for(lambda: running.bc.set(tsaps=6).acked or running.api.tag("TSAPs") == "6")


@pytest.mark.real_time("a library of its own makes the server slow")
def test_a_link_that_is_up_before_the_start_is_over_finds_its_receivers(bench, server_path):
    """The base controller answers at once, and the server takes long to make its connections: the first RESET of the
    link is due long before the last of them. The settings are fetched all the same."""
    library = (server_path.parent / "tests" / "slowconnect.so").read_bytes()
    bench.on_board(lambda: Path(SLOW_CONNECTIONS).write_bytes(library))
    assert bench.bc
    bench.start(env={"LD_PRELOAD": SLOW_CONNECTIONS,
                     "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"})
    reset = bench.server.wait_log("SystemEventService::newEvent ACK_RECIEVED", 60, whole=True)
    bench.server.wait_log("ConfigurationService::readBCConfig", since=reset, whole=True)
    bench.wait_for(lambda: bench.bc.received["ask"] == len(CONFIG_VALUES), what="the whole configuration pass")


def test_no_tag_files(bench):
    """Five warnings, then one per missing tag that the server reads; everything else works."""
    for file in (INPUT_TAGS, OUTPUT_TAGS, OTHER_TAGS):
        (bench.applications / file).unlink()
    for name in ("ECOutputTags.csv", "EGOutputTags.csv"):
        (bench.applications / "tessaroserver/config" / name).unlink()
    bench.start_to_run()
    log = [text.rstrip() for text in bench.server.plain_texts()]
    assert [line for line in log if line.startswith("Could not find the configuration file:")] == [
        f"Could not find the configuration file:  {path}" for path in TAG_FILES]
    assert set(bench.api.get().values()) == {""}
    record = bench.wait_for(lambda: bench.journal.last(link="uart", direction="<", kind="status"))
    assert (record.identity, record.units, record.eglink) == (0, 0, 0)


def test_no_configuration_files(bench):
    for file in (APP, REMOTES, KEYS):
        (bench.applications / file).unlink()
    bench.start_to_run()
    lost = [text for text in bench.server.plain_texts() if text.startswith("Load Configurations File Error: ")]
    assert [re.search(r"/\S+\.csv", line)[0] for line in lost] == [CONFIGURATION + name for name in
                                                                  ("app.csv", "remotes.csv", "keys.csv")]
    asked = bench.bc.ask("FMAP")
    bench.wait_for(lambda: asked.acked)
    assert asked.answer == b"\xff\xff\xff\xff"
    assert bench.bc.received["ask"] == 0


def test_no_uart(bench):
    """Without the device the server serves its other sides; the relay stays closed, as the link never came up."""
    bench.on_board(os.unlink, "/dev/ttymxc0")
    bench.start()
    bench.server.wait_log("Serial_port_c: Failed connection to: ")
    bench.server.wait_log("Internal link fail!!!!!!!!")
    assert bench.api.get()["BU_ID"] is not None
    bench.wait_for(lambda: bench.relay.closed)
    assert bench.journal.count(link="gpio", kind="drive", value="0") == 0
    assert bench.server.stop() == 0
