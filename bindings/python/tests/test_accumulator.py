"""Persistent counters."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest

import qor


def test_a_counter_counts_and_wraps(name: str) -> None:
    counter = qor.Accumulator(name, start=5, minimum=2, maximum=8)
    assert counter.created
    assert counter.value == 5
    assert [counter.step() for _ in range(5)] == [6, 7, 8, 2, 3]
    assert counter.step(4) == 7
    assert counter.value == 7


def test_a_counter_that_exists_goes_on(name: str, run: Callable[[str], Any]) -> None:
    assert qor.Accumulator(name, 10).step(5) == 15
    child = run(f'counter = qor.Accumulator("{name}", 10); print(counter.created, counter.step())')
    assert child.wait() == (0, "False 16\n", "")
    assert qor.Accumulator(name).value == 16


def test_a_counter_is_reset(name: str) -> None:
    counter = qor.Accumulator(name, 1, 0, 100)
    counter.step(50)
    counter.reset(7)
    assert counter.value == 7
    counter.reset()
    assert counter.value == 1


def test_a_counter_that_was_removed_raises_and_is_made_again_by_a_step(name: str) -> None:
    counter = qor.Accumulator(name, 3)
    counter.remove()
    counter.remove()
    with pytest.raises(qor.NoCounterError):
        counter.value
    assert counter.step() == 4


@pytest.mark.parametrize("limits", [(0, 5, 5), (0, 6, 5), (4, 5, 9), (10, 5, 9), (-1, -1, 5), (0, 0, 1 << 32)])
def test_limits_that_are_none_raise(name: str, limits: tuple[int, int, int]) -> None:
    with pytest.raises(qor.ArgumentError):
        qor.Accumulator(name, *limits)


@pytest.mark.parametrize("step", [0, -1, 10, 11, 1 << 40])
def test_a_step_outside_the_range_raises(name: str, step: int) -> None:
    counter = qor.Accumulator(name, 0, 0, 10)
    with pytest.raises(qor.ArgumentError):
        counter.step(step)
    assert counter.value == 0


def test_the_whole_range_of_numbers_counts(name: str) -> None:
    counter = qor.Accumulator(name, 0xFFFFFFFF)
    assert counter.value == 0xFFFFFFFF
    assert counter.step() == 0


@pytest.mark.parametrize("bad", ["", "x" * 256, "a\0b"])
def test_a_name_that_is_none_raises(bad: str) -> None:
    with pytest.raises(qor.ArgumentError):
        qor.Accumulator(bad)
