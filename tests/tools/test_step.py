"""scripts/step and scripts/times: what make shows of a step, and what stays of it."""
import os
import pty
import re
import shutil
import subprocess
from pathlib import Path

import pytest

SCRIPTS = Path(__file__).resolve().parents[2] / "scripts"


@pytest.fixture
def step(tmp_path):
    """The scripts in a tree of their own; runs one with the words given."""
    (tmp_path / "scripts").mkdir()
    for name in ("step", "times"):
        shutil.copy(SCRIPTS / name, tmp_path / "scripts")

    def run(name, *words):
        return subprocess.run([tmp_path / "scripts" / name, *words], env={**os.environ, "TESSARO_RUN": "7"}, timeout=60,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True)
    run.folder = tmp_path
    return run


def test_what_a_step_says_goes_to_a_file(step):
    done = step("step", "compile", "Compiling", "echo", "pages of it")
    assert done.returncode == 0
    assert re.fullmatch(r"Compiling \.\.\.\nCompiling: \d+ s\n", done.stdout)
    assert (step.folder / ".cache/log/compile.log").read_text() == "pages of it\n"


def test_a_step_that_fails_shows_its_end_and_names_the_file(step):
    done = step("step", "compile", "Compiling", "sh", "-c", "seq 100; echo broken >&2; exit 3")
    assert done.returncode == 3
    *lines, verdict = done.stderr.splitlines()
    where = re.escape(f"{step.folder}/.cache/log/compile.log")
    assert re.fullmatch(rf"Compiling: failed after \d+ s; all that was said is in {where}", verdict)
    assert lines[-1] == "broken"
    assert "100" in lines and "1" not in lines


def test_a_step_that_is_shown_is_not_kept_back(step):
    done = step("step", "--shown", "tour", "the tour", "sh", "-c", "echo seen; exit 4")
    assert (done.stdout, done.returncode) == ("seen\n", 4)


def test_on_a_terminal_the_line_moves(step):
    ours, theirs = pty.openpty()
    go = step.folder / "go"
    shown = ""
    with subprocess.Popen([step.folder / "scripts" / "step", "compile", "Compiling", "sh", "-c",
                           f"echo [3/9] x.cpp; until [ -e {go} ]; do sleep 0.1; done"], stdout=theirs) as process:
        os.close(theirs)
        while "[3/9] x.cpp" not in shown:
            shown += os.read(ours, 65536).decode()
        go.touch()
        while not shown.endswith("s\r\n"):
            shown += os.read(ours, 65536).decode()
    assert process.returncode == 0
    assert "\r\033[KCompiling, " in shown and "[3/9] x.cpp" in shown
    assert shown.splitlines()[-1].split("\033[K")[-1].startswith("Compiling: ")


def test_the_times_of_a_run_are_told_once(step):
    step("step", "compile", "Compiling", "sleep", "1.1")
    step("step", "--shown", "tour", "the tour", "sleep", "1.1")
    told = step("times").stdout
    assert told.startswith("Took: Compiling ") and ", the tour " in told and "; together " in told
    assert step("times").stdout == ""


def test_times_that_were_never_told_go_with_their_run(step):
    cache = step.folder / ".cache"
    cache.mkdir()
    nobody = int(Path("/proc/sys/kernel/pid_max").read_text()) + 1  # the number of one that has ended may be given again
    for run in (nobody, os.getpid()):
        (cache / f"times-{run}").write_text("3\tCompiling\n")
    step("step", "compile", "Compiling", "true")
    assert {path.name for path in cache.glob("times-*")} == {"times-7", f"times-{os.getpid()}"}
