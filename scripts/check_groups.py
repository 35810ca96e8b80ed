#!/usr/bin/env python3
"""Prints functions that sources would take from each other; exits 1 when there are any.

    scripts/check_groups.py [ROOT]

The sources of a room are compiled in groups, as one text. A function in an unnamed namespace is
then seen by the sources behind it, and a call there would take it, silently, where its parameters
fit better. So two sources may give one name to functions only if their first parameters are of
classes that differ; and none may give one that a header of the room has, unless that is so.
"""

import collections
import pathlib
import re
import sys

ROOMS = ("os", "cmn", "client", "format", "store", "service", "host", "modules/buf", "modules/pkcs5",
         "modules/pkixkey", "modules/x509cmn", "lib", "capi", "provider", "fstore")
UNNAMED = re.compile(r"^namespace \{\n(.*?)^\}  // namespace\n", re.DOTALL | re.MULTILINE)
# At the beginning of a line, as the formatter leaves them.
FUNCTION = re.compile(
    r"^(?!return|throw|using|struct|class|enum|namespace|template|static_assert|extern)"
    r"[A-Za-z\[][\w:<>,&*\[\]() ]*?[\w>&*\]] ?[&*]?\b(\w+)"
    r"\(([^()]*(?:\([^()]*\)[^()]*)*)\)[^;{}=]*[;{]", re.MULTILINE)
# What converts into one another.
KINDS = {
    "text": re.compile(r"(std::)?(string|string_view|optional<std::string>)|char ?\*|bool|auto|T"),
    "number": re.compile(r"bool|char|int|unsigned( int| char)?|long|double|float|auto|T|(std::)?size_t|"
                         r"(std::)?u?int\d+_t|\w+_t"),
    "bytes": re.compile(r"Bytes|SecretBytes|auto|T|(std::)?(span|vector)<(const )?unsigned char>"),
}


def first_type(parameters):
    """Returns the type of the first parameter without const and &; empty when there is none."""
    first, depth = "", 0
    for sign in re.sub(r"\s+", " ", parameters):
        depth += (sign == "<") - (sign == ">")
        if sign == "," and depth == 0:
            break
        first += sign
    first = re.sub(r" = .*", "", first.strip())
    named = re.fullmatch(r"(.*[ &*>])\w+", first)
    return re.sub(r"^const |[& ]+$", "", named[1] if named else first)


def kinds_of(type_name):
    return {kind for kind, pattern in KINDS.items() if pattern.fullmatch(type_name)} or {type_name}


def functions_of(path):
    """Yields the name and the kinds of the first parameter of what a source keeps to itself, or of
    what a header declares."""
    text = path.read_text(encoding="utf-8")
    for part in [text] if path.suffix == ".h" else UNNAMED.findall(text):
        for name, parameters in FUNCTION.findall(part):
            yield name, kinds_of(first_type(parameters))


def faults_of(room, root):
    users = collections.defaultdict(set)
    for path in sorted([*(root / room).rglob("*.cpp"), *(root / room).rglob("*.h")]):
        for name, kinds in functions_of(path):
            for kind in kinds:
                users[name, kind].add(path.relative_to(root))
    for (name, _), paths in sorted(users.items()):
        if len(paths) > 1 and any(path.suffix == ".cpp" for path in paths):
            yield f"{name}() is in {', '.join(sorted(map(str, paths)))}"


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else __file__).resolve()
    if root.is_file():
        root = root.parent.parent
    rooms = [room for room in ROOMS if (root / room).is_dir()]
    faults = sorted({fault for room in rooms for fault in faults_of(room, root)})
    for fault in faults:
        print(fault)
    print(f"{len(rooms)} rooms, {len(faults)} faults")
    return 1 if faults or not rooms else 0


if __name__ == "__main__":
    sys.exit(main())
