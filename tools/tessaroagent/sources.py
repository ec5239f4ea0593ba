"""Where the agent's knowledge comes from. Each source is a coroutine that runs for ever and feeds the unit; what it cannot
reach becomes a problem that ends by itself when the thing is there again."""
import asyncio
import errno
import os
import socket
import sys
import time

from . import figures
from .logbook import split_line

LOOPBACK = "127.0.0.1"
AGAIN_SECONDS = 2.0
EAGER_SECONDS = 1.0
RELAY_SECONDS = 0.4
SETTLE_SECONDS = 1.0
FIGURES_SECONDS = 2.0
JUMP_SECONDS, JUMP_SHOWN_SECONDS = 2.0, 600.0
LARGEST_DATAGRAM = 65536
MOST_AT_ONCE = 64
LONGEST_LINE = 8192
CHUNK = 65536
EARLIER_LINES = 2000
EARLIER_BYTES = 512 << 10
ENDED_SECONDS = 5.0
FIRST_SECONDS, QUIET_SECONDS = 10.0, 1.0  # for the first line, and between two, of what stands in the journal


class Clock:
    """The unit's wall clock, for all sources together: before anybody uses a time of behind a jump, the unit knows of it."""

    def __init__(self, unit):
        self._unit = unit
        self._offset, self._jumped = time.time() - time.monotonic(), None

    def now(self):
        now, tick = time.time(), time.monotonic()
        jump = now - tick - self._offset
        self._offset = now - tick  # a clock that is slewed does not jump
        if abs(jump) > JUMP_SECONDS:
            self._jumped = tick
            self._unit.clock_jumped(jump, now)
        elif self._jumped is not None and tick - self._jumped > JUMP_SHOWN_SECONDS:
            self._jumped = None
            self._unit.problem("clock", None)
        return now


