"""Reads captures: pcapng as the bench writes it or a base unit's tcpdump does, and the older pcap.

What cannot be read raises BadCapture, whose text names the packet (or the block, where no packet has begun).
"""

from __future__ import annotations

import struct
from pathlib import Path
from typing import Iterator, NamedTuple, Optional

from .pcapng import LINKTYPE_ETHERNET, LINKTYPE_USER0

LINKTYPE_COOKED, LINKTYPE_COOKED_2 = 113, 276  # of "tcpdump -i any"
KNOWN_LINKS = {LINKTYPE_ETHERNET: "Ethernet", LINKTYPE_USER0: "lines of the UART", LINKTYPE_COOKED: "Linux cooked",
               LINKTYPE_COOKED_2: "Linux cooked, version 2"}
DISORDER_SECONDS = 0.001  # more than what two processors' packets miss each other by
LONGEST_SILENCE = 86_400.0  # seconds; more is a clock that was set, or damage, and nobody can wait for its end

_SECTION, _INTERFACE, _SIMPLE, _ENHANCED = 0x0A0D0D0A, 1, 3, 6
_PACKETS = (_SIMPLE, _ENHANCED)
_MAGIC = 0x1A2B3C4D
_PCAP_MAGICS = {0xA1B2C3D4: 1_000, 0xA1B23C4D: 1}  # nanoseconds per unit of the fraction
_OPTION_NAME, _OPTION_RESOLUTION = 2, 9
_LARGEST_BLOCK = 64 << 20


class BadCapture(Exception):
    """The file is not what can be played."""


class Packet(NamedTuple):
    """`number` counts from 1, as Wireshark does; `time` is in seconds since the epoch."""

    number: int
    time: float
    interface: str
    link_type: int
    data: bytes


class _Interface(NamedTuple):
    name: str
    link_type: int
    unit: float  # seconds of one unit of a time stamp


def read(path: Path) -> list[Packet]:
    """All packets, in the order of their times. Raises BadCapture, and OSError as open does."""
    if Path(path).exists() and not Path(path).is_file() and not Path(path).is_dir():
        raise BadCapture("this is no ordinary file, and a capture has to be one")
    raw = Path(path).read_bytes()
    if len(raw) < 4:
        raise BadCapture(f"the file has {len(raw)} bytes, which is no capture")
    magic, = struct.unpack_from("<I", raw)
    if magic == _SECTION:
        packets = list(_pcapng(raw))
    elif {magic, struct.unpack_from(">I", raw)[0]} & set(_PCAP_MAGICS):
        packets = list(_pcap(raw))
    else:
        raise BadCapture(f"the file begins with {raw[:4].hex(' ')}: neither pcapng nor pcap")
    if not packets:
        raise BadCapture("there is no packet in it")
    _check_order(packets)
    return sorted(packets, key=lambda packet: packet.time)


def _check_order(packets: list[Packet]) -> None:
    latest = packets[0]
    for packet in packets[1:]:
        if packet.time < latest.time - DISORDER_SECONDS:
            raise BadCapture(f"packet {packet.number} is {latest.time - packet.time:.6f} s earlier than packet {latest.number} "
                             "before it: put the packets in order first (reordercap)")
        if packet.time > latest.time + LONGEST_SILENCE:
            raise BadCapture(f"packet {packet.number} comes {(packet.time - latest.time) / 86_400:.1f} days after packet "
                             f"{latest.number} before it: nothing is played across more than one day (editcap takes a part)")
        latest = max(latest, packet, key=lambda each: each.time)


def _packet(number: int, seconds: float, interface: _Interface, data: bytes, original: int) -> Packet:
    if interface.link_type not in KNOWN_LINKS:
        known = ", ".join(f"{kind} ({name})" for kind, name in KNOWN_LINKS.items())
        raise BadCapture(f"packet {number}: link type {interface.link_type} of {interface.name or 'its interface'} is none that "
                         f"can be played: {known}")
    if len(data) < original:
        raise BadCapture(f"packet {number}: only {len(data)} of its {original} bytes were captured (tcpdump -s 0 takes all)")
    return Packet(number, seconds, interface.name, interface.link_type, data)


