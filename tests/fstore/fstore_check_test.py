#!/usr/bin/env python3
"""check: what a crash leaves over is found by name and cleaned up, damage is told."""

import hashlib
import os
import re
import shutil
from pathlib import Path

import kept_database
import support
from support import InitialisedTest


class TwoRecordsTest(InitialisedTest):
    """A database with two records in settings, and ways to look at it."""

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


class SwappedBodiesTest(TwoRecordsTest):
    def swap(self, one, other):
        first, second = self.body_of(one), self.body_of(other)
        kept = first.read_bytes()
        first.write_bytes(second.read_bytes())
        second.write_bytes(kept)

    def refuses(self, address):
        run = self.run_tool("get", address, code=59)
        self.assertEqual(b"", run.out)
        self.assertIn(f"the body of {address} does not match its SHA-256", run.message)
        self.run_tool("get", address, "-o", self.folder / "out", code=59)
        self.assertFalse((self.folder / "out").exists())

    def test_no_secret_of_another_record_is_given_out(self):
        self.swap("a", "b")
        self.refuses("settings/a")
        self.refuses("settings/b")

    def test_nor_a_plain_body(self):
        for name in ["c", "d"]:
            self.run_tool("put", "--plain-body", f"settings/{name}", "-", stdin=f"of {name}".encode())
        self.swap("c", "d")
        self.refuses("settings/c")
        self.swap("c", "d")
        self.assertEqual(b"of c", self.run_tool("get", "settings/c").out)


