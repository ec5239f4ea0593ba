"""The agent's unit as the package has it, under a real systemd: off, and once it is started a stranger that sees everything."""

import json
import os
import signal
import time

from test_service_manager import closed, managed  # noqa: F401 - fixtures: the server's unit is up, the link in RUN

AGENT = "tessaro-agent.service"
STATE = "/var/lib/private/tessaro-agent/history.jsonl"
ASK = """import sys, urllib.request, urllib.error
try:
    print(urllib.request.urlopen("http://127.0.0.1:6252" + sys.argv[1], timeout=5).read().decode())
except urllib.error.HTTPError as error:
    print(error.read().decode())
except OSError:
    print("{}")"""


class Agent:
    def __init__(self, manager):
        self.manager = manager

    def ask(self, path):
        return json.loads(self.manager.run("/usr/bin/python3", "-c", ASK, path))

    def wait(self, path, condition, seconds=20):
        """Not a condition of the bench's: asking takes longer than its peers may wait."""
        until = time.monotonic() + seconds
        while not condition(answer := self.ask(path)):
            assert time.monotonic() < until, f"{path}: {answer}\n" + self.manager.run(
                "journalctl", "--no-pager", "--unit", AGENT, ok=False)
        return answer

    def setting(self, name):
        return self.manager.control("show", "--value", "--property", name, AGENT).strip()


def test_the_agent_is_off_until_it_is_started(closed):  # noqa: F811
    assert closed.manager.control("is-enabled", AGENT, ok=False).strip() == "disabled"
    assert Agent(closed.manager).setting("ActiveState") == "inactive"


def test_it_sees_server_log_relay_and_process_without_being_root(closed):  # noqa: F811
    agent = Agent(closed.manager)
    closed.manager.control("start", AGENT)
    try:
        health = agent.wait("/healthz", lambda answer: answer.get("ok") and answer.get("log"))
        assert health["server"] == "answers" and health["problems"] == []
        status = agent.wait("/api/status", lambda answer: answer["process"] and answer["values"]["relay"]["value"]
                            and answer["values"]["link"]["value"])
        values = {key: value["value"] for key, value in status["values"].items()}
        assert (values["relay"], values["link"], values["BU_ID"]) == ("closed", "RUN", "400")
        assert closed.manager.run("stat", "--format=%u", f"/proc/{agent.setting('MainPID')}").strip() != "0"
        os.kill(closed.manager.wait_main_process(), signal.SIGKILL)
        agent.wait("/api/status", lambda answer: answer["restarts"] == 1)
        agent.wait("/api/history", lambda past: [change["new"] for change in past["changes"] if change["key"] == "link"][-3:]
                   == ["NO_BI_LINK", "STARTING", "RUN"] and any(
                       change["key"] == "log" and "server_build" in change["event"] for change in past["changes"]))
    finally:
        closed.manager.control("stop", AGENT)
    assert '"key":"server"' in closed.manager.run("cat", STATE)
