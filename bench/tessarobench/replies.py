"""The base unit's half of a connection, taken apart into answers."""

from __future__ import annotations

import hashlib
from typing import Iterator, Optional

from . import glink, pairwire
from .answers import END, Answer, glink_answer
from .pairwire import REQUEST_PORT, TRANSFER_PORT
from .remotepaths import ADDRESS

GLINK_PORT = ADDRESS[1]
PORTS = (GLINK_PORT, REQUEST_PORT, TRANSFER_PORT)  # on which the base unit takes connections

Offers = set  # size and digest of each archive that was offered on any connection


class Replies:
    """The base unit's half of a connection, taken apart into answers; what cannot be one is an answer as well.
    `offers` are those of all connections of the same base unit."""

    def __init__(self, link: str, port: int, offers: Optional[Offers] = None):
        self._link, self._port = link, port
        self._offers: Offers = set() if offers is None else offers
        self._assembler, self._rest = glink.Assembler(), b""
        self._transferred, self._digest = 0, hashlib.md5()

    def feed(self, time: float, number: int, data: bytes) -> list[Answer]:
        if self._port == TRANSFER_PORT:
            self._transferred += len(data)
            self._digest.update(data)
            return []
        if self._port == REQUEST_PORT:
            self._rest += data
            return list(self._records(time, number))
        answers = []
        try:
            for frame, _ in self._assembler.feed(data):
                answers.append(glink_answer(time, number, self._link, frame))
        except glink.Damaged as damage:
            self._assembler = glink.Assembler()
            answers.append(Answer(time, number, (self._link, "damaged"), data, None, f"damaged: {damage}"))
        return answers

    def end(self, time: float, number: int, missing: int = 0) -> list[Answer]:
        """Of an archive only its size and that it is the one that was offered, be it that so many bytes are `missing` in the
        capture: it carries times, and keys that are drawn."""
        fits = self._was_offered(missing)
        answers = [Answer(time, number, (self._link, "archive"), b"" if fits else b"other", self._transferred,
                          f"{self._transferred} bytes{'' if fits else ', which are not what was offered'}")]
        ends = [Answer(time, number, (self._link, END), b"", None, "the connection's end")]
        return (answers if self._transferred else []) + ends

    def _was_offered(self, missing: int) -> bool:
        """Of what the capture lacks nobody knows what it was, and what was offered before it began is not in it either."""
        size = self._transferred + missing
        return not self._offers or any(offered == size and (missing or digest == self._digest.hexdigest())
                                       for offered, digest in self._offers)

    def _records(self, time: float, number: int) -> Iterator[Answer]:
        while self._rest:
            try:
                answer, size = self._record(time, number)
            except pairwire.Incomplete:
                return
            except pairwire.Malformed as error:
                answer, size = Answer(time, number, (self._link, "damaged"), self._rest, None, f"damaged: {error}"), len(self._rest)
            self._rest = self._rest[size:]
            yield answer

    def _record(self, time: float, number: int) -> tuple[Answer, int]:
        word = pairwire.Reader(self._rest).text()
        if word == "appList":
            records, size = pairwire.parse_app_list(self._rest)
            return Answer(time, number, (self._link, word), repr(records).encode(), None, f"{word} {records}"), size
        offer, size = pairwire.parse_offer(self._rest)
        self._offers.add((offer.size, offer.md5.lower()))
        return Answer(time, number, (self._link, word), offer.name.encode(), int(offer.md5, 16), f"{word} {offer}"), size
