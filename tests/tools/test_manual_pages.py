"""The manual pages of the package say what the tools offer."""

import re
import subprocess
import sys
from pathlib import Path

import pytest

REPOSITORY = Path(__file__).resolve().parents[2]


@pytest.mark.parametrize("tool", ["tessaro-agent", "tessaro-check", "tessaro-report", "tessaro-top"])
def test_the_manual_page_names_the_options_of_its_tool_and_no_others(tool):
    offered = subprocess.run([sys.executable, REPOSITORY / "tools" / tool, "--help"], capture_output=True, text=True,
                             check=True).stdout
    page = (REPOSITORY / f"packaging/man/{tool}.1").read_text().replace("\\-", "-")
    option = re.compile(r"--[a-z][a-z-]*")
    assert set(option.findall(page)) == set(option.findall(offered)) - {"--help"}
    assert page.startswith(f".TH {tool.upper()} 1 ")
