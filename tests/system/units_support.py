"""What the tests of remote units share, and those in real time."""


class HeldUp:
    """How long this computer has held up the bench: by the beat that it keeps on its own loop. What is measured beside it has
    been held up, too, and is judged less that."""

    BEAT, LATE = 0.02, 0.05  # seconds; less than LATE is the ordinary lateness of timers

    def __init__(self, bench):
        self._bench, self._times, self._last = bench, [], bench.journal.now
        bench.loop.call(bench.loop.every, self.BEAT, self._beat)

    def _beat(self):
        now, before = self._bench.journal.now, self._last
        self._last = now
        if now - before > self.LATE:
            self._times.append((before, now))

    def since(self, began):
        """Seconds of which nothing can be told, from that time of the journal on."""
        self._bench.loop.call(self._beat)
        return self.between(began, self._last)

    def between(self, began, ended):
        return sum(max(0.0, min(end, ended) - max(begin, began)) for begin, end in self._times)


def commands(bench, since=0):
    """What reached the base controller as commands; a packet that the base unit repeated counts once."""
    return [event.payload for event in bench.journal.select("uart", "<", "command", since) if "again" not in event.detail]


def wait_commands(bench, count, timeout=None):
    """Waits until so many commands have reached the base controller, and returns them."""
    bench.wait_for(lambda: bench.bc.received["command"] >= count and len(commands(bench)) >= count, timeout,
                   f"{count} commands at the base controller")
    return commands(bench)


def flushed(bench, unit):
    """Waits until everything that the unit sent before has been through the base unit."""
    marker = b"marker %d" % len(bench.fallback.shorts)
    unit.service_forward(marker)
    bench.wait_for(lambda: any(short.data == marker for short in bench.fallback.shorts), what="the marker")


def pair_more(bench, count):
    """Makes units from 1001 on belong to the running base unit."""
    since = bench.journal.mark()
    bench.pair_units(count)
    bench.api.send(b"CCHANGE")
    bench.wait_for(lambda: bench.journal.last(link="uart", kind="event", event="RECONFIG", since=since))


def settled(bench, wanted, timeout=None):
    """The figures of the server when they are as wanted, and threads and descriptors have stood for half a second."""
    history = []

    def steady():
        history.append(bench.server.usage())
        return len({usage[2:4] for usage in history[-6:]}) == 1 and len(history) >= 6 and wanted(history[-1])

    bench.wait_for(steady, timeout, "threads and descriptors back where they were", poll=0.1)
    return history[-1]
