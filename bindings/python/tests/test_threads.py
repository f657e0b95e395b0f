"""Registration, and to whom a thread belongs."""

from __future__ import annotations

import gc
import socket
import threading
from collections.abc import Callable
from typing import Any

import pytest

import qor

START = Callable[[qor.Thread], Any]


def test_a_name_is_registered_as_long_as_its_thread_is_entered(name: str) -> None:
    thread = qor.Thread(name)
    with pytest.raises(qor.ThreadGoneError):
        qor.find(name)
    for _ in range(2):
        with thread as entered:
            assert entered is thread
            assert qor.find(name) == thread.peer
            assert qor.current_thread() is thread
            assert name in qor.threads()
        assert qor.current_thread() is None
        assert name not in qor.threads()


def test_a_name_in_use_raises(name: str, run: Callable[[str], Any]) -> None:
    with qor.Thread(name):
        child = run(
            f"""
            try:
                with qor.Thread("{name}"):
                    print("entered")
            except qor.NameInUseError as error:
                print(error)
            """
        )
        assert child.read() == f'another thread of the device has the name "{name}"'


def test_many_threads_that_take_one_name_at_once_get_it_one_by_one(name: str) -> None:
    barrier, done, hold = threading.Barrier(8), threading.Semaphore(0), threading.Event()
    results: list[str] = []

    def enter() -> None:
        barrier.wait()
        try:
            with qor.Thread(name):
                results.append("entered")
                done.release()
                assert hold.wait(60)
        except qor.NameInUseError:
            results.append("in use")
            done.release()

    threads = [threading.Thread(target=enter) for _ in range(8)]
    for thread in threads:
        thread.start()
    for _ in threads:
        assert done.acquire(timeout=60)
    hold.set()
    for thread in threads:
        thread.join()
    assert sorted(results) == ["entered"] + ["in use"] * 7


def test_threads_that_begin_at_the_same_moment_are_not_warned_of_one_another(
    name: str, run: Callable[[str], Any]
) -> None:
    child = run(
        f"""
        import threading
        def enter(number):
            barrier.wait()
            with qor.Thread(f"{name}.{{number}}") as thread:
                thread.quit()
                thread.run()
        barrier = threading.Barrier(8)
        threads = [threading.Thread(target=enter, args=(number,)) for number in range(8)]
        [thread.start() for thread in threads]
        """
    )
    assert child.wait() == (0, "", "")


def test_names_may_have_any_character_but_nul() -> None:
    name = 'Kühlung "1" \udcff'
    with qor.Thread(name):
        assert name in qor.threads()
        assert qor.find(name).name == name


def test_an_os_thread_enters_one_thread_at_a_time(name: str) -> None:
    with qor.Thread(name) as thread:
        with pytest.raises(qor.MisuseError):
            with qor.Thread(name + "2"):
                pass
        with pytest.raises(qor.MisuseError):
            thread.__enter__()
        assert qor.threads() == [name]


def test_only_the_thread_that_has_entered_may_run_it(name: str, start: START) -> None:
    worker = start(qor.Thread(name))
    thread = worker.thread
    for use in (
        thread.run, lambda: thread.timer(1, print), lambda: thread.__exit__(None, None, None),
        thread.save_registry, thread.enable_watchdog, lambda: thread.quit_on_signal(),
    ):
        with pytest.raises(qor.WrongThreadError):
            use()
    thread.quit(3)  # this is for everybody
    assert worker.join() == 3


def test_an_os_thread_with_the_number_of_one_that_has_ended_is_another(name: str) -> None:
    thread = qor.Thread(name)
    raised: list[str] = []

    def use() -> None:
        for call in (thread.run, thread.save_registry, lambda: thread.__exit__(None, None, None)):
            try:
                call()
            except qor.WrongThreadError:
                raised.append("wrong thread")

    # The system uses numbers again, most often at once.
    for target in (thread.__enter__, *[use] * 20):
        other = threading.Thread(target=target)
        other.start()
        other.join(60)
    assert len(raised) == 3 * 20


def test_a_thread_that_has_quit_runs_again_when_it_is_entered_again(name: str) -> None:
    thread = qor.Thread(name)
    with thread:
        thread.quit(3)
        assert thread.run() == 3
        assert thread.run() == 3
    with thread:
        thread.quit(4)
        assert thread.run() == 4


def test_a_thread_that_was_not_entered_does_not_run(name: str) -> None:
    thread = qor.Thread(name)
    for use in (thread.run, lambda: thread.peer, thread.quit):
        with pytest.raises(qor.MisuseError):
            use()


def test_a_handler_does_not_run_the_loop(name: str, start: START, caplog: pytest.LogCaptureFixture) -> None:
    thread = qor.Thread(name)
    thread.on(0x100)(lambda message: thread.run())
    assert start(thread).peer.send(0x100).result == -1
    assert "a handler cannot run the loop" in caplog.text


