"""Command line, and the one event loop of the agent."""
import argparse
import asyncio
import gc
import logging
import os
import signal
import socket
import sys
import time
from pathlib import Path

from aiohttp import web

from .fields import FALLBACK, LINK, SERVER
from .figures import PROGRAM
from .guard import Guard, is_loopback, read_token
from .history import History
from .hub import Hub, encoded
from .logbook import Logbook
from .metrics import Metrics
from .sources import Clock, Interface, Log, Relay, Surroundings
from .unit import Unit
from .web import PAGE_FILES, Control, Web, dumped

PORT = 6252
SAVE_SECONDS = 30.0
SHUTDOWN_SECONDS = 1.0
IDLE_SECONDS = 20.0
MOST_CONNECTIONS = 600
HISTORY_FILE = "history.jsonl"
FIRST_INHERITED = 3  # as service managers hand sockets over
HERE = Path(__file__).resolve().parent
HANDBOOKS = (HERE / "operations.md", HERE.parents[1] / "docs" / "operations.md")

log = logging.getLogger("tessaro-agent")


def handbook():
    """The operator's handbook as it was installed, or as it lies in the tree."""
    for path in HANDBOOKS:
        try:
            return path.read_text(encoding="utf-8")
        except OSError:
            continue
    log.warning("no operations.md: lines of the log get no plain words")
    return ""


class Agent:
    def __init__(self, options, token):
        self._options = options
        self._logbook = Logbook(handbook())
        self._history, self._hub = History(), Hub()
        self._unit = Unit(self._logbook, self.tell)
        self._state = options.state and str(Path(options.state) / HISTORY_FILE)
        written = self._history.load(self._state, time.time()) if self._state else None
        self._seen = written and min(written, time.time())
        if written == self._seen:  # else the clock was another one, and nobody can tell whether the server is the same
            self._remember()
        self._unit_sources(options, written)
        guard = Guard(token, {*PAGE_FILES, "/api/session"}, options.frame_from)
        control = Control(options.allow_control, self._command, self.tell)
        self._web = Web(self._unit, self._hub, self._history, Metrics(self._unit, self._hub, self._logbook), guard, control)
        self._first_seen = {}

    def _remember(self):
        for key in (LINK, FALLBACK):
            known = self._history.newest(key)
            if known:
                self._unit.remember(key, known["new"], known["time"])

    def _unit_sources(self, options, written):
        program, clock = options.root / PROGRAM / PROGRAM, Clock(self._unit)
        self._interface = Interface(self._unit, clock, options.request_port, options.answer_port, options.interval,
                                    options.forward)
        self._sources = [self._interface, Relay(self._unit, clock, options.gpio),
                         Surroundings(self._unit, clock, program, options.proc)]
        self._log = None
        if not options.no_log:
            self._log = Log(self._unit, clock, options.log or options.journal, bool(options.log), written)
            self._sources.append(self._log)

    def _command(self, word):
        """@return whether it was sent. A server that stands still would obey when nobody expects it any more."""
        return self._unit.values.get(SERVER) == "answers" and self._interface.send(word)

    def tell(self, change):
        """Everything that happens comes through here: into the history, and to those who watch."""
        if "problems" in change:
            self._hub.broadcast(encoded("beat", dumped(self._web.beat())))
            return
        if "jump" in change:
            self._history.move(change["jump"])
        data = self._history.add(change)
        self._hub.broadcast(encoded("change", data, self._history.next_id - 1))

    # --- life ------------------------------------------------------------------------------------------------------------

    async def run(self):
        loop, ended = asyncio.get_running_loop(), asyncio.Event()
        for number in (signal.SIGTERM, signal.SIGINT):
            loop.add_signal_handler(number, ended.set)
        runner = web.AppRunner(self._web.application(), access_log=None, keepalive_timeout=15)
        await runner.setup()
        await self._site(runner).start()
        self.tell({"key": "agent", "time": time.time(), "words": "watching begins", "level": "note", "last": self._seen})
        works = [self._watched(source.run()) for source in self._sources]
        works += [self._watched(work) for work in (self._web.beat_for_ever(), self._keep(), self._sweep(runner))]
        gc.collect()
        gc.freeze()
        print(f"tessaro-agent: listening on {self._where()}", flush=True)
        await ended.wait()
        for work in works:
            work.cancel()
        self._interface.close()
        self._hub.close()
        await runner.cleanup()
        if self._log:
            self._log.close()
        self._save()

    def _site(self, runner):
        if self._options.inherited:
            return web.SockSite(runner, self._options.inherited, shutdown_timeout=SHUTDOWN_SECONDS)
        return web.TCPSite(runner, *self._options.listen, shutdown_timeout=SHUTDOWN_SECONDS)

    def _where(self):
        return "%s port %d" % (self._options.listen[:2])

    @staticmethod
    def _watched(work):
        """A task whose failure ends the program: the service manager starts it anew, and nothing is half alive."""
        task = asyncio.ensure_future(work)

        def ended(done):
            if not done.cancelled() and done.exception():
                log.critical("%s", done.exception(), exc_info=done.exception())
                os._exit(1)
        task.add_done_callback(ended)
        return task

    async def _keep(self):
        while True:
            self._save()
            await asyncio.sleep(SAVE_SECONDS)

    def _save(self):
        if not self._state:
            return
        try:
            self._history.save(self._state, time.time())
            self._unit.problem("history", None)
        except OSError as error:
            self._unit.problem("history", error.strerror or str(error))

    async def _sweep(self, runner):
        """Ends connections that ask for nothing, or are too many: no crowd of them can take the memory."""
        while True:
            await asyncio.sleep(self._options.idle / 4)
            tick, watching = time.monotonic(), {client.transport for client in self._hub.clients}
            standing = list(runner.server.connections)
            self._first_seen = {connection: tick if connection.transport in self._hub.giving else
                                self._first_seen.get(connection, tick) for connection in standing}
            idle = [connection for connection in standing if connection.transport not in watching
                    and (tick - self._first_seen[connection] > self._options.idle or len(standing) > MOST_CONNECTIONS)]
            for connection in idle:
                if connection.transport:
                    connection.transport.abort()


