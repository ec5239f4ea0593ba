"""tools/tessaro-agent between a server's double and HTTP clients: what it knows, and what it says when it knows nothing."""
import json
import os
import shutil
import socket
import subprocess
import sys
import time

import pytest
from agent_support import AGENT, HOST, TOOLS, Agent, gpio
from server_double import PATIENCE, WallClock, wait_for

sys.path.insert(0, str(TOOLS))
from tessaroagent import figures, sources  # noqa: E402
from tessaroagent.history import History  # noqa: E402
from tessaroagent.logbook import Logbook  # noqa: E402
from tessaroagent.unit import Unit  # noqa: E402


@pytest.fixture
def agent(server, tmp_path):
    with Agent(server, tmp_path) as running:
        running.wait_value("server", "answers")
        yield running


def test_the_status_names_every_member_and_says_how_good_it_is(agent):
    values = agent.json("/api/status")["values"]
    assert values["BU_STATE"] == {"label": "state", "value": "16", "since": values["BU_STATE"]["since"], "name": "DISARMED",
                                  "words": "ready, no unit is armed", "level": "good"}
    assert values["RU_STATE"]["words"] == "no such tag in this installation"
    assert len(values) == 20


def test_a_push_reaches_the_stream_within_200_ms(agent, server):
    """The median of a few, as one may meet a computer that is busy otherwise; what that makes of a question and its answer, it
    makes of a push, too."""
    watcher = agent.watch()
    watcher.wait_text("event: status")
    took, answered = [], []
    for state, words in (("17", "a unit is armed"), ("4", "failed"), ("1", "stopped"), ("3", "blocked"), ("16", "ready")):
        began = time.monotonic()
        agent.get("/icon.svg")
        answered.append(time.monotonic() - began)
        began = time.monotonic()
        server.status["BU_STATE"] = state
        server.push()
        text = watcher.wait_text(f'"new":"{state}"')
        took.append(time.monotonic() - began)
        assert "event: change" in text and f'"words":"{words}' in text
    watcher.close()
    assert sorted(took)[2] < 0.2 + 5 * sorted(answered)[2], (took, answered)


def test_who_comes_back_gets_what_was_missed(agent, server):
    server.status["TSAPs"] = "7"
    server.push()
    agent.wait_value("TSAPs", "7")
    last = next(change["id"] for change in agent.json("/api/history")["changes"]
                if change["key"] == "TSAPs" and change["new"] == "7") - 1
    watcher = agent.watch(**{"Last-Event-ID": str(last)})
    assert f"id: {last + 1}" in watcher.wait_text('"new":"7"')
    watcher.close()


def test_a_port_that_another_program_owns_is_told_and_taken_as_soon_as_it_is_free(server, tmp_path):
    holder = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    holder.bind((HOST, server.answer_port))
    with Agent(server, tmp_path) as agent:
        problem = agent.wait_problem("port")
        assert f"another program owns UDP port {server.answer_port}" in problem["text"]
        assert agent.get("/healthz")[0] == 503
        holder.close()
        agent.wait_value("server", "answers")
        assert "port" not in agent.problems()


def test_what_is_no_json_is_told_until_the_server_makes_sense_again(agent, server):
    server.nonsense = b"\xff\xfe{{{"
    server.push()
    assert "no JSON object" in agent.wait_problem("json")["text"]
    server.send(b"[" * 30000)
    server.send(b'"text"')
    wait_for(lambda: agent.metrics()["tessaro_garbage_datagrams_total"] >= 3)
    assert agent.get("/healthz")[0] == 503
    server.nonsense = None
    server.push()
    wait_for(lambda: "json" not in agent.problems())
    wait_for(lambda: agent.get("/healthz")[0] == 200)


def test_missing_members_are_named_and_the_others_are_shown(agent, server):
    del server.status["BU_STATE"]
    server.status.update(IVL1=["list"], TSAPs="5" * 1000)
    server.push()
    assert agent.wait_problem("members")["text"] == "the status object lacks BU_STATE, IVL1"
    assert agent.value("TSAPs") == "5" * 64
    wait_for(lambda: agent.get("/healthz")[0] == 200, what="what is there is there")


@pytest.mark.parametrize("value", ["--5", "-", "9" * 64, "\u0663", "1e5", "\ud800"])
def test_a_value_that_is_no_number_is_none_in_the_metrics(agent, server, value):
    server.status["TSAPs"] = value
    server.push()
    agent.wait_value("TSAPs", value)
    assert 'tessaro_status{key="TSAPs"}' not in agent.metrics()
    wait_for(lambda: agent.metrics().get('tessaro_status{key="BU_ID"}') == 4660)


