#!/usr/bin/env python3
"""Finds paths of one machine and hosts of package registries in the project's files.

    scripts/check_paths.py [ROOT]

What is checked in builds anywhere, so it names neither. Prints each line that
does and exits 1 when there is one. Looks at every file that git tracks; without
git, at every file outside build/.
"""

import pathlib
import re
import subprocess
import sys

# A character class in each pattern keeps it from finding itself.
FORBIDDEN = [
    (re.compile(r"(?<![\w.})/-])/(?:wor[k]|tm[p]|hom[e]|roo[t]|User[s])/\w"), "path of one machine"),
    (re.compile(r"\b(?:de[b]|ft[p]|snapsho[t]|securit[y])\.debian\.org", re.I), "registry host"),
    (re.compile(r"\b(?:pyp[i]\.org|pythonhoste[d]\.org|npmj[s]\.(?:org|com)|crate[s]\.io"
                r"|prox[y]\.golang\.org|rubygem[s]\.org|repo1\.mave[n]\.org|ghc[r]\.io"
                r"|docke[r]\.(?:io|com)|conan\.i[o])", re.I), "registry host"),
    (re.compile(r"https?://[\w.-]*\b(?:mirro[r]|registr[y]|artifactor[y]|nexu[s]|prox[y])", re.I),
     "registry host"),
]


def files_of(root):
    """Yields the project's files, relative to `root`."""
    git = ["git", "-C", str(root), "-c", f"safe.directory={root}", "ls-files", "-z"]
    try:
        listing = subprocess.run(git, capture_output=True, check=True, text=True).stdout
        names = [pathlib.Path(name) for name in listing.split("\0") if name]
    except (OSError, subprocess.CalledProcessError):
        names = [path.relative_to(root) for path in sorted(root.rglob("*"))]
        names = [name for name in names if name.parts[0] not in {"build", ".git"}]
    return [name for name in names if (root / name).is_file()]


def check(root):
    """Prints the faults below `root` and returns how many files and faults there are."""
    names, faults = files_of(root), 0
    for name in names:
        # Latin-1 reads any bytes, so that binary test data is searched too.
        text = (root / name).read_bytes().decode("latin-1")
        for number, line in enumerate(text.splitlines(), 1):
            for pattern, what in FORBIDDEN:
                if pattern.search(line):
                    print(f"{name}:{number}: {what}: {line.strip()[:120]}")
                    faults += 1
    return len(names), faults


def main():
    here = pathlib.Path(__file__).resolve().parent.parent
    root = pathlib.Path(sys.argv[1]).resolve() if len(sys.argv) > 1 else here
    files, faults = check(root)
    print(f"{files} files, {faults} paths and hosts")
    return 1 if faults or not files else 0


if __name__ == "__main__":
    sys.exit(main())