class ConflictTest(TwoRecordsTest):
    """Second states of a file, as synchronisers and merges leave them."""

    NAMES = ["a.sync-conflict-20261123-101500-ABCDEFG.dsc", "a.dsc.sync-conflict-20261123-101500-ABCDEFG",
             "a (conflicted copy 2026-11-23).dsc", "a (Alice's conflicted copy 2026-11-23 101500).dsc",
             "a.dsc.orig"]

    def setUp(self):
        super().setUp()
        self.theirs = self.second_state()

    def second_state(self):
        """The descriptor of another state of the record, with a body of its own."""
        ours = (self.settings / "a.dsc").read_bytes()
        body = self.body_of("a")
        kept = body.read_bytes()
        self.put("settings/a", b"theirs", "--label", "theirs")
        theirs = (self.settings / "a.dsc").read_bytes()
        body.write_bytes(kept)
        (self.settings / "a.dsc").write_bytes(ours)
        return theirs

    def leave(self, name, contents=None):
        (self.settings / name).write_bytes(self.theirs if contents is None else contents)
        return f"./db/settings/{name}"

    def test_a_copy_is_never_a_record(self):
        for name in self.NAMES:
            with self.subTest(name=name):
                path = self.leave(name)
                before = self.files()
                self.assertEqual(["settings/a", "settings/b"], self.records())
                address = "settings/" + name.removesuffix(".dsc")
                for args in [("get", address), ("show", address), ("rm", address)]:
                    self.run_tool(*args, code=50 if name.endswith(".orig") else 4)
                run = self.run_tool("check", code=3)
                self.assertIn(f"conflict: {path} is a second state of a.dsc", run.text)
                self.assertEqual({f"settings/{name}": "conflict"}, self.findings(code=3))
                self.assertEqual({f"settings/{name}": "conflict"}, self.findings("--deep", code=3))
                self.run_tool("check", "--repair", code=3)
                self.assertEqual(before, {path: contents for path, contents in self.files().items()
                                          if not path.startswith("db.lost")})
                (self.settings / name).unlink()

    def test_no_new_record_gets_the_name_of_one(self):
        for name in ["a.sync-conflict-1", "a (conflicted copy 1)"]:
            message = self.fails(4, "invalid", "put", "-f", f"settings/{name}", "-", stdin=b"x")
            self.assertIn("conflict copy", message)
            self.fails(4, "invalid", "mv", "settings/a", f"settings/{name}")
        self.put("settings/x.orig", b"x")  # its file ends in ".dsc"
        self.assertIn("settings/x.orig", self.records())

    def test_one_keeps_the_body_that_it_names(self):
        for name in self.NAMES:
            path = self.leave(name)
            self.run_tool("check", "--repair", code=3)
            self.run_tool("check", "--settle", path, "--keep", "theirs")
            self.assertEqual(b"theirs", self.body("settings/a"))
            self.assertIn("theirs", self.run_tool("show", "settings/a").text)
            self.assert_sound_but_lost()
            self.restore()

    def assert_sound_but_lost(self):
        document = self.run_tool("check", "--deep", "--json").document
        self.assertEqual([], document["findings"])

    def restore(self):
        for entry in [self.folder / "db", self.folder / "db.lost"]:
            shutil.rmtree(entry, ignore_errors=True)
        shutil.copytree(self._template / "db", self.folder / "db")
        self.theirs = self.second_state()

    def test_ours_stays_and_theirs_can_be_put_back(self):
        path = self.leave(self.NAMES[0])
        before = self.files()
        settled = self.run_tool("check", "--settle", path, "--keep", "ours", "--json").document
        self.assertEqual("./db/settings/a.dsc", settled["settled"])
        self.assertEqual(b"body of a", self.body("settings/a"))
        self.assert_sound_but_lost()
        self.run_tool("check", "--undo", settled["movedTo"].removeprefix("./db.lost/"))
        self.assertEqual(before, self.files())

    def test_theirs_takes_the_place_and_ours_can_be_put_back(self):
        path = self.leave(self.NAMES[0])
        settled = self.run_tool("check", "--settle", path, "--keep", "theirs", "--json").document
        self.assertEqual(b"theirs", self.body("settings/a"))
        self.assert_sound_but_lost()
        self.run_tool("check", "--undo", settled["movedTo"].removeprefix("./db.lost/"))
        (copy,) = (name for name, kind in self.findings(code=3).items() if kind == "conflict")
        self.run_tool("check", "--settle", copy, "--keep", "theirs")
        self.assertEqual(b"body of a", self.body("settings/a"))
        self.assert_sound_but_lost()

    def test_a_record_of_which_only_the_copy_is_left(self):
        path = self.leave(self.NAMES[0])
        self.run_tool("rm", "settings/a")
        self.assertEqual(["settings/b"], self.records())
        self.assertIn("which is not there", self.run_tool("check", code=3).text)
        self.fails(50, "missing", "check", "--settle", path, "--keep", "ours")
        self.run_tool("check", "--settle", path, "--keep", "theirs")
        self.assertEqual(b"theirs", self.body("settings/a"))

    def test_a_body_in_conflict(self):
        body = self.body_of("a")
        copy = body.with_name(body.name + ".sync-conflict-20261123-101500-ABCDEFG")
        body.rename(copy)
        body.write_bytes(b"something else")
        self.assertEqual("conflict", self.findings(code=3)[f"settings/{copy.name}"])
        self.run_tool("check", "--settle", f"settings/{copy.name}", "--keep", "theirs")
        self.assertEqual(b"body of a", self.body("settings/a"))

    def test_a_state_that_cannot_be_read_is_not_taken(self):
        for contents in [b"", b"no descriptor\n", b"10000003 00000000 0000beef\n"]:
            path = self.leave(self.NAMES[0], contents)
            before = self.files()
            self.assertIn("nothing was changed",
                          self.fails(3, "found", "check", "--settle", path, "--keep", "theirs"))
            self.assertEqual(before, self.files())

    def test_a_state_whose_body_is_anothers_by_now_is_not_taken(self):
        own = self.theirs.split(b"\n")[0].split(b" ")[2]
        path = self.leave(self.NAMES[0],
                          self.theirs.replace(own, self.body_of("b").name.encode()))
        before = self.files()
        message = self.fails(3, "found", "check", "--settle", path, "--keep", "theirs")
        self.assertIn("which is that of b.dsc", message)
        self.assertEqual(before, self.files())

    def test_nor_one_whose_plain_body_is_not_as_it_says(self):
        self.put("settings/p", b"plain", "--plain-body")
        path = self.leave("p.dsc.orig", (self.settings / "p.dsc").read_bytes())
        self.run_tool("rm", "settings/p")
        body = (self.settings / "p.dsc.orig").read_text().split("\n")[0].split(" ")[2]
        (self.settings / body).write_bytes(b"other")
        self.assertIn("does not match its SHA-256",
                      self.fails(3, "found", "check", "--settle", path, "--keep", "theirs"))
        (self.settings / body).write_bytes(b"plain")
        self.run_tool("check", "--settle", path, "--keep", "theirs")
        self.assertEqual(b"plain", self.body("settings/p"))

    def test_an_undo_puts_no_descriptor_back_without_its_body(self):
        path = self.leave(self.NAMES[0])
        body = self.body_of("a")
        settled = self.run_tool("check", "--settle", path, "--keep", "theirs", "--json").document
        self.assertFalse(body.exists())
        body.write_bytes(b"of another record by now")
        before = self.files()
        name = settled["movedTo"].removeprefix("./db.lost/")
        self.run_tool("check", "--undo", name, code=5)
        self.assertEqual(before, self.files())
        body.unlink()
        self.run_tool("check", "--undo", name)

    def test_the_two_states_of_a_merge_are_not_removed_as_one(self):
        self.merge()
        before = self.files()
        message = self.run_tool("rm", "settings/a", code=59).message
        self.assertIn("has two states in it", message)
        self.assertEqual(before, self.files())

    def merge(self):
        ours = (self.settings / "a.dsc").read_bytes()
        self.leave("a.dsc", b"<<<<<<< HEAD\n" + ours + b"=======\n" + self.theirs + b">>>>>>> other\n")

    def test_the_marks_of_a_merge(self):
        for keep, body in [("ours", b"body of a"), ("theirs", b"theirs")]:
            with self.subTest(keep=keep):
                self.merge()
                before = self.files()
                self.assertEqual({"settings/a.dsc": "conflict"}, self.findings(code=3))
                self.run_tool("get", "settings/a", code=59)
                self.run_tool("check", "--repair", code=3)
                self.assertEqual(before, self.files())
                self.run_tool("check", "--settle", "settings/a.dsc", "--keep", keep)
                self.assertEqual(body, self.body("settings/a"))
                self.run_tool("check", "--repair")
                self.assert_sound_but_lost()
                self.restore()

    def test_marks_that_no_merge_leaves_are_damage(self):
        ours = (self.settings / "a.dsc").read_bytes()
        for text in [b"<<<<<<< HEAD\n" + ours, b"=======\n" + ours,
                     b"<<<<<<< a\n" + ours + b">>>>>>> b\n=======\n"]:
            self.leave("a.dsc", text)
            self.assertEqual("damaged", self.findings(code=3)["settings/a.dsc"])
            self.fails(4, "invalid", "check", "--settle", "settings/a.dsc", "--keep", "ours")

    def test_the_password_is_not_changed_beside_a_copy(self):
        path = self.leave("a.dsc.orig")
        before = self.files()
        message = self.fails(3, "found", "passwd", *support.CHEAP, env={"FSTORE_NEW_PASSWORD": "new"})
        self.assertIn(path, message)
        self.assertEqual(before, self.files())

    def test_a_record_of_the_password_is_not_exchanged_alone(self):
        copy = self.folder / "db/kdf.sync-conflict-20261123-101500-ABCDEFG.dsc"
        shutil.copy(self.folder / "db/kdf.dsc", copy)
        self.fails(4, "invalid", "check", "--settle", copy.name, "--keep", "theirs")
        self.run_tool("check", "--settle", copy.name, "--keep", "ours")
        self.assertNotIn("conflict", self.findings().values())

    def test_what_is_not_in_conflict_or_not_there(self):
        before = self.files()
        self.fails(4, "invalid", "check", "--settle", "settings/a.dsc", "--keep", "theirs")
        self.fails(50, "missing", "check", "--settle", "settings/x.dsc", "--keep", "theirs")
        self.fails(50, "missing", "check", "--settle", "settings/..", "--keep", "theirs")
        self.fails(4, "invalid", "check", "--settle", "../x.orig", "--keep", "theirs")
        self.fails(2, "usage", "check", "--settle", "settings/a.dsc")
        self.fails(2, "usage", "check", "--keep", "ours")
        self.fails(2, "usage", "check", "--settle", "settings/a.dsc", "--keep", "ours", "--repair")
        self.assertEqual(before, self.files())


