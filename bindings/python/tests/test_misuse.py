"""No argument ends the process: what the library would abort for raises."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest

import qor

POSTS = ("post", "send")


@pytest.mark.parametrize("kind", POSTS)
@pytest.mark.parametrize(
    "arguments",
    [
        {"message": -1}, {"message": 1 << 32}, {"message": 1}, {"message": 2}, {"wparam": -1}, {"wparam": 1 << 32},
        {"lparam": 1 << 31}, {"lparam": -(1 << 31) - 1}, {"data": bytes(1025)}, {"max_queued": -1},
    ],
)
def test_what_a_message_cannot_be_raises(name: str, kind: str, arguments: dict[str, Any]) -> None:
    with qor.Thread(name) as thread:
        waiting = thread.peer.queue_length()
        with pytest.raises(qor.ArgumentError) as raised:
            getattr(thread.peer, kind)(**{"message": 0x100, **arguments})
        assert isinstance(raised.value, ValueError)
        assert thread.peer.queue_length() == waiting


@pytest.mark.parametrize("kind", POSTS)
@pytest.mark.parametrize(
    "arguments", [{"message": "0x100"}, {"message": 1.5}, {"wparam": None}, {"data": "text"}, {"data": 7}]
)
def test_what_has_the_wrong_type_raises(name: str, kind: str, arguments: dict[str, Any]) -> None:
    with qor.Thread(name) as thread:
        with pytest.raises(TypeError):
            getattr(thread.peer, kind)(**{"message": 0x100, **arguments})


@pytest.mark.parametrize("message", [0x70001, 0x70002, 0x70006, 0x70007, 0xA0006])
def test_ids_that_are_never_posted_raise(name: str, message: int) -> None:
    with qor.Thread(name) as thread:
        with pytest.raises(qor.ArgumentError):
            thread.peer.post(message)


@pytest.mark.parametrize("timeout", [-1, float("nan"), float("inf"), 1e10])
def test_a_timeout_that_is_none_raises(name: str, timeout: float) -> None:
    with qor.Thread(name) as thread:
        with pytest.raises(qor.ArgumentError):
            thread.peer.send(0x100, timeout=timeout)
        with pytest.raises(qor.ArgumentError):
            qor.find(f"{name}.none", timeout=timeout)


@pytest.mark.parametrize("bad", ["", "a\0b", "\ud800"])
def test_a_name_that_is_none_raises(bad: str) -> None:
    with pytest.raises(qor.ArgumentError):
        qor.Thread(bad)
    with pytest.raises(qor.ArgumentError):
        qor.find(bad)


def test_a_name_of_the_wrong_type_raises() -> None:
    with pytest.raises(TypeError):
        qor.Thread(b"bytes")  # type: ignore[arg-type]


def test_a_name_that_the_library_refuses_raises() -> None:
    with pytest.raises(qor.ArgumentError):
        with qor.Thread("x" * 65536):
            pass


def test_on_takes_ids(name: str) -> None:
    thread = qor.Thread(name)
    for ids in ((), (-1,), (1 << 32,)):
        with pytest.raises(qor.ArgumentError):
            thread.on(*ids)
    with pytest.raises(TypeError):
        thread.on(print)  # type: ignore[arg-type]


@pytest.mark.parametrize("size", [-1, 65537])
def test_a_reserve_that_is_none_raises(size: int) -> None:
    with pytest.raises(qor.ArgumentError):
        qor.set_post_reserve(size)


def test_every_exception_is_an_error() -> None:
    exceptions = [value for value in vars(qor).values() if isinstance(value, type) and issubclass(value, Exception)]
    assert len(exceptions) == 11
    assert all(issubclass(kind, qor.Error) for kind in exceptions)


def test_what_still_aborts_is_what_the_document_says(name: str, run: Callable[[str], Any]) -> None:
    """A counter whose limits another program has narrowed."""
    child = run(
        f"""
        wide, narrow = qor.Accumulator("{name}"), qor.Accumulator("{name}", 0, 0, 5)
        narrow.reset()
        wide.step(100)
        """
    )
    status, _, errors = child.wait()
    assert status == -6
    assert "nStep > 0 && (UINT)nStep < m_uMaxValue - m_uMinValue" in errors
