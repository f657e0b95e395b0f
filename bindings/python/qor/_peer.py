"""Threads of the device as those see them who post and send."""

from __future__ import annotations

import asyncio
import ctypes
import functools
import time
from dataclasses import dataclass
from typing import NamedTuple, SupportsIndex

from . import _flat
from ._errors import (
    ArgumentError,
    Error,
    NoRoomError,
    QueueFullError,
    ReplyTimeoutError,
    ThreadGoneError,
)
from ._flat import lib
from ._values import (
    INT_MAX,
    Data,
    copied_lines,
    extra_data,
    milliseconds,
    number_in,
    sint,
    text,
    timeout_milliseconds,
    uint,
)

# A default that ends: two threads that send to each other would else wait for ever.
DEFAULT_TIMEOUT = 5.0

_RETRY_SECONDS = 0.02


class Reply(NamedTuple):
    """The answer to a send: the number, and the message's data as its handler has left them."""

    result: int
    data: bytes


class MessageMemory(NamedTuple):
    """The memory of all messages of the device, in bytes."""

    free: int
    largest: int
    total: int


def _message_id(message: SupportsIndex) -> int:
    number = uint("message", message)
    if number in (_flat.TM_MESSAGE_PROXY, _flat.TM_MESSAGE_TIMER):
        raise ArgumentError(f"message {number} belongs to the library: its handler takes the data for an object")
    return number


def _limit(max_queued: SupportsIndex | None) -> int:
    return -1 if max_queued is None else number_in("max_queued", max_queued, 0, INT_MAX)


def _check(result: int, name: str, what: str) -> None:
    if result == 1:
        return
    if result == 0:
        raise ThreadGoneError(f'"{name}" has ended')
    if result == -1:
        raise QueueFullError(f'"{name}" has not read what waits in its queue')
    if result == -2:
        raise NoRoomError(f'no room to {what} "{name}" a message')
    if result == -3:
        raise ArgumentError(f"the library does not {what} such a message")
    if result == -4:
        raise ReplyTimeoutError(f'"{name}" has not replied in time')
    raise Error(f"cannot {what}: {result}")


@dataclass(frozen=True)
class Peer:
    """A registered thread of any process. find() makes it; it stays usable until that thread ends.

    Any OS thread may use a Peer, registered or not, also several at a time.
    """

    name: str
    handle: int

    def post(
        self,
        message: SupportsIndex,
        wparam: SupportsIndex = 0,
        lparam: SupportsIndex = 0,
        data: Data = b"",
        *,
        max_queued: SupportsIndex | None = None,
    ) -> None:
        """Post a message and return at once.

        Raises ThreadGoneError, NoRoomError, ArgumentError, and QueueFullError when max_queued messages or more wait
        unread at the target.
        """
        raw = extra_data(data)
        result = lib.msgTryPostMsgToThread(
            self.handle, _message_id(message), uint("wparam", wparam), sint("lparam", lparam), len(raw), raw or None,
            _limit(max_queued),
        )
        _check(result, self.name, "post")

    def send(
        self,
        message: SupportsIndex,
        wparam: SupportsIndex = 0,
        lparam: SupportsIndex = 0,
        data: Data = b"",
        *,
        timeout: float | None = DEFAULT_TIMEOUT,
        max_queued: SupportsIndex | None = None,
    ) -> Reply:
        """Send a message and wait for the reply, timeout seconds at most; None waits for ever.

        Meanwhile the calling thread handles no messages, and Python no signals; other OS threads go on. Sending to the
        calling thread itself runs its handler at once. Raises as post() does, and ReplyTimeoutError.
        """
        raw = extra_data(data)
        result, length = ctypes.c_int(-1), ctypes.c_int(0)
        buffer = ctypes.create_string_buffer(_flat.SIZE_EXTRA_MAX)
        done = lib.msgTrySendMsgToThread(
            self.handle, _message_id(message), uint("wparam", wparam), sint("lparam", lparam), len(raw), raw or None,
            timeout_milliseconds(timeout), _limit(max_queued), result, buffer, _flat.SIZE_EXTRA_MAX, length,
        )
        _check(done, self.name, "send")
        return Reply(result.value, buffer.raw[: length.value])

    async def send_async(
        self,
        message: SupportsIndex,
        wparam: SupportsIndex = 0,
        lparam: SupportsIndex = 0,
        data: Data = b"",
        *,
        timeout: float | None = DEFAULT_TIMEOUT,
        max_queued: SupportsIndex | None = None,
    ) -> Reply:
        """send() in a thread of the loop's executor, while the loop goes on.

        A task that is cancelled stops waiting; the thread of the executor goes on until the reply or the time-out.
        """
        call = functools.partial(self.send, message, wparam, lparam, data, timeout=timeout, max_queued=max_queued)
        return await asyncio.get_running_loop().run_in_executor(None, call)

    def quit(self, code: SupportsIndex = 0) -> None:
        """Ask the thread to end its loop; code is what its run() returns."""
        self.post(_flat.TM_THREAD_QUIT, code)

    def queue_length(self) -> int:
        """How many messages wait unread at the thread. Raises ThreadGoneError."""
        length: int = lib.msgGetQueueLength(self.handle)
        if length < 0:
            raise ThreadGoneError(f'"{self.name}" has ended')
        return length


def find(name: str, timeout: float = 0.0) -> Peer:
    """The thread of that name in any process of the device. Waits timeout seconds for it to register.

    Raises ThreadGoneError when there is none, and ArgumentError for a timeout that is none.
    """
    raw = text("the name", name, empty=False)
    end = time.monotonic() + milliseconds("timeout", timeout) / 1000
    while True:
        with _flat.one_by_one_at_first("look"):
            handle = lib.msgGetThreadByName(raw)
        if handle:
            return Peer(name, handle)
        if time.monotonic() >= end:
            raise ThreadGoneError(f'no thread has the name "{name}"')
        time.sleep(_RETRY_SECONDS)


def threads() -> list[str]:
    """The names of all registered threads of the device that are alive, in ascending order."""
    with _flat.one_by_one_at_first("look"):
        return copied_lines(lib.msgListThreadNames)


def broadcast(
    message: SupportsIndex, wparam: SupportsIndex = 0, lparam: SupportsIndex = 0, data: Data = b""
) -> list[str]:
    """Post a message to every registered thread of the device, also to those of this process.

    Returns the names of the threads that could not be given it for lack of room; those that end meanwhile do not count.
    """
    missed = []
    for name in threads():
        try:
            find(name).post(message, wparam, lparam, data)
        except ThreadGoneError:
            continue
        except NoRoomError:
            missed.append(name)
    return missed


def message_memory() -> MessageMemory:
    """The memory of all messages of the device: what is free, the largest block of it, and all there is."""
    free, largest, total = ctypes.c_int(), ctypes.c_int(), ctypes.c_int()
    lib.qorGetMessageMemory(free, largest, total)
    return MessageMemory(free.value, largest.value, total.value)


def set_post_reserve(size: SupportsIndex) -> int:
    """Let posts of this process leave size bytes of the messages' memory free. Returns what it was."""
    before: int = lib.msgSetPostReserve(number_in("the reserve", size, 0, 65536))
    return before


def tick() -> float:
    """Seconds since boot, the same in every process of the device, in steps of a millisecond."""
    return float(lib.qorGetTickCount()) / 1000


def notify_ready() -> bool:
    """Tell the service manager that this process is ready (Type=notify). False when there is none."""
    return bool(lib.msgNotifyReady())
