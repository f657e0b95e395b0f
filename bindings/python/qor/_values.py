"""How values of Python become those of C. ctypes cuts off numbers that do not fit; here they raise ArgumentError."""

from __future__ import annotations

import ctypes
import math
import operator
from typing import Any, Callable, SupportsIndex, Union

from ._errors import ArgumentError
from ._flat import SIZE_EXTRA_MAX

# bytes and everything that has their buffer: bytearray, memoryview, array.array, ctypes structures.
Data = Union[bytes, bytearray, memoryview]

UINT_MAX = 0xFFFFFFFF
INT_MAX = 0x7FFFFFFF


def number_in(what: str, value: SupportsIndex, low: int, high: int) -> int:
    """The number, when it lies between the two limits."""
    number = operator.index(value)
    if not low <= number <= high:
        raise ArgumentError(f"{what} is {number}, which is not between {low} and {high}")
    return number


def uint(what: str, value: SupportsIndex) -> int:
    """An unsigned number of 32 bits."""
    return number_in(what, value, 0, UINT_MAX)


def sint(what: str, value: SupportsIndex) -> int:
    """A signed number of 32 bits."""
    return number_in(what, value, -INT_MAX - 1, INT_MAX)


def extra_data(data: Data) -> bytes:
    """What a message can carry."""
    if isinstance(data, str):
        raise TypeError("data are bytes, not str; encode the text")
    raw = data if isinstance(data, bytes) else bytes(memoryview(data))
    if len(raw) > SIZE_EXTRA_MAX:
        raise ArgumentError(f"a message carries {SIZE_EXTRA_MAX} bytes at most, not {len(raw)}")
    return raw


def text(what: str, value: str, empty: bool = True) -> bytes:
    """A text for C. Bytes that are not UTF-8 travel as os.fsencode() would have them."""
    if not isinstance(value, str):
        raise TypeError(f"{what} is a str, not {type(value).__name__}")
    try:
        raw = value.encode("utf-8", "surrogateescape")
    except UnicodeEncodeError as error:
        raise ArgumentError(f"{what} cannot be encoded: {error}") from error
    if b"\0" in raw:
        raise ArgumentError(f"{what} contains a NUL character")
    if not raw and not empty:
        raise ArgumentError(f"{what} is empty")
    return raw


def from_text(raw: bytes) -> str:
    """A text from C."""
    return raw.decode("utf-8", "surrogateescape")


def milliseconds(what: str, seconds: float) -> int:
    """Seconds as whole milliseconds, rounded up, so that a time-out is never shorter than asked for."""
    if not 0 <= seconds <= INT_MAX / 1000:
        raise ArgumentError(f"{what} is {seconds} s, which is not between 0 and {INT_MAX // 1000}")
    return math.ceil(round(seconds * 1000, 6))


def timeout_milliseconds(seconds: float | None) -> int:
    """A time-out; None is -1, no limit."""
    return -1 if seconds is None else milliseconds("timeout", seconds)


def copied_text(copy: Callable[[Any, int], int]) -> bytes:
    """What a function has that copies as much as fits into a buffer and returns the whole length."""
    size = 256
    while True:
        buffer = ctypes.create_string_buffer(size)
        length = copy(buffer, size)
        if length < size:
            return buffer.raw[: max(length, 0)]
        size = length + 64


def copied_lines(copy: Callable[[Any, int], int]) -> list[str]:
    """Such a text as its lines."""
    return [from_text(line) for line in copied_text(copy).split(b"\n")[:-1]]
