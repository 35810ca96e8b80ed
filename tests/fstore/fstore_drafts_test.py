#!/usr/bin/env python3
"""Wherever the tool is killed while it writes a file, no draft with a secret stays beside it."""

import errno
import os
import pathlib
import signal
import tempfile

import support
from support import CALL_TRAP, InitialisedTest

KILLED = -signal.SIGKILL
SECRET = b"the plain secret of this test"
OLD = b"what was in the file before"
# How each writes the file "out", in place of another one or not.
COMMANDS = {
    "get": ("get", "settings/a", "-f", "-o", "out"),
    "get_new": ("get", "settings/a", "-o", "out"),
    "export": ("export", "keys/www", "--plain", "-f", "-o", "out"),
    "backup": ("backup", "-f", "out"),
    "report": ("report", "-f", "-o", "out"),
    "key_file": ("key", "add", "--key-file", "out"),
    "sheet": ("key", "add", "--recovery", "--sheet", "out"),
    "request": ("request", "www", "--subject", "CN=www", "-f", "-o", "out"),
}
NEW = ("get_new", "key_file", "sheet")  # those that replace nothing
# Without files that have no name, as NFS is.
NAMED = {"CALL_TRAP_NO_UNNAMED": "1"}


class DraftsTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        for args, stdin in [(("put", "settings/a", "-"), SECRET),
                            (("generate", "www", "--type", "ed25519"), b"")]:
            run = support.fstore("-D", folder, *args, stdin=stdin)
            assert run.code == 0, run

    def fresh(self, name):
        """A folder for the output, as each run finds it; and the arguments of the run."""
        place = pathlib.Path(tempfile.mkdtemp(dir=self.folder, prefix="place-"))
        out = place / "out"
        if name not in NEW:
            out.write_bytes(OLD)
        return place, [out if argument == "out" else argument for argument in COMMANDS[name]]

    def deaths(self, name, **trap):
        """Runs it again and again, each time killed at a later call; gives what each one left."""
        for call in range(1, 1000):
            place, args = self.fresh(name)
            run = support.fstore("-D", self.folder, *args,
                                 env={"LD_PRELOAD": CALL_TRAP, "CALL_TRAP_DIE": call, **trap})
            yield call, place, args, set(os.listdir(place)) - {"out"}
            if run.code != KILLED:
                self.assertEqual(0, run.code, run)
                return
        self.fail("it never lived")

    def assert_next_run_clears(self, place, args):
        if (place / "out").exists() and "-f" not in args:
            (place / "out").unlink()  # it was complete: only the end of the run was missed
        run = support.fstore("-D", self.folder, *args)
        self.assertEqual(0, run.code, run)
        self.assertEqual(["out"], os.listdir(place))

    def test_new_file_leaves_nothing(self):
        for name in NEW:
            with self.subTest(name):
                for call, _, _, left in self.deaths(name):
                    self.assertEqual(set(), left, call)

    def test_replacing_leaves_a_draft_for_one_call_that_the_next_run_removes(self):
        for name in COMMANDS.keys() - set(NEW):
            with self.subTest(name):
                drafts = 0
                for call, place, args, left in self.deaths(name):
                    self.assertLessEqual(left, {".out.new-5d0c9e7b-0"}, call)
                    drafts += len(left)
                    if left:
                        self.assertEqual(OLD, (place / "out").read_bytes())
                        self.assert_next_run_clears(place, args)
                self.assertEqual(1, drafts)

    def test_named_drafts_are_removed_by_the_next_run(self):
        for name in ("get", "get_new", "export", "sheet"):
            with self.subTest(name):
                drafts = 0
                for call, place, args, left in self.deaths(name, **NAMED):
                    self.assertLessEqual(left, {".out.new-5d0c9e7b-0"}, call)
                    drafts += len(left)
                    if left:
                        self.assert_next_run_clears(place, args)
                self.assertLess(2, drafts)

    def test_drafts_of_the_living_stay(self):
        for trap, stop in (({}, "renameat:1"), (NAMED, "fsync:1")):
            with self.subTest(stop):
                place, args = self.fresh("get")
                held = support.start("-D", self.folder, *args,
                                     env={"LD_PRELOAD": CALL_TRAP, "CALL_TRAP_STOP": stop, **trap})
                try:
                    support.wait_until(lambda: b"(stopped)" in pathlib.Path(
                        f"/proc/{held.pid}/status").read_bytes())
                    self.assertEqual({"out", ".out.new-5d0c9e7b-0"}, set(os.listdir(place)))
                    run = support.fstore("-D", self.folder, *args, env={
                        "LD_PRELOAD": CALL_TRAP, **trap})
                    self.assertEqual(0, run.code, run)
                    self.assertEqual({"out", ".out.new-5d0c9e7b-0"}, set(os.listdir(place)))
                    self.assertEqual(SECRET, (place / ".out.new-5d0c9e7b-0").read_bytes())
                finally:
                    os.kill(held.pid, signal.SIGCONT)
                run = support.finish(held)
                self.assertEqual(0, run.code, run)
                self.assertEqual(["out"], os.listdir(place))
                self.assertEqual(SECRET, (place / "out").read_bytes())

    def test_a_file_that_gets_no_name_is_copied_to_one_that_has(self):
        for name, error in [*((name, errno.EPERM) for name in COMMANDS), ("get", errno.ENOENT),
                            ("get_new", errno.EXDEV), ("get", errno.EOPNOTSUPP)]:
            with self.subTest(name, error=errno.errorcode[error]):
                outputs = []
                for trap in {}, {"CALL_TRAP_NO_NAME": str(error)}:
                    place, args = self.fresh(name)
                    run = support.fstore("-D", self.folder, *args,
                                         env={"LD_PRELOAD": CALL_TRAP, **trap})
                    self.assertEqual(0, run.code, run)
                    self.assertEqual(["out"], os.listdir(place))
                    outputs.append(place / "out")
                usual, copied = outputs
                self.assertEqual(usual.stat().st_mode, copied.stat().st_mode)
                self.assertEqual(name.startswith("get"), copied.read_bytes() == SECRET)
        for call, place, args, left in self.deaths("get", CALL_TRAP_NO_NAME=str(errno.EPERM)):
            self.assertLessEqual(left, {".out.new-5d0c9e7b-0"}, call)
            self.assertIn((place / "out").read_bytes(), (OLD, SECRET))
            if left:
                self.assert_next_run_clears(place, args)

    def test_what_is_in_the_way_of_a_draft_is_named(self):
        place, args = self.fresh("get")
        for digit in range(8):
            (place / f".out.new-5d0c9e7b-{digit}").mkdir()
        for trap in ({}, NAMED):
            run = support.fstore("-D", self.folder, *args, env={"LD_PRELOAD": CALL_TRAP, **trap})
            self.assertEqual(4, run.code, run)
            self.assertIn(".out.new-5d0c9e7b-7 is in the way of its draft", run.message)
            self.assertEqual(OLD, (place / "out").read_bytes())

    def test_a_full_disk_leaves_nothing(self):
        for trap in ({}, NAMED):
            place, args = self.fresh("get")
            run = support.fstore("-D", self.folder, *args, env={
                "LD_PRELOAD": CALL_TRAP, "CALL_TRAP_FULL": "1", **trap})
            self.assertEqual(9, run.code, run)
            self.assertEqual(["out"], os.listdir(place))
            self.assertEqual(OLD, (place / "out").read_bytes())


if __name__ == "__main__":
    support.main()
