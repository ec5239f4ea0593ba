"""Faults as small files: what is impaired, what happens when, and what must hold afterwards.

    title   A line of words                     what it is about
    seed    11                                  of everything that is drawn
    lasts   4                                   seconds under load
    time    real                                not virtual: timers of the kernel play a part
    impair  uart to loss 0.1 delay 0.01         uart, eglink, acks (of the machine controller) or a unit's number;
                                                to or from the base unit; loss, corrupt, duplicate: probabilities,
                                                delay: up to so many seconds
    at 1.0  down eth0                           an action (ACTIONS) at its second, in the order of the file
    then    relay closed                        a condition (CONDITIONS) that must come true within ten seconds

Actions: mute, unmute (uart or a unit); silence, speak (the machine controller); down, up, unplug, plug (eth0 or wlan0);
vanish, join, fallback, reset, babble, slow, bytewise, rejoin (a unit, with seconds where it takes any); split, gather, whole
(how uart or a unit writes: at most so many bytes at once, what comes within so many seconds in one, as it comes); noise (so
many bytes on the uart).

Conditions: relay closed, relay open; opened (the relay, at some time), stayed closed (it never opened); unit N on TCP, unit N
on fallback; eglink N (the state in the status record); log TEXT, nothing of TEXT (in what the server has said).

"#" begins a comment. Load is that of the soak, at the nominal pace times `pace` (4). At the end the books are closed, and
must balance, whatever the file says.
"""

from __future__ import annotations

from pathlib import Path
from typing import Callable, NamedTuple, Optional

from . import glink
from .account import statement
from .capturefile import CaptureFile
from .impair import Impairment
from .installation import Installation
from .pieces import Pieces
from .plant import Plant

WITHIN = 10.0


class Step(NamedTuple):
    at: float
    words: list[str]


class Scenario:
    """A file, read. Anything that is not understood raises ValueError with the line."""

    def __init__(self, path: Path):
        self.title, self.seed, self.lasts, self.pace = path.stem, 1, 3.0, 4.0
        self.in_real_time = False
        self.impairments: list[list[str]] = []
        self.steps: list[Step] = []
        self.conditions: list[list[str]] = []
        for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
            words = line.partition("#")[0].split()
            try:
                self._take(words)
            except (ValueError, IndexError, KeyError) as error:
                raise ValueError(f"{path.name}:{number}: not understood: {line.strip()} ({error})") from error
        if not self.conditions:
            raise ValueError(f"{path.name}: nothing must hold afterwards")

    def _take(self, words: list[str]) -> None:
        if not words:
            return
        key, *rest = words
        if key == "title":
            self.title = " ".join(rest)
        elif key in ("seed", "lasts", "pace"):
            setattr(self, key, int(rest[0]) if key == "seed" else float(rest[0]))
        elif key == "time":
            self.in_real_time = {"real": True, "virtual": False}[rest[0]]
        elif key == "impair":
            chances(rest[2:])
            self.impairments.append(rest)
        elif key == "at":
            ACTIONS[rest[1]]  # raises for one that does not exist
            self.steps.append(Step(float(rest[0]), rest[1:]))
        elif key == "then":
            CONDITIONS[rest[0]]
            self.conditions.append(rest)
        else:
            raise ValueError(key)


def chances(words: list[str]) -> dict:
    """The keywords of Impairment.chances."""
    values = {name: float(value) for name, value in zip(words[::2], words[1::2], strict=True)}
    if not values or values.keys() - {"loss", "corrupt", "duplicate", "delay"}:
        raise ValueError("loss, corrupt, duplicate or delay, each with a number")
    return {name: (0, value) if name == "delay" else value for name, value in values.items()}


def impairment(bench: Installation, link: str, direction: str) -> Impairment:
    if link == "acks":
        return bench.mc.acks
    peer = {"uart": lambda: bench.bc, "eglink": lambda: bench.mc}.get(link, lambda: bench.unit(int(link)))()
    return {"to": lambda: peer.to_base_unit, "from": lambda: peer.from_base_unit}[direction]()


def mute(bench: Installation, who: str, on: bool) -> None:
    (bench.bc if who == "uart" else bench.unit(int(who))).mute(on)


def talk(plant: Plant, on: bool) -> None:
    plant.controller_talks = on


def pieces(plant: Plant, who: str) -> Pieces:
    return (plant.bench.bc if who == "uart" else plant.bench.unit(int(who))).pieces


