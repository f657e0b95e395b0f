"""Persistent counters, which survive restarts."""

from __future__ import annotations

import ctypes
from typing import SupportsIndex

from ._errors import ArgumentError, NoCounterError
from ._flat import lib
from ._values import UINT_MAX, number_in, text

# All counters of a home directory share 4 KiB, and one that finds no room there ends the process.
_NAME_MAX = 255


class Accumulator:
    """A counter in the home directory, which wraps from maximum to minimum. It is created unless there is one.

    All programs that use it name the same limits.
    """

    def __init__(
        self, name: str, start: SupportsIndex = 0, minimum: SupportsIndex = 0, maximum: SupportsIndex = UINT_MAX
    ) -> None:
        self._raw_name = text("the name", name, empty=False)
        if len(self._raw_name) > _NAME_MAX:
            raise ArgumentError(f"the name of a counter has {_NAME_MAX} bytes at most")
        self.name = name
        self.minimum = number_in("minimum", minimum, 0, UINT_MAX - 1)
        self.maximum = number_in("maximum", maximum, self.minimum + 1, UINT_MAX)
        self.start = number_in("start", start, self.minimum, self.maximum)
        self.created = bool(
            lib.accCreateAccumulaterOnce(self._raw_name, self.start, self.minimum, self.maximum)
        )
        """Whether this object has created the counter."""

    def __repr__(self) -> str:
        return f"<qor.Accumulator {self.name!r} {self.minimum}..{self.maximum}>"

    @property
    def value(self) -> int:
        """What it was created with or what was handed out last. Raises NoCounterError when it was removed."""
        value = ctypes.c_uint()
        if not lib.accReadAccumulater(self._raw_name, value):
            raise NoCounterError(f'no counter has the name "{self.name}"')
        return value.value

    def step(self, count: SupportsIndex = 1) -> int:
        """Add count, and return the new value, which is on the medium then. Creates a counter that was removed."""
        number = number_in("the step", count, 1, min(self.maximum - self.minimum - 1, 0x7FFFFFFF))
        lib.accCreateAccumulaterOnce(self._raw_name, self.start, self.minimum, self.maximum)
        return int(lib.accExcuteAccumulater(self._raw_name, number))

    def reset(self, value: SupportsIndex | None = None) -> None:
        """Set it to a value, or to what it starts with, and its limits to those of this object."""
        number = self.start if value is None else number_in("value", value, self.minimum, self.maximum)
        lib.accCreateAccumulater(self._raw_name, number, self.minimum, self.maximum)

    def remove(self) -> None:
        """Remove it for all programs. Does nothing when there is none."""
        lib.accDestoryAccumulater(self._raw_name)