def test_what_was_and_is_not_known_any_more_is_said_to_be_stale(server, tmp_path):
    with Agent(server, tmp_path, "--interval", "0.2") as agent:
        agent.write_log("RUN")
        agent.wait_value("link", "RUN")
        stale = lambda: set(agent.json("/api/status")["stale"])
        running = lambda: agent.metrics()['tessaro_state{state="RUN",thing="link"}']
        wait_for(lambda: stale() == set() and running() == 1)
        kept = server.status.pop("ARMED_RU")
        server.push()
        wait_for(lambda: stale() == {"ARMED_RU"})
        server.status["ARMED_RU"] = kept
        server.send(b"{{{")
        server.close()
        agent.wait_value("server", "silent")
        assert {"BU_STATE", "link"} <= stale() and "server" not in stale()
        assert running() == 0, "a server that stands still has no link, whatever its log said last"
        server.reopen()
        wait_for(lambda: stale() == set() and running() == 1)


def test_without_a_log_the_link_is_only_what_it_was(tmp_path):
    told = []
    unit = Unit(Logbook(""), told.append)
    unit.follows_log(True)
    unit.log_line("RUN", 1.0, 1.0)
    assert unit.stale() == []
    unit.follows_log(False)
    assert unit.stale() == ["link"] and "problems" in told[-1], "those who watch hear of it at once"
    unit.set("link", "ended", 2.0)
    assert unit.stale() == [], "there is no process: that needs no log"


def test_a_server_that_ends_is_told_at_once_and_its_values_are_no_metrics_any_more(server, tmp_path):
    with Agent(server, tmp_path, "--interval", "0.2") as agent:
        agent.wait_value("server", "answers")
        wait_for(lambda: agent.metrics().get('tessaro_status{key="BU_STATE"}') == 16)
        server.close()
        agent.wait_value("server", "silent")
        metrics = agent.metrics()
        assert metrics["tessaro_up"] == 0
        assert 'tessaro_status{key="BU_STATE"}' not in metrics
        assert metrics['tessaro_state{state="DISARMED",thing="BU_STATE"}'] == 0
        server.reopen()


def test_the_answers_are_passed_on_to_a_second_port(server, tmp_path):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as second:
        second.bind((HOST, 0))
        second.settimeout(PATIENCE)
        with Agent(server, tmp_path, "--forward", str(second.getsockname()[1])):
            assert json.loads(second.recv(65536)) == server.status


def test_the_history_outlives_the_agent(server, tmp_path):
    agent = Agent(server, tmp_path)
    with agent:
        agent.wait_value("BU_STATE", "16")
        server.status["BU_STATE"] = "17"
        server.push()
        agent.wait_value("BU_STATE", "17")
        last = agent.json("/api/history")["changes"][-1]["id"]
    with (agent.state / "history.jsonl").open("a") as file:
        file.write('{"id": 5, "key":\nnothing of ours\n{"id":"x","key":1,"time":null}\n')
    with agent:
        changes = agent.json("/api/history")["changes"]
        assert any(change.get("old") == "16" and change.get("new") == "17" for change in changes)
        begun = [change for change in changes if change.get("words") == "watching begins"]
        assert len(begun) == 2 and begun[1]["id"] > last
        assert begun[0]["time"] < begun[1]["last"] < begun[1]["time"], "the time without watching is known"


def test_an_agent_that_was_killed_leaves_ids_that_are_not_given_again(server, tmp_path):
    agent = Agent(server, tmp_path).start()
    agent.wait_value("server", "answers")
    wait_for((agent.state / "history.jsonl").exists)
    for number in range(20):
        server.status["TSAPs"] = str(number)
        server.push()
    agent.wait_value("TSAPs", "19")
    last = agent.json("/api/history")["changes"][-1]["id"]
    agent.process.kill()
    agent.process.wait()
    agent.stop()
    with agent:
        agent.wait_value("server", "answers")
        assert all(change["id"] > last for change in agent.json("/api/history?seconds=3600")["changes"]
                   if change.get("words") == "watching begins" and change["last"])


def test_a_history_that_cannot_be_read_is_begun_anew(server, tmp_path):
    agent = Agent(server, tmp_path)
    (agent.state / "history.jsonl").mkdir()
    with agent:
        agent.wait_value("server", "answers")


def test_one_value_that_changes_all_the_time_drives_out_no_other(agent, server):
    server.status["BU_STATE"] = "17"
    server.push()
    agent.wait_value("BU_STATE", "17")
    for number in range(1500):
        server.status["TSAPs"] = str(number % 250)
        server.push()
        if number % 50 == 49:
            agent.wait_value("TSAPs", str(number % 250))
    changes = agent.json("/api/history")["changes"]
    assert [change["new"] for change in changes if change["key"] == "BU_STATE"] == ["16", "17"]
    assert sum(change["key"] == "TSAPs" for change in changes) == 400
    agent.stop()
    assert (agent.state / "history.jsonl").stat().st_size < 200_000


