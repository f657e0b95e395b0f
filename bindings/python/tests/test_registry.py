"""The shared configuration as mappings."""

from __future__ import annotations

import os
import signal
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest

import qor

START = Callable[[qor.Thread], Any]


@pytest.fixture
def path(name: str) -> str:
    """A document with two sections."""
    file = Path(f"/tmp/home/{name}.ini")
    file.write_text("; kept\n[Device]\nname = kitchen\nperiod = 100 ms\nlevel = 1.5e2\n\n[Alarm]\nhigh = 90\n")
    return str(file)


def test_a_document_is_a_mapping_of_its_sections(path: str) -> None:
    registry = qor.Registry(path)
    assert list(registry) == ["Device", "Alarm"]
    assert len(registry) == 2
    assert "alarm" in registry and "none" not in registry and 5 not in registry
    assert {name: dict(section) for name, section in registry.items()} == {
        "Device": {"name": "kitchen", "period": "100 ms", "level": "1.5e2"},
        "Alarm": {"high": "90"},
    }
    with pytest.raises(KeyError):
        registry["none"]
    assert registry.get("none") is None
    assert "none" not in registry


def test_a_section_is_a_mapping_of_its_keys(path: str) -> None:
    section = qor.Registry(path)["Device"]
    assert list(section) == ["name", "period", "level"]
    assert len(section) == 3
    assert section["NAME"] == "kitchen"
    assert section.get("none") is None and section.get("none", "x") == "x"
    with pytest.raises(KeyError):
        section["none"]
    section["name"] = "  hall "
    section["new"] = "\u00e4\udcff"
    assert (section["name"], section["new"]) == ("hall", "\u00e4\udcff")
    assert section.pop("new") == "\u00e4\udcff"
    assert section.setdefault("name", "x") == "hall"
    del section["name"]
    assert "name" not in section
    with pytest.raises(KeyError):
        del section["name"]


def test_numbers_are_read_as_every_program_reads_them(path: str) -> None:
    section = qor.Registry(path)["Device"]
    assert section.get_int("period") == 100
    assert section.get_int("name") == 0
    assert section.get_int("none", -7) == -7
    assert section.get_float("level") == 150.0
    assert section.get_float("none", 2.5) == 2.5
    assert section.get_float("name", 2.5) == 2.5
    section["exact"] = 0.1
    section["flag"] = True
    section["count"] = -3
    assert section["exact"] == "0.1" and section.get_float("exact") == 0.1
    assert section["flag"] == "1" and section.get_bool("flag") and not section.get_bool("none")
    assert section.get_int("count") == -3


def test_numbers_of_derived_types_are_stored_as_numbers(path: str) -> None:
    class Float(float):
        def __repr__(self) -> str:
            return f"Float({float(self)})"

    section = qor.Registry(path)["Device"]
    for value, stored in ((signal.SIGTERM, "15"), (True, "1"), (Float(1.5), "1.5"), (float("nan"), "nan")):
        section["value"] = value  # type: ignore[assignment]
        assert section["value"] == stored


def test_set_tells_whether_the_value_changed(path: str) -> None:
    section = qor.Registry(path).section("Device")
    assert section.set("name", "x") is True
    assert section.set("name", "x") is False


def test_a_value_of_any_length_comes_back(path: str) -> None:
    section = qor.Registry(path).section("Long")
    for length in (0, 255, 256, 257, 100_000):
        section["key"] = "x" * length
        assert section["key"] == "x" * length
    del section["key"]


@pytest.mark.parametrize(
    ("key", "value"), [("a=b", "x"), ("[a", "x"), (";a", "x"), ("a\nb", "x"), ("a", "x\ny"), ("a", "x" * 1_100_000)]
)
def test_what_cannot_be_stored_raises_and_leaves_the_section(path: str, key: str, value: str) -> None:
    section = qor.Registry(path)["Alarm"]
    with pytest.raises(qor.RegistryError):
        section[key] = value
    assert dict(section) == {"high": "90"}


def test_sections_come_and_go_with_their_keys(path: str) -> None:
    registry = qor.Registry(path)
    section = registry.section("Extra")
    assert "Extra" not in registry
    section["a"] = "1"
    assert list(registry) == ["Device", "Alarm", "Extra"]
    del registry["Extra"]
    assert "Extra" not in registry and not section
    with pytest.raises(KeyError):
        del registry["Extra"]
    registry["Alarm"].clear()
    assert list(registry) == ["Device"]


