"""What a base unit says, taken apart into answers as they come from a capture or from a server, and how answers are compared.

Frames are taken apart only as far as it takes to tell one answer from another and to see which of them an acknowledgement
of a far side belongs to. What is damaged or has holes stays as it is.
"""

from __future__ import annotations

import json
from typing import Any, NamedTuple, Optional

from . import crc, eglink, glink, internallink as il

UART, EGLINK, API = "UART", "EGLink", "API"
END = "end"  # the kind of a connection's end

_BLOCK_HEAD = 4  # of the fallback: the unit, and how many bytes are still to come

Channel = tuple  # the link, and what tells a series of answers from the others of that link


class Answer(NamedTuple):
    """One thing that the base unit said. `value` is what has to be the same, `identity` what may be another one each time."""

    time: float
    packet: int
    channel: Channel
    value: bytes
    identity: Optional[int]
    words: str


class Rules(NamedTuple):
    """How the answers of a channel are compared. Those of a `rhythm` come by the base unit's own clock, and say what holds
    at their moment: how many there are between two changes does not count. Of a `blend` every part is looked at by itself, as
    it is up to two threads which of two changes it shows first."""

    rhythm: bool
    blend: bool = False


def _words(kind: str, detail: dict) -> str:
    fields = " ".join(f"{key}={value.hex(' ') if isinstance(value, bytes) else value}" for key, value in detail.items())
    return f"{kind} {fields}".strip()


# --- what was said, by link --------------------------------------------------------------------------------------------


def uart_answer(time: float, number: int, raw: bytes) -> Answer:
    packet = il.parse(raw)
    if packet is None:
        return Answer(time, number, (UART, "damaged"), raw, None, f"damaged {raw.hex(' ')}")
    kind, detail = il.describe(packet, from_base_unit=True)
    told = detail.get("event", detail.get("key", "")) if packet.message_class != il.ACK else ""
    channel = (UART, kind, packet.message_class, packet.service, told)
    if packet.message_class == il.ACK:  # its number is that of the far side's packet, and has to be right
        return Answer(time, number, channel, packet.pack(), None, _words(kind, detail))
    value = _without_stamp(packet.payload) if packet.service == il.FALLBACK else packet.payload
    return Answer(time, number, channel, value, packet.number, _words(kind, detail))


def _without_stamp(block: bytes) -> bytes:
    """A block of a message on the fallback, without the time at which it was written and the check sums over that."""
    head, data = block[:_BLOCK_HEAD], bytearray(block[_BLOCK_HEAD:])
    if len(data) >= glink.HEADER_SIZE and crc.intact(bytes(data[:glink.HEADER_SIZE])):
        data[5:9] = bytes(4)
        data[glink.HEADER_SIZE - crc.SIZE:glink.HEADER_SIZE] = bytes(crc.SIZE)
    if int.from_bytes(head[2:4], "little") == len(data) >= crc.SIZE:
        data[-crc.SIZE:] = bytes(crc.SIZE)
    return head + data


def eglink_answer(time: float, number: int, raw: bytes) -> Answer:
    packet = eglink.parse(raw)
    if packet is None:
        return Answer(time, number, (EGLINK, "damaged"), raw, None, f"damaged {raw.hex(' ')}")
    value = packet.type.encode("latin-1") + packet.origin.to_bytes(2, "little") + packet.payload
    return Answer(time, number, (EGLINK, packet.type), value, packet.serial, _words(packet.type, eglink.describe(packet)))


def glink_answer(time: float, number: int, link: str, frame: glink.Frame) -> Answer:
    kind = "ack of " + frame.name if frame.is_ack else frame.name
    origin = frame.payload[:1] if frame.msg_id == glink.PERIODIC_DATA else b""
    return Answer(time, number, (link, kind, *origin), frame.payload, frame.time, _words(kind, glink.describe(frame)))


def api_answer(time: float, number: int, raw: bytes) -> Answer:
    kind = "status" if raw.startswith(b"{") else "reply"
    return Answer(time, number, (API, kind), raw, None, raw.decode("utf-8", "replace"))


# --- how answers are compared ------------------------------------------------------------------------------------------


def rules(channel: Channel) -> Rules:
    link, kind = channel[:2]
    if link == UART:
        return Rules(kind == "status" or channel[-1] == "RESET")
    if link == EGLINK:
        return Rules(kind in ("VRPI", "VRCI"))
    if link == API:
        return Rules(kind == "status", blend=kind == "status")
    return Rules(kind in ("heartbeat", "ack of heartbeat", "base status", "periodic data"))


def follows_images(channel: Channel) -> bool:
    """Whether such an answer passes on what the base controller says."""
    link, kind = channel[:2]
    return (kind == "base status" or channel[1:] == ("periodic data", glink.FROM_BASE_CONTROLLER) or
            (link, kind) == (EGLINK, "VRPI") or link == API)


def parts(answer: Answer) -> dict[str, Any]:
    """What of an answer is compared by itself, by a name."""
    try:
        return json.loads(answer.value) if rules(answer.channel).blend else {"": answer.value}
    except (ValueError, RecursionError):
        return {"": answer.value}
