#!/usr/bin/env python3
"""What is installed is hardened, as readelf and the code itself show.

hardening_test.py FILE...
"""
import re
import subprocess
import sys
from pathlib import Path

# A file whose functions do not begin with landing marks has the few of the C runtime.
MARKS = 20
LANDING = {"ELF64": b"\xf3\x0f\x1e\xfa", "ELF32": b"\xf3\x0f\x1e\xfb"}
# The services on OpenSSL and the provider call nothing that takes a size known to the compiler.
SIZED = {"fstore", "filestore.so", "libfilestore.so.1"}


def marks(file: Path, header: str) -> int:
    """How often a function may be jumped to; enough where the processor knows no such marks."""
    if not re.search(r"Machine: .*(X86-64|80386)", header):
        return MARKS + 1
    return file.read_bytes().count(LANDING[re.search(r"Class: +(\w+)", header).group(1)])


def weaknesses(file: Path) -> list[str]:
    """What the file lacks, in words."""
    def readelf(option: str) -> str:
        return subprocess.run(["readelf", "-W", option, file], check=True, capture_output=True,
                              text=True).stdout

    header, segments = readelf("--file-header"), readelf("--program-headers")
    symbols, dynamic = readelf("--dyn-syms"), readelf("--dynamic")
    is_library = ".so" in file.name
    checks = {
        "no function watches its stack": "__stack_chk_fail" in symbols,
        "no size is checked": file.name not in SIZED or re.search(
            r" __(?!stack)\w+_chk@", symbols),
        "not position independent": re.search(r"Type: +DYN", header) and (
            is_library or re.search(r"\(FLAGS_1\).*\bPIE\b", dynamic)),
        "addresses stay writable": "GNU_RELRO" in segments,
        "binds lazily": re.search(r"\(FLAGS(_1)?\).*\b(BIND_)?NOW\b", dynamic),
        "an executable stack": re.search(r"GNU_STACK.* RW +0x", segments),
        "functions without landing marks": marks(file, header) > MARKS,
        "libraries are sought in a folder of the build": not re.search(
            r"\((RPATH|RUNPATH)\).*[\[:]/", dynamic),
    }
    return [f"{file}: {words}" for words, good in checks.items() if not good]


if __name__ == "__main__":
    found = [line for name in sys.argv[1:] for line in weaknesses(Path(name))]
    print("\n".join(found) or "passed")
    sys.exit(1 if found or len(sys.argv) == 1 else 0)
