#!/usr/bin/env python3
"""backup and restore: the same database again, or nothing."""

import fcntl
import hashlib
import os
import pathlib
import re
import shutil
import stat
import subprocess
import tarfile
import tempfile

import support
from support import InitialisedTest
from terminal import Terminal

BODIES = {"settings/a": b"encrypted body", "lsps/b": b"plain body", "keys/empty": b""}


class BackupTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        for address, body in BODIES.items():
            options = ("--plain-body",) if address.startswith("lsps") else ()
            run = support.fstore("-D", folder, "put", address, "-", *options, stdin=body)
            assert run.code == 0, run.message

    def setUp(self):
        super().setUp()
        self.outside = pathlib.Path(tempfile.mkdtemp(prefix="fstore-backup-"))
        self.addCleanup(shutil.rmtree, self.outside)
        self.tar = self.outside / "backup.tar"

    def tree(self, folder=None):
        """Of the database: path, mode and bytes."""
        root = (folder or self.folder) / "db"
        return {str(path.relative_to(root)):
                (stat.S_IMODE(path.stat().st_mode), path.read_bytes() if path.is_file() else None)
                for path in sorted([root, *root.rglob("*")])}

    def backup(self, **more):
        return self.run_tool("backup", self.tar, password=None, **more)

    def restore(self, *options, folder=None, code=0):
        run = support.fstore("-D", folder or self.outside / "new", "restore", self.tar, *options,
                             password=None)
        self.assertEqual(code, run.code, run.message)
        return run


