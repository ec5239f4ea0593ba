"""Turns the instrument's results into tables, and holds them against the targets.

On a shared machine noise only ever adds. Of several rounds the lowest value of each figure therefore stands, for the
server and for the floor alike, and the range of the medians over the rounds is given beside it.
"""

from __future__ import annotations

import datetime
import os
import platform
import subprocess
from pathlib import Path
from typing import Iterable, NamedTuple

WAYS = {("image", "API"): "process image to API push",
        ("periodic", "units"): "periodic data to the last unit",
        ("command", "UART"): "command of a unit to the UART",
        ("command", "controller"): "command of a unit to the machine controller",
        ("set", "units"): "machine controller's data to the last unit"}
FIGURES = ("p50", "p99", "p999", "spread_p50", "spread_p99", "cpu_us")


# --- where the numbers come from ---------------------------------------------------------------------------------------


def machine() -> str:
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        model = next((line.split(":")[1].strip() for line in file if line.startswith("model name")), platform.machine())
    virtual = ", virtual" if "hypervisor" in Path("/proc/cpuinfo").read_text(encoding="utf-8") else ""
    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") // 2**30
    return f"{os.cpu_count()} cores of {model}{virtual}, {memory} GiB, Linux {platform.release()}"


def commit(folder: Path) -> str:
    """The commit, with a plus sign when the tree has been changed since; "unknown" outside a repository."""
    def git(*words: str) -> str:
        done = subprocess.run(["git", "-c", "safe.directory=*", *words], cwd=folder, capture_output=True, text=True,
                              check=False)
        return done.stdout.strip() if done.returncode == 0 else ""

    return (git("rev-parse", "--short=10", "HEAD") or "unknown") + ("+" if git("status", "--porcelain") else "")


def circumstances() -> dict:
    return {"machine": machine(), "load": os.getloadavg()[0],
            "date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC")}


# --- rounds ------------------------------------------------------------------------------------------------------------


class Cell(NamedTuple):
    """The lowest of each figure over the rounds, and the highest median."""

    best: dict
    worst_p50: float


class Results:
    def __init__(self, results: list[dict]):
        self._results = results

    def kind(self, kind: str) -> list[dict]:
        return [result for result in self._results if result["kind"] == kind]

    def units(self) -> list[int]:
        return sorted({result["units"] for result in self.kind("latency")})

    def cell(self, way: tuple[str, str], units: int, side: str) -> Cell:
        rounds = [result for result in self.kind("latency")
                  if (result["way"], result["to"], result["units"], result["side"]) == (*way, units, side)]
        best = {figure: min(result[figure] for result in rounds) for figure in FIGURES if figure in rounds[0]}
        return Cell(best, max(result["p50"] for result in rounds))

    def micro(self, name: str) -> float:
        return next(result["ns"] for result in self.kind("micro") if result["name"] == name)


# --- tables ------------------------------------------------------------------------------------------------------------


def markdown(head: Iterable[str], rows: Iterable[Iterable[object]]) -> str:
    """A table whose columns are as wide as they need to be, so that it can be read on a terminal too."""
    lines = [list(map(str, head)), *[list(map(str, row)) for row in rows]]
    widths = [max(len(line[column]) for line in lines) for column in range(len(lines[0]))]
    lines.insert(1, ["-" * width for width in widths])
    return "\n".join("| " + " | ".join(text.ljust(width) for text, width in zip(line, widths)) + " |" for line in lines)


def triple(best: dict) -> str:
    return f"{best['p50']:.0f} / {best['p99']:.0f} / {best['p999']:.0f}"


def latency(results: Results) -> str:
    rows = []
    for way, title in WAYS.items():
        for units in results.units():
            server, floor = results.cell(way, units, "server"), results.cell(way, units, "floor")
            spread = (f"{server.best['spread_p50']:.0f} / {server.best['spread_p99']:.0f}"
                      if "spread_p50" in server.best else "")
            rows.append((title, units, triple(server.best), f"up to {server.worst_p50:.0f}", triple(floor.best),
                         f"{server.best['p50'] / floor.best['p50']:.1f} / {server.best['p99'] / floor.best['p99']:.1f}",
                         spread, f"{server.best['cpu_us']:.0f}", f"{floor.best['cpu_us']:.0f}"))
    return markdown(("way", "units", "p50 / p99 / p99.9", "p50 of rounds", "floor", "ratio p50 / p99",
                     "first to last p50 / p99", "CPU", "CPU floor"), rows)


def upkeep(results: Results) -> str:
    rows = [(f"{result['kind']}, {result['units']} unit{'s' if result['units'] > 1 else ''}",
             f"{result['cpu_percent']:.2f} %",
             f"up to {result['cpu_percent_highest']:.2f} %", f"{result['wakeups_per_second']:.0f}",
             f"{result['resident_kib'] / 1024:.1f} MiB", result["threads"])
            for kind in ("idle", "nominal") for result in results.kind(kind)]
    return markdown(("installation", "CPU of a core", "CPU of windows", "wake-ups per second", "resident", "threads"), rows)


def start_up(results: Results) -> str:
    start, = results.kind("start")
    rows = [(title, f"{start[key + '_p50'] / 1000:.1f}", f"{start[key + '_max'] / 1000:.1f}")
            for key, title in (("relay", "relay closed"), ("frame", "first frame on the UART"),
                               ("listening", "listening to remote units"))]
    return markdown(("from the start of the process to", "median ms", "longest ms"), rows)


def micro(results: Results) -> str:
    rows = [(result["name"], f"{result['ns']:.0f}") for result in results.kind("micro")]
    return markdown(("step / size", "ns"), rows)


# --- targets -----------------------------------------------------------------------------------------------------------


def targets(results: Results) -> str:
    rows = []

    def judge(what: str, value: float, limit: float, unit: str = "") -> None:
        rows.append((what, f"{value:.3g}{unit}", f"{limit:g}{unit}", "met" if value <= limit else "MISSED"))

    for way, title in WAYS.items():
        server, floor = results.cell(way, 1, "server").best, results.cell(way, 1, "floor").best
        judge(f"{title}, one unit: p50 over floor", server["p50"] / floor["p50"], 2)
        judge(f"{title}, one unit: p99 over floor", server["p99"] / floor["p99"], 3)
    for way in (("periodic", "units"), ("set", "units")):
        judge(f"{WAYS[way]}: first to last of 32 units, p50",
              results.cell(way, 32, "server").best["spread_p50"] / 1000, 1, " ms")
        few, many = (results.cell(way, units, "server").best["cpu_us"] for units in (8, 128))
        judge(f"{WAYS[way]}: CPU per message with 128 units over 8", many / few, 1.2)
    judge("unchanged image of 500 tags", results.micro("imageUnchanged/500") / 1000, 10, " us")
    judge("nominal load", results.kind("nominal")[0]["cpu_percent"], 1, " %")
    judge("start to relay closed, longest", results.kind("start")[0]["relay_max"] / 1000, 50, " ms")
    return markdown(("target", "measured", "limit", ""), rows)


def text(measured: dict) -> str:
    results = Results(measured["results"])
    priority = "ahead of all other work (SCHED_FIFO)" if measured["realtime"] else "ordinary priority"
    return "\n\n".join((
        f"{measured['machine']}\n{measured['date']}, load average {measured['load']:.1f}, {priority}, "
        + ("cores kept awake, " if measured["awake"] else "") + f"commit {measured['commit']}" + (", quick" if measured["quick"] else ""),
        "Latency in us, CPU in us per delivered message:", latency(results), start_up(results), upkeep(results),
        micro(results), targets(results)))
