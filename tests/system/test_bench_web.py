"""The bench in the browser, without a browser: what its page and the unit's agent are told, and what its buttons do."""

import json
import re
import subprocess
import time
import urllib.error
import urllib.request
from pathlib import Path

import pytest

RUN = Path(__file__).resolve().parents[2] / "bench" / "run"
PCAPNG = bytes.fromhex("0a0d0d0a")
direct = urllib.request.build_opener(urllib.request.ProxyHandler({}))
pytestmark = pytest.mark.real_time("the bench in the browser is for people")


class Web:
    def __init__(self, server_path):
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)  # the tests' own sandbox has it down
        self.process = subprocess.Popen([RUN, "--web", "--ports", "0", "0", "--server", server_path], stdout=subprocess.PIPE,
                                        text=True)
        self.url = re.search(r"http://[\d.:]+", self.process.stdout.readline())[0]
        self.wait(lambda: self.state()["outcome"], 120)
        self.wait(self.follows_log)  # what was said before is past

    def get(self, path, url=None, **headers):
        with direct.open(urllib.request.Request((url or self.url) + path, headers=headers), timeout=60) as answer:
            return answer.read()

    def post(self, path, **headers):
        request = urllib.request.Request(self.url + path, method="POST", headers=headers or {"X-Bench": "1"})
        with direct.open(request, timeout=60) as answer:
            return json.load(answer)

    def state(self):
        return json.loads(self.get("/bench/state"))

    def on(self):
        return [fault["name"] for fault in self.state()["faults"] if fault["on"]]

    def unit(self, path="/api/status"):
        return json.loads(self.get(path, f"http://127.0.0.1:{self.state()['agent']}"))

    def value(self, key):
        try:
            return self.unit()["values"][key]["value"]
        except OSError:
            return None  # between two installations nobody answers

    def follows_log(self):
        try:
            return self.unit("/healthz")["log"]
        except OSError:
            return False

    def wait(self, condition, seconds=60.0):
        until = time.monotonic() + seconds
        while not condition():
            assert time.monotonic() < until and self.process.poll() is None, json.dumps(self.state())[:2000]
            time.sleep(0.05)

    def close(self):
        self.process.terminate()
        status = self.process.wait(60)
        self.process.stdout.close()
        return status


@pytest.fixture(scope="module")
def web(server_path):
    running = Web(server_path)
    yield running
    assert running.close() == 0


def test_it_begins_in_normal_operation(web):
    assert web.state()["outcome"] == {"scene": "", "ok": True, "text": "everything is in normal operation"}
    web.wait(lambda: (web.value("BU_STATE"), web.value("link"), web.value("relay"), web.value("units"))
             == ("17", "RUN", "closed", "2"))
    web.wait(lambda: web.value("EG_LINK_STATUS") == "1")
    assert web.unit("/healthz")["problems"] == []
    assert web.unit()["process"]["threads"] > 5


def test_a_fault_is_on_the_units_page_and_so_is_its_end(web):
    web.post("/bench/fault/mute")
    assert web.on() == ["mute"]
    web.wait(lambda: (web.value("link"), web.value("relay")) == ("NO_BI_LINK", "open"))
    web.post("/bench/fault/mute")
    web.wait(lambda: (web.value("link"), web.value("relay")) == ("RUN", "closed"))
    assert web.on() == []


def test_a_welded_relay_is_told_for_what_it_is(web):
    web.post("/bench/fault/weld")
    web.post("/bench/fault/mute")
    web.wait(lambda: web.value("relay") == "stays closed")
    web.post("/bench/fault/mute")
    web.post("/bench/fault/weld")
    web.wait(lambda: web.value("relay") == "closed")


def test_machine_stop_opens_the_relay_as_long_as_it_is_pressed(web):
    web.post("/bench/fault/stop")
    web.wait(lambda: (web.value("relay"), web.value("link")) == ("stays open", "RUN"))
    assert web.on() == ["stop"]
    web.post("/bench/fault/stop")
    web.wait(lambda: web.value("relay") == "closed")


def test_a_refused_unit_is_told_in_words(web):
    web.post("/bench/fault/stranger")
    web.wait(lambda: any(change["key"] == "log" and change["words"] == "unit 2000 is not paired here"
                         for change in web.unit("/api/history")["changes"]))


def test_packets_are_decoded_as_they_cross(web):
    """Sooner or later: the first of what is kept may be of a scene that has just ended."""
    seen, until = set(), time.monotonic() + 60
    with direct.open(web.url + "/bench/packets", timeout=60) as stream:
        while not {"status", "frame"} <= seen:
            assert time.monotonic() < until, f"seen: {seen}"
            items = json.loads(stream.readline().partition(b": ")[2] or b'{"items": []}')["items"]
            seen |= {"status" for item in items if item["words"].startswith("status: identity")}
            seen |= {"frame" for item in items if item["link"] == "uart" and item["bytes"].startswith("82 ")}


def test_the_capture_can_be_had_at_any_time(web):
    first = web.get("/bench/capture")
    assert first.startswith(PCAPNG)
    web.wait(lambda: len(web.get("/bench/capture")) > len(first))


def test_a_scene_begins_on_a_fresh_installation_with_the_same_history(web):
    pid = web.unit()["process"]["pid"]
    web.post("/bench/scene/images")
    web.wait(lambda: web.state()["outcome"]["scene"] == "images", 120)
    assert web.state()["outcome"]["ok"], web.state()["outcome"]["text"]
    web.wait(lambda: web.value("BU_STATE") == "16")
    web.wait(lambda: (web.unit()["process"] or {}).get("pid", pid) != pid)  # it is looked for now and then
    states = [change["new"] for change in web.unit("/api/history")["changes"] if change["key"] == "BU_STATE"]
    assert "17" in states[:3] and states[-1] == "16"


def test_a_stall_comes_over_an_installation_in_normal_operation(web):
    assert "stall:disk-full" in [stall["name"] for stall in web.state()["stalls"]]
    web.post("/bench/scene/stall:disk-full")
    web.wait(lambda: web.state()["outcome"]["scene"] == "stall:disk-full", 120)
    outcome = web.state()["outcome"]
    assert outcome["text"] == "in normal operation, but for this: disk: full" or "cannot do that" in outcome["text"]
    if outcome["ok"]:
        web.wait(lambda: (web.value("relay"), web.value("BU_STATE")) == ("closed", "17"))


def test_pages_of_others_can_press_nothing(web):
    for path, headers, status in (("/bench/fault/mute", {"Content-Type": "text/plain"}, 403), ("/bench/fault/mute", {
            "X-Bench": "1", "Host": "evil.example"}, 403), ("/bench/fault/nothing", {"X-Bench": "1"}, 404),
            ("/bench", {"X-Bench": "1"}, 404)):
        with pytest.raises(urllib.error.HTTPError) as refused:
            web.post(path, **headers)
        assert refused.value.code == status
    assert web.on() == []


def test_a_port_that_is_taken_is_told(web, server_path):
    port = web.url.rpartition(":")[2]
    done = subprocess.run([RUN, "--web", "--ports", port, "0", "--server", server_path], capture_output=True, text=True,
                          timeout=120, check=False)
    assert done.returncode == 2 and "--ports takes others" in done.stderr
