"""The device's configuration as mappings: INI documents that all processes share."""

from __future__ import annotations

from functools import partial
from typing import Any, Callable, Iterator, Mapping, MutableMapping, Union

from ._errors import ArgumentError, MisuseError, RegistryError
from ._flat import REGISTRY_SET_CHANGED, lib
from ._thread import Thread, current_thread
from ._values import INT_MAX, copied_lines, copied_text, from_text, sint, text

# No value contains a line feed, so this is never one.
_NO_VALUE = b"\n"

Value = Union[str, int, float]


class Watch:
    """A subscription to the changes of a section, made by Section.watch(). It ends with its thread at the latest."""

    def __init__(self, thread: Thread, section: Section, handler: Callable[[Section], object]) -> None:
        self._thread = thread
        self._handle = section._handle
        self._call = lambda handle: handler(section)
        thread._watch(self._handle, self._call)

    def cancel(self) -> None:
        """End it. Does nothing the second time."""
        self._thread._unwatch(self._handle, self._call)


class Section(MutableMapping[str, str]):
    """A section: a mapping from keys to texts.

    Names are compared without regard to case; white space at the ends of names and values is lost.

    Changes are seen by all processes at once. flush() notifies those who watch the section and has the file written.
    """

    def __init__(self, path: str, name: str) -> None:
        handle = lib.registryOpen(text("the file name", path, empty=False), text("the section", name))
        if not handle:
            raise RegistryError(f"{path} cannot be read")
        self._handle: int = handle
        self.path = path
        self.name = name

    def __repr__(self) -> str:
        return f"<qor.Section [{self.name}] of {self.path}>"

    def _find(self, key: object) -> str | None:
        raw = text("the key", key) if isinstance(key, str) else None
        if raw is None or not lib.registryHasKey(self._handle, raw):
            return None

        def copy(buffer: Any, size: int) -> int:
            length: int = lib.registryGetStringN(self._handle, raw, buffer, size, _NO_VALUE)
            return length

        value = copied_text(copy)
        return None if value == _NO_VALUE else from_text(value)

    def __getitem__(self, key: str) -> str:
        value = self._find(key)
        if value is None:
            raise KeyError(key)
        return value

    def __contains__(self, key: object) -> bool:
        return isinstance(key, str) and bool(lib.registryHasKey(self._handle, text("the key", key)))

    def __setitem__(self, key: str, value: Value) -> None:
        self.set(key, value)

    def set(self, key: str, value: Value) -> bool:
        """Set a value; numbers as the library writes them. Returns whether it changed. Raises RegistryError."""
        result = lib.registryTrySetString(self._handle, text("the key", key), text("the value", _value_text(value)))
        if result < 0:
            reason = from_text(lib.registryGetErrorText(result))
            raise RegistryError(f"[{self.name}] {key!r} of {self.path}: {reason}")
        return bool(result == REGISTRY_SET_CHANGED)

    def __delitem__(self, key: str) -> None:
        if not isinstance(key, str) or not lib.registryDeleteKey(self._handle, text("the key", key)):
            raise KeyError(key)

    def clear(self) -> None:
        """Delete all keys."""
        lib.registryDeleteSection(self._handle)

    def __iter__(self) -> Iterator[str]:
        return iter(copied_lines(partial(lib.registryListKeys, self._handle)))

    def __len__(self) -> int:
        return sum(1 for _ in self)

    def get_int(self, key: str, default: int = 0) -> int:
        """The decimal number at the start of the value, as every program of the device reads it."""
        if key not in self:
            return default
        return int(lib.registryGetInt(self._handle, text("the key", key), sint("default", default)))

    def get_float(self, key: str, default: float = 0.0) -> float:
        """The number at the start of the value, with a point in every locale; the default when there is none."""
        if key not in self:
            return default
        return float(lib.registryGetFloat(self._handle, text("the key", key), default))

    def get_bool(self, key: str, default: bool = False) -> bool:
        """Whether the number is not 0."""
        return self.get_int(key, int(default)) != 0

    def flush(self) -> None:
        """Notify those who watch changed sections of this document, and write it, or have its saver write it."""
        lib.registryFlush(self._handle)

    def save(self) -> None:
        """Write the document's changes to its file now, whether or not there is a saver. Raises RegistryError."""
        if not lib.regSaveRegistryDocument(self._handle):
            raise RegistryError(f"{self.path} cannot be written")

    def watch(self, handler: Callable[[Section], object]) -> Watch:
        """Call handler(section) in the calling thread's loop after each flush of a change, also of one's own.

        The calling OS thread must have entered a qor.Thread. Several changes may be reported by one call.
        """
        thread = current_thread()
        if thread is None:
            raise MisuseError("changes are told to the thread that asks for them: enter a qor.Thread first")
        return Watch(thread, self, handler)


class Registry(Mapping[str, Section]):
    """A document: a mapping from the names of its sections to these.

    Only sections with keys are listed and counted. section() also opens one that has none yet.
    """

    def __init__(self, path: str) -> None:
        self._raw_path = text("the file name", path, empty=False)
        if not path.startswith("/"):
            raise ArgumentError(f"{path!r} is not absolute: in another working directory it would be another document")
        self.path = path

    def __repr__(self) -> str:
        return f"<qor.Registry {self.path}>"

    def section(self, name: str) -> Section:
        """The section of that name, made when it is missing. Raises RegistryError for a file that cannot be read."""
        return Section(self.path, name)

    def __getitem__(self, name: str) -> Section:
        if name not in self:
            raise KeyError(name)
        return self.section(name)

    def __contains__(self, name: object) -> bool:
        return isinstance(name, str) and bool(lib.registryHasSection(self._raw_path, text("the section", name)))

    def __delitem__(self, name: str) -> None:
        if name not in self or not lib.registryDeleteSection(self.section(name)._handle):
            raise KeyError(name)

    def __iter__(self) -> Iterator[str]:
        return iter(copied_lines(partial(lib.registryListSections, self._raw_path)))

    def __len__(self) -> int:
        return sum(1 for _ in self)


def _value_text(value: Value) -> str:
    # The base type's own text: that of a bool, an IntEnum or another derived type is no number.
    if isinstance(value, int):
        return int.__repr__(value)
    if isinstance(value, float):
        return float.__repr__(value)
    return value
