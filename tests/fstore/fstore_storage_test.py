#!/usr/bin/env python3
"""A disk that is full, folders that cannot be written, files that are damaged or missing.

Each ends with its exit code and one sentence, and leaves a database that is whole.
"""

import os
import shutil
import subprocess

import support
from support import CHEAP, InitialisedTest

TRAP = {"LD_PRELOAD": support.CALL_TRAP}
WRITES = [("put", "-f", "settings/a", "-"), ("put", "settings/new", "-"), ("set", "a", "label=x"),
          ("set", "a", "--encrypt", "0x8001=x"), ("passwd", *CHEAP)]


class StorageTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        run = support.fstore("-D", folder, "put", "-f", "settings/a", "-", stdin=b"body")
        assert run.code == 0, run.message

    def assert_unchanged(self):
        self.assertEqual(b"body", self.body("a"))
        self.assertEqual(["settings/a"], self.records())
        self.run_tool("check", "--repair")
        self.assert_sound()

    def fails_with_io(self, *args, **more):
        env = {"FSTORE_NEW_PASSWORD": "new", **more.pop("env", {})}
        message = self.fails(9, "io", *args, stdin=b"new body", env=env, **more)
        self.assertRegex(message, "settings/a|settings/new|./kdf|folder|out")
        return message


class FullDiskTest(StorageTest):
    def test_nothing_can_be_stored(self):
        for args in [*WRITES, ("get", "a", "-o", "out")]:
            with self.subTest(args=args):
                self.assertRegex(self.fails_with_io(*args, env={**TRAP, "CALL_TRAP_FULL": 1}),
                                 "full|No space left")
                self.assertEqual(["db", "db.lock"], self.entries())
        self.assert_unchanged()

    def test_each_failure_has_the_reason_of_the_system(self):
        for args in WRITES[:4]:
            for call in range(1, 12):
                run = support.fstore(*args, cwd=self.folder, stdin=b"new body",
                                     env={**TRAP, "CALL_TRAP_FULL": call})
                if run.code != 0:
                    self.assertIn("No space left on device", run.message, (args, call))
                    self.assertRegex(run.message, "settings/(a|new)")

    def test_no_room_for_a_new_database(self):
        for call in 1, 2, 3:
            message = self.fails(9, "io", "-D", f"new{call}", "init",
                                 env={**TRAP, "CALL_TRAP_FULL": call})
            self.assertRegex(message, f"new{call}.*: No space left on device")
        self.run_tool("-D", "new", "init", *CHEAP)
        self.run_tool("-D", "new", "check", "--deep")

    def test_room_is_not_needed_to_make_some(self):
        self.run_tool("rm", "a", env={**TRAP, "CALL_TRAP_FULL": 1})
        self.assertEqual([], self.records())
        self.assert_sound()

    def test_files_that_may_not_grow(self):
        large = self.write("large", os.urandom(100_000))
        before = self.entries()
        for args in [("put", "settings/new", "large"), ("put", "-f", "settings/a", "large"),
                     ("backup", "out")]:
            with self.subTest(args=args):
                self.fails(9, "io", *args, prefix=["prlimit", "--fsize=8192"])
                self.assertEqual(before, self.entries())
        large.unlink()
        self.assert_unchanged()

    def test_a_small_file_system(self):
        # In a mount namespace of its own; where the system grants none, the tests above
        # have shown the same by failing calls.
        isolated = ["unshare", "-m"] if os.geteuid() == 0 else ["unshare", "-rm"]
        script = r"""
            set -eu
            mount -t tmpfs -o size=400k none "$1"
            cp -r "$2/db" "$1/db"
            cd "$1"
            head -c 1000000 /dev/urandom > "$2/large"
            code=0; "$0" put settings/large "$2/large" || code=$?; echo "put $code"
            code=0; "$0" -q check --repair || code=$?; echo "repair $code"
            code=0; "$0" -q check --deep || code=$?; echo "check $code"
            code=0; "$0" get a || code=$?; echo " get $code"
            echo smaller | "$0" -q put settings/large -; echo "smaller $?"
            """
        (self.folder / "small").mkdir()
        if subprocess.run([*isolated, "mount", "-t", "tmpfs", "none", self.folder / "small"],
                          capture_output=True, check=False).returncode != 0:
            print("no right to mount: the trap alone plays a full disk", flush=True)
            return
        run = subprocess.run([*isolated, "sh", "-c", script, support.PROGRAM,
                              self.folder / "small", self.folder], capture_output=True,
                             check=False, text=True,
                             env=support.environment(FSTORE_PASSWORD=support.PASSWORD))
        self.assertEqual("put 9\nrepair 0\ncheck 0\nbody get 0\nsmaller 0\n", run.stdout,
                         run.stderr)
        self.assertIn("cannot write settings/large", run.stderr)


