"""Many trials, and the table that they make."""

from __future__ import annotations

import collections
import concurrent.futures
import multiprocessing
import statistics
from pathlib import Path
from typing import Callable, Iterable, NamedTuple, Optional

from .stalls import STALLS
from .stalltrial import EVENTS, NEVER_SECONDS, Outcome, attempt

BEGIN, END = "<!-- begin: made by make safety -->", "<!-- end: made by make safety -->"


class Row(NamedTuple):
    """One combination and all that was seen of it. `refused`: why this machine cannot try it."""

    stall: str
    event: str
    outcomes: list[Outcome]
    refused: Optional[str] = None

    @property
    def limit(self) -> float:
        return EVENTS[self.event].limit

    @property
    def late(self) -> list[Outcome]:
        return [outcome for outcome in self.outcomes if outcome.seconds is None or outcome.seconds > self.limit]

    @property
    def remarks(self) -> str:
        counts = collections.Counter(outcome.remark for outcome in self.outcomes if outcome.remark)
        return "; ".join(f"{count} x {remark}" for remark, count in counts.most_common())

    def cells(self) -> list[str]:
        titles = [STALLS[self.stall].title, EVENTS[self.event].title]
        if self.refused:
            return [*titles, "–", f"not measured: {self.refused}", "0", milliseconds(self.limit)]
        if not self.outcomes:
            return [*titles, "–", "–", "0", milliseconds(self.limit)]
        times = [outcome.seconds if outcome.seconds is not None else float("inf") for outcome in self.outcomes]
        longest = milliseconds(max(times))
        late = f"**{longest}** ({len(self.late)} of {len(times)} beyond the limit)" if self.late else longest
        return [*titles, milliseconds(statistics.median_low(times)), late, str(len(times)), milliseconds(self.limit)]


def milliseconds(seconds: float) -> str:
    if seconds > NEVER_SECONDS:
        return f"not within {NEVER_SECONDS:g} s"
    return f"{1000 * seconds:.1f} ms" if seconds < 0.1 else f"{1000 * seconds:.0f} ms"


def table(rows: Iterable[Row]) -> str:
    lines = [["What stands still", "Then", "Median", "Longest", "Tries", "Limit"], ["---"] * 6,
             *(row.cells() for row in rows)]
    return "".join("| " + " | ".join(cells) + " |\n" for cells in lines)


def rewrite(page: Path, content: str) -> None:
    """Puts it between the two marks of the page."""
    before, mark, rest = page.read_text(encoding="utf-8").partition(BEGIN)
    _, end, after = rest.partition(END)
    if not mark or not end:
        raise ValueError(f"{page} has no place for the table: {BEGIN} and {END}")
    page.write_text(f"{before}{BEGIN}\n{content}{END}{after}", encoding="utf-8")


def measure(server: Path, library: Path, stalls: Iterable[str], events: Iterable[str], tries: int, jobs: int,
            say: Callable[[str], None], hold: float = 0.0) -> list[Row]:
    """All combinations, in the order of the table. Those that need the machine for themselves come last, one by one."""
    rows = [Row(stall, event, [], STALLS[stall].refused()) for stall in stalls for event in events]
    for alone in (False, True):
        todo = [row for row in rows if not row.refused and STALLS[row.stall].alone == alone]
        _try_all(server, library, todo, tries, 1 if alone else jobs, say, hold)
    return rows


def _try_all(server: Path, library: Path, rows: list[Row], tries: int, jobs: int, say: Callable[[str], None],
             hold: float) -> None:
    """Each worker is a process of its own, or the boards would wait for each other's interpreter."""
    context = multiprocessing.get_context("spawn")
    with concurrent.futures.ProcessPoolExecutor(jobs, context) as workers:
        due = {workers.submit(attempt, server, STALLS[row.stall], row.event, library, seed, hold): row
               for seed in range(tries) for row in rows}
        try:
            for number, done in enumerate(concurrent.futures.as_completed(due), 1):
                _take(due[done], done.result(), tries, say)
                if number % (10 * len(rows)) == 0:
                    say(f"      {number // len(rows)} of {tries} tries")
        except BaseException:  # a trial that the bench could not make; no use in the others
            workers.shutdown(wait=False, cancel_futures=True)
            raise


def _take(row: Row, outcome: Outcome, tries: int, say: Callable[[str], None]) -> None:
    row.outcomes.append(outcome)
    if outcome in row.late:
        took = "never" if outcome.seconds is None else milliseconds(outcome.seconds)
        say(f"LATE  {row.stall}, {row.event}: {took} {outcome.remark}".rstrip())
    if len(row.outcomes) == tries:
        say(f"      {row.stall}, {row.event}: " + ", ".join(row.cells()[2:5]))
