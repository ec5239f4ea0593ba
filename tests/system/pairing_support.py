"""Two applications for remote units on the board, and what the pairing tests look at."""

import hashlib
import io
import os
import tarfile
from pathlib import Path

from tessarobench.board import APPLICATIONS
from tessarobench.csvfile import Table
from tessarobench.installation import REMOTES

READY = "PairServer::PairServer(Configuration*, TagDatabase*, QObject*) file transfer server running."
NO_HANDLE = "Application handle was never created!"
WORDS = ("PKY1", "PKY2", "PKY3", "PKY4")
USER, SYSTEM = str(APPLICATIONS / "panel"), str(APPLICATIONS / "display")


def install(bench, name, kind, **files):
    """Puts an application for remote units on the board; `files` are further ones, by name."""
    folder = bench.applications / name
    (folder / "config").mkdir(parents=True)
    (folder / "manifest.csv").write_text(f"name;{name.title()}\ntarget;ru\ntype;{kind}\n")
    (folder / "config" / "keys.csv").write_text("tag;value\nKey;Value\n" + "".join(f"{word};0\n" for word in WORDS))
    (folder / "config" / "app.csv").write_text("tag;value;from;remark\nKey;Value;From;What it is\n"
                                               "BUID;0;BC;Base unit\nVOLT;24;local;kept\n")
    for file, content in files.items():
        (folder / file).write_bytes(content)
    return folder


def serve(bench, **files):
    """Starts the server on a board with the user application "panel" and the system application "display"."""
    install(bench, "panel", "user", **files)
    install(bench, "display", "system", **files)
    bench.start()
    bench.server.wait_log(READY, whole=True)
    bench.wait_for(lambda: sockets(bench) == 3, what="both listeners, and the local interface's socket", poll=0.01)
    return bench


def serve_with_gate(bench, folder, **files):
    """The same with a tar that waits until `folder` holds a file "go", so that others can ask meanwhile."""
    slow = folder / "tar"
    slow.write_text(f"#!/bin/sh\nwhile [ ! -e {folder}/go ]; do sleep 0.01; done\nexec /usr/bin/tar \"$@\"\n")
    slow.chmod(0o755)
    install(bench, "panel", "user", **files)
    install(bench, "display", "system", **files)
    bench.start(env={"PATH": f"{folder}:/usr/bin:/bin"})
    bench.server.wait_log(READY)
    return bench


def words_of(table: Table) -> list[str]:
    """The key words in an application's keys file."""
    return [table.row(word)["value"] for word in WORDS]


def words_of_unit(bench, unit: int):
    """The key words in the base unit's row of a remote unit; None when it has no row."""
    rows = [row for row in bench.table(REMOTES) if row["RUID"] == str(unit)]
    assert len(rows) <= 1
    return [rows[0][word] for word in WORDS] if rows else None


def file_in(archive: bytes, name: str) -> bytes:
    with tarfile.open(fileobj=io.BytesIO(archive), mode="r:") as tar:
        return tar.extractfile(name).read()


def table_in(archive: bytes, name: str, scratch: Path) -> Table:
    path = scratch / Path(name).name
    path.write_bytes(file_in(archive, name))
    return Table.load(path)


def sockets(bench):
    """How many sockets the server holds. Other descriptors come and go: it also hashes applications meanwhile."""
    folder = f"/proc/{bench.server.pid}/fd"
    count = 0
    for name in os.listdir(folder):
        try:
            count += os.readlink(f"{folder}/{name}").startswith("socket:")
        except FileNotFoundError:
            pass
    return count


def md5(data: bytes) -> str:
    return hashlib.md5(data, usedforsecurity=False).hexdigest()
