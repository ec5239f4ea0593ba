"""How a program of the bench begins and ends: an interrupt at the terminal ends it at any moment, and nobody sees a traceback.

It is the first to be imported. As long as the rest is being loaded there is nothing to undo, so that an interrupt just ends the
process; from `run` on it is an exception, which undoes what has been done.
"""

import signal
import sys
from typing import Callable, NoReturn

INTERRUPTED = 128 + signal.SIGINT  # the exit status

_is_for_us = signal.getsignal(signal.SIGINT) != signal.SIG_IGN  # and not for the foreground of a script's terminal alone
if _is_for_us:
    signal.signal(signal.SIGINT, signal.SIG_DFL)


def run(main: Callable[[], int], farewell: str = "") -> NoReturn:
    """Ends the program with what `main` returns. One that is interrupted prints the farewell, if there is one."""
    if _is_for_us:
        signal.signal(signal.SIGINT, signal.default_int_handler)
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        if farewell:
            print(f"\n{farewell}")
        sys.exit(INTERRUPTED)
