"""Timers of a qor.Thread."""

from __future__ import annotations

import itertools
from typing import TYPE_CHECKING, Callable

from ._errors import ArgumentError
from ._flat import lib
from ._values import milliseconds

if TYPE_CHECKING:
    from ._thread import Thread

TimerHandler = Callable[["Timer"], object]

_ids = itertools.count(1)


class Timer:
    """A timer of a thread, made by Thread.every() and Thread.timer(). It runs while its thread is entered."""

    def __init__(self, thread: Thread, period: float, handler: TimerHandler, rate: bool, once: bool) -> None:
        self._period = milliseconds("the period", period)
        if self._period == 0:
            raise ArgumentError("the period of a timer is a millisecond at least")
        self._thread = thread
        self._handler = handler
        self._rate = rate
        self._once = once
        self._id = next(_ids)
        self.missed = 0
        """How many periods of a rate timer were missed before this call because the thread was busy."""
        thread._timers[self._id] = self
        self._start()

    @property
    def active(self) -> bool:
        """Whether it was not cancelled."""
        return self._id in self._thread._timers

    def cancel(self) -> None:
        """Stop it for good. A message of it that is under way is dropped. Does nothing the second time."""
        if self._thread._handle is not None:
            self._thread._check()
            lib.timerKillThreadTimer(self._id)
        self._thread._timers.pop(self._id, None)

    def _start(self) -> None:
        if self._thread._handle is None:
            return
        start = lib.timerSetRateTimer if self._rate else lib.timerSetThreadTimer
        start(self._id, self._period)

    def _fire(self, missed: int) -> None:
        self.missed = missed if self._rate else 0
        if self._once:
            self.cancel()
        self._handler(self)
