#!/usr/bin/env python3
"""The index of a large database: when there is one, and that it answers as a look at all records."""

import hashlib
import os
import re
import shutil
import sqlite3
import stat
import tempfile

import pki
import support
from support import InitialisedTest

MANY = 10_001


def digest(number):
    return hashlib.sha256(b"%d" % number).hexdigest()


def descriptor(number):
    """A certificate's, as an import writes it, without a body."""
    return (f"00000001 00000101 00000001\n"
            f"00000004 00000103 CN=host{number}.example.com\n"
            f"00000004 00000107 20{26 + number % 50}-01-01T00:00:00Z\n"
            f"00000002 00000109 {digest(number)}\n")


class LargeTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        remote = folder / "db/certificates/remote"
        for number in range(MANY):
            (remote / f"r{number}.dsc").write_text(descriptor(number))

    QUESTIONS = (["ls", "--subject", "*host77.*"], ["ls", "--expired"], ["ls", "--expires-within", "2y"],
                 ["ls", "--sha256", digest(5)[:3]], ["ls", "--has-key"], ["ls", "--attr", "label=x"],
                 ["ls", "certificates/local", "--subject", "*"],
                 ["show", f"sha256:{digest(9)[:16]}"], ["show", "r12"], ["show", "nobody"])

    def setUp(self):
        super().setUp()
        self.index = self.folder / "db.index"

    def answers(self, **more):
        runs = [support.fstore("--json", *question, cwd=self.folder, **more)
                for question in self.QUESTIONS]
        return [(run.code, run.out, run.err) for run in runs]

    def without_index(self):
        """What a copy of the database answers, whose index cannot be made."""
        with tempfile.TemporaryDirectory(prefix="fstore-copy-") as copy:
            shutil.copytree(self.folder / "db", f"{copy}/db")
            os.mkdir(f"{copy}/db.index")
            runs = [support.fstore("--json", *question, cwd=copy) for question in self.QUESTIONS]
        return [(run.code, run.out, run.err) for run in runs]

    def test_answers_as_a_look_at_all_records(self):
        self.run_tool("show", "r1")
        self.assertFalse(self.index.exists(), "a name needs none")
        expected = self.without_index()
        self.assertEqual(expected, self.answers())
        self.assertEqual(0o600, stat.S_IMODE(self.index.stat().st_mode))
        self.assertEqual(expected, self.answers())
        self.run_tool("set", "certificates/remote/r3", "label=x")
        self.run_tool("rm", "--force", "certificates/remote/r9")
        (self.folder / "db/certificates/remote/r77.dsc").rename(self.folder / "db/keys/moved.dsc")
        expected = self.without_index()
        self.assertEqual(expected, self.answers())
        self.assertEqual(expected, self.answers())

    def test_an_import_knows_what_is_there(self):
        leaf, key = pki.files() / "leaf.pem", pki.files() / "rsa.key"
        outcomes = []
        for file in (leaf, leaf, key, leaf):
            document = self.run_tool("--json", "import", file).document
            outcomes += [record["outcome"] for record in document["records"]]
        self.assertTrue(self.index.exists())
        shutil.copytree(self.folder / "db", self.folder / "small/db")
        small = self.folder / "small"
        for path in (small / "db/certificates/remote").glob("r*.dsc"):
            path.unlink()
        wanted = []
        for address in self.run_tool("-D", small, "ls", "--json").document["records"]:
            self.run_tool("-D", small, "rm", "--force", address["address"])
        for file in (leaf, leaf, key, leaf):
            document = self.run_tool("-D", small, "--json", "import", file).document
            wanted += [record["outcome"] for record in document["records"]]
        self.assertEqual(wanted, outcomes)
        self.assertFalse((small / "db.index").exists(), "few records need none")

    def made(self):
        """Has the index made by a command that may set the times of folders."""
        self.run_tool("import", pki.files() / "rsa.key")
        self.assertTrue(self.index.exists())

    def listings(self, *args):
        """The folders that a command lists."""
        trace = self.folder / "trace"
        run = support.fstore("-D", self.folder, *args, prefix=[
            "strace", "-f", "-y", "-qq", "-e", "trace=getdents64", "-o", trace])
        self.assertEqual(0, run.code, run.message)
        return [line for line in trace.read_text().splitlines() if "/db" in line]

    def test_beside_it_nothing_is_listed(self):
        self.made()
        leaf = pki.files() / "leaf.pem"
        for command in (["import", leaf], ["import", leaf], ["ls", "--expired"],
                        ["ls", "--sha256", digest(5)], ["show", "r12"],
                        ["show", f"sha256:{digest(9)[:16]}"]):
            with self.subTest(command=command):
                self.assertEqual([], self.listings(*command))

    def test_an_import_reads_no_key_that_says_plainly_which_it_is(self):
        keys = self.folder / "db/keys"
        for number in range(30):
            (keys / f"sealed{number}.dsc").write_text(
                f"00000001 00000101 00000003\n00000002 0000010b {digest(-number)}\n"
                f"11000003 00000000 {number + 1:08x}\n")
            (keys / f"{number + 1:08x}").write_bytes(b"encrypted")
        self.made()
        trace = self.folder / "trace"
        run = support.fstore("-D", self.folder, "import", pki.files() / "rsa.key", prefix=[
            "strace", "-f", "-qq", "-e", "trace=openat,open", "-o", trace])
        self.assertEqual(0, run.code, run.message)
        opened = re.findall(r'db/keys/sealed\d+\.dsc"', trace.read_text())
        self.assertEqual([], opened)

    def test_what_a_crash_left_is_put_back(self):
        self.put("certificates/remote/other", b"x", "--plain-body")
        self.made()
        descriptor_of_r3 = self.folder / "db/certificates/remote/r3.dsc"
        aside = descriptor_of_r3.with_name("r3.dsc.$o$")
        for is_known in (False, True):
            with self.subTest(is_known=is_known):
                descriptor_of_r3.rename(aside)
                if is_known:  # this asks for all bodies of the folder, and repairs no other record
                    self.run_tool("set", "certificates/remote/other", "label=x")
                    self.assertTrue(aside.exists())
                    self.assertFalse(descriptor_of_r3.exists())
                document = self.run_tool("ls", "--sha256", digest(3), "--json").document
                self.assertEqual(["certificates/remote/r3"],
                                 [record["address"] for record in document["records"]])
                self.assertFalse(aside.exists())
                self.run_tool("import", pki.files() / "rsa.key")

    def test_killed_at_each_call_of_a_write(self):
        self.made()
        command = ("set", "certificates/remote/r3", "label={}")
        calls = self.folder / "calls"
        self.run_tool(*command[:2], "label=0", env={"LD_PRELOAD": support.CALL_TRAP,
                                                    "CALL_TRAP_COUNT": calls})
        count = int(calls.read_text())
        self.assertGreater(count, 5)
        before = "0"
        for call in range(1, count + 1):
            with self.subTest(call=call):
                support.fstore("-D", self.folder, *command[:2], f"label={call}",
                               env={"LD_PRELOAD": support.CALL_TRAP, "CALL_TRAP_DIE": call})
                document = self.run_tool("ls", "--sha256", digest(3), "--json").document
                (record,) = document["records"]
                self.assertIn(record["label"], (before, str(call)))
                before = record["label"]
        self.assertEqual(self.without_index(), self.answers())

    def test_is_no_part_of_the_database(self):
        self.answers()
        self.assertTrue(self.index.exists())
        self.assertEqual([], self.run_tool("check", "--json").document["findings"])
        archive = self.folder / "backup"
        self.run_tool("backup", archive)
        self.assertNotIn(b"db.index", archive.read_bytes())
        self.run_tool("check", "--repair")
        self.assertEqual([], list(self.folder.glob("db.index*")))

    def test_a_bad_one_is_as_none(self):
        expected = self.answers()
        good = self.index.read_bytes()
        for name, contents in (("garbage", good[:100] + b"g" * 99_999), ("empty", b""),
                               ("cut", good[:50_000])):
            with self.subTest(name):
                self.index.write_bytes(contents)
                self.index.chmod(0o600)
                self.assertEqual(expected, self.answers())
                self.run_tool("set", "certificates/remote/r3", "0x8001=x")
                self.assertEqual(expected, self.answers())

    def foreign(self):
        """What somebody has under the name of the index, one after the other: names of them."""
        other = self.folder / "other"
        with sqlite3.connect(other) as connection:
            connection.execute("CREATE TABLE mine(text)")
        connection.close()
        for name, make in (("text", lambda: self.index.write_text("mine")),
                           ("database", lambda: shutil.copy(other, self.index)),
                           ("folder", self.index.mkdir),
                           ("FIFO", lambda: os.mkfifo(self.index)),
                           ("link", lambda: self.index.symlink_to(other)),
                           ("link to nothing", lambda: self.index.symlink_to("nothing"))):
            make()
            yield name
            if name == "folder":
                self.index.rmdir()
            else:
                self.index.unlink()

    def test_what_is_somebodys_stays(self):
        key = pki.files() / "rsa.key"
        self.run_tool("import", key)
        question = ("ls", "--subject", "*host77.*")
        expected = self.run_tool(*question).out
        self.run_tool("check", "--repair")
        for name in self.foreign():
            with self.subTest(name):
                before = self.index.lstat()
                listed = self.run_tool(*question)
                self.assertEqual(expected, listed.out)
                self.assertEqual(1, listed.message.count("db.index is not an index of records"), listed.message)
                self.assertIn("move it elsewhere", listed.message)
                self.assertNotIn("db.index", self.run_tool("show", "r1").message)
                self.run_tool("import", "--replace", key)
                for more in ([], ["--repair"]):
                    findings = self.run_tool("check", *more, "--json").document["findings"]
                    self.assertEqual([("unknown-file", "./db.index", "none")],
                                     [(each["kind"], each["path"], each["repair"]) for each in findings])
                after = self.index.lstat()
                self.assertEqual((before.st_ino, before.st_mtime_ns, before.st_size),
                                 (after.st_ino, after.st_mtime_ns, after.st_size))
        self.assertEqual([], list(self.folder.glob("db.index*")))

    def test_has_no_secret_in_it(self):
        self.put("keys/hidden", b"the secret of it")
        self.run_tool("set", "keys/hidden", "--encrypt", "0x8001=a hidden note")
        self.answers()
        kept = b"".join(path.read_bytes() for path in self.folder.glob("db.index*"))
        self.assertIn(b"host77", kept)
        for secret in (b"the secret of it", b"a hidden note",
                       hashlib.sha256(b"the secret of it").digest()):
            self.assertNotIn(secret, kept)

    def test_is_in_the_cache_where_the_folder_is_not_ours_to_write(self):
        expected = self.answers()
        for path in self.folder.glob("db.index*"):
            path.unlink()
        cache = self.folder / "cache"
        cache.mkdir()
        if os.geteuid() == 0:
            os.chown(self.folder, 65534, -1)
        else:
            self.folder.chmod(0o500)
            self.addCleanup(self.folder.chmod, 0o700)
        self.assertEqual(expected, self.answers(env={"XDG_CACHE_HOME": cache}))
        self.assertEqual([], list(self.folder.glob("db.index*")))
        (index,) = cache.glob("fstore/*.index")
        self.assertRegex(index.name, r"\A[0-9a-f]{64}\.index\Z")
        self.assertEqual(0o700, stat.S_IMODE(index.parent.stat().st_mode))
        self.assertEqual(expected, self.answers(env={"XDG_CACHE_HOME": cache}))


