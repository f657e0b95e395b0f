"""The exceptions of the package. Each is an Error, and where Python has a fitting one of its own, also that."""

from __future__ import annotations


class Error(Exception):
    """The base of all exceptions of this package."""


class NameInUseError(Error):
    """Another living thread of the device has this name."""


class NoRoomError(Error):
    """The shared memory is full, or only what is reserved is left."""


class ThreadGoneError(Error, LookupError):
    """No thread has this name, or the thread has ended."""


class QueueFullError(Error):
    """As many messages as allowed wait unread at the target."""


class ReplyTimeoutError(Error, TimeoutError):
    """The target has not replied in time."""


class ArgumentError(Error, ValueError):
    """A number, text or size is outside what the library takes."""


class MisuseError(Error, RuntimeError):
    """The call is not possible now: a thread that was not entered, a message that has been handled."""


class WrongThreadError(MisuseError):
    """A qor.Thread is used by another OS thread than the one that entered it."""


class RegistryError(Error):
    """A document cannot be read or written, or a value cannot be stored; the text says why."""


class NoCounterError(Error, LookupError):
    """Nobody has created a counter of this name, or it was removed."""
