"""`make run WEB=1` as a new colleague meets it: the unit's page inside the bench's, and buttons that break things."""
import re
import subprocess
from pathlib import Path

import pytest
from browser import complaints, resize, weak_contrasts
from selenium.webdriver.common.by import By
from server_double import wait_for

RUN = Path(__file__).resolve().parents[2] / "bench" / "run"


@pytest.fixture
def bench(driver, server_path):
    process = subprocess.Popen([RUN, "--web", "--ports", "0", "0", "--server", server_path], stdout=subprocess.PIPE, text=True)
    url = re.search(r"http://[\d.:]+", process.stdout.readline())[0]
    complaints(driver)
    resize(driver, (1500, 1000))
    driver.get(url)
    wait_for(lambda: "normal operation" in driver.find_element(By.ID, "said").text, 30)
    yield driver
    driver.switch_to.default_content()
    driver.get("about:blank")
    process.terminate()
    assert process.wait(20) == 0
    process.stdout.close()


def in_unit(driver, action):
    driver.switch_to.frame("unit")
    try:
        return action()
    finally:
        driver.switch_to.default_content()


def test_a_click_breaks_something_and_the_unit_shows_it(bench):
    summary = lambda: in_unit(bench, lambda: bench.find_element(By.ID, "summary").text)
    wait_for(lambda: summary() == "a unit is armed; machine stop closed: the machine may run")
    mute = bench.find_element(By.CSS_SELECTOR, "[data-fault=mute]")
    mute.click()
    wait_for(lambda: "open: the machine is stopped" in summary())
    wait_for(lambda: mute.get_attribute("aria-pressed") == "true")
    said = bench.find_element(By.ID, "said")
    wait_for(lambda: said.text == "✕ broken at a click: mute base controller")
    events = in_unit(bench, lambda: bench.find_element(By.ID, "events").text)
    assert "three transmissions without an answer" in events
    mute.click()
    wait_for(lambda: "closed: the machine may run" in summary())
    wait_for(lambda: said.text == "✓ everything is in normal operation")
    packets = bench.find_element(By.ID, "packets").text
    assert "status: identity 400" in packets and "from the base unit" in packets
    assert complaints(bench) == []
    assert weak_contrasts(bench) == []


def test_a_scene_is_chosen_played_and_its_outcome_told(bench):
    bench.find_element(By.CSS_SELECTOR, "#scene option[value=images]").click()
    bench.find_element(By.ID, "begin").click()
    said = bench.find_element(By.ID, "said")
    wait_for(lambda: said.text == "✓ everything came out as told", 40)
    wait_for(lambda: in_unit(bench, lambda: bench.find_element(By.ID, "summary").text).startswith("ready, no unit is armed"))


def test_a_stall_is_begun_at_a_click(bench):
    bench.find_element(By.CSS_SELECTOR, "details summary").click()
    bench.find_element(By.CSS_SELECTOR, "[data-stall='stall:log-full']").click()
    said = bench.find_element(By.ID, "said")
    wait_for(lambda: said.text == "✓ in normal operation, but for this: log: nobody reads, the pipe is full", 40)


def test_controls_come_to_a_narrow_screen_too(bench):
    resize(bench, (390, 844))
    bench.find_element(By.CSS_SELECTOR, "details summary").click()
    assert wait_for(lambda: bench.execute_script("return document.documentElement.scrollWidth <= innerWidth"))
    assert all(each.accessible_name for each in bench.find_elements(By.CSS_SELECTOR, "button, select, input, a"))
