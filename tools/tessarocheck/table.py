"""Tables as the server reads them: cells between semicolons, a line of column keys, a line of descriptions, rows."""
from dataclasses import dataclass, field
from pathlib import Path

from . import files


@dataclass
class Cell:
    text: str
    column: int  # 1-based position of the cell's first character in its line


@dataclass
class Row:
    line: int
    cells: dict  # column key to Cell

    @property
    def key(self):
        return next(iter(self.cells.values())).text if self.cells else ""

    def text(self, column):
        cell = self.cells.get(column)
        return cell.text if cell else ""

    def place(self, column):
        cell = self.cells.get(column)
        return self.line, cell.column if cell else 1


@dataclass
class Table:
    path: Path
    columns: list = field(default_factory=list)
    rows: list = field(default_factory=list)


class Report:
    """Collects findings; a finding is a place and a reason."""

    def __init__(self):
        self.findings = []

    def add(self, path, line, column, reason):
        self.findings.append((str(path), line, column, reason))

    def at(self, table, row, column, reason):
        self.add(table.path, *row.place(column), reason)


def simplified(text):
    return " ".join(text.split())


def cells_of(line):
    cells, position = [], 1
    for part in line.split(";"):
        cells.append(Cell(simplified(part), position))
        position += len(part) + 1
    return cells


def read_table(path, report, what=""):
    """The table in a file, or None when there is no such file (`what` says which that is) or it has no two header lines."""
    if not path.exists():
        report.add(path, 1, 1, f"missing file ({what})" if what else "missing file")
        return None
    text = files.text_of(path, report)
    if text is None:
        return None
    lines = text.split("\n")
    if lines[-1] == "":
        lines.pop()
    if len(lines) < 2:
        report.add(path, 1, 1, "wrong header: a line of column keys and a line of descriptions are needed")
        return None
    table = Table(path)
    header = cells_of(lines[0])
    check_header(table, header, len(cells_of(lines[1])), report)
    for number, line in enumerate(lines[2:], start=3):
        row = read_row(table, number, line, report)
        if row:
            table.rows.append(row)
    return table


def check_header(table, header, description_count, report):
    for cell in header:
        if not cell.text:
            report.add(table.path, 1, cell.column, "wrong header: empty column key")
        elif cell.text in table.columns:
            report.add(table.path, 1, cell.column, f"wrong header: column '{cell.text}' stands twice")
        table.columns.append(cell.text)
    if description_count > len(header):
        report.add(table.path, 2, 1, "wrong header: more descriptions than columns")


def read_row(table, number, line, report):
    for position, character in enumerate(line, start=1):
        if character == "\0" or ord(character) > 126:
            report.add(table.path, number, position, "character outside ASCII")
            break
    cells = cells_of(line)
    if len(cells) > len(table.columns):
        report.add(table.path, number, cells[len(table.columns)].column, "more fields than columns: the row is skipped")
        return None
    if not line.strip():
        report.add(table.path, number, 1, "blank line: it becomes a row of its own")
        return None
    if not cells[0].text:
        report.add(table.path, number, 1, "empty key: the row is skipped")
        return None
    if line.split(";")[0] != cells[0].text:
        report.add(table.path, number, 1, "blanks around the key belong to it: it will not be found")
    named = {}
    for name, cell in zip(table.columns, cells):
        named.setdefault(name, cell)
    return Row(number, named)


def number(text):
    """A decimal number without sign, or None."""
    return int(text) if text.isascii() and text.isdigit() else None


def real(text):
    try:
        return float(text)
    except ValueError:
        return None


def expect_columns(table, known, needed, report):
    """@return False when the rows cannot be judged."""
    missing = [name for name in needed if name not in table.columns]
    for name in missing:
        report.add(table.path, 1, 1, f"wrong header: column '{name}' is missing")
    position = 1
    for index, name in enumerate(table.columns):
        if index > 0 and name and name not in known:
            report.add(table.path, 1, position, f"unknown column '{name}'")
        position += len(name) + 1
    return not missing and len(set(table.columns)) == len(table.columns)
