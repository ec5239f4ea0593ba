"""Who may ask. On loopback everybody on the unit, but no page of another origin; beyond loopback only who knows the token."""
import asyncio
import hashlib
import hmac
import ipaddress
from urllib.parse import urlsplit

from aiohttp import web

COOKIE = "tessaro_session"
SHORTEST_TOKEN = 16
WRONG_TOKEN_SECONDS = 0.5
LOCAL_NAMES = {"localhost", "127.0.0.1", "::1", "[::1]"}

HEADERS = {
    "X-Content-Type-Options": "nosniff",
    "Referrer-Policy": "no-referrer",
    "Cache-Control": "no-store",
}


def is_loopback(address):
    if address == "localhost":
        return True
    try:
        return ipaddress.ip_address(address).is_loopback
    except ValueError:
        return False


def parts(address):
    """The parts of what a header names, or of nothing for what is no address."""
    try:
        return urlsplit(address)
    except ValueError:
        return urlsplit("")


def same(given, known):
    """Whether what somebody sent is the secret; it may be anything that JSON or a header can hold."""
    return hmac.compare_digest(str(given).encode(errors="replace"), known.encode())


def read_token(path):
    """The token in a file. Raises ValueError for one that can be guessed."""
    with open(path, encoding="ascii") as file:
        token = file.read().strip()
    if len(token) < SHORTEST_TOKEN:
        raise ValueError(f"the token is shorter than {SHORTEST_TOKEN} characters")
    return token


class Guard:
    """`open_paths` are answered without a token: the page's own files, which hold no secret, and the way to log in."""

    def __init__(self, token, open_paths, frame_from=None):
        self._token, self._open_paths = token, open_paths
        self._session = hmac.new(token.encode(), b"tessaro page session", hashlib.sha256).hexdigest() if token else None
        frames = f"'self' {frame_from}" if frame_from else "'none'"
        self._policy = ("default-src 'self'; script-src 'self'; style-src 'self'; img-src 'self' data:; object-src 'none'; "
                        f"base-uri 'none'; form-action 'self'; frame-ancestors {frames}")

    @property
    def wants_token(self):
        return self._token is not None

    def knows(self, request):
        """Whether the request carries the token, or the session that it was exchanged for."""
        if self._token is None:
            return True
        kind, _, given = request.headers.get("Authorization", "").partition(" ")
        if kind.lower() == "bearer" and same(given.strip(), self._token):
            return True
        return same(request.cookies.get(COOKIE, ""), self._session)

    async def open_session(self, request, given):
        """The answer to who gives a token: a cookie, or 403 after a while."""
        if self._token is not None and not same(given, self._token):
            await asyncio.sleep(WRONG_TOKEN_SECONDS)
            raise web.HTTPForbidden(text="wrong token\n")
        answer = web.Response(status=204)
        if self._session:
            answer.set_cookie(COOKIE, self._session, httponly=True, samesite="Strict", path="/", secure=request.secure)
        return answer

    def check(self, request):
        """Raises the HTTP error that the request deserves."""
        host = parts(f"//{request.headers.get('Host', '')}").hostname or ""
        if self._token is None and host not in LOCAL_NAMES and not is_loopback(host):
            raise web.HTTPForbidden(text="not by this name\n")  # a foreign name that points here: somebody else's page
        origin = request.headers.get("Origin")
        if origin is not None and parts(origin).netloc != request.headers.get("Host"):
            raise web.HTTPForbidden(text="not from this page\n")
        if request.path not in self._open_paths and not self.knows(request):
            raise web.HTTPUnauthorized(text="a token is needed\n", headers={"WWW-Authenticate": 'Bearer realm="tessaro"'})

    def middleware(self):
        @web.middleware
        async def guarded(request, handler):
            try:
                self.check(request)
                answer = await handler(request)
            except web.HTTPException as error:
                error.headers.update(self.headers())
                raise
            if not answer.prepared:
                answer.headers.update(self.headers())
            return answer
        return guarded

    def headers(self):
        return {**HEADERS, "Content-Security-Policy": self._policy}