def address(text):
    host, separator, port = text.rpartition(":")
    if not separator or not port.isdigit() or int(port) > 65535:
        raise argparse.ArgumentTypeError(f"'{text}' is no ADDRESS:PORT")
    return host.strip("[]"), int(port)


def seconds(text):
    try:
        value = float(text)
    except ValueError:
        value = 0.0
    if not 0.1 <= value <= 3600:
        raise argparse.ArgumentTypeError(f"'{text}' is no number of seconds from 0.1 to 3600")
    return value


def arguments():
    parser = argparse.ArgumentParser(prog="tessaro-agent", description=(
        "Watch a Tessaro base unit, and tell over HTTP: a page for people (/), /api/status, /api/events, /api/history, "
        "/healthz, and /metrics for Prometheus. It owns UDP port 6251, to which the server answers."))
    parser.add_argument("--listen", type=address, default=("127.0.0.1", PORT), metavar="ADDRESS:PORT",
                        help=f"where HTTP is served (default: 127.0.0.1:{PORT}); beyond loopback a token is needed")
    parser.add_argument("--token-file", type=Path, metavar="FILE", help="the token that everybody must know who asks")
    parser.add_argument("--allow-control", action="store_true",
                        help="let those who may ask disarm, reset the external controller's link and reload the configuration")
    parser.add_argument("--journal", default="tessaroserver", metavar="UNIT",
                        help="follow the journal of this systemd unit (default: %(default)s)")
    parser.add_argument("--log", metavar="FILE", help="follow a log file in place of the journal (- is the standard input)")
    parser.add_argument("--no-log", action="store_true", help="follow no log")
    parser.add_argument("--state", default=os.environ.get("STATE_DIRECTORY"), metavar="FOLDER",
                        help="keep the history here (default: the service manager's state folder, if any)")
    parser.add_argument("--interval", type=seconds, default=5.0, metavar="S",
                        help="ask the server every S seconds (default: 5); changes it tells by itself, and each question is "
                             "two lines in its log")
    parser.add_argument("--forward", type=int, action="append", default=[], metavar="PORT",
                        help="send copies of the server's answers to this local UDP port, too (may be given more than once)")
    parser.add_argument("--root", type=Path, default=Path("/home/root/Applications"), metavar="FOLDER",
                        help="the folder of the applications (default: %(default)s)")
    for hidden, kind, default in (("--gpio", Path, Path("/sys/class/gpio")), ("--proc", Path, Path("/proc")),
                                  ("--request-port", int, 6250), ("--answer-port", int, 6251), ("--frame-from", str, None),
                                  ("--idle", float, IDLE_SECONDS)):
        parser.add_argument(hidden, type=kind, default=default, help=argparse.SUPPRESS)
    return parser


def inherited_socket():
    """The listening socket that a service manager hands over, or None."""
    if os.environ.get("LISTEN_FDS") != "1" or os.environ.get("LISTEN_PID", str(os.getpid())) != str(os.getpid()):
        return None
    inherited = socket.socket(fileno=FIRST_INHERITED)
    inherited.setblocking(False)
    return inherited


def main():
    parser = arguments()
    options = parser.parse_args()
    logging.basicConfig(format="tessaro-agent: %(message)s", level=logging.WARNING)
    options.inherited = inherited_socket()
    if options.inherited:
        options.listen = options.inherited.getsockname()
    token = None
    if options.token_file:
        try:
            token = read_token(options.token_file)
        except (OSError, ValueError) as error:
            parser.error(f"{options.token_file}: {error}")
    elif not is_loopback(options.listen[0]):
        parser.error("beyond loopback a token is needed: --token-file FILE")
    try:
        asyncio.run(Agent(options, token).run())
    except OSError as error:
        print(f"tessaro-agent: {error.strerror or error}", file=sys.stderr)
        return 2
    return 0
