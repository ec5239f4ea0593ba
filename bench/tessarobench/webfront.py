"""The bench's own page over HTTP: controls, the packets as they cross, the capture. For this machine alone."""

from __future__ import annotations

import contextlib
import json
import os
import socket
import threading
import time
from http import HTTPStatus
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from urllib.parse import urlsplit

from .faults import FAULTS
from .stalls import STALLS
from .webbench import NORMAL, STALL, WebBench

FOLDER = Path(__file__).resolve().parent / "web"
UNIT_PAGE = Path(__file__).resolve().parents[2] / "tools" / "tessaroagent" / "page"
FILES = {"/": (FOLDER / "bench.html", "text/html"), "/bench.css": (FOLDER / "bench.css", "text/css"),
         "/bench.js": (FOLDER / "bench.js", "text/javascript"), "/icon.svg": (UNIT_PAGE / "icon.svg", "image/svg+xml")}
LOCAL = {"localhost", "127.0.0.1"}
PACE_SECONDS, QUIET_SECONDS = 0.1, 2.0


class Handler(BaseHTTPRequestHandler):
    """One request. `bench` is set by `Front`."""

    bench: WebBench
    protocol_version = "HTTP/1.0"
    timeout = 30

    def do_GET(self) -> None:
        if not self._from_here():
            return
        path = urlsplit(self.path).path
        if path in FILES:
            file, kind = FILES[path]
            self._answer(file.read_bytes(), f"{kind}; charset=utf-8")
        elif path == "/bench/state":
            self._json(self._state())
        elif path == "/bench/packets":
            self._packets()
        elif path == "/bench/capture":
            self._capture()
        else:
            self.send_error(HTTPStatus.NOT_FOUND)

    def do_POST(self) -> None:
        """The custom header keeps pages of others out: they could send a form, and not this."""
        if not self._from_here():
            return
        if self.headers.get("X-Bench") != "1":
            self.send_error(HTTPStatus.FORBIDDEN)
            return
        _, _, what, name = (urlsplit(self.path).path.split("/", 3) + ["", "", ""])[:4]
        known = {"fault": {fault.name for fault in FAULTS},
                 "scene": {NORMAL, *self.bench.scenes, *(STALL + stall for stall in STALLS)}}
        if name not in known.get(what, ()):
            self.send_error(HTTPStatus.NOT_FOUND)
        elif what == "scene":
            self.bench.begin(name)
            self._json({"begun": name})
        else:
            reason = self.bench.press(name)
            self._json({"reason": reason}, HTTPStatus.CONFLICT if reason else HTTPStatus.OK)

    def log_message(self, format: str, *args: object) -> None:
        """Requests are not told."""

    # --- answers -------------------------------------------------------------------------------------------------------

    def _from_here(self) -> bool:
        with contextlib.suppress(ValueError):  # what is no name at all
            if urlsplit(f"//{self.headers.get('Host', '')}").hostname in LOCAL:
                return True
        self.send_error(HTTPStatus.FORBIDDEN)
        return False

    def _answer(self, body: bytes, kind: str, status: HTTPStatus = HTTPStatus.OK) -> None:
        self.send_response(status)
        self.send_header("Content-Type", kind)
        self.send_header("Content-Length", str(len(body)))
        self.send_header("Cache-Control", "no-store")
        self.send_header("Content-Security-Policy", "default-src 'self'; frame-src http://127.0.0.1:* http://localhost:*; "
                                                    "frame-ancestors 'none'")
        self.end_headers()
        self.wfile.write(body)

    def _json(self, value: object, status: HTTPStatus = HTTPStatus.OK) -> None:
        self._answer(json.dumps(value).encode(), "application/json", status)

    def _state(self) -> dict:
        faults, outcome = self.bench.faults, self.bench.outcome
        return {"agent": self.bench.agent_port, "playing": self.bench.playing, "stands": faults is not None,
                "outcome": outcome and outcome._asdict(),
                "faults": [{"name": fault.name, "link": fault.link, "what": fault.what, "lasts": bool(fault.state),
                            "on": bool(faults and fault.name in faults.on)} for fault in FAULTS],
                "scenes": [{"name": scene.name, "title": f"the scene: {scene.title}"}
                           for scene in self.bench.scenes.values()],
                "stalls": [{"name": STALL + name, "title": stall.title} for name, stall in STALLS.items() if name != "nothing"]}

    def _packets(self) -> None:
        self.send_response(HTTPStatus.OK)
        self.send_header("Content-Type", "text/event-stream")
        self.send_header("Cache-Control", "no-store")
        self.end_headers()
        last = 0
        try:
            while True:
                items = self.bench.feed.since(last, QUIET_SECONDS)
                last = items[-1]["n"] if items else last
                data = json.dumps({"items": items, "state": self._state()})
                self.wfile.write(f"data: {data}\n\n".encode())
                time.sleep(PACE_SECONDS)  # the peers have their deadlines: what is shown comes in small lots
        except OSError:
            pass  # the reader has gone

    def _capture(self) -> None:
        path = self.bench.capture_path
        if path is None or not path.exists():
            self.send_error(HTTPStatus.CONFLICT, "no installation stands at the moment")
            return
        try:
            with open(path, "rb") as file:
                size = os.fstat(file.fileno()).st_size
                self.send_response(HTTPStatus.OK)
                self.send_header("Content-Type", "application/octet-stream")
                self.send_header("Content-Disposition", 'attachment; filename="bench.pcapng"')
                self.send_header("Content-Length", str(size))
                self.end_headers()
                remaining = size
                while remaining and (chunk := file.read(min(65536, remaining))):
                    self.wfile.write(chunk)
                    remaining -= len(chunk)
        except OSError:
            self.close_connection = True


class Server(ThreadingHTTPServer):
    daemon_threads = True

    def handle_error(self, request: object, client_address: object) -> None:
        """A reader that has gone in the middle is nothing to tell."""


class Front:
    """Serves on `listening`, which it takes over, from construction to `close`."""

    def __init__(self, bench: WebBench, listening: socket.socket):
        self._server = Server(listening.getsockname(), type("BenchHandler", (Handler,), {"bench": bench}),
                              bind_and_activate=False)
        self._server.socket.close()
        self._server.socket = listening
        self._server.server_name, self._server.server_port = listening.getsockname()
        self._thread = threading.Thread(target=self._server.serve_forever, name="front", daemon=True)
        self._thread.start()

    def close(self) -> None:
        self._server.shutdown()
        self._server.server_close()
