"""Applications: manifest.csv, and what lies in the folders of those for remote units."""
import os
from pathlib import Path

from . import files
from .table import cells_of

MANIFEST = "manifest.csv"
PAIRING_FILES = ("config/app.csv", "config/keys.csv")


def check_applications(root, report):
    users = []
    for folder, folders, names in sorted(os.walk(root)):
        if MANIFEST not in names and MANIFEST not in folders or is_hidden(Path(folder).relative_to(root)):
            continue
        path = Path(folder) / MANIFEST
        kind = check_manifest(path, report)
        if kind and kind[0] == "ru":
            check_contents(path.parent, report)
        if kind == ("ru", "user"):
            users.append(path)
    for extra in users[1:]:
        report.add(extra, 1, 1, f"second user application for remote units, first {users[0]}: only one is compared")


def is_hidden(path):
    """Whether the server's search does not come there: it enters no hidden folder."""
    return any(part.startswith(".") for part in path.parts)


def check_contents(application, report):
    """What is hashed and packed has to be files. Links are followed, as the server does."""
    for name in PAIRING_FILES:
        files.refuse(application / name, report)
    for folder, _, names in os.walk(application):
        for path in (Path(folder) / name for name in names):
            if str(path.relative_to(application)) not in (MANIFEST, *PAIRING_FILES):
                files.refuse(path, report, "the server leaves it out of the application's checksum")


def check_manifest(path, report):
    entries = {}
    text = files.text_of(path, report, files.LARGEST_MANIFEST)
    if text is None:
        return None
    for index, line in enumerate(text.splitlines(), start=1):
        parts = cells_of(line)
        if len(parts) != 2:
            report.add(path, index, 1, "not a key and a value separated by one ';': the line is ignored")
            continue
        if parts[0].text in entries:
            report.add(path, index, 1, f"'{parts[0].text}' stands twice: the last one counts")
        entries[parts[0].text] = (parts[1].text, index, parts[1].column)
    for key in ("target", "type"):
        if key not in entries:
            report.add(path, 1, 1, f"manifest without '{key}'")
    target, kind = entries.get("target", ("", 1, 1)), entries.get("type", ("", 1, 1))
    if target[0] == "ru" and "type" in entries and kind[0] not in ("user", "system"):
        report.add(path, kind[1], kind[2], f"type '{kind[0]}' is neither 'user' nor 'system'")
    return target[0], kind[0]
