"""The ways in which the process is ended from outside, and what the relay does then."""

import signal
import subprocess
import sys

import pytest

# As fast as the server reads them, and much faster than it reloads.
RELOADS = """
import socket, sys, time
asking = socket.socket(fileno=int(sys.argv[1]))
for _ in range(400):
    for _ in range(50):
        asking.sendto(b"CCHANGE", ("127.0.0.1", 6250))
    time.sleep(0.004)
"""


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_orderly_end(running, number):
    running.wait_for(lambda: running.relay.closed)
    running.server.signal(number)
    assert running.server.wait_exit(5) == 0
    running.wait_for(lambda: not running.relay.closed)


def test_orderly_end_before_the_link_came_up(bench):
    bench.start()
    bench.wait_for(lambda: bench.relay.closed)
    assert bench.server.stop() == 0
    bench.wait_for(lambda: not bench.relay.closed)


def test_orderly_end_while_the_line_is_busy(running):
    """Images pour in and nobody takes what the server writes; it must still come to its end in time."""
    running.bc.send_every(0.002, lambda: (101, bytes(running.bc.image)))
    running.bc.deaf = True
    running.wait_for(lambda: running.server.logged("Internal link fail!!!!!!!!"))
    assert running.server.stop(3) == 0


def test_end_after_more_requests_than_can_be_served(running):
    """Somebody asks for a new configuration far more often than it can be read: the process ends in time and in order."""
    with running.local_socket() as asking:
        subprocess.run([sys.executable, "-c", RELOADS, str(asking.fileno())], pass_fds=[asking.fileno()], check=True)
    running.server.signal(signal.SIGTERM)
    running.wait_for(lambda: not running.relay.closed)
    assert running.server.wait_exit(5) == 0


def test_a_broken_pipe_is_survived(running):
    running.server.signal(signal.SIGPIPE)
    assert running.api.get()
    assert running.server.running


def test_killed_the_hard_way_the_drive_line_stays_as_it_was(running):
    """Nobody is left to open the relay: said plainly, as people rely on what watches the process."""
    running.wait_for(lambda: running.relay.closed)
    running.server.kill()
    assert running.relay.driven == "1" and running.relay.closed
    mark = running.journal.mark()
    running.start()
    running.server.wait_log("RUN", whole=True)
    assert running.journal.count(link="gpio", kind="drive", since=mark) == 0


def test_stopped_and_continued(running):
    """While the process is stopped its peers hear nothing; afterwards the link recovers by itself."""
    running.server.pause()
    sending = running.bc.set(tsaps=9)
    running.wait_for(lambda: sending.failed)
    running.server.resume()
    running.show_tsaps(7)
