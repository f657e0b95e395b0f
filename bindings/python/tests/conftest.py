"""What the tests share: threads that run beside a test, and processes that talk to it over pipes."""

from __future__ import annotations

import itertools
import os
import subprocess
import sys
import textwrap
import threading
from collections.abc import Callable, Iterator

import pytest

import qor

_numbers = itertools.count(1)


class Worker:
    """A qor.Thread that runs in an OS thread of its own from here on."""

    def __init__(self, thread: qor.Thread) -> None:
        self.thread = thread
        self.code: int | None = None
        self._ready = threading.Event()
        self._runner = threading.Thread(target=self._run)
        self._runner.start()
        assert self._ready.wait(60)

    def _run(self) -> None:
        try:
            with self.thread:
                self._ready.set()
                self.code = self.thread.run()
        finally:
            self._ready.set()

    @property
    def peer(self) -> qor.Peer:
        return self.thread.peer

    def join(self) -> int | None:
        self._runner.join(60)
        assert not self._runner.is_alive()
        return self.code

    def end(self) -> None:
        try:
            self.thread.quit()
        except (qor.ThreadGoneError, qor.MisuseError):
            pass
        self.join()


class Child:
    """A Python process that runs a program with "qor" imported; its lines are read and written over pipes.

    Under an emulator, QOR_TEST_PYTHON names what starts Python.
    """

    def __init__(self, program: str) -> None:
        python = os.environ.get("QOR_TEST_PYTHON") or sys.executable
        self.process = subprocess.Popen(
            [python, "-u", "-c", "import os, sys, qor\n" + textwrap.dedent(program)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            encoding="utf-8", errors="surrogateescape",
        )

    def read(self) -> str:
        assert self.process.stdout is not None
        return self.process.stdout.readline().rstrip("\n")

    def write(self, line: str) -> None:
        assert self.process.stdin is not None
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def wait(self) -> tuple[int, str, str]:
        """Its status, and the rest of what it has written."""
        output, errors = self.process.communicate(timeout=120)
        return self.process.returncode, output, errors


@pytest.fixture
def name() -> str:
    """A name that no other thread or counter of this device has."""
    return f"python.{os.getpid()}.{next(_numbers)}"


@pytest.fixture
def start() -> Iterator[Callable[[qor.Thread], Worker]]:
    """Runs threads beside the test, and ends them after it."""
    workers: list[Worker] = []

    def begin(thread: qor.Thread) -> Worker:
        workers.append(Worker(thread))
        return workers[-1]

    yield begin
    for worker in workers:
        worker.end()


@pytest.fixture
def run() -> Iterator[Callable[[str], Child]]:
    """Runs programs beside the test, and kills what is left of them after it."""
    children: list[Child] = []

    def begin(program: str) -> Child:
        children.append(Child(program))
        return children[-1]

    yield begin
    for child in children:
        child.process.kill()
        child.process.communicate()
