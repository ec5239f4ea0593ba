"""tshark with our dissectors, for tests: what it shows of a capture, packet by packet."""

import shutil
import subprocess
from pathlib import Path

SCRIPT = Path(__file__).resolve().parents[2] / "tools" / "wireshark" / "tessaro.lua"
_TROUBLE = ("_ws.lua.error", "_ws.malformed")  # what no capture may cause, whatever is in it
_BETWEEN_FIELDS, _BETWEEN_VALUES = "\x1f", "\x1e"


def read(path, *fields, display_filter="", options=()):
    """One dict per packet: the values of each field, as a list of texts. Fails on any error of the dissectors."""
    assert shutil.which("tshark"), "tshark is missing: scripts/ensure-packages test installs it"
    command = ["tshark", "-X", f"lua_script:{SCRIPT}", "-r", str(path), "-T", "fields", "-E", f"separator={_BETWEEN_FIELDS}",
               "-E", f"aggregator={_BETWEEN_VALUES}", "-E", "occurrence=a", *options]
    for field in (*_TROUBLE, *fields):
        command += ["-e", field]
    if display_filter:
        command += ["-Y", display_filter]
    result = subprocess.run(command, capture_output=True, text=True, timeout=180, check=False)
    assert result.returncode == 0, result.stderr
    assert "Lua" not in result.stderr, result.stderr
    rows = [dict(zip((*_TROUBLE, *fields), (value.split(_BETWEEN_VALUES) if value else [] for value in line.split(
        _BETWEEN_FIELDS)), strict=True)) for line in result.stdout.split("\n")[:-1]]
    assert [row for row in rows if any(row[field] for field in _TROUBLE)] == []
    return rows
