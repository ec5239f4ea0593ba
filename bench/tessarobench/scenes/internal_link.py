"""Scenes around the internal link: the base unit and the base controller of the machine."""

from __future__ import annotations

import random

from .. import internallink as il
from . import Stage, scene


@scene("link", "The internal link comes up: silence, RESET, acknowledgement, settings, RUN")
def link(stage: Stage) -> None:
    bench = stage.bench
    stage.say("The base unit is switched on; the base controller listens and does not answer yet.")
    bench.bc.deaf = True
    bench.api  # a local tool watches from the beginning
    bench.start()
    stage.expect("the machine-stop relay closes", lambda: bench.relay.closed)
    stage.expect("the base unit asks again and again for a RESET", lambda: bench.bc.received["event"] >= 3)
    stage.expect("it notices that nobody answers", lambda: bench.server.logged("Internal link fail!!!!!!!!"))
    stage.say("Now the base controller answers.")
    bench.bc.deaf = False
    stage.expect("the link is in RUN", lambda: "RUN" in bench.server.texts())
    keys = [row["tag"] for row in bench.table("tessaroserver/config/app.csv") if row["from"] == "BC"]
    stage.expect(f"all {len(keys)} settings that the base controller owns have been fetched",
                 lambda: {event.key for event in bench.journal.select("uart", "<", "ask")} >= set(keys))
    stage.expect("a fetched setting reads back over the API",
                 lambda: bench.api.tag("BCSR") == str(bench.bc.config["BCSR"]))


@scene("images", "Process images arrive and become named values", needs=["link"])
def images(stage: Stage) -> None:
    bench = stage.bench
    stage.say("The base controller tells who the base unit is.")
    bench.bc.set(bu_identity=400, bu_state=1, tsaps=2, eclink_status=1)
    stage.expect("the identity reads 400 over the API", lambda: bench.api.tag("BU_ID") == "400")
    stage.expect("the status record carries it back to the base controller",
                 lambda: bench.journal.last(link="uart", direction="<", kind="status", identity=400))
    for state, name in ((16, "DISARMED"), (17, "ARMED"), (16, "DISARMED")):
        bench.bc.set(bu_state=state, armed_ru=1001 if state == 17 else 0)
        stage.expect(f"the base unit is {name}", lambda: bench.api.tag("BU_STATE") == str(state))
    stage.expect("no remote unit is armed", lambda: bench.api.tag("ARMED_RU") == "0")
    bench.api.settle()  # one push has told of both changes, and another is on its way
    statuses = bench.api.statuses
    stage.say("The same image once more changes nothing.")
    stage.expect("the base unit acknowledges it", lambda sending=bench.bc.send_image(): sending.acked)
    bench.api.settle()
    if bench.api.statuses > statuses:
        raise AssertionError("an unchanged image was pushed over the API")


@scene("settings", "Either side asks the other for settings", needs=["link"])
def settings(stage: Stage) -> None:
    bench = stage.bench
    for key, unit, expected in (("CCH1", None, "0b000000"), ("SID1", None, "545a3430"), ("NONE", None, "ffffffff"),
                                ("RUID", 1, "ea030000"), ("RUID", 9, "ffffffff")):
        asked = bench.bc.ask(key, unit)
        whose = f" of the remote unit in row {unit}" if unit is not None else ""
        stage.expect(f"{key}{whose} is {expected}", lambda: asked.answer == bytes.fromhex(expected))
    stage.say("A local tool announces that the configuration has changed.")
    before = bench.journal.mark()
    bench.api.send(b"CCHANGE")
    stage.expect("the base controller is told RECONFIG",
                 lambda: bench.journal.last(link="uart", kind="event", event="RECONFIG", since=before))


@scene("noise", "Noise on the line, lost and damaged frames", needs=["link"])
def noise(stage: Stage) -> None:
    bench, source = stage.bench, random.Random(2022)
    stage.say("Two hundred chunks of random bytes hit the UART.")
    for _ in range(200):
        bench.bc.send_bytes(bytes(source.randrange(256) for _ in range(source.randrange(1, 60))) + bytes([il.END]))
    stage.expect("the link still works", lambda sending=bench.bc.set(tsaps=3): sending.acked)
    stage.say("The next acknowledgement to the base unit gets lost.")
    before = bench.journal.mark()
    bench.bc.acks.script("drop")
    stage.expect("the base unit sends that frame again",
                 lambda: bench.journal.last(link="uart", direction="<", again=True, since=before))


@scene("loss", "The internal link is lost and comes back", needs=["link", "images"])
def loss(stage: Stage) -> None:
    bench = stage.bench
    before, log = bench.journal.mark(), len(bench.server.log)
    stage.say("The cable to the base controller breaks.")
    bench.bc.mute()
    stage.expect("the relay opens", lambda: not bench.relay.closed)
    stage.expect("after three transmissions without an answer",
                 lambda: bench.server.logged("Internal link fail!!!!!!!!", log))
    stage.say("The cable is mended.")
    bench.bc.mute(False)
    stage.expect("the relay closes again", lambda: bench.relay.closed)
    stage.expect("RESET, settings and RUN once more",
                 lambda: bench.journal.count(link="uart", kind="ask", since=before) >= 6
                 and "RUN" in bench.server.texts(log))
    stage.expect("process images flow again", lambda sending=bench.bc.set(tsaps=2): sending.acked)
