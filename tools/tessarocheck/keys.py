"""app.csv and keys.csv: settings by their keys, numbers of four bytes or texts by where they come from."""
from .table import number, read_table

APP_FILE = "tessaroserver/config/app.csv"
KEYS_FILE = "tessaroserver/config/keys.csv"
APP_COLUMNS = ("tag", "value", "from")
BINARY_ORIGINS = ("BC", "RGP")
UINT32_LIMIT = 0xFFFFFFFF
ANSWER_BYTES = 4  # of an answer to the base controller
KEY_LENGTH = 4    # of a key that the base controller can ask for
READ_AS_TEXT = ("EMAP", "MCIP", "MCPT", "SID1", "WPA1", "EGDH")


def check_keys(root, report):
    found = {}
    for name in (APP_FILE, KEYS_FILE):
        path = root / name
        table = read_table(path, report)
        if table is None:
            continue
        for column in APP_COLUMNS:
            if column not in table.columns:
                report.add(path, 1, 1, f"wrong header: column '{column}' is missing")
        check_key_table(table, found, report)
    app = root / APP_FILE
    for key, consequence in (("EMAP", "the server ends at the first identity"),
                             ("FMAP", "the server ends at the first command of a remote unit"),
                             ("EGDH", "the base controller is told a new address every 2 s")):
        if key not in found:
            report.add(app, 1, 1, f"missing key '{key}': {consequence}")
    return found


def check_key_table(table, found, report):
    seen = {}
    for row in table.rows:
        if row.key in seen:
            report.at(table, row, table.columns[0], f"duplicate key '{row.key}', first in line {seen[row.key]}")
        seen[row.key] = row.line
        found[row.key] = row
        check_key(table, row, report)


def check_key(table, row, report):
    key, value, binary = row.key, row.text("value"), row.text("from") in BINARY_ORIGINS
    if binary:
        parsed = number(value)
        if parsed is None or parsed > UINT32_LIMIT:
            report.at(table, row, "value", f"'{value}' of '{key}' is not a number of 32 bits")
        if key == "EMAP":
            check_binary_emap(table, row, report)
        elif key in ("MCPT", "MCIP"):
            report.at(table, row, "from", f"'{key}' is read as text: it must not come from {row.text('from')}")
        return
    if key == "FMAP":
        report.at(table, row, "from", "'FMAP' is read as a number: it must come from BC or RGP")
    elif key in ("EMAP", "MCPT"):
        if number(value) is None or number(value) > 0xFFFF:
            report.at(table, row, "value", f"'{value}' of '{key}' is not a number from 0 to 65535")
    elif len(key) == KEY_LENGTH and key not in READ_AS_TEXT and len(value) > ANSWER_BYTES:
        report.at(table, row, "value", f"'{key}' is longer than {ANSWER_BYTES} bytes: when the base controller asks for "
                                       "it, the server ends")


def emap_of(row):
    """The number that the server reads, or 0: what is none switches the machine controller's link off."""
    value = number(row.text("value"))
    if value is None or row.text("from") not in BINARY_ORIGINS:
        return value or 0
    digits = (value & UINT32_LIMIT).to_bytes(4, "little").split(b"\0")[0]
    return int(digits) if digits.isdigit() else 0


def check_binary_emap(table, row, report):
    said = f"'EMAP' is read as text: what comes from {row.text('from')} is four bytes"
    if emap_of(row):
        report.at(table, row, "from", f"{said}, which read {emap_of(row)}")
    else:
        report.at(table, row, "from", f"{said}, no number, and counts as 0: the machine controller's link stays off")
