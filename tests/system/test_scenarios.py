"""The scenarios of bench/scenarios, one test each: what the file asks for holds, and the books balance."""

from pathlib import Path

import pytest

from tessarobench.scenario import Scenario, play

SCENARIOS = sorted((Path(__file__).resolve().parents[2] / "bench" / "scenarios").glob("*.scn"))


@pytest.mark.parametrize("path", SCENARIOS, ids=lambda path: path.stem)
def test_scenario(server_path, virtual_time, path):
    failures = play(Scenario(path), server_path, virtual_time=virtual_time)
    assert not failures, "\n".join(failures)


@pytest.mark.parametrize("text", ["at 1 explode", "impair uart to loss", "impair uart to luck 1", "nonsense", "seed x",
                                  "then miracles", "title only"])
def test_what_is_not_understood_is_refused(tmp_path, text):
    file = tmp_path / "bad.scn"
    file.write_text(text + "\n")
    with pytest.raises(ValueError, match="bad.scn"):
        Scenario(file)


def test_what_does_not_hold_is_said(server_path, virtual_time, tmp_path):
    file = tmp_path / "wrong.scn"
    file.write_text("lasts 0.5\nthen log this is never logged\n")
    assert play(Scenario(file), server_path, virtual_time=virtual_time) == ["not so: log this is never logged"]
