"""Tells the journal on a terminal: one line per event that is worth telling, repeats folded into one line."""

from __future__ import annotations

import contextlib
import sys
import threading
from typing import Callable, Iterator, Optional, TextIO

from .internallink import FALLBACK, SHORT_FALLBACK
from .journal import BENCH, FROM_BASE_UNIT, TO_BASE_UNIT, Event, Journal

# Who sits at the other end of a link. Peers of other modules add theirs.
PEERS = {"uart": "base controller", "api": "local tool", "gpio": "relay", "server": "log",
         "eglink": "machine control.", "eth0": "wired network", "wlan0": "wireless network", "glink": "remote unit",
         "relay": "fallback relay", "pairing": "service tool"}

TOLD_BYTES = 16  # of payloads that may be long

_ARROWS = {FROM_BASE_UNIT: "base unit -> ", TO_BASE_UNIT: "base unit <- ", BENCH: "(bench)      "}


def _fields(event: Event, *names: str) -> str:
    return " ".join(f"{name} {event.detail[name]}" for name in names if name in event.detail)


def tell_uart(event: Event) -> Optional[str]:
    """Acknowledgements go without saying, unless something happens to them."""
    marks = " (again)" if event.detail.get("again") else ""
    marks += f" ({event.fate})" if "fate" in event.detail else ""
    if event.kind == "ack":
        return f"acknowledgement #{event.number}{marks}" if marks else None
    if event.kind == "event":
        return event.event + marks
    if event.kind == "status":
        return f"status: {_fields(event, 'identity', 'units', 'eglink')}{marks}"
    if event.kind == "image":
        return f"process image, {event.size} bytes{marks}"
    if event.kind == "ask":
        return f"what is {event.key}{' of unit %d' % event.unit if 'unit' in event.detail else ''}?{marks}"
    if event.kind == "answer":
        return f"it is {int.from_bytes(event.value, 'little')} ({event.value.hex(' ')}){marks}"
    if event.detail.get("service") in (SHORT_FALLBACK, FALLBACK):
        return None if not marks else event.kind + marks  # told by the remote units
    payload = event.detail.get("payload")
    return event.kind + (f" {payload.hex(' ')}" if payload is not None else "") + marks


def tell_api(event: Event) -> Optional[str]:
    if event.kind == "status":
        changed = ", ".join(f"{key} = {value}" for key, value in event.changed.items())
        return f"status: {changed or 'nothing new'}"
    return event.text if event.kind == "request" else "NOTIFY"


def tell_gpio(event: Event) -> Optional[str]:
    if event.kind == "drive":
        return "close" if event.value == "1" else "open"
    if event.kind == "contact":
        return "is closed" if event.closed else "is open"
    return f"{event.kind} {event.detail.get('text') or ''}"


def tell_server(event: Event) -> Optional[str]:
    """Of the server's log only what the scenes do not show otherwise."""
    if event.direction == BENCH:
        return f"server {event.kind} {_fields(event, 'name', 'status')}"
    return event.text if event.text.startswith(("Starting TZ-400", "Internal link fail", "Fatal")) else None


def tell_eglink(event: Event) -> Optional[str]:
    """Periodic data only when they are new."""
    marks = " (again)" if event.detail.get("again") else ""
    marks += f" ({event.fate})" if "fate" in event.detail else ""
    if event.kind in ("VRPI", "VRPO"):
        what = f"part {event.part}, {event.size} bytes" if "part" in event.detail else f"{len(event.payload)} bytes"
        return None if event.detail.get("again") else f"{event.kind} periodic data: {what}{marks}"
    if event.kind in ("VRCI", "VRCO") and "command" in event.detail:
        return f"{event.kind} command {event.id}: {event.command!r}{marks}"
    if event.kind in ("VRAI", "VRAO") and "id" in event.detail:
        return f"{event.kind} acknowledges command {event.id}{marks}"
    return f"{event.kind} {_fields(event, 'text', 'size')}{marks}"


def tell_glink(event: Event) -> Optional[str]:
    """Acknowledgements, heartbeats and the beat of base status go without saying."""
    if event.kind in ("ack", "heartbeat", "base status") and "fate" not in event.detail:
        return None
    if event.direction == BENCH:
        return f"{event.unit} {event.kind} {_fields(event, 'size', 'what')}"
    return (f"{event.unit} {event.kind}{_glink_detail(event)}{' by fallback' if event.path == 'fallback' else ''}"
            if "path" in event.detail else f"{event.unit} {event.kind} {_fields(event, 'reason', 'what')}")


