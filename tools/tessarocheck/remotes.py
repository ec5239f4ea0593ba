"""remotes.csv: the remote units."""
from .keys import UINT32_LIMIT
from .table import number, read_table

REMOTES_FILE = "tessaroserver/config/remotes.csv"
REMOTES_COLUMNS = ("ruindex", "RUID", "PKY1", "PKY2", "PKY3", "PKY4")


def check_remotes(root, report):
    path = root / REMOTES_FILE
    table = read_table(path, report)
    if table is None:
        return
    if tuple(table.columns) != REMOTES_COLUMNS:
        report.add(path, 1, 1, "wrong header: expected " + ";".join(REMOTES_COLUMNS))
        return
    ids = {}
    for index, row in enumerate(table.rows):
        check_remote(table, row, index, ids, report)


def check_remote(table, row, index, ids, report):
    values = {}
    for column in REMOTES_COLUMNS:
        values[column] = number(row.text(column))
        if values[column] is None or values[column] > UINT32_LIMIT:
            report.at(table, row, column, f"'{row.text(column)}' is not a number of 32 bits")
    if values["ruindex"] is not None and values["ruindex"] != index:
        report.at(table, row, "ruindex", f"ruindex {values['ruindex']} in row {index}")
    unit = values["RUID"]
    if unit is None:
        return
    if not 1 <= unit <= 0xFFFF:
        report.at(table, row, "RUID", f"RUID {unit} is not a number from 1 to 65535")
    elif unit in ids:
        report.at(table, row, "RUID", f"duplicate RUID {unit}, first in line {ids[unit]}")
    else:
        ids[unit] = row.line
