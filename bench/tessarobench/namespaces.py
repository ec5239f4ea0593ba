"""Linux namespaces without help of other programs: the sandbox around everything, and worlds inside it.

A world is a thread with a network (and, if wanted, mount) namespace of its own. Work is handed to it; sockets made and
processes started there stay in that world wherever they are used afterwards. The namespaces vanish with the thread and
the last socket or process in them, so nothing needs tidying up.
"""

from __future__ import annotations

import contextlib
import ctypes
import errno
import os
import queue
import signal
import sys
import threading
from pathlib import Path
from typing import Any, Callable, Optional

CLONE_NEWNS, CLONE_NEWUSER, CLONE_NEWPID, CLONE_NEWNET = 0x00020000, 0x10000000, 0x20000000, 0x40000000
MS_BIND, MS_MOVE, MS_REC, MS_PRIVATE = 0x1000, 0x2000, 0x4000, 0x40000
MS_NOSUID, MS_NODEV, MS_NOEXEC = 0x2, 0x4, 0x8
MNT_DETACH = 2
_PR_SET_PDEATHSIG = 1
_SANDBOX_MARK = "TESSARO_SANDBOX"
_SANDBOX = Path(__file__).resolve().parents[1] / "sandbox"
_PASSED_ON, _FROM_TERMINAL = [signal.SIGTERM, signal.SIGHUP], [signal.SIGINT, signal.SIGQUIT]

_libc = ctypes.CDLL(None, use_errno=True)


class Refused(Exception):
    """The kernel does not let us have a namespace. The text says what is missing and how to allow it."""


def _check(result: int, what: str) -> None:
    if result != 0:
        number = ctypes.get_errno()
        raise OSError(number, f"{what}: {os.strerror(number)}")


def unshare(flags: int) -> None:
    _check(_libc.unshare(flags), "unshare")


def mount(source: str, target: str, kind: Optional[str], flags: int = 0, options: str = "") -> None:
    _check(_libc.mount(source.encode(), target.encode(), kind.encode() if kind else None, ctypes.c_ulong(flags),
                       options.encode() or None), f"mount of {target}")


def unmount(target: str) -> None:
    """At once for everybody who comes later; whoever uses it still may go on."""
    _check(_libc.umount2(target.encode(), MNT_DETACH), f"unmount of {target}")


# --- the sandbox -------------------------------------------------------------------------------------------------------


def in_sandbox() -> bool:
    return os.environ.get(_SANDBOX_MARK) == "1"


def begin_in_sandbox() -> None:
    """Has the running program begin anew in a private world, unless it is in one."""
    if not in_sandbox():
        program = os.path.realpath(sys.modules["__main__"].__file__)
        os.execv(_SANDBOX, [str(_SANDBOX), sys.executable, program, *sys.argv[1:]])


def enter_sandbox(command: list[str]) -> int:
    """Runs `command` in a private mount, network and process world and returns its exit status.

    When it ends, everything that it started ends with it, and every mount and interface is gone. As an ordinary user
    the world is also a user namespace in which that user looks like root. Raises Refused where the kernel says no.
    """
    _unshare_or_explain()
    first = _fork_and_pass_signals_on(lambda: _first_process(command))
    return _status_of(os.waitpid(first, 0)[1])


def _fork_and_pass_signals_on(child: Callable[[], int]) -> int:
    """A child that ends with what `child` returns. From the first moment on it gets the requests to end that reach
    this process; interrupts from the terminal reach it without our help."""
    for number in _FROM_TERMINAL:
        signal.signal(number, signal.SIG_IGN)
    signal.pthread_sigmask(signal.SIG_BLOCK, _PASSED_ON)
    pid = os.fork()
    if pid == 0:
        for number in _PASSED_ON:
            signal.signal(number, signal.SIG_DFL)
        signal.pthread_sigmask(signal.SIG_UNBLOCK, _PASSED_ON)
        os._exit(child())
    for number in _PASSED_ON:
        signal.signal(number, lambda received, _frame: _pass_on(pid, received))
    signal.pthread_sigmask(signal.SIG_UNBLOCK, _PASSED_ON)
    return pid


