"""One event loop in one thread, on which all simulated peers live.

Peers are written without locks: everything they own is touched on the loop's thread alone. A test (or a scene) lives in
a thread of its own, reaches a peer through `Loop.call`, and waits with `Loop.wait_for` until something is true.
"""

from __future__ import annotations

import heapq
import itertools
import os
import select
import sys
import threading
import time
from typing import Any, Callable, NamedTuple, Optional

from . import clock
from .virtualtime import BENCHS_TURN, CHILD_WORKS, SETTLED, VirtualTime

SWITCH_SECONDS = 0.0005
# How long one waits who does not say. What will surely come takes no virtual time, and a busy computer its time.
PATIENCE_SECONDS, REAL_PATIENCE_SECONDS = 5.0, 30.0
# Of work that a server does at one moment of virtual time, or of real time in which it does nothing and yet does not rest.
UNSETTLED_SECONDS = (1, 20)    # who has got what he waited for does not wait longer for a server that goes on and on
CHILD_SECONDS = (1, 0.5)       # nor for a child process alone
STANDSTILL_SECONDS = (30, 300)  # longer than anything takes
REAL_PATIENCE = 0.01  # real; between two looks for what neither descriptors nor deadlines tell
_CLOCK_ERROR = 2e-6  # a virtual deadline is met when the clock shows it, whatever becomes of it as a number of seconds


class WaitTimeout(AssertionError):
    """A condition did not come true in time. The text says which, and what the journal saw last."""


class Timer:
    """A call that is due once or periodically; `cancel` is safe at any time, also from the call itself."""

    __slots__ = ("due", "period", "action", "cancelled")

    def __init__(self, due: float, period: Optional[float], action: Callable[[], None]):
        self.due, self.period, self.action, self.cancelled = due, period, action, False

    def cancel(self) -> None:
        self.cancelled = True


class _Watched(NamedTuple):
    """A descriptor, and what is called when it is ready."""

    file: Any
    mask: int
    readable: Optional[Callable[[], None]]
    writable: Optional[Callable[[], None]]


def _hurry() -> None:
    """Peers answer as promptly as hardware does, also on a machine that is busy building: where we may, the thread
    weighs more than ordinary ones. (A base controller that is 150 ms late is a lost link.) This thread alone: with the
    whole bench ahead, the kernel's own threads, which carry the bytes of a pseudo terminal, come too late. And it takes the
    interpreter sooner than usual from the bench's other threads, which may have to wait for a processor while they hold it."""
    sys.setswitchinterval(SWITCH_SECONDS)
    try:
        os.setpriority(os.PRIO_PROCESS, threading.get_native_id(), -15)
    except PermissionError:
        pass


class _Waiter:
    """Somebody who waits for a predicate. One that takes long is evaluated less often than there are events, lest the peers
    have to wait for it: it gets a fifth of the time at most. In virtual time nobody has to wait (`at_once`)."""

    __slots__ = ("predicate", "result", "error", "done", "not_before", "put_off", "at_once", "expired")

    def __init__(self, predicate: Callable[[], Any], at_once: bool = False):
        self.predicate, self.result, self.error, self.done = predicate, None, None, threading.Event()
        self.not_before, self.put_off, self.at_once, self.expired = 0.0, False, at_once, False

    def expire(self) -> None:
        """Its virtual time is over."""
        self.expired = True

    def check(self) -> bool:
        if self.at_once:
            return self._evaluate()
        began = time.monotonic()
        self.put_off = began < self.not_before
        if self.put_off:
            return False
        found = self._evaluate()
        ended = time.monotonic()
        self.not_before = ended + 4 * (ended - began)
        return found

    def _evaluate(self) -> bool:
        try:
            self.result = self.predicate()
        except BaseException as error:  # handed to the thread that waits
            self.error = error
        return bool(self.result or self.error or self.expired)


