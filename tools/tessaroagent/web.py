"""What is answered over HTTP."""
import asyncio
import contextlib
import json
import logging
import secrets
import socket
import time
from pathlib import Path

from aiohttp import HttpVersion11, web

from . import fields
from .guard import same
from .hub import PATIENCE_SECONDS, Client, encoded

PAGE_FILES = {"/": ("index.html", "text/html"), "/page.css": ("page.css", "text/css"),
              "/icon.svg": ("icon.svg", "image/svg+xml"),
              **{f"/{name}.js": (f"{name}.js", "text/javascript")
                 for name in ("page", "control", "picture", "strip", "watch", "words")}}
FOLDER = Path(__file__).resolve().parent / "page"
LARGEST_BODY = 4096
BEAT_SECONDS = 2.0
HISTORY_SECONDS, MOST_HISTORY = 3600.0, 2000
CONFIRM_SECONDS = 30.0
STREAM_BUFFER = 64 << 10
LOT = 64  # entries that are written together
LONGEST_NUMBER = 15
METRICS_TYPE = "text/plain; version=0.0.4"

# What may be asked of the server: its word, and what happens then.
ACTIONS = {"disarm": ("DISARM", "The base controller is told to release the armed unit."),
           "reset": ("RESET", "The base controller is told to reset the external controller's link."),
           "reconfigure": ("CCHANGE", "Server and base controller read their configuration again, and all remote units are "
                                      "told.")}

log = logging.getLogger("tessaro-agent")


def dumped(value):
    return json.dumps(value, separators=(",", ":")).encode()


class Control:
    """Nothing happens at the first request: it gives a code, and the second one must bring it within half a minute."""

    def __init__(self, allowed, send, tell):
        self.allowed, self._send, self._tell = allowed, send, tell
        self._offered = {}

    def request(self, action, code, who):
        """(HTTP status, answer) of a request."""
        if not self.allowed:
            raise web.HTTPForbidden(text="this agent only watches (it was started without --allow-control)\n")
        if action not in ACTIONS:
            raise web.HTTPNotFound(text=f"no such action; there are {', '.join(ACTIONS)}\n")
        word, text = ACTIONS[action]
        if code is None:
            code = secrets.token_urlsafe(12)
            self._offered[action] = (code, time.monotonic() + CONFIRM_SECONDS)
            return 202, {"action": action, "confirm": code, "text": text, "seconds": CONFIRM_SECONDS}
        offered, until = self._offered.pop(action, ("", 0.0))
        if not same(code, offered) or time.monotonic() > until:
            raise web.HTTPConflict(text="the confirmation does not fit, or came too late; begin again\n")
        if not self._send(word):
            raise web.HTTPServiceUnavailable(text="the server does not answer: nothing was sent\n")
        log.warning("%s sent to the server, asked for by %s", word, who)
        self._tell({"key": "control", "time": time.time(), "words": f"{word} was sent to the server", "who": who,
                    "level": fields.NOTE})
        return 200, {"action": action, "sent": word}


