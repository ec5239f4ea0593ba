"""The relay opens in time and a machine stop is decided on at once, whatever stands still beside the server.

One try of each combination, for what a stall prevents altogether. Beside other tests no time is to be relied on to the
millisecond; `make safety` makes a hundred tries of each and judges them by the limits of docs/safety.md.
"""

import pytest

from tessarobench.stalls import STALLS
from tessarobench.stalltrial import EVENTS, attempt, build_library

pytestmark = pytest.mark.real_time("what is judged is whether the kernel's stalls delay the server")

BESIDE_OTHERS = {"silence": 1.0, "stop": 0.3, "sigterm": 0.3}  # seconds
HEAVY = {"processors", "memory"}  # they would disturb the other tests; bench/safety tries them
NOT_LOCKED = "no memory is locked there, and the program itself is read from that disk"
UNDER_SANITIZER = {"disk-fails": NOT_LOCKED, "disk-hangs": NOT_LOCKED,
                   "descriptors": "it needs descriptors of its own at the end"}


@pytest.fixture(scope="session")
def library(tmp_path_factory):
    return build_library(tmp_path_factory.mktemp("decision"))


@pytest.mark.parametrize("event", EVENTS)
@pytest.mark.parametrize("stall", [name for name in STALLS if name not in HEAVY])
def test_the_safe_state_survives(server_path, library, sanitized, stall, event):
    if STALLS[stall].refused():
        pytest.skip(STALLS[stall].refused())
    if sanitized and stall in UNDER_SANITIZER:
        pytest.skip(f"under a sanitizer: {UNDER_SANITIZER[stall]}")
    outcome = attempt(server_path, STALLS[stall], event, library)
    assert outcome.seconds is not None, outcome.remark
    print(f"\n{STALLS[stall].title}; {EVENTS[event].title}: {1000 * outcome.seconds:.1f} ms {outcome.remark}")
    assert outcome.seconds < BESIDE_OTHERS[event]
