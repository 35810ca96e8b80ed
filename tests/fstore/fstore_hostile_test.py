#!/usr/bin/env python3
"""Somebody else writes into the database's folder: one odd entry stops nothing but itself."""

import os
import resource
import socket
import tarfile

import support
from support import InitialisedTest

MEMORY = 300 << 20  # of address space; the modules and the libraries take a third of it
LONG_NAME = "d" * 200


class HostileTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        for name, options in [("a", ()), ("p", ("--plain-body",))]:
            run = support.fstore("-D", folder, "put", *options, f"settings/{name}", "-",
                                 stdin=name.encode())
            assert run.code == 0, run.message

    def body_file(self, descriptor):
        """The body that a descriptor names."""
        text = (self.folder / descriptor).read_text()
        name = next(line.split()[2] for line in text.splitlines() if line.split()[1] == "00000000")
        return (self.folder / descriptor).parent / name

    def backup(self, code):
        run = self.run_tool("backup", "--force", self.folder / "backup.tar", code=code,
                            password=None, memory=MEMORY)
        with tarfile.open(self.folder / "backup.tar") as archive:
            self.assertIn("db/settings/a.dsc", archive.getnames())
        return run

    def assert_others_are_there(self):
        self.assertEqual(b"a", self.body("settings/a", memory=MEMORY))
        self.assertEqual(b"p", self.body("p", memory=MEMORY))
        self.put("lsps/new", b"n", memory=MEMORY)
        self.assertEqual(b"n", self.body("new", memory=MEMORY))

    def assert_password_stays(self, code):
        """The change is refused, and everything is as it was."""
        before = sorted(os.listdir(self.folder))
        self.run_tool("passwd", *support.CHEAP, code=code, env={"FSTORE_NEW_PASSWORD": "new"})
        self.assertEqual(before, sorted(os.listdir(self.folder)))
        self.assertEqual(b"a", self.body("settings/a"))


class DeniedTest(HostileTest):
    def test_a_folder_that_cannot_be_looked_into_is_not_taken_for_a_missing_one(self):
        self.put("certificates/local/c", b"c")
        os.chmod(self.folder / "db/certificates", 0o600)
        for args in [("get", "certificates/local/c"), ("show", "certificates/local/c"),
                     ("rm", "certificates/local/c", "-f"), ("ls", "certificates/local"),
                     ("put", "certificates/local/c", "-"), ("check", "--repair")]:
            with self.subTest(args):
                message = self.fails(9, "io", *args, prefix=support.BOUND)
                self.assertRegex(message, "^cannot examine ./db/certificates.*Permission denied")
        os.chmod(self.folder / "db/certificates", 0o700)
        self.assertEqual(b"c", self.body("certificates/local/c"))