class RoundTest(BackupTest):
    def test_restores_the_same_bytes_and_modes(self):
        (self.folder / "db/lsps/b.dsc").chmod(0o640)
        (self.folder / "db/crls").chmod(0o500)
        before = self.tree()
        self.backup()
        self.assertEqual(before, self.tree())
        self.restore()
        self.assertEqual(before, self.tree(self.outside / "new"))
        (self.outside / "new/db/crls").chmod(0o700)
        for address, body in BODIES.items():
            run = support.fstore("-D", self.outside / "new", "get", address)
            self.assertEqual(body, run.out, run.message)
        run = support.fstore("-D", self.outside / "new", "check", "--deep")
        self.assertEqual(0, run.code, run.message)
        self.assertEqual(["db", "db.lock", "db.state"], sorted(os.listdir(self.outside / "new")))

    def test_the_umask_binds_what_a_backup_says(self):
        (self.folder / "db/lsps/b.dsc").chmod(0o666)
        self.backup()
        self.addCleanup(os.umask, os.umask(0o027))
        self.restore()
        restored = self.outside / "new/db/lsps/b.dsc"
        self.assertEqual(0o640, stat.S_IMODE(restored.stat().st_mode))

    def test_needs_no_password_and_tells_what_it_did(self):
        run = self.backup()
        files = sum(1 for _, content in self.tree().values() if content is not None)
        size = sum(len(content) for _, content in self.tree().values() if content is not None)
        self.assertEqual(f"fstore: wrote {self.tar}: {files} files in 9 folders, {size} bytes, "
                         "verified\n", run.message)
        self.assertEqual(b"", run.out)
        run = self.restore()
        self.assertEqual(f"fstore: restored {self.tar} to {self.outside / 'new'}: "
                         f"{files} files in 9 folders, {size} bytes\n"
                         "fstore: it opens with what opened it at the backup: slot 1 (password)\n",
                         run.message)

    def test_documents(self):
        document = self.run_tool("backup", self.tar, "--json").document["backup"]
        with tarfile.open(self.tar) as tar:
            manifest = tar.extractfile("MANIFEST.sha256").read()
        self.assertEqual(hashlib.sha256(manifest).hexdigest(), document["manifestSha256"])
        self.assertEqual(9, document["folderCount"])
        self.assertTrue(document.pop("verified"))
        self.assertEqual(0, document.pop("damageCount"))
        run = support.fstore("-D", self.outside / "new", "restore", self.tar, "--json")
        self.assertEqual(document, run.document["restored"])
        self.assertEqual([(1, "password")], [(slot["slot"], slot["kind"])
                                             for slot in run.document["slots"]])
        self.assertNotIn("kept", run.document)

    def test_brings_the_slots_of_its_day_back(self):
        self.backup()
        self.run_tool("passwd", *support.CHEAP, env={"FSTORE_NEW_PASSWORD": "new"})
        self.run_tool("key", "add", "--key-file", self.outside / "host.key", password="new")
        self.restore()
        run = support.fstore("-D", self.outside / "new", "key", "test")
        self.assertEqual((0, "opens slot 1 (password)\n"), (run.code, run.text))
        run = support.fstore("-D", self.outside / "new", "key", "test", "--key-file",
                             self.outside / "host.key", password=None)
        self.assertEqual(6, run.code)

    def test_a_backup_without_slots_is_told(self):
        for name in ("kdf", "kdf-copy"):
            (self.folder / f"db/{name}.dsc").unlink()
        self.backup()
        run = support.fstore("-D", self.outside / "new", "restore", self.tar)
        self.assertEqual(0, run.code, run)
        self.assertIn("warning: the backup has no slots", run.message)

    def test_a_backup_whose_slots_cannot_be_read_is_restored_all_the_same(self):
        for name in ("kdf", "kdf-copy"):
            (self.folder / f"db/{name}.dsc").write_text("nothing\n")
        self.backup()
        run = self.restore()
        self.assertIn("warning: restored, but neither copy of the slots can be read", run.message)

    def test_same_database_makes_the_same_file(self):
        self.backup()
        first = self.tar.read_bytes()
        self.run_tool("backup", self.tar, "--force")
        self.assertEqual(first, self.tar.read_bytes())

    def test_file_is_the_owners_alone(self):
        self.backup()
        self.assertEqual(0o600, stat.S_IMODE(self.tar.stat().st_mode))
        self.assertEqual(["backup.tar"], os.listdir(self.outside))

    def test_existing_file_is_kept_unless_forced(self):
        self.tar.write_bytes(b"mine")
        self.assertIn("--force", self.fails(4, "invalid", "backup", self.tar))
        self.assertEqual(b"mine", self.tar.read_bytes())

    def test_other_programs_unpack_and_check_it(self):
        self.backup()
        command = ("tar xpf backup.tar && sha256sum --strict --quiet -c MANIFEST.sha256 && "
                   f"diff -r db '{self.folder}/db'")
        subprocess.run(command, shell=True, cwd=self.outside, check=True)

    def test_names_of_every_kind(self):
        odd = {"settings/" + name: name.encode() for name in
               ("n" * 240, "back\\slash", "Zürich 東京", "a b")}
        for address, body in odd.items():
            self.put(address, body)
        self.backup()
        self.restore()
        for address, body in odd.items():
            run = support.fstore("-D", self.outside / "new", "get", address)
            self.assertEqual(body, run.out, run.message)

    def test_large_body_in_little_memory(self):
        with open(self.folder / "db/settings/00000fff", "wb") as file:
            file.truncate(300 << 20)
        self.backup(memory=200 << 20)
        run = support.fstore("-D", self.outside / "new", "restore", self.tar, memory=200 << 20)
        self.assertEqual(0, run.code, run.message)
        self.assertEqual(300 << 20, (self.outside / "new/db/settings/00000fff").stat().st_size)

    def test_what_is_no_file_is_left_out_and_told(self):
        (self.folder / "db/settings/link").symlink_to("/etc/passwd")
        os.mkfifo(self.folder / "db/settings/fifo")
        run = self.backup(code=5)
        self.assertIn("warning: left out ./db/settings/fifo: it is neither a file nor a folder",
                      run.message)
        self.assertIn("warning: left out ./db/settings/link", run.message)
        self.restore()
        self.assertEqual([], [name for name in os.listdir(self.outside / "new/db/settings")
                              if name in ("link", "fifo")])

    def test_into_the_folder_of_the_database(self):
        self.run_tool("backup", "backup.tar")
        self.run_tool("restore", "backup.tar", "--replace")
        self.assert_sound()

    def test_into_the_database_itself(self):
        (self.folder / "link").symlink_to("db/settings")
        before = self.files()
        for name in ("db/all", "db/../db/settings/all", "link/all"):
            self.assertIn("inside the database", self.fails(4, "invalid", "backup", name))
        self.assertEqual(before, self.files())

    def test_streams_are_refused(self):
        self.fails(2, "usage", "restore", "-")

    def test_no_database(self):
        empty = self.outside / "empty"
        empty.mkdir()
        run = support.fstore("-D", empty, "backup", self.tar)
        self.assertEqual(50, run.code)
        self.assertFalse(self.tar.exists())
        self.assertEqual([], os.listdir(empty))

    def test_busy_database(self):
        self.backup()
        held = os.open(self.folder, os.O_RDONLY)
        self.addCleanup(os.close, held)
        fcntl.flock(held, fcntl.LOCK_SH)
        self.run_tool("backup", self.tar, "--force", "--lock-timeout", 0)
        self.fails(33, "busy", "restore", self.tar, "--replace", "--lock-timeout", 0)
        fcntl.flock(held, fcntl.LOCK_EX)
        self.fails(33, "busy", "backup", self.tar, "--force", "--lock-timeout", 0)


