"""The board by itself, with small scripts in the place of the server: what the other tests stand on."""

import os
import signal
import socket
import subprocess
import time

import pytest

from tessarobench.loop import Loop, WaitTimeout

pytestmark = pytest.mark.real_time("what stands in the place of the server takes no part in virtual time")


def test_relay_follows_the_drive_line_and_moves_the_monitor(scripted):
    board = scripted("open('/sys/class/gpio/gpio37/value', 'w').write('1')\nprint('done')\nimport time; time.sleep(60)")
    board.server.start()
    board.wait_for(lambda: board.relay.closed)
    monitor = board.on_board(lambda: open("/sys/class/gpio/gpio38/value", encoding="ascii").read())
    assert monitor == "0\n"
    board.relay.power_off()
    board.wait_for(lambda: not board.relay.closed)


def test_a_welded_contact_stays_closed_and_a_dead_coil_never_closes(scripted):
    board = scripted("import time\nopen('/sys/class/gpio/gpio37/value', 'w').write('1')\n"
                     "while open('/sys/class/gpio/gpio38/value').read(1) != '0': time.sleep(0.01)\n"
                     "open('/sys/class/gpio/gpio37/value', 'w').write('0')\nprint('done')")
    board.relay.welded = True
    board.server.start().wait_exit()
    board.wait_for(lambda: board.relay.driven == "0")
    assert board.relay.closed

    other = scripted("open('/sys/class/gpio/gpio37/value', 'w').write('1')")
    other.relay.dead_coil = True
    other.server.start().wait_exit()
    other.wait_for(lambda: other.relay.driven == "1")
    assert not other.relay.closed


def test_log_lines_are_split_from_their_time_stamps(scripted):
    board = scripted("print('20220327 17:52:59.123 - one - two'); print('no stamp'); print('cut', end='')")
    board.server.start().wait_exit()
    assert [tuple(line) for line in board.server.log] == [
        ("20220327 17:52:59.123", "one - two"), ("", "no stamp"), ("", "cut")]


def test_exit_status_signal_and_restart(scripted):
    board = scripted("import time; print('up'); time.sleep(60)")
    board.server.start().wait_log("up")
    board.server.kill()
    assert board.server.exit_status == -signal.SIGKILL
    board.server.start().wait_log("up")
    assert board.server.stop() == -signal.SIGTERM
    assert not board.server.running


def test_the_uart_carries_lines_both_ways_and_survives_a_restart(scripted):
    board = scripted("import os, tty\nuart = os.open('/dev/ttymxc0', os.O_RDWR | os.O_NOCTTY)\n"
                     "os.write(uart, b'\\x82hello\\x0a'); print('got', os.read(uart, 100)); os.read(uart, 1)")
    far_end = board.serial()
    for _ in range(2):
        board.server.start()
        os.set_blocking(far_end, True)
        assert line_of(far_end) == b"\x82hello\x0a"
        os.write(far_end, b"\x82\x00back\x0a")
        board.server.wait_log(r"got b'\x82\x00back\n'")
        board.server.kill()
    os.close(far_end)


def line_of(descriptor):
    line = b""
    while not line.endswith(b"\n"):
        line += os.read(descriptor, 100)
    return line


def test_peers_reach_the_board_over_both_interfaces_and_boards_do_not_meet(scripted):
    script = ("import socket, time\n"
              "for host in '10.42.20.1', '192.168.32.1':\n"
              "    s = socket.create_server((host, 7777)); print('listening', host)\n"
              "    s.settimeout(60); c, _ = s.accept(); c.sendall(b'hello'); c.close(); s.close()\n")
    boards = [scripted(script), scripted(script)]
    for board in boards:
        board.server.start()
    for board in boards:
        for interface in (board.eth0, board.wlan0):
            board.server.wait_log(f"listening {interface.host}")
            with board.peer_socket() as peer:
                peer.settimeout(60)
                peer.connect((interface.host, 7777))
                assert peer.recv(10) == b"hello"
        assert board.server.wait_exit() == 0


def test_multicast_crosses_eth0(scripted):
    board = scripted("")
    listener = board.peer_socket(socket.SOCK_DGRAM)
    listener.bind(("", 5825))
    listener.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                        socket.inet_aton("239.255.42.20") + socket.inet_aton(board.eth0.far_host))
    listener.settimeout(60)
    with board.local_socket(socket.SOCK_DGRAM) as sender, listener:
        sender.sendto(b"to all", ("239.255.42.20", 5825))
        data, source = listener.recvfrom(100)
    assert data == b"to all" and source[0] == "10.42.20.1"


def test_interfaces_go_down_and_up_and_change_their_address(scripted):
    board = scripted("")

    def state():
        return board.on_board(lambda: subprocess.run(["ip", "-4", "-o", "addr", "show", "dev", "eth0", "up"],
                                                     capture_output=True, text=True, check=False).stdout)
    assert "10.42.20.1/24" in state()
    board.eth0.down()
    assert state() == ""
    board.eth0.up()
    board.eth0.change_address("10.42.20.9/24")
    assert "10.42.20.9/24" in state()
    board.eth0.remove_address()
    assert state() == ""


def test_nothing_outside_the_board_is_touched(scripted):
    homes, devices = os.listdir("/home"), os.path.exists("/dev/ttymxc0")
    board = scripted("")
    assert os.listdir("/home") == homes and os.path.exists("/dev/ttymxc0") == devices
    assert board.on_board(os.listdir, "/home") == ["root"]


def test_figures_of_the_process(scripted):
    board = scripted("import time; print('up'); time.sleep(60)")
    board.server.start().wait_log("up")
    usage = board.server.usage()
    assert usage.threads == 1 and usage.resident_bytes > 1_000_000 and usage.descriptors >= 3


def test_laying_a_board_is_cheap(scripted):
    """Measured without the copy of the binary; several tests run beside this one, so the bound is a generous one, and it is
    enough that one of a few boards keeps it."""
    assert any(scripted("").laid_in < 1.0 for _ in range(8))


# --- the loop ----------------------------------------------------------------------------------------------------------


@pytest.fixture
def loop():
    made = Loop()
    yield made
    made.stop()


def test_a_condition_that_fails_to_come_says_which(loop):
    loop.describe = lambda: "the last events"
    with pytest.raises(WaitTimeout, match="not within 0.01 s: the moon\nthe last events"):
        loop.wait_for(lambda: False, 0.01, "the moon")


def test_an_exception_in_a_callback_is_raised_where_one_waits(loop):
    loop.post(lambda: 1 / 0)
    with pytest.raises(ZeroDivisionError):
        loop.wait_for(lambda: False)
    loop.wait_for(lambda: True)  # and once only


def test_calls_return_results_and_raise_exceptions(loop):
    assert loop.call(lambda: (loop.on_thread, None)) == (True, None)
    with pytest.raises(KeyError):
        loop.call({}.__getitem__, "x")


def test_timers_run_in_order_and_can_be_cancelled(loop):
    seen = []

    def arrange():
        loop.later(0.02, lambda: seen.append("late"))
        loop.later(0.01, lambda: seen.append("early"))
        loop.later(0.0, lambda: seen.append("never")).cancel()
        ticker = loop.every(0.005, lambda: seen.append("tick") if seen.count("tick") < 3 else ticker.cancel())

    loop.call(arrange)
    loop.wait_for(lambda: "late" in seen and seen.count("tick") == 3)
    assert "never" not in seen and seen.index("early") < seen.index("late")


def test_polling_conditions_need_no_event(loop):
    until = time.monotonic() + 0.05
    loop.wait_for(lambda: time.monotonic() > until, poll=0.01)
