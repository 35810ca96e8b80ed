#!/usr/bin/env python3
"""Compiles every header alone, twice in one unit.

    scripts/check_headers.py [HEADER...]

Proves that a header brings what it uses, that its guard works, and that it is
named after its path. One compiler is enough for that: what others, and 32 bits, make of
a header is seen where it is used. Exits 1 on any fault.
"""

import concurrent.futures
import os
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
COMPILE = ["g++", "-std=c++20", "-Wall", "-Wextra", "-Wshadow", "-Wconversion",
           "-Werror", "-D_FILE_OFFSET_BITS=64", f"-I{ROOT}",
           "-fsyntax-only", "-x", "c++", "-"]


def guard_fault(header):
    """Returns what is wrong with the header's guard, or nothing."""
    guard = re.sub(r"\W", "_", header).upper()
    text = (ROOT / header).read_text(encoding="utf-8")
    if f"#ifndef {guard}\n#define {guard}\n" not in text:
        return f"{header}: the guard is not {guard}\n"
    return ""


def compile_fault(header):
    """Returns the compiler's complaints about the header, or nothing."""
    unit = f'#include "{header}"\n' * 2
    run = subprocess.run(COMPILE, input=unit, capture_output=True, text=True, check=False)
    return f"{header}:\n{run.stderr}" if run.returncode else ""


def headers():
    """Lists every header of the project, relative to its root."""
    found = []
    for folder in sorted(ROOT.iterdir()):
        if folder.is_dir() and folder.name != "build" and not folder.name.startswith("."):
            found.extend(str(path.relative_to(ROOT)) for path in sorted(folder.rglob("*.h")))
    return found


def main():
    names = sys.argv[1:] or headers()
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        jobs = [pool.submit(check, name) for name in names for check in (guard_fault, compile_fault)]
        faults = [fault for fault in (job.result() for job in jobs) if fault]
    sys.stdout.writelines(faults)
    print(f"{len(names)} headers, {len(jobs)} checks, {len(faults)} faults")
    return 1 if faults or not names else 0


if __name__ == "__main__":
    sys.exit(main())
