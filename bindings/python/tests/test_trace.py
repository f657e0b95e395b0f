"""Log records in the trace."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest


@pytest.fixture
def traced(run: Callable[[str], Any], monkeypatch: pytest.MonkeyPatch) -> Callable[[str], list[str]]:
    """What a program traces to its standard output, line by line."""

    def trace(program: str) -> list[str]:
        monkeypatch.setenv("trace", "2")
        status, output, errors = run("import logging\n" + program).wait()
        assert (status, errors) == (0, "")
        return [line for line in output.splitlines() if "[PY" in line]

    return trace


HANDLER = """
logger = logging.getLogger("boiler")
handler = qor.TraceHandler()
handler.setFormatter(logging.Formatter("%(levelname)s %(message)s"))
logger.addHandler(handler)
qor.set_trace_author("PY")
"""


def test_a_record_becomes_a_line(traced: Callable[[str], list[str]]) -> None:
    (line,) = traced(HANDLER + 'logger.warning("hot: %d %%s %%n", 90)')
    assert line.endswith("WARNING hot: 90 %s %n")


def test_a_record_of_several_lines_becomes_as_many(traced: Callable[[str], list[str]]) -> None:
    lines = traced(HANDLER + 'try: 1 / 0\nexcept ZeroDivisionError: logger.exception("failed")')
    assert lines[0].endswith("ERROR failed")
    assert lines[-1].endswith("ZeroDivisionError: division by zero")
    assert len(lines) >= 4


def test_any_text_is_traced(traced: Callable[[str], list[str]]) -> None:
    (line,) = traced(HANDLER + 'logger.warning("a\\0b \\u00e4 \\udcff")')
    assert "WARNING a\\0b " in line


def test_the_tag_may_change_while_lines_are_traced(traced: Callable[[str], list[str]]) -> None:
    lines = traced(
        HANDLER
        + """
import gc
for number in range(200):
    qor.set_trace_author("PY%d" % number)
    gc.collect(0)
    logger.warning("line %d", number)
qor.set_trace_clock(True)
"""
    )
    assert len(lines) == 200
    assert all(f"[PY{number}" in line for number, line in enumerate(lines))


def test_exceptions_in_handlers_reach_the_trace(traced: Callable[[str], list[str]]) -> None:
    lines = traced(
        HANDLER
        + """
logging.getLogger().addHandler(handler)
with qor.Thread("python.traced") as thread:
    @thread.on(0x100)
    def fail(message):
        thread.quit()
        raise ValueError("traced")
    thread.peer.post(0x100)
    thread.run()
"""
    )
    errors = [line for line in lines if line.endswith("ERROR python.traced: the handler of message 0x100 failed")]
    assert len(errors) == 1
    assert any(line.endswith("ValueError: traced") for line in lines)
