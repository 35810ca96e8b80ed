#!/usr/bin/env python3
"""Prints each #include that climbs over the layers, each circle, and each room that nothing
describes; exits 1 when there is one.

    scripts/check_layers.py [ROOT]

ROOT is the project's folder, by default the one this script stands in. The
rules are those of docs/style.md, told as a table below. A circle is one of
files, header and source of a name taken as one.
"""

import pathlib
import re
import sys

# What each room may include, beside itself.
BELOW_CLIENT = {"api", "cmn", "os"}
BELOW_STORE = {"client", "format"} | BELOW_CLIENT
RECORDS = {"lib/base"} | BELOW_STORE
DATABASE = {"lib/records", "lib/index", "host"} | RECORDS
LIBRARY = {"lib/database", "lib/pki", "lib/archive", "lib/work"} | DATABASE
MAY_INCLUDE = {
    "os": set(),
    "cmn": {"os"},
    "format": {"cmn"},
    "api": {"cmn"},
    "client": BELOW_CLIENT,
    "store": BELOW_STORE,
    "service": {"store"} | BELOW_STORE,
    "host": BELOW_CLIENT,
    "ossl": set(),
    "modules": {"client", "ossl"} | BELOW_CLIENT,
    "lib/base": {"cmn", "os", "ossl"},
    "lib/records": RECORDS,
    "lib/index": {"lib/records"} | RECORDS,
    "lib/database": {"ossl"} | DATABASE,
    "lib/pki": {"lib/records", "ossl"} | RECORDS,
    "lib/archive": {"lib/database"} | DATABASE,
    "lib/work": LIBRARY,
    "capi": LIBRARY,
    "provider": {"capi", "ossl", "os"},
    "fstore/terminal": {"lib/base", "cmn", "os"},
    "fstore/commands": {"fstore", "fstore/terminal"} | LIBRARY,
    "fstore": {"fstore/commands", "fstore/terminal"} | LIBRARY,
    "bench": {"capi", "service", "host", "client"} | BELOW_CLIENT,
    "examples": {"host", "client"} | BELOW_CLIENT,
}
TOP = {room.split("/")[0] for room in MAY_INCLUDE}
DIVIDED = {"lib", "fstore", "modules"}  # into rooms of their own
UNBOUND = {"tests", "fuzz"}  # include anything; nothing includes them
# Where files include each other in no circle. Elsewhere some headers carry all that their
# subject promises, and the classes of the framework know each other.
WITHOUT_CIRCLES = {"format", "lib", "fstore"}

# system header: the only folders, or files, that may include it
FILE_SYSTEM = re.compile(r"(dirent|unistd|sys/stat)\.h")
PROCESS = re.compile(r"csignal|(signal|termios|sys/(file|ioctl|prctl|resource))\.h")
THREADS = re.compile(r"pthread\.h")
STREAMS = re.compile(r"filesystem|fstream")
SQLITE = re.compile(r"sqlite3\.h")
OPENSSL = re.compile(r"openssl/.*")
PARSER = re.compile(r"CLI/.*")
ONLY_IN = [
    (FILE_SYSTEM, {"os"}, "file-system calls go through os/"),
    (PROCESS, {"os"}, "what concerns process and terminal goes through os/"),
    (THREADS, {"os", "cmn"}, "locks come from os/handles.h or cmn/"),
    (STREAMS, {"bench"}, "file-system calls go through os/"),
    (OPENSSL, {"ossl", "modules", "lib", "provider", "bench"}, "ciphers are reached through modules"),
    (SQLITE, {"lib/index/sql.cpp", "bench"}, "SQLite is reached through lib/index/sql.h"),
    (PARSER, {"fstore/commands/cli.cpp"}, "the command line is declared with command.h"),
]

INCLUDE = re.compile(r"\s*#\s*include\s*(.*)")
NAME = re.compile(r'(["<])([^">]+)[">]')


def room_of(parts):
    """lib/base/x.h is in the room lib/base, fstore/main.cpp in fstore, each module in one of its own."""
    return "/".join(parts[:2] if parts[0] in DIVIDED and len(parts) > 2 else parts[:1])


def rule_for(room):
    """What the room may include; nothing for a folder that has no rule."""
    return MAY_INCLUDE.get("modules" if room.startswith("modules/") else room)


