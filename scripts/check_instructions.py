#!/usr/bin/env python3
"""Counts the instructions of fixed workloads and compares them with the kept counts.

    scripts/check_instructions.py [--update] [BUILD]

BUILD is the folder of the release build, by default build/release. Counted are the
instructions of our own modules and of the program with the host, for one operation, by
callgrind; not those of the system's libraries, which differ from machine to machine.
Exits 1 when a workload takes more than 3 per cent above its kept count, or so much less
that the kept count has become meaningless: then run with --update, which writes the
counts that it finds. They are those of one compiler, which is named with them; another
one's are printed and not compared.
"""

import collections
import pathlib
import re
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
KEPT = ROOT / "bench" / "instructions.txt"
WORKLOADS = {"put": 100, "overwrite": 100, "read": 300, "list": 1000, "remove": 100}
OURS = re.compile(r".*/(filestore|x509cmn|pkcs5|pkixkey)\.so|.*/workload")
TOLERATED = 0.03
COST = re.compile(r"(?:\+|-|\*)?\d*\s+(\d+)")


def own_costs(profile):
    """object: instructions executed in it, of a profile of callgrind."""
    costs, current, is_call = collections.Counter(), None, False
    for line in profile.splitlines():
        if line.startswith("ob="):
            current = line[3:]
        elif line.startswith("calls="):
            is_call = True  # the next line has the cost of what was called
        elif line[:1].isdigit() or line[:1] in ("+", "-", "*"):
            if not is_call:
                costs[current] += int(COST.match(line)[1])
            is_call = False
    return costs


def count(build, kind, times):
    """Instructions of ours in one operation of this kind."""
    with tempfile.TemporaryDirectory(dir=build) as folder:
        profile = pathlib.Path(folder) / "profile"
        subprocess.run(
            ["valgrind", "--tool=callgrind", "--quiet", f"--callgrind-out-file={profile}",
             "--compress-strings=no", "--compress-pos=no", "--toggle-collect=countedWork*",
             build / "bin" / "workload", kind, str(times), pathlib.Path(folder) / "run"],
            check=True)
        costs = own_costs(profile.read_text(encoding="utf-8"))
    return sum(cost for name, cost in costs.items() if OURS.fullmatch(name)) // times


def compiler(build):
    cache = (build / "CMakeCache.txt").read_text(encoding="utf-8")
    program = re.search(r"^CMAKE_CXX_COMPILER:\w+=(.*)$", cache, re.M)[1]
    version = subprocess.run([program, "--version"], check=True, capture_output=True, text=True)
    return version.stdout.splitlines()[0].split("/")[-1]


def main():
    update = "--update" in sys.argv[1:]
    folders = [argument for argument in sys.argv[1:] if argument != "--update"]
    if len(folders) > 1 or any(folder.startswith("-") for folder in folders):
        print(__doc__, file=sys.stderr)
        return 2
    build = pathlib.Path(folders[0] if folders else ROOT / "build" / "release").resolve()
    found = {kind: count(build, kind, times) for kind, times in WORKLOADS.items()}
    if update:
        lines = [compiler(build)] + [f"{kind} {number}" for kind, number in found.items()]
        KEPT.write_text("\n".join(lines) + "\n", encoding="utf-8")
        return 0
    lines = KEPT.read_text(encoding="utf-8").splitlines()
    comparable = lines[0] == compiler(build)
    if not comparable:
        print(f"kept for {lines[0]}, built by {compiler(build)}: not compared")
    kept = {kind: int(number) for kind, number in (line.split() for line in lines[1:])}
    wrong = 0
    for kind, number in found.items():
        change = number / kept[kind] - 1
        bad = comparable and abs(change) > TOLERATED
        print(f"{kind}: {number:,} instructions, kept {kept[kind]:,}, {change:+.1%}"
              + ("  <-- " + ("more" if change > 0 else "less: run with --update") if bad else ""))
        wrong += bad
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