def test_the_relay_is_what_its_two_lines_say(agent):
    assert agent.value("relay") is None
    for driven, monitor, said in ((1, 0, "closed"), (0, 1, "open"), (0, 0, "stays closed"), (1, 1, "stays open")):
        gpio(agent.gpio, driven, monitor)
        agent.wait_value("relay", said)


def test_metrics_tell_states_changes_and_the_age_of_the_newest_object(agent, server):
    server.status["BU_STATE"] = "17"
    server.push()
    agent.wait_value("BU_STATE", "17")
    metrics = wait_for(lambda: (found := agent.metrics())["tessaro_up"] == 1 and found)
    assert metrics['tessaro_status{key="BU_ID"}'] == 4660
    assert metrics['tessaro_state{state="ARMED",thing="BU_STATE"}'] == 1
    assert metrics['tessaro_state{state="DISARMED",thing="BU_STATE"}'] == 0
    assert metrics['tessaro_changes_total{key="BU_STATE"}'] == 1
    assert 0 <= metrics["tessaro_push_age_seconds"] < 10
    assert metrics["tessaro_agent_resident_bytes"] > 1 << 20


def test_a_clock_that_jumps_is_told_and_ages_do_not_care(monkeypatch, tmp_path):
    told = []
    unit = Unit(Logbook(""), told.append)
    wall = time.time
    around = sources.Surroundings(unit, sources.Clock(unit), tmp_path / "none", tmp_path)
    around.look()
    assert "clock" not in unit.problems
    monkeypatch.setattr(sources.time, "time", lambda: wall() + 3600)
    around.look()
    assert unit.problems["clock"]["text"].startswith("the clock jumped by +3600 s")
    assert unit.healthy and unit.clock_jumps == 1
    assert any(change.get("words") == "the clock jumped by +3600 s" for change in told)
    around.look()
    assert unit.clock_jumps == 1, "once"
    tick = time.monotonic
    monkeypatch.setattr(sources.time, "time", lambda: wall() + 3600 + 700)
    monkeypatch.setattr(sources.time, "monotonic", lambda: tick() + 700)
    around.look()
    assert "clock" not in unit.problems, "ten minutes later it is old news"


@pytest.mark.parametrize("jump", [-3600, 3600, 1_700_000_000])
def test_what_was_before_a_jump_of_the_clock_moves_with_it(monkeypatch, jump):
    """Else a value of before a jump backwards would be the newest one of the strip when its time comes again."""
    history = History()

    def tell(change):
        if "jump" in change:
            history.move(change["jump"])
        if "problems" not in change:
            history.add(change)
    unit = Unit(Logbook(""), tell)
    clock, wall = sources.Clock(unit), time.time
    began = clock.now()
    unit.set("BU_STATE", "17", began)
    history.add({"key": "agent", "time": began, "last": began - 5})
    monkeypatch.setattr(sources.time, "time", lambda: wall() + jump)
    unit.set("BU_STATE", "4", clock.now())
    entries = [json.loads(data) for data in history.select(since=wall() + jump - 10)]
    assert [entry["key"] for entry in entries] == ["BU_STATE", "agent", "agent", "BU_STATE"]
    assert all(abs(entry["time"] - (wall() + jump)) < 8 for entry in entries)
    assert abs(entries[1]["time"] - entries[1]["last"] - 5) < 0.001
    assert abs(unit.since["BU_STATE"] - (wall() + jump)) < 8


def test_what_an_earlier_agent_noted_is_not_of_the_time_to_come(tmp_path):
    """The clock was ahead, and was set right while no agent ran."""
    path = tmp_path / "history.jsonl"
    before = History()
    for key, when in (("BU_STATE", 5000.0), ("relay", 5060.0)):
        before.add({"key": key, "time": when, "new": "x"})
    before.save(path, 5100.0)
    after = History()
    assert after.load(path, 2000.0) == 5100.0
    assert [json.loads(data)["time"] for data in after.select()] == [1940.0, 2000.0]


