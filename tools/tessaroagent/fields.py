"""The values of a unit: their labels, the names and plain words of what they may be, and how good that is.

Levels, from good to bad: `good`, `note` (neither), `warn`, `bad`; `unknown` where nothing is known.
"""
from typing import NamedTuple

GOOD, NOTE, WARN, BAD, UNKNOWN = "good", "note", "warn", "bad", "unknown"


class Value(NamedTuple):
    """One thing that a field may be: its name in the server's language, in plain words, and how good that is."""

    name: str
    words: str
    level: str


class Field(NamedTuple):
    key: str
    label: str
    values: dict


BU_STATES = {"0": Value("INITIAL", "starting up", WARN),
             "1": Value("STOPPED", "stopped", WARN),
             "2": Value("EXTERNAL_LINK_ERROR", "an external link has failed", BAD),
             "3": Value("BLOCKED", "blocked", WARN),
             "4": Value("FAILED", "failed", BAD),
             "16": Value("DISARMED", "ready, no unit is armed", GOOD),
             "17": Value("ARMED", "a unit is armed", GOOD)}
LINK_STATES = {"0": Value("NOT_CONFIGURED", "not in use", NOTE),
               "1": Value("OPERATIONAL", "works", GOOD),
               "2": Value("NO_LINK", "no link", BAD),
               "3": Value("LINK_ERROR", "link error", BAD),
               "4": Value("INTERFACE_ERROR", "interface error", BAD),
               "5": Value("DATA_ERROR", "data error", BAD),
               "6": Value("PASSIVE", "passive", WARN)}

# The members of the status object, in the order in which they are shown.
STATUS = (
    Field("BU_ID", "base unit", {}),
    Field("BU_STATE", "state", BU_STATES),
    Field("ARMED_RU", "armed unit", {"0": Value("", "none", NOTE)}),
    Field("UNARMED_RUs", "unarmed units", {}),
    Field("RU_STATE", "unit state", {}),
    Field("TSAPs", "TSAPs", {}),
    Field("EG_LINK_STATUS", "machine controller link", LINK_STATES),
    Field("EC_LINK_STATUS", "external controller link", {}),
    Field("C_LINK_STATUS", "C link", {}),
    Field("BCSR", "BCSR", {}),
    Field("BUID", "BUID", {}),
    Field("IFTY", "IFTY", {}),
    Field("IVL1", "IVL1", {}),
    Field("IVL2", "IVL2", {}),
    Field("IVL3", "IVL3", {}),
)

# What the agent finds out by itself.
SERVER, LINK, RELAY, UNITS, FALLBACK = "server", "link", "relay", "units", "fallback"
OBSERVED = (
    Field(SERVER, "server", {"answers": Value("answers", "answers", GOOD),
                             "silent": Value("silent", "does not answer", BAD)}),
    Field(LINK, "internal link", {"RUN": Value("RUN", "runs", GOOD),
                                  "STARTING": Value("STARTING", "is starting", WARN),
                                  "NO_BI_LINK": Value("NO_BI_LINK", "no link to the base controller", BAD),
                                  "ended": Value("ended", "the server has ended", BAD)}),
    Field(RELAY, "machine-stop relay", {"closed": Value("closed", "closed: the machine may run", GOOD),
                                        "open": Value("open", "open: the machine is stopped", BAD),
                                        "moving": Value("moving", "is moving", WARN),
                                        "stays closed": Value("stays closed", "told to open, and still closed", BAD),
                                        "stays open": Value("stays open", "open, though told to close: machine stop, or a fault", BAD)}),
    Field(UNITS, "connections of remote units", {"0": Value("", "none", NOTE)}),
    Field(FALLBACK, "remote units on the fallback", {"": Value("", "none", NOTE)}),
)

FIELDS = {field.key: field for field in STATUS + OBSERVED}
STATUS_KEYS = tuple(field.key for field in STATUS)


def meaning(key, value):
    """The Value for what `key` is; a value without a name of its own stands for itself."""
    if value is None:
        return Value("", "unknown", UNKNOWN)
    known = FIELDS[key].values.get(value) if key in FIELDS else None
    if known:
        return known
    if value == "" and key in STATUS_KEYS:
        return Value("", "no such tag in this installation", WARN)
    return Value("", value, NOTE)