class ReadOnlyTest(StorageTest):
    READS = [("ls",), ("info",), ("show", "a", "--unlock"), ("get", "a"), ("dump", "a"),
             ("check", "--deep")]

    def test_folders_that_the_user_may_not_write(self):
        folders = [self.folder, *(path for path in self.folder.rglob("*") if path.is_dir())]
        for path in folders:
            self.addCleanup(path.chmod, 0o700)
            path.chmod(0o500)
        before = self.files()
        for args in self.READS:
            self.run_tool(*args, prefix=support.BOUND)
        for args in [*WRITES, ("rm", "a"), ("get", "a", "-o", "out"), ("-D", "new", "init")]:
            with self.subTest(args=args):
                self.fails_with_io(*args, prefix=support.BOUND)
        self.assertEqual(before, self.files())

    def test_a_medium_that_cannot_be_written(self):
        env = {**TRAP, "CALL_TRAP_FAIL_FROM": 1, "CALL_TRAP_ERRNO": 30}  # EROFS
        before = self.files()
        for args in self.READS:
            self.run_tool(*args, env=env)
        for args in [*WRITES, ("rm", "a"), ("get", "a", "-o", "out")]:
            with self.subTest(args=args):
                self.fails_with_io(*args, env=env)
        self.assertEqual(before, self.files())


