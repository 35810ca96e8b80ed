#!/usr/bin/env python3
"""Measures what the command-line tool takes, as a user waits for it.

    bench/tool.py FSTORE RUN [--quick]

FSTORE is the built program, RUN the folder in which the contest ran: its databases are
listed. Prints lines as the contest does. A command is timed from its start to its end,
with its output thrown away; all in milliseconds but "import by the tool", which is in
microseconds a certificate.
"""

import os
import pathlib
import shutil
import subprocess
import sys
import time


def milliseconds(*command):
    start = time.perf_counter()
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    return (time.perf_counter() - start) * 1000


def report(question, rounds, measure):
    measure()  # brings files into the page cache
    for number in range(rounds):
        print(question, "store", number, f"{measure():.3f}", sep="\t", flush=True)


def make_certificates(folder, count):
    """One file with so many certificates, each of another subject."""
    key = folder / "key.pem"
    subprocess.run(["openssl", "ecparam", "-name", "prime256v1", "-genkey", "-noout",
                    "-out", key], check=True, stderr=subprocess.DEVNULL)
    bundle = folder / "bundle.pem"
    with open(bundle, "wb") as out:
        for index in range(count):
            subprocess.run(["openssl", "req", "-x509", "-key", key, "-days", "30",
                            "-subj", f"/CN=host-{index}"], check=True, stdout=out,
                           stderr=subprocess.DEVNULL)
    return bundle


class Import:
    """Into a new database each time."""

    def __init__(self, fstore, folder, count):
        self.fstore, self.folder, self.count, self.round = fstore, folder, count, 0
        self.bundle = make_certificates(folder, count)
        self.password = folder / "password"
        self.password.touch(mode=0o600)
        self.password.write_text("correct horse", encoding="ascii")

    def __call__(self):
        self.round += 1
        database = self.folder / f"import-{self.round}"
        database.mkdir()
        base = [self.fstore, "--quiet", "-D", database]
        subprocess.run([*base, "--password-file", self.password, "init"], check=True)
        return milliseconds(*base, "import", self.bundle) * 1000 / self.count


def main():
    arguments = [argument for argument in sys.argv[1:] if argument != "--quick"]
    if len(arguments) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    quick = "--quick" in sys.argv[1:]
    fstore, run = (pathlib.Path(argument).resolve() for argument in arguments)
    folder = run / "tool"
    folder.mkdir()
    os.sync()  # what the contest has left to write is nothing of ours

    def listing(database):
        return lambda: milliseconds(fstore, "-D", run / f"store-{database}", "ls")

    report("start of the tool", 40, lambda: milliseconds(fstore, "--version"))
    report("list by the tool", 40, listing("small"))
    report("list of many by the tool", 5, listing("large"))
    report("import by the tool", 2 if quick else 3, Import(fstore, folder, 100 if quick else 1000))
    shutil.rmtree(folder)
    return 0


if __name__ == "__main__":
    sys.exit(main())
