"""Deaths and faults of the tool at each call that changes the disk, for any command.

The trap counts the calls of the program and of all modules. A share of them is
struck every day; each of them, and the calls of the recovery after it, with FSTORE_LONG=1.
"""

import concurrent.futures
import errno
import hashlib
import os
import pathlib
import re
import shutil
import tempfile
import unittest

import support
from support import CHEAP, LONG, PASSWORD

NEW = "another password"
SHARE = 3 if support.SANITIZED else 6  # deaths and faults of each workload in everyday runs
STRIDE = 8  # calls between two deaths of one recovery; the first is another one each time
KILLED = -9
BODY = re.compile("[0-9a-f]{8}")


def unnamed_bodies(folder):
    """The body files that no descriptor beside them names, as a reader of filestore(5) finds them."""
    found = set()
    for path in (folder / "db").rglob("*"):
        if BODY.fullmatch(path.name) and path.is_file():
            texts = [other.read_bytes() for other in path.parent.iterdir() if ".dsc" in other.name]
            if not any(path.name.encode() in text for text in texts):
                found.add(f"./{path.relative_to(folder)}")
    return found


def untold(folder, password):
    """What a kill has left behind that a plain check passes over, or that a repair leaves; in a copy,
    since looking may bring things in order."""
    with tempfile.TemporaryDirectory(prefix="fstore-untold-") as name:
        copy = pathlib.Path(name) / "w"
        shutil.copytree(folder, copy, symlinks=True)
        left = unnamed_bodies(copy)
        if not left:
            return set()
        run = support.fstore("-D", copy, "check", "--json", password=password)
        assert run.code in (0, 3), run
        told = {finding["path"] for finding in run.document["findings"]}
        run = support.fstore("-D", copy, "check", "--repair", password=password)
        return (left - told) | unnamed_bodies(copy)


class Workload:
    """What is run, on what, and what may be there afterwards."""

    args = ()
    stdin = b""
    env = {}
    codes = {0, 9}  # of a run in which a call fails
    # Address: the bodies it may have; None among them when it may be gone.
    bodies = {"settings/a": {b"old"}, "lsps/plain": {b"plain"}, "keys/k": {b"key"}}
    passwords = (PASSWORD,)  # of which exactly one opens it
    leftovers = set()  # kinds of findings that stay
    keeps = False  # the database before, as db-<time>

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

    def listed(self, folder):
        """The password that opens it, and the digests of all bodies, by address."""
        runs = {password: support.fstore("-D", folder, "ls", "--unlock", "--json",
                                         password=password) for password in self.passwords}
        codes = [run.code for run in runs.values()]
        assert sorted(codes) == [0, *[6] * (len(codes) - 1)], runs
        password = min(runs, key=lambda one: runs[one].code)
        return password, {record["address"]: record.get("sha256")
                          for record in runs[password].document["records"]}

    def verify(self, folder):
        """Recovers the folder by ordinary commands; raises when something is lost."""
        password, digests = self.listed(folder)
        for address, allowed in self.bodies.items():
            expected = {body and hashlib.sha256(body).hexdigest() for body in allowed}
            assert digests.get(address) in expected, address
        run = support.fstore("-D", folder, "check", "--repair", password=password)
        assert run.code == 0, run
        # This compares the digests with the bodies, too.
        run = support.fstore("-D", folder, "check", "--deep", "--json", password=password)
        assert run.code == 0, run
        kinds = {finding["kind"] for finding in run.document["findings"]}
        assert kinds <= self.leftovers, run
        # What nobody acknowledged may have been moved away.
        kept = [name for name in os.listdir(folder) if name not in ("db", "db.lock", "db.lost", "db.state")]
        assert all(self.keeps and name.startswith("db-") for name in kept), kept


class KillTest(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.template = pathlib.Path(tempfile.mkdtemp(prefix="fstore-template-"))
        cls.addClassCleanup(shutil.rmtree, cls.template)
        for args, stdin in [(("init", *CHEAP), b""),
                            (("put", "-f", "settings/a", "-"), b"old"),
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

    @staticmethod
    def recovered(workload, folder, where):
        try:
            workload.verify(folder)
        except (AssertionError, KeyError) as failure:
            return f"{where}: {failure!r}"
        return None

    def kill(self, workload, call):
        """The command dies, and so does its recovery again and again, at a later call each time."""
        with tempfile.TemporaryDirectory(prefix="fstore-kill-") as name:
            folder = pathlib.Path(name) / "w"
            workload.fresh(folder)
            run = workload.run(folder, CALL_TRAP_DIE=call)
            if run.code != KILLED:
                return f"call {call}: it lived, with {run}"
            missed = untold(folder, PASSWORD)
            if missed:
                return f"call {call}: nobody tells of {missed}"
            wreck = pathlib.Path(name) / "wreck"
            if LONG:
                shutil.copytree(folder, wreck, symlinks=True)
            failure = self.recovered(workload, folder, f"call {call}")
            if failure or not LONG:
                return failure
            for again in range(1 + call % STRIDE, 1000, STRIDE):
                run = support.fstore("-D", wreck, "check", "--deep", "--repair",
                                     env={"LD_PRELOAD": support.CALL_TRAP,
                                          "CALL_TRAP_DIE": again})
                if run.code != KILLED:
                    break
                self.within += 1
            return self.recovered(workload, wreck, f"call {call}, then up to {again}")

    def kill_everywhere(self, kind):
        workload = kind(self.template)
        calls = workload.count()
        deaths = self.struck(calls)
        self.within = 0
        self.strike(kind, f"deaths at {calls} calls", deaths,
                    lambda call: self.kill(workload, call))
        if LONG:
            print(f"{kind.__name__}: {self.within} deaths within recovery", flush=True)

    def fail_everywhere(self, kind):
        workload = kind(self.template)
        calls = workload.count()
        faults = [self.fault(*each) for each in enumerate(self.struck(calls))]
        self.strike(kind, f"faults at {calls} calls", faults,
                    lambda fault: self.disturb(workload, fault))

    def strike(self, kind, what, blows, strike):
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            failures = [failure for failure in pool.map(strike, blows) if failure]
        print(f"{kind.__name__}: {len(blows)} {what}, {len(failures)} violations", flush=True)
        self.assertEqual([], failures)

    @staticmethod
    def fault(turn, call):
        """In turn one call fails, all from there on, and all that would take room."""
        return [{"CALL_TRAP_FAIL": call, "CALL_TRAP_ERRNO": errno.EIO},
                {"CALL_TRAP_FAIL_FROM": call, "CALL_TRAP_ERRNO": errno.EROFS},
                {"CALL_TRAP_FULL": call}][turn % 3]

    def disturb(self, workload, fault):
        """Some calls fail; the command tells it, and nothing is lost."""
        with tempfile.TemporaryDirectory(prefix="fstore-fail-") as name:
            folder = pathlib.Path(name) / "w"
            workload.fresh(folder)
            run = workload.run(folder, **fault)
            if run.code not in workload.codes:
                return f"{fault}: {run}"
            told = b"warning:" if run.code == 5 else b"error:"
            # A file that was there already, or is only tidied up, is no failure.
            if (run.code == 0) == (told in run.err):
                return f"{fault}: exit code and message differ: {run}"
            return self.recovered(workload, folder, str(fault))