def faults_of_include(path, name, quoted):
    """Yields what is wrong when the file `path` includes `name`."""
    here, there = path.parts, pathlib.PurePosixPath(name).parts
    if there[0] in TOP | UNBOUND and len(there) > 1 and ".." not in there:
        if here[0] == there[0] == "modules" and there[1] == "common":
            return  # what they share, which itself includes none of them
        from_room, to_room = room_of(here), room_of(there)
        if to_room != from_room and to_room not in rule_for(from_room):
            yield f"{from_room}/ may not include {to_room}/"
        return
    if quoted or ".." in there:
        yield "an include of ours is rooted at the project"
        return
    for pattern, places, reason in ONLY_IN:
        if pattern.fullmatch(name) and not places & {here[0], path.as_posix()}:
            yield reason


def faults_of_file(root, path):
    """Yields (line number, text of the line, fault) for the file `path` below `root`."""
    lines = (root / path).read_text(encoding="utf-8").splitlines()
    for number, line in enumerate(lines, 1):
        include = INCLUDE.match(line)
        if not include:
            continue
        name = NAME.match(include[1])
        if not name:
            yield number, line, "this include cannot be checked: name the file"
            continue
        for fault in faults_of_include(path, name[2], quoted=name[1] == '"'):
            yield number, line, fault


def sources(root):
    """Yields every C++ file of the project, relative to `root`."""
    for folder in sorted(root.iterdir()):
        if folder.is_dir() and folder.name != "build" and not folder.name.startswith("."):
            for path in sorted(folder.rglob("*")):
                if path.suffix in {".h", ".cpp", ".inc", ".hpp", ".cc"}:
                    yield path.relative_to(root)


def included(root, path):
    """Yields the names of the files of ours that the file `path` includes, without endings."""
    for line in (root / path).read_text(encoding="utf-8").splitlines():
        include = INCLUDE.match(line)
        name = NAME.match(include[1]) if include else None
        if name and (root / name[2]).is_file():
            yield str(pathlib.PurePosixPath(name[2]).with_suffix(""))


def circles(root):
    """Yields each circle once, as the names on the way from the first one back to it."""
    graph = {}
    for path in sources(root):
        if path.parts[0] in WITHOUT_CIRCLES:
            name = str(path.with_suffix(""))
            graph.setdefault(name, set()).update(set(included(root, path)) - {name})
    done, way = set(), []

    def visit(name):
        if name in way:
            yield way[way.index(name):] + [name]
        elif name not in done:
            way.append(name)
            for other in sorted(graph.get(name, ())):
                yield from visit(other)
            done.add(way.pop())

    for name in sorted(graph):
        yield from visit(name)


def undescribed(root, rooms):
    """Yields the rooms that no README.md describes: its folder's own, or the one above for a part of it."""
    for room in sorted(rooms):
        top, _, part = room.partition("/")
        readme = root / top / "README.md"
        if not readme.is_file() or (part and f"`{part}" not in readme.read_text(encoding="utf-8")):
            yield room


def check(root):
    """Prints the faults below `root` and returns how many files and faults there are."""
    files = faults = 0
    rooms = set()
    for path in sources(root):
        files += 1
        folder = path.parts[0]
        rooms.add(folder if folder in UNBOUND else room_of(path.parts))
        found = []
        if folder in UNBOUND:
            continue
        if rule_for(room_of(path.parts)) is None:
            found.append((1, "", f"{room_of(path.parts)}/ has no rule in check_layers.py"))
        else:
            found.extend(faults_of_file(root, path))
        if folder == "api" and path.suffix != ".h":
            found.append((1, "", "api/ has headers only"))
        for number, line, fault in found:
            print(f"{path}:{number}: {fault}: {line.strip()}")
        faults += len(found)
    for circle in circles(root):
        print(f"circle: {' -> '.join(circle)}")
        faults += 1
    for room in undescribed(root, rooms):
        print(f"{room}/: no README.md says what is in it and what is not")
        faults += 1
    return files, faults


def main():
    here = pathlib.Path(__file__).resolve().parent.parent
    root = pathlib.Path(sys.argv[1]).resolve() if len(sys.argv) > 1 else here
    files, faults = check(root)
    print(f"{files} files, {faults} faults")
    return 1 if faults or not files else 0


if __name__ == "__main__":
    sys.exit(main())
