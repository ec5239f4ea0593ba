"""The bench's page and what stands behind its buttons, without an installation: nothing claims what was not done."""
import socket
import sys
from pathlib import Path
from types import SimpleNamespace

import pytest
from browser import complaints, resize
from selenium.webdriver.common.by import By
from server_double import wait_for

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "bench"))

from tessarobench.faults import Faults  # noqa: E402
from tessarobench.feed import Feed  # noqa: E402
from tessarobench.webbench import WebBench  # noqa: E402
from tessarobench.webfront import Front  # noqa: E402

HOST = "127.0.0.1"


class Controller:
    """A base controller that refuses, or does what it is told."""

    def __init__(self):
        self.refuses = ""

    def mute(self, _on):
        assert not self.refuses, self.refuses


def installation():
    server = SimpleNamespace(pause=lambda: None, resume=lambda: None, kill=lambda: None, start=lambda: None)
    return SimpleNamespace(bc=Controller(), server=server)


@pytest.fixture
def web_bench():
    bench = WebBench(Path("none"), socket.create_server((HOST, 0)), "")
    bench.faults = Faults(installation())
    return bench


def told(bench):
    return [item["words"] for item in bench.feed.since(0, 0)]


def test_a_fault_that_cannot_be_is_neither_on_nor_over(web_bench):
    web_bench.faults._bench.bc.refuses = "it has ended\nlong ago"
    assert web_bench.press("mute") == "it has ended"
    assert web_bench.faults.on == set() and told(web_bench) == ["mute base controller: it has ended"]


def test_a_fault_that_cannot_be_ended_stays_on(web_bench):
    assert web_bench.press("mute") == ""
    web_bench.faults._bench.bc.refuses = "no"
    assert web_bench.press("mute") == "no" and web_bench.faults.on == {"mute"}
    web_bench.faults._bench.bc.refuses = ""
    assert web_bench.press("mute") == "" and web_bench.faults.on == set()
    assert told(web_bench) == ["mute base controller", "mute base controller (over): no", "mute base controller (over)"]


def test_a_server_that_is_started_again_does_not_stand_still_any_more(web_bench):
    assert web_bench.press("pause") == "" and web_bench.faults.on == {"pause"}
    assert web_bench.press("restart") == "" and web_bench.faults.on == set()


def test_what_is_playing_is_not_disturbed(web_bench):
    web_bench.playing = "images"
    assert web_bench.press("mute") != "" and web_bench.faults.on == set()
    web_bench.playing, web_bench.faults = None, None
    assert web_bench.press("mute") == "no installation stands at the moment"


# --- the page ------------------------------------------------------------------------------------------------------------

class Cut(Feed):
    """A feed whose readers can be sent away."""

    away = False

    def since(self, number, timeout):
        if self.away:
            raise ConnectionResetError
        return super().since(number, 0.05)


class Page:
    def __init__(self, driver, bench):
        self.driver, self.bench = driver, bench
        self.listening = socket.create_server((HOST, 0))
        self.address = self.listening.getsockname()
        self.front = Front(bench, self.listening)
        driver.get(f"http://{HOST}:{self.address[1]}/")
        wait_for(lambda: driver.find_elements(By.CSS_SELECTOR, "[data-fault=mute]:enabled"))

    def text(self, name):
        return self.driver.find_element(By.ID, name).text

    def all(self, selector):
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def press(self, name):
        self.driver.find_element(By.CSS_SELECTOR, f"[data-fault={name}]").click()

    def leave(self):
        """As a bench that ends."""
        self.bench.feed.away = True
        self.front.close()

    def come_back(self):
        self.bench.feed.away = False
        self.front = Front(self.bench, socket.create_server(self.address))


@pytest.fixture
def page(driver, web_bench):
    resize(driver, (1500, 1000))
    web_bench.feed = Cut()
    web_bench.feed.tell("say", "the only line")
    running = Page(driver, web_bench)
    yield running
    driver.get("about:blank")
    web_bench.feed.away = True
    running.front.close()
    complaints(driver)


def test_a_button_says_what_was_refused_until_something_is_done(page, web_bench):
    web_bench.faults._bench.bc.refuses = "it has ended"
    page.press("mute")
    wait_for(lambda: page.text("refused") == "Not done: mute base controller. it has ended")
    web_bench.feed.tell("say", "more")
    wait_for(lambda: "more" in page.text("packets"))
    assert "it has ended" in page.text("refused")
    assert page.all("[data-fault=mute]")[0].get_attribute("aria-pressed") == "false"
    page.press("pause")
    wait_for(lambda: page.text("refused") == "")


def test_without_a_bench_no_button_claims_anything(page, web_bench):
    page.press("mute")
    wait_for(lambda: page.all("[data-fault=mute][aria-pressed=true]"))
    page.leave()
    wait_for(lambda: page.driver.find_element(By.ID, "gone").is_displayed())
    assert page.text("said") == "The bench has ended"
    assert page.all("main button:enabled") == [] and page.all("[aria-pressed=true]") == []
    page.come_back()
    wait_for(lambda: page.all("[data-fault=mute][aria-pressed=true]:enabled"))
    assert not page.driver.find_element(By.ID, "gone").is_displayed()
    assert page.text("packets").count("the only line") == 1, "it is told once more, and not shown twice"


def test_what_comes_from_outside_is_text_and_never_markup(page, web_bench):
    web_bench.feed.tell("say", "<img src=x onerror=alert(1)><b id=injected>x</b>")
    wait_for(lambda: "<b id=injected>" in page.text("packets"))
    assert page.all("#injected, main img") == []
