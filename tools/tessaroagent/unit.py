"""What is known of the unit. Fed by the sources, asked by everything that shows it; no input or output of its own.

`now` is the wall clock, for people; `tick` is the monotonic one, for ages: a clock that is set does no harm to them.
"""
import collections
import json
import re

from . import fields
from .fields import FALLBACK, LINK, RELAY, SERVER, STATUS_KEYS, UNITS

LONGEST_VALUE = 64
SILENCE_SECONDS = 3.0
FOLD_SECONDS = 60.0
LINK_LINES = ("RUN", "STARTING", "NO_BI_LINK")
FALLBACK_LINE = re.compile(r"RGPCom::(add|remove)FallbackLink (\d+)")
REFUSAL = re.compile(r"GLINK_MSG_ID_INITACK RU \d+ Error (\d+)")
BANNER = "Starting TZ-400 Tessaro Server"
UP, DOWN = ("RUN", "STARTING"), "NO_BI_LINK"  # a link that is down tries again, and says each time that it failed
MOST_REASONS = 16
MOST_FALLBACK = 32

# What can be wrong with watching: what it is, what to do, and whether the unit cannot be told about at all.
PROBLEMS = {
    "port": ("another program owns UDP port {}: nothing of the server comes here",
             "end it (ss -ulpn shows which; an older tessaro-top or a script), the agent takes the port over by itself", True),
    "silent": ("the server does not answer", "systemctl status tessaroserver; see what the log said last", True),
    "json": ("the server's answer is no JSON object", "versions of server and agent do not fit, or something else answers", True),
    "members": ("the status object lacks {}", "versions of server and agent do not fit", False),
    "log": ("the log cannot be read: {}", "let the agent's user into the group systemd-journal, or start it with --no-log",
            False),
    "clock": ("the clock jumped by {} s: what was before stands with the time that the new clock would have told",
              "nothing, if it has just been set; else see to the unit's time", False),
    "history": ("the history cannot be kept: {}", "see to the folder given with --state", False),
}


class Folded:
    """An event of the log that comes again and again: told once, then by its number."""

    def __init__(self, tick):
        self.until, self.more = tick + FOLD_SECONDS, 0


