#!/usr/bin/env python3
"""Processes: who waits for whom, and what readers repair."""

import fcntl
import os
import threading
import time

import support
from support import InitialisedTest


class LockTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        run = support.fstore("-D", folder, "put", "settings/a", "-", "--plain-body", stdin=b"x")
        assert run.code == 0, run.message

    def hold(self, kind):
        """Locks the folder as another process would."""
        fd = os.open(self.folder, os.O_RDONLY)
        fcntl.flock(fd, kind)
        self.addCleanup(os.close, fd)
        return fd

    def test_another_writer_keeps_everybody_out(self):
        self.hold(fcntl.LOCK_EX)
        for args in [("ls",), ("info",), ("check",), ("get", "a"), ("rm", "a"),
                     ("set", "a", "label=x"), ("init",)]:
            message = self.fails(33, "busy", "--lock-timeout", "0", *args)
            self.assertIn("--lock-timeout", message)

    def test_readers_share_and_keep_writers_out(self):
        self.hold(fcntl.LOCK_SH)
        for args in [("ls",), ("info",), ("check",), ("get", "a"), ("show", "a"), ("dump", "a")]:
            self.run_tool("--lock-timeout", "0", *args)
        self.fails(33, "busy", "--lock-timeout", "0", "rm", "a")

    def test_waits_for_as_long_as_told(self):
        fd = self.hold(fcntl.LOCK_EX)
        began = time.monotonic()
        self.run_tool("--lock-timeout", "0.5", "ls", code=33)
        self.assertGreater(time.monotonic() - began, 0.5)
        timer = threading.Timer(0.3, lambda: fcntl.flock(fd, fcntl.LOCK_UN))
        timer.start()
        self.run_tool("ls")
        timer.join()

    def test_leaves_nothing_behind(self):
        self.run_tool("ls")
        self.assertEqual(["db"], [path.name for path in self.folder.iterdir()])


class ReaderRepairTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        run = support.fstore("-D", folder, "put", "settings/a", "-", stdin=b"x")
        assert run.code == 0, run.message

    def test_a_lone_saved_descriptor(self):
        descriptor = self.folder / "db/settings/a.dsc"
        descriptor.rename(self.folder / "db/settings/a.dsc.$o$")
        self.assertEqual(["settings/a"], self.records())
        self.assertTrue(descriptor.exists())

    def test_an_unfinished_copy_is_left_to_the_next_change(self):
        (self.folder / "new_db/keys").mkdir(parents=True)
        self.assertEqual(b"x", self.body("a"))
        self.assertTrue((self.folder / "new_db").exists())
        self.run_tool("set", "a", "label=x")
        self.assertFalse((self.folder / "new_db").exists())

    def test_waits_for_readers_before_it_repairs(self):
        descriptor = self.folder / "db/settings/a.dsc"
        descriptor.rename(self.folder / "db/settings/a.dsc.$o$")
        fd = os.open(self.folder, os.O_RDONLY)
        fcntl.flock(fd, fcntl.LOCK_SH)
        self.fails(33, "busy", "--lock-timeout", "0", "ls")
        os.close(fd)
        self.run_tool("ls")

    def test_a_reader_changes_nothing_otherwise(self):
        before = {path: path.stat().st_mtime_ns for path in self.folder.rglob("*")}
        for args in [("ls",), ("info",), ("check",), ("get", "a"), ("show", "a"), ("dump", "a"),
                     ("check", "--deep")]:
            self.run_tool(*args)
        self.assertEqual(before,
                         {path: path.stat().st_mtime_ns for path in self.folder.rglob("*")})


if __name__ == "__main__":
    support.main()