class SizeTest(HostileTest):
    def test_a_descriptor_that_is_too_large_is_named_and_passed_over(self):
        for size in [5 << 30, 3 << 30, (16 << 20) + 1]:
            with self.subTest(size=size):
                path = self.folder / "db/keys/big.dsc"
                path.touch()
                os.truncate(path, size)
                listed = self.run_tool("ls", code=5, memory=MEMORY)
                self.assertIn("settings/a", listed.text)
                self.assertIn(f"./db/keys/big.dsc was not read: it has {size} bytes",
                              listed.message)
                document = self.run_tool("ls", "--json", code=5, memory=MEMORY).document
                self.assertEqual(["./db/keys/big.dsc"],
                                 [each["path"] for each in document["unread"]])
                for options in [(), ("--repair",), ("--deep",)]:
                    found = self.run_tool("check", *options, code=3, memory=MEMORY).text
                    self.assertIn("damaged: ./db/keys/big.dsc", found)
                self.assertEqual(size, path.stat().st_size)
                self.fails(59, "malformed", "show", "keys/big", memory=MEMORY)
                self.fails(59, "malformed", "dump", "keys/big", memory=MEMORY)
                self.assert_others_are_there()
                self.assert_password_stays(3)
        self.backup(code=0)
        os.truncate(path, 5 << 30)
        self.assertIn("left out ./db/keys/big.dsc: it is larger", self.backup(code=5).message)
        self.run_tool("rm", "keys/big", "--force")
        self.run_tool("ls")

    def test_the_largest_descriptor_is_read(self):
        path = self.folder / "db/settings/p.dsc"
        text = path.read_bytes()
        path.write_bytes(text + b"!" * ((16 << 20) - len(text) - 1) + b"\n")
        self.assertIn("settings/p", self.run_tool("ls").text)
        self.assertEqual(b"p", self.body("p"))

    def test_a_listing_and_a_check_take_no_memory_for_bodies(self):
        size = 512 << 20
        for name, options in [("a", ()), ("p", ("--plain-body",))]:
            body = self.body_file(f"db/settings/{name}.dsc")
            os.truncate(body, size)
        listed = self.run_tool("ls", "--json", memory=MEMORY).document["records"]
        self.assertEqual([size, size], [each["body"]["size"] for each in listed])
        # The plain one is not what its digest says, and the other cannot be told without the key.
        found = self.run_tool("check", "--json", code=3, memory=MEMORY).document["findings"]
        self.assertEqual(["./db/settings/p.dsc"], [each["path"] for each in found])
        self.run_tool("check", "--repair", code=3, memory=MEMORY)
        self.backup(code=0)
        self.write("root.pem", b"")
        self.run_tool("import", "root.pem", code=59, memory=MEMORY)

    def test_a_file_that_no_body_can_be_is_damage(self):
        body = self.body_file("db/settings/a.dsc")
        os.truncate(body, 5 << 30)
        for args in [("ls",), ("check",), ("check", "--deep"), ("check", "--repair")]:
            run = self.run_tool(*args, code=3, memory=MEMORY)
            self.assertIn(f"has {5 << 30} bytes", run.text + run.message)
        self.assertIn("settings/p", self.run_tool("ls", code=3, memory=MEMORY).text)
        self.assertEqual(5 << 30, body.stat().st_size)

    def test_a_body_that_is_not_decrypted_unasked_is_named(self):
        os.truncate(self.body_file("db/settings/a.dsc"), (1 << 30) + 1)
        for args in [("ls", "-u"), ("check", "--deep")]:
            run = self.run_tool(*args, code=5, memory=MEMORY)
            self.assertIn("settings/a was not decrypted", run.message)
        self.assertIn("settings/p", self.run_tool("ls", "-u", code=5, memory=MEMORY).text)

    def test_a_plain_body_of_any_size_goes_through_a_change_of_the_password(self):
        self.put("lsps/big", b"x", "--plain-body")
        os.truncate(self.body_file("db/lsps/big.dsc"), 512 << 20)
        descriptor = self.folder / "db/lsps/big.dsc"
        descriptor.write_text("".join(line for line in descriptor.open() if " 00000109 " not in line))
        self.run_tool("passwd", *support.CHEAP, env={"FSTORE_NEW_PASSWORD": "new"})
        self.assertEqual(512 << 20, self.body_file("db/lsps/big.dsc").stat().st_size)
        self.assertEqual(b"a", self.body("settings/a", password="new"))


class DescriptorTest(HostileTest):
    def test_a_listing_says_what_the_store_reads(self):
        """ls reads descriptors by itself; show leaves it to the store."""
        path = self.folder / "db/settings/p.dsc"
        whole = path.read_bytes()
        first, rest = whole.split(b"\n", 1)
        body = first.split()[2]
        for text in [whole, rest, whole + rest, rest + first, first, b"", b"\n\n", b"!x\n" + whole,
                     whole.replace(body, b"../" + body), whole.replace(body, b"p.dsc"),
                     whole.replace(body, b"00000000"), whole.replace(body, b""),
                     whole + b"zz\n", whole + b"00000001 0 0\n", whole + b"7 7 7\n",
                     whole + b"00000001 00000101 4\n", b"00000001 00000101 2\n" + whole,
                     whole + b"4 0x102 label\x00tail\n", whole + b"  4   102   label\n",
                     whole + b"\x00\n", whole[:40] + b"\x00" + whole[41:], whole[:-1], whole[:50],
                     whole + b"10000003 00000001 00000001\n", first + b"\n" + whole,
                     whole + b"10000003 00000000 ffffffff\n", b"11000003" + whole[8:],
                     whole + b"01000004 00000102 secret\n", whole.replace(b"\n", b"\r\n"),
                     whole + b"00000002 00000109 " + b"a" * 63 + b"\n"]:
            with self.subTest(text=text):
                path.write_bytes(text)
                listed = next(each for each in
                              support.fstore("--json", "ls", cwd=self.folder).document["records"]
                              if each["address"] == "settings/p")
                shown = support.fstore("--json", "show", "settings/p", cwd=self.folder)
                if shown.code == 0:
                    (record,) = shown.document["records"]
                    del record["attributes"]
                    self.assertEqual(record, listed)
                else:
                    listed["error"]["path"] = listed["address"]
                    self.assertEqual(shown.error, listed["error"])


