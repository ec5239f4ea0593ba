"""The bench's commands: the sandbox, and the tour."""

import os
import signal
import subprocess
import time
from pathlib import Path

import pytest

pytestmark = pytest.mark.real_time("the tour is for people")

BENCH = Path(__file__).resolve().parents[2] / "bench"


def run(*command, **options):
    return subprocess.run([str(part) for part in command], capture_output=True, text=True, timeout=240, check=False,
                          **options)


@pytest.fixture
def interrupting(tmp_path):
    """An environment in which what the bench needs first interrupts it."""
    (tmp_path / "ctypes.py").write_text("import os, signal\nos.kill(os.getpid(), signal.SIGINT)\nraise SystemExit(7)\n")
    return {**os.environ, "PYTHONPATH": str(tmp_path)}


@pytest.mark.parametrize("tool", ["fleet", "pairing-kills", "replay", "run", "safety", "sandbox", "scenario", "soak"])
def test_a_tool_that_is_interrupted_while_it_is_loaded_says_nothing(tool, interrupting):
    done = run(BENCH / tool, "--help", env=interrupting)
    assert (done.returncode, done.stdout, done.stderr) == (-signal.SIGINT, "", "")


def test_a_tool_in_the_background_of_a_script_is_not_interrupted(interrupting):
    """The shell has it ignore what is for the foreground."""
    assert run("sh", "-c", f'trap "" INT; exec {BENCH / "sandbox"} --help', env=interrupting).returncode == 7


# --- sandbox -----------------------------------------------------------------------------------------------------------


def test_the_exit_status_is_the_commands():
    assert run(BENCH / "sandbox", "sh", "-c", "exit 7").returncode == 7
    assert run(BENCH / "sandbox", "sh", "-c", "kill -KILL $$").returncode == 128 + signal.SIGKILL
    missing = run(BENCH / "sandbox", "no-such-command")
    assert missing.returncode == 127 and "no-such-command" in missing.stderr


def test_processes_that_the_command_leaves_end_with_it():
    """The output ends only when nobody holds it any more."""
    began = time.monotonic()
    done = run(BENCH / "sandbox", "sh", "-c", "sleep 200 & echo started")
    assert done.stdout == "started\n" and time.monotonic() - began < 100


def mounted_on(folder):
    """Of that folder alone: other tests mount theirs at the same time."""
    return [line for line in Path("/proc/mounts").read_text(encoding="utf-8").splitlines() if line.split()[1] == folder]


def test_it_has_processes_mounts_and_a_network_of_its_own():
    assert run(BENCH / "sandbox", "sh", "-c", "echo $$; ls -d /proc/$$").stdout == "2\n/proc/2\n"
    assert run(BENCH / "sandbox", "ip", "-o", "link").stdout.count("\n") == 1
    before = mounted_on("/mnt")
    assert run(BENCH / "sandbox", "mount", "-t", "tmpfs", "none", "/mnt").returncode == 0
    assert mounted_on("/mnt") == before


def test_a_termination_reaches_the_command():
    with subprocess.Popen([BENCH / "sandbox", "sh", "-c", "trap 'exit 9' TERM; echo up; while :; do sleep 0.01; done"],
                          stdout=subprocess.PIPE, text=True) as sandbox:
        assert sandbox.stdout.readline() == "up\n"
        sandbox.terminate()
        assert sandbox.wait(60) == 9


def test_a_refusal_is_explained_in_one_line():
    refused = run("setpriv", "--bounding-set=-sys_admin", BENCH / "sandbox", "true")
    assert refused.returncode == 1
    assert refused.stderr.count("\n") == 1 and "CAP_SYS_ADMIN" in refused.stderr


def test_the_tools_explain_themselves():
    for tool in sorted(path for path in BENCH.iterdir() if path.is_file() and os.access(path, os.X_OK)):
        help_text = run(tool, "--help")
        assert help_text.returncode == 0 and help_text.stdout.lower().startswith(("usage", "runs")), tool


# --- the tour ----------------------------------------------------------------------------------------------------------


def test_a_scene_that_comes_out_as_told(server_path):
    tour = run(BENCH / "run", "--server", server_path, "--scene", "settings")
    assert tour.returncode == 0, tour.stdout + tour.stderr
    told = [line for line in tour.stdout.splitlines() if line.startswith(("1. ", "2. "))]
    assert [line.split("[")[1] for line in told] == ["link]", "settings]"]
    assert "Everything came out as told." in tour.stdout and "FAILED" not in tour.stdout


def test_a_scene_that_does_not(tmp_path):
    """A server that dies at once."""
    broken = tmp_path / "server"
    broken.write_text("#!/bin/sh\nexit 1\n")
    broken.chmod(0o755)
    tour = run(BENCH / "run", "--server", broken, "--scene", "link")
    assert tour.returncode == 1
    assert "FAILED the machine-stop relay closes" in tour.stdout and "Not as told" in tour.stdout


def test_what_cannot_be_played_is_said_at_once(server_path):
    unknown = run(BENCH / "run", "--server", server_path, "--scene", "no-such-scene")
    assert unknown.returncode == 2 and "no-such-scene" in unknown.stderr and "images" in unknown.stdout
    assert run(BENCH / "run", "--server", "/no/such/file").returncode == 2


@pytest.mark.parametrize("number, status", [(signal.SIGINT, 130), (signal.SIGTERM, 143)])
def test_an_interrupted_tour_ends_quickly(server_path, number, status):
    """As from the terminal: the whole foreground group gets the signal."""
    with subprocess.Popen([BENCH / "run", "--server", server_path], stdout=subprocess.PIPE, text=True,
                          start_new_session=True) as tour:
        tour.stdout.readline()
        os.killpg(tour.pid, number)
        assert tour.wait(60) == status
        assert "Traceback" not in tour.stdout.read()


@pytest.mark.parametrize("tool, options", [("run", []), ("soak", []), ("safety", []), ("pairing-kills", []), ("fleet", []),
                                           ("scenario", [BENCH / "scenarios" / "pieces.scn"])])
def test_a_server_that_is_none_is_refused_in_one_line(tool, options, tmp_path):
    for server, told in ((tmp_path / "none", "There is no server at {}: build it first (make build).\n"),
                         (tmp_path, "{} is no program: nobody can start it.\n")):
        done = run(BENCH / tool, *options, "--server", server)
        assert (done.returncode, done.stdout, done.stderr) == (2, "", told.format(server))
