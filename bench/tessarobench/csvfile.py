"""The installation's configuration files as the bench reads and writes them: key line, description line, rows.

Independent of the server's reader. Fields are separated by ";", nothing is quoted.
"""

from __future__ import annotations

from pathlib import Path
from typing import Iterator, Optional


class Table:
    """Rows in file order, addressed by the text in their first column."""

    def __init__(self, columns: list[str], descriptions: Optional[list[str]] = None):
        self.columns = columns
        self.descriptions = descriptions or list(columns)
        self.rows: list[dict[str, str]] = []

    @classmethod
    def load(cls, path: Path) -> "Table":
        lines = [line.split(";") for line in Path(path).read_text("latin-1").splitlines()]
        table = cls([field.strip() for field in lines[0]], [field.strip() for field in lines[1]])
        for fields in lines[2:]:
            table.rows.append(dict(zip(table.columns, (field.strip() for field in fields))))
        return table

    def save(self, path: Path) -> None:
        Path(path).write_text(self.text(), "latin-1")

    def text(self) -> str:
        lines = [self.columns, self.descriptions]
        lines += [[row.get(column, "") for column in self.columns] for row in self.rows]
        return "".join(";".join(line) + "\n" for line in lines)

    def row(self, key: str) -> Optional[dict[str, str]]:
        return next((row for row in self.rows if row[self.columns[0]] == key), None)

    def set(self, key: str, **values: object) -> "Table":
        """Changes the row with this key, or adds it at the end. Columns that are not named stay (or are empty)."""
        row = self.row(key)
        if row is None:
            row = {self.columns[0]: key}
            self.rows.append(row)
        row.update({column.rstrip("_"): str(value) for column, value in values.items()})
        return self

    def remove(self, key: str) -> "Table":
        self.rows = [row for row in self.rows if row[self.columns[0]] != key]
        return self

    def __iter__(self) -> Iterator[dict[str, str]]:
        return iter(self.rows)
