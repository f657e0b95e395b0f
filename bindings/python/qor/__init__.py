"""qor for Python: threads of a device that send each other messages, share configuration, and count.

    import qor

    with qor.Thread("panel") as thread:

        @thread.on(0x100)
        def show(message):
            print(message.wparam, message.data)

        thread.run()

docs/python.md explains the package by task. All exceptions derive from Error.
"""

from ._accumulator import Accumulator
from ._errors import (
    ArgumentError,
    Error,
    MisuseError,
    NameInUseError,
    NoCounterError,
    NoRoomError,
    QueueFullError,
    RegistryError,
    ReplyTimeoutError,
    ThreadGoneError,
    WrongThreadError,
)
from ._flat import (
    SIZE_EXTRA_MAX,
    TM_REGISTRY_CHANGE,
    TM_THREAD_QUIT,
    TM_THREAD_START,
    TM_THREAD_TIMER,
)
from ._flat import library_version as _library_version
from ._message import Message
from ._peer import (
    MessageMemory,
    Peer,
    Reply,
    broadcast,
    find,
    message_memory,
    notify_ready,
    set_post_reserve,
    threads,
    tick,
)
from ._registry import Registry, Section, Watch
from ._thread import Thread, current_thread
from ._timer import Timer
from ._trace import TraceHandler, set_trace_author, set_trace_clock

__version__ = "2.0.4.7"
library_version: str = _library_version()
"""The version of the library that was loaded."""

__all__ = [
    "Accumulator", "ArgumentError", "Error", "Message", "MessageMemory", "MisuseError", "NameInUseError",
    "NoCounterError", "NoRoomError", "Peer", "QueueFullError", "Registry", "RegistryError", "Reply",
    "ReplyTimeoutError", "SIZE_EXTRA_MAX", "Section", "TM_REGISTRY_CHANGE", "TM_THREAD_QUIT", "TM_THREAD_START",
    "TM_THREAD_TIMER", "Thread", "ThreadGoneError", "Timer", "TraceHandler", "Watch", "WrongThreadError", "broadcast",
    "current_thread", "find", "library_version", "message_memory", "notify_ready", "set_post_reserve",
    "set_trace_author", "set_trace_clock", "threads", "tick",
]
