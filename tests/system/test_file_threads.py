"""Which threads of the server touch files once the start is over: looked at from outside, system call by system call."""

import os
import re
import stat

import pytest

from pairing_support import USER, install

pytestmark = pytest.mark.real_time("the tracer between bench and server knows nothing of virtual time")

FILE_CALLS = ("open,openat,openat2,creat,rename,renameat,renameat2,unlink,unlinkat,truncate,ftruncate,fsync,fdatasync,sync,"
              "syncfs,getdents64,stat,lstat,newfstatat,statx,access,faccessat,faccessat2,readlink,readlinkat,mkdir,"
              "mkdirat,chmod,fchmodat,link,linkat,symlink,symlinkat")
MAY = re.compile(r"files|Thread \(pooled\)|tar")  # beside them, nobody
CALL = re.compile(r"^\d+<(?P<thread>.*?)> (?P<call>(?P<name>\w+)\(.*)")
# The relay's lines; what the C library itself looks up for a new thread's memory.
HARMLESS = ("/sys/class/gpio/", "/sys/devices/system/cpu", "/proc/")
TRACER = """#!/bin/sh
exec strace -D -f -Y --seccomp-bpf -qq -o {out} -e signal=none -e trace={calls} {program}
"""


@pytest.fixture
def traced(bench, tmp_path, monkeypatch):
    """The board's server under a tracer; `calls` gives what its threads have done to files since `begin`."""
    # The leak checker wants to be the tracer itself.
    monkeypatch.setenv("ASAN_OPTIONS", os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0")
    trace, tracer = tmp_path / "trace", tmp_path / "tracer"
    tracer.write_text(TRACER.format(out=trace, calls=FILE_CALLS, program=bench.server._program))
    tracer.chmod(tracer.stat().st_mode | stat.S_IXUSR)
    bench.server._program = str(tracer)
    return Trace(bench, trace)


class Trace:
    def __init__(self, bench, path):
        self.bench, self._path, self._begin = bench, path, 0

    def begin(self):
        self._begin = os.path.getsize(self._path)

    def calls(self):
        """(thread, call) for each since `begin`, in order."""
        with open(self._path, encoding="utf-8", errors="replace") as file:
            file.seek(self._begin)
            found = [CALL.match(line) for line in file]
        return [(match["thread"], match["call"]) for match in found if match]


def test_after_the_start_only_the_file_threads_touch_files(traced):
    bench = traced.bench
    install(bench, "panel", "user")
    bench.bc.retry_seconds = 1.0
    bench.start_to_serve(timeout=60.0)
    bench.unit(1001).join().wait_joined()
    traced.begin()

    bench.api.send(b"CCHANGE")
    bench.wait_for(lambda: bench.journal.last(link="uart", kind="event", event="RECONFIG"))
    bench.tool.list()
    mark = bench.journal.mark()
    bench.tool.get(USER, 1007)
    bench.wait_for(lambda: bench.journal.last(link="uart", kind="event", event="RECONFIG", since=mark))
    bench.server.wait_log("Transfer complete of")
    unit = bench.unit(1001)
    unit.leave()
    unit.join()
    unit.wait_verdict()
    bench.unit(1002).join_fallback().wait_joined()
    mark = bench.journal.mark()
    bench.eth0.change_address("10.42.20.9/24")
    bench.wait_for(lambda: bench.journal.last(link="uart", kind="event", event="EGRECONFIG", since=mark), 60.0)
    bench.show_tsaps(4)

    calls = traced.calls()
    others = [f"{thread}: {call}" for thread, call in calls
              if not MAY.fullmatch(thread) and not any(f'"{place}' in call for place in HARMLESS)]
    assert others == []
    # And the trace would have shown them: what they do not do was done.
    names = {(thread, call.partition("(")[0]) for thread, call in calls}
    assert {("files", "rename"), ("files", "openat")} <= names and ("Thread (pooled)", "openat") in names
    assert [call for thread, call in calls if "remotes.csv" in call and call.startswith(("rename(", "link"))]
    assert {("files", "fsync"), ("files", "fdatasync")} & names