class CheckTest(TwoRecordsTest):
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
        (self.folder / "new_db/rest.dsc").write_text("x")
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
        self.assertIn("./db/settings/deadbeef is a body file that no descriptor names, and will "
                      "be moved to ./db.lost", self.run_tool("check", "--repair").message)

    def test_a_lone_saved_descriptor_is_put_back(self):
        (self.settings / "a.dsc").rename(self.settings / "a.dsc.$o$")
        self.assertEqual({"settings/a.dsc.$o$": "saved-descriptor"}, self.findings())
        self.repair()
        self.assertEqual(b"body of a", self.body("a"))
        self.assert_sound()

    def test_a_saved_descriptor_whose_place_is_taken_stays(self):
        descriptor, saved = self.settings / "a.dsc", self.settings / "a.dsc.$o$"
        descriptor.rename(saved)
        obstacles = {"folder": descriptor.mkdir, "FIFO": lambda: os.mkfifo(descriptor),
                     "dangling link": lambda: descriptor.symlink_to("nowhere"),
                     "link": lambda: descriptor.symlink_to(saved.name)}
        for name, make in obstacles.items():
            with self.subTest(name):
                make()
                before = saved.read_bytes()
                run = self.run_tool("check", "--repair", code=3)
                self.assertIn("./db/settings/a.dsc.$o$ is the old state of an interrupted write, "
                              "and cannot be put back", run.text)
                self.assertEqual(before, saved.read_bytes())
                self.assertEqual([], list(self.folder.glob("db.lost")))
                (descriptor.rmdir if name == "folder" else descriptor.unlink)()
        self.run_tool("check", "--repair")
        self.assertEqual(b"body of a", self.body("settings/a"))

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
        self.assertEqual({"settings/a.dsc": "damaged"}, self.findings(code=3))
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
        self.assertEqual({"key.dsc": "key-record"}, self.findings(code=3))
        self.assertEqual(["./db/key.dsc"], [each["path"] for each in self.repair()["repaired"]])
        self.assertEqual({}, self.findings())

    def test_an_unfinished_change_is_told_and_finished(self):
        kept_database.copy_to(self.folder)
        self.repair()  # Git keeps no empty folder
        kdf = self.folder / "db/kdf.dsc"
        line = kdf.read_text()
        kdf.write_text(line + re.sub("digest=.*", "digest=" + "0" * 32, line))
        self.assertEqual({"kdf.dsc": "unfinished-change"}, self.findings())
        # Who opens it proves that the records are those of the old password.
        repaired = self.run_tool("check", "--repair", "--json", password=kept_database.PASSWORD)
        self.assertEqual([], repaired.document["findings"])
        self.assertEqual(line, kdf.read_text())

    def test_a_copy_of_the_slots_that_is_lost_is_written_again(self):
        for name in ["kdf", "kdf-copy"]:
            for what, damage in [("lost", None), ("cut", lambda text: text[:-9]), ("empty", lambda _: ""),
                                 ("altered", lambda text: text.replace("seq=", "seq=1"))]:
                with self.subTest(name=name, what=what):
                    path = self.folder / f"db/{name}.dsc"
                    before = path.read_text()
                    if damage:
                        path.write_text(damage(before))
                    else:
                        path.unlink()
                    self.assertEqual({f"{name}.dsc": "unlock-copy"},
                                     self.findings(code=3 if damage else 0))
                    self.run_tool("get", "settings/a")  # a reader changes nothing
                    self.assertEqual([], self.repair()["findings"])
                    self.assertEqual(before, path.read_text())
                    self.assertEqual({}, self.findings())

    def test_copies_that_contradict_each_other_are_damage(self):
        kdf, copy = self.folder / "db/kdf.dsc", self.folder / "db/kdf-copy.dsc"
        lines = kdf.read_text().splitlines()
        lines[1] = lines[1].replace("label=", "label=other")
        text = "".join(line.split(" ", 2)[2] + "\n" for line in lines[:-1])
        lines[-1] = lines[-1][:lines[-1].index("=") + 1] + hashlib.sha256(text.encode()).hexdigest()
        copy.write_text("\n".join(lines) + "\n")
        self.assertEqual({"kdf-copy.dsc": "unlock-conflict"}, self.findings(code=3))
        self.put("settings/c", b"c")  # which is no reason to write either
        self.assertEqual({"kdf-copy.dsc": "unlock-conflict"}, self.findings(code=3))
        self.assertEqual([], self.repair()["findings"])
        self.assertEqual(kdf.read_text(), copy.read_text())
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