class ReplaceTest(BackupTest):
    def test_existing_database_is_not_touched_without_it(self):
        self.backup()
        before = self.files()
        self.assertIn("--replace", self.fails(4, "invalid", "restore", self.tar))
        self.assertEqual(before, self.files())

    def test_old_database_is_kept_under_another_name(self):
        self.backup()
        then = self.tree()
        self.put("settings/a", b"changed")
        changed = self.tree()
        run = self.run_tool("restore", self.tar, "--replace", "--json", password=None)
        self.assertEqual(then, self.tree())
        kept = run.document["keptAs"]
        self.assertRegex(kept, r"\A\./db-\d{8}T\d{6}Z\Z")
        self.assertEqual(sorted(["db", "db.lock", kept[2:]]), self.entries())
        os.rename(self.folder / "db", self.folder / "gone")
        os.rename(self.folder / kept, self.folder / "db")
        self.assertEqual(changed, self.tree())
        self.assertEqual(b"changed", self.body("settings/a"))

    def test_each_old_database_has_a_name_of_its_own(self):
        self.backup()
        for count in (3, 4, 5):
            self.run_tool("restore", self.tar, "--replace")
            self.assertEqual(count, len(self.entries()))

    def test_database_kept_by_a_change_of_password_stays(self):
        self.backup()
        self.run_tool("passwd", "--keep-old", "--cost", "14",
                      env={"FSTORE_NEW_PASSWORD": "another"})
        self.run_tool("restore", self.tar, "--replace")
        names = sorted(re.sub(r"\d", "0", name) for name in self.entries()
                       if name != "db.lock")
        self.assertEqual(["db", "db-00000000T000000Z"], sorted(set(name[:19] for name in names)))
        self.assertEqual(3, len(names))
        self.assertEqual(BODIES["settings/a"], self.body("settings/a"))

    def test_broken_off_change_of_password_is_put_back_first(self):
        self.backup()
        before = self.tree()
        os.rename(self.folder / "db", self.folder / "old_db")
        self.fails(4, "invalid", "restore", self.tar)
        self.run_tool("restore", self.tar, "--replace")
        self.assertEqual(before, self.tree())
        self.assertEqual(3, len(self.entries()))

    def test_leftover_of_a_broken_restore_is_replaced(self):
        self.backup()
        (self.folder / "new_db").mkdir()
        (self.folder / "new_db/junk.dsc").write_bytes(b"x")
        self.run_tool("restore", self.tar, "--replace")
        self.assertEqual(b"encrypted body", self.body("settings/a"))
        self.assertFalse((self.folder / "db/junk.dsc").exists())


