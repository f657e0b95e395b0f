"""A thread in the loop of asyncio."""

from __future__ import annotations

import asyncio
import os
from collections.abc import Callable
from typing import Any

import pytest

import qor

START = Callable[[qor.Thread], Any]


def test_messages_are_handled_in_the_loop(name: str) -> None:
    async def main() -> int:
        with qor.Thread(name) as thread:
            thread.on(0x100)(lambda message: message.wparam + 1)
            server = asyncio.create_task(thread.serve())
            reply = await thread.peer.send_async(0x100, 41, timeout=60)
            assert reply == (42, b"")
            thread.quit(5)
            return await server

    assert asyncio.run(main()) == 5


def test_the_loop_does_its_other_work_beside_a_flood_of_messages(name: str) -> None:
    async def main() -> None:
        inside, outside = os.pipe()
        reader = asyncio.StreamReader()
        await asyncio.get_running_loop().connect_read_pipe(
            lambda: asyncio.StreamReaderProtocol(reader), os.fdopen(inside, "rb")
        )
        with qor.Thread(name) as thread:
            again = 0

            @thread.on(0x100)
            def flood(message: qor.Message) -> None:
                nonlocal again
                again += 1
                thread.peer.post(0x100)
                if again == 20:
                    os.write(outside, b"line\n")

            server = asyncio.create_task(thread.serve())
            thread.peer.post(0x100)
            assert await reader.readline() == b"line\n"
            thread.quit()
            assert await server == 0
        os.close(outside)

    asyncio.run(main())


def test_a_coroutine_function_handles_messages_as_a_task(name: str) -> None:
    async def main() -> None:
        done: asyncio.Future[bytes] = asyncio.get_running_loop().create_future()
        with qor.Thread(name) as thread:

            @thread.on(0x100)
            async def work(message: qor.Message) -> None:
                await asyncio.sleep(0)
                done.set_result(message.data)

            server = asyncio.create_task(thread.serve())
            assert (await thread.peer.send_async(0x100, data=b"kept", timeout=60)).result == 0
            assert await done == b"kept"
            thread.quit()
            await server

    asyncio.run(main())


def test_a_task_that_fails_is_logged(name: str, caplog: pytest.LogCaptureFixture) -> None:
    async def main() -> None:
        with qor.Thread(name) as thread:

            @thread.on(0x100)
            async def fail(message: qor.Message) -> None:
                thread.quit()
                raise ValueError("in a task")

            thread.peer.post(0x100)
            await thread.serve()
            await asyncio.sleep(0)

    asyncio.run(main())
    assert "ValueError: in a task" in caplog.text


def test_a_coroutine_function_needs_a_loop(name: str, start: START, caplog: pytest.LogCaptureFixture) -> None:
    thread = qor.Thread(name)

    @thread.on(0x100)
    async def work(message: qor.Message) -> None:
        raise AssertionError("it never begins")

    assert start(thread).peer.send(0x100).result == -1
    assert "only under serve()" in caplog.text


def test_timers_come_under_asyncio(name: str) -> None:
    async def main() -> int:
        with qor.Thread(name) as thread:
            thread.timer(0.005, lambda timer: thread.quit(3))
            return await thread.serve()

    assert asyncio.run(main()) == 3


def test_a_serve_that_is_cancelled_leaves_the_messages_for_the_next(name: str) -> None:
    async def main() -> None:
        seen: list[int] = []
        with qor.Thread(name) as thread:
            thread.on(0x100)(lambda message: seen.append(message.wparam))
            server = asyncio.create_task(thread.serve())
            await asyncio.sleep(0)
            server.cancel()
            with pytest.raises(asyncio.CancelledError):
                await server
            thread.peer.post(0x100, 1)
            thread.quit(4)
            await asyncio.sleep(0)
            assert seen == []
            assert await thread.serve() == 4
            assert seen == [1]

    asyncio.run(main())


def test_two_loops_serve_two_threads(name: str, start: START) -> None:
    class Served(qor.Thread):
        def run(self) -> int:
            return asyncio.run(self.serve())

    first, second = Served(name + ".1"), Served(name + ".2")
    first.on(0x100)(lambda message: second.peer.send(0x100, message.wparam, timeout=60).result + 1)
    second.on(0x100)(lambda message: message.wparam * 10)
    start(second)
    assert start(first).peer.send(0x100, 4, timeout=60).result == 41


def test_a_handler_that_ends_the_program_ends_serve(name: str) -> None:
    async def main() -> None:
        with qor.Thread(name) as thread:

            @thread.on(0x100)
            def end(message: qor.Message) -> None:
                raise SystemExit(6)

            thread.peer.post(0x100)
            await thread.serve()

    with pytest.raises(SystemExit) as raised:
        asyncio.run(main())
    assert raised.value.code == 6


def test_a_timed_out_send_raises_in_the_task(name: str) -> None:
    async def main() -> None:
        with qor.Thread(name) as thread:  # nobody serves it
            with pytest.raises(TimeoutError):
                await thread.peer.send_async(0x100, timeout=0.02)

    asyncio.run(main())


def test_a_thread_is_served_once_at_a_time(name: str) -> None:
    async def main() -> None:
        with qor.Thread(name) as thread:
            server = asyncio.create_task(thread.serve())
            await asyncio.sleep(0)
            with pytest.raises(qor.MisuseError):
                await thread.serve()
            thread.quit(2)
            assert await server == 2

    asyncio.run(main())
