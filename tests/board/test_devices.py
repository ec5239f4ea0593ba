"""The server on the devices of a real kernel: the UART, the relay's lines, and its own life as a process."""

from tessarobench.board import UART

SECONDS = 120  # how long anything may take on a board whose processor is emulated


def stty(bench):
    """The settings of the line as the board's kernel has them, as a set of words."""
    shown = bench.console.run(f"stty -a -F /dev/{UART}")
    return shown, set(shown.replace(";", " ").split())


def drives(bench, since=0):
    return [event.value for event in bench.journal.select("gpio", "<", "drive", since=since)]


def wait_relay(bench, closed):
    bench.wait_for(lambda: bench.relay.closed == closed, SECONDS, f"the relay {'closed' if closed else 'open'}")


# --- the UART ----------------------------------------------------------------------------------------------------------


def test_the_line_has_the_prescribed_settings(running):
    shown, words = stty(running)
    assert "speed 230400 baud" in shown
    assert {"icanon", "cs8", "cread", "clocal", "-parenb", "-cstopb", "-crtscts"} <= words
    assert {"-echo", "-isig", "-iexten", "-icrnl", "-inlcr", "-igncr", "-ixon", "-ixoff", "-istrip", "-inpck",
            "-brkint", "-opost"} <= words
    for character in ("intr", "quit", "erase", "kill", "eof", "eol", "eol2", "start", "stop", "susp"):
        assert f"{character} = <undef>" in shown


def test_the_link_comes_up_and_settings_are_exchanged(running):
    assert running.server.logged("Serial_port_c: Config success") == 1
    assert running.api.get(SECONDS)["BCSR"] == "30201"


def test_the_device_class_that_the_service_may_use_exists(bench):
    """packaging/tessaroserver.service names the UARTs by the name of their class in the kernel."""
    assert " ttymxc\n" in bench.console.run("cat /proc/devices")


def test_settings_are_answered(running):
    sent = [running.bc.ask("SID1"), running.bc.ask("EMAP")]
    running.wait_for(lambda: all(each.done for each in sent), SECONDS)
    assert [each.answer for each in sent] == [b"TZ40", b"7\0\0\0"]


def test_noise_in_front_of_a_frame_is_survived(running):
    running.bc.send_bytes(bytes(range(256)).replace(b"\n", b"") + b"\n")
    asked = running.bc.ask("EMAP")
    running.wait_for(lambda: asked.done, SECONDS)
    assert asked.answer == b"7\0\0\0"


# --- the relay ---------------------------------------------------------------------------------------------------------


def test_the_relay_is_driven_through_the_pins(running):
    wait_relay(running, True)
    assert drives(running)[0] == "1" and running.emulator.pins.output(5)
    assert running.console.run("cat /sys/class/gpio/gpio37/direction /sys/class/gpio/gpio38/direction") == "out\nin\n"
    assert running.console.run("cat /sys/class/gpio/gpio38/value") == "0\n"


def test_a_dead_line_opens_the_relay_and_run_closes_it(running):
    wait_relay(running, True)
    mark = running.journal.mark()
    running.bc.mute()
    wait_relay(running, False)
    assert not running.emulator.pins.output(5)
    running.bc.mute(False)
    wait_relay(running, True)
    driven = drives(running, mark)  # more than once where a busy computer costs the link
    assert (driven[0], driven[-1]) == ("0", "1")


def test_the_monitor_line_follows_what_is_forced_on_it(running):
    wait_relay(running, True)
    running.relay.welded = True
    running.bc.mute()
    running.wait_for(lambda: running.relay.driven == "0", SECONDS)
    assert running.console.run("cat /sys/class/gpio/gpio38/value") == "0\n"  # still closed, though driven open
    running.relay.hold_monitor("1")
    assert running.console.run("cat /sys/class/gpio/gpio38/value") == "1\n"


# --- the process -------------------------------------------------------------------------------------------------------


def test_a_killed_server_comes_up_again_on_lines_that_stayed_exported(running):
    """The relay keeps its state while nobody drives it: that is for the base controller to notice."""
    wait_relay(running, True)
    running.server.kill()
    assert running.relay.closed and running.emulator.pins.output(5)
    assert running.console.run("ls -d /sys/class/gpio/gpio37") == "/sys/class/gpio/gpio37\n"
    running.bc.forget()
    before = running.bc.received["ask"]
    running.server.start()
    running.server.wait_log("RUN", SECONDS, whole=True)
    running.wait_for(lambda: running.bc.received["ask"] > before, SECONDS)


def test_it_ends_when_it_is_asked_to(running):
    assert running.server.stop(SECONDS) == 0
