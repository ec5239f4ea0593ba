"""Scenes around the link to the machine controller."""

from __future__ import annotations

import struct

from .. import glink
from . import Stage, scene

OPERATIONAL, LINK_ERROR = 1, 3
UNITS = (1001, 1002)


def periodic_data(cycle: int, text: str) -> bytes:
    """The controller's periodic data as the example's tag file lays them out: 32 bytes."""
    return (struct.pack("<H", cycle) + struct.pack(">H", 180)
            + struct.pack("<f4s20s", 42.5, b"\x05\0\0\0", text.encode("ascii")))


def reported(stage: Stage, state: int, since: int):
    """Whether the newest status record to the base controller carries this state of the link."""
    def check() -> bool:
        record = stage.bench.journal.last(link="uart", direction="<", kind="status", since=since)
        return record is not None and record.eglink == state
    return check


@scene("controller", "The machine controller on Ethernet: data, commands, silence, recovery", needs=["link", "images"])
def controller(stage: Stage) -> None:
    bench = stage.bench
    since = bench.journal.mark()
    stage.expect("the identity has started the link; without the controller's data it reports an error",
                 reported(stage, LINK_ERROR, since))
    stage.say("The machine controller joins the group and sends its data ten times a second.")
    bench.mc.cycle(periodic_data(1, "ready"))
    stage.expect("the link is operational, and the base controller is told", reported(stage, OPERATIONAL, since))
    stage.expect("the base controller's values reach the machine controller, four times a second",
                 lambda: bench.mc.periodic == bytes(bench.bc.image)[2:] + b"\0\0"
                 and bench.journal.count(link="eglink", kind="VRPI", since=since) >= 4)
    commands(stage)
    silence(stage)
    outage(stage)


def commands(stage: Stage) -> None:
    bench = stage.bench
    since = bench.journal.mark()
    stage.say("It sends three commands; the second gets lost on the way.")
    for text, fate in ((b"lamp on", "pass"), (b"horn", "drop"), (b"lamp off", "pass")):
        bench.mc.to_base_unit.script(fate)
        number = bench.mc.command(text)
    stage.expect("the first one is acknowledged, the third one is out of step and is not",
                 lambda: bench.server.logged(f"Unexpected VRCO command id {number - 1} got {number}")
                 and bench.journal.count(link="eglink", kind="VRAI", since=since) == 1)
    number = bench.mc.command(b"lamp off")
    stage.expect("its repetition brings both sides into step",
                 lambda: bench.journal.count(link="eglink", kind="VRAI", id=number, since=since))


def silence(stage: Stage) -> None:
    bench = stage.bench
    since = bench.journal.mark()
    stage.say("It goes silent.")
    bench.mc.silence()
    stage.expect("two seconds later the link is in error", reported(stage, LINK_ERROR, since))
    stage.say("It speaks again.")
    bench.mc.cycle(periodic_data(2, "back again"))
    stage.expect("five quiet seconds later the link has recovered by itself", reported(stage, OPERATIONAL, since), 8)


def outage(stage: Stage) -> None:
    bench = stage.bench
    before = bench.journal.mark()
    stage.say("eth0 goes down, comes back, and gets another address.")
    bench.eth0.down()
    bench.eth0.up()
    bench.eth0.change_address("10.42.20.9/24")
    stage.expect("the machine controller hears the base unit from there",
                 lambda: bench.journal.count(link="eglink", kind="VRPI", source="10.42.20.9", since=before))
    stage.expect("the base controller is told EGRECONFIG",
                 lambda: bench.journal.last(link="uart", kind="event", event="EGRECONFIG", since=before))
    number = bench.mc.command(b"lamp on")
    stage.expect("and commands still arrive",
                 lambda: bench.journal.count(link="eglink", kind="VRAI", id=number, since=before))


@scene("together", "Machine controller and remote units work together", needs=["units", "controller"])
def together(stage: Stage) -> None:
    bench = stage.bench
    units = [bench.unit(number) for number in UNITS]
    data = periodic_data(3, "to all units")
    stage.say("The machine controller's data change once, and are then sent unchanged again and again.")
    seen = [len(unit.received) for unit in units]
    bench.mc.cycle(data)
    for unit, before in zip(units, seen):
        stage.expect(f"unit {unit.id} receives them, marked as the machine controller's",
                     lambda: unit.payloads(glink.PERIODIC_DATA, before) == [b"\0" + data])
    bench.mc.command(b"lamp on")
    for unit in units:
        stage.expect(f"unit {unit.id} receives its command", lambda: b"lamp on" in unit.payloads(glink.CMD))
    units_command(stage)
    nobody_acknowledges(stage)
    for unit, before in zip(units, seen):
        stage.expect(f"unit {unit.id} got the unchanged data once",
                     lambda: unit.payloads(glink.PERIODIC_DATA, before) == [b"\0" + data])


def units_command(stage: Stage) -> None:
    bench = stage.bench
    since = bench.journal.mark()
    stage.say("Unit 1001 sends a command. The machine controller is slow to acknowledge it.")
    bench.mc.acks.script(0.25, "drop", "drop", "drop", "drop")
    bench.unit(UNITS[0]).command(b"boom up")
    stage.expect("it reaches the base controller", lambda: bench.journal.last(
        link="uart", direction="<", kind="command", payload=b"boom up".ljust(16, b"\0"), since=since))
    stage.expect("it reaches the machine controller, again and again",
                 lambda: bench.journal.count(link="eglink", kind="VRCI", command=b"boom up", since=since) >= 2)
    stage.expect("the acknowledgement arrives", lambda: any(
        "fate" not in event.detail for event in bench.journal.select("eglink", ">", "VRAO", since)))
    bench.mc.acks.clear()


def nobody_acknowledges(stage: Stage) -> None:
    bench = stage.bench
    since, log = bench.journal.mark(), len(bench.server.log)
    stage.say("Unit 1002 sends a command that the machine controller never acknowledges.")
    bench.mc.acknowledges = False
    bench.unit(UNITS[1]).command(b"boom down")
    stage.expect("it is sent twenty times and given up",
                 lambda: bench.server.logged("No VRAO for 2000  ms, timeout. Timer stopped.", log)
                 and bench.journal.count(link="eglink", kind="VRCI", command=b"boom down", since=since) == 20)
    bench.mc.acknowledges = True
    stage.expect("the link is in error, and the base controller is told", reported(stage, LINK_ERROR, since))
    stage.expect("five quiet seconds later it has recovered by itself", reported(stage, OPERATIONAL, since), 8)
