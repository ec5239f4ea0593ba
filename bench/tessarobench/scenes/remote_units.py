"""Scenes around the remote link: operators' remote units, over TCP and through the base controller."""

from __future__ import annotations

from .. import glink, internallink as il
from ..installation import LISTENING
from ..ledger import Ledger
from ..traffic import Traffic
from . import Stage, scene

FIRST, SECOND = 1001, 1002
COMMANDS = 15
# The base unit takes a repeated packet for a new one. A computer that is busy otherwise must not make it look careless.
PATIENT_SECONDS = 1.0


@scene("units", "Two remote units join and exchange data", needs=["link", "images"])
def units(stage: Stage) -> None:
    bench = stage.bench
    since = bench.journal.mark()
    stage.expect("the identity has opened the remote link", lambda: bench.server.logged(LISTENING))
    for unit_id in (FIRST, SECOND):
        stage.say(f"Remote unit {unit_id} connects and introduces itself.")
        bench.unit(unit_id).join()
        stage.expect("its pairing, its base unit and its application are right: it is accepted",
                     lambda: bench.unit(unit_id).joined)
    stage.expect("the status record counts them",
                 lambda: bench.journal.last(link="uart", direction="<", kind="status", since=since, units=2))
    refusals(stage)
    exchange(stage)


def refusals(stage: Stage) -> None:
    bench = stage.bench
    stage.say("A unit that nobody has paired tries as well, then one that carries another application.")
    for unit_id, checksum, code in ((2000, bench.unit_checksum(), glink.NOT_PAIRED),
                                    (SECOND, bytes(16), glink.OTHER_APPLICATION)):
        stranger = bench.stranger(unit_id)
        stranger.checksum = checksum
        stranger.join()
        stage.expect(f"it is refused with code {code}", lambda: stranger.verdict and stranger.verdict.code == code)
        stranger.leave()
    bench.unit(SECOND).join()
    stage.expect(f"the right unit {SECOND} takes its place back", lambda: bench.unit(SECOND).joins == 2)


def exchange(stage: Stage) -> None:
    bench = stage.bench
    first, second = bench.unit(FIRST), bench.unit(SECOND)
    data = bytes(range(16))
    stage.say("The base controller sends periodic data and a command; unit 1001 sends one, and a service message.")
    bench.bc.periodic(data)
    bench.bc.command(b"lights on")
    for unit in (first, second):
        stage.expect(f"unit {unit.id} received both",
                     lambda: b"\1" + data in unit.payloads(glink.PERIODIC_DATA)
                     and b"lights on" in unit.payloads(glink.CMD))
    since = bench.journal.mark()
    first.command(b"hoist up")
    stage.expect("its command arrives, filled up to 16 bytes",
                 lambda: bench.journal.last(link="uart", direction="<", kind="command", since=since,
                                            payload=b"hoist up".ljust(16, b"\0")))
    bench.fallback  # takes service messages
    first.service_forward(b"battery 83 %")
    stage.expect("so does its service message, with its number",
                 lambda: any(short[1:] == (FIRST, b"battery 83 %") for short in bench.fallback.shorts))
    bench.bc.set(bu_state=17, armed_ru=FIRST)
    stage.expect("both are told, within half a second, that unit 1001 is armed", lambda: all(
        unit.base_status and unit.base_status.armed_ru == FIRST for unit in (first, second)), 1.0)


@scene("stop", "An operator presses machine stop", needs=["units"])
def stop(stage: Stage) -> None:
    bench, log = stage.bench, len(stage.bench.server.log)
    stage.say("Unit 1002, which is not armed, presses machine stop.")
    pressed = bench.unit(SECOND).machine_stop()
    stage.expect("it is acknowledged", lambda: pressed.acked)
    bench.bc.set(bu_state=17, armed_ru=FIRST)
    stage.say("The armed unit 1001 presses machine stop, and the base controller opens the contact.")
    bench.unit(FIRST).machine_stop()
    bench.relay.hold_monitor("1\n")
    stage.expect("a second later the base unit finds the contact open",
                 lambda: bench.server.logged("RelayOpen", log) == 1)
    bench.relay.hold_monitor(None)
    stage.say("Once more; this time the contact stays closed, and the base controller does not answer a RESET at once.")
    bench.bc.deaf_to.add(il.EVENTS)
    bench.unit(FIRST).machine_stop()
    stage.expect("the base unit drops the relay itself", lambda: not bench.relay.closed)
    stage.expect("and treats it as a loss of the base controller", lambda: "NO_BI_LINK" in bench.server.texts(log))
    stage.say("The base controller answers.")
    bench.bc.deaf_to.clear()
    stage.expect("the link is in RUN", lambda: "RUN" in bench.server.texts(log))
    stage.expect("the relay is closed", lambda: bench.relay.closed)


@scene("fallback", "A remote unit loses its network, appears on the fallback path, and returns", needs=["units"])
def fallback(stage: Stage) -> None:
    bench, wanderer, other = stage.bench, stage.bench.unit(FIRST), stage.bench.unit(SECOND)
    bench.bc.retry_seconds = PATIENT_SECONDS
    stage.say("Numbered commands run in both directions all the time, and are ticked off at the other end.")
    traffic = Traffic(bench, (wanderer, other), period=0.05)
    stage.expect("the first of each over TCP", traffic.progress(1))
    stage.narrator.untold |= {("glink", "command"), ("uart", "command"), ("eglink", "VRCI"), ("eglink", "VRAO")}
    stage.expect(f"{COMMANDS} more of each; they are no longer told one by one", traffic.progress(COMMANDS))
    joins = wanderer.joins
    stage.say("The network of unit 1001 gets weak: it introduces itself through the base controller.")
    wanderer.join_fallback()
    stage.expect("it is accepted there", lambda: wanderer.joins == joins + 1 and wanderer.path == "fallback")
    stage.say("Then the network is gone. Nobody told the base unit: its connection is half open.")
    wanderer.lose_network()
    seen = len(wanderer.received)
    stage.expect(f"{COMMANDS} more of each, now in blocks through the base controller", traffic.progress(COMMANDS))
    stage.expect("base status reaches it that way too", lambda: wanderer.messages(glink.BASE_STATUS, seen))
    stage.say("The network is back: the unit connects again.")
    wanderer.join()
    stage.expect("it is accepted, and the fallback is closed for it",
                 lambda: wanderer.joins == joins + 2 and bench.server.logged(f"RGPCom::removeFallbackLink {FIRST}"))
    seen = len(wanderer.received)
    stage.expect(f"{COMMANDS} more of each", traffic.progress(COMMANDS))
    stage.expect("by TCP alone", lambda: {message.path for message in wanderer.received[seen:]} == {"TCP"})
    settle(stage, traffic)


def settle(stage: Stage, traffic: Traffic) -> None:
    traffic.stop()
    stage.narrator.untold.clear()
    for unit in traffic.units:
        for direction, ledger in (("from", unit.ledger), ("to", unit.inbox)):
            count = ledger.issued
            stage.expect(f"all {count} commands {direction} unit {unit.id} arrived, and each of them once",
                         lambda: ledger.balanced)
        unit.inbox = Ledger(0)