class LostTest(TwoRecordsTest):
    """What a repair takes away is kept, and comes back."""

    def lost(self):
        return self.run_tool("check", "--json").document["lost"]

    def test_a_repair_is_undone_byte_by_byte(self):
        (self.settings / "deadbeef").write_text("the only copy")
        (self.settings / "new.dsc.$n$").write_text("10000003 00000000 0000ab10\n")
        (self.settings / "0000ab10").write_text("its body")
        before = self.files()
        self.repair()
        self.assertNotIn("db/settings/deadbeef", self.files())
        lost, = self.lost()
        self.assertEqual({"settings/deadbeef", "settings/new.dsc.$n$", "settings/0000ab10"},
                         {file["path"] for file in lost["files"]})
        run = self.run_tool("check", "--undo", lost["name"])
        self.assertIn("3 files put back", run.message)
        self.assertEqual(before, self.files())
        self.assertEqual([], self.lost())

    def test_undoing_overwrites_nothing(self):
        (self.settings / "deadbeef").write_text("first")
        self.repair()
        lost, = self.lost()
        (self.settings / "deadbeef").write_text("second")
        run = self.run_tool("check", "--undo", lost["name"], code=5)
        self.assertIn("there is another ./db/settings/deadbeef", run.message)
        self.assertEqual("second", (self.settings / "deadbeef").read_text())
        self.assertEqual("first", (self.folder / lost["path"] / "settings/deadbeef").read_text())

    def test_undoing_after_a_change_of_password_is_refused(self):
        (self.settings / "deadbeef").write_text("x")
        self.repair()
        lost, = self.lost()
        run = self.run_tool("passwd", *support.CHEAP, env={"FSTORE_NEW_PASSWORD": "new"})
        self.assertIn(lost["path"], run.message)
        message = self.fails(74, "no-digest", "check", "--undo", lost["name"])
        self.assertIn("the password has changed since", message)
        self.assertTrue((self.folder / lost["path"] / "settings/deadbeef").exists())

    def test_what_lies_there_is_named_and_purged(self):
        (self.settings / "deadbeef").write_text("x")
        self.repair()
        lost, = self.lost()
        for command in ["info", "check"]:
            self.assertIn(lost["path"], self.run_tool(command).text)
        self.run_tool("backup", "b.tar")
        self.run_tool("check", "--purge", lost["name"])
        self.assertFalse((self.folder / "db.lost").exists())
        self.run_tool("-D", "other", "restore", "b.tar")
        self.assertEqual(["db", "db.lock"], sorted(os.listdir(self.folder / "other")))

    def test_names_that_are_none_are_refused(self):
        for name in ["absent", "..", "../db", ""]:
            with self.subTest(name=name):
                self.fails(50, "missing", "check", "--undo", name)
                self.fails(50, "missing", "check", "--purge", name)
        self.fails(2, "usage", "check", "--undo", "x", "--repair")
        self.assert_sound()


