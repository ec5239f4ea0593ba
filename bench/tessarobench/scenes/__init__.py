"""The scenes of `make run`, in the order in which they are told.

A scene is a function that takes a `Stage`, acts, and asserts what it tells:

    @scene("images", "Process images become named values", needs=["link"])
    def images(stage):
        stage.say("...")
        stage.bench.bc.set(bu_state=16)
        stage.expect("the state reads DISARMED over the API", lambda: stage.bench.api.tag("BU_STATE") == "16")

`needs` names scenes that must have run before; they are run first when one scene is asked for. Scenes live in modules
of this package; `load` imports them all, and a module's name decides nothing: `ORDER` does.
"""

from __future__ import annotations

import importlib
import pkgutil
from typing import Any, Callable, NamedTuple, Optional, Sequence

from ..installation import Installation
from ..narrator import Narrator

# The order of the tour. A scene that is not named here comes after these, in the order of loading.
ORDER = ["link", "images", "settings", "controller", "noise", "loss", "units", "together", "fallback", "stop", "pairing"]


class Scene(NamedTuple):
    name: str
    title: str
    needs: Sequence[str]
    play: Callable[["Stage"], None]


class Stage:
    """What a scene works with: `bench` (the installation with its peers), and a voice."""

    def __init__(self, bench: Installation, narrator: Narrator):
        self.bench, self.narrator = bench, narrator
        self.shared: dict[str, Any] = {}  # what one scene leaves for a later one, by name

    def say(self, text: str) -> None:
        self.narrator.say(text)

    def expect(self, text: str, predicate: Callable[[], Any], timeout: Optional[float] = None) -> Any:
        """Waits until `predicate` holds and tells so; a scene in which it does not has failed."""
        try:
            result = self.bench.wait_for(predicate, timeout, text)
        except BaseException:
            self.narrator.result(False, text)
            raise
        self.narrator.result(True, text)
        return result


_scenes: dict[str, Scene] = {}


def scene(name: str, title: str, needs: Sequence[str] = ()) -> Callable:
    """Registers a function as a scene."""
    def register(play: Callable[[Stage], None]) -> Callable[[Stage], None]:
        assert name not in _scenes, f"two scenes are called {name}"
        _scenes[name] = Scene(name, title, tuple(needs), play)
        return play
    return register


def load() -> dict[str, Scene]:
    """All scenes, in the order of the tour."""
    for module in sorted(info.name for info in pkgutil.iter_modules(__path__)):
        importlib.import_module(f"{__name__}.{module}")
    known = [name for name in ORDER if name in _scenes]
    return {name: _scenes[name] for name in known + [name for name in _scenes if name not in known]}


def with_needs(names: Sequence[str]) -> list[Scene]:
    """The named scenes and what they need, each once, in the order of the tour."""
    scenes, wanted = load(), set()
    pending = list(names)
    while pending:
        name = pending.pop()
        if name not in wanted:
            wanted.add(name)
            pending += scenes[name].needs
    return [found for found in scenes.values() if found.name in wanted]
