"""The server's log lines in plain words, with what to do about them: read from the tables of the operator's handbook, so that
the page and the handbook cannot say two things.

Tables whose header begins with "Line | Means" count, and "Last lines | Cause". In their first column, texts in `backquotes`
are what a line contains; `…` stands for anything, a lone `n` or `m` for a number. What is to be done decides how a line is
shown: nothing makes it a note, anything else a warning, and **bold** words a danger. The first section tells of good starts.
"""
import re
from typing import NamedTuple, Optional

from .fields import BAD, GOOD, NOTE, WARN

GOOD_SECTION = "A good start"
NOTHING = ("", "–")
FATAL = re.compile(r'Fatal error in\s+"?(?P<unit>[^"\s]+)"?\s*: line (?P<line>\d+)')
SECRET = re.compile(r"(PairServer generated new keys:).*")
LONGEST_LINE = 400
STAMP = re.compile(r"(\d{8} \d{2}:\d{2}:\d{2}\.\d{3}) - (.*)", re.DOTALL)


class Entry(NamedTuple):
    """One row of the handbook."""

    event: str  # a short name that does not change as long as the line does not
    section: str
    pattern: re.Pattern
    words: str
    todo: str
    level: str


class Fatal(NamedTuple):
    unit: str
    first: int
    last: int
    words: str


def plain(cell):
    """A cell without its markup."""
    return re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", cell).replace("`", "").replace("**", "").strip()


def slug(text):
    words = re.sub(r"\b[nm]\b|…", " ", text)
    return re.sub(r"[^a-z0-9]+", "_", words.lower()).strip("_")[:48].strip("_")


def pattern_of(text):
    """What a line looks like that the handbook writes as `text`; quotes and runs of blanks do not count."""
    parts = []
    for token in re.split(r"(…|\b[nm]\b|\s+)", text.strip().replace('"', "")):
        if token == "…":
            parts.append(".*")
        elif token in ("n", "m"):
            parts.append(r"\d+" if r"(?P<n>\d+)" in parts or token == "m" else r"(?P<n>\d+)")
        elif token.isspace():
            parts.append(r"\s*")
        else:
            parts.append(re.escape(token))
    body = "".join(parts)
    # A single word such as RUN is a whole line; longer texts may have more behind them.
    return re.compile(f"^{body}$" if re.fullmatch(r"\w+", text.strip()) else f"^{body}")


def cells_of(line):
    return [cell.strip() for cell in line.strip().strip("|").split("|")]


def level_of(section, todo, row):
    if "**" in row:
        return BAD
    if section == GOOD_SECTION:
        return GOOD
    return NOTE if todo in NOTHING or todo.startswith("nothing") else WARN


class Logbook:
    """The handbook's tables. A text without any gives a logbook that knows no line."""

    def __init__(self, handbook):
        self.entries, self.fatals = [], []
        self._above = "", ""
        section, header, unit = "", None, ""
        for line in handbook.splitlines():
            if line.startswith("#"):
                section, header = line.lstrip("# ").strip(), None
            elif not line.startswith("|"):
                header = None
            elif header is None:
                header = cells_of(line)
            elif not set(line) <= set("|-: "):
                unit = self._row(section, header, line, unit)

    def _row(self, section, header, line, unit):
        cells = cells_of(line)
        if header[:2] == ["Line", "Means"] or header[:2] == ["Last lines", "Cause"]:
            words, todo = plain(cells[1]), plain(cells[2]) if len(cells) > 2 else ""
            words, todo = (self._above[place] if text == "the same" else text for place, text in enumerate((words, todo)))
            self._above = words, todo
            level = BAD if header[0] == "Last lines" else level_of(section, todo, line)
            self._add(section, cells[0], words, "" if todo in NOTHING else todo, level)
        elif header[:3] == ["Unit", "Line", "Means"]:
            unit = plain(cells[0]) or unit
            for first, last in re.findall(r"(\d+)(?:–(\d+))?", cells[1]) or [("0", "99999")]:
                self.fatals.append(Fatal(unit, int(first), int(last or first), plain(cells[2])))
        return unit

    def _add(self, section, cell, words, todo, level):
        for text in re.findall(r"`([^`]+)`", cell):
            if " without " not in cell:  # such a row tells of a line that does not come
                self.entries.append(Entry(slug(text), section, pattern_of(text), words, todo, level))

    def events(self, but=None):
        """All names that `read` may give, each once; without those of one level."""
        return list(dict.fromkeys(entry.event for entry in self.entries if entry.level != but))

    def read(self, text) -> Optional[Entry]:
        """The row for a line without its time stamp, or None for one that needs no words."""
        bare = text.replace('"', "").strip()
        for entry in self.entries:
            found = entry.pattern.match(bare)
            if found:
                return self._explained(self._numbered(entry, found), text)
        return None

    @staticmethod
    def _numbered(entry, found):
        """With the line's own number where the handbook says n."""
        number = found.groupdict().get("n")
        if number is None or entry.pattern.pattern.count("\\d+") > 1:
            return entry
        return entry._replace(words=re.sub(r"\bn\b", number, entry.words), todo=re.sub(r"\bn\b", number, entry.todo))

    def _explained(self, entry, text):
        fatal = FATAL.search(text)
        if not fatal:
            return entry
        number = int(fatal["line"])
        cause = next((row.words for row in self.fatals
                      if row.unit == fatal["unit"] and row.first <= number <= row.last), "a broken invariant")
        return entry._replace(words=f"the server has ended itself: {cause}", level=BAD,
                              todo="send a tessaro-report to support if the configuration does not explain it")


def split_line(raw):
    """(time stamp or "", text) of a log line, without what is secret in it and no longer than a line should be."""
    found = STAMP.match(raw)
    stamp, text = found.groups() if found else ("", raw)
    return stamp, SECRET.sub(r"\1 ***", text)[:LONGEST_LINE]