# What may happen: name -> function(plant, words after the name).
ACTIONS: dict[str, Callable[[Plant, list[str]], object]] = {
    "mute": lambda plant, words: mute(plant.bench, words[0], True),
    "unmute": lambda plant, words: mute(plant.bench, words[0], False),
    "silence": lambda plant, words: talk(plant, False),
    "speak": lambda plant, words: talk(plant, True),
    "down": lambda plant, words: getattr(plant.bench, words[0]).down(),
    "up": lambda plant, words: getattr(plant.bench, words[0]).up(),
    "unplug": lambda plant, words: getattr(plant.bench, words[0]).unplug(),
    "plug": lambda plant, words: getattr(plant.bench, words[0]).plug(),
    "vanish": lambda plant, words: plant.bench.unit(int(words[0])).lose_network(),
    "join": lambda plant, words: plant.bench.unit(int(words[0])).join(),
    "fallback": lambda plant, words: plant.bench.unit(int(words[0])).join_fallback(),
    "reset": lambda plant, words: plant.bench.unit(int(words[0])).leave(hard=True),
    "bytewise": lambda plant, words: plant.bench.unit(int(words[0])).write_bytewise(),
    "split": lambda plant, words: pieces(plant, words[0]).split(int(words[1])),
    "gather": lambda plant, words: pieces(plant, words[0]).gather(float(words[1])),
    "whole": lambda plant, words: pieces(plant, words[0]).whole(),
    "slow": lambda plant, words: setattr(plant.bench.unit(int(words[0])), "ack_delay", float(words[1])),
    "babble": lambda plant, words: plant.bench.unit(int(words[0])).babble(glink.message(glink.PERIODIC_DATA, bytes(200))),
    "noise": lambda plant, words: plant.bench.bc.send_bytes(bytes.fromhex("82") + bytes(range(int(words[0])))),
    "rejoin": lambda plant, words: setattr(plant.bench.unit(int(words[0])), "rejoin_after", float(words[1])),
}


def opened(bench: Installation) -> bool:
    return any(not event.closed for event in bench.journal.select("gpio", kind="contact"))


def reported(bench: Installation, state: int) -> bool:
    record = bench.journal.last(link="uart", direction="<", kind="status")
    return record is not None and record.eglink == state


# What must hold: name -> function(bench, words after the name).
CONDITIONS: dict[str, Callable[[Installation, list[str]], object]] = {
    "relay": lambda bench, words: bench.relay.closed == (words[0] == "closed"),
    "opened": lambda bench, words: opened(bench),
    "stayed": lambda bench, words: not opened(bench),
    "unit": lambda bench, words: bench.unit(int(words[0])).path == words[2],
    "eglink": lambda bench, words: reported(bench, int(words[0])),
    "log": lambda bench, words: bench.server.logged(" ".join(words)),
    "nothing": lambda bench, words: not bench.server.logged(" ".join(words[1:])),
}


def play(scenario: Scenario, server: Path, say: Callable[[str], None] = lambda text: None,
         capture: Optional[CaptureFile] = None, virtual_time: Optional[Path] = None) -> list[str]:
    """Plays it on a board of its own, in virtual time where its library is given and the file does not ask for the other;
    returns what did not hold, in words."""
    virtual_time = None if scenario.in_real_time else virtual_time
    with Installation(server, capture=capture, virtual_time=virtual_time) as bench:
        plant = Plant(bench, scenario.seed)
        for number, (link, direction, *rest) in enumerate(scenario.impairments):
            impairment(bench, link, direction).chances(scenario.seed + number, **chances(rest))
        plant.load(scenario.pace)
        began = bench.journal.now
        for step in [*scenario.steps, Step(scenario.lasts, [])]:
            bench.wait_for(lambda: bench.journal.now >= began + step.at, scenario.lasts + 10, "time passes", poll=0.02)
            say(f"{step.at:6.1f} s  {' '.join(step.words) or 'the end of load and faults'}")
            if step.words:
                ACTIONS[step.words[0]](plant, step.words[1:])
        for link, direction, *_ in scenario.impairments:
            impairment(bench, link, direction).clear()
        plant.calm()
        failures = [f"not so: {' '.join(words)}" for words in scenario.conditions if not holds(bench, words)]
        accounts = plant.close_books()
        for line in statement(accounts):
            say(line)
        failures += [violation for account in accounts for violation in account.violations]
        bench.loop.raise_failure()
        return failures


def holds(bench: Installation, words: list[str]) -> bool:
    try:
        bench.wait_for(lambda: CONDITIONS[words[0]](bench, words[1:]), WITHIN, " ".join(words), poll=0.1)
        return True
    except AssertionError:
        return False