class DoubtTest(TwoRecordsTest):
    """A damaged descriptor: its body, and what else may be the only copy, stays."""

    def damage(self, change):
        path = self.settings / "a.dsc"
        path.write_bytes(change(path.read_bytes()))
        return path

    def stays(self, body):
        """Whatever check and its repair do, the body is there, and the database is not sound."""
        contents = body.read_bytes()
        self.findings(code=3)
        self.repair(code=3)
        self.assertEqual(contents, body.read_bytes())

    def test_emptied(self):
        body = self.body_of("a")
        self.damage(lambda text: b"")
        self.stays(body)

    def test_filled_with_zeros(self):
        body = self.body_of("a")
        self.damage(lambda text: bytes(len(text)))
        self.stays(body)

    def test_cut_anywhere_in_the_reference(self):
        body = self.body_of("a")
        text = (self.settings / "a.dsc").read_bytes()
        for size in range(0, text.index(b"\n") + 1, 3):
            with self.subTest(size=size):
                (self.settings / "a.dsc").write_bytes(text[:size])
                self.stays(body)

    def test_a_good_saved_descriptor_beside_a_damaged_one_stays(self):
        shutil.copy(self.settings / "a.dsc", self.settings / "a.dsc.$o$")
        self.damage(lambda text: b"nonsense\n" + text)
        saved = (self.settings / "a.dsc.$o$").read_bytes()
        self.stays(self.body_of("b"))
        self.assertEqual(saved, (self.settings / "a.dsc.$o$").read_bytes())

    def test_a_lone_unfinished_descriptor_is_kept_with_its_body(self):
        (self.settings / "x.dsc.$n$").write_text("10000003 00000000 0000ab10\n")
        (self.settings / "0000ab10").write_text("the only copy")
        self.repair()
        kept = [path.read_text() for path in (self.folder / "db.lost").rglob("0000ab10")]
        self.assertEqual(["the only copy"], kept)

    def test_an_acknowledged_removal_leaves_nothing(self):
        (self.settings / "gone.dsc.$d$").write_text("10000003 00000000 0000ab30\n")
        (self.settings / "0000ab30").write_text("a secret that was removed")
        self.repair()
        self.assertFalse((self.folder / "db.lost").exists())
        self.assertFalse((self.settings / "0000ab30").exists())


