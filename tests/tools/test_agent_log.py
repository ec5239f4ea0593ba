"""The agent and the server's log: plain words, counts, and nothing that should stay in the log."""
import os
import stat
import sys
import time
from pathlib import Path

import pytest
from agent_support import TOOLS, Agent
from server_double import wait_for

sys.path.insert(0, str(TOOLS))
from tessaroagent import figures  # noqa: E402
from tessaroagent.logbook import Logbook  # noqa: E402
from tessaroagent.unit import Unit  # noqa: E402

HANDBOOK = (Path(__file__).resolve().parents[2] / "docs" / "operations.md").read_text(encoding="utf-8")
JOURNALCTL = """#!/bin/sh
[ "$*" = "--unit tessaroserver --output cat --merge --lines 2000 --follow" ] || exit 9
printf '%s\\n' "20261121 08:59:00.000 - RelayOpen" "20261121 09:00:00.000 - RUN"
until [ -e "$0.go" ]; do sleep 0.05; done
echo "20261121 09:00:01.000 - MSState::OPEN"
exec sleep 600
"""
REFUSED = """#!/bin/sh
echo "No journal files were opened due to insufficient permissions." >&2
exit 1
"""


@pytest.fixture(scope="module")
def logbook():
    return Logbook(HANDBOOK)


@pytest.fixture
def agent(server, tmp_path):
    with Agent(server, tmp_path) as running:
        yield running


@pytest.mark.parametrize("line, event, words, level", [
    ("Internal link fail!!!!!!!!", "internal_link_fail", "three transmissions without an answer", "warn"),
    ('GLINK_MSG_ID_INITACK RU 2000 Error 1 "This RU is not paired to this BU."', "glink_msg_id_initack_ru_error_1",
     "unit 2000 is not paired here", "warn"),
    ('EGLink: waiting for multicast on "eth0"', "eglink_waiting_for_multicast_on_eth0",
     "eth0 is missing, down or without an address; said once an outage", "warn"),
    ("Relay closed", "relay_closed", "it was still closed: it has been opened now and the link failure raised", "bad"),
    ("RUN", "run", "the internal link came up", "good"),
    ("Makinq new tag: X", "makinq_new_tag", "a row was added to a file", "note"),
    ('Fatal error in  "src/rgplink/rgpcom" : line 298 .', "fatal_error_in_line",
     "the server has ended itself: armed_ru or bu_state is not a number", "bad"),
    ('SystemEventService::sendData "RESET"', "systemeventservice_senddata_reset", "no answer to RESET", "warn"),
])
def test_a_line_is_told_in_the_words_of_the_handbook(logbook, line, event, words, level):
    entry = logbook.read(line)
    assert (entry.event, entry.words, entry.level) == (event, words, level)


@pytest.mark.parametrize("line", ["RUNNING", 'SystemEventService::newEvent "RUN"', "EGLink::send() 32 bytes", "", "…"])
def test_other_lines_need_no_words(logbook, line):
    assert logbook.read(line) is None


def test_every_row_of_the_handbook_that_asks_for_something_says_what(logbook):
    assert len(logbook.entries) > 60
    assert all(entry.todo for entry in logbook.entries if entry.level == "warn")
    assert all(len(entry.event) > 2 for entry in logbook.entries)


def test_an_event_is_told_counted_and_comes_with_what_to_do(agent):
    agent.write_log("NO_BI_LINK", "STARTING", "RUN", "Internal link fail!!!!!!!!", "NO_BI_LINK", "Internal link fail!!!!!!!!",
                    "NO_BI_LINK", "Link BUSY, ack queued.")
    event = wait_for(lambda: [event for event in agent.events_of_log() if event["event"] == "internal_link_fail"])[0]
    assert event["todo"] == "base controller off, cable, or overload; the relay has opened"
    assert event["section"] == "The internal link"
    agent.wait_value("link", "NO_BI_LINK")
    metrics = agent.metrics()
    assert metrics["tessaro_link_losses_total"] == 1, "one loss, however often it then fails to come back"
    assert metrics['tessaro_log_events_total{event="internal_link_fail"}'] == 2
    assert not any("queued" in event["line"] for event in agent.events_of_log())


def test_refusals_are_counted_by_their_code(agent):
    agent.write_log('GLINK_MSG_ID_INITACK RU 2000 Error 1 "no"', 'GLINK_MSG_ID_INITACK RU 2001 Error 1 "no"',
                    'GLINK_MSG_ID_INITACK RU 2000 Error 4 "no"')
    wait_for(lambda: agent.metrics()['tessaro_refusals_total{code="4"}'] == 1)
    assert agent.metrics()['tessaro_refusals_total{code="1"}'] == 2


def test_a_line_that_comes_again_and_again_is_told_once_and_counted(agent):
    agent.write_log(*['SystemEventService::sendData "RESET"'] * 500)
    wait_for(lambda: agent.metrics()['tessaro_log_events_total{event="systemeventservice_senddata_reset"}'] == 500)
    assert len(agent.events_of_log()) == 1


