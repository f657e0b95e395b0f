# Reads INI documents with Python's own parser, for comparison with the library's.
#
#     read_ini.py [--plain] LIST RESULT
#
# LIST holds names of documents, each ended by a NUL. RESULT becomes fields that are each ended by a NUL: "file" for every
# document, then "section" and a name, "key" and a name and a value, "none" and the name of a key without a value, in the
# parser's order; names of keys are in lower case. A document with NULs has the one field "nul".
#
# The parser is set up for what the library's documents are (see docs/documents.md): no continued values, no special
# section, comments in lines of their own, section names up to the first "]". With --plain it reads as it does by itself, but
# for the characters and the delimiter.
import configparser
import re
import sys

# Bytes are characters. Those that only Python takes for white space or for letters become ones that it leaves alone.
OPAQUE = {b: 0xE000 + b for b in [*range(0x1C, 0x20), *range(0x80, 0x100)]}
BACK = {c: b for b, c in OPAQUE.items()}
HEAD = "in front of the first section"


def new_parser(plain):
    parser = configparser.RawConfigParser(
        delimiters=("=",), comment_prefixes=(";", "#"), inline_comment_prefixes=None, strict=False,
        allow_no_value=True, default_section="\0")
    if not plain:
        parser.SECTCRE = re.compile(r"\[(?P<header>[^]]*)\]")
    return parser


def read(name, plain):
    with open(name, "rb") as file:
        text = file.read().decode("latin-1")
    if "\0" in text:
        return ["nul"]
    lines = text.translate(OPAQUE).split("\n")
    if not plain:
        lines = [line.lstrip() for line in lines]
    parser = new_parser(plain)
    try:
        parser.read_file(["[" + HEAD + "]", *lines])
    except configparser.ParsingError:
        pass  # keys without a name; everything else was read
    fields = []
    for section in parser.sections():
        if section == HEAD:
            continue
        fields += ["section", section if plain else section.strip()]
        for key, value in parser.items(section):
            fields += ["none", key] if value is None else ["key", key, value]
    return fields


def main():
    plain = sys.argv[1] == "--plain"
    names, result = sys.argv[-2:]
    with open(names, "rb") as file:
        names = file.read().split(b"\0")[:-1]
    with open(result, "wb") as file:
        for name in names:
            for field in ["file", *read(name, plain)]:
                file.write(field.translate(BACK).encode("latin-1") + b"\0")


main()
