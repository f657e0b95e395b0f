"""qor.Thread: an OS thread that receives messages."""

from __future__ import annotations

import asyncio
import atexit
import ctypes
import logging
import os
import select
import signal
import threading
from types import TracebackType
from typing import Any, Callable, Coroutine, SupportsIndex, TypeVar, Union

from . import _flat
from ._errors import ArgumentError, Error, MisuseError, NameInUseError, NoRoomError, WrongThreadError
from ._flat import lib
from ._interrupt import InterruptGuard
from ._message import Answer, Message
from ._peer import Peer
from ._timer import Timer, TimerHandler
from ._values import text, uint

Handler = Callable[[Message], Union[Answer, Coroutine[Any, Any, object]]]
HandlerT = TypeVar("HandlerT", bound=Handler)
TimerHandlerT = TypeVar("TimerHandlerT", bound=TimerHandler)
WatchHandler = Callable[[int], object]

_log = logging.getLogger("qor")

# So many messages are handled before the loop looks at signals, or asyncio at its other descriptors.
_PASS_MESSAGES = 50
# A signal that comes just before the wait begins is seen after this time at most.
_WAIT_SECONDS = 1.0
# What a message is answered that nobody handles, and whose handler raises.
_UNHANDLED = -1


class _Local(threading.local):
    thread: Thread | None = None


_local = _Local()
_open: set[Thread] = set()


