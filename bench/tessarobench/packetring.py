"""The kernel's capture ring: what crosses the interfaces of one network, in the order and at the time the kernel saw it.

One packet socket, bound to no interface, sees all of them, also those that are taken down, removed and made anew. The
kernel lays packets into a ring of memory that is shared with us (TPACKET_V3), so that none is lost while this process has
other things to do.

    block    version 4, offset of private data 4, status 4, packets 4, offset of the first packet 4, ...
    packet   offset of the next packet 4, seconds 4, nanoseconds 4, bytes here 4, bytes on the wire 4, status 4,
             offset of the bytes 2, ... and at 48 the address: family 2, protocol 2, interface number 4, hardware 2, kind 1
"""

from __future__ import annotations

import mmap
import socket
import struct
from typing import Iterator, NamedTuple

from .namespaces import World

_SOL_PACKET = 263
_PACKET_RX_RING, _PACKET_STATISTICS, _PACKET_VERSION = 5, 6, 10
_TPACKET_V3 = 2
_ALL_PROTOCOLS = 3
_OUTGOING = 4  # a packet's kind; others say to whom an incoming one was addressed

BLOCK_BYTES = 128 * 1024  # the loopback interface carries packets of up to 64 KiB, and each lies in one block
BLOCKS = 64
RETIRE_MILLISECONDS = 20  # a block is handed over after that time, however empty
_FRAME_BYTES = 2048       # no meaning in this version, yet it must divide the block

_BLOCK = struct.Struct("=12xII")
_STATUS_OFFSET, _STATUS = 8, struct.Struct("=I")
_KERNELS, _OURS = 0, 1  # whose a block is
_PACKET = struct.Struct("=IIII4x4xH")
_ADDRESS_OFFSET, _ADDRESS = 48, struct.Struct("=4xi2xB")


class Packet(NamedTuple):
    """One packet on one interface. `outbound` says whether this network sent it; the time is that since the epoch."""

    nanoseconds: int
    interface: int
    outbound: bool
    data: bytes


class PacketRing:
    """Captures from construction to `close`. Used by one thread. Raises OSError where the kernel refuses."""

    def __init__(self, network: World, blocks: int = BLOCKS):
        self._blocks, self._next, self._dropped = blocks, 0, 0
        self._socket = network.run(socket.socket, socket.AF_PACKET, socket.SOCK_RAW, socket.htons(_ALL_PROTOCOLS))
        try:
            self._socket.setsockopt(_SOL_PACKET, _PACKET_VERSION, struct.pack("i", _TPACKET_V3))
            self._socket.setsockopt(_SOL_PACKET, _PACKET_RX_RING, struct.pack(
                "7I", BLOCK_BYTES, blocks, _FRAME_BYTES, blocks * BLOCK_BYTES // _FRAME_BYTES, RETIRE_MILLISECONDS, 0, 0))
            self._memory = mmap.mmap(self._socket.fileno(), blocks * BLOCK_BYTES)
        except OSError:
            self._socket.close()
            raise

    def fileno(self) -> int:
        """Readable when a block is ready."""
        return self._socket.fileno()

    def take(self) -> list[Packet]:
        """All packets that have been handed over, oldest first; never waits."""
        packets: list[Packet] = []
        while _STATUS.unpack_from(self._memory, self._start + _STATUS_OFFSET)[0] & _OURS:
            packets += self._packets_of_block()
            _STATUS.pack_into(self._memory, self._start + _STATUS_OFFSET, _KERNELS)
            self._next = (self._next + 1) % self._blocks
        return packets

    @property
    def is_empty(self) -> bool:
        """Whether nothing has arrived that is not handed over yet."""
        status, = _STATUS.unpack_from(self._memory, self._start + _STATUS_OFFSET)
        return not status & _OURS and _BLOCK.unpack_from(self._memory, self._start)[0] == 0

    @property
    def _start(self) -> int:
        """Where the block that is handed over next begins."""
        return self._next * BLOCK_BYTES

    def _packets_of_block(self) -> Iterator[Packet]:
        count, offset = _BLOCK.unpack_from(self._memory, self._start)
        offset += self._start
        for _ in range(count):
            step, seconds, nanoseconds, size, begin = _PACKET.unpack_from(self._memory, offset)
            interface, kind = _ADDRESS.unpack_from(self._memory, offset + _ADDRESS_OFFSET)
            yield Packet(seconds * 1_000_000_000 + nanoseconds, interface, kind == _OUTGOING,
                         self._memory[offset + begin:offset + begin + size])
            offset += step

    @property
    def dropped(self) -> int:
        """How many packets found the ring full so far."""
        self._dropped += struct.unpack("3I", self._socket.getsockopt(_SOL_PACKET, _PACKET_STATISTICS, 12))[1]
        return self._dropped

    def close(self) -> None:
        self._memory.close()
        self._socket.close()
