"""What the tests of the machine-controller link share."""

from pathlib import Path

import pytest

from tessarobench.installation import APP, Installation

EG_TAGS = Path("tessaroserver/config/EGOutputTags.csv")
IDENTITY = 400
NOT_CONFIGURED, OPERATIONAL, LINK_ERROR = 0, 1, 3
STATUS_SECONDS = 0.5  # how often the base unit tells the base controller

SET = bytes(range(32))  # a set of the size that the example's tags ask for: one part
LONG_SET = bytes(range(256)) * 4 + bytes(216)  # 1240 bytes, three parts; see `with_long_sets`


def with_long_sets(bench: Installation) -> Installation:
    """Makes the periodic data of the controller as large as LONG_SET."""
    bench.change(EG_TAGS, "eg_tail", startByte=1200, byteSize=40, dataType="RAW")
    return bench


def with_emap(bench: Installation, emap: object) -> Installation:
    bench.change(APP, "EMAP", value=emap)
    return bench


def identify(bench: Installation, identity: int = IDENTITY) -> None:
    """The base controller tells who the base unit is, which starts the link."""
    bench.bc.set(bu_identity=identity)


def start_link(bench: Installation) -> Installation:
    """Server up, link started and in the group, a controller there that says nothing yet."""
    bench.mc  # on the group before the first packet comes
    bench.start_to_run()
    identify(bench)
    bench.server.wait_log("EGLink started", whole=True)
    bench.server.wait_log("JOIN RX MULTICAST SUCCESS", whole=True)
    return bench


def reported(bench: Installation, since: int = 0):
    """The link's state in the newest status record to the base controller, None before the first."""
    record = bench.journal.last(link="uart", direction="<", kind="status", since=since)
    return record.eglink if record else None


def wait_reported(bench: Installation, state: int, timeout: float = 5.0, since: int = 0) -> None:
    bench.wait_for(lambda: reported(bench, since) == state, timeout, f"link state {state} in the status record")


def reports(bench: Installation, since: int = 0) -> list[int]:
    """The states reported since then, each run of equal ones as one."""
    states = [record.eglink for record in bench.journal.select("uart", "<", "status", since)]
    return [state for index, state in enumerate(states) if index == 0 or state != states[index - 1]]


def count(bench: Installation, kind: str, since: int = 0, **detail: object) -> int:
    """How many packets of one type came from the base unit."""
    return bench.journal.count(link=bench.mc.link, direction="<", kind=kind, since=since, **detail)


def wait_count(bench: Installation, kind: str, number: int = 1, timeout: float = 5.0, since: int = 0,
               **detail: object) -> None:
    bench.wait_for(lambda: count(bench, kind, since, **detail) >= number, timeout, f"{number} x {kind} {detail or ''}")


def answered(bench: Installation) -> None:
    """The link is alive: a command of the controller is acknowledged. Two may be needed to bring the ids into step, and
    a busy machine may need its time."""
    for _ in range(5):
        number = bench.mc.command(b"alive?")
        try:
            wait_count(bench, "VRAI", id=number, timeout=1.0)
            return
        except AssertionError:
            continue
    raise AssertionError("the link acknowledges no command\n" + bench.journal.tail())


@pytest.fixture
def linked(bench):
    """Link started, sets of one part coming every 100 ms, link OPERATIONAL."""
    start_link(bench)
    bench.mc.cycle(SET)
    wait_reported(bench, OPERATIONAL)
    return bench