def test_a_flush_writes_the_file_and_keeps_its_comments(path: str) -> None:
    section = qor.Registry(path)["Device"]
    section["name"] = "cellar"
    assert "cellar" not in Path(path).read_text()
    section.flush()
    assert Path(path).read_text().startswith("; kept\n[ Device ]\nname = cellar\n")


def test_a_file_that_cannot_be_written_raises(path: str) -> None:
    section = qor.Registry(path)["Device"]
    os.mkdir(path + ".new")
    section["name"] = "cellar"
    with pytest.raises(qor.RegistryError):
        section.save()
    os.rmdir(path + ".new")
    section.save()
    assert "cellar" in Path(path).read_text()


def test_a_file_that_cannot_be_read_raises(name: str) -> None:
    os.mkdir(f"/tmp/home/{name}.dir")
    with pytest.raises(qor.RegistryError):
        qor.Registry(f"/tmp/home/{name}.dir").section("x")


@pytest.mark.parametrize("path", ["", "relative.ini", "/with\0nul"])
def test_a_path_that_is_none_raises(path: str) -> None:
    with pytest.raises(qor.ArgumentError):
        qor.Registry(path)


def test_processes_share_a_document(path: str, run: Callable[[str], Any]) -> None:
    section = qor.Registry(path)["Device"]
    child = run(f'section = qor.Registry("{path}")["Device"]; section["name"] = section["name"] + " sink"')
    assert child.wait() == (0, "", "")
    assert section["name"] == "kitchen sink"


def test_a_watch_tells_of_changes_until_it_is_cancelled(name: str, path: str) -> None:
    registry = qor.Registry(path)
    section, other = registry["Device"], registry["Alarm"]
    seen: list[tuple[str, str]] = []
    with qor.Thread(name) as thread:

        def changed(section: qor.Section) -> None:
            seen.append((section.name, section["name"]))
            thread.quit()

        watch = section.watch(changed)
        second = section.watch(changed)
        other["high"] = "91"
        section["name"] = "attic"
        section.flush()
        thread.run()
        assert seen == [("Device", "attic")] * 2
    with thread:
        watch.cancel()  # it has ended with the thread
        watch, second = section.watch(changed), section.watch(lambda section: thread.quit(5))
        watch.cancel()
        watch.cancel()
        section["name"] = "garage"
        section.flush()
        assert thread.run() == 5
        assert len(seen) == 2
    with thread:
        section.watch(changed).cancel()
        second.cancel()
        section["name"] = "yard"
        section.flush()
        thread.peer.quit(6)
        assert thread.run() == 6


def test_a_watch_tells_of_changes_by_another_process(name: str, path: str, run: Callable[[str], Any]) -> None:
    with qor.Thread(name) as thread:
        qor.Registry(path)["Device"].watch(lambda section: thread.quit(section.get_int("period")))
        run(f's = qor.Registry("{path}")["Device"]; s["period"] = 250; s.flush()')
        assert thread.run() == 250


def test_a_watch_that_raises_is_logged(name: str, path: str, caplog: pytest.LogCaptureFixture) -> None:
    section = qor.Registry(path)["Device"]
    with qor.Thread(name) as thread:

        @section.watch
        def fail(section: qor.Section) -> None:
            thread.quit()
            raise ValueError("in a watch")

        section["name"] = "x"
        section.flush()
        thread.run()
    assert "ValueError: in a watch" in caplog.text


def test_a_watch_needs_a_thread(path: str) -> None:
    with pytest.raises(qor.MisuseError):
        qor.Registry(path)["Device"].watch(print)


def test_a_thread_saves_for_all(name: str, path: str, start: START) -> None:
    thread = qor.Thread(name)

    @thread.on(0x100)
    def begin(message: qor.Message) -> None:
        thread.save_registry()

    worker = start(thread)
    worker.peer.send(0x100)
    section = qor.Registry(path)["Device"]
    section["name"] = "saved"
    section.flush()
    worker.end()  # what was asked for is written at the latest when the saver leaves
    assert "saved" in Path(path).read_text()
    section["name"] = "without a saver"
    section.flush()
    assert "without a saver" in Path(path).read_text()