class HostileTest(BackupTest):
    def setUp(self):
        super().setUp()
        self.backup()
        self.good = self.tar.read_bytes()

    def refused(self, what, code=59):
        """Refused by itself and in front of a database, with nothing written."""
        before = self.files()
        self.restore(code=code)
        self.assertFalse((self.outside / "new").exists(), what)
        run = self.run_tool("restore", self.tar, "--replace", code=code)
        self.assertEqual(before, self.files(), what)
        return run.message

    def test_changed_bytes(self):
        for at in range(0, len(self.good), len(self.good) // 40):
            changed = bytearray(self.good)
            changed[at] ^= 1
            self.tar.write_bytes(changed)
            self.refused(at)

    def test_cut_off(self):
        for size in (0, 1, 511, 512, len(self.good) // 2, len(self.good) - 512, len(self.good) - 1):
            self.tar.write_bytes(self.good[:size])
            self.assertIn(str(self.tar), self.refused(size))

    def test_archives_of_other_programs(self):
        for member in ("../evil", "/evil", "db/../../evil", "db/evil"):
            with tarfile.open(self.tar, "w") as tar:
                info = tarfile.TarInfo(member)
                info.size = 0
                tar.addfile(info)
            self.assertIn("not a backup made by fstore", self.refused(member))
        with tarfile.open(self.tar, "w") as tar:
            info = tarfile.TarInfo("db")
            info.type = tarfile.SYMTYPE
            info.linkname = "/etc"
            tar.addfile(info)
        self.refused("link")

    def test_what_is_no_archive(self):
        self.tar.write_bytes(b"hello")
        self.refused("text")
        self.tar.unlink()
        self.refused("nothing", code=50)
        self.tar.mkdir()
        self.refused("folder", code=4)


class LookTest(BackupTest):
    """What a backup has, without a database and without a password."""

    def look(self, *args, code=0, **more):
        empty = self.outside / "empty"
        empty.mkdir(exist_ok=True)
        run = support.fstore("-D", empty, *args, password=None, **more)
        self.assertEqual(code, run.code, run.message)
        self.assertEqual([], os.listdir(empty))
        return run

    def test_verify(self):
        written = self.run_tool("backup", self.tar, "--json").document["backup"]
        self.assertRegex(self.look("backup", "--verify", self.tar).message,
                         r"\Afstore: .*backup.tar is whole: \d+ files in 9 folders, \d+ bytes\n\Z")
        told = self.look("backup", "--verify", self.tar, "--json").document["backup"]
        self.assertEqual(0, written.pop("damageCount"))
        self.assertEqual(written, told)
        bytes_ = self.tar.read_bytes()
        self.look("backup", "--verify", "-", stdin=bytes_)
        for at in 600, len(bytes_) // 2, len(bytes_) - 1100:
            changed = bytearray(bytes_)
            changed[at] ^= 1
            run = self.look("backup", "--verify", "-", stdin=bytes(changed), code=59)
            self.assertIn("fstore: error: the standard input: ", run.message)
        self.tar.write_bytes(bytes_[:-1])
        self.assertIn("truncated", self.look("backup", "--verify", self.tar, code=59).message)
        self.look("backup", "--verify", "--force", self.tar, code=2)

    def test_by_way_of_a_pipe(self):
        stream = self.run_tool("backup", "-", password=None).out
        self.look("backup", "--verify", "-", stdin=stream)
        self.backup()
        self.assertEqual(self.tar.read_bytes(), stream)

    def test_not_to_a_terminal(self):
        shown = Terminal(["backup", "-"], cwd=self.folder)
        self.addCleanup(shown.close)
        self.assertEqual(2, shown.wait())
        self.assertIn("a backup is no text", shown.seen)

    def test_list(self):
        self.backup()
        listed = self.look("restore", "--list", self.tar, "--json").document
        paths = {"db/" + path if path != "." else "db": (f"{mode:04o}", content)
                 for path, (mode, content) in self.tree().items()}
        self.assertEqual(sorted(paths), sorted(file["path"] for file in listed["files"]))
        for file in listed["files"]:
            mode, content = paths[file["path"]]
            self.assertEqual((mode, content is None, len(content or b"")),
                             (file["mode"], file["isFolder"], file["size"]))
        text = self.look("restore", "--list", self.tar).text
        self.assertRegex(text, r"(?m)^0\d\d\d  +\d+ +db/settings/a\.dsc$")
        self.assertRegex(text, r"(?m)^0\d\d\d +db/settings/$")

    def test_list_on_a_narrow_terminal_cuts_paths_alone(self):
        self.put("settings/" + "long" * 20, b"x" * 12345, "--plain-body")
        self.backup()
        terminal = Terminal(["restore", "--list", self.tar], cwd=self.outside, columns=24)
        self.addCleanup(terminal.close)
        self.assertEqual(0, terminal.wait(), terminal.seen)
        self.assertRegex(terminal.seen, r"(?m)^0\d\d\d  12345 +db/\S*…\S*\r$")
        self.assertRegex(terminal.seen, r"(?m)^0\d\d\d  203    db/\S*…\S*\.dsc\r$")

    def test_list_of_a_damaged_one_prints_nothing(self):
        self.backup()
        changed = bytearray(self.tar.read_bytes())
        changed[-1500] ^= 1
        self.tar.write_bytes(changed)
        self.assertEqual(b"", self.look("restore", "--list", self.tar, "--json", code=59).out)


class AsItIsTest(BackupTest):
    def test_damaged_source_is_told(self):
        (self.folder / "db/settings/a.dsc").write_bytes(b"whatever")
        run = self.backup()
        self.assertIn("warning: the database is damaged, and so is the backup: 2;", run.message)
        run = self.run_tool("backup", self.tar, "--force", "--json")
        self.assertEqual(2, run.document["backup"]["damageCount"])

    def test_damaged_database(self):
        (self.folder / "db/key.dsc").write_bytes(b"whatever")
        before = self.tree()
        self.backup()
        self.restore()
        self.assertEqual(before, self.tree(self.outside / "new"))
        self.assertEqual(3, support.fstore("-D", self.outside / "new", "check").code)

    def test_what_a_crash_left_is_kept_for_repair(self):
        path = self.folder / "db/settings/a.dsc"
        path.rename(str(path) + ".$o$")
        before = self.tree()
        self.backup()
        self.assertEqual(before, self.tree())
        self.restore()
        run = support.fstore("-D", self.outside / "new", "get", "settings/a")
        self.assertEqual(BODIES["settings/a"], run.out, run.message)

    def test_database_that_was_moved_aside_is_put_back(self):
        before = self.tree()
        os.rename(self.folder / "db", self.folder / "old_db")
        self.backup()
        self.assertEqual(before, self.tree())


if __name__ == "__main__":
    support.main()
