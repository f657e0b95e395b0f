"""The table of C functions is that of the header, and what it says of types is true here."""

from __future__ import annotations

import ctypes
import os
import re
from pathlib import Path
from typing import Any

import pytest

import qor
from qor import _flat

HEADER = Path(os.environ.get("QOR_HEADER") or Path(__file__).parents[3] / "include" / "qor" / "flat.h")

NUMBERS = {
    "int": ctypes.c_int, "BOOL": ctypes.c_int, "UINT": ctypes.c_uint, "unsigned int": ctypes.c_uint,
    "unsigned": ctypes.c_uint, "double": ctypes.c_double, "uint64_t": ctypes.c_uint64, "void": None,
    "uint32_t": ctypes.c_uint32, "int32_t": ctypes.c_int32, "short": ctypes.c_short,
}
HANDLES = {"HTHREAD", "HREGISTRY", "HRECORD", "HINIFILE"}


def header() -> str:
    """The header without comments, and with every space the same."""
    text = re.sub(r"/\*.*?\*/", " ", HEADER.read_text(encoding="utf-8"), flags=re.S)
    return re.sub(r"\s+", " ", re.sub(r"^#.*$", " ", text, flags=re.M))


def split_parameters(text: str) -> list[str]:
    """Parameters are separated by commas outside of parentheses."""
    parts, depth = [""], 0
    for character in text:
        depth += {"(": 1, ")": -1}.get(character, 0)
        if character == "," and depth == 0:
            parts.append("")
        else:
            parts[-1] += character
    return [part.strip() for part in parts if part.strip() not in ("", "void")]


def functions() -> dict[str, tuple[str, list[str]]]:
    """name: (type of the result, parameters)"""
    found = {}
    declaration = r"QOR_API ([\w ]+?[ *]+)(\w+)\((.*?)\)(?: __attribute__ ?\(\(.*?\)\))?;"
    for result, name, rest in re.findall(declaration, header()):
        found[name] = (result.strip(), split_parameters(rest))
    return found


def without_name(parameter: str) -> str:
    return re.sub(r"\b(?!int$|short$|void$)\w+$", "", parameter).strip() if " " in parameter else parameter


def fits(declared: str, bound: Any) -> bool:
    """Whether a C type has the size, the sign and the kind of what the table says."""
    plain = declared.replace("const ", "").strip()
    if plain == "msgCallbackEx":
        return bound is _flat.CALLBACK
    if plain in HANDLES or plain in ("void*", "simpMSG*"):
        return bound is ctypes.c_void_p
    if plain == "char*":
        return bound is ctypes.c_char_p
    if plain.endswith("*"):
        target = plain[:-1].strip()
        inner = ctypes.c_void_p if target in HANDLES else NUMBERS[target]
        return bound is ctypes.POINTER(inner)
    return bound is NUMBERS[plain]


FUNCTIONS = functions()


def test_the_header_is_read_whole() -> None:
    assert len(FUNCTIONS) == len(re.findall(r"(?<!extern )QOR_API ", header()))
    assert len(FUNCTIONS) > 90


@pytest.mark.parametrize("name", sorted(_flat.PROTOTYPES))
def test_a_bound_function_is_that_of_the_header(name: str) -> None:
    result, parameters = FUNCTIONS[name]
    bound_result, bound_parameters = _flat.PROTOTYPES[name]
    if parameters[-1:] == ["..."]:
        parameters.pop()
    assert len(parameters) == len(bound_parameters)
    assert fits(result, bound_result), (result, bound_result)
    for declared, bound in zip(parameters, bound_parameters):
        assert fits(without_name(declared), bound), (declared, bound)


def test_every_function_is_bound_or_listed_with_a_reason() -> None:
    assert set(_flat.PROTOTYPES) | set(_flat.UNBOUND) == set(FUNCTIONS)
    assert not set(_flat.PROTOTYPES) & set(_flat.UNBOUND)
    assert all(_flat.UNBOUND.values())


def test_every_variable_is_bound_or_listed() -> None:
    found = re.findall(r"extern QOR_API const \w+\*? (\w+)", header())
    assert set(found) == set(_flat.VARIABLES) | set(_flat.UNBOUND_VARIABLES)


def test_a_message_has_the_fields_of_the_header() -> None:
    body = re.search(r"typedef struct simpMSG \{(.*?)\}", header())
    assert body is not None
    declared = [field.split() for field in body.group(1).split(";") if field.strip()]
    assert [(field, NUMBERS[kind]) for kind, field in declared] == _flat.SimpMsg._fields_
    assert ctypes.sizeof(_flat.SimpMsg) == 12


def test_constants_are_those_of_the_header() -> None:
    text = header()
    constants = dict(re.findall(r"\b((?:TM|REGISTRY)_\w+) = (-?\w+)", text))
    bound = {key: value for key, value in vars(_flat).items() if re.match(r"TM_|REGISTRY_", key)}
    assert len(bound) == 8
    for key, value in bound.items():
        assert int(constants[key], 0) == value


def test_the_package_and_the_library_have_one_version() -> None:
    assert qor.__version__ == qor.library_version
    project = (Path(__file__).parents[1] / "pyproject.toml").read_text(encoding="utf-8")
    assert f'version = "{qor.__version__}"' in project


def test_a_missing_library_is_an_import_error(run: Any, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("QOR_LIBRARY", "/nowhere/libqor.so")
    status, _, errors = run("").wait()
    assert status == 1
    assert "ImportError: qor: cannot load /nowhere/libqor.so" in errors


def test_a_library_without_a_function_is_an_import_error(run: Any, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("QOR_LIBRARY", "libc.so.6")
    status, _, errors = run("").wait()
    assert status == 1
    assert "it is older than this package" in errors
