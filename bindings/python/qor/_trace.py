"""The logging module's way into the library's trace."""

from __future__ import annotations

import ctypes
import logging

from ._flat import keep_forever, lib
from ._values import text


class TraceHandler(logging.Handler):
    """Writes log records as lines of the trace, where the environment variable "trace" sends it.

        logging.getLogger().addHandler(qor.TraceHandler())

    A record of several lines becomes as many lines of the trace. The library knows one level for them, 2.
    """

    def emit(self, record: logging.LogRecord) -> None:
        """Trace one record."""
        try:
            text_of_all = self.format(record).replace("\0", "\\0")
            for line in text_of_all.encode("utf-8", "backslashreplace").splitlines():
                lib.tracePrintf(b"%s", ctypes.c_char_p(line))
        except Exception:
            self.handleError(record)


def set_trace_author(author: str | None) -> None:
    """The tag at the start of each trace line of this process; None is no tag. It is "TRC" unless set."""
    raw = None if author is None else text("the author", author)
    if raw is not None:
        keep_forever(raw)  # other threads may be tracing, also while the interpreter ends
    ctypes.c_char_p.in_dll(lib, "szTraceAuthor").value = raw


def set_trace_clock(on: bool) -> None:
    """Whether lines in this process's log files begin with date and time."""
    lib.traceSetFileClock(int(bool(on)))