def test_the_number_of_folded_lines_is_told_when_a_minute_is_over(logbook):
    told = []
    unit = Unit(logbook, told.append)
    for tick in range(4):
        unit.log_line("Internal link fail!!!!!!!!", 1000.0 + tick, float(tick))
    unit.check(1059.0, 59.0)
    assert len(told) == 1
    unit.check(1061.0, 61.0)
    assert told[1]["more"] == 3 and told[1]["event"] == "internal_link_fail"


def test_keys_never_leave_the_log(agent):
    agent.write_log("PairServer generated new keys: 10 (ruid) 1111111111 (pky1)", "RelayOpen")
    wait_for(lambda: agent.events_of_log())
    everything = "".join(agent.get(path)[2] for path in ("/api/status", "/api/history", "/metrics", "/healthz"))
    assert "1111111111" not in everything


def test_units_on_the_fallback_come_and_go(agent):
    agent.write_log("RGPCom::addFallbackLink 1001", "RGPCom::addFallbackLink 1002", "RGPCom::removeFallbackLink 1001")
    agent.wait_value("fallback", "1002")
    agent.write_log("Starting TZ-400 Tessaro Server [ build of today ]")
    agent.wait_value("fallback", "")


def test_a_log_that_is_rotated_is_followed(agent):
    agent.write_log("RelayOpen")
    wait_for(lambda: agent.events_of_log())
    agent.log.rename(agent.log.with_suffix(".1"))
    agent.write_log("MSState::OPEN")
    wait_for(lambda: len(agent.events_of_log()) == 2)


def test_what_happened_while_the_agent_was_away_is_told_once(server, tmp_path):
    agent = Agent(server, tmp_path)
    with agent:
        agent.write_log("RelayOpen")
        wait_for(lambda: agent.events_of_log())
    stamp = time.strftime("%Y%m%d %H:%M:%S", time.localtime(time.time() + 5))
    with agent.log.open("a") as file:
        file.write(f"{stamp}.000 - MSState::OPEN\n")
    with agent:
        wait_for(lambda: [event for event in agent.events_of_log() if event["event"] == "msstate_open"])
        assert [event["event"] for event in agent.events_of_log()] == ["relayopen", "msstate_open"]


def test_the_state_of_the_link_outlives_an_agent_as_long_as_the_server_is_the_same():
    process = figures.Process(7, 100.0, 50.0, 1.0, 1, 1, 1)
    for known_at, wanted in ((990.0, "RUN"), (940.0, None)):  # the process began at 950
        unit = Unit(Logbook(""), lambda change: None)
        unit.remember("link", "RUN", known_at)
        unit.figures(process, 1000.0)
        assert unit.values.get("link") == wanted


def test_a_very_long_line_and_bytes_that_are_no_text_do_no_harm(agent):
    agent.write_log("nothing")
    with agent.log.open("ab") as file:
        file.write(b"\xff\x00" * 200_000 + b"\nRelayOpen\n")
    wait_for(lambda: agent.events_of_log())
    assert agent.resident() < 60 << 20


def test_a_missing_file_is_told_and_found_when_it_comes(server, tmp_path):
    agent = Agent(server, tmp_path)
    agent.log.unlink()
    with agent:
        assert "the log cannot be read: No such file" in agent.wait_problem("log")["text"]
        agent.write_log("RelayOpen", "RUN")
        agent.wait_value("link", "RUN")
        assert "log" not in agent.problems()


def with_journalctl(folder, text):
    programs = folder / "programs"
    programs.mkdir()
    program = programs / "journalctl"
    program.write_text(text)
    program.chmod(program.stat().st_mode | stat.S_IXUSR)
    return {"PATH": f"{programs}:{os.environ['PATH']}"}


def test_the_journal_is_followed_from_where_its_past_ends(server, tmp_path):
    with Agent(server, tmp_path, env=with_journalctl(tmp_path, JOURNALCTL), log=False) as agent:
        wait_for(lambda: agent.json("/healthz")["log"])
        assert agent.value("link") == "RUN" and agent.events_of_log() == []
        (tmp_path / "programs" / "journalctl.go").touch()
        wait_for(lambda: agent.events_of_log())
        assert [event["event"] for event in agent.events_of_log()] == ["msstate_open"]


def test_a_journal_that_may_not_be_read_is_told(server, tmp_path):
    with Agent(server, tmp_path, env=with_journalctl(tmp_path, REFUSED), log=False) as agent:
        problem = agent.wait_problem("log")
        assert "insufficient permissions" in problem["text"] and "systemd-journal" in problem["todo"]
        agent.wait_value("server", "answers")
        wait_for(lambda: agent.get("/healthz")[0] == 200, what="states are known without the log")


def test_without_a_handbook_nothing_is_worded_and_nothing_breaks():
    unit = Unit(Logbook(""), lambda change: None)
    unit.log_line("RUN", 0.0, 0.0)
    unit.log_line("NO_BI_LINK", 0.0, 0.0)
    assert unit.link_losses == 1
