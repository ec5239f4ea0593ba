"""Why something that went into the base unit may not come out of it: every reason that the books know, and its meaning.

A drop under any other reason is a violation.
"""

from __future__ import annotations

DAMAGED = "damaged"
UNKNOWN_SERVICE = "no such service"
LINK_LOST = "internal link lost"
QUEUED_BEHIND = "queued when the internal link was lost"
NO_LINK = "unit without a link"
NO_CABLE = "eth0 away"
OUT_OF_TURN = "id out of turn"
UNCHANGED = "nothing new in it"
SUPERSEDED = "a newer one took its place"
UNANSWERED = "not acknowledged for two seconds"
NOBODY = "nobody takes it"
ACK_LOST = "acknowledgement without a place"
TOOL_FULL = "the tool's socket was full"

MEANING = {
    DAMAGED: "its CRC is wrong; whoever sent it repeats it, or does not",
    UNKNOWN_SERVICE: "the internal link acknowledges it, and nobody handles it",
    LINK_LOST: "three transmissions were not acknowledged: the packet is given up",
    QUEUED_BEHIND: "what waits behind a packet that is given up is given up with it",
    NO_LINK: "messages for a unit without a link are not kept, and what is under way when a link breaks is lost",
    NO_CABLE: "datagrams reach nobody until the base unit is back in the group",
    OUT_OF_TURN: "a command of the machine controller that does not continue the sequence; the next one does, whatever its id",
    UNCHANGED: "it says what was said before: nothing is passed on",
    SUPERSEDED: "of values only the newest is told, and of periodic data only the newest block waits",
    UNANSWERED: "a command to the machine controller is repeated for so long, then left",
    NOBODY: "units' periodic data are acknowledged and end in the base unit",
    ACK_LOST: "on the fallback one acknowledgement can wait for each unit",
    TOOL_FULL: "the kernel had no room for one more datagram to the local tool",
}
