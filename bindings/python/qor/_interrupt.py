"""Ctrl-C while a thread waits for messages or handles them."""

from __future__ import annotations

import signal
import threading
from types import FrameType, TracebackType


class InterruptGuard:
    """Keeps a KeyboardInterrupt from being raised where ctypes would have to drop it.

    Python runs signal handlers between any two instructions of the main thread, also in the few that enter and leave a
    callback from C, and ctypes can only report an exception there. In these places the guard notes the signal; the loop
    raises it when the library has returned. Everywhere else, also in the program's own handlers, it is raised at once.

    A program that has a signal handler of its own keeps it.
    """

    def __init__(self) -> None:
        self.in_library = False
        self.in_handler = False
        self.noted = False
        self._installed = False

    def __enter__(self) -> InterruptGuard:
        on_main = threading.current_thread() is threading.main_thread()
        if on_main and signal.getsignal(signal.SIGINT) is signal.default_int_handler:
            signal.signal(signal.SIGINT, self._on_signal)
            self._installed = True
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        if self._installed:
            self._installed = False
            signal.signal(signal.SIGINT, signal.default_int_handler)

    def _on_signal(self, number: int, frame: FrameType | None) -> None:
        if self.in_library and not self.in_handler:
            self.noted = True
        else:
            raise KeyboardInterrupt
