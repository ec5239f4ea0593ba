"""What tests of recordings share: where they lie, and how a capture of a site is made of one."""

import struct
from pathlib import Path

from tessarobench.pcapng import LINKTYPE_ETHERNET

RECORDINGS = Path(__file__).resolve().parents[1] / "recordings"
REMOTE_UNIT, START = RECORDINGS / "remote-unit.pcapng", RECORDINGS / "start.pcapng"


def pcap(packets, link_type=LINKTYPE_ETHERNET, order="<", version=(2, 4)):
    """The older format, of (seconds, bytes)."""
    head = struct.pack(order + "IHHIIII", 0xA1B2C3D4, *version, 0, 0, 262144, link_type)
    return head + b"".join(struct.pack(order + "IIII", int(seconds), round(seconds % 1 * 1e6), len(data), len(data)) + data
                           for seconds, data in packets)
