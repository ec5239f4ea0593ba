"""What a board, an emulator or an installation has in common: an end that undoes everything, newest first."""

from __future__ import annotations

from typing import Any, Callable, TypeVar

Owner = TypeVar("Owner", bound="Closing")


class Closing:
    """Collects what has to be done at the end of a `with` block, or when construction fails half way."""

    def __init__(self, *last: Callable[[], Any]):
        self._closing: list[Callable[[], Any]] = list(last)

    def __enter__(self: Owner) -> Owner:
        return self

    def __exit__(self, *_exception: object) -> None:
        self.close()

    def close(self) -> None:
        """Ends everything, newest first, also when one of them fails. Peers that were handed to `closing` are closed as well."""
        while self._closing:
            try:
                self._closing.pop()()
            except BaseException:
                self.close()
                raise

    def closing(self, peer: Any) -> Any:
        """Remembers to call `peer.close()` at the end, and returns the peer."""
        self._closing.append(peer.close)
        return peer
