"""What users install: the wheel, its types and its documents."""

from __future__ import annotations

import inspect
import os
import re
import shutil
import subprocess
import sys
import zipfile
from pathlib import Path
from typing import Any

import pytest

import qor

FOLDER = Path(__file__).parents[1]
TREE = FOLDER.parents[1]


def test_the_wheel_fits_every_processor_and_works(tmp_path: Path) -> None:
    pytest.importorskip("wheel")
    made = subprocess.run(
        [TREE / "scripts" / "wheel", tmp_path],
        env={**os.environ, "PYTHON": sys.executable}, capture_output=True, text=True,
    )
    assert made.returncode == 0, made.stderr
    wheel = Path(made.stdout.strip())
    assert wheel.name == f"qor-{qor.__version__}-py3-none-any.whl"
    with zipfile.ZipFile(wheel) as archive:
        files = {name for name in archive.namelist() if name.startswith("qor/")}
        archive.extractall(tmp_path / "site")
    sources = {f"qor/{file.name}" for file in (FOLDER / "qor").iterdir() if file.suffix == ".py"}
    assert files == sources | {"qor/py.typed"}
    used = subprocess.run(
        [sys.executable, "-c", "import qor; print(qor.__file__, qor.threads())"],
        env={**os.environ, "PYTHONPATH": str(tmp_path / "site")}, capture_output=True, text=True,
    )
    assert used.stdout == f"{tmp_path}/site/qor/__init__.py []\n", used.stderr


@pytest.mark.skipif(shutil.which("mypy", path="/usr/bin") is None, reason="mypy is not installed")
def test_the_types_are_right(tmp_path: Path) -> None:
    cache = os.environ.get("QOR_MYPY_CACHE") or str(tmp_path / "cache")
    program = tmp_path / "program.py"
    program.write_text(
        "import qor\n"
        "thread = qor.Thread('x')\n"
        "@thread.on(0x100)\n"
        "def handle(message: qor.Message) -> tuple[int, bytes]:\n"
        "    return message.wparam, message.data\n"
        "@thread.every(0.5)\n"
        "def tick(timer: qor.Timer) -> None:\n"
        "    reveal_type(qor.find('y').send(0x100))\n"
        "reveal_type(qor.Registry('/x')['y']['z'])\n"
        "thread.on(0x101)(len)\n"
        "qor.find('y').post(0x100, data='text')\n"
    )
    checked = subprocess.run(
        ["/usr/bin/mypy", "--strict", "--cache-dir", cache, FOLDER / "qor", program],
        env={**os.environ, "MYPYPATH": str(FOLDER)}, capture_output=True, text=True,
    )
    lines = [line.partition("program.py:")[2] for line in checked.stdout.splitlines()]
    assert [line.partition("  [")[0] for line in lines[:-1]] == [
        '8: note: Revealed type is "Tuple[builtins.int, builtins.bytes, fallback=qor._peer.Reply]"',
        '9: note: Revealed type is "builtins.str"',
        '10: error: Value of type variable "HandlerT" of function cannot be "Callable[[Sized], int]"',
        '11: error: Argument "data" to "post" of "Peer" has incompatible type "str"; '
        'expected "Union[bytes, bytearray, memoryview]"',
    ], checked.stdout


def test_everything_public_has_a_docstring() -> None:
    missing = []
    for name in qor.__all__:
        value = getattr(qor, name)
        if inspect.isclass(value) or inspect.isfunction(value):
            members = vars(value).items() if inspect.isclass(value) else ()
            named = [(name, value)] + [
                (f"{name}.{key}", member)
                for key, member in members
                if not key.startswith("_") and (inspect.isfunction(member) or isinstance(member, property))
            ]
            missing += [key for key, member in named if not inspect.getdoc(member)]
    assert missing == []


def blocks(language: str) -> list[str]:
    """The document's programs or outputs."""
    text = (TREE / "docs" / "python.md").read_text(encoding="utf-8")
    return re.findall(rf"```{language}\n(.*?)```", text, flags=re.S)


def test_the_first_program_of_the_document_is_the_example_and_prints_what_it_says() -> None:
    example = TREE / "examples" / "python" / "hello.py"
    assert example.read_text(encoding="utf-8").partition('"""\n\n')[2] == blocks("python")[0]
    ran = subprocess.run([sys.executable, example], capture_output=True, text=True)
    assert (ran.returncode, ran.stdout, ran.stderr) == (0, blocks("text")[0], "")


# What the other programs of the document take as given: threads to talk to, and somebody who ends their loops.
SCENE = """
import asyncio, logging, signal, threading
def serve():
    with qor.Thread("panel") as thread:
        thread.otherwise(lambda message: b"answer")
        thread.run()
def end(name):
    qor.find(name, timeout=60).quit(7)
def beside(target, *arguments):
    runner = threading.Thread(target=target, args=arguments)
    runner.start()
    return runner
"""


def test_the_other_programs_of_the_document_run(run: Any) -> None:
    receive, ask, timers, loop, registry, counter, logs = blocks("python")[1:]
    program = SCENE + "beside(end, 'panel')\n" + receive + "assert code == 7\nrunner = beside(serve)\n" + ask
    program += "thread = qor.Thread('scene').__enter__()\n" + timers + registry.replace("/rundata/config", "/tmp/home")
    program += "boiler['limit'] = 86\nboiler.flush()\nbeside(end, 'scene')\nthread.run()\n"
    program += "thread.__exit__(None, None, None)\n"
    program += "beside(end, 'gateway')\n" + loop + counter + logs + "end('panel')\nrunner.join()\nprint('end')"
    status, output, errors = run(re.sub(r"timeout=[\d.]+", "timeout=60", program)).wait()
    assert (status, errors) == (0, "")
    lines = output.splitlines()
    assert "0 b'answer'" in lines and "Boiler {'limit': '86'}" in lines and lines[-1] == "end"


def test_the_document_names_everything_public() -> None:
    text = (TREE / "docs" / "python.md").read_text(encoding="utf-8")
    code = " ".join(re.findall(r"`[^`]+`|```.*?```", text, flags=re.S))
    assert [name for name in qor.__all__ if not re.search(rf"\b{name}\b", code)] == []