class Web:
    """The handlers. `unit`, `hub`, `history`, `metrics`, `guard` and `control` do the work."""

    def __init__(self, unit, hub, history, metrics, guard, control):
        self._unit, self._hub, self._history, self._metrics = unit, hub, history, metrics
        self._guard, self._control = guard, control
        self._began = time.time()
        self._files = {path: (FOLDER / name).read_bytes() for path, (name, _) in PAGE_FILES.items()}

    def application(self):
        application = web.Application(middlewares=[self._guard.middleware()], client_max_size=LARGEST_BODY)
        application.router.add_get("/api/status", self.status)
        application.router.add_get("/api/events", self.events, allow_head=False)  # it has no end
        application.router.add_get("/api/history", self.past)
        application.router.add_get("/healthz", self.health)
        application.router.add_get("/metrics", self.figures)
        application.router.add_post("/api/session", self.session)
        application.router.add_post("/api/control/{action}", self.command)
        for path in PAGE_FILES:
            application.router.add_get(path, self.page)
        return application

    # --- answers -------------------------------------------------------------------------------------------------------

    def snapshot(self):
        """All that is known now; `id` is that of the newest change which is in it."""
        return {"values": self._unit.snapshot(), "id": self._history.next_id - 1, "began": self._began,
                "control": self._control.allowed,
                "actions": {name: text for name, (_, text) in ACTIONS.items()} if self._control.allowed else {},
                **self.beat()}

    def beat(self):
        """What changes all the time."""
        unit, tick = self._unit, time.monotonic()
        process = unit.process
        return {"time": time.time(), "healthy": unit.healthy, "problems": list(unit.problems.values()),
                "age": None if unit.pushed is None else round(tick - unit.pushed, 1),
                "stale": unit.stale(), "log": unit.log_followed, "process": process._asdict() if process else None,
                "restarts": unit.restarts, "link_losses": unit.link_losses,
                "refusals": sum(unit.refusals.values())}

    async def page(self, request):
        return web.Response(body=self._files[request.path], content_type=PAGE_FILES[request.path][1], charset="utf-8")

    async def status(self, _request):
        return web.Response(body=dumped(self.snapshot()), content_type="application/json")

    async def health(self, _request):
        unit = self._unit
        body = {"ok": unit.healthy, "server": unit.values.get(fields.SERVER, "unknown"),
                "log": unit.log_followed, "problems": list(unit.problems.values())}
        return web.Response(status=200 if unit.healthy else 503, body=dumped(body), content_type="application/json")

    async def figures(self, _request):
        answer = web.Response(body=self._metrics.text(), headers={"Content-Type": METRICS_TYPE})
        answer.enable_compression()  # for who asks for it: a fleet is scraped over slow networks
        return answer

    async def past(self, request):
        """?seconds=N: how far back (3600); ?after=ID: only what came behind that entry."""
        seconds = self._number(request, "seconds", HISTORY_SECONDS)
        after = int(self._number(request, "after", 0))
        since = time.time() - seconds
        if after:
            before, entries = [], self._history.select(after, since, MOST_HISTORY)
        else:
            before, entries = self._history.past(since, MOST_HISTORY)
        head = b'{"since":%s,"before":[%s],"changes":[' % (dumped(since), b",".join(before))
        return await self._listed(request, head, entries, b"]}")

    async def _listed(self, request, head, entries, foot):
        """A long answer, given as its reader takes it: what a crowd leaves lying must not fill the memory."""
        answer = web.StreamResponse(headers={**self._guard.headers(), "Content-Type": "application/json"})
        answer.content_length = len(head) + sum(map(len, entries)) + max(len(entries) - 1, 0) + len(foot)
        with contextlib.suppress(ConnectionError):
            await answer.prepare(request)
            self._small_buffers(request.transport)
            if request.method == "GET":
                with self._giving(request.transport):
                    await self._give(request, answer, head)
                    for place in range(0, len(entries), LOT):
                        await self._give(request, answer, (b"," if place else b"") + b",".join(entries[place:place + LOT]))
                    await self._give(request, answer, foot)
        return answer

    @contextlib.contextmanager
    def _giving(self, transport):
        """While a long answer is taken at its reader's pace: its connection is not an idle one."""
        self._hub.giving.add(transport)
        try:
            yield
        finally:
            self._hub.giving.discard(transport)

    @staticmethod
    async def _give(request, answer, data):
        """Waits until the reader has taken enough of what is before; one that takes nothing for too long is dropped."""
        try:
            async with asyncio.timeout(PATIENCE_SECONDS):
                await answer.write(data)
        except TimeoutError:
            if request.transport is not None:
                request.transport.abort()
            raise ConnectionResetError from None

    @staticmethod
    def _number(request, name, default):
        try:
            value = float(request.query.get(name, default))
        except ValueError:
            value = -1.0
        if not 0 <= value <= 1e12:
            raise web.HTTPBadRequest(text=f"{name} is a number from 0 on\n")
        return value

    async def session(self, request):
        return await self._guard.open_session(request, (await self._body(request)).get("token", ""))

    async def command(self, request):
        body = await self._body(request)
        status, answer = self._control.request(request.match_info["action"], body.get("confirm"), request.remote or "here")
        return web.Response(status=status, body=dumped(answer), content_type="application/json")

    @staticmethod
    async def _body(request):
        if request.content_type != "application/json":  # which no form of a foreign page can send
            raise web.HTTPUnsupportedMediaType(text="application/json is expected\n")
        try:
            body = json.loads(await request.text())
        except (ValueError, RecursionError, LookupError, web.RequestPayloadError):  # the last two: what it is written or packed in
            body = None
        if not isinstance(body, dict):
            raise web.HTTPBadRequest(text="a JSON object is expected\n")
        return body

    # --- the stream ------------------------------------------------------------------------------------------------------

    async def events(self, request):
        """Everything that changes, as it changes; first of all what is, and what was missed since Last-Event-ID."""
        if not self._hub.has_room():
            raise web.HTTPServiceUnavailable(text="too many watch already\n", headers={"Retry-After": "10"})
        after = request.headers.get("Last-Event-ID", "")
        answer = web.StreamResponse(headers={**self._guard.headers(), "Content-Type": "text/event-stream",
                                             "X-Accel-Buffering": "no"})
        if request.version >= HttpVersion11:
            answer.enable_chunked_encoding()
        with contextlib.suppress(ConnectionError):  # gone before the answer's head was written
            await answer.prepare(request)
            self._small_buffers(request.transport)
            await answer.write(b"retry: 1000\n\n" + encoded("status", dumped(self.snapshot())))
            if after.isascii() and after.isdigit() and len(after) <= LONGEST_NUMBER:
                with self._giving(request.transport):
                    await self._missed(request, answer, int(after))
            await self._watch(Client(request.transport, answer.chunked))
        return answer

    async def _missed(self, request, answer, after):
        """What came behind that entry, and while it was told: as fast as its reader takes it."""
        while missed := self._history.select(after, limit=MOST_HISTORY):
            for data in missed:
                after = json.loads(data)["id"]
                await self._give(request, answer, encoded("change", data, after))

    async def _watch(self, client):
        if not self._hub.has_room():  # others came while this one was told what it had missed
            return
        self._hub.clients.add(client)
        try:
            await client.ended.wait()
        finally:
            self._hub.clients.discard(client)

    @staticmethod
    def _small_buffers(transport):
        """Who does not read is noticed soon, and costs the kernel little."""
        transport.set_write_buffer_limits(high=STREAM_BUFFER)
        connection = transport.get_extra_info("socket")
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, STREAM_BUFFER)

    async def beat_for_ever(self):
        while True:
            await asyncio.sleep(BEAT_SECONDS)
            self._hub.sweep(time.monotonic())
            self._hub.broadcast(encoded("beat", dumped(self.beat())))