class Thread:
    """A named thread that receives messages: register by "with", then run() or, under asyncio, serve().

        thread = qor.Thread("worker")

        @thread.on(0x100)
        def double(message):
            return message.wparam * 2

        with thread:
            thread.run()

    A Thread belongs to the OS thread that has entered it; there, its handlers run. Handlers, timers and watches may be
    added before or after that. It may be entered again after it was left.
    """

    def __init__(self, name: str) -> None:
        self._raw_name = text("the name", name, empty=False)
        self.name = name
        self._handle: int | None = None
        self._handlers: dict[int, Handler] = {}
        self._otherwise: Handler | None = None
        self._timers: dict[int, Timer] = {}
        self._watches: dict[int, list[WatchHandler]] = {}
        self._tasks: set[asyncio.Task[object]] = set()
        self._is_saver = False
        self._guard = InterruptGuard()
        self._raised: BaseException | None = None
        self._wait = _WAIT_SECONDS
        self._is_served = False

    def __repr__(self) -> str:
        return f"<qor.Thread {self.name!r} {'entered' if self._handle else 'not entered'}>"

    # ---- registration

    def __enter__(self) -> Thread:
        if self._handle is not None:
            raise MisuseError(f"{self!r} is entered already")
        if _local.thread is not None:
            raise MisuseError(f"this OS thread has entered {_local.thread!r}")
        handle = ctypes.c_void_p()
        with _flat.one_by_one_at_first("look"), _flat.one_by_one_at_first("register"):
            result = lib.msgTryRegistWorkThread(self._raw_name, _callback, handle)
        if result == -1:
            raise NameInUseError(f'another thread of the device has the name "{self.name}"')
        if result == -2:
            raise NoRoomError(f'no room to register "{self.name}"')
        if result != 1 or handle.value is None:
            raise ArgumentError(f"the library takes no such name: {self.name[:40]!r}")
        self._handle = handle.value
        self._raised = None
        _local.thread = self
        _open.add(self)
        for timer in list(self._timers.values()):
            timer._start()
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        if self._handle is None:  # this is the child of a fork, or a handler has left
            return
        self._check()
        if self._is_saver:
            lib.registryUnregistSaver()
        for section in self._watches:
            lib.regUnmonitorSection(section)
        handle = self._handle
        self._forget()
        lib.msgUnregistWorkThread(handle)

    def _forget(self) -> None:
        self._handle = None
        self._is_saver = False
        self._wait = _WAIT_SECONDS
        self._watches.clear()
        _open.discard(self)
        if _local.thread is self:
            _local.thread = None

    def _check(self) -> None:
        if self._handle is None:
            raise MisuseError(f"{self!r}: enter it first, by \"with\"")
        if _local.thread is not self:
            raise WrongThreadError(f"{self!r} belongs to the OS thread that has entered it")

    @property
    def peer(self) -> Peer:
        """This thread for those who post and send to it; usable in all OS threads of the process."""
        handle = self._handle
        if handle is None:
            raise MisuseError(f"{self!r}: enter it first, by \"with\"")
        return Peer(self.name, handle)

    # ---- what it handles

    def on(self, *messages: SupportsIndex) -> Callable[[HandlerT], HandlerT]:
        """Make the decorated function the handler of these message ids.

        What it returns is the answer: None (0), a number, bytes (with the number 0), or a tuple of both. An exception
        is logged, and the answer is -1. A coroutine function is started as a task of the loop under serve(); its sender
        has 0 at once.
        """
        ids = [uint("message", message) for message in messages]
        if not ids:
            raise ArgumentError("on() takes the ids of the messages, as in @thread.on(0x100)")

        def remember(handler: HandlerT) -> HandlerT:
            self._handlers.update(dict.fromkeys(ids, handler))
            return handler

        return remember

    def otherwise(self, handler: HandlerT) -> HandlerT:
        """Make the decorated function the handler of all ids without one. Without it these are answered -1.

        It also gets the library's own messages, as qor.TM_THREAD_START and qor.TM_THREAD_QUIT.
        """
        self._otherwise = handler
        return handler

    def every(self, period: float, *, rate: bool = False) -> Callable[[TimerHandlerT], TimerHandlerT]:
        """Call the decorated function with its Timer every so many seconds.

        With rate, it is due at whole periods after the start, however long it takes; Timer.missed tells how many were
        missed. Without, the next period begins when the timer is handled.
        """

        def remember(handler: TimerHandlerT) -> TimerHandlerT:
            self.timer(period, handler, rate=rate)
            return handler

        return remember

    def timer(self, period: float, handler: TimerHandler, *, rate: bool = False, once: bool = False) -> Timer:
        """The same without a decorator; with once, it is cancelled before it is called for the first time."""
        if self._handle is not None:
            self._check()
        return Timer(self, period, handler, rate, once)

    # ---- loops

    def run(self) -> int:
        """Handle messages until the quit message; returns its code, and from then on at once until it is entered again.

        Signals are handled by Python while it waits, so Ctrl-C raises KeyboardInterrupt here, or in the handler that it
        meets.
        """
        self._check()
        poller = select.poll()
        poller.register(self._poll_fd(), select.POLLIN)
        with self._guard:
            while self._process():
                poller.poll(self._wait * 1000)
        return self._exit_code()

    async def serve(self) -> int:
        """run() under asyncio: a coroutine that handles messages in the loop of the calling OS thread.

        When its task is cancelled, messages wait in the queue until serve() or run() is called again. It has to end
        before the thread is left.
        """
        self._check()
        if self._is_served:
            raise MisuseError(f"{self!r} is served already")
        loop = asyncio.get_running_loop()
        done: asyncio.Future[int] = loop.create_future()
        beat: asyncio.Handle | None = None

        def pump() -> None:
            if done.done():
                return
            try:
                if not self._process():
                    done.set_result(self._exit_code())
            except BaseException as error:  # what a handler has raised to end the program
                done.set_exception(error)

        def pass_by() -> None:
            nonlocal beat
            pump()
            beat = loop.call_later(self._wait, pass_by)

        fd = self._poll_fd()
        loop.add_reader(fd, pump)
        self._is_served = True
        pass_by()
        try:
            return await done
        finally:
            self._is_served = False
            if beat is not None:
                beat.cancel()
            loop.remove_reader(fd)

    def quit(self, code: SupportsIndex = 0) -> None:
        """Post this thread the quit message. Any OS thread may call it."""
        self.peer.quit(code)

    def quit_on_signal(self, *signals: signal.Signals) -> None:
        """Have the first such signal to the process post this thread the quit message.

        The second one has its default action.
        The library handles these signals from then on, and Python's signal module does not see them.
        """
        self._check()
        for number in signals:
            if not lib.msgQuitOnSignal(number):
                raise ArgumentError(f"{number!r} cannot be caught")

    def enable_watchdog(self) -> bool:
        """Have the service manager watch this thread's loop (WatchdogSec=). False when there is none that watches."""
        self._check()
        if not lib.msgEnableWatchdog():
            return False
        self._wait = min(self._wait, int(os.environ["WATCHDOG_USEC"]) / 4e6)
        return True

    def save_registry(self) -> None:
        """Make this thread the saver of the registry: it writes the documents that all processes flush."""
        self._check()
        lib.registryRegistSaver()
        self._is_saver = True

    def _poll_fd(self) -> int:
        fd: int = lib.msgGetPollFd()
        if fd < 0:
            raise Error("the system has no descriptor or thread left for the loop")
        return fd

    def _process(self) -> bool:
        """Handles some of what there is; the descriptor stays readable when there is more. False ends the loop."""
        if self._handle is None:
            return False
        guard = self._guard
        if guard.in_library:
            raise MisuseError(f"{self!r}: a handler cannot run the loop")
        handled, left = 1, _PASS_MESSAGES
        guard.in_library = True
        try:
            # One at a time, so that nothing else is handled once a handler has raised what ends the loop.
            while handled == 1 and left > 0 and not guard.noted and self._raised is None:
                handled = lib.msgProcessPending(1)
                left -= 1
        finally:
            guard.in_library = False
        self._raise_noted()
        return handled >= 0

    def _raise_noted(self) -> None:
        raised, self._raised = self._raised, None
        noted, self._guard.noted = self._guard.noted, False
        if raised is not None:
            raise raised
        if noted:
            raise KeyboardInterrupt

    def _exit_code(self) -> int:
        # A handler may have left the thread; then there is no code.
        return int(lib.msgDefaultThreadRun()) if self._handle is not None else 0

    # ---- one message

    def _dispatch(self, address: int) -> int:
        message = Message(address)
        try:
            return self._answer(message)
        except Exception:
            _log.exception("%s: the handler of message 0x%x failed", self.name, message.id)
            return _UNHANDLED if message._replied is None else message._replied
        finally:
            message._address = None

    def _answer(self, message: Message) -> int:
        if message.id == _flat.TM_THREAD_TIMER and message.wparam in self._timers:
            self._timers[message.wparam]._fire(message.lparam)
            return 0
        if message.id == _flat.TM_REGISTRY_CHANGE and self._registry_changed(message):
            return 0
        handler = self._handlers.get(message.id, self._otherwise)
        if handler is None:
            return _UNHANDLED
        answer = handler(message)
        if asyncio.iscoroutine(answer):
            self._start_task(answer)
            answer = None
        return message._finish(answer)  # type: ignore[arg-type]

    def _registry_changed(self, message: Message) -> bool:
        if message.wparam != 0:
            return self._is_saver and bool(lib.registrySaveDocument(message.wparam))
        handlers = self._watches.get(message.lparam)
        for handler in list(handlers or ()):
            try:
                handler(message.lparam)
            except Exception:
                _log.exception("%s: the handler of a changed section failed", self.name)
        return handlers is not None

    def _start_task(self, coroutine: Coroutine[Any, Any, object]) -> None:
        try:
            loop = asyncio.get_running_loop()
        except RuntimeError:
            coroutine.close()
            raise MisuseError("a coroutine function handles messages only under serve()") from None
        task = loop.create_task(coroutine)
        self._tasks.add(task)
        task.add_done_callback(self._end_task)

    def _end_task(self, task: asyncio.Task[object]) -> None:
        self._tasks.discard(task)
        if not task.cancelled() and task.exception() is not None:
            _log.error("%s: the handler of a message failed", self.name, exc_info=task.exception())

    # ---- watches of the registry

    def _watch(self, section: int, handler: WatchHandler) -> None:
        self._check()
        handlers = self._watches.setdefault(section, [])
        handlers.append(handler)
        if len(handlers) == 1:
            lib.regMonitorSection(section)

    def _unwatch(self, section: int, handler: WatchHandler) -> None:
        handlers = self._watches.get(section, [])
        if handler not in handlers:
            return
        self._check()
        handlers.remove(handler)
        if not handlers:
            del self._watches[section]
            lib.regUnmonitorSection(section)


def current_thread() -> Thread | None:
    """The Thread that the calling OS thread has entered, or None."""
    return _local.thread


def _on_message(address: int) -> int:
    thread = _local.thread
    if thread is None:
        return _UNHANDLED
    guard = thread._guard
    nested, guard.in_handler = guard.in_handler, False
    try:
        guard.in_handler = True
        result = thread._dispatch(address)
        guard.in_handler = nested
        return result
    except BaseException as error:  # KeyboardInterrupt, SystemExit: the loop raises it
        guard.in_handler = nested
        thread._raised = error
        return _UNHANDLED


# One for all threads and for ever: the library may call it as long as a thread of this process is registered.
_callback = _flat.CALLBACK(_on_message)
_flat.keep_forever(_callback)


def _forget_after_fork() -> None:
    for thread in list(_open):
        thread._forget()


def _leave_at_exit() -> None:
    thread = _local.thread
    if thread is not None:
        thread.__exit__(None, None, None)


os.register_at_fork(after_in_child=_forget_after_fork)
atexit.register(_leave_at_exit)