class Unit:
    """`tell` gets every change as a dictionary that JSON can hold."""

    def __init__(self, logbook, tell):
        self._logbook, self._tell = logbook, tell
        self.values, self.since = {}, {}
        self.problems = {}
        self.changes = collections.Counter()
        self.log_events = collections.Counter()
        self.refusals = collections.Counter()
        self.link_losses = self.restarts = self.datagrams = self.garbage = self.clock_jumps = 0
        self.heard = None      # tick of the newest datagram
        self.pushed = None     # tick of the newest status object
        self.asked = None      # tick of the oldest question without an answer
        self.process = None    # newest figures of the server's process
        self.log_followed = False
        self._remembered = {}  # what an earlier agent knew last of things that only the log tells
        self._born = None      # when the newest process of the server began
        self._missing = []     # members that the newest status object lacks
        self._fallback = []
        self._folded = {}

    # --- the server's interface --------------------------------------------------------------------------------------

    def ask(self, tick):
        if self.asked is None:
            self.asked = tick

    def datagram(self, data, now, tick):
        self.datagrams += 1
        self.heard, self.asked = tick, None
        self.set(SERVER, "answers", now)
        self.problem("silent", None)
        if data == b"NOTIFY":
            return
        try:
            status = json.loads(data)
        except (ValueError, RecursionError):
            status = None
        if not isinstance(status, dict):
            self.garbage += 1
            self.problem("json", "")
            return
        self.pushed = tick
        self.problem("json", None)
        self._status(status, now)

    def _status(self, status, now):
        self._missing = missing = [key for key in STATUS_KEYS if not isinstance(status.get(key), (str, int, float))]
        self.problem("members", ", ".join(missing) if missing else None)
        for key in STATUS_KEYS:
            if key not in missing:
                self.set(key, str(status[key])[:LONGEST_VALUE], now)

    def refused(self, now):
        """Nobody listens on the port of the requests."""
        self._silent(now)

    def check(self, now, tick):
        """Once in a while: has the server become silent, and is there something folded to tell?"""
        if self.asked is not None and tick - self.asked > SILENCE_SECONDS:
            self._silent(now)
        for event, folded in list(self._folded.items()):
            if tick >= folded.until:
                del self._folded[event]
                if folded.more:
                    self._tell_more(event, folded.more, now)

    def _silent(self, now):
        if "port" not in self.problems:
            self.set(SERVER, "silent", now)
            self.problem("silent", "")

    # --- the log -----------------------------------------------------------------------------------------------------

    def follows_log(self, follows):
        """Whether new lines come; what the log told before is only what was, meanwhile."""
        if follows != self.log_followed:
            self.log_followed = follows
            self._tell({"problems": list(self.problems.values())})

    def log_line(self, text, now, tick):
        """A line that is new."""
        before = self.values.get(LINK)
        self.log_state(text, now)
        if before in UP and self.values[LINK] == DOWN:
            self.link_losses += 1
        refusal = REFUSAL.match(text)
        if refusal and (refusal[1] in self.refusals or len(self.refusals) < MOST_REASONS):
            self.refusals[refusal[1]] += 1
        entry = self._logbook.read(text)
        if entry is None:
            return
        self.log_events[entry.event] += 1
        folded = self._folded.get(entry.event)
        if folded:
            folded.more += 1
            return
        self._folded[entry.event] = Folded(tick)
        self._tell({"key": "log", "time": now, "event": entry.event, "section": entry.section, "line": text,
                    "words": entry.words, "todo": entry.todo, "level": entry.level})

    def log_state(self, text, now):
        """What a line tells about the present, also one from before the agent began."""
        if text in LINK_LINES:
            self.set(LINK, text, now)
        elif text.startswith(BANNER):
            self._fallback.clear()
            self.set(FALLBACK, "", now)
        fallback = FALLBACK_LINE.match(text)
        if fallback:
            self._fallback = [unit for unit in self._fallback if unit != fallback[2]]
            if fallback[1] == "add":
                self._fallback = [*self._fallback, fallback[2]][-MOST_FALLBACK:]
            self.set(FALLBACK, ", ".join(self._fallback), now)

    def _tell_more(self, event, more, now):
        entry = next(entry for entry in self._logbook.entries if entry.event == event)
        self._tell({"key": "log", "time": now, "event": event, "section": entry.section, "words": entry.words,
                    "todo": entry.todo, "level": entry.level, "line": "", "more": more})

    # --- the machine around it -----------------------------------------------------------------------------------------

    def relay(self, driven, closed, settled, now):
        """`driven` and `closed` are None where the lines cannot be read; `settled` once the contact had time to follow."""
        if driven is None or closed is None:
            return self.set(RELAY, None, now)
        if driven == closed:
            return self.set(RELAY, "closed" if closed else "open", now)
        if not settled:
            return self.set(RELAY, "moving", now)
        return self.set(RELAY, "stays closed" if closed else "stays open", now)

    def units(self, count, now):
        self.set(UNITS, None if count is None else str(count), now)

    def figures(self, process, now):
        """Figures of the server's process, or None while there is none."""
        gone = self.process is not None and process is None
        self.process = process
        if gone:
            self.set(LINK, "ended", now)
            self._silent(now)
        if process is None:
            return
        for key, (value, when) in self._remembered.items():
            if key not in self.values and when > now - process.age:
                self.set(key, value, now)  # the same server still runs, and has said nothing else since
        self._remembered.clear()
        if self._born not in (None, process.birth):
            self.restarts += 1
            self._tell({"key": "agent", "time": now, "words": "the server has been started again", "level": fields.WARN})
        self._born = process.birth

    def remember(self, key, value, when):
        """What was known of `key` at that time. It holds as long as the server's process is the same."""
        if value is not None:
            self._remembered[key] = value, when

    def clock_jumped(self, seconds, now):
        """`seconds` is what a time of before must be moved by, to be one of the clock of now."""
        self.clock_jumps += 1
        self.since = {key: since + seconds for key, since in self.since.items()}
        self._remembered = {key: (value, when + seconds) for key, (value, when) in self._remembered.items()}
        self.problem("clock", f"{seconds:+.0f}")
        self._tell({"key": "agent", "time": now, "words": f"the clock jumped by {seconds:+.0f} s", "level": fields.WARN,
                    "jump": seconds})

    # --- what all of that comes to --------------------------------------------------------------------------------------

    def set(self, key, value, now):
        """Keeps a value; one that is another than before is a change."""
        old = self.values.get(key)
        if old == value and key in self.values:
            return
        first = key not in self.values
        self.values[key], self.since[key] = value, now
        if not first:
            self.changes[key] += 1
        self._tell({"key": key, "time": now, "old": old, "new": value, "first": first, **self.described(key, value)})

    def problem(self, code, detail):
        """Begins or (with None) ends a problem."""
        before = self.problems.get(code)
        if detail is None:
            self.problems.pop(code, None)
        else:
            text, todo, serious = PROBLEMS[code]
            self.problems[code] = {"code": code, "text": text.format(detail), "todo": todo, "serious": serious}
        if before != self.problems.get(code):
            self._tell({"problems": list(self.problems.values())})

    @property
    def healthy(self):
        return not any(problem["serious"] for problem in self.problems.values())

    def stale(self):
        """What is not known now, only what it was last: of a server that is silent or makes no sense, of a log that nobody
        follows."""
        silent = self.values.get(SERVER) == "silent"
        keys = list(STATUS_KEYS if silent or "json" in self.problems else self._missing)
        if silent or not self.log_followed:
            keys += [FALLBACK] if self._has_ended() else [LINK, FALLBACK]
        return [key for key in keys if self.values.get(key) is not None]

    def _has_ended(self):
        """Whether the link is lost with the server itself, which no log has to tell."""
        return self.process is None and self.values.get(LINK) == "ended"

    @staticmethod
    def described(key, value):
        return fields.meaning(key, value)._asdict()

    def snapshot(self):
        """Every value that is known, with its meaning and since when."""
        return {field.key: {"label": field.label, "value": self.values.get(field.key), "since": self.since.get(field.key),
                            **self.described(field.key, self.values.get(field.key))}
                for field in fields.OBSERVED + fields.STATUS}