def test_a_clock_that_starts_behind_makes_nothing_new_of_what_was_told_before(server, tmp_path):
    """As on a unit that knows the time only from the network: its clock is behind at each start."""
    clock = WallClock(tmp_path / "clock")
    agent = Agent(server, tmp_path, env=clock.environment)
    program = tmp_path / "tessaroserver" / "tessaroserver"
    program.parent.mkdir()
    shutil.copy("/bin/sleep", program)
    agent.log.write_text(time.strftime("%Y%m%d %H:%M:%S.000 - Internal link fail!!!!!!!!\n", time.localtime(time.time() - 2)))
    with agent:
        agent.write_log("RUN")
        agent.wait_value("link", "RUN")
    text = agent.log.read_text().splitlines()[0] + "\n"
    agent.log.write_text(text)
    clock.move(-3600)
    with subprocess.Popen([program, "600"]) as another_server:
        try:
            with agent:
                wait_for(lambda: agent.metrics()["tessaro_server_running"] == 1)
                wait_for(lambda: agent.json("/healthz")["log"])
                assert agent.metrics()['tessaro_log_events_total{event="internal_link_fail"}'] == 0
                assert agent.value("link") is None, "it was that of the server before"
        finally:
            another_server.kill()


def test_what_was_remembered_moves_with_the_clock():
    unit = Unit(Logbook(""), lambda change: None)
    unit.remember("link", "RUN", 990.0)
    unit.clock_jumped(-500.0, 500.0)
    unit.figures(figures.Process(7, 100.0, 5.0, 1.0, 1, 1, 1), 500.0)
    assert unit.values.get("link") is None, "the process began behind it"


def test_a_past_that_is_cut_begins_with_what_was_then():
    """Else a value that changed in what was left out would look as if it had not."""
    history = History()
    history.add({"key": "BU_STATE", "time": 100.0, "new": "17"})
    for number in range(30):
        history.add({"key": "BU_STATE" if number == 5 else "IVL1", "time": 1000.0 + number, "new": "4"})
    before, entries = history.past(500.0, 10)
    assert [json.loads(data)["time"] for data in entries] == [1020.0 + number for number in range(10)]
    assert {(entry["key"], entry["time"]) for entry in map(json.loads, before)} == {("BU_STATE", 1005.0), ("IVL1", 1019.0)}
    before, entries = history.past(500.0, 100)
    assert len(entries) == 30 and [json.loads(data)["time"] for data in before] == [100.0]


def test_a_status_says_which_changes_are_in_it(agent, server):
    server.status["BU_STATE"] = "4"
    server.push()
    agent.wait_value("BU_STATE", "4")
    status, changes = agent.json("/api/status"), agent.json("/api/history")["changes"]
    assert status["id"] == changes[-1]["id"]


def test_damaged_times_in_the_history_do_no_harm(tmp_path):
    path = tmp_path / "history.jsonl"
    path.write_text('{"version": 1, "written": NaN}\n'
                    '{"id": 1, "key": "relay", "time": Infinity}\n{"id": 2, "key": "relay", "time": NaN}\n'
                    '{"id": 3, "key": "agent", "time": 9000.0, "last": "x"}\n')
    history = History()
    assert history.load(path, 2000.0) is None
    assert [json.loads(data) for data in history.select()] == [{"id": 3, "key": "agent", "time": 2000.0, "last": "x"}]


def test_a_history_that_cannot_be_kept_is_told(server, tmp_path):
    agent = Agent(server, tmp_path)
    (agent.state / "history.jsonl.new").mkdir()
    with agent:
        agent.wait_value("server", "answers")
        assert "history cannot be kept" in wait_for(lambda: agent.problems().get("history"))["text"]
        wait_for(lambda: agent.get("/healthz")[0] == 200)


def test_a_time_between_questions_that_makes_no_sense_is_refused():
    for interval in ("0", "-1", "nan", "soon"):
        result = subprocess.run([sys.executable, str(AGENT), "--interval", interval], capture_output=True, text=True,
                                timeout=PATIENCE)
        assert result.returncode == 2 and "no number of seconds" in result.stderr


def test_two_agents_for_one_address_are_refused(agent):
    second = subprocess.run([sys.executable, str(AGENT), "--listen", f"{HOST}:{agent.port}"], capture_output=True, text=True,
                            timeout=PATIENCE)
    assert second.returncode == 2
    assert "address already in use" in second.stderr.lower()


def test_a_socket_of_the_service_manager_is_taken_over(server, tmp_path):
    listening = socket.create_server((HOST, 0))
    port = listening.getsockname()[1]
    agent = Agent(server, tmp_path, env={"LISTEN_FDS": "1"})
    command = [sys.executable, str(AGENT), "--no-log", "--request-port", str(server.port), "--answer-port",
               str(server.answer_port)]
    process = subprocess.Popen(command, env=agent.environment, pass_fds=[3], stdout=subprocess.PIPE, text=True,
                               preexec_fn=lambda: os.dup2(listening.fileno(), 3))
    listening.close()
    assert f"port {port}" in process.stdout.readline()
    agent.port = port
    agent.wait_value("server", "answers")
    process.terminate()
    assert process.wait(PATIENCE) == 0
    process.stdout.close()