class ContradictedTest(InitialisedTest):
    """A database that is sound, and whose index is changed."""

    @classmethod
    def fill(cls, folder):
        for number in range(MANY):
            text = descriptor(number).splitlines(keepends=True)[:3]
            (folder / f"db/certificates/remote/r{number}.dsc").write_text("".join(text))

    def test_one_that_contradicts_the_records_is_found_and_removed(self):
        index = self.folder / "db.index"
        self.run_tool("import", pki.files() / "rsa.key")
        self.run_tool("check", "--deep")
        with sqlite3.connect(index) as connection:
            connection.execute("UPDATE file SET ends = ends + 1 WHERE file = ?", (b"r3.dsc",))
            connection.execute("DELETE FROM file WHERE file = ?", (b"r7.dsc",))
        connection.close()
        # The same from elsewhere: what is relative begins at the database's folder.
        elsewhere = support.fstore("-D", self.folder, "check", "--deep", "--json", cwd="/").document
        (finding,) = self.run_tool("check", "--deep", "--json", code=3).document["findings"]
        self.assertEqual([finding], elsewhere["findings"])
        self.assertEqual(("index", "delete", str(index)),
                         (finding["kind"], finding["repair"], finding["path"]))
        self.assertIn("contradicts 2 of them or of their folders, first ./db/certificates/remote/r3.dsc",
                      finding["message"])
        repaired = support.fstore("-D", self.folder, "check", "--deep", "--repair", cwd="/")
        self.assertEqual(0, repaired.code, repaired)
        self.assertFalse(index.exists())
        self.run_tool("import", pki.files() / "leaf.pem")
        self.assertTrue(index.exists())
        self.run_tool("check", "--deep")


if __name__ == "__main__":
    support.main()