class PathTest(HostileTest):
    def setUp(self):
        super().setUp()
        self.here = os.open(".", os.O_RDONLY | os.O_DIRECTORY)
        self.addCleanup(os.close, self.here)

    def make_deep(self, depth):
        """A folder that no path leads to, from within."""
        os.chdir(self.folder / "db/keys")
        try:
            for _ in range(depth):
                os.mkdir(LONG_NAME)
                os.chdir(LONG_NAME)
        finally:
            os.fchdir(self.here)

    def test_a_folder_that_no_path_leads_to_is_named_and_passed_over(self):
        self.make_deep(30)
        listed = self.run_tool("ls", code=5)
        self.assertIn("settings/a", listed.text)
        self.assertIn(f"cannot read the folder ./db/keys/{LONG_NAME}", listed.message)
        for options in [(), ("--repair",), ("--deep",)]:
            found = self.run_tool("check", *options, code=3).text
            self.assertIn(f"damaged: ./db/keys/{LONG_NAME}", found)
        self.run_tool("info", code=5)
        self.assertIn(f"left out ./db/keys/{LONG_NAME}", self.backup(code=5).message)
        self.assert_others_are_there()
        self.assert_password_stays(9)

    def test_deep_folders_take_no_longer_than_others(self):
        folder = self.folder / "db/keys"
        for _ in range(500):
            folder /= "dddd"
            folder.mkdir()
        self.run_tool("ls")
        self.run_tool("check")

    def test_names_of_any_bytes_reach_the_terminal_harmless(self):
        text = (self.folder / "db/settings/p.dsc").read_bytes()
        names = [b"\n" * 251, b"\x1b[2J" * 62, b"\xff" * 251, b"\r" * 200 + b"x", b"\x9b31m" * 50]
        for name in names:
            with open(os.path.join(os.fsencode(self.folder), b"db/keys", name + b".dsc"),
                      "wb") as file:
                file.write(text)
            os.mkdir(os.path.join(os.fsencode(self.folder), b"db/lsps", name))
            with open(os.path.join(os.fsencode(self.folder), b"db/crls", name), "wb") as file:
                file.write(b"x")
        for args, code in [(("ls",), 3), (("check",), 3), (("check", "--repair"), 3),
                           (("check", "--deep"), 3), (("info",), 0), (("ls", "--json"), 3)]:
            run = self.run_tool(*args, code=code)
            for byte in b"\x1b\r\x9b\xff":
                self.assertNotIn(byte, run.out + run.err)
        self.backup(code=0)
        self.assert_others_are_there()


class NumberTest(HostileTest):
    def test_time_grows_with_the_number_of_entries_alone(self):
        """A fold of 10 takes 10 times as long, and not 100 times; what a start takes is left out."""
        start = self.seconds("check")
        times = []
        for count in [4000, 40000]:
            keys = self.folder / "db/keys"
            for i in range(count // 2):
                (keys / f"{count}-{i}.dsc").touch()
                (keys / f"{count}-{i}.dsc.$o$").touch()
            times.append(self.seconds("check", code=3) - start)
        self.assertLess(times[1], 40 * times[0], times)

    def seconds(self, *args, **more):
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        self.run_tool(*args, **more)
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        return after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime


class SpecialFileTest(HostileTest):
    def test_nothing_waits_for_a_pipe_or_opens_a_device(self):
        keys = self.folder / "db/keys"
        for name in ["pipe.dsc", "12345678", "saved.dsc.$o$", "new.dsc.$n$"]:
            os.mkfifo(keys / name)
        listener = socket.socket(socket.AF_UNIX)
        self.addCleanup(listener.close)
        os.symlink("/dev/zero", keys / "zero.dsc")
        os.chdir(keys)
        self.addCleanup(os.chdir, "/")
        listener.bind("socket.dsc")
        # A record whose body is a pipe.
        (keys / "q.dsc").write_bytes((self.folder / "db/settings/p.dsc").read_bytes())
        body = self.body_file("db/keys/q.dsc")
        os.mkfifo(body)
        self.assertIn("keys/q", self.run_tool("ls", code=3).text)
        self.run_tool("check", code=3)
        self.run_tool("check", "--repair", code=3)
        self.run_tool("check", "--deep", code=3)
        self.run_tool("get", "keys/q", code=9)
        self.run_tool("get", "keys/pipe", code=50)
        self.run_tool("dump", "keys/zero", code=50)
        self.backup(code=5)
        self.assert_others_are_there()
        self.assert_password_stays(4)
        for name in ["pipe.dsc", "12345678", "saved.dsc.$o$", "new.dsc.$n$", "socket.dsc"]:
            self.assertTrue((keys / name).exists(), name)


if __name__ == "__main__":
    support.main()