class SharedBodyTest(TwoRecordsTest):
    """Two descriptors that name one body: neither command on one deletes the other's."""

    def setUp(self):
        super().setUp()
        self.copy = "a copy"
        shutil.copy(self.settings / "a.dsc", self.settings / f"{self.copy}.dsc")

    def test_removing_one_keeps_the_other(self):
        run = self.run_tool("rm", f"settings/{self.copy}")
        self.assertIn("its body file stays: it is also named by a.dsc", run.message)
        self.assertEqual(b"body of a", self.body("settings/a"))
        self.assert_sound()

    def test_overwriting_one_is_refused(self):
        for command in (["put", "-f", f"settings/{self.copy}", "-"],
                        ["set", f"settings/{self.copy}", "label=x"]):
            run = self.run_tool(*command, stdin=b"new", code=59)
            self.assertIn("is also named by a.dsc", run.message)
        self.assertEqual(b"body of a", self.body("settings/a"))

    def test_whatever_the_copy_is_called(self):
        (self.settings / f"{self.copy}.dsc").unlink()
        body = self.body_of("a")
        for name in ["a - Copy.dsc", "a.conflict.dsc", "a.orig.dsc",
                     "A.dsc", "a.dsc.dsc"]:
            for removed in [name.removesuffix(".dsc"), "a"]:
                with self.subTest(name=name, removed=removed):
                    descriptor = (self.settings / "a.dsc").read_bytes()
                    (self.settings / name).write_bytes(descriptor)
                    self.findings(code=3)
                    run = self.run_tool("rm", f"settings/{removed}")
                    self.assertIn("its body file stays", run.message)
                    self.assertTrue(body.exists())
                    (self.settings / name).unlink(missing_ok=True)
                    (self.settings / "a.dsc").write_bytes(descriptor)
        self.assertEqual(b"body of a", self.body("settings/a"))

    def test_what_is_no_descriptor_is_no_record(self):
        (self.settings / f"{self.copy}.dsc").unlink()
        names = ["a.dsc.bak", "a.orig", "a.dsc~", "a (conflicted copy 2026-11-21)"]
        for name in names:
            shutil.copy(self.settings / "a.dsc", self.settings / name)
        self.assertEqual(["settings/a", "settings/b"], self.records())
        found = {f"settings/{name}": "unknown-file" for name in names}
        self.assertEqual(found, self.findings("--repair"))
        self.assertEqual(b"body of a", self.body("settings/a"))

    def test_a_rival_that_may_not_be_read_keeps_the_body(self):
        rival = self.settings / f"{self.copy}.dsc"
        rival.chmod(0)
        body = self.body_of("a")
        run = self.run_tool("rm", "settings/a", prefix=support.BOUND)
        self.assertIn("which cannot be read", run.message)
        run = self.run_tool("check", "--repair", "--json", code=5, prefix=support.BOUND)
        found = {one["path"]: one["kind"] for one in run.document["findings"]}
        self.assertEqual({f"./db/settings/{rival.name}": "unreadable",
                          f"./db/settings/{body.name}": "unreadable"}, found)
        rival.chmod(0o600)
        self.assertEqual(b"body of a", self.body(f"settings/{self.copy}"))

    def test_a_conflict_copy_keeps_its_body(self):
        body = self.body_of("a")
        for name in ["a.sync-conflict-20261121-120000-ABCDEFG.dsc", "a.dsc.orig"]:
            with self.subTest(name=name):
                (self.settings / f"{self.copy}.dsc").replace(self.settings / name)
                for command in (["put", "-f", "settings/a", "-"], ["set", "settings/a", "label=x"]):
                    run = self.run_tool(*command, stdin=b"new", code=59)
                    self.assertIn(f"is also named by {name}", run.message)
                run = self.run_tool("rm", "settings/a")
                self.assertIn(f"its body file stays: it is also named by {name}", run.message)
                self.run_tool("check", "--repair", code=3)
                self.assertTrue(body.exists())
                self.run_tool("check", "--settle", f"settings/{name}", "--keep", "theirs")
                self.assertEqual(b"body of a", self.body("settings/a"))
                shutil.copy(self.settings / "a.dsc", self.settings / f"{self.copy}.dsc")

    def test_a_record_beside_an_unreadable_one_keeps_its_body(self):
        (self.settings / f"{self.copy}.dsc").write_text("nonsense\n")
        body = self.body_of("a")
        run = self.run_tool("rm", "settings/a")
        self.assertIn("which cannot be read", run.message)
        self.assertTrue(body.exists())
        self.findings(code=3)


