"""tools/tessaro-report: everything is in the archive, no secret is."""
import os
import shutil
import subprocess
import sys
import tarfile
from pathlib import Path

import pytest

TOOL = Path(__file__).resolve().parents[2] / "tools" / "tessaro-report"

REMOTES = "ruindex;RUID;PKY1;PKY2;PKY3;PKY4\nRow;Id;1;2;3;4\n0;10;1111111111;2222222222;3333333333;444444444\n1;11;0;0;0;0\n"
APP = "tag;value;from\nKey;Value;Origin\nEMAP;7;local\nWPA1;correct horse;local\nSID1;yard;local\n"
KEYS = "tag;value;from\nKey;Value;Origin\nPKY1;1111111111;RGP\n"
LOG = ("20261121 09:00:00.000 - first\n"
       "20261121 09:00:01.000 - PairServer generated new keys: 10 (ruid) 1111111111 (pky1) 2222222222 (pky2)\n"
       "20261121 09:00:02.000 - last\n")
SECRETS = ("1111111111", "2222222222", "3333333333", "444444444", "correct horse")


@pytest.fixture
def unit(tmp_path):
    root = tmp_path / "Applications"
    config = root / "tessaroserver" / "config"
    config.mkdir(parents=True)
    (config / "remotes.csv").write_text(REMOTES)
    (config / "app.csv").write_text(APP)
    (config / "keys.csv").write_text(KEYS)
    (root / "handheld" / "config").mkdir(parents=True)
    (root / "handheld" / "manifest.csv").write_text("target;ru\ntype;user\n")
    (root / "handheld" / "config" / "keys.csv").write_text(KEYS)
    gpio = tmp_path / "gpio"
    for line, value in ((37, "1"), (38, "0")):
        (gpio / f"gpio{line}").mkdir(parents=True)
        (gpio / f"gpio{line}" / "value").write_text(value + "\n")
        (gpio / f"gpio{line}" / "direction").write_text("out\n" if line == 37 else "in\n")
    (tmp_path / "server.log").write_text(LOG)
    return tmp_path


def report(unit, *more):
    output = unit / "report.tar.gz"
    result = subprocess.run([sys.executable, str(TOOL), "--output", str(output), "--root", str(unit / "Applications"),
                             "--gpio", str(unit / "gpio"), "--log", str(unit / "server.log"), *more],
                            capture_output=True, text=True, timeout=120)
    assert result.returncode == 0, result.stderr
    assert result.stdout == f"{output}\n"
    contents = {}
    with tarfile.open(output) as archive:
        for member in archive:
            contents[member.name.split("/", 1)[1]] = archive.extractfile(member).read().decode()
    return contents


def test_secrets_are_masked_and_all_else_stays(unit):
    contents = report(unit)
    assert contents["configuration/tessaroserver/config/remotes.csv"] == (
        "ruindex;RUID;PKY1;PKY2;PKY3;PKY4\nRow;Id;1;2;3;4\n0;10;***;***;***;***\n1;11;0;0;0;0\n")
    assert contents["configuration/tessaroserver/config/app.csv"] == (
        "tag;value;from\nKey;Value;Origin\nEMAP;7;local\nWPA1;***;local\nSID1;yard;local\n")
    assert contents["configuration/handheld/manifest.csv"] == "target;ru\ntype;user\n"
    everything = "\n".join(contents.values())
    for secret in SECRETS:
        assert secret not in everything


def test_the_log_comes_without_the_keys_of_a_pairing(unit):
    assert report(unit)["log.txt"] == ("20261121 09:00:00.000 - first\n"
                                       "20261121 09:00:01.000 - PairServer generated new keys: ***\n"
                                       "20261121 09:00:02.000 - last\n")


def test_only_the_last_log_lines_are_taken(unit):
    assert report(unit, "--lines", "1")["log.txt"] == "20261121 09:00:02.000 - last\n"


def test_gpio_lines_are_told_with_their_meaning(unit):
    assert report(unit)["gpio.txt"] == ("gpio37 direction out (relay drive: 1 closes)\n"
                                        "gpio37 value 1 (relay drive: 1 closes)\n"
                                        "gpio38 direction in (relay monitor: 0 is closed)\n"
                                        "gpio38 value 0 (relay monitor: 0 is closed)\n")


def test_the_running_server_is_found_with_its_descriptors(unit):
    server = unit / "Applications" / "tessaroserver" / "tessaroserver"
    shutil.copy("/bin/sleep", server)
    process = subprocess.Popen([str(server), "60"])
    try:
        contents = report(unit)
    finally:
        process.kill()
        process.wait()
    assert f"process {process.pid}\n" in contents["version.txt"]
    assert f"\n  0 -> " in contents["process.txt"]
    assert f"  {process.pid} tessaroserver\n" in contents["process.txt"]


def test_what_cannot_be_read_is_named(unit):
    shutil.rmtree(unit / "gpio")
    contents = report(unit)
    assert "No such file or directory" in contents["gpio.txt"]
    assert contents["process.txt"] == "not running\n"
    assert "process: not running\n" in contents["version.txt"]


def test_the_archive_is_for_its_owner_only(unit):
    report(unit)
    assert os.stat(unit / "report.tar.gz").st_mode & 0o777 == 0o600
