"""Signals while a thread waits, handles messages or sends."""

from __future__ import annotations

import asyncio
import os
import signal
import threading
from collections.abc import Callable, Iterator
from typing import Any

import pytest

import qor


@pytest.fixture(autouse=True)
def default_interrupt() -> Iterator[None]:
    """SIGINT as in a program of one's own, also when the tests run in the background."""
    before = signal.signal(signal.SIGINT, signal.default_int_handler)
    yield
    signal.signal(signal.SIGINT, before)


def test_an_interrupt_ends_a_loop_that_waits(name: str) -> None:
    with qor.Thread(name) as thread:
        thread.on(0x100)(lambda message: killer.start())
        killer = threading.Timer(0.05, os.kill, (os.getpid(), signal.SIGINT))
        thread.peer.post(0x100)
        with pytest.raises(KeyboardInterrupt):
            thread.run()
        killer.join()
        assert signal.getsignal(signal.SIGINT) is signal.default_int_handler
    assert name not in qor.threads()


def test_an_interrupt_reaches_the_handler_that_it_meets_and_ends_the_loop(name: str) -> None:
    met: list[str] = []
    with qor.Thread(name) as thread:

        @thread.on(0x100)
        def work(message: qor.Message) -> None:
            try:
                signal.raise_signal(signal.SIGINT)
                met.append("not raised")
            finally:
                met.append("cleaned up")

        thread.peer.post(0x100)
        thread.peer.post(0x200)
        with pytest.raises(KeyboardInterrupt):
            thread.run()
        assert met == ["cleaned up"]
        thread.quit(3)
        assert thread.run() == 3  # it is as usable as before


def test_no_interrupt_is_lost_between_the_loop_and_its_handlers(name: str, run: Callable[[str], Any]) -> None:
    child = run(
        f"""
        with qor.Thread("{name}") as thread:
            thread.on(0x100)(lambda message: thread.peer.post(0x100))
            thread.peer.post(0x100)
            while True:
                try:
                    print("running")
                    thread.run()
                    break
                except KeyboardInterrupt:
                    print("interrupted")
        """
    )
    for _ in range(500):
        while (line := child.read()) != "running":
            assert line == "interrupted"
        child.process.send_signal(signal.SIGINT)
        assert child.read() == "interrupted"
    qor.find(name).quit()
    status, _, errors = child.wait()
    assert (status, errors) == (0, "")


def test_a_handler_of_the_program_is_kept_and_runs_while_the_loop_waits(name: str) -> None:
    seen: list[int] = []
    with qor.Thread(name) as thread:

        def on_signal(number: int, frame: object) -> None:
            seen.append(number)
            thread.quit(2)

        signal.signal(signal.SIGINT, on_signal)
        killer = threading.Timer(0.05, os.kill, (os.getpid(), signal.SIGINT))
        killer.start()
        assert thread.run() == 2
        killer.join()
    assert seen == [signal.SIGINT]
    assert signal.getsignal(signal.SIGINT) is on_signal


def test_an_interrupt_ends_serve(name: str) -> None:
    async def main() -> None:
        with qor.Thread(name) as thread:
            asyncio.get_running_loop().call_later(0.02, signal.raise_signal, signal.SIGINT)
            await thread.serve()

    with pytest.raises(KeyboardInterrupt):
        asyncio.run(main())
    assert name not in qor.threads()


def test_a_signal_quits_the_loop(name: str, run: Callable[[str], Any]) -> None:
    child = run(
        f"""
        import signal
        with qor.Thread("{name}") as thread:
            thread.quit_on_signal(signal.SIGTERM, signal.SIGINT)
            thread.on(qor.TM_THREAD_QUIT)(lambda message: print("signal", message.lparam))
            thread.on(qor.TM_THREAD_START)(lambda message: print("ready"))
            print("exit", thread.run())
        """
    )
    assert child.read() == "ready"
    child.process.terminate()
    assert child.wait() == (0, f"signal {signal.SIGTERM:d}\nexit 0\n", "")


def test_a_signal_that_cannot_be_caught_raises(name: str) -> None:
    with qor.Thread(name) as thread:
        with pytest.raises(qor.ArgumentError):
            thread.quit_on_signal(signal.SIGKILL)