# --- pcapng ------------------------------------------------------------------------------------------------------------


def _pcapng(raw: bytes) -> Iterator[Packet]:
    place, number, order, interfaces = 0, 0, "<", []
    while place < len(raw):
        order = _byte_order(raw, place, order)
        kind, body = _block(raw, place, order, number)
        try:
            if kind == _SECTION:
                _check_version(body, order, place)
                interfaces = []
            elif kind == _INTERFACE:
                interfaces.append(_interface(body, order))
            elif kind in _PACKETS:
                number += 1
                yield _enhanced(number, body, order, interfaces) if kind == _ENHANCED else _without_time(number)
        except (struct.error, IndexError) as error:
            raise BadCapture(f"packet {number}: the block at byte {place} is not whole in itself") from error
        place += len(body) + 12


def _byte_order(raw: bytes, place: int, order: str) -> str:
    """A section says which it has."""
    if raw[place:place + 4] != struct.pack("<I", _SECTION):
        return order
    magic = raw[place + 8:place + 12]
    if magic == struct.pack("<I", _MAGIC):
        return "<"
    if magic == struct.pack(">I", _MAGIC):
        return ">"
    raise BadCapture(f"the section at byte {place} is cut off or of an unknown byte order ({magic.hex(' ')})")


def _block(raw: bytes, place: int, order: str, number: int) -> tuple[int, bytes]:
    after = f"the block after packet {number}" if number else "a block before the first packet"
    if place + 12 > len(raw):
        raise BadCapture(f"{after}: the file ends within it, at byte {len(raw)}")
    kind, total = struct.unpack_from(order + "II", raw, place)
    after = f"packet {number + 1}" if kind in _PACKETS else after
    if total < 12 or total % 4 or total > _LARGEST_BLOCK:
        raise BadCapture(f"{after}: the block at byte {place} claims {total} bytes")
    if place + total > len(raw):
        raise BadCapture(f"{after}: the file ends within it, at byte {len(raw)}")
    again, = struct.unpack_from(order + "I", raw, place + total - 4)
    if again != total:
        raise BadCapture(f"{after}: the block at byte {place} begins with a length of {total} and ends with one of {again}")
    return kind, raw[place + 8:place + total - 4]


def _check_version(body: bytes, order: str, place: int) -> None:
    major, minor = struct.unpack_from(order + "HH", body, 4)
    if major != 1:
        raise BadCapture(f"the section at byte {place} is of version {major}.{minor} of pcapng; 1 is known")


def _interface(body: bytes, order: str) -> _Interface:
    link_type, = struct.unpack_from(order + "H", body)
    name, unit, place = "", 1e-6, 8
    while place + 4 <= len(body):
        code, length = struct.unpack_from(order + "HH", body, place)
        value = body[place + 4:place + 4 + length]
        if code == _OPTION_NAME:
            name = value.rstrip(b"\0").decode("utf-8", "replace")
        elif code == _OPTION_RESOLUTION and value:
            unit = 2.0 ** -(value[0] & 0x7F) if value[0] & 0x80 else 10.0 ** -value[0]
        place += 4 + length + -length % 4
    return _Interface(name, link_type, unit)


def _enhanced(number: int, body: bytes, order: str, interfaces: list[_Interface]) -> Packet:
    index, high, low, captured, original = struct.unpack_from(order + "IIIII", body)
    if index >= len(interfaces):
        raise BadCapture(f"packet {number}: it came on interface {index}, of which the file tells nothing")
    if 20 + captured > len(body):
        raise BadCapture(f"packet {number}: it claims {captured} bytes, and its block has {len(body) - 20}")
    interface = interfaces[index]
    return _packet(number, (high << 32 | low) * interface.unit, interface, body[20:20 + captured], original)


