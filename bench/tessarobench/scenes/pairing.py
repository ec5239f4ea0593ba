"""The scene of the service tool: a remote unit from the shelf becomes one of this installation."""

from __future__ import annotations

import tempfile
from pathlib import Path

from ..csvfile import Table
from ..glink import NOT_PAIRED, application_checksum
from ..installation import REMOTES, UNIT_APPLICATION
from ..servicetool import unpack
from . import Stage, scene

NEWCOMER = 1003
WORDS = ("PKY1", "PKY2", "PKY3", "PKY4")


@scene("pairing", "A third remote unit is refused, paired through the service tool, and accepted", needs=["units"])
def pairing(stage: Stage) -> None:
    bench, unit = stage.bench, stage.bench.unit(NEWCOMER)
    stage.say(f"Remote unit {NEWCOMER} comes new from the shelf and tries to join.")
    unit.join()
    stage.expect("it is refused with code 1", lambda: unit.verdict and unit.verdict.code == NOT_PAIRED)
    unit.leave()
    with tempfile.TemporaryDirectory() as folder:
        application = fetch(stage, Path(folder))
        unit.checksum = application_checksum(application)
        compare_keys(stage, application)
    joins = unit.joins
    stage.say("The unit starts with the application that it was given.")
    unit.join()
    stage.expect("now it is accepted", lambda: unit.joins == joins + 1)
    stage.expect("and told twice a second how the base unit is", lambda: unit.base_status)
    stage.expect("the other two have not been disturbed",
                 lambda: all(bench.unit(other).joined for other in (1001, 1002)))


def fetch(stage: Stage, folder: Path) -> Path:
    bench, tool = stage.bench, stage.bench.tool
    since = len(bench.server.log)
    stage.say("A technician connects the service tool to the private network and looks for the application.")
    path = tool.find(UNIT_APPLICATION.name)
    stage.say("He fetches it for the new unit.")
    _, archive = tool.get(path, NEWCOMER)
    stage.narrator.result(True, "size and MD5 of the archive are as promised")  # the tool would not have taken it
    stage.expect("the base unit has removed the archive", lambda: bench.server.logged("Transfer complete of", since)
                 and not list(bench.applications.glob("*.tar")))
    return unpack(archive, folder)


def compare_keys(stage: Stage, application: Path) -> None:
    """The words themselves are nobody's business."""
    bench = stage.bench
    row = next((row for row in bench.table(REMOTES) if row["RUID"] == str(NEWCOMER)), {})
    known = [row.get(word) for word in WORDS]
    for where, folder in (("in the unit", application), ("in the base unit's copy", bench.applications / UNIT_APPLICATION)):
        table = Table.load(folder / "config" / "keys.csv")
        stage.expect(f"the four key words {where} are those of the base unit",
                     lambda: [table.row(word)["value"] for word in WORDS] == known and set(known) != {"0"})
