"""Posts, sends, answers, and what comes of them between threads and processes."""

from __future__ import annotations

import array
import copy
import logging
import pickle
import threading
from collections.abc import Callable
from typing import Any

import pytest

import qor

START = Callable[[qor.Thread], Any]


def echo(name: str) -> qor.Thread:
    """Answers 0x100 with twice wparam, 0x101 with its data reversed, 0x102 by an exception."""
    thread = qor.Thread(name)

    @thread.on(0x100)
    def double(message: qor.Message) -> int:
        return message.wparam * 2 + message.lparam

    @thread.on(0x101)
    def reverse(message: qor.Message) -> tuple[int, bytes]:
        return len(message.data), message.data[::-1]

    @thread.on(0x102)
    def fail(message: qor.Message) -> int:
        raise ValueError("as asked for")

    return thread


def test_a_send_returns_the_answer(name: str, start: START) -> None:
    start(echo(name))
    assert qor.find(name).send(0x100, 20, -3) == qor.Reply(37, b"")


@pytest.mark.parametrize("size", [1, 255, 1024])
def test_data_travel_both_ways(name: str, start: START, size: int) -> None:
    start(echo(name))
    data = bytes(i % 251 for i in range(size))
    assert qor.find(name).send(0x101, data=data) == (size, data[::-1])


def test_everything_with_a_buffer_is_data(name: str, start: START) -> None:
    start(echo(name))
    peer = qor.find(name)
    assert peer.send(0x101, data=bytearray(b"abc")).data == b"cba"
    assert peer.send(0x101, data=memoryview(b"abcdef")[::2]).data == b"eca"
    assert peer.send(0x101, data=memoryview(array.array("H", [0x4142]))).data == b"AB"


def test_posts_arrive_in_order(name: str, start: START) -> None:
    thread = qor.Thread(name)
    seen: list[tuple[int, int, bytes]] = []
    thread.on(0x200)(lambda message: seen.append((message.wparam, message.lparam, message.data)))
    worker = start(thread)
    peer = worker.peer
    for number in range(100):
        peer.post(0x200, number, -number, b"%d" % number)
    peer.quit(7)
    assert worker.join() == 7
    assert seen == [(number, -number, b"%d" % number) for number in range(100)]


@pytest.mark.parametrize(
    ("answer", "reply"),
    [
        (None, (0, b"sent")), (-5, (-5, b"sent")), (True, (1, b"sent")), (b"data", (0, b"data")), (b"", (0, b"")),
        ((3, b"longer than before"), (3, b"longer than before")), ((4, b"four"), (4, b"four")),
        (bytearray(b"x"), (0, b"x")),
    ],
)
def test_what_a_handler_returns_is_the_answer(name: str, start: START, answer: Any, reply: Any) -> None:
    thread = qor.Thread(name)
    thread.on(0x300)(lambda message: answer)
    assert start(thread).peer.send(0x300, data=b"sent") == reply


@pytest.mark.parametrize("answer", ["text", 1.5, 1 << 31, (1, 2, 3), (1, "text"), bytes(1025), object()])
def test_an_answer_that_is_none_is_logged_and_minus_one(
    name: str, start: START, answer: Any, caplog: pytest.LogCaptureFixture
) -> None:
    thread = qor.Thread(name)
    thread.on(0x300)(lambda message: answer)
    assert start(thread).peer.send(0x300).result == -1
    assert f"{name}: the handler of message 0x300 failed" in caplog.text


def test_an_exception_is_logged_and_answered_minus_one_and_the_thread_goes_on(
    name: str, start: START, caplog: pytest.LogCaptureFixture
) -> None:
    peer = start(echo(name)).peer
    assert peer.send(0x102).result == -1
    assert [record.levelno for record in caplog.records] == [logging.ERROR]
    assert "ValueError: as asked for" in caplog.text
    assert peer.send(0x100, 1).result == 2


def test_an_early_reply_reaches_the_sender_while_the_handler_goes_on(name: str, start: START) -> None:
    thread = qor.Thread(name)
    go_on, gone_on = threading.Event(), threading.Event()

    @thread.on(0x310)
    def survey(message: qor.Message) -> int:
        message.reply(9, b"early")
        assert go_on.wait(60)  # the sender has its answer
        gone_on.set()
        return 5

    assert start(thread).peer.send(0x310, data=b"question") == (9, b"early")
    go_on.set()
    assert gone_on.wait(60)


def test_a_message_is_answered_once_and_while_its_handler_runs(name: str, start: START) -> None:
    thread = qor.Thread(name)
    kept: list[qor.Message] = []
    errors: list[Exception] = []

    @thread.on(0x311)
    def twice(message: qor.Message) -> None:
        kept.append(message)
        message.reply(1)
        try:
            message.reply(2)
        except qor.MisuseError as error:
            errors.append(error)

    worker = start(thread)
    assert worker.peer.send(0x311, data=b"kept").result == 1
    worker.end()  # the handler goes on after its first reply
    assert len(errors) == 1
    with pytest.raises(qor.MisuseError):
        kept[0].reply(3)
    assert (kept[0].id, kept[0].data) == (0x311, b"kept")


