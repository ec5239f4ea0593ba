"""tools/tessaro-top against a small answering server of the loopback interface, in a pipe and under a pseudo terminal."""
import codecs
import os
import pty
import select
import socket
import subprocess
import sys
import time
from pathlib import Path

from agent_support import Agent
from server_double import PATIENCE, WallClock, wait_for

TOOL = Path(__file__).resolve().parents[2] / "tools" / "tessaro-top"


def command(server, *more):
    return [sys.executable, str(TOOL), "--request-port", str(server.port), "--answer-port", str(server.answer_port),
            "--agent", f"127.0.0.1:{server.agent_port}", "--interval", "0.1", *more]


class Output:
    """Reads a descriptor until a text has come."""

    def __init__(self, fd):
        self.fd = fd
        self.text = ""
        self.decoder = codecs.getincrementaldecoder("utf-8")()  # a letter may come in two pieces

    def wait_for(self, wanted, seconds=PATIENCE):
        deadline = time.monotonic() + seconds
        while wanted not in self.text:
            assert time.monotonic() < deadline, f"no {wanted!r} in {self.text[-2000:]!r}"
            self.read(1)

    def read(self, seconds):
        if select.select([self.fd], [], [], seconds)[0]:
            try:
                self.text += self.decoder.decode(os.read(self.fd, 65536))
            except OSError:  # of a terminal that nobody has any more
                time.sleep(0.01)


def end_of(process, output):
    """Its exit status. Meanwhile somebody takes what it shows: who writes to a full terminal cannot end."""
    deadline = time.monotonic() + PATIENCE
    while process.poll() is None:
        assert time.monotonic() < deadline, "it does not end"
        output.read(0.1)
    return process.returncode


def test_plain_output_names_states_and_tells_changes(server):
    process = subprocess.Popen(command(server), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
    output = Output(process.stdout.fileno())
    output.wait_for("state: 16 DISARMED\n")
    output.wait_for("unit state: (no tag)\n")
    server.status["BU_STATE"] = "17"
    server.push()
    output.wait_for("state: 17 ARMED (was 16 DISARMED)\n")
    process.terminate()
    assert end_of(process, output) == 0
    assert "server answers" in output.text
    assert "\x1b" not in output.text
    process.stdout.close()


def test_a_silent_server_is_told_and_gives_exit_code_1(server):
    server.close()
    result = subprocess.run(command(server, "--seconds", "4"), stdin=subprocess.DEVNULL, capture_output=True, text=True,
                            timeout=PATIENCE)
    assert "server is silent" in result.stdout
    assert result.returncode == 1
    server.reopen()


def test_a_clock_that_is_set_back_hides_no_silence(server, tmp_path):
    clock = WallClock(tmp_path / "clock")
    process = subprocess.Popen(command(server), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                               env={**os.environ, **clock.environment})
    output = Output(process.stdout.fileno())
    output.wait_for("server answers")
    clock.move(-3600)
    asked = len(server.asked)
    wait_for(lambda: len(server.asked) > asked + 2, what="it goes on asking")
    server.close()
    output.wait_for("server is silent")
    process.terminate()
    assert end_of(process, output) == 1
    process.stdout.close()
    server.reopen()


def test_log_lines_of_a_file_are_shown(server, tmp_path):
    log = tmp_path / "server.log"
    log.write_text("first line\n")
    process = subprocess.Popen(command(server, "--journal", str(log)), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
    output = Output(process.stdout.fileno())
    output.wait_for("log first line\n")
    with log.open("a") as stream:
        stream.write("second line\n")
    output.wait_for("log second line\n")
    output.wait_for("server answers")  # the exit code tells whether it does
    process.terminate()
    assert end_of(process, output) == 0
    process.stdout.close()


def under_terminal(arguments):
    master, slave = pty.openpty()
    process = subprocess.Popen(arguments, stdin=slave, stdout=slave, stderr=slave, env={**os.environ, "TERM": "xterm"})
    os.close(slave)
    return process, master


def test_on_a_terminal_states_have_colours_and_q_gives_the_screen_back(server):
    process, master = under_terminal(command(server))
    output = Output(master)
    output.wait_for("\x1b[32m  state                     16 DISARMED\x1b[0m")
    server.status["EG_LINK_STATUS"] = "3"
    output.wait_for("\x1b[31m  machine controller link   3 LINK_ERROR\x1b[0m")
    os.write(master, b"q")
    output.wait_for("\x1b[?1049l")
    assert end_of(process, output) == 0
    os.close(master)


def test_a_command_is_sent_only_after_confirmation(server):
    process, master = under_terminal(command(server))
    output = Output(master)
    output.wait_for("q quit")
    os.write(master, b"d")
    output.wait_for("Send DISARM to the server? y/n")
    os.write(master, b"n")
    os.write(master, b"r")
    output.wait_for("Send RESET to the server? y/n")
    os.write(master, b"y")
    wait_for(lambda: b"RESET" in server.asked)
    os.write(master, b"q")
    assert end_of(process, output) == 0
    assert b"DISARM" not in server.asked
    os.close(master)


def test_a_second_monitor_says_why_it_cannot_run(server):
    holder = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    holder.bind(("127.0.0.1", server.answer_port))
    result = subprocess.run(command(server), stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=PATIENCE)
    holder.close()
    assert result.returncode == 2
    assert "another monitor may be running" in result.stderr and "--agent" in result.stderr


def test_where_an_agent_runs_it_is_asked_and_the_server_itself_when_it_has_ended(server, tmp_path):
    agent = Agent(server, tmp_path).start()
    agent.wait_value("server", "answers")
    process = subprocess.Popen(command(server), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
    output = Output(process.stdout.fileno())
    output.wait_for("state: 16 DISARMED\n")
    server.status["BU_STATE"] = "17"
    server.push()
    output.wait_for("state: 17 ARMED (was 16 DISARMED)\n")
    agent.stop()
    server.status["BU_STATE"] = "4"
    output.wait_for("state: 4 FAILED (was 17 ARMED)\n")
    process.terminate()
    assert end_of(process, output) == 0
    process.stdout.close()


def test_a_command_through_an_agent_that_only_watches_is_refused_in_words(server, tmp_path):
    with Agent(server, tmp_path) as agent:
        agent.wait_value("server", "answers")
        process, master = under_terminal(command(server))
        output = Output(master)
        output.wait_for("q quit")
        os.write(master, b"dy")
        output.wait_for("DISARM was not sent: this agent only watches")
        os.write(master, b"q")
        assert end_of(process, output) == 0
        os.close(master)


def test_a_command_through_an_agent_that_may_control_reaches_the_server(server, tmp_path):
    with Agent(server, tmp_path, "--allow-control") as agent:
        agent.wait_value("server", "answers")
        process, master = under_terminal(command(server))
        output = Output(master)
        output.wait_for("q quit")
        os.write(master, b"dy")
        output.wait_for("DISARM was sent")
        wait_for(lambda: b"DISARM" in server.asked)
        os.write(master, b"q")
        assert end_of(process, output) == 0
        os.close(master)
