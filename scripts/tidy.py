#!/usr/bin/env python3
"""Runs clang-tidy over the sources; any finding fails.

    scripts/tidy.py              all sources but those of tests: four builds have them
    scripts/tidy.py --changed    those that differ from the branch `main`, also of tests
    scripts/tidy.py FILE...      these files

The product gets all checks of .clang-tidy; tests, fuzz targets and benchmarks only what clang
itself warns of. Needs the compilation commands of the `dev` preset and makes them when they
are missing.

Of the 20 seconds that a source takes by itself 18 go into the headers of the standard library,
which every check walks through. So sources with the same flags are read as one unit. Two that
have a name of their own in common cannot stand in one; the later goes into the next.
"""

import concurrent.futures
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
DATABASE = ROOT / "build/dev/compile_commands.json"
UNITS = ROOT / "build/dev/tidy"
UNIT_SIZE = 32  # a unit fits into memory, and both processors have work until the end
ONLY_WARNINGS = ("tests/", "fuzz/", "bench/")
# The last check needs nothing but the preprocessor; with none clang-tidy does not begin.
WARNINGS = "--checks=-*,clang-diagnostic-*,readability-duplicate-include"
# What differs between targets and means nothing to a reader of the source.
IRRELEVANT = re.compile(r"-D\w+_EXPORTS|-fPIC|-fPIE|-fvisibility=.*|-fno-sanitize=.*|-g")


def compilations():
    """Returns the flags that each source of the project is compiled with."""
    if not DATABASE.exists():
        subprocess.run(["cmake", "--preset", "dev"], cwd=ROOT, stdout=subprocess.DEVNULL, check=True)
    flags = {}
    for entry in json.loads(DATABASE.read_text(encoding="utf-8")):
        path = pathlib.Path(entry["file"])
        # What is generated, or another system's, is none of ours.
        if path.is_relative_to(ROOT) and not path.is_relative_to(ROOT / "build"):
            words = shlex.split(entry["command"])
            words = words[1:words.index("-o")]
            flags.setdefault(str(path.relative_to(ROOT)),
                             tuple(word for word in words if not IRRELEVANT.fullmatch(word)))
    return flags


def text_of(sources):
    lines = [f'#include "{source}"\n' for source in sources]
    return "".join(["// NOLINTBEGIN(bugprone-suspicious-include)\n", *lines,
                    "// NOLINTEND(bugprone-suspicious-include)\n"])


def in_conflict(sources, flags):
    """Returns those of the sources that do not compile behind the others."""
    run = subprocess.run(["clang++-14", *flags, "-w", "-ferror-limit=0", "-fsyntax-only", "-x", "c++",
                          "-"], input=text_of(sources), cwd=ROOT, capture_output=True, text=True,
                         check=False)
    if run.returncode == 0:
        return []
    faulty = set(re.findall(r"^(?:\./)?([^:\n]+):\d+:\d+: error:", run.stderr, re.MULTILINE))
    faulty = {os.path.relpath(ROOT / name, ROOT) for name in faulty}
    # Where the fault is in no source, or in the first, they are read one by one.
    found = [source for source in sources[1:] if source in faulty]
    return found or sources[1:]


def units_of(sources, flags):
    """Divides sources with the same flags into units that compile."""
    units = []
    while sources:
        unit, sources = sources[:UNIT_SIZE], sources[UNIT_SIZE:]
        while len(unit) > 1 and (later := in_conflict(unit, flags)):
            unit = [source for source in unit if source not in later]
            sources = later + sources
        units.append((unit, flags))
    return units


def tidy(sources, flags, *options):
    """Returns what clang-tidy finds in the sources, read as one unit."""
    file = sources[0]
    if len(sources) > 1:
        file = UNITS / (re.sub(r"\W", "_", sources[0]) + ".cpp")
        file.write_text(text_of(sources), encoding="utf-8")
        flags = [*flags, "-Wno-shadow"]  # a name of another source's
    run = subprocess.run(["clang-tidy-14", "--quiet", *options, str(file), "--", *flags],
                         cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                         check=False)
    return run.stdout if run.stdout or run.returncode == 0 else f"{file}: clang-tidy failed\n"


def chosen(arguments, flags):
    if not arguments:
        return [source for source in flags if not source.startswith("tests/")]
    if arguments == ["--changed"]:
        run = subprocess.run(["git", "diff", "--name-only", "--diff-filter=d", "main", "--", "*.cpp"],
                             cwd=ROOT, stdout=subprocess.PIPE, text=True, check=True)
        arguments = run.stdout.split()
    unknown = [source for source in arguments if source not in flags]
    if unknown:
        sys.exit(f"not compiled by the dev preset: {' '.join(unknown)}")
    return arguments


def main():
    flags = compilations()
    UNITS.mkdir(exist_ok=True)
    sources = sorted(chosen(sys.argv[1:], flags))
    by_flags = {}
    for source in sources:
        if not source.startswith(ONLY_WARNINGS):
            by_flags.setdefault(flags[source], []).append(source)
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        units = [unit for found in pool.map(units_of, by_flags.values(), by_flags) for unit in found]
        jobs = [pool.submit(tidy, *unit) for unit in units]
        jobs += [pool.submit(tidy, [source], flags[source], WARNINGS)
                 for source in sources if source.startswith(ONLY_WARNINGS)]
        faults = 0
        for job in concurrent.futures.as_completed(jobs):
            sys.stdout.write(job.result())
            sys.stdout.flush()
            faults += job.result() != ""
    print(f"{len(sources)} sources, {len(jobs)} units, {faults} with findings")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
