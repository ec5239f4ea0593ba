"""Everything that is known, for Prometheus. Series are made when they are asked for, from a fixed set of names: what comes
from outside never makes a new label, but for the code of a refusal, of which there are few."""
import re
import time

from prometheus_client import CollectorRegistry, generate_latest
from prometheus_client.core import CounterMetricFamily, GaugeMetricFamily

from . import fields, figures
from .unit import PROBLEMS

STATES = ("BU_STATE", "EG_LINK_STATUS", fields.LINK, fields.RELAY, fields.SERVER)
NUMBER = re.compile(r"-?\d{1,15}", re.ASCII)


def gauge(name, text, value):
    family = GaugeMetricFamily(f"tessaro_{name}", text)
    if value is not None:
        family.add_metric([], float(value))
    return family


def counter(name, text, value):
    family = CounterMetricFamily(f"tessaro_{name}", text)
    family.add_metric([], value)
    return family


def by_label(family, values):
    for label, value in values.items():
        family.add_metric([label], value)
    return family


class Collector:
    def __init__(self, unit, hub, logbook, tick=time.monotonic):
        self._unit, self._hub, self._logbook, self._tick = unit, hub, logbook, tick

    def collect(self):
        yield from self._states()
        yield from self._counts()
        yield from self._server()
        yield from self._agent()

    def _states(self):
        unit = self._unit
        stale = set(unit.stale())  # what was is not what is
        values = {key: value for key, value in unit.values.items() if key not in stale and value is not None}
        yield gauge("up", "1 while the server answers", values.get(fields.SERVER) == "answers")
        numbers = GaugeMetricFamily("tessaro_status", "members of the status object that are numbers", labels=["key"])
        for key in fields.STATUS_KEYS:
            if NUMBER.fullmatch(values.get(key, "")):
                numbers.add_metric([key], float(values[key]))
        yield numbers
        one_of = GaugeMetricFamily("tessaro_state", "1 for the state that a thing is in, 0 for all others",
                                   labels=["thing", "state"])
        for key in STATES:
            for value, meaning in fields.FIELDS[key].values.items():
                one_of.add_metric([key, meaning.name], float(values.get(key) == value))
        yield one_of
        yield gauge("remote_units_connected", "remote units connected over TCP", values.get(fields.UNITS))
        fallback = values.get(fields.FALLBACK)
        yield gauge("remote_units_on_fallback", "remote units on the fallback path",
                    None if fallback is None else len(fallback.split()))

    def _counts(self):
        unit = self._unit
        yield by_label(CounterMetricFamily("tessaro_changes", "changes of a value", labels=["key"]),
                       {key: unit.changes[key] for key in fields.FIELDS})
        yield counter("link_losses", "losses of the internal link", unit.link_losses)
        yield by_label(CounterMetricFamily("tessaro_refusals", "remote units refused, by code", labels=["code"]),
                       {"1": 0, "4": 0, **unit.refusals})
        yield by_label(CounterMetricFamily("tessaro_log_events", "lines of the log that mean something", labels=["event"]),
                       {event: unit.log_events[event] for event in self._logbook.events(but=fields.GOOD)})
        yield counter("datagrams", "datagrams from the server", unit.datagrams)
        yield counter("garbage_datagrams", "datagrams that were no status object", unit.garbage)
        yield gauge("push_age_seconds", "since the newest status object",
                    None if unit.pushed is None else self._tick() - unit.pushed)

    def _server(self):
        process = self._unit.process
        yield counter("server_restarts", "starts of the server beyond the first one seen", self._unit.restarts)
        yield gauge("server_running", "1 while there is a process of the server", process is not None)
        cpu = CounterMetricFamily("tessaro_server_cpu_seconds", "processor time of the server")
        if process:
            cpu.add_metric([], process.cpu_seconds)
        yield cpu
        for name, text in (("resident_bytes", "memory"), ("threads", "threads"), ("descriptors", "descriptors")):
            yield gauge(f"server_{name}", f"{text} of the server", getattr(process, name, None))

    def _agent(self):
        cpu, resident = figures.own_figures()
        yield by_label(GaugeMetricFamily("tessaro_agent_problem", "1 for what is wrong with watching", labels=["problem"]),
                       {code: float(code in self._unit.problems) for code in PROBLEMS})
        yield counter("agent_cpu_seconds", "processor time of the agent", cpu)
        yield gauge("agent_resident_bytes", "memory of the agent", resident)
        yield gauge("agent_watchers", "open streams of events", len(self._hub.clients))
        yield counter("agent_dropped_watchers", "streams dropped because their reader was too slow", self._hub.dropped)
        yield counter("clock_jumps", "jumps of the unit's clock", self._unit.clock_jumps)


class Metrics:
    """The text that Prometheus reads."""

    def __init__(self, unit, hub, logbook):
        self._registry = CollectorRegistry(auto_describe=False)
        self._registry.register(Collector(unit, hub, logbook))

    def text(self):
        return generate_latest(self._registry)
