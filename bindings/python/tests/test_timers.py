"""Timers. No test expects one to be punctual."""

from __future__ import annotations

import threading
import time
from collections.abc import Callable
from typing import Any

import pytest

import qor

START = Callable[[qor.Thread], Any]


@pytest.mark.parametrize("rate", [False, True])
def test_a_timer_comes_again_and_again(name: str, rate: bool) -> None:
    calls: list[float] = []
    with qor.Thread(name) as thread:

        @thread.every(0.01, rate=rate)
        def tick(timer: qor.Timer) -> None:
            calls.append(time.monotonic())
            if len(calls) == 5:
                thread.quit()

        begin = time.monotonic()
        assert thread.run() == 0
    assert len(calls) == 5
    assert calls[-1] - begin >= 0.045


def test_a_timer_that_was_made_before_starts_with_the_thread(name: str) -> None:
    thread = qor.Thread(name)
    timer = thread.timer(0.005, lambda timer: thread.quit(9))
    for _ in range(2):
        with thread:
            assert thread.run() == 9
    assert timer.active


def test_a_rate_timer_tells_what_was_missed(name: str) -> None:
    missed: list[int] = []
    with qor.Thread(name) as thread:

        @thread.every(0.01, rate=True)
        def tick(timer: qor.Timer) -> None:
            missed.append(timer.missed)
            if len(missed) == 1:
                time.sleep(0.1)
            else:
                thread.quit()

        thread.run()
    assert missed[1] >= 8


def test_a_timer_that_is_cancelled_comes_no_more(name: str) -> None:
    calls: list[str] = []
    with qor.Thread(name) as thread:
        other = thread.timer(0.005, lambda timer: calls.append("other"))

        def first(timer: qor.Timer) -> None:
            calls.append("first")
            timer.cancel()
            timer.cancel()
            other.cancel()
            calls.clear()
            thread.timer(0.05, lambda timer: thread.quit(), once=True)

        thread.timer(0.005, first)
        thread.run()
    assert calls == []
    assert not other.active


def test_a_timer_may_come_once(name: str) -> None:
    calls: list[qor.Timer] = []
    with qor.Thread(name) as thread:
        timer = thread.timer(0.001, calls.append, once=True)
        thread.timer(0.05, lambda timer: thread.quit())
        thread.run()
    assert calls == [timer]
    assert not timer.active


def test_an_exception_in_a_timer_is_logged_and_the_timer_goes_on(name: str, caplog: pytest.LogCaptureFixture) -> None:
    calls = 0
    with qor.Thread(name) as thread:

        @thread.every(0.005)
        def tick(timer: qor.Timer) -> None:
            nonlocal calls
            calls += 1
            if calls == 2:
                thread.quit()
            raise ValueError("tick failed")

        thread.run()
    assert caplog.text.count("ValueError: tick failed") == 2


@pytest.mark.parametrize("period", [0, 0.0, -1, float("inf"), 1e9])
def test_a_period_that_is_none_raises(name: str, period: float) -> None:
    with qor.Thread(name) as thread:
        with pytest.raises(qor.ArgumentError):
            thread.timer(period, print)
        assert not thread._timers


def test_a_timer_belongs_to_its_thread(name: str, start: START) -> None:
    thread = qor.Thread(name)
    timer = thread.timer(60, print)
    start(thread)
    failures: list[type[Exception]] = []

    def cancel() -> None:
        try:
            timer.cancel()
        except qor.WrongThreadError as error:
            failures.append(type(error))

    other = threading.Thread(target=cancel)
    other.start()
    other.join()
    assert failures == [qor.WrongThreadError]
    assert timer.active
