#!/usr/bin/env python3
"""Processes: who waits for whom, and what readers repair."""

import fcntl
import os
import stat
import subprocess
import tarfile
import threading
import time

import support
from support import InitialisedTest


class LockTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        run = support.fstore("-D", folder, "put", "-f", "settings/a", "-", "--plain-body", stdin=b"x")
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

    def test_leaves_only_the_lock_file_behind(self):
        self.run_tool("ls")
        self.assertEqual(["db", "db.lock"], self.entries())


LINE_SIZE = 256
HOLDER = f"{'5e' * 16} 4711 2026-11-23T02:58:25Z far.example mv"


def line_of(holder):
    """The line of one who holds the lock, as it stands in the file."""
    return holder.ljust(LINE_SIZE - 1).encode() + b"\n"


class LockFileTest(InitialisedTest):
    """db.lock, whose lock is also known to other hosts."""

    @classmethod
    def fill(cls, folder):
        run = support.fstore("-D", folder, "put", "-f", "settings/a", "-", "--plain-body", stdin=b"x")
        assert run.code == 0, run.message

    def setUp(self):
        super().setUp()
        self.lock = self.folder / "db.lock"

    def hold(self, kind, line=b""):
        """Locks the file alone, as a writer on another host does."""
        fd = os.open(self.lock, os.O_RDWR)
        os.ftruncate(fd, 0)
        os.write(fd, line)
        fcntl.flock(fd, kind)
        self.addCleanup(os.close, fd)
        return fd

    def test_init_makes_it_for_the_owner_alone(self):
        self.assertEqual(0o600, stat.S_IMODE(self.lock.stat().st_mode))
        self.assertTrue(stat.S_ISREG(self.lock.stat().st_mode))

    def test_a_writer_says_who_it_is(self):
        before = self.lock.read_bytes()
        self.run_tool("set", "a", "label=x")
        line = self.lock.read_bytes()
        self.assertEqual(LINE_SIZE, len(line))
        token, pid, since, host, program = line.decode().split()
        self.assertRegex(token, "^[0-9a-f]{32}$")
        self.assertNotEqual(before.split()[0].decode(), token)
        self.assertGreater(int(pid), 1)
        self.assertRegex(since, r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
        self.assertEqual((os.uname().nodename, "fstore"), (host, program))

    def test_whoever_has_it_keeps_everybody_out(self):
        self.hold(fcntl.LOCK_EX)
        for args in [("ls",), ("info",), ("check",), ("get", "a"), ("rm", "a"),
                     ("set", "a", "label=x"), ("init",)]:
            self.fails(33, "busy", "--lock-timeout", "0", *args)

    def test_readers_share_it_and_keep_writers_out(self):
        self.hold(fcntl.LOCK_SH)
        for args in [("ls",), ("info",), ("check",), ("get", "a"), ("show", "a"), ("dump", "a")]:
            self.run_tool("--lock-timeout", "0", *args)
        self.fails(33, "busy", "--lock-timeout", "0", "rm", "a")

    def test_a_reader_asks_for_both_locks_and_a_writer_for_both(self):
        for args in [("ls",), ("set", "a", "label=x")]:
            for name in [".", "db.lock"]:
                fd = os.open(self.folder / name, os.O_RDONLY)
                fcntl.flock(fd, fcntl.LOCK_EX)
                self.fails(33, "busy", "--lock-timeout", "0", *args)
                os.close(fd)
            self.run_tool("--lock-timeout", "0", *args)

    def test_tells_who_holds_it(self):
        self.hold(fcntl.LOCK_EX, line_of(HOLDER))
        message = self.fails(33, "busy", "--lock-timeout", "0", "rm", "a")
        self.assertIn("(mv, 4711 on far.example, since 2026-11-23T02:58:25Z)", message)
        run = self.run_tool("--lock-timeout", "0", "info", code=33)
        self.assertIn("mv, 4711 on far.example, since 2026-11-23T02:58:25Z", run.text)
        run = self.run_tool("--lock-timeout", "0", "--json", "info", code=33)
        self.assertEqual({"program": "mv", "pid": 4711, "host": "far.example",
                          "since": "2026-11-23T02:58:25Z"}, run.document["writer"])

    def test_tells_nobody_by_a_line_that_is_not_one(self):
        for line in [b"", b"\n", line_of(HOLDER)[:100], line_of(HOLDER.replace("5e", "5g")),
                     line_of(HOLDER.replace("4711", "47x1")),
                     line_of(HOLDER.replace("2026", "x")), line_of(HOLDER.replace(" mv", "")),
                     line_of(HOLDER.replace("far", "f\x1b[31mr"))]:
            fd = self.hold(fcntl.LOCK_EX, line)
            message = self.fails(33, "busy", "--lock-timeout", "0", "rm", "a")
            self.assertNotIn(" on ", message)
            fcntl.flock(fd, fcntl.LOCK_UN)

    def test_readers_are_not_taken_for_the_last_writer(self):
        self.run_tool("set", "a", "label=x")
        fd = os.open(self.lock, os.O_RDONLY)
        fcntl.flock(fd, fcntl.LOCK_SH)
        self.addCleanup(os.close, fd)
        message = self.fails(33, "busy", "--lock-timeout", "0", "rm", "a")
        self.assertNotIn(" on ", message)

    def test_says_once_whom_it_waits_for(self):
        fd = self.hold(fcntl.LOCK_EX,
                       line_of(HOLDER))
        timer = threading.Timer(2, lambda: fcntl.flock(fd, fcntl.LOCK_UN))
        timer.start()
        run = self.run_tool("ls")
        timer.join()
        told = "waiting for another process (mv, 4711 on far.example, since 2026-11-23T02:58:25Z)"
        self.assertEqual(1, run.message.count("waiting"))
        self.assertIn(told, run.message)

    # Each command that changes a database, and those that another change keeps out.
    WAITING = {
        "put": ["put", "settings/b", "good"], "set": ["set", "a", "label=x"],
        "unset": ["unset", "a", "0x8001"], "rm": ["rm", "-f", "a"], "mv": ["mv", "settings/a", "crm/a"],
        "cp": ["cp", "settings/a", "crm/a"], "mkdir": ["mkdir", "settings/one"],
        "import": ["import", "good"], "generate": ["generate", "www", "--type", "ed25519"],
        "request": ["request", "www", "--subject", "CN=www"], "edit": ["edit", "settings/a"],
        "prune": ["prune", "--yes"], "passwd": ["passwd", *support.CHEAP], "init": ["init"],
        "key add": ["key", "add", "--key-file", "new"], "key rm": ["key", "rm", "1"],
        "check": ["check", "--repair"], "settle": ["check", "--settle", "x", "--keep", "ours"],
        "undo": ["check", "--undo", "20260101T000000Z"],
        "purge": ["check", "--purge", "20260101T000000Z"],
        "restore": ["restore", "whole.tar", "--replace"], "backup": ["backup", "saved.tar"],
        "deploy": ["deploy", "www", "--chain", "made.pem", "--key", "made.pem"],
        "ls": ["ls"], "get": ["get", "a"],
    }

    def test_each_command_says_whom_it_waits_for(self):
        self.write("good", "text")
        self.run_tool("backup", "whole.tar")
        before = self.files()
        self.hold(fcntl.LOCK_EX, line_of(HOLDER))
        env = {"FSTORE_NEW_PASSWORD": "new", "EDITOR": "true"}
        runs = {name: support.start("--lock-timeout", "1.2", *args, cwd=self.folder, env=env)
                for name, args in self.WAITING.items()}
        told = "(mv, 4711 on far.example, since 2026-11-23T02:58:25Z)"
        for name, process in runs.items():
            run = support.finish(process)
            with self.subTest(name):
                self.assertEqual(33, run.code, run)
                self.assertEqual(1, run.message.count(f"waiting for another process {told}"), run)
                self.assertIn(f"is using the database in this folder {told}", run.message)
        self.assertEqual(before, self.files())

    def test_a_short_wait_is_not_worth_a_word(self):
        fd = self.hold(fcntl.LOCK_EX)
        timer = threading.Timer(0.3, lambda: fcntl.flock(fd, fcntl.LOCK_UN))
        timer.start()
        run = self.run_tool("ls")
        timer.join()
        self.assertNotIn("waiting", run.message)

    def test_a_database_without_one_gets_it_from_whoever_comes_first(self):
        for args in [("ls",), ("set", "a", "label=x")]:
            self.lock.unlink()
            self.run_tool(*args)
            self.assertEqual(0o600, stat.S_IMODE(self.lock.stat().st_mode))

    def test_it_serves_those_whom_the_database_serves(self):
        self.lock.unlink()
        (self.folder / "db").chmod(0o770)
        self.run_tool("set", "a", "label=x")
        self.assertEqual(0o660, stat.S_IMODE(self.lock.stat().st_mode))

    def test_no_database_no_file(self):
        (self.folder / "empty").mkdir()
        for args in [("ls",), ("set", "a", "label=x")]:
            self.run_tool("-D", "empty", *args, code=50)
            self.assertEqual([], list((self.folder / "empty").iterdir()))

    def test_what_is_not_a_file_is_no_lock(self):
        def link():
            self.lock.symlink_to("elsewhere")

        def link_to_file():
            (self.folder / "elsewhere").write_bytes(b"kept")
            self.lock.symlink_to("elsewhere")

        for make in [link, link_to_file, self.lock.mkdir, lambda: os.mkfifo(self.lock)]:
            self.lock.unlink(missing_ok=True)
            make()
            for args in [("ls",), ("get", "a"), ("set", "a", "label=x"), ("rm", "a")]:
                message = self.fails(4, "invalid", *args)
                self.assertIn("db.lock", message)
            if self.lock.is_dir() and not self.lock.is_symlink():
                self.lock.rmdir()
        self.assertEqual(b"kept", (self.folder / "elsewhere").read_bytes())

    def test_a_file_with_something_else_in_it_is_somebodys(self):
        for text in b"mine\n", b"m" * 255, b"0" * 257, bytes(10_000), b"a word " * 100:
            self.lock.write_bytes(text)
            for args in [("ls",), ("set", "a", "label=x")]:
                message = self.fails(4, "invalid", *args)
                self.assertIn("db.lock is a file with something else in it", message)
            self.assertEqual(text, self.lock.read_bytes())
        # What a full disk leaves of a line, and a line that was damaged.
        for text in b"", b"0123abcd", b"0" * 32 + b" 4711 ", b"\0" * LINE_SIZE, b"?" * LINE_SIZE:
            self.lock.write_bytes(text)
            self.run_tool("set", "a", "label=x")

    def test_one_that_was_replaced_is_no_lock(self):
        """Whoever waited for the old file starts again with the new one."""
        fd = self.hold(fcntl.LOCK_EX)
        other = os.open(self.folder / "other", os.O_RDWR | os.O_CREAT, 0o600)
        self.addCleanup(os.close, other)
        fcntl.flock(other, fcntl.LOCK_EX)

        def swap():
            os.rename(self.folder / "other", self.lock)
            fcntl.flock(fd, fcntl.LOCK_UN)

        timer = threading.Timer(0.3, swap)
        timer.start()
        self.fails(33, "busy", "--lock-timeout", "1", "ls")
        timer.join()
        fcntl.flock(other, fcntl.LOCK_UN)
        self.run_tool("set", "a", "label=x")

    def test_it_is_in_no_backup_and_no_finding(self):
        self.run_tool("backup", "a.tar")
        with tarfile.open(self.folder / "a.tar") as archive:
            self.assertEqual([], [name for name in archive.getnames() if "lock" in name])
        self.assertNotIn("lock", self.run_tool("check").text)

    def test_a_reader_without_the_right_locks_the_folder_alone(self):
        self.lock.chmod(0)
        bound = {"prefix": support.BOUND}
        self.run_tool("ls", **bound)
        self.assertIn("lock       of the folder alone", self.run_tool("info", **bound).text)
        document = self.run_tool("info", "--json", **bound).document
        self.assertEqual((False, "host"), (document["lock"]["isFile"], document["lock"]["reach"]))
        message = self.run_tool("--require-shared-lock", "ls", code=2, **bound).message
        self.assertIn("db.lock", message)
        self.assertIn("db.lock", self.fails(9, "io", "set", "a", "label=x", **bound))
        self.lock.chmod(0o600)
        self.assertTrue(self.run_tool("info", "--json").document["lock"]["isFile"])


class TokenOrderTest(InitialisedTest):
    """Where several hosts may write, each rename asks whether the lock is still held, and nothing
    comes in between."""

    ASKED = (r'flock\(\d+, LOCK_EX\|LOCK_NB\) += 0$', r'openat\(\d+, "\./db\.lock", O_RDONLY.*= (\d+)$',
             r'fadvise64\(\d+, 0, 0, POSIX_FADV_DONTNEED\) += 0$', r'read\(\d+, ".*= 256$', r'close\(\d+\) += 0$')

    @classmethod
    def fill(cls, folder):
        for name in ["a", "b"]:
            run = support.fstore("-D", folder, "put", f"settings/{name}", "-", stdin=b"x")
            assert run.code == 0, run.message

    def setUp(self):
        super().setUp()
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ed25519", "-nodes", "-subj", "/CN=one",
                        "-keyout", self.folder / "one.key", "-out", self.folder / "one.pem"],
                       check=True, capture_output=True)

    def renames_of(self, *args):
        """Each call that renamed something, with the calls before it that asked."""
        trace = self.folder / "trace"
        run = support.fstore("--require-shared-lock", *args, cwd=self.folder, stdin=b"y",
                             env={"FSTORE_NEW_PASSWORD": "new"},
                             prefix=["strace", "-f", "-qq", "-e", "signal=none", "-o", trace])
        self.assertEqual(0, run.code, run)
        calls = [line.split(maxsplit=1)[1] for line in trace.read_text().splitlines()]
        trace.unlink()
        return [calls[at - len(self.ASKED):at + 1] for at, call in enumerate(calls)
                if call.startswith("rename") and call.endswith(" = 0")]

    def test_nothing_stands_between_the_question_and_the_rename(self):
        self.run_tool("backup", "whole.tar")
        for least, command in [(1, ["put", "settings/new", "-"]), (2, ["put", "-f", "settings/a", "-"]),
                               (2, ["set", "a", "label=x"]), (1, ["rm", "-f", "a"]),
                               (1, ["mv", "settings/b", "settings/c"]), (2, ["import", "one.pem", "one.key"]),
                               (4, ["passwd", "--rotate", *support.CHEAP]),
                               (2, ["restore", "whole.tar", "--replace"]),
                               (2, ["key", "add", "--key-file", "made"])]:
            with self.subTest(command=command):
                renames = self.renames_of(*command)
                self.assertGreaterEqual(len(renames), least)
                for *before, rename in renames:
                    for pattern, call in zip(self.ASKED, before, strict=True):
                        self.assertRegex(call, pattern, (rename, before))


class ReaderRepairTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        run = support.fstore("-D", folder, "put", "-f", "settings/a", "-", stdin=b"x")
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
        self.run_tool("check")  # which notes its time in a file of its own
        before = self.times()
        for args in [("ls",), ("info",), ("check",), ("get", "a"), ("show", "a"), ("dump", "a"),
                     ("check", "--deep"), ("metrics",)]:
            self.run_tool(*args)
        self.assertEqual(before, self.times())

    def times(self):
        return {path: path.stat().st_mtime_ns for path in self.folder.rglob("*")
                if path.name != "db.state"}


if __name__ == "__main__":
    support.main()
