"""An agent that says what a test wants, when the test wants it: the page's files, a status, a history, and streams of events."""
import json
import queue
import sys
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path

TOOLS = Path(__file__).resolve().parents[2] / "tools"
sys.path.insert(0, str(TOOLS))

from tessaroagent.logbook import Logbook  # noqa: E402
from tessaroagent.unit import Unit  # noqa: E402
from tessaroagent.web import FOLDER, PAGE_FILES  # noqa: E402

BEAT = {"healthy": True, "problems": [], "age": 0.1, "stale": [], "log": True, "process": None, "restarts": 0,
        "link_losses": 0, "refusals": 0}
BEAT_SECONDS = 1.0
END = None
NOTHING = "no answer at all, however often it is asked"


class Handler(BaseHTTPRequestHandler):
    """One request. `agent` is set by `AgentDouble`."""

    protocol_version = "HTTP/1.1"

    def do_GET(self):
        agent, path = self.server.agent, self.path.partition("?")[0]
        agent.asked.append(path)
        if agent.ended.is_set():  # this connection was opened before
            self.close_connection = True
        elif path in PAGE_FILES:
            name, kind = PAGE_FILES[path]
            self.answer(200, (FOLDER / name).read_bytes(), kind)
        elif path == "/api/status":
            self.answer(200, json.dumps(agent.snapshot()).encode())
        elif path == "/api/history":
            agent.history_may_go.wait(20)
            self.answer(agent.history_status, json.dumps(agent.past).encode())
        elif path == "/api/events":
            self.events()
        else:
            self.answer(404, b"")

    def do_POST(self):
        agent = self.server.agent
        agent.posted.append((self.path, json.loads(self.rfile.read(int(self.headers["Content-Length"])))))
        if agent.answers == [NOTHING]:
            self.close_connection = True
        else:
            status, body = agent.answers.pop(0)
            self.answer(status, body.encode())

    def answer(self, status, body, kind="application/json"):
        self.send_response(status)
        self.send_header("Content-Type", kind)
        self.send_header("Content-Length", str(len(body)))
        self.send_header("Cache-Control", "no-store")
        self.end_headers()
        self.wfile.write(body)

    def events(self):
        agent = self.server.agent
        if agent.deaf_streams:
            agent.deaf_streams -= 1
            agent.ended.wait(60)
            return
        self.close_connection = True
        self.send_response(200)
        self.send_header("Content-Type", "text/event-stream")
        self.end_headers()
        mine = queue.Queue()
        try:
            self.wfile.write(b"retry: 200\n\n" + event("status", agent.snapshot()))
            agent.streams.append(mine)
            while (text := self.next(mine)) is not END:
                self.wfile.write(text)
        except OSError:
            pass  # the page has gone
        if mine in agent.streams:
            agent.streams.remove(mine)

    def next(self, mine):
        while True:
            try:
                return mine.get(timeout=BEAT_SECONDS)
            except queue.Empty:
                if self.server.agent.beats:
                    return event("beat", self.server.agent.beat())

    def log_message(self, format, *args):
        """Requests are not told."""


def event(name, data, number=None):
    head = f"id: {number}\n" if number is not None else ""
    return f"{head}event: {name}\ndata: {json.dumps(data)}\n\n".encode()


class AgentDouble:
    """Serves from construction to `close`. `values` are the unit's; `past` is what /api/history gives."""

    def __init__(self, **values):
        self.told = []
        self.unit = Unit(Logbook(""), self.told.append)
        self.now = time.time()
        self.began, self.number = 1.0, 0
        self.more, self.actions = dict(BEAT), {}
        self.past = {"since": self.now - 3600, "before": [], "changes": []}
        self.streams, self.asked, self.posted, self.answers = [], [], [], []
        self.history_may_go, self.history_status = threading.Event(), 200
        self.history_may_go.set()
        self.ended, self.beats, self.deaf_streams = threading.Event(), True, 0
        for key, value in {"server": "answers", "relay": "closed", "link": "RUN", "BU_ID": "400", **values}.items():
            self.unit.set(key, value, self.now - 10)
        self._server = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self._server.daemon_threads = True
        self._server.agent = self
        self.port = self._server.server_address[1]
        threading.Thread(target=self._server.serve_forever, daemon=True).start()

    def beat(self):
        return {"time": time.time(), **self.more}

    def snapshot(self):
        return {"values": self.unit.snapshot(), "id": self.number, "began": self.began, "control": bool(self.actions),
                "actions": self.actions, **self.beat()}

    def change(self, key, value, when=None, **more):
        """What the agent would tell of a change that it knows now; not told yet."""
        self.unit.values.pop(key, None)
        self.unit.set(key, value, when or time.time())
        self.number += 1
        return {"id": self.number, **self.told[-1], **more}

    def say(self, name, data, number=None):
        for stream in list(self.streams):
            stream.put(event(name, data, number))

    def say_changes(self, *changes):
        text = b"".join(event("change", change, change["id"]) for change in changes)
        for stream in list(self.streams):
            stream.put(text)

    def cut(self):
        """Ends every stream, as a network does that was away."""
        for stream in list(self.streams):
            stream.put(END)

    def close(self):
        self.ended.set()
        self.cut()
        self.history_may_go.set()
        self._server.shutdown()
        self._server.server_close()
