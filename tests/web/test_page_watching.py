"""The unit's page and an agent that says what the test wants, when it wants: nothing stale may look alive."""
import time

import pytest
from agent_double import NOTHING, AgentDouble
from browser import NARROW, WIDE, complaints, resize
from selenium.webdriver.common.by import By
from server_double import wait_for

STRIP = """return Array.from(document.querySelectorAll('#strip .segment title'), (each) => each.textContent.split(',')[0])"""
DAY = 86400


class Page:
    def __init__(self, driver, agent):
        self.driver, self.agent = driver, agent

    def open(self):
        self.driver.get("about:blank")  # a page that was open still asks
        complaints(self.driver)
        resize(self.driver, WIDE)
        self.driver.get(f"http://127.0.0.1:{self.agent.port}/")
        return self

    def live(self):
        self.wait_text("connection-words", "live")
        wait_for(lambda: "/api/history" in self.agent.asked)
        return self

    def text(self, name):
        return self.driver.execute_script("return document.getElementById(arguments[0]).textContent", name)

    def wait_text(self, name, wanted):
        wait_for(lambda: wanted in self.text(name), what=f"{wanted!r} in {name}")

    def run(self, script, *arguments):
        return self.driver.execute_script(script, *arguments)

    def lane(self, *words):
        """The pieces of the strip that are one of these words, in their order."""
        return [each for each in self.run(STRIP) if each in words]


@pytest.fixture
def agent():
    double = AgentDouble(BU_STATE="17", ARMED_RU="1001")
    yield double
    double.close()


@pytest.fixture
def page(driver, agent):
    yield Page(driver, agent)
    driver.get("about:blank")


# --- the stream and the history ------------------------------------------------------------------------------------------

def test_a_change_that_the_history_told_first_is_taken_all_the_same(page, agent):
    agent.history_may_go.clear()
    page.open().wait_text("connection-words", "live")
    change = agent.change("BU_STATE", "4")
    agent.past["changes"].append(change)
    agent.history_may_go.set()
    page.wait_text("changes", "failed")
    agent.say("change", change, change["id"])
    page.wait_text("summary", "failed;")


def test_what_was_missed_is_told_as_what_was(page, agent):
    """Who comes back gets what is, and then what was between: on a slow network the old must not look like the present."""
    page.open().live()
    missed = agent.change("BU_STATE", "4")
    agent.change("BU_STATE", "16")
    agent.say("status", agent.snapshot())
    page.wait_text("summary", "ready, no unit is armed")
    agent.say("change", missed, missed["id"])
    page.wait_text("changes", "failed")
    assert page.text("summary").startswith("ready, no unit is armed")


def test_a_history_of_before_a_jump_of_the_clock_is_not_mixed_with_that_of_after(page, agent):
    agent.past["changes"] = [agent.change("BU_STATE", "4", time.time() - 3000)]
    page.open().live()
    page.wait_text("changes", "failed")
    page.run("document.getElementById('span').value = '60'; document.getElementById('span').onchange()")
    agent.past["changes"] = [{**agent.past["changes"][0], "time": time.time() - 30}]
    agent.cut()
    nothing = "not watched"
    wait_for(lambda: page.run(STRIP) == [nothing] * 4 + ["FAILED"] + [nothing] * 2, what="the piece of 30 s ago")


def test_a_history_that_did_not_come_is_asked_for_again(page, agent):
    agent.history_status = 500
    agent.past["changes"] = [agent.change("BU_STATE", "4")]
    page.open().live()
    assert page.text("no-events") == "Not known now."
    agent.history_status = 200
    page.wait_text("changes", "failed")
    page.wait_text("no-events", "Nothing in the last hour that needs words.")


def test_one_value_that_changes_all_the_time_drives_out_no_other(page, agent):
    agent.past["before"] = [agent.change("BU_STATE", "17", time.time() - 4000)]
    page.open().live()
    page.wait_text("summary", "armed")
    changes = [agent.change("BU_STATE", "4")] + [agent.change("IVL1", str(number)) for number in range(3500)]
    agent.say_changes(*changes)
    page.wait_text("values", "3499")
    wait_for(lambda: page.lane("ARMED", "FAILED") == ["ARMED", "FAILED"], what="both states in the strip")


# --- the loss of the agent -----------------------------------------------------------------------------------------------

def test_after_a_sleep_of_the_computer_nothing_looks_alive(page, agent):
    """The clock of a page may stand still meanwhile, and the agent's silence is only begun to be counted."""
    page.open().live()
    page.run("Date.now = () => new Date(2026, 1, 3, 8, 0, 5).getTime()")
    agent.more["age"] = 7.7
    page.wait_text("figures", "7.7 s old")
    agent.beats = False
    page.run("""const stands = performance.now();
                performance.now = () => stands; Date.now = () => new Date(2026, 1, 3, 9, 30, 0).getTime()""")
    page.wait_text("lost", "The agent is lost since 08:00:05.")
    assert page.run("return document.body.classList.contains('stale')")


def test_a_stream_that_never_begins_is_asked_for_again(page, agent):
    agent.deaf_streams = 1
    page.open()
    wait_for(lambda: "/api/events" in agent.asked)
    page.wait_text("connection-words", "live")