def _pass_on(pid: int, number: int) -> None:
    with contextlib.suppress(ProcessLookupError):  # it is ending anyway
        os.kill(pid, number)


def _unshare_or_explain() -> None:
    flags, user, group = CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID, os.geteuid(), os.getegid()
    try:
        if user == 0:
            unshare(flags)
            return
        unshare(flags | CLONE_NEWUSER)
        for name, text in (("setgroups", "deny"), ("uid_map", f"0 {user} 1"), ("gid_map", f"0 {group} 1")):
            with open(f"/proc/self/{name}", "w", encoding="ascii") as file:
                file.write(text)
    except OSError as error:
        raise Refused(_advice(user, error)) from error


def _advice(user: int, error: OSError) -> str:
    if user == 0:
        return (f"The kernel refuses mount, network and process namespaces ({error.strerror}): "
                "run this where CAP_SYS_ADMIN is allowed (in a container: start it with --privileged).")
    if error.errno in (errno.ENOSPC, errno.EUSERS):
        return ("The kernel refuses a user namespace (none are allowed): "
                "sysctl user.max_user_namespaces=10000 allows them, or run this as root.")
    return (f"The kernel refuses a user namespace ({error.strerror}): "
            "sysctl kernel.unprivileged_userns_clone=1 (and kernel.apparmor_restrict_unprivileged_userns=0 "
            "where that exists) allows it, or run this as root.")


def _first_process(command: list[str]) -> int:
    """Process 1 of the new world: prepares it, starts the command, reaps orphans, ends as the command ends."""
    _libc.prctl(_PR_SET_PDEATHSIG, signal.SIGKILL)
    try:
        mount("none", "/", None, MS_REC | MS_PRIVATE)
        mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC)
    except OSError as error:
        print(f"The kernel refuses the mounts of the private world ({error}): run this as root or, in a container, "
              "start it with --privileged.", flush=True)
        return 1
    second = _fork_and_pass_signals_on(lambda: _become(command))
    while True:
        pid, status = os.wait()
        if pid == second:
            return _status_of(status)


def _become(command: list[str]) -> int:
    os.environ[_SANDBOX_MARK] = "1"
    for number in _FROM_TERMINAL:
        signal.signal(number, signal.SIG_DFL)
    try:
        os.execvp(command[0], command)
    except OSError as error:
        os.write(2, f"{command[0]}: {error.strerror}\n".encode())
    return 127


def _status_of(status: int) -> int:
    return 128 + os.WTERMSIG(status) if os.WIFSIGNALED(status) else os.WEXITSTATUS(status)


# --- worlds ------------------------------------------------------------------------------------------------------------


class World:
    """A thread in namespaces of its own that does what `run` hands it, one thing at a time."""

    def __init__(self, name: str, with_mounts: bool = False):
        self._work: queue.SimpleQueue = queue.SimpleQueue()
        self._flags = CLONE_NEWNET | (CLONE_NEWNS if with_mounts else 0)
        self._thread = threading.Thread(target=self._serve, name=name, daemon=True)
        self._thread.start()
        try:
            self.run(self._separate)
        except OSError as error:
            self.close()
            raise Refused(f"{error} - boards are laid inside a private world: start this through bench/sandbox") from error

    def run(self, action: Callable[..., Any], *args: Any) -> Any:
        """Does `action` inside the world, waits for it, returns its result or raises its exception."""
        done: queue.SimpleQueue = queue.SimpleQueue()
        self._work.put((action, args, done))
        result, error = done.get()
        if error:
            raise error
        return result

    @property
    def network_path(self) -> str:
        """Where `ip` finds this world's network, as long as the world is open."""
        return f"/proc/{os.getpid()}/task/{self._thread.native_id}/ns/net"

    def close(self) -> None:
        """Ends the thread. What was made in the world lives on until it is closed itself."""
        self._work.put(None)
        self._thread.join(5)

    def _separate(self) -> None:
        unshare(self._flags)
        if self._flags & CLONE_NEWNS:
            mount("none", "/", None, MS_REC | MS_PRIVATE)

    def _serve(self) -> None:
        while (item := self._work.get()) is not None:
            action, args, done = item
            try:
                done.put((action(*args), None))
            except BaseException as error:
                done.put((None, error))
