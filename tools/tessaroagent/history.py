"""The newest changes, bounded for each kind by itself so that one that changes all the time drives out no other, and kept in a
file over a restart of the agent."""
import collections
import json
import math
import os

KEEP_EACH, KEEP_LOG = 400, 1500
VERSION = 1
LARGEST_FILE = 16 << 20
LONGEST_ENTRY = 4096
UNWRITTEN = 1_000_000  # more than there can be in the time between two writings


def is_time(value):
    return isinstance(value, (int, float)) and math.isfinite(value)


def encoded(change):
    return json.dumps(change, separators=(",", ":")).encode()


class History:
    """Entries are kept as the bytes of their JSON: small, and ready to be sent. Each has an `id` that only grows."""

    def __init__(self):
        self.next_id = 1
        self._rings = {}

    def add(self, change):
        """Gives the change its id; returns its bytes."""
        change = {"id": self.next_id, **change}
        return self._keep(change)

    def _keep(self, change):
        self.next_id = change["id"] + 1
        data = encoded(change)
        ring = self._rings.setdefault(change["key"],
                                      collections.deque(maxlen=KEEP_LOG if change["key"] == "log" else KEEP_EACH))
        ring.append((change["id"], change["time"], data))
        return data

    def move(self, seconds):
        """The clock jumped: from now on each entry has the time that the clock of now would have told."""
        for ring in self._rings.values():
            for place, (number, when, data) in enumerate(ring):
                change = json.loads(data)
                change.update({key: change[key] + seconds for key in ("time", "last") if is_time(change.get(key))})
                ring[place] = number, when + seconds, encoded(change)

    def select(self, after=0, since=0.0, limit=None):
        """The bytes of the entries behind an id and a time, oldest first; with `limit`, the newest so many."""
        return [data for _, data in self._entries(after, since, limit)]

    def _entries(self, after, since, limit):
        found = sorted((number, data) for ring in self._rings.values() for number, when, data in ring
                       if number > after and when >= since)
        return found[-limit:] if limit else found

    def past(self, since, limit):
        """(what was when the time began, what changed since): the last entry of each value of before, and the newest `limit`
        entries from that time on. Where those are not all of them, the time begins with the first one given."""
        entries = self._entries(0, since, limit)
        first = entries[0][0] if len(entries) == limit else 0
        values = (ring for key, ring in self._rings.items() if key not in ("log", "control", "agent"))
        last = (next((data for number, when, data in reversed(ring) if when < since or number < first), None)
                for ring in values)
        return [data for data in last if data], [data for _, data in entries]

    def newest(self, key):
        """The newest entry of one kind as a dictionary, or None."""
        ring = self._rings.get(key)
        return json.loads(ring[-1][2]) if ring else None

    def __len__(self):
        return sum(len(ring) for ring in self._rings.values())

    # --- the file ------------------------------------------------------------------------------------------------------

    def load(self, path, now):
        """Takes what the file holds; returns when it was written by the clock of then, or None. What is not understood in it is
        left out.

        The agent before may have ended before it wrote its newest entries: none of theirs is an id of this one's. And its clock
        may have been ahead of ours: what it noted is not of the time to come."""
        try:
            if os.path.getsize(path) > LARGEST_FILE:
                return None
            with open(path, encoding="utf-8", errors="replace") as file:
                head = json.loads(file.readline())
                for line in file:
                    self._take(line)
            self.next_id += UNWRITTEN
            written = head["written"] if head["version"] == VERSION and is_time(head["written"]) else None
        except (OSError, ValueError, KeyError, TypeError):
            written = None
        newest = max((when for ring in self._rings.values() for _, when, _ in ring), default=now)
        if newest > now:
            self.move(now - newest)
        return written

    def _take(self, line):
        try:
            change = json.loads(line[:LONGEST_ENTRY])
            if isinstance(change["key"], str) and is_time(change["time"]) \
                    and isinstance(change["id"], int) and len(self._rings) < 64 and change["id"] >= self.next_id:
                self._keep(change)
        except (ValueError, KeyError, TypeError):
            pass  # a line that was cut or damaged

    def save(self, path, now):
        """Writes everything anew; the old file stays until the new one is complete. Raises OSError."""
        temporary = f"{path}.new"
        with open(temporary, "wb") as file:
            file.write(json.dumps({"version": VERSION, "written": now}).encode() + b"\n")
            for data in self.select():
                file.write(data + b"\n")
            file.flush()
            os.fsync(file.fileno())
        os.replace(temporary, path)
