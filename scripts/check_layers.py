#!/usr/bin/env python3
"""Prints each #include that climbs over the layers; exits 1 when there is one.

    scripts/check_layers.py [ROOT]

ROOT is the project's folder, by default the one this script stands in. The
rules are those of docs/style.md, told as a table below.
"""

import pathlib
import re
import sys

# folder: the folders it may include, beside itself
MAY_INCLUDE = {
    "os": set(),
    "cmn": {"os"},
    "api": {"cmn"},
    "client": {"api", "cmn", "os"},
    "store": {"client", "api", "cmn", "os"},
    "service": {"store", "client", "api", "cmn", "os"},
    "host": {"api", "cmn", "os"},
    "modules": {"client", "api", "cmn", "os"},
    "fstore": {"host", "client", "api", "cmn", "os"},
    "bench": {"service", "host", "client", "api", "cmn", "os"},
    "examples": {"host", "client", "api", "cmn", "os"},
}
UNBOUND = {"tests", "fuzz"}  # include anything; nothing includes them

# system header: the only folders that may include it
FILE_SYSTEM = re.compile(r"(dirent|unistd|sys/stat)\.h")
PROCESS = re.compile(r"csignal|(signal|termios|sys/(file|ioctl|prctl|resource))\.h")
THREADS = re.compile(r"pthread\.h")
STREAMS = re.compile(r"filesystem|fstream")
OPENSSL = re.compile(r"openssl/.*")
ONLY_IN = [
    (FILE_SYSTEM, {"os"}, "file-system calls go through os/"),
    (PROCESS, {"os"}, "what concerns process and terminal goes through os/"),
    (THREADS, {"os", "cmn"}, "locks come from os/handles.h or cmn/"),
    (STREAMS, {"bench"}, "file-system calls go through os/"),
    (OPENSSL, {"modules", "fstore", "bench"}, "ciphers are reached through modules"),
]

INCLUDE = re.compile(r"\s*#\s*include\s*(.*)")
NAME = re.compile(r'(["<])([^">]+)[">]')


def module_of(parts):
    """modules/pkcs5/x.h belongs to modules/pkcs5, any other file to its top folder."""
    return parts[:2] if parts[0] == "modules" else parts[:1]


def faults_of_include(path, name, quoted):
    """Yields what is wrong when the file `path` includes `name`."""
    here, there = path.parts, pathlib.PurePosixPath(name).parts
    if there[0] in MAY_INCLUDE.keys() | UNBOUND and len(there) > 1 and ".." not in there:
        allowed = MAY_INCLUDE[here[0]]
        if here[0] == there[0] == "modules" and there[1] == "common":
            return  # what they share, which itself includes none of them
        if module_of(there) != module_of(here) and there[0] not in allowed:
            yield f"{here[0]}/ may not include {there[0]}/"
        return
    if quoted or ".." in there:
        yield "an include of ours is rooted at the project"
        return
    for pattern, folders, reason in ONLY_IN:
        if pattern.fullmatch(name) and here[0] not in folders:
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


def check(root):
    """Prints the faults below `root` and returns how many files and faults there are."""
    files = faults = 0
    for path in sources(root):
        files += 1
        folder = path.parts[0]
        found = []
        if folder in UNBOUND:
            continue
        if folder not in MAY_INCLUDE:
            found.append((1, "", f"{folder}/ has no rule in check_layers.py"))
        else:
            found.extend(faults_of_file(root, path))
        if folder == "api" and path.suffix != ".h":
            found.append((1, "", "api/ has headers only"))
        for number, line, fault in found:
            print(f"{path}:{number}: {fault}: {line.strip()}")
        faults += len(found)
    return files, faults


def main():
    here = pathlib.Path(__file__).resolve().parent.parent
    root = pathlib.Path(sys.argv[1]).resolve() if len(sys.argv) > 1 else here
    files, faults = check(root)
    print(f"{files} files, {faults} includes that climb")
    return 1 if faults or not files else 0


if __name__ == "__main__":
    sys.exit(main())