class Loop:
    """Selectors, timers and posted calls in one daemon thread.

    An exception in a callback does not end the loop, it is kept and raised in the thread that next waits: a broken peer
    fails the test that uses it instead of looking like a silent one. A descriptor whose callback failed is watched no
    more.

    With `virtual` it conducts that time: the clock moves on when the loop, the server and the descriptors have nothing
    left to do and somebody waits in `wait_for`. While nobody does, a test is at work, and time stands still. Who waits goes
    on when everything else has been done that happens at that moment, so that it is the same in every run.
    """

    def __init__(self, name: str = "bench", virtual: Optional[VirtualTime] = None):
        self.virtual = virtual
        self.describe: Callable[[], str] = lambda: ""  # appended to the text of a WaitTimeout
        self._epoll = select.epoll()
        self._events = self._epoll.fileno()
        self._watched: dict[int, _Watched] = {}
        self._wake = os.eventfd(0, os.EFD_NONBLOCK | os.EFD_CLOEXEC)
        self.watch(self._wake, self._drain_wake)
        self._timers: list[tuple[float, int, Timer]] = []
        self._order = itertools.count()
        self._posted: list[Callable[[], None]] = []
        self._waiters: list[_Waiter] = []
        self._fulfilled: list[_Waiter] = []  # in virtual time, until everybody else has done what there is to do
        self._lock = threading.Lock()
        self._running = True
        self._moved_at, self._steps_then = (0.0, time.monotonic()), 0
        self.failure: Optional[BaseException] = None
        self._thread = threading.Thread(target=self._run, name=name, daemon=True)
        self._thread.start()

    # --- from any thread -------------------------------------------------------------------------------------------

    @property
    def on_thread(self) -> bool:
        return threading.current_thread() is self._thread

    def post(self, action: Callable[..., Any], *args: Any) -> None:
        """Runs `action` on the loop's thread, soon and in order; does not wait."""
        with self._lock:
            self._posted.append(lambda: action(*args))
        self._wake_up()

    def call(self, action: Callable[..., Any], *args: Any) -> Any:
        """Runs `action` on the loop's thread, waits for it and returns its result; its exception is raised here."""
        if self.on_thread:
            return action(*args)
        outcome = _Waiter(lambda: (action(*args),))  # a tuple, so that every result counts as true
        self.post(lambda: outcome.check() and outcome.done.set())
        if not outcome.done.wait(30):
            raise WaitTimeout("the bench's event loop does not answer")
        if outcome.error:
            raise outcome.error
        return outcome.result[0]

    def wait_for(self, predicate: Callable[[], Any], timeout: Optional[float] = None, what: str = "", poll: float = 0) -> Any:
        """Waits until `predicate` is true and returns what it gave.

        The predicate runs on the loop's thread after every batch of events. With `poll` it is evaluated at least that
        often (in seconds) too, for conditions that cause no event on the loop, such as figures in /proc.
        Raises WaitTimeout after `timeout` seconds (5, in real time 30), and whatever a peer raised meanwhile.
        """
        assert not self.on_thread, "the loop's own thread cannot wait for itself"
        if timeout is None:
            timeout = PATIENCE_SECONDS if self.virtual else REAL_PATIENCE_SECONDS
        waiter = _Waiter(predicate, at_once=self.virtual is not None)
        timers = self.call(self._begin_wait, waiter, timeout, poll)
        in_time = waiter.done.wait(None if self.virtual else timeout) and bool(waiter.result or waiter.error)
        with self._lock:
            if waiter in self._waiters:
                self._waiters.remove(waiter)
        for timer in timers:
            timer.cancel()
        self.raise_failure()
        if waiter.error:
            raise waiter.error
        if not in_time:
            raise WaitTimeout(f"not within {timeout:g} s: {what or 'the expected condition'}\n{self.describe()}")
        return waiter.result

    def raise_failure(self) -> None:
        """Raises, once, the exception that a callback left behind."""
        failure, self.failure = self.failure, None
        if failure:
            raise failure

    def stop(self) -> None:
        """Ends the thread. Descriptors that peers registered stay theirs to close."""
        self._running = False
        self._wake_up()
        if not self.on_thread:
            self._thread.join(5)
            os.close(self._wake)
            self._epoll.close()

    # --- on the loop's thread --------------------------------------------------------------------------------------

    def later(self, delay: float, action: Callable[[], None]) -> Timer:
        """Runs `action` once after `delay` seconds."""
        return self._schedule(Timer(clock.monotonic() + delay, None, action))

    def every(self, period: float, action: Callable[[], None]) -> Timer:
        """Runs `action` every `period` seconds until it is cancelled, without drift; missed turns are skipped."""
        return self._schedule(Timer(clock.monotonic() + period, period, action))

    def watch(self, fd: Any, readable: Optional[Callable[[], None]] = None,
              writable: Optional[Callable[[], None]] = None) -> None:
        """Sets what is called when `fd` is readable and writable; with neither, the descriptor is forgotten."""
        number = fd if isinstance(fd, int) else fd.fileno()
        if number < 0:  # it has been closed meanwhile
            number = next((number for number, watched in self._watched.items() if watched.file is fd), -1)
        mask = (select.EPOLLIN if readable else 0) | (select.EPOLLOUT if writable else 0)
        known = self._watched.get(number)
        if not mask:
            if self._watched.pop(number, None):
                self._unregister(number)
            return
        self._watched[number] = _Watched(fd, mask, readable, writable)
        if known is None:
            self._epoll.register(number, mask)
        elif known.mask != mask:
            self._epoll.modify(number, mask)

    def _unregister(self, number: int) -> None:
        try:
            self._epoll.unregister(number)
        except OSError:
            pass  # closed, and forgotten with that

    # --- inside ----------------------------------------------------------------------------------------------------

    def _begin_wait(self, waiter: _Waiter, timeout: float, poll: float) -> list[Timer]:
        """Everything that belongs to a wait, from one moment on."""
        with self._lock:
            self._waiters.append(waiter)
        self._tell_of_failure()
        timers = [self.every(poll, lambda: None)] if poll else []
        return timers + ([self.later(timeout, waiter.expire)] if self.virtual else [])

    def _schedule(self, timer: Timer) -> Timer:
        assert self.on_thread, "timers are made on the loop's thread"
        heapq.heappush(self._timers, (timer.due, next(self._order), timer))
        return timer

    def _wake_up(self) -> None:
        try:
            os.eventfd_write(self._wake, 1)
        except (BlockingIOError, OSError):
            pass  # already awake, or gone

    def _drain_wake(self) -> None:
        os.eventfd_read(self._wake)

    def _run(self) -> None:
        if self.virtual:
            self.virtual.stay_together()
        else:  # where nobody can be late, nobody has to be ahead of the kernel's threads
            _hurry()
        while self._running:
            if self.virtual:
                self._let_time_pass()
            else:
                self._turn(self._time_to_next_timer())

    def _turn(self, patience: Optional[float]) -> None:
        """One batch of events."""
        ready = self._epoll.poll(patience)
        for number, watched, events in [(number, self._watched.get(number), events) for number, events in ready]:
            if watched:
                self._dispatch(number, watched, events)
        if self._posted:
            self._run_posted()
        if self._timers:
            self._run_timers()
        if self._waiters:
            self._check_waiters()

    def _let_time_pass(self) -> None:
        """First the server does what it has to do, then the bench. Moves the clock on when nobody has anything left, and
        somebody waits for that."""
        if not self._waiters and not self._fulfilled:
            self._turn(None)
            self._has_moved()
            return
        verdict = self.virtual.stride(self._next_timer(), self._events, bool(self._waiters and not self._fulfilled))
        if verdict == SETTLED and self._fulfilled:
            self._release()
        elif verdict == SETTLED:
            self._turn(REAL_PATIENCE if self._next_timer() is None else 0)
        else:
            if verdict != BENCHS_TURN:
                self._complain_of_standstill(CHILD_SECONDS if verdict == CHILD_WORKS else UNSETTLED_SECONDS)
            self._turn(0)

    def _has_moved(self) -> None:
        self._moved_at = (self.virtual.worked(), time.monotonic())
        self._steps_then = self.virtual.steps

    def _complain_of_standstill(self, unsettled: tuple[float, float]) -> None:
        if self.virtual.steps != self._steps_then:
            self._has_moved()
        stood = (self.virtual.worked() - self._moved_at[0], time.monotonic() - self._moved_at[1])
        if any(have > most for have, most in zip(stood, unsettled)):
            self._release()
        if any(have > most for have, most in zip(stood, STANDSTILL_SECONDS)):
            with self._lock:
                stuck, self._waiters = self._waiters, []
            for waiter in stuck:
                waiter.error = WaitTimeout(f"virtual time stands still: the server has been at work for {stood[0]:.0f} s of "
                                           f"processor time and {stood[1]:.0f} s in all\n{self.describe()}")
                waiter.done.set()

    def _next_timer(self) -> Optional[float]:
        """When it is due; cancelled ones are forgotten, so that time makes no stop for them."""
        while self._timers and self._timers[0][2].cancelled:
            heapq.heappop(self._timers)
        return self._timers[0][0] if self._timers else None

    def _time_to_next_timer(self) -> Optional[float]:
        """Or to the next look of somebody who waits and was put off."""
        with self._lock:
            due = [waiter.not_before for waiter in self._waiters if waiter.put_off]
        if self._timers:
            due.append(self._timers[0][0])
        return max(0.0, min(due) - clock.monotonic()) if due else None

    def _dispatch(self, number: int, watched: _Watched, events: int) -> None:
        # An earlier callback of the same batch may have changed or removed the registration; what is still ready then
        # is reported again. Errors are for both.
        for other, action in ((select.EPOLLOUT, watched.readable), (select.EPOLLIN, watched.writable)):
            if events & ~other and action and self._watched.get(number) is watched and not self._guard(action):
                self.watch(watched.file)  # no more: it would fail again at once, for ever

    def _run_posted(self) -> None:
        with self._lock:
            posted, self._posted = self._posted, []
        for action in posted:
            self._guard(action)

    def _run_timers(self) -> None:
        now = clock.monotonic() + (_CLOCK_ERROR if self.virtual else 0)
        while self._timers and self._timers[0][0] <= now:
            timer = heapq.heappop(self._timers)[2]
            if timer.cancelled:
                continue
            if timer.period:
                missed = int((now - timer.due) / timer.period)
                timer.due += timer.period * (missed + 1)
                self._schedule(timer)
            self._guard(timer.action)

    def _check_waiters(self) -> None:
        with self._lock:
            found = [waiter for waiter in self._waiters if waiter.check()]
            self._waiters = [waiter for waiter in self._waiters if waiter not in found]
        self._fulfilled += found
        if not self.virtual:
            self._release()

    def _release(self) -> None:
        for waiter in self._fulfilled:
            waiter.done.set()
        self._fulfilled.clear()

    def _guard(self, action: Callable[[], None]) -> bool:
        try:
            action()
            return True
        except BaseException as error:
            self.failure = self.failure or error
            self._tell_of_failure()
            return False

    def _tell_of_failure(self) -> None:
        """In real time whoever waits raises it at once: what he waits for may never come."""
        if self.failure and not self.virtual:
            with self._lock:
                for waiter in self._waiters:
                    waiter.done.set()
