"""packaging/fleet with Prometheus' own judge, and against what an agent really gives."""
import re
import shutil
import subprocess
import sys
from pathlib import Path

import pytest
from agent_support import TOOLS, Agent
from server_double import Server

REPOSITORY = Path(__file__).resolve().parents[2]
FLEET = REPOSITORY / "packaging" / "fleet"
RULES = (FLEET / "tessaro-alerts.yml").read_text(encoding="utf-8")

sys.path.insert(0, str(TOOLS))
from tessaroagent import fields  # noqa: E402
from tessaroagent.logbook import Logbook  # noqa: E402
from tessaroagent.unit import PROBLEMS  # noqa: E402


def promtool(*arguments, **options):
    return subprocess.run(["promtool", *map(str, arguments)], capture_output=True, text=True, timeout=60, check=False,
                          **options)


@pytest.fixture
def metrics(tmp_path):
    server = Server()
    with Agent(server, tmp_path) as agent:
        agent.wait_value("server", "answers")
        yield agent.get("/metrics")[2]
    server.close()


def test_the_configuration_is_one(tmp_path):
    shutil.copytree(FLEET, tmp_path / "fleet")
    (tmp_path / "fleet" / "tessaro-token").write_text("token")
    (tmp_path / "fleet" / "units" / "example.json.sample").rename(tmp_path / "fleet" / "units" / "example.json")
    judged = promtool("check", "config", tmp_path / "fleet" / "prometheus.yml")
    assert judged.returncode == 0 and "WARNING" not in judged.stdout + judged.stderr, judged.stdout + judged.stderr


def test_every_alert_does_what_its_tests_say():
    judged = promtool("test", "rules", FLEET / "tessaro-alerts-test.yml")
    assert judged.returncode == 0, judged.stdout + judged.stderr
    tests = (FLEET / "tessaro-alerts-test.yml").read_text(encoding="utf-8")
    for alert in re.findall(r"alert: (\w+)", RULES):
        assert re.search(rf"alertname: {alert}\n +exp_alerts:", tests), f"no test sees {alert} firing"


def test_the_metrics_are_as_prometheus_wants_them(metrics):
    judged = promtool("check", "metrics", input=metrics)
    assert judged.returncode == 0, judged.stdout + judged.stderr


def test_rules_and_consoles_ask_for_series_that_there_are(metrics):
    consoles = "".join(path.read_text(encoding="utf-8") for path in (FLEET / "consoles").iterdir())
    given = set(re.findall(r"^(tessaro_\w+)", metrics, re.MULTILINE)) | {"tessaro_push_age_seconds"}
    given |= set(re.findall(r"# TYPE (tessaro_\w+)", metrics))
    assert set(re.findall(r"\b(tessaro_[a-z_]+)\b(?=[{\[ (])", RULES + consoles)) <= given


def test_rules_name_events_states_and_problems_that_there_are():
    known = set(Logbook((REPOSITORY / "docs/operations.md").read_text(encoding="utf-8")).events(but=fields.GOOD))
    events = re.search(r'event=~"([^"]+)"', RULES)[1].split("|")
    assert set(events) <= known
    problems = re.search(r'problem=~"([^"]+)"', RULES)[1].split("|")
    assert set(problems) <= set(PROBLEMS)
    states = {value.name for field in fields.FIELDS.values() for value in field.values.values()}
    for named in re.findall(r'state=~?"([^"]+)"', RULES):
        assert set(named.split("|")) <= states


def test_a_unit_stays_far_below_the_limit_of_a_scrape(metrics):
    series = sum(1 for line in metrics.splitlines() if line and not line.startswith("#"))
    assert 100 < series < 500
