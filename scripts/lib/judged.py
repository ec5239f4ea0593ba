#!/usr/bin/python3
"""Lets an analyser read several C++ sources as one, so that it reads Qt's headers once for all of them, and tells its findings
as those of the sources.

An analyser needs ten times as long for the headers that a source includes as for the source. Here sources are joined that
declare nothing twice; where they do not compile together all the same, they are judged one by one. Each source is judged with
the definitions and folders of all: a module's own compiler command says what it may not see.

usage: judged.py BUILD-FOLDER COMMAND... -- SOURCE...   (the command gets "-p FOLDER" and a source behind it)
Prints what the command prints; ends with 1 when the command did so for any source."""

from __future__ import annotations

import json
import os
import re
import shlex
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import NamedTuple

LINES = 2300  # of sources that are joined; more would leave a processor idle at the end
PRECOMPILED = re.compile(r" -Winvalid-pch -include \S*cmake_pch\.hxx")  # of another compiler than the analyser's
DECLARED = re.compile(r"^(?!return\b)(?:\w[\w:<>,*& ]*?[ *&])?(\w+)(?=\(|\[| ?=| ?\{|;|$| final| : )", re.M)
ENUMERATORS = re.compile(r"^enum (?!class)[^{]*\{(.*?)^\}", re.M | re.S)
COUNT = re.compile(r"^\d+ (?:warnings?|errors?|warnings? and \d+ errors?) generated\.\n", re.M)
NO_SOURCE = re.compile(r": (?:fatal )?error: (?!.*\[(?!clang-diagnostic-error)[\w.,-]+\]$)", re.M)  # of the compiler itself


class Judgement(NamedTuple):
    text: str
    failed: bool


def declared_in(source: Path) -> set[str]:
    """What it declares for itself, as far as that stands at the beginning of a line: namespaces are not indented."""
    text = source.read_text(encoding="utf-8")
    enumerators = " ".join(ENUMERATORS.findall(text))
    return (set(DECLARED.findall(text)) | set(re.findall(r"^ +(\w+)", enumerators, re.M))) - {"namespace", "static_assert"}


class Joined(NamedTuple):
    """Sources as one file, and where each of them begins in it."""

    sources: list[Path]
    names: set[str]

    def takes(self, names: set[str], lines: int) -> bool:
        return not names & self.names and lines + sum(map(lines_of, self.sources)) <= LINES


def lines_of(source: Path) -> int:
    return source.read_text(encoding="utf-8").count("\n")


def join(sources: list[Path]) -> list[Joined]:
    groups: list[Joined] = []
    for source in sorted(sources, key=lines_of, reverse=True):
        names = declared_in(source)
        group = next((group for group in groups if group.takes(names, lines_of(source))), None)
        if group is None:
            groups.append(Joined([source], names))
        else:
            group.sources.append(source)
            group.names.update(names)
    return groups


def commands_of(build: Path) -> dict[Path, list[str]]:
    entries = json.loads((build / "compile_commands.json").read_text(encoding="utf-8"))
    return {Path(entry["file"]): shlex.split(PRECOMPILED.sub("", entry["command"])) for entry in entries}


def command_for(file: Path, members: list[list[str]]) -> dict:
    """One that sees what any of the members sees."""
    seen: dict[tuple[str, ...], None] = {}
    for member in members:
        words = iter(member)
        for word in words:
            if word == "-isystem":
                seen[word, next(words)] = None
            elif word.startswith("-I"):  # ours are in quotes, and <link.h> is the system's
                seen["-iquote", word[2:]] = None
            elif word.startswith("-D"):
                seen[(word,)] = None
    rest = [word for word in members[0] if word.startswith(("-f", "-O", "-W", "-std"))]
    options = [word for pair in seen for word in pair]
    return {"directory": str(file.parent), "file": str(file), "arguments": ["c++", *options, *rest, "-c", str(file)]}


class Judge:
    def __init__(self, command: list[str], build: Path, folder: Path):
        self.command, self.folder, self.commands = command, folder, commands_of(build)

    def judge(self, groups: list[Joined]) -> list[Judgement]:
        files = [self._write(number, group.sources) for number, group in enumerate(groups)]
        singles = [source for group in groups for source in group.sources]
        entries = [command_for(file, [self.commands[source] for source in group.sources])
                   for file, group in zip(files, groups)]
        entries += [command_for(source, [self.commands[source]]) for source in singles]
        (self.folder / "compile_commands.json").write_text(json.dumps(entries), encoding="utf-8")
        with ThreadPoolExecutor(len(os.sched_getaffinity(0))) as pool:
            return list(pool.map(self._judge_group, files, groups))

    def _write(self, number: int, sources: list[Path]) -> Path:
        file = self.folder / f"joined{number}.cpp"
        file.write_text("".join(source.read_text(encoding="utf-8") for source in sources), encoding="utf-8")
        return file

    def _judge_group(self, file: Path, group: Joined) -> Judgement:
        judgement = self._run(file)
        if not NO_SOURCE.search(judgement.text):
            return Judgement(self._told(judgement.text, file, group.sources), judgement.failed)
        singly = [self._run(source) for source in group.sources]
        return Judgement("".join(one.text for one in singly), any(one.failed for one in singly))

    def _run(self, file: Path) -> Judgement:
        done = subprocess.run([*self.command, "-p", str(self.folder), str(file)], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, check=False)
        return Judgement(COUNT.sub("", done.stdout), done.returncode != 0)

    @staticmethod
    def _told(text: str, file: Path, sources: list[Path]) -> str:
        """The text with the places in the joined file as places in its sources."""
        def place(match: re.Match) -> str:
            line = int(match[1])
            for source in sources:
                if line <= lines_of(source):
                    return f"{source}:{line}:"
                line -= lines_of(source)
            return match[0]
        return re.sub(re.escape(str(file)) + r":(\d+):", place, text)


def main() -> int:
    build, *command = sys.argv[1:sys.argv.index("--")]
    sources = [Path(source).resolve() for source in sys.argv[sys.argv.index("--") + 1:]]
    with tempfile.TemporaryDirectory() as folder:
        judgements = Judge(command, Path(build), Path(folder)).judge(join(sources))
    print("".join(judgement.text for judgement in judgements), end="")
    return int(any(judgement.failed for judgement in judgements))


if __name__ == "__main__":
    sys.exit(main())