class LinkTest(TwoRecordsTest):
    """Nothing outside of the database's folders is read, written or deleted."""

    def setUp(self):
        super().setUp()
        self.outside = self.folder / "outside"
        self.outside.mkdir()
        (self.outside / "file").write_text("precious")

    def intact(self):
        self.assertEqual("precious", (self.outside / "file").read_text())

    def test_a_link_in_the_place_of_a_copy(self):
        for name in ["new_db", "old_db"]:
            for command in (["put", "-f", "settings/c", "-"], ["check", "--repair"],
                            ["passwd", *support.CHEAP]):
                with self.subTest(name=name, command=command):
                    link = self.folder / name
                    link.symlink_to("outside")
                    self.assertIn("move it elsewhere", self.fails(
                        4, "invalid", *command,
                        env={"FSTORE_NEW_PASSWORD": support.PASSWORD}))
                    self.intact()
                    self.assertEqual(Path("outside"), link.readlink())
                    link.unlink()

    def test_a_body_that_is_a_link_is_not_read(self):
        body = self.body_of("a")
        body.unlink()
        body.symlink_to("../../outside/file")
        run = self.run_tool("get", "settings/a", code=50)
        self.assertEqual(b"", run.out)
        self.run_tool("rm", "-f", "settings/a")
        self.intact()

    def test_a_database_that_is_a_link_is_refused(self):
        (self.folder / "db").rename(self.folder / "elsewhere")
        (self.folder / "db").symlink_to("elsewhere")
        self.assertIn("is a link", self.fails(4, "invalid", "ls"))
        (self.folder / "linked").symlink_to(".")
        (self.folder / "db").unlink()
        (self.folder / "elsewhere").rename(self.folder / "db")
        self.run_tool("-D", "linked", "ls")


if __name__ == "__main__":
    support.main()