def _glink_detail(event: Event) -> str:
    marks = f" ({event.fate})" if "fate" in event.detail else ""
    if event.kind == "INIT":
        return f" of unit {event.of} for base {event.base}, application {event.checksum.hex()[:8]}...{marks}"
    if event.kind == "INITACK":
        return f": {f'refused, code {event.code}: {event.text}' if event.code else 'accepted'}{marks}"
    payload = event.detail.get("payload", b"")
    more = f" ... ({len(payload)} bytes)" if len(payload) > TOLD_BYTES else ""
    return f" {payload[:TOLD_BYTES].hex(' ')}{more}{marks}"


def tell_relay(event: Event) -> Optional[str]:
    """What it carries is told by the remote units."""
    return f"{event.kind} {_fields(event, 'text')}" if event.direction == BENCH else None


def tell_pairing(event: Event) -> Optional[str]:
    if event.kind == "getApp":
        return f"give me {event.path} for unit {event.unit}"
    return {"getAppList": "which applications are there?", "startTransfer": "send it"}.get(
        event.kind) or f"{event.kind}: {_fields(event, *event.detail)}"


def tell_interface(event: Event) -> str:
    return f"{event.kind} {_fields(event, 'to')}"


# How the events of a link are worded: a text, or None for one that is not worth a line. A link without a function is
# told by kind and fields. Peers of other modules add theirs.
TELLERS: dict[str, Callable[[Event], Optional[str]]] = {
    "uart": tell_uart, "api": tell_api, "gpio": tell_gpio, "server": tell_server,
    "eglink": tell_eglink, "glink": tell_glink, "relay": tell_relay, "pairing": tell_pairing,
    "eth0": tell_interface, "wlan0": tell_interface}


class Narrator:
    """Prints events of a journal as they come; with `quiet`, headings and outcomes only. `remark` gets the story itself:
    headings, what is about to happen, and what came out."""

    def __init__(self, journal: Journal, out: TextIO = sys.stdout, quiet: bool = False,
                 remark: Optional[Callable[[str], None]] = None):
        self._remark = remark or (lambda text: None)
        self._out, self._quiet, self._colour = out, quiet, out.isatty()
        self._lock = threading.Lock()
        self._pending: Optional[tuple[str, str, int]] = None
        self.untold: set[tuple[str, str]] = set()  # (link, kind) of what is too much to tell for the moment
        journal.listeners.append(self._event)

    @contextlib.contextmanager
    def silence(self) -> Iterator[None]:
        """Tells no events for a while."""
        quiet, self._quiet = self._quiet, True
        try:
            yield
        finally:
            self._quiet = quiet

    def heading(self, text: str) -> None:
        self._remark(text)
        self._print("\n" + self._paint("1", text))

    def say(self, text: str) -> None:
        self._remark(text)
        self._print("  " + self._paint("36", text))

    def result(self, ok: bool, text: str) -> None:
        self._remark(f"{'ok' if ok else 'FAILED'}: {text}")
        self._print(self._paint("32" if ok else "31", f"  {'ok    ' if ok else 'FAILED'} {text}"))

    def plain(self, text: str) -> None:
        self._print(text)

    def _event(self, event: Event) -> None:
        if self._quiet or (event.link, event.kind) in self.untold:
            return
        teller = TELLERS.get(event.link)
        words = teller(event) if teller else f"{event.kind} {_fields(event, *event.detail)}"
        if words is None:
            return
        line = f"{event.link:7} {_ARROWS[event.direction]}{PEERS.get(event.link, event.link):16} {words}"
        with self._lock:
            if self._pending and self._pending[1] == line:
                self._pending = (self._pending[0], line, self._pending[2] + 1)
                return
            self._flush()
            self._pending = (f"{event.time:9.3f}", line, 0)
            self._out.write(f"{self._pending[0]}  {line}\n")
            self._out.flush()

    def _flush(self) -> None:
        if self._pending and self._pending[2]:
            self._out.write(f"{'':9}  ... and {self._pending[2]} more of these\n")
        self._pending = None

    def _print(self, text: str) -> None:
        with self._lock:
            self._flush()
            self._out.write(text + "\n")
            self._out.flush()

    def _paint(self, code: str, text: str) -> str:
        return f"\033[{code}m{text}\033[0m" if self._colour else text
