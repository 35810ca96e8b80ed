"""Workloads in which each call that changes the disk fails, or the tool dies in front of it.

The trap counts the calls of the program and of all modules. A share of them is
struck every day, each of them, and each of the recovery after it, with FSTORE_LONG=1.
"""

import concurrent.futures
import errno
import os
import pathlib
import shutil
import tempfile
import unittest

import support
from support import CHEAP, LONG, PASSWORD

NEW = "another password"
SHARE = 3 if support.SANITIZED else 10  # deaths and failures of each workload in everyday runs
KILLED = -9


class Workload:
    """What is run, on what, and what may be there afterwards."""

    args = ()
    stdin = b""
    env = {}
    # Address: the bodies it may have; None among them when it may be gone.
    bodies = {"settings/a": {b"old"}, "lsps/plain": {b"plain"}, "keys/k": {b"key"}}
    leftovers = set()  # kinds of findings that stay
    # A file that was there already, or is only tidied up, is no failure.
    codes = {0, 9}  # when a call fails

    def __init__(self, template):
        self.template = template

    def prepare(self, folder):
        """Makes of a copy of the template what the workload starts from."""

    def run(self, folder, **trap):
        env = {"LD_PRELOAD": support.CALL_TRAP, **self.env, **trap} if trap else self.env
        return support.fstore("-D", folder, *self.args, stdin=self.stdin, env=env)

    def fresh(self, folder):
        shutil.copytree(self.template, folder, dirs_exist_ok=True)
        self.prepare(folder)

    def count(self):
        """The number of calls of a run without deaths."""
        with tempfile.TemporaryDirectory() as name:
            folder = pathlib.Path(name)
            self.fresh(folder / "w")
            run = self.run(folder / "w", CALL_TRAP_COUNT=folder / "calls")
            assert run.code == 0, run.message
            return int((folder / "calls").read_text())

    def password(self, folder):
        """The password that opens everything; fails unless exactly one does."""
        codes = {}
        for password in (PASSWORD, NEW):
            run = support.fstore("-D", folder, "check", "--deep", password=password)
            codes[password] = run.code
        assert sorted(codes.values()) == [0, 6], codes
        return min(codes, key=codes.get)

    def verify(self, folder):
        """Recovers the folder by ordinary commands; raises when something is lost."""
        password = self.password(folder)
        for address, allowed in self.bodies.items():
            run = support.fstore("-D", folder, "get", address, password=password)
            body = {0: run.out, 50: None}[run.code]
            assert body in allowed, (address, run)
        run = support.fstore("-D", folder, "check", "--repair", password=password)
        assert run.code == 0, run
        run = support.fstore("-D", folder, "check", "--deep", "--json", password=password)
        assert run.code == 0, run
        kinds = {finding["kind"] for finding in run.document["findings"]}
        assert kinds <= self.leftovers, run
        present = {"db", "old_db"} if self.leftovers else {"db"}
        assert set(os.listdir(folder)) <= present, os.listdir(folder)


class KillTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.template = pathlib.Path(tempfile.mkdtemp(prefix="fstore-template-"))
        cls.addClassCleanup(shutil.rmtree, cls.template)
        for args, stdin in [(("init", *CHEAP), b""),
                            (("put", "settings/a", "-"), b"old"),
                            (("put", "keys/k", "-"), b"key"),
                            (("put", "lsps/plain", "-", "--plain-body"), b"plain")]:
            run = support.fstore("-D", cls.template, *args, stdin=stdin)
            assert run.code == 0, run.message

    @staticmethod
    def struck(calls):
        """The calls that are struck."""
        if LONG:
            return range(1, calls + 1)
        return sorted({1 + i * calls // SHARE for i in range(SHARE)})

    def strike(self, workload, call):
        with tempfile.TemporaryDirectory(prefix="fstore-kill-") as name:
            folder = pathlib.Path(name) / "w"
            workload.fresh(folder)
            run = workload.run(folder, CALL_TRAP_DIE=call)
            if run.code != KILLED:
                return f"call {call}: it lived, with {run}"
            if not LONG:
                return self.recovered(workload, folder, f"call {call}")
            # Each death within the recovery starts from the same wreck.
            again = 0
            while True:
                again += 1
                wreck = pathlib.Path(name) / f"w{again}"
                shutil.copytree(folder, wreck, symlinks=True)
                run = support.fstore("-D", wreck, "check", "--deep", "--repair",
                                     env={"LD_PRELOAD": support.CALL_TRAP,
                                          "CALL_TRAP_DIE": again})
                self.within += run.code == KILLED
                failure = self.recovered(workload, wreck, f"call {call}, then {again}")
                if failure or run.code != KILLED:
                    return failure
                shutil.rmtree(wreck)

    @staticmethod
    def recovered(workload, folder, where):
        try:
            workload.verify(folder)
        except (AssertionError, KeyError) as failure:
            return f"{where}: {failure!r}"
        return None

    def kill_everywhere(self, kind):
        workload = kind(self.template)
        calls = workload.count()
        deaths = self.struck(calls)
        self.within = 0
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            failures = [failure for failure in
                        pool.map(lambda call: self.strike(workload, call), deaths) if failure]
        print(f"{kind.__name__}: {len(deaths)} deaths at {calls} calls, "
              f"{self.within} within recovery, {len(failures)} violations", flush=True)
        self.assertEqual([], failures)

    def fault(self, workload, call, setting, number):
        """One call fails, or all from there on; the command tells it, and nothing is lost."""
        with tempfile.TemporaryDirectory(prefix="fstore-fail-") as name:
            folder = pathlib.Path(name) / "w"
            workload.fresh(folder)
            run = workload.run(folder, **{setting: call, "CALL_TRAP_ERRNO": number})
            where = f"{setting} {call} {errno.errorcode[number]}"
            if run.code not in workload.codes:
                return f"{where}: {run}"
            told = b"warning:" if run.code == 5 else b"error:"
            if (run.code == 0) == (told in run.err):
                return f"{where}: exit code and message differ: {run}"
            return self.recovered(workload, folder, where)

    def fail_everywhere(self, kind):
        workload = kind(self.template)
        calls = workload.count()
        faults = [(call, setting, number) for call in self.struck(calls)
                  for setting in ("CALL_TRAP_FAIL", "CALL_TRAP_FAIL_FROM")
                  for number in ((errno.EIO, errno.ENOSPC, errno.EROFS) if LONG
                                 else (errno.EIO,))]
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            failures = [failure for failure in
                        pool.map(lambda fault: self.fault(workload, *fault), faults) if failure]
        print(f"{kind.__name__}: {len(faults)} faults at {calls} calls, "
              f"{len(failures)} violations", flush=True)
        self.assertEqual([], failures)
