#!/usr/bin/env python3
"""What a command costs beside many records: those about one record look at no others.

Beside 2,000 every day, and beside 100,000 with FSTORE_LONG=1.
"""
import itertools
import os
import re
import subprocess

import support

MANY = 100_000 if support.LONG else 2_000
FEW = 10
MORE_CALLS = 60  # at most, beside many


class ScaleTest(support.InitialisedTest):
    """A database that can be given many records."""

    @classmethod
    def fill(cls, folder):
        for number in range(2):
            run = support.fstore("-D", folder, "put", f"certificates/remote/mine{number}", "-",
                                 "--plain-body", stdin=b"body")
            assert run.code == 0, run.message
        run = support.fstore("-D", folder, "put", "settings/secret", "-", stdin=b"a secret")
        assert run.code == 0, run.message

    def fill_up(self, have, count):
        """Gives the folder so many records with a body each, whose names follow one another."""
        remote = self.folder / "db/certificates/remote"
        taken = set(os.listdir(remote))
        free = (name for name in map("{:08x}".format, itertools.count(1)) if name not in taken)
        for number, body in zip(range(have, count), free):
            (remote / f"host{number}.dsc").write_text(f"10000003 00000000 {body}\n")
            (remote / body).write_text("body")


class OneRecordTest(ScaleTest):
    """The system calls of a command, beside few records and beside many."""

    def calls(self, *args, stdin=b"", follow=False):
        """Each call, by its name and its arguments; with the paths of descriptors to follow them."""
        trace = self.folder / "trace"
        run = support.fstore("-D", self.folder, *args, stdin=stdin,
                             prefix=["strace", "-f", "-qq", *["-y"] * follow, "-e", "signal=none",
                                     "-o", trace])
        self.assertEqual(0, run.code, run.message)
        made = [line.split(maxsplit=1)[1] for line in trace.read_text().splitlines()]
        trace.unlink()
        return made

    def compare(self, use):
        """use() beside few and beside many; gives the calls beside many."""
        self.fill_up(0, FEW)
        few = use(0)
        self.fill_up(FEW, MANY)
        many = use(1)
        for name, calls in many.items():
            with self.subTest(name=name):
                self.assertLessEqual(len(calls), len(few[name]) + MORE_CALLS)
        return many

    def listings(self, calls):
        return [call for call in calls if call.startswith("getdents")]

    def test_what_names_its_record_lists_nothing(self):
        remote = "certificates/remote"
        many = self.compare(lambda turn: {
            "show": self.calls("show", f"{remote}/mine0"),
            "get": self.calls("get", f"{remote}/mine0"),
            "show --unlock": self.calls("show", "-u", "settings/secret"),
            "get, encrypted": self.calls("get", "settings/secret"),
            "put": self.calls("put", f"{remote}/new{turn}", "-", "--plain-body", stdin=b"x"),
            "put, encrypted": self.calls("put", f"{remote}/safe{turn}", "-", stdin=b"x"),
            "put elsewhere": self.calls("put", f"settings/new{turn}", "-", stdin=b"x"),
        })
        for name, calls in many.items():
            with self.subTest(name=name):
                self.assertEqual([], self.listings(calls))
        self.assertEqual(b"x", self.body(f"{remote}/safe1"))

    def change(self, turn):
        self.put("settings/a", b"old")
        return {"put over": self.calls("put", "-f", "settings/a", "-", stdin=b"new"),
                "set": self.calls("set", "settings/a", f"label={turn}"),
                "unset": self.calls("unset", "settings/a", "label"),
                "mv": self.calls("mv", "settings/a", "settings/b"),
                "rm": self.calls("rm", "settings/b")}

    def test_what_changes_a_record_looks_into_no_other_folder(self):
        for name, calls in self.compare(self.change).items():
            with self.subTest(name=name):
                self.assertEqual([], [call for call in calls if "certificates/remote/" in call])
                self.assertLessEqual(len(self.listings(calls)), 2, "one folder, to its end")

    def test_a_bare_name_opens_no_other_descriptor(self):
        self.fill_up(0, MANY)
        for command in (["show", "mine1"], ["get", "mine1"], ["show", "secret"]):
            opened = [call for call in self.calls(*command)
                      if re.match(r'openat\(.*\.dsc"', call) and "/db/k" not in call]
            self.assertLessEqual(len(opened), 3, command)

    def test_a_bare_name_reads_no_folder_that_has_none_in_it(self):
        """Where the file system counts them; elsewhere each is read once or twice."""
        kind = subprocess.run(["stat", "-f", "-c", "%T", self.folder], check=True,
                              stdout=subprocess.PIPE).stdout.decode().strip()
        most = 0 if kind in ("ext2/ext3", "xfs", "tmpfs") else 2
        self.fill_up(0, MANY)
        for command, more in ((["show", "mine1"], 0), (["get", "mine1"], 0),
                              (["set", "mine1", "label=x"], 1)):  # whose body the old one is
            with self.subTest(command=command, kind=kind):
                ends = [call for call in self.calls(*command, follow=True)
                        if re.match(r"getdents64\(.*/certificates/remote>.* = 0$", call)]
                self.assertLessEqual(len(ends), most + more)

class AllRecordsTest(ScaleTest):
    """The memory of a command that looks at all records."""

    NAMES = 64  # bytes for a record and its body, twice what their names take
    NOISE = 3 << 20
    PRINTED = 12 << 20  # what is not in a temporary file

    def memory(self, *args):
        """The most that it had at once, in bytes."""
        process = support.start(*args, cwd=self.folder,
                                env={"FSTORE_NEW_PASSWORD": support.PASSWORD})
        with process.stdin, process.stdout, process.stderr:
            process.stdin.close()
            process.stdout.read()
            _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        self.assertEqual(0, process.returncode, args)
        return usage.ru_maxrss << 10

    def compare(self, commands, few, many, noise):
        self.fill_up(0, few)
        before = [self.memory(*command) for command in commands]
        self.fill_up(few, many)
        for command, least in zip(commands, before):
            with self.subTest(command=command):
                self.assertLess(self.memory(*command), least + noise + many * self.NAMES)

    def test_only_names_are_kept(self):
        label = ("set", "certificates/remote/mine0", "label=x")
        self.compare([("check", "-q"), ("check", "-q", "--deep"), label], FEW, MANY, self.NOISE)

    def test_what_an_index_finds_is_kept_as_names(self):
        """Of a filter that it knows nothing of, which is everything."""
        command, few, many = ("ls", "--attr", "0x8001=nobody"), 10_500, max(MANY, 50_000)

        def fill_up(have, count):
            for number in range(have, count):
                path = self.folder / f"db/certificates/remote/bare{number}.dsc"
                path.write_text("00000001 00000101 00000001\n")

        fill_up(0, few)
        self.memory(*command)
        self.assertTrue((self.folder / "db.index").exists())
        least = self.memory(*command)
        fill_up(few, many)
        self.memory(*command)  # the index learns of them
        self.assertLess(self.memory(*command), least + self.NOISE + many * self.NAMES)

    def test_what_is_printed_or_written_is_not_kept(self):
        commands = [("ls",), ("--json", "ls"), ("ls", "--sort", "subject"), ("ls", "--sort", "expiry"),
                    ("backup", "-")]
        self.compare(commands, FEW, max(MANY, 40_000), self.PRINTED)

    def test_records_are_encrypted_anew_one_by_one(self):
        self.compare([("passwd", "--rotate", *support.CHEAP)], FEW, max(MANY, 15_000), self.NOISE)


if __name__ == "__main__":
    support.main()