def test_a_page_in_the_background_saves_up_no_work(page, agent):
    page.open().live()
    page.run("""window.frames_waiting = new Map(); let number = 0;
                window.requestAnimationFrame = (work) => { frames_waiting.set(++number, work); return number; };
                window.cancelAnimationFrame = (gone) => frames_waiting.delete(gone);""")
    for state in ("4", "1", "3"):
        change = agent.change("BU_STATE", state)
        agent.say("change", change, change["id"])
        wait_for(lambda: page.text("summary").startswith(change["words"]))
    assert page.run("return frames_waiting.size") <= 1


# --- words ---------------------------------------------------------------------------------------------------------------

def test_what_the_log_says_is_not_nothing_where_nobody_follows_it(page, agent):
    agent.more["log"] = False
    page.open().live()
    page.wait_text("no-events", "Nobody follows the log")
    agent.more["log"] = True
    page.wait_text("no-events", "Nothing in the last hour that needs words.")
    agent.close()
    page.wait_text("lost", "The agent is lost")
    assert page.text("no-events") == "Not known now."


def test_a_time_of_another_day_comes_with_its_day(page, agent):
    agent.unit.since["BU_ID"] = time.time() - 3 * DAY
    page.open().live()
    since = "return document.querySelector('#values [data-key=%s] td:last-child').textContent"
    wait_for(lambda: page.run(since % "BU_ID"))
    day = page.run("return new Date(Date.now() - 3 * 86400000).toLocaleDateString()")
    assert page.run(since % "BU_ID").startswith(day + " ")
    assert "/" not in page.run(since % "BU_STATE")


def test_the_mark_in_the_title_is_that_of_the_unit(page, agent):
    page.open().live()
    wait_for(lambda: page.driver.title == "✓ Base unit 400: a unit is armed")
    change = agent.change("BU_STATE", "4")
    agent.say("change", change, change["id"])
    wait_for(lambda: page.driver.title == "✕ Base unit 400: failed", what="the mark of what has failed")


def test_a_state_that_is_only_the_last_known_is_not_named_as_the_present_one(page, agent):
    agent.more["stale"] = ["BU_STATE"]
    page.open().live()
    page.wait_text("drawing", "last known: a")
    assert "ARMED" not in page.run("return document.getElementById('node-unit').textContent")


OUTSIDE = """return Array.from(document.querySelectorAll('#drawing .node')).flatMap((node) => {
    const box = node.querySelector('rect').getBBox();
    return Array.from(node.querySelectorAll('text')).filter((text) => {
        const own = text.getBBox();
        return own.x < box.x || own.x + own.width > box.x + box.width || own.y + own.height > box.y + box.height;
    }).map((text) => text.textContent);
})"""


@pytest.mark.parametrize("size", [WIDE, NARROW], ids=["wide", "narrow"])
def test_no_text_of_the_picture_leaves_its_box(page, agent, size):
    for key, value in (("fallback", ", ".join(str(number) for number in range(60001, 60033))), ("units", "32"),
                       ("UNARMED_RUs", "31"), ("ARMED_RU", "a-unit" * 10), ("relay", "stays open"), ("EG_LINK_STATUS", "4")):
        agent.unit.set(key, value, agent.now)
    page.open().live()
    resize(page.driver, size)
    page.wait_text("drawing", "60003")
    assert "60004" not in page.text("drawing") and "60032" in page.text("values")
    assert page.run(OUTSIDE) == []
    agent.more["stale"] = ["link", "EG_LINK_STATUS", "BU_STATE"]
    page.wait_text("drawing", "last known: a")
    assert page.run(OUTSIDE) == []
    agent.close()
    page.wait_text("drawing", "was: last")
    assert page.run(OUTSIDE) == []


# --- control -------------------------------------------------------------------------------------------------------------

OFFER = (202, '{"confirm": "code", "text": "The armed unit is released."}')


def press(page, name):
    wait_for(lambda: page.driver.find_elements(By.CSS_SELECTOR, f"[data-action={name}]:enabled"))[0].click()


@pytest.fixture
def control(page, agent):
    agent.actions = {"disarm": "", "reset": ""}
    return page.open().live()


def test_an_order_that_got_no_answer_is_not_said_to_be_sent(control, agent):
    agent.answers = [OFFER, (200, "{}"), OFFER, NOTHING]
    for said in ("Disarm: sent to the server at", "Disarm: the agent has not answered. It may have been sent, or not"):
        press(control, "disarm")
        wait_for(control.driver.find_element(By.ID, "confirm").is_displayed)
        assert control.text("control-said") == ""
        control.driver.find_element(By.ID, "confirm-yes").click()
        control.wait_text("control-said", said)


def test_an_order_that_could_not_be_asked_for_is_not_sent(control, agent):
    agent.answers = [NOTHING]
    press(control, "disarm")
    control.wait_text("control-said", "Disarm: nothing was sent, the agent does not answer.")
    agent.answers = [(503, "the server does not answer: nothing was sent")]
    press(control, "reset")
    control.wait_text("control-said", "Reset the external link: the server does not answer")


def test_a_question_about_a_unit_that_was_lost_is_taken_back(control, agent):
    agent.answers = [OFFER]
    press(control, "disarm")
    dialog = control.driver.find_element(By.ID, "confirm")
    wait_for(dialog.is_displayed)
    agent.close()
    wait_for(lambda: not dialog.is_displayed())
    assert control.text("control-said") == "Nothing was sent: the agent is lost."
