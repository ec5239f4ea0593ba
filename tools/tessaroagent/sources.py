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


class Interface:
    """The two ports of the server's interface. The port of the answers is this program's alone; whoever else wants the
    answers gets copies on the ports in `forward`."""

    def __init__(self, unit, request_port, answer_port, interval, forward=()):
        self._unit, self._request, self._answer = unit, (LOOPBACK, request_port), (LOOPBACK, answer_port)
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
            self._unit.refused(time.time())
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
                self._unit.refused(time.time())
                continue
            self._unit.datagram(data, time.time(), time.monotonic())
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

    def __init__(self, unit, source, is_file, seen):
        self._unit, self._source, self._is_file, self._seen = unit, source, is_file, seen
        self._process = None

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
        try:
            command = await (self._earlier_of_file() if self._is_file else self._earlier_of_journal())
            self._process = await asyncio.create_subprocess_exec(
                *command, stdin=asyncio.subprocess.DEVNULL, stdout=asyncio.subprocess.PIPE,
                stderr=asyncio.subprocess.DEVNULL, limit=CHUNK)
        except OSError as error:
            return error.strerror or str(error)
        self._unit.problem("log", None)
        self._unit.log_followed = True
        try:
            await self._read(self._process.stdout)
        finally:
            self._unit.log_followed = False
            self.close()
        return None

    def close(self):
        if self._process and self._process.returncode is None:
            try:
                self._process.kill()
            except ProcessLookupError:
                pass

    async def _earlier_of_file(self):
        size = os.path.getsize(self._source)
        with open(self._source, "rb") as file:
            file.seek(max(0, size - EARLIER_BYTES))
            text = file.read(size - file.tell())
        self._earlier(text[:text.rfind(b"\n") + 1])
        whole = size - (len(text) - (text.rfind(b"\n") + 1))
        return ["tail", "-c", f"+{whole + 1}", "-F", self._source]

    async def _earlier_of_journal(self):
        command = ["journalctl", "--unit", self._source, "--output", "cat"]
        process = await asyncio.create_subprocess_exec(
            *command, "--lines", str(EARLIER_LINES), "--no-pager", "--show-cursor", stdin=asyncio.subprocess.DEVNULL,
            stdout=asyncio.subprocess.PIPE, stderr=asyncio.subprocess.PIPE)
        text, complaint = await process.communicate()
        if process.returncode or b"permission" in complaint or b"not seeing messages" in complaint:
            said = complaint.decode("utf-8", "replace").strip().splitlines()
            raise OSError(errno.EACCES, said[0][:200] if said else f"journalctl ended with {process.returncode}")
        lines, cursor = self._without_cursor(text)
        self._earlier(lines)
        return [*command, "--follow", *(["--after-cursor", cursor] if cursor else ["--lines", "0"])]

    @staticmethod
    def _without_cursor(text):
        head, _, cursor = text.rpartition(b"-- cursor: ")
        return (head, cursor.decode("ascii", "replace").strip()) if head or cursor != text else (text, "")

    def _earlier(self, text):
        for raw in Lines().feed(text):
            stamp, line = split_line(raw)
            when = moment(stamp)
            if when is not None and self._seen is not None and when > self._seen:
                self._unit.log_line(line, when, time.monotonic())
            else:
                self._unit.log_state(line, when or time.time())
        self._seen = time.time()

    async def _follow_stdin(self):
        reader = asyncio.StreamReader(limit=CHUNK)
        await asyncio.get_running_loop().connect_read_pipe(lambda: asyncio.StreamReaderProtocol(reader), sys.stdin)
        self._unit.log_followed = True
        await self._read(reader)
        self._unit.log_followed = False
        self._unit.problem("log", "the standard input has ended")

    async def _read(self, reader):
        lines = Lines()
        while chunk := await reader.read(CHUNK):
            for raw in lines.feed(chunk):
                self._seen = time.time()
                self._unit.log_line(split_line(raw)[1], self._seen, time.monotonic())
            await asyncio.sleep(0)


class Relay:
    """The two GPIO lines: what the relay was told (line 37: 1 closes) and what its contact does (line 38: 0 is closed)."""

    def __init__(self, unit, folder):
        self._unit = unit
        self._drive, self._monitor = folder / "gpio37/value", folder / "gpio38/value"
        self._apart_since = None

    async def run(self):
        while True:
            self.look(time.time(), time.monotonic())
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
    """The server's process, the connections of remote units, the clock."""

    def __init__(self, unit, program, proc):
        self._unit, self._proc = unit, proc
        self._process = figures.ServerProcess(program, proc)
        self._offset, self._jumped = time.time() - time.monotonic(), None

    async def run(self):
        while True:
            self.look()
            await asyncio.sleep(FIGURES_SECONDS)

    def look(self):
        now, tick = time.time(), time.monotonic()
        self._unit.figures(self._process.figures(), now)
        self._unit.units(figures.unit_connections(self._proc), now)
        self._clock(now, tick)
        self._unit.check(now, tick)

    def _clock(self, now, tick):
        jump = now - tick - self._offset
        if abs(jump) > JUMP_SECONDS:
            self._jumped = tick
            self._unit.clock_jumped(jump, now)
        elif self._jumped is not None and tick - self._jumped > JUMP_SHOWN_SECONDS:
            self._jumped = None
            self._unit.problem("clock", None)
        self._offset = now - tick  # a clock that is slewed does not jump
