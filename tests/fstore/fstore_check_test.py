#!/usr/bin/env python3
"""check: what a crash leaves over is found by name and cleaned up, damage is told."""

import shutil

import support
from support import InitialisedTest


class CheckTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        for name in ["a", "b"]:
            run = support.fstore("-D", folder, "put", f"settings/{name}", "-",
                                 stdin=f"body of {name}".encode())
            assert run.code == 0, run.message

    def setUp(self):
        super().setUp()
        self.settings = self.folder / "db/settings"

    def findings(self, *args, code=0):
        document = self.run_tool("check", "--json", *args, code=code).document
        return {finding["path"].removeprefix("./db/"): finding["kind"]
                for finding in document["findings"]}

    def repair(self, code=0):
        return self.run_tool("check", "--repair", "--json", code=code).document

    def body_of(self, name):
        """The file of a record's body."""
        first = (self.settings / f"{name}.dsc").read_text().split("\n")[0]
        return self.settings / first.split(" ")[2]

    def test_a_sound_database(self):
        self.assertEqual({}, self.findings())
        run = self.run_tool("check", "--deep")
        self.assertIn("no damage found; records read: 2, secrets decrypted: 4", run.message)

    def test_leftovers_of_each_kind_are_cleaned_up(self):
        cases = {
            "settings/deadbeef": "unnamed-body",
            "settings/a.dsc.$n$": "new-descriptor",
            "settings/a.dsc.$o$": "saved-descriptor",
            "settings/gone.dsc.$d$": "removed",
        }
        for name in cases:
            (self.folder / "db" / name).write_text("00000003 00000001 alice\n")
        (self.folder / "db/crm").rmdir()
        (self.folder / "new_db").mkdir()
        (self.folder / "new_db/rest").write_text("x")
        before = self.files()
        expected = {**cases, "crm": "missing-folder", "./new_db": "unfinished-copy"}
        self.assertEqual(expected, self.findings())
        self.assertEqual(before, self.files())
        document = self.repair()
        self.assertEqual(len(expected), len(document["repaired"]))
        self.assertEqual([], document["findings"])
        self.assertEqual([], self.repair()["repaired"])
        self.assertTrue((self.folder / "db/crm").is_dir())
        self.assert_sound()

    def test_tells_what_it_will_do(self):
        (self.settings / "deadbeef").write_text("x")
        self.assertIn("--repair", self.run_tool("check").text)
        self.assertIn("./db/settings/deadbeef is a body file that no descriptor names; it will "
                      "be deleted", self.run_tool("check", "--repair").message)

    def test_a_lone_saved_descriptor_is_put_back(self):
        (self.settings / "a.dsc").rename(self.settings / "a.dsc.$o$")
        self.assertEqual({"settings/a.dsc.$o$": "saved-descriptor"}, self.findings())
        self.repair()
        self.assertEqual(b"body of a", self.body("a"))
        self.assert_sound()

    def test_the_body_of_a_saved_descriptor_goes_only_when_nobody_names_it(self):
        shutil.copy(self.settings / "a.dsc", self.settings / "a.dsc.$o$")
        self.repair()
        self.assertEqual(b"body of a", self.body("a"))

    def test_what_only_a_leftover_names_goes_with_it(self):
        for mark, body in [("$n$", "0000ab10"), ("$o$", "0000ab20"), ("$d$", "0000ab30")]:
            (self.settings / f"a.dsc.{mark}").write_text(f"10000003 00000000 {body}\n")
            (self.settings / body).write_text("x")
        document = self.repair()
        self.assertEqual(6, len(document["repaired"]))
        self.assert_sound()

    def test_nothing_is_deleted_while_a_descriptor_cannot_be_read(self):
        text = (self.settings / "a.dsc").read_text().split("\n")
        (self.settings / "a.dsc").write_text("\n".join(["nonsense", *text[1:]]))
        body = self.body_of("b")
        document = self.repair(code=3)
        self.assertEqual([], document["repaired"])
        kinds = sorted(finding["kind"] for finding in document["findings"])
        self.assertEqual(["damaged", "unnamed-body"], kinds)
        self.assertTrue(body.exists())

    def test_damage_is_told_and_never_touched(self):
        self.body_of("a").unlink()
        (self.settings / "b.dsc").write_text((self.settings / "b.dsc").read_text() + "zz\n")
        before = self.files()
        self.assertEqual({"settings/a.dsc": "damaged", "settings/b.dsc": "damaged"},
                         self.findings(code=3))
        self.repair(code=3)
        self.assertEqual(before, self.files())
        self.assertIn("missing", self.run_tool("check", code=3).text)

    def test_two_records_with_one_body_are_damage(self):
        shutil.copy(self.settings / "a.dsc", self.settings / "c.dsc")
        self.assertEqual({"settings/c.dsc": "damaged"}, self.findings(code=3))

    def test_a_body_elsewhere_is_damage(self):
        (self.folder / "db/keys/00000001").write_text("x")
        (self.settings / "c.dsc").write_text("10000003 00000000 ../keys/00000001\n")
        found = self.findings(code=3)
        self.assertEqual("damaged", found["settings/c.dsc"])
        text = self.run_tool("check", code=3).text
        self.assertIn("names ../keys/00000001 as its body file, and no body can have that name",
                      text)
        self.assertNotIn("is missing", text)

    def test_a_body_may_have_any_name_that_its_descriptor_knows(self):
        self.body_of("a").rename(self.settings / "notes.txt")
        descriptor = self.settings / "a.dsc"
        lines = descriptor.read_text().split("\n")
        word = lines[0].split(" ")
        descriptor.write_text("\n".join([" ".join([*word[:2], "notes.txt"]), *lines[1:]]))
        self.assertEqual({}, self.findings())
        self.assertEqual(b"body of a", self.body("a"))

    def test_a_nul_is_read_as_the_store_reads_it(self):
        """It hides the rest of its line and joins the next one."""
        descriptor = self.settings / "a.dsc"
        name = self.body_of("a").name.encode()
        text = descriptor.read_bytes()
        descriptor.write_bytes(text.replace(name, name[:4] + b"\0lost\n" + name[4:], 1))
        self.assertEqual({}, self.findings())
        self.assertEqual(b"body of a", self.body("a"))
        self.assertIn(f"body in the file {name.decode()}", self.run_tool("dump", "a").text)
        descriptor.write_bytes(text + b"\0\n")
        self.assertEqual("damaged", self.findings(code=3)["settings/a.dsc"])

    def test_unknown_files_are_reported_and_left_alone(self):
        (self.settings / "notes.txt").write_text("x")
        (self.settings / "link").symlink_to("/etc/passwd")
        (self.settings / "DEADBEEF").write_text("x")
        found = self.findings()
        self.assertEqual({"settings/notes.txt": "unknown-file", "settings/link": "unknown-file",
                          "settings/DEADBEEF": "unknown-file"}, found)
        self.assertEqual([], self.repair()["repaired"])
        self.assertTrue((self.settings / "notes.txt").exists())

    def test_a_body_that_an_unknown_file_might_name_counts_all_the_same(self):
        (self.settings / "notes.txt").write_text("10000003 00000000 deadbeef\n")
        (self.settings / "deadbeef").write_text("x")
        self.assertEqual("unnamed-body", self.findings()["settings/deadbeef"])

    def test_deep_finds_each_byte_of_damage(self):
        body = self.body_of("a")
        sound = body.read_bytes()
        for at in [0, 1, 12, 13, len(sound) - 17, len(sound) - 1]:
            with self.subTest(at=at):
                body.write_bytes(sound[:at] + bytes([sound[at] ^ 1]) + sound[at + 1:])
                self.assertEqual({}, self.findings())
                document = self.run_tool("check", "--deep", "--json", code=3).document
                damaged = document["deep"]["damaged"]
                self.assertEqual(["settings/a"], [one["address"] for one in damaged])
        body.write_bytes(sound[:-1])
        self.assertIn("damaged", self.run_tool("check", "--deep", code=3).text)

    def test_deep_compares_plain_bodies_with_their_digest(self):
        self.put("settings/p", b"plain", "--plain-body")
        self.body_of("p").write_bytes(b"plaIn")
        document = self.run_tool("check", "--deep", "--json", code=3).document
        self.assertEqual("malformed", document["deep"]["damaged"][0]["error"]["name"])

    def test_deep_with_another_password(self):
        self.fails(6, "wrong-password", "check", "--deep", password="wrong")

    def test_damage_of_the_password_is_told(self):
        (self.folder / "db/key.dsc").unlink()
        self.assertEqual({"./key": "damaged"}, self.findings(code=3))
        self.assertEqual([], self.repair(code=3)["repaired"])

    def test_an_unfinished_change_is_told_and_finished(self):
        kdf = self.folder / "db/kdf.dsc"
        kdf.write_text(kdf.read_text() * 2)
        self.assertEqual({"kdf.dsc": "unfinished-change"}, self.findings())
        self.assertEqual([], self.repair()["findings"])
        self.assertEqual(1, kdf.read_text().count("scrypt"))
        self.assert_sound()

    def test_repair_brings_back_a_database_moved_aside(self):
        (self.folder / "db").rename(self.folder / "old_db")
        self.assertEqual({"./old_db": "moved-aside"}, self.findings())
        self.assertTrue((self.folder / "old_db").exists())
        self.repair()
        self.assert_sound()

    def test_an_ordinary_command_brings_it_back_too(self):
        (self.folder / "db").rename(self.folder / "old_db")
        self.assertEqual(b"body of a", self.body("a"))
        self.assert_sound()


if __name__ == "__main__":
    support.main()
