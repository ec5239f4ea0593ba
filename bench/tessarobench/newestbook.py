"""Values of which only the newest is told: process images, to the local tool and to the machine controller.

Every image carries a number. What is told later never has an older one, and the last one is told; an image that is not
seen was replaced by a newer one before its turn.
"""

from __future__ import annotations

from typing import Optional

from .account import Account
from .apiclient import status_object
from .rules import SUPERSEDED, TOOL_FULL, UNCHANGED

NUMBER_TAG, NUMBER_KEY = "armed_ru", "ARMED_RU"  # where an image carries its number; shown over the API

# The values of the process image that the API shows, by the names of its members.
SHOWN = {"BU_ID": "bu_identity", "BU_STATE": "bu_state", "TSAPs": "tsaps", "UNARMED_RUs": "unarmed_rus",
         "EG_LINK_STATUS": "eglink_stat_out", "EC_LINK_STATUS": "eclink_status", "C_LINK_STATUS": "clink_status",
         "ARMED_RU": "armed_ru", "RU_STATE": "ru_state"}
VRPI_SHIFT = 2  # the machine controller gets the image without its first bytes


class Newest(Account):
    """Numbers that enter one after the other; `leave` takes what is told, as often as it is told."""

    def __init__(self, name: str, first: int):
        super().__init__(name, exact=True)
        self._numbers = [first]
        self._whens = [0.0]
        self._told: set[int] = set()
        self._place = 0

    def enter(self, when: float, number: int) -> None:
        if number == self._numbers[-1]:
            self.rule(UNCHANGED)
            return
        self._numbers.append(number)
        self._whens.append(when)

    def leave(self, number: int, when: Optional[float] = None) -> None:
        try:
            self._place = self._numbers.index(number, self._place)
        except ValueError:
            self.violations.append(f"{self.name}: {number} was told after {self._numbers[self._place]}")
            return
        self._told.add(self._place)

    @property
    def entered(self) -> int:
        return len(self._numbers) - 1 + self._ruled_out

    @property
    def delivered(self) -> int:
        return len(self._told - {0})

    def _settle(self) -> None:
        last = len(self._numbers) - 1
        if self._place != last:
            self.violations.append(f"{self.name}: {self._numbers[last]} entered at {self._whens[last]:.3f} s as the last "
                                   f"one, and was never told")
        self.dropped[SUPERSEDED] += self._place - self.delivered
        self.dropped = +self.dropped


class ImageBook:
    """`fields` are the places in the image of what the API shows, by tag name; `shown` the status object at the
    beginning, when nothing is under way."""

    def __init__(self, fields: dict[str, slice], image: bytes, shown: dict[str, str]):
        self._fields, self._image = fields, image
        first = int(shown.get(NUMBER_KEY) or 0)
        self.tags = Newest("UART: process images to the API", first)
        self.periodic = Newest("UART: process images to EGLink (VRPI)", first)
        self.statuses = Account("API: questions, changes to status objects", exact=False)
        self.orders = Account("API: orders to NOTIFY", exact=False)

    @property
    def accounts(self) -> list[Account]:
        return [self.tags, self.periodic, self.statuses, self.orders]

    def image_entered(self, payload: bytes, when: float) -> None:
        for place in self._fields.values():
            if payload[place] != self._image[place]:
                self.statuses.enter(when, b"")  # every changed value is told on its own
        self._image = payload
        number = self._number(payload, 0)
        self.tags.enter(when, number)
        self.periodic.enter(when, number)

    def request_entered(self, datagram: bytes, when: float) -> Optional[bytes]:
        """Gives the word that makes the request an order, None for one that asks for the status object."""
        word = next((word for word in (b"GET", b"RESET", b"DISARM", b"CCHANGE") if word in datagram), b"GET")
        (self.statuses if word == b"GET" else self.orders).enter(when, b"")
        return None if word == b"GET" else word

    def status_left(self, datagram: bytes) -> None:
        self.statuses.leave(b"")
        self.tags.leave(int(status_object(datagram)[NUMBER_KEY]))

    def notify_left(self) -> None:
        self.orders.leave(b"")

    def periodic_left(self, payload: bytes) -> None:
        """A VRPI."""
        if payload:
            self.periodic.leave(self._number(payload, VRPI_SHIFT))

    def lost_at_the_tool(self, count: int) -> None:
        """Datagrams for which the kernel had no room. Which ones, nobody can tell."""
        self.statuses.excuse(TOOL_FULL, count)
        self.orders.excuse(TOOL_FULL, count)

    def _number(self, payload: bytes, shift: int) -> int:
        place = self._fields[NUMBER_TAG]
        return int.from_bytes(payload[place.start - shift:place.stop - shift], "little")