class DamageTest(StorageTest):
    def test_each_kind_of_damage_has_its_code(self):
        settings = self.folder / "db/settings"
        body = next(path for path in settings.iterdir() if path.suffix == "")
        descriptor = settings / "a.dsc"

        def truncate():
            body.write_bytes(body.read_bytes()[:-1])

        cases = [
            ("body cut short", truncate, 9, "io", "cannot decrypt settings/a"),
            ("body missing", body.unlink, 50, "missing", "fstore check"),
            ("descriptor of nonsense", lambda: descriptor.write_text("nonsense\n"), 59,
             "malformed", "cannot read settings/a"),
            ("descriptor missing", descriptor.unlink, 50, "missing",
             "there is no record settings/a; `fstore ls` lists all"),
            ("folder missing", lambda: shutil.rmtree(settings), 50, "missing", "settings/a"),
            ("database missing", lambda: shutil.rmtree(self.folder / "db"), 50, "missing",
             "fstore init"),
        ]
        sound = {path: path.read_bytes() for path in (self.folder / "db").rglob("*")
                 if path.is_file()}
        for name, damage, code, word, sentence in cases:
            with self.subTest(name):
                damage()
                self.assertIn(sentence, self.fails(code, word, "get", "settings/a"))
                for path, contents in sound.items():
                    path.parent.mkdir(parents=True, exist_ok=True)
                    path.write_bytes(contents)
        self.run_tool("check", "--repair")  # the folders that are empty
        self.assert_unchanged()

    def test_what_may_not_be_read_is_no_damage(self):
        settings = self.folder / "db/settings"
        body = next(path for path in settings.iterdir() if path.suffix == "")
        self.put("settings/b", b"other")
        for path, sound in [(settings / "a.dsc", 5), (body, 0), (self.folder / "db/kdf.dsc", 9)]:
            with self.subTest(path.name):
                path.chmod(0)
                before = self.files()
                message = self.fails(9, "io", "get", "settings/a", prefix=support.BOUND)
                self.assertEqual(f"cannot open ./{path.relative_to(self.folder)}: "
                                 "Permission denied", message)
                for args in [("passwd", *CHEAP), ("set", "settings/a", "label=x"),
                             ("put", "-f", "settings/a", "-")]:
                    message = self.fails(9, "io", *args, prefix=support.BOUND,
                                         env={"FSTORE_NEW_PASSWORD": "new"})
                    self.assertIn(f"{path.name}: Permission denied", message)
                run = self.run_tool("ls", code=sound, prefix=support.BOUND)
                self.assertEqual(sound != 0, "Permission denied" in run.message)
                run = self.run_tool("check", "--json", code=5, prefix=support.BOUND)
                self.assertFalse(run.document["sound"])
                self.assertEqual({"unreadable"}, {one["kind"] for one in run.document["findings"]})
                self.assertIn("Permission denied", run.text)
                self.run_tool("check", "--repair", code=5, prefix=support.BOUND)
                self.assertEqual(before, self.files())
                path.chmod(0o600)
        self.assert_sound()

    def test_a_file_in_the_place_of_a_folder(self):
        shutil.rmtree(self.folder / "db/crls")
        self.write("db/crls", "mine")
        for args in [("put", "settings/b", "-"), ("init",), ("passwd", *CHEAP)]:
            message = self.fails(4, "invalid", *args, env={"FSTORE_NEW_PASSWORD": "new"})
            self.assertIn("./db/crls is a file, and the database needs a folder", message)
        shutil.rmtree(self.folder / "db")
        self.write("db", "mine")
        for args in [("ls",), ("init",), ("check",), ("get", "a"), ("backup", "out")]:
            self.assertIn("./db in this folder is not a folder", self.fails(4, "invalid", *args))
        self.assertEqual({"db": b"mine"}, self.files())

    def test_unknown_files_with_markers_stay(self):
        settings = self.folder / "db/settings"
        body = next(path.name for path in settings.iterdir() if path.suffix == "")
        mine = b"00000004 00000102 mine\n"
        names = [f"{body}.$o$", "0000ffff.$o$", "notes.$d$", "notes.$n$", "notes.$o$"]
        for name in names:
            (settings / name).write_bytes(mine)
        self.assertEqual(["settings/a"], self.records())
        self.put("settings/b", b"other")
        document = self.run_tool("check", "--repair", "--json").document
        self.assertEqual([], document["repaired"])
        self.assertEqual({"unknown-file"}, {one["kind"] for one in document["findings"]})
        self.assertIn("whose name ends as that of a saved descriptor",
                      self.fails(4, "invalid", "passwd", *CHEAP,
                                 env={"FSTORE_NEW_PASSWORD": "new"}))
        for name in names:
            self.assertEqual(mine, (settings / name).read_bytes(), name)
        self.assertEqual(b"body", self.body("settings/a"))

    def test_a_damaged_record_does_not_keep_others_from_work(self):
        (self.folder / "db/settings/bad.dsc").write_text("nonsense\n")
        self.put("settings/b", b"other")
        self.assertEqual(b"other", self.body("settings/b"))
        self.assertEqual(b"body", self.body("settings/a"))
        self.run_tool("rm", "settings/bad")
        self.assert_sound()

    def test_unknown_files_in_the_folders_are_left_alone(self):
        settings = self.folder / "db/settings"
        (settings / "notes.txt").write_text("mine")
        (settings / "a.dsc~").write_text("mine")
        (settings / "sub").mkdir()
        self.put("settings/b", b"other")
        self.assertEqual(b"body", self.body("settings/a"))
        self.assertEqual(["settings/a", "settings/b"], self.records())
        self.run_tool("passwd", *CHEAP, env={"FSTORE_NEW_PASSWORD": "new"})
        self.assertEqual("mine", (settings / "notes.txt").read_text())
        self.assertEqual("mine", (settings / "a.dsc~").read_text())
        self.assertEqual(b"other", self.body("settings/b", password="new"))

    def test_what_is_no_file_keeps_nobody_waiting(self):
        settings = self.folder / "db/settings"
        os.mkfifo(settings / "pipe.dsc")
        (settings / "loop.dsc").symlink_to("loop.dsc")
        self.put("settings/b", b"other")
        self.assertEqual(["settings/a", "settings/b"], self.records())
        self.fails(50, "missing", "get", "settings/pipe")
        self.run_tool("check", "--deep")
        for name in ["loop.dsc", "pipe.dsc"]:
            message = self.fails(4, "invalid", "passwd", *CHEAP,
                                 env={"FSTORE_NEW_PASSWORD": "new"})
            self.assertRegex(message, r"\./db/settings/(loop|pipe)\.dsc is neither .* move it")
            (settings / name).unlink()
        self.assertEqual(b"body", self.body("settings/a"))
        self.run_tool("passwd", *CHEAP, env={"FSTORE_NEW_PASSWORD": "new"})


if __name__ == "__main__":
    support.main()