def test_a_handler_may_leave_the_thread(name: str, start: START) -> None:
    thread = qor.Thread(name)
    thread.on(0x100)(lambda message: thread.__exit__(None, None, None))
    worker = start(thread)
    worker.peer.post(0x100)
    assert worker.join() == 0
    assert name not in qor.threads()


def test_what_ends_a_program_ends_the_loop_and_leaves_the_rest_unread(name: str) -> None:
    seen: list[int] = []
    with qor.Thread(name) as thread:

        @thread.on(0x100)
        def end(message: qor.Message) -> None:
            seen.append(message.wparam)
            raise SystemExit(4)

        thread.peer.post(0x100, 1)
        thread.peer.post(0x100, 2)
        for number in (1, 2):
            with pytest.raises(SystemExit) as raised:
                thread.run()
            assert raised.value.code == 4
            assert seen[-1] == number


def test_callbacks_survive_the_garbage_collector(name: str, start: START) -> None:
    def make() -> Any:
        thread = qor.Thread(name)
        thread.on(0x100)(lambda message: message.wparam + 1)
        return start(thread).peer

    peer = make()
    for number in range(5):
        gc.collect()
        assert peer.send(0x100, number).result == number + 1


def test_threads_run_side_by_side(name: str, start: START) -> None:
    workers = []
    for number in range(5):
        thread = qor.Thread(f"{name}.{number}")
        thread.on(0x100)(lambda message, number=number: message.wparam + number)
        workers.append(start(thread))

    def ask(found: list[int]) -> None:
        found.extend(worker.peer.send(0x100, 10, timeout=60).result for worker in workers for _ in range(20))

    answers: list[list[int]] = [[] for _ in range(4)]
    askers = [threading.Thread(target=ask, args=(found,)) for found in answers]
    for asker in askers:
        asker.start()
    for asker in askers:
        asker.join()
    assert answers == [[10 + number for number in range(5) for _ in range(20)]] * 4


def test_the_child_of_a_fork_has_no_thread_and_may_have_its_own(name: str, run: Callable[[str], Any]) -> None:
    child = run(
        f"""
        with qor.Thread("{name}") as thread:
            if os.fork() == 0:
                try:
                    thread.run()
                except qor.MisuseError:
                    print("not entered")
                thread.__exit__(None, None, None)  # as the end of the block would
                print("answer", qor.find("{name}").send(0x100).result)
                with qor.Thread("{name}.child") as own:
                    own.on(0x100)(lambda message: own.quit(6))
                    own.peer.post(0x100)
                    print("own", own.run())
                os._exit(9)
            thread.on(0x100)(lambda message: thread.quit() or 8)
            thread.run()
            print("child", os.waitstatus_to_exitcode(os.wait()[1]), qor.find("{name}") == thread.peer)
        """
    )
    assert child.wait() == (0, "not entered\nanswer 8\nown 6\nchild 9 True\n", "")


def test_a_program_that_forgets_to_leave_ends_well(name: str, run: Callable[[str], Any]) -> None:
    child = run(f'qor.Thread("{name}").__enter__(); print("ready")')
    assert child.wait() == (0, "ready\n", "")
    assert name not in qor.threads()


def test_a_daemon_thread_may_be_left_running(name: str, run: Callable[[str], Any]) -> None:
    child = run(
        f"""
        import threading
        def body():
            with qor.Thread("{name}") as thread:
                ready.set()
                thread.run()
        ready = threading.Event()
        threading.Thread(target=body, daemon=True).start()
        ready.wait()
        for number in range(50):
            qor.find("{name}").post(0x100)
        print("ready")
        """
    )
    status, output, _ = child.wait()
    assert (status, output) == (0, "ready\n")


def test_the_clock_is_that_of_the_machine() -> None:
    first = qor.tick()
    assert first <= qor.tick()


def test_no_service_manager_is_no_error(name: str) -> None:
    assert qor.notify_ready() is False
    with qor.Thread(name) as thread:
        assert thread.enable_watchdog() is False


def test_the_service_manager_is_told_and_watches_the_loop(name: str, run: Callable[[str], Any]) -> None:
    address = f"/tmp/home/{name}.notify"
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
        manager.bind(address)
        manager.settimeout(60)
        child = run(
            f"""
            os.environ.update(NOTIFY_SOCKET="{address}", WATCHDOG_USEC="200000")
            with qor.Thread("{name}") as thread:
                assert thread.enable_watchdog() and qor.notify_ready()
                thread.run()
            """
        )
        told = set()
        while told != {"READY=1", "WATCHDOG=1"}:
            told.add(manager.recv(100).decode().strip())
        for _ in range(5):
            assert manager.recv(100).decode().strip() == "WATCHDOG=1"
        qor.find(name).quit()
        assert child.wait() == (0, "", "")