def _without_time(number: int) -> Packet:
    raise BadCapture(f"packet {number}: it carries no time")


# --- pcap --------------------------------------------------------------------------------------------------------------


def _pcap(raw: bytes) -> Iterator[Packet]:
    order = "<" if struct.unpack_from("<I", raw)[0] in _PCAP_MAGICS else ">"
    if len(raw) < 24:
        raise BadCapture(f"packet 1: the file ends before it, at byte {len(raw)}")
    magic, major, minor, _, _, _, link_type = struct.unpack_from(order + "IHHIIII", raw)
    if major != 2:
        raise BadCapture(f"the file is of version {major}.{minor} of pcap; 2 is known")
    interface = _Interface("", link_type & 0xFFFF, 0)
    place, number = 24, 0
    while place < len(raw):
        number += 1
        if place + 16 > len(raw):
            raise BadCapture(f"packet {number}: the file ends within it, at byte {len(raw)}")
        seconds, fraction, captured, original = struct.unpack_from(order + "IIII", raw, place)
        if place + 16 + captured > len(raw):
            raise BadCapture(f"packet {number}: the file ends within it, at byte {len(raw)}")
        yield _packet(number, seconds + fraction * _PCAP_MAGICS[magic] / 1e9, interface,
                      raw[place + 16:place + 16 + captured], original)
        place += 16 + captured


def transport(packet: Packet) -> Optional[Transport]:
    """The TCP segment or UDP datagram in a packet of a network; None for anything else."""
    header, protocol_at = {LINKTYPE_ETHERNET: (14, 12), LINKTYPE_COOKED: (16, 14), LINKTYPE_COOKED_2: (20, 0)}[packet.link_type]
    ip = packet.data[header:]
    if packet.data[protocol_at:protocol_at + 2] != b"\x08\x00" or len(ip) < 20 or ip[0] >> 4 != 4:
        return None
    length, fragment, protocol = *struct.unpack_from(">H2xH", ip, 2), ip[9]
    start = 4 * (ip[0] & 0xF)
    body = ip[start:length]
    if protocol not in (_TCP, _UDP) or fragment & 0x1FFF:
        return None
    if len(body) < 4:
        return None  # not even its ports
    addresses = (".".join(map(str, ip[12:16])), ".".join(map(str, ip[16:20])))
    ports = struct.unpack_from(">HH", body)
    ends = ((addresses[0], ports[0]), (addresses[1], ports[1]))
    if len(ip) < length or len(body) < (20 if protocol == _TCP else 8) or fragment & 0x2000:
        return Transport(packet, *ends, b"", None, 0, is_part=True)
    if protocol == _UDP:
        return Transport(packet, *ends, body[8:], None, 0)
    sequence, acknowledged, offset, flags = struct.unpack_from(">IIBB", body, 4)
    return Transport(packet, *ends, body[4 * (offset >> 4):], sequence, flags, acknowledged if flags & _ACK else None)


_TCP, _UDP = 6, 17
_FIN, _SYN, _RST, _ACK = 1, 2, 4, 16


class Transport(NamedTuple):
    """`sequence` is None for UDP; `acknowledged` is the number of the next byte that its sender waits for, if it says so. One
    that `is_part` of a datagram, or cut short, has nothing but its ends."""

    packet: Packet
    source: tuple[str, int]
    target: tuple[str, int]
    payload: bytes
    sequence: Optional[int]
    flags: int
    acknowledged: Optional[int] = None
    is_part: bool = False

    @property
    def opens(self) -> bool:
        return bool(self.flags & _SYN)

    @property
    def finishes(self) -> bool:
        return bool(self.flags & _FIN)

    @property
    def end(self) -> Optional[int]:
        """The number behind its last byte, where it tells the end of all. A reset may carry any."""
        return self.sequence + len(self.payload) & 0xFFFFFFFF if self.finishes else None

    @property
    def resets(self) -> bool:
        return bool(self.flags & _RST)
