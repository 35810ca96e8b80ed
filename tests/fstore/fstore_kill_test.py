#!/usr/bin/env python3
"""Each call that changes the disk fails, or the tool dies in front of it: nothing is lost.

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


class Put(Workload):
    args = ("put", "settings/n", "-")
    stdin = b"new"
    bodies = {**Workload.bodies, "settings/n": {None, b"new"}}


class PutOver(Workload):
    args = ("put", "settings/a", "-")
    stdin = b"new"
    bodies = {**Workload.bodies, "settings/a": {b"old", b"new"}}


class Set(Workload):
    args = ("set", "keys/k", "label=x", "--encrypt")


class Remove(Workload):
    args = ("rm", "settings/a")
    bodies = {**Workload.bodies, "settings/a": {b"old", None}}


class Change(Workload):
    args = ("passwd", *CHEAP)
    env = {"FSTORE_NEW_PASSWORD": NEW}


class ChangeKeepingOld(Change):
    args = ("passwd", *CHEAP, "--keep-old")
    leftovers = {"previous"}


class Init(Workload):
    args = ("init", *CHEAP)
    bodies = {}

    def fresh(self, folder):
        folder.mkdir()

    def password(self, folder):
        # What stands before it is done is no database that would keep a secret.
        run = support.fstore("-D", folder, "put", "settings/s", "-", stdin=b"secret")
        assert run.code in (0, 14, 50, 74), run
        if run.code != 0:
            run = support.fstore("-D", folder, *self.args)
            assert run.code == 0, run
        return PASSWORD


class Repair(Workload):
    args = ("check", "--repair")

    def prepare(self, folder):
        settings = folder / "db/settings"
        (settings / "a.dsc").rename(settings / "a.dsc.$o$")
        for name in ["deadbeef", "b.dsc.$n$", "b.dsc.$d$", "0000ab10"]:
            (settings / name).write_text("10000003 00000000 0000ab10\n")
        shutil.copy(folder / "db/keys/k.dsc", folder / "db/keys/k.dsc.$o$")
        shutil.copytree(folder / "db", folder / "new_db")
        (folder / "db/crm").rmdir()

    def verify(self, folder):
        # Whatever is left, the next one cleans up.
        run = support.fstore("-D", folder, "check", "--repair")
        assert run.code == 0, run
        super().verify(folder)


class MovedAside(Repair):
    """The database stands aside, as between the two renames of a change."""

    def prepare(self, folder):
        super().prepare(folder)
        (folder / "db").rename(folder / "old_db")


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
            # A file that was there already, or is only tidied up, is no failure.
            if run.code not in (0, 9):
                return f"{where}: {run}"
            if (run.code == 0) != (b"error:" not in run.err):
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

    def test_put_with_faults(self):
        self.fail_everywhere(PutOver)

    def test_rm_with_faults(self):
        self.fail_everywhere(Remove)

    def test_passwd_with_faults(self):
        self.fail_everywhere(Change)

    def test_init_with_faults(self):
        self.fail_everywhere(Init)

    def test_repair_with_faults(self):
        self.fail_everywhere(Repair)

    def test_put(self):
        self.kill_everywhere(Put)

    def test_put_over(self):
        self.kill_everywhere(PutOver)

    def test_set(self):
        self.kill_everywhere(Set)

    def test_rm(self):
        self.kill_everywhere(Remove)

    def test_init(self):
        self.kill_everywhere(Init)

    def test_passwd(self):
        self.kill_everywhere(Change)

    def test_passwd_keep_old(self):
        self.kill_everywhere(ChangeKeepingOld)

    def test_repair(self):
        self.kill_everywhere(Repair)

    def test_repair_of_a_database_moved_aside(self):
        self.kill_everywhere(MovedAside)


if __name__ == "__main__":
    support.main()