def test_a_copy_of_a_message_has_what_is_in_it_and_cannot_be_answered(name: str, start: START) -> None:
    thread = qor.Thread(name)
    copies: list[qor.Message] = []

    @thread.on(0x100)
    def keep(message: qor.Message) -> None:
        copies.append(copy.copy(message))
        copies.append(pickle.loads(pickle.dumps(message)))

    start(thread).peer.send(0x100, 5, -6, b"data")
    for message in copies:
        assert (message.id, message.wparam, message.lparam, message.data) == (0x100, 5, -6, b"data")
        with pytest.raises(qor.MisuseError):
            message.reply(1)
    assert len(copies) == 2


def test_an_exception_after_an_early_reply_keeps_the_reply(name: str, start: START) -> None:
    thread = qor.Thread(name)

    @thread.on(0x312)
    def fail(message: qor.Message) -> None:
        message.reply(4)
        raise ValueError

    peer = start(thread).peer
    assert peer.send(0x312).result == 4
    assert peer.send(0x999).result == -1  # nobody handles it


def test_otherwise_sees_what_has_no_handler(name: str, start: START) -> None:
    thread = echo(name)
    seen: list[int] = []

    @thread.otherwise
    def other(message: qor.Message) -> int:
        seen.append(message.id)
        return 77

    worker = start(thread)
    assert worker.peer.send(0x999).result == 77
    assert worker.peer.send(0x100, 1).result == 2
    worker.end()
    assert seen == [qor.TM_THREAD_START, 0x999, qor.TM_THREAD_QUIT]


def test_a_thread_that_sends_to_itself_runs_its_handler_at_once(name: str, start: START) -> None:
    thread = echo(name)
    thread.on(0x320)(lambda message: thread.peer.send(0x100, message.wparam).result + 1)
    assert start(thread).peer.send(0x320, 5).result == 11


def test_a_send_ends_with_its_timeout(name: str) -> None:
    with qor.Thread(name) as thread:  # whose loop does not run
        failures: list[Exception] = []

        def send() -> None:
            try:
                thread.peer.send(0x100, timeout=0.05)
            except qor.ReplyTimeoutError as error:
                failures.append(error)

        sender = threading.Thread(target=send)
        sender.start()
        sender.join()
        assert isinstance(failures[0], TimeoutError)


def test_a_queue_can_be_bounded(name: str) -> None:
    with qor.Thread(name) as thread:
        waiting = thread.peer.queue_length()
        thread.peer.post(0x100, max_queued=waiting + 1)
        with pytest.raises(qor.QueueFullError):
            thread.peer.post(0x100, max_queued=waiting + 1)
        assert thread.peer.queue_length() == waiting + 1


def test_a_full_memory_raises_and_is_usable_again(name: str) -> None:
    before = qor.message_memory()
    with qor.Thread(name) as thread:
        with pytest.raises(qor.NoRoomError):
            for _ in range(1000):
                thread.peer.post(0x100, data=bytes(1024))
        assert qor.message_memory().largest < 1100
        failures: list[Exception] = []

        def enter() -> None:
            try:
                with qor.Thread(name + "x" * 2000):
                    pass
            except qor.NoRoomError as error:
                failures.append(error)

        other = threading.Thread(target=enter)
        other.start()
        other.join()
        assert len(failures) == 1
        assert qor.broadcast(0x100, data=bytes(1024)) == [name]
    assert qor.message_memory() == before


def test_a_reserve_is_kept_free(name: str) -> None:
    assert qor.set_post_reserve(8192) == 0
    try:
        with qor.Thread(name) as thread:
            with pytest.raises(qor.NoRoomError):
                for _ in range(1000):
                    thread.peer.post(0x100, data=bytes(1024))
            assert qor.message_memory().free >= 8192
    finally:
        assert qor.set_post_reserve(0) == 8192


def test_a_broadcast_reaches_all_threads(name: str, start: START) -> None:
    seen = threading.Semaphore(0)
    for number in range(3):
        thread = qor.Thread(f"{name}.{number}")
        thread.on(0x330)(lambda message: seen.release())
        start(thread)
    assert qor.broadcast(0x330, 1, 2, b"all") == []
    for _ in range(3):
        assert seen.acquire(timeout=60)


def test_processes_exchange_messages(name: str, start: START, run: Callable[[str], Any]) -> None:
    start(echo(name))
    child = run(
        f"""
        thread = qor.Thread("{name}.child")
        thread.on(0x400)(lambda message: (message.wparam, b"from the child: " + message.data))
        with thread:
            print(qor.find("{name}").send(0x100, 4).result)
            print("exit", thread.run())
        """
    )
    assert child.read() == "8"
    peer = qor.find(name + ".child")
    assert {name, name + ".child"} <= set(qor.threads())
    assert peer.send(0x400, 3, data=b"hello") == (3, b"from the child: hello")
    peer.quit(12)
    assert child.read() == "exit 12"
    assert child.wait() == (0, "", "")


def test_the_handle_of_a_killed_process_raises(name: str, run: Callable[[str], Any]) -> None:
    child = run(f'thread = qor.Thread("{name}").__enter__(); print("ready"); sys.stdin.readline()')
    assert child.read() == "ready"
    peer = qor.find(name)
    child.process.kill()
    child.process.wait()
    for use in (lambda: peer.post(0x100), lambda: peer.send(0x100), peer.queue_length, lambda: qor.find(name)):
        with pytest.raises(qor.ThreadGoneError):
            use()
    with qor.Thread(name):  # the name is free again
        assert qor.find(name).queue_length() >= 0