class Interface:
    """The two ports of the server's interface. The port of the answers is this program's alone; whoever else wants the
    answers gets copies on the ports in `forward`."""

    def __init__(self, unit, clock, request_port, answer_port, interval, forward=()):
        self._unit, self._clock = unit, clock
        self._request, self._answer = (LOOPBACK, request_port), (LOOPBACK, answer_port)
        self._interval, self._forward = interval, [(LOOPBACK, port) for port in forward]
        self._socket = self._copies = None

    async def run(self):
        while self._socket is None:
            if not self._open():
                await asyncio.sleep(AGAIN_SECONDS)
        asyncio.get_running_loop().add_reader(self._socket, self._readable)
        asked = None
        while True:
            answers = self._unit.values.get("server") == "answers"
            pause = self._interval if answers else min(self._interval, EAGER_SECONDS)
            tick = time.monotonic()
            if asked is None or tick - asked >= pause:
                asked = tick
                self._unit.ask(tick)
                self.send("GET")
            await asyncio.sleep(min(pause, EAGER_SECONDS))

    def send(self, text):
        """@return whether it could be sent."""
        if self._socket is None:
            return False
        try:
            self._socket.send(text.encode())
            return True
        except ConnectionRefusedError:  # the answer to an earlier one
            self._unit.refused(self._clock.now())
        except OSError:
            pass
        return False

    def close(self):
        """Gives the port back."""
        if self._socket:
            asyncio.get_running_loop().remove_reader(self._socket)
            self._socket.close()
            self._copies.close()
            self._socket = None

    def _open(self):
        """Connected, so that only the server's own datagrams come in. Without SO_REUSEADDR: two owners would be none."""
        opened = socket.socket(socket.AF_INET, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
        try:
            opened.bind(self._answer)
            opened.connect(self._request)
        except OSError as error:
            opened.close()
            if error.errno != errno.EADDRINUSE:
                raise
            self._unit.problem("port", str(self._answer[1]))
            return False
        self._unit.problem("port", None)
        self._socket = opened
        self._copies = socket.socket(socket.AF_INET, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
        return True

    def _readable(self):
        for _ in range(MOST_AT_ONCE):
            try:
                data = self._socket.recv(LARGEST_DATAGRAM)
            except BlockingIOError:
                return
            except OSError:
                self._unit.refused(self._clock.now())
                continue
            self._unit.datagram(data, self._clock.now(), time.monotonic())
            for port in self._forward:
                self._pass_on(data, port)

    def _pass_on(self, data, port):
        try:
            self._copies.sendto(data, port)
        except OSError:
            pass  # nobody there at the moment


def moment(stamp):
    """The time of a log line's stamp in local time, or None."""
    try:
        return time.mktime(time.strptime(stamp[:17], "%Y%m%d %H:%M:%S")) + float("0" + stamp[17:])
    except (ValueError, OverflowError):
        return None


class Lines:
    """Cuts chunks into lines; one that is too long keeps its beginning."""

    def __init__(self):
        self._rest = b""

    def feed(self, chunk):
        *lines, rest = (self._rest + chunk).split(b"\n")
        self._rest = rest[:LONGEST_LINE]
        return [line[:LONGEST_LINE].decode("utf-8", "replace").rstrip("\r") for line in lines]


class Log:
    """The server's log: of a systemd unit, of a file, or from the standard input ("-"). What stands there already tells of the
    present, and of what happened since `seen`, the time until which this agent, or the one before it, has watched."""

    def __init__(self, unit, clock, source, is_file, seen):
        self._unit, self._clock, self._source, self._is_file, self._seen = unit, clock, source, is_file, seen
        self._process = None
        self._catching_up, self._began = False, 0.0

    async def run(self):
        if self._source == "-":
            return await self._follow_stdin()
        while True:
            began = time.monotonic()
            reason = await self._follow()
            if reason:
                self._unit.problem("log", reason)
            await asyncio.sleep(AGAIN_SECONDS if time.monotonic() - began < ENDED_SECONDS or reason else 0)

    async def _follow(self):
        """Follows until the source ends; returns why, if it could not be read."""
        self._catching_up, self._began = not self._is_file, self._clock.now()
        try:
            self._process = await asyncio.create_subprocess_exec(
                *(self._earlier_of_file() if self._is_file else self._journal()), stdin=asyncio.subprocess.DEVNULL,
                stdout=asyncio.subprocess.PIPE, stderr=asyncio.subprocess.PIPE, limit=CHUNK)
        except OSError as error:
            return error.strerror or str(error)
        listening = asyncio.ensure_future(self._listen(self._process.stderr))
        try:
            if self._is_file:
                self._followed()
            await self._read(self._process.stdout)
            complaint = await listening
            status = await self._process.wait()
        finally:
            self._unit.follows_log(False)
            listening.cancel()
            self.close()
        return (complaint or f"{'tail' if self._is_file else 'journalctl'} ended with {status}") if status else None

    def _followed(self):
        """What stood there already is known; from now on everything is new."""
        self._catching_up = False
        self._unit.follows_log(True)
        self._unit.problem("log", None)

    async def _listen(self, stderr):
        """What the program complains of; a journal that shows only a part is told, and followed all the same."""
        complaint = (await stderr.read(CHUNK)).decode("utf-8", "replace").strip().split("\n")[0][:200]
        if "permission" in complaint or "not seeing messages" in complaint:
            await asyncio.sleep(2 * QUIET_SECONDS)
            self._unit.problem("log", complaint)
        while await stderr.read(CHUNK):
            pass  # nobody may wait for a reader
        return complaint

    def close(self):
        if self._process and self._process.returncode is None:
            try:
                self._process.kill()
            except ProcessLookupError:
                pass

    def _earlier_of_file(self):
        """Reads what stands there; the command that follows it from there."""
        size = os.path.getsize(self._source)
        with open(self._source, "rb") as file:
            file.seek(max(0, size - EARLIER_BYTES))
            text = file.read(size - file.tell())
        lines = text[:text.rfind(b"\n") + 1]
        for raw in Lines().feed(lines):
            self._earlier(raw)
        return ["tail", "-c", f"+{size - len(text) + len(lines) + 1}", "-F", self._source]

    def _journal(self):
        """One program for what stands there and for what comes: where one ends, time tells (see `_take`). Merged, as it would
        else show the present boot alone, and take another one for it where a container has a boot of its own."""
        return ["journalctl", "--unit", self._source, "--output", "cat", "--merge", "--lines", str(EARLIER_LINES),
                "--follow"]

    def _earlier(self, raw):
        """A line from before: new is only what nobody has seen yet."""
        stamp, line = split_line(raw)
        when = moment(stamp)
        if when is not None and self._seen is not None and when > self._seen:
            self._unit.log_line(line, when, time.monotonic())
        else:
            self._unit.log_state(line, when or self._clock.now())

    def _take(self, raw):
        stamp, line = split_line(raw)
        if self._catching_up:
            when = moment(stamp)
            if when is None or when < self._began:
                self._earlier(raw)
                return
            self._followed()
        self._seen = self._clock.now()
        self._unit.log_line(line, self._seen, time.monotonic())

    async def _follow_stdin(self):
        reader = asyncio.StreamReader(limit=CHUNK)
        await asyncio.get_running_loop().connect_read_pipe(lambda: asyncio.StreamReaderProtocol(reader), sys.stdin)
        self._followed()
        await self._read(reader)
        self._unit.follows_log(False)
        self._unit.problem("log", "the standard input has ended")

    async def _read(self, reader):
        lines, patience = Lines(), FIRST_SECONDS
        while True:
            try:
                chunk = await asyncio.wait_for(reader.read(CHUNK), patience if self._catching_up else None)
                patience = QUIET_SECONDS
            except asyncio.TimeoutError:  # the past has been told, and nothing has come since
                self._followed()
                continue
            if not chunk:
                return
            for raw in lines.feed(chunk):
                self._take(raw)
            await asyncio.sleep(0)


class Relay:
    """The two GPIO lines: what the relay was told (line 37: 1 closes) and what its contact does (line 38: 0 is closed)."""

    def __init__(self, unit, clock, folder):
        self._unit, self._clock = unit, clock
        self._drive, self._monitor = folder / "gpio37/value", folder / "gpio38/value"
        self._apart_since = None

    async def run(self):
        while True:
            self.look(self._clock.now(), time.monotonic())
            await asyncio.sleep(RELAY_SECONDS)

    def look(self, now, tick):
        driven, open_contact = self._level(self._drive), self._level(self._monitor)
        closed = None if open_contact is None else not open_contact
        if driven == closed:
            self._apart_since = None
        elif self._apart_since is None:
            self._apart_since = tick
        self._unit.relay(driven, closed, self._apart_since is not None and tick - self._apart_since >= SETTLE_SECONDS, now)

    @staticmethod
    def _level(path):
        """A line's level as a truth value, or None where it cannot be read."""
        try:
            descriptor = os.open(path, os.O_RDONLY | os.O_CLOEXEC)
        except OSError:
            return None
        try:
            return {b"0": False, b"1": True}.get(os.read(descriptor, 1))
        except OSError:
            return None
        finally:
            os.close(descriptor)


class Surroundings:
    """The server's process and the connections of remote units."""

    def __init__(self, unit, clock, program, proc):
        self._unit, self._clock, self._proc = unit, clock, proc
        self._process = figures.ServerProcess(program, proc)

    async def run(self):
        while True:
            self.look()
            await asyncio.sleep(FIGURES_SECONDS)

    def look(self):
        now = self._clock.now()
        self._unit.figures(self._process.figures(), now)
        self._unit.units(figures.unit_connections(self._proc), now)
        self._unit.check(now, time.monotonic())
