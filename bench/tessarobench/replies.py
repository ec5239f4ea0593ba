"""The base unit's half of a connection, taken apart into answers."""

from __future__ import annotations

from typing import Iterator

from . import glink, pairwire
from .answers import END, Answer, glink_answer
from .pairwire import REQUEST_PORT, TRANSFER_PORT
from .remotepaths import ADDRESS

GLINK_PORT = ADDRESS[1]
PORTS = (GLINK_PORT, REQUEST_PORT, TRANSFER_PORT)  # on which the base unit takes connections


class Replies:
    """The base unit's half of a connection, taken apart into answers; what cannot be one is an answer as well."""

    def __init__(self, link: str, port: int):
        self._link, self._port = link, port
        self._assembler, self._rest, self._transferred = glink.Assembler(), b"", 0

    def feed(self, time: float, number: int, data: bytes) -> list[Answer]:
        if self._port == TRANSFER_PORT:
            self._transferred += len(data)
            return []
        if self._port == REQUEST_PORT:
            self._rest += data
            return list(self._records(time, number))
        try:
            return [glink_answer(time, number, self._link, frame) for frame, _ in self._assembler.feed(data)]
        except glink.Damaged as damage:
            self._assembler = glink.Assembler()
            return [Answer(time, number, (self._link, "damaged"), data, None, f"damaged: {damage}")]

    def end(self, time: float, number: int) -> list[Answer]:
        """Of an archive only that it came, and its size: it carries times, and keys that are drawn."""
        answers = [Answer(time, number, (self._link, "archive"), b"", self._transferred, f"{self._transferred} bytes")]
        ends = [Answer(time, number, (self._link, END), b"", None, "the connection's end")]
        return (answers if self._transferred else []) + ends

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
        return Answer(time, number, (self._link, word), offer.name.encode(), int(offer.md5, 16), f"{word} {offer}"), size
