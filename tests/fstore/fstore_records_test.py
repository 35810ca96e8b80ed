#!/usr/bin/env python3
"""Records: put, get, set, unset, show, ls, mv, rm, dump, info."""

import filecmp
import hashlib
import os
import shutil

import pki
import support
from terminal import Terminal
from support import LONG, SANITIZED, FstoreTest, InitialisedTest


class BodyTest(InitialisedTest):
    def test_comes_back_as_it_was(self):
        for name, body in [("text", b"hello\n"), ("nothing", b""), ("all", bytes(range(256)) * 999),
                           ("nul", b"\0")]:
            with self.subTest(name):
                self.put(f"settings/{name}", body)
                self.assertEqual(body, self.body(name))
        self.assert_sound()

    def test_is_encrypted_on_disk(self):
        secret = b"this must not be found on the disk"
        self.put("settings/a", secret)
        for name, contents in self.files().items():
            self.assertNotIn(secret, contents, name)
            self.assertNotIn(hashlib.sha256(secret).hexdigest().encode(), contents, name)

    def test_plain_body_needs_no_password(self):
        self.put("settings/a", b"public", "--plain-body", password=None)
        self.assertEqual(b"public", self.body("a", password=None))
        self.assertTrue(any(b"public" == contents for contents in self.files().values()))

    def test_plain_empty_body_is_refused(self):
        self.assertIn("--plain-body",
                      self.fails(4, "invalid", "put", "--plain-body", "settings/a", "-"))
        self.assertEqual([], self.records())

    def test_replaces_the_body_and_keeps_the_rest(self):
        self.put("settings/a", b"one", "--label", "mine")
        self.run_tool("set", "a", "0x8001=kept")
        self.put("settings/a", b"two", "--plain-body")
        self.assertEqual(b"two", self.body("a", password=None))
        shown = self.run_tool("show", "a", "--json").document["records"][0]
        self.assertEqual("mine", shown["label"])
        self.assertIn({"id": 0x8001, "type": "text", "encrypted": False, "value": "kept"},
                      shown["attributes"])
        self.put("settings/a", b"three")
        self.assertFalse(any(b"two" == contents for contents in self.files().values()))
        self.assert_sound()

    def test_a_body_is_not_replaced_unasked(self):
        self.put("settings/a", b"precious")
        self.assertIn("--force", self.fails(4, "invalid", "put", "settings/a", "-", stdin=b"other"))
        self.fails(4, "invalid", "put", "--plain-body", "settings/a", "-", stdin=b"other",
                   password=None)
        for answer, code, body in [("n\n", 4, b"precious"), ("\n", 4, b"precious"),
                                   ("y\n", 0, b"typed over")]:
            path = self.write("in", b"typed over")
            terminal = Terminal(["-D", self.folder, "put", "settings/a", path],
                                password=support.PASSWORD)
            self.addCleanup(terminal.close)
            terminal.expect("Replace the body of settings/a? [y/N] ")
            terminal.type(answer)
            self.assertEqual(code, terminal.wait(), terminal.seen)
            self.assertEqual(body, self.body("a"))
        self.assert_sound()

    def test_a_change_while_it_asks_is_asked_about_again(self):
        self.put("settings/a", b"first")
        terminal = Terminal(["-D", self.folder, "put", "settings/a", self.write("new", b"new")],
                            password=support.PASSWORD)
        self.addCleanup(terminal.close)
        terminal.expect("Replace the body of settings/a? [y/N] ")
        self.put("settings/a", b"somebody else's")
        terminal.type("y\n")
        terminal.expect("settings/a has been changed in the meantime")
        terminal.expect("Replace the body of settings/a? [y/N] ")
        terminal.type("n\n")
        self.assertEqual(4, terminal.wait(), terminal.seen)
        self.assertEqual(b"somebody else's", self.body("a"))

    def test_of_random_bytes(self):
        bodies = set()
        for name in "abc":
            self.run_tool("put", f"settings/{name}", "--random", "32")
            bodies.add(self.body(name))
        self.assertEqual([32] * 3, [len(body) for body in bodies])
        self.assertFalse(any(body in contents for contents in self.files().values()
                             for body in bodies))
        for args in [(), ("-", "--random", "32"), ("--random", "0"), ("--random", "1048577")]:
            self.fails(2, "usage", "put", "settings/d", *args)
        self.assertEqual(3, len(self.records()))

    def test_of_a_file(self):
        path = self.write("in", b"from a file")
        self.run_tool("put", "-f", "settings/a", path)
        self.assertEqual(b"from a file", self.body("a"))
        run = support.fstore("-D", self.folder, "put", "settings/b", path, cwd="/")
        self.assertEqual(0, run.code, run.message)

    def test_file_is_named_from_where_the_user_is(self):
        (self.folder / "elsewhere").mkdir()
        self.write("elsewhere/in", b"relative")
        run = support.fstore("-D", "..", "put", "-f", "settings/a", "in", cwd=self.folder / "elsewhere")
        self.assertEqual(0, run.code, run.message)
        run = support.fstore("-D", "..", "get", "a", "-o", "out", cwd=self.folder / "elsewhere")
        self.assertEqual(0, run.code, run.message)
        self.assertEqual(b"relative", (self.folder / "elsewhere" / "out").read_bytes())

    def test_missing_input_is_told_before_anything_happens(self):
        self.assertIn("nowhere", self.fails(50, "missing", "put", "-f", "settings/a", "nowhere",
                                            password=None))
        self.assertIn("directory", self.fails(9, "io", "put", "-f", "settings/a", "."))

    def test_more_than_the_format_holds_is_refused_unread(self):
        path = self.folder / "huge"
        with path.open("wb") as file:
            file.truncate(1 << 32)
        self.assertIn("4294967231", self.fails(4, "invalid", "put", "-f", "settings/a", path))
        self.assertEqual([], self.records())

    def test_unknown_folder_is_missing(self):
        self.assertIn("nowhere", self.fails(50, "missing", "put", "nowhere/a", "-", stdin=b"x"))

    def test_of_a_certificate_is_not_replaced(self):
        self.put("certificates/local/a", b"x")
        self.make_kind("certificates/local/a", 1)
        self.assertIn("import", self.fails(4, "invalid", "put", "certificates/local/a", "-",
                                           stdin=b"y"))

    def make_kind(self, address, kind):
        path = self.folder / "db" / f"{address}.dsc"
        path.write_text(path.read_text().replace("00000101 00000005", f"00000101 {kind:08x}"))

    def test_get_without_body(self):
        (self.folder / "db/settings/a.dsc").write_text("00000003 00000001 alice\n")
        self.assertIn("no body", self.fails(36, "not-found", "get", "a"))


class OutputFileTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        run = support.fstore("-D", folder, "put", "-f", "settings/a", "-", stdin=b"body")
        assert run.code == 0, run.message

    def test_is_written_for_its_owner_only(self):
        self.addCleanup(os.umask, os.umask(0))
        self.run_tool("get", "a", "-o", "out")
        self.assertEqual(b"body", (self.folder / "out").read_bytes())
        self.assertEqual(0o600, (self.folder / "out").stat().st_mode & 0o777)

    def test_is_replaced_only_with_force(self):
        self.write("out", "precious")
        self.assertIn("--force", self.fails(4, "invalid", "get", "a", "-o", "out"))
        self.assertEqual(b"precious", (self.folder / "out").read_bytes())
        self.run_tool("get", "a", "-f", "-o", "out")
        self.assertEqual(b"body", (self.folder / "out").read_bytes())

    def test_never_in_a_database(self):
        os.symlink("db/settings", self.folder / "linked")
        shutil.copytree(self.folder / "db", self.folder / "db-20300131T000000Z")
        before = self.files()
        for path in ["db/settings/a.dsc", "db/key.dsc", "db/keys/new", "db.lock", "linked/new",
                     "db.index-wal", "db.index-shm", "db.index-journal", "new_db", "old_db", "db.lost",
                     "db-20300131T000000Z/key.dsc", self.folder / "db/new", "./db/../db/crls/x"]:
            message = self.fails(4, "invalid", "get", "a", "-f", "-o", path)
            self.assertRegex(message, "is inside the database|is the database's own")
            for args in [("backup", "-f", path), ("export", "root", "-f", "-o", path),
                         ("deploy", "a.com", "--chain", path, "--key", path, "-f")]:
                self.assertIn("database", self.fails(4, "invalid", *args))
        self.assertEqual(before, self.files())
        (self.folder / "elsewhere/db").mkdir(parents=True)
        self.run_tool("get", "a", "-o", "elsewhere/db/out")
        self.run_tool("get", "a", "-o", "elsewhere/db.lock")

    def test_nothing_is_left_of_a_failure(self):
        self.fails(50, "missing", "get", "nothing", "-o", "out")
        self.fails(6, "wrong-password", "get", "a", "-o", "out", password="wrong")
        self.fails(50, "missing", "get", "a", "-o", "nowhere/out")
        self.assertEqual(["db", "db.lock"], self.entries())

    def test_json_has_the_bytes_unless_a_file_gets_them(self):
        record = self.run_tool("--json", "get", "a").document["records"][0]
        self.assertEqual(b"body".hex(), record["body"]["bytes"])
        record = self.run_tool("--json", "get", "a", "-o", "out").document["records"][0]
        self.assertNotIn("bytes", record["body"])


class AddressTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        for address in ["settings/a", "settings/both", "keys/both"]:
            run = support.fstore("-D", folder, "put", "--plain-body", address, "-",
                                 stdin=address.encode())
            assert run.code == 0, run.message

    def test_is_a_place_a_unique_name_or_a_digest(self):
        digest = hashlib.sha256(b"keys/both").hexdigest()
        for address in ["keys/both", "db/keys/both", "./keys/both", "sha256:" + digest,
                        "sha256:" + digest[:9].upper()]:
            self.assertEqual(b"keys/both", self.body(address), address)
        self.assertEqual(b"settings/a", self.body("a"))

    def test_that_may_be_several_is_refused(self):
        message = self.fails(4, "invalid", "get", "both")
        self.assertIn("keys/both", message)
        self.assertIn("settings/both", message)

    def test_of_nothing_is_missing(self):
        for address in ["nothing", "settings/nothing", "nowhere/a", "sha256:00"]:
            self.assertIn(f"there is no record {address}; `fstore ls` lists all",
                          self.fails(50, "missing", "show", address))

    def test_of_nothing_names_the_nearest(self):
        for address, nearest in [("settings/bath", "settings/both"), ("setings/a", "settings/a"),
                                 ("bothh", "keys/both")]:
            self.assertIn(f"there is no record {address}; did you mean {nearest}?",
                          self.fails(50, "missing", "show", address))

    def test_by_less_when_one_alone_is_meant(self):
        self.put("settings/unique", b"settings/unique", "--plain-body")
        self.run_tool("set", "settings/a", "label=The first [of all]")
        for text, meant in [("The first [of all]", "settings/a"), ("uni", "settings/unique"),
                            ("settings/*oth", "settings/both"), ("un[a-z]*", "settings/unique"),
                            ("s*/[a-b]", "settings/a"), ("db/settings/b*", "settings/both")]:
            for command in ["get", "show", "dump"]:
                run = self.run_tool("-q", command, text)
                self.assertIn(f"is taken to mean {meant}", run.message, (command, text))
            self.assertEqual(meant.encode(), self.run_tool("-q", "get", text).out)
        message = self.fails(4, "invalid", "get", "*oth")
        self.assertIn("it may be keys/both, settings/both", message)
        self.assertIn("ambiguous", self.fails(4, "invalid", "show", "b"))
        for text in ["sha256:00", "settings/A*", "x*", "ey"]:
            self.fails(50, "missing", "show", text)

    def test_who_names_a_place_means_no_other(self):
        self.run_tool("set", "settings/a", "label=settings/c")
        for text in ["settings/bo", "settings/c", "settings/", "keys/bot"]:
            self.assertIn(support.fstore("get", text, cwd=self.folder).code, (4, 50), text)

    def test_by_less_writes_nothing(self):
        for args in [("set", "settings/bo", "label=x"), ("unset", "settings/bo", "label"),
                     ("rm", "settings/bo"), ("mv", "settings/bo", "settings/c")]:
            self.assertIn("did you mean settings/both?", self.fails(50, "missing", *args))

    def test_of_a_new_record_is_no_pattern_of_others(self):
        self.write("one.pem", pki.openssl("genpkey", "-algorithm", "ed25519"))
        for args, meant in [(("put", "settings/b*", "-"), "settings/both"),
                            (("put", "-f", "s*/a", "-"), "settings/a"),
                            (("mv", "settings/a", "keys/[a-c]oth"), "keys/both"),
                            (("cp", "settings/a", "*/both"), "keys/both and 1 more"),
                            (("generate", "b?th"), "keys/both"),
                            (("import", "one.pem", "--name", "bot?"), "keys/both")]:
            message = self.fails(4, "invalid", *args)
            self.assertIn(f"is a pattern that matches {meant}; name the record", message, args)
        self.assertEqual(["keys/both", "settings/a", "settings/both"], self.records())

    def test_may_have_the_signs_of_patterns(self):
        self.put("settings/*.example.com", b"x")
        self.run_tool("generate", "*.example.com")
        self.run_tool("cp", "settings/a", "settings/z*")
        self.put("settings/zz", b"y")
        for replaced in ["settings/z*", "settings/*.example.com"]:
            self.put(replaced, b"of " + replaced.encode(), "-f")
            self.assertEqual(b"of " + replaced.encode(), self.body(replaced))
        self.run_tool("set", "settings/z*", "label=x")
        self.assertEqual(b"y", self.body("settings/zz"))

    def test_that_leads_elsewhere_is_refused(self):
        for address in ["../a", "settings/../../a", "settings/", "sha256:xyz", ""]:
            self.fails(4, "invalid", "show", address)

    def test_through_a_link_is_refused(self):
        outside = self.folder / "outside"
        outside.mkdir()
        (outside / "a.dsc").write_text("00000003 00000001 alice\n")
        (self.folder / "db/linked").symlink_to(outside)
        self.fails(50, "missing", "show", "linked/a")
        self.fails(50, "missing", "put", "linked/b", "-", stdin=b"x")


class AttributeTest(InitialisedTest):
    def setUp(self):
        super().setUp()
        self.put("settings/a", b"x", "--plain-body")

    def attributes(self, *options, **more):
        shown = self.run_tool("show", "a", "--json", *options, **more).document["records"][0]
        return [attribute for attribute in shown["attributes"] if attribute["id"] >= 0x8000]

    def test_types(self):
        self.run_tool("set", "a", "0x8001=plain text", "0x8002:number=0xff", "0x8003:binary=00ff",
                      "32772:string=with NUL", "label=My label", "0x8005=a=b", "0x8006=@@home",
                      password=None)
        self.assertEqual(
            [{"id": 0x8001, "type": "text", "encrypted": False, "value": "plain text"},
             {"id": 0x8002, "type": "number", "encrypted": False, "value": "255", "number": 255},
             {"id": 0x8003, "type": "binary", "encrypted": False, "value": "00ff"},
             {"id": 0x8004, "type": "string", "encrypted": False, "value": "with NUL"},
             {"id": 0x8005, "type": "text", "encrypted": False, "value": "a=b"},
             {"id": 0x8006, "type": "text", "encrypted": False, "value": "@home"}],
            self.attributes(password=None))
        self.assertIn("My label", self.run_tool("show", "a").text)

    def test_set_again_replaces(self):
        self.run_tool("set", "a", "0x8001=one", "0x8002=two")
        self.run_tool("set", "a", "0x8001:number=1")
        self.assertEqual([(0x8002, "two"), (0x8001, "1")],
                         [(one["id"], one["value"]) for one in self.attributes()])

    def test_secret_is_encrypted_and_stays_so(self):
        self.run_tool("set", "a", "--encrypt", "0x8001=hunter2")
        self.assertFalse(any(b"hunter2" in contents for contents in self.files().values()))
        self.assertEqual([{"id": 0x8001, "type": "text", "encrypted": True}], self.attributes())
        self.assertEqual("hunter2", self.attributes("--unlock")[0]["value"])
        self.run_tool("set", "a", "0x8001=hunter3")
        self.assertFalse(any(b"hunter3" in contents for contents in self.files().values()))
        self.assertEqual("hunter3", self.attributes("--unlock")[0]["value"])
        self.assert_sound()

    def test_what_is_encrypted_keeps_its_type(self):
        self.run_tool("set", "a", "--encrypt", "0x8001=secret word", "0x8002:number=258",
                      "0x8003:binary=00ff", "0x8004:string=x", "0x8005=two\nlines")
        expected = [(0x8001, "text", "secret word"), (0x8002, "number", "258"), (0x8003, "binary", "00ff"),
                    (0x8004, "string", "x"), (0x8005, "text", "two\nlines")]

        def shown():
            return [(one["id"], one["type"], one["value"]) for one in self.attributes("--unlock")]

        self.assertEqual(expected, shown())
        self.assertEqual([(0x8002, "number")], [(one["id"], one["type"]) for one in self.attributes()
                                                if "value" not in one and one["id"] == 0x8002])
        self.assertRegex(self.run_tool("show", "a", "-u").text, r"0x8002 +258 \(encrypted\)")
        found = self.run_tool("ls", "-u", "--json", "--attr", "0x8002=0x102").document["records"]
        self.assertEqual(["settings/a"], [record["address"] for record in found])
        self.run_tool("mv", "settings/a", "settings/b")
        self.run_tool("mv", "settings/b", "settings/a")
        self.assertEqual(expected, shown())
        self.run_tool("set", "a", "0x8001:number=1")
        self.assertIn((0x8001, "number", "1"), shown())
        for one in expected:
            self.run_tool("unset", "a", hex(one[0]))
        self.assertNotIn("types", self.run_tool("show", "a").text)
        self.assert_sound()

    def test_bytes_that_are_no_text_are_binary(self):
        for contents in b"\xff", b"a\0b":
            self.write("value", contents)
            self.run_tool("set", "a", "--encrypt", "0x8001=@value")
            self.assertEqual([{"id": 0x8001, "type": "binary", "encrypted": True,
                               "value": contents.hex()}], self.attributes("--unlock"))

    def test_value_from_a_file(self):
        self.write("value", "secret line\n")
        self.run_tool("set", "a", "--encrypt", "0x8001=@value")
        self.run_tool("set", "a", "0x8002:binary=@value")
        by_id = {one["id"]: one["value"] for one in self.attributes("--unlock")}
        self.assertEqual("secret line", by_id[0x8001])
        self.assertEqual(b"secret line\n".hex(), by_id[0x8002])

    def test_refuses_and_changes_nothing(self):
        before = self.files()
        for assignment in ["label", "nonsense=1", "0x100=5", "subject=CN=x", "0x8001:float=1",
                           "0x8001:number=x", "0x8001:number=4294967296", "0x8001:binary=0",
                           "0x8001:binary=xy", "0x8001:number="]:
            with self.subTest(assignment):
                self.fails(4, "invalid", "set", "a", "0x8009=fine", assignment)
        for value in ["two\nlines", " blank in front", "\tblank"]:
            self.assertRegex(self.fails(4, "invalid", "set", "a", f"0x8001={value}"),
                             "^0x8001: a text cannot be stored that")
        self.assertEqual(before, self.files())

    LABELS = ("two\nlines", " blank in front", "\ttab", "blanks behind  ", "return\r", "\r", "\n",
              "a\\0Ab", "\\", "\\ x", "! no comment", "Z\u00fcrich", "plain", "0x12", "\x7f")

    def label(self, **more):
        return self.run_tool("show", "a", "--json", **more).document["records"][0]["label"]

    def test_labels_come_back_as_they_were_given(self):
        for label in self.LABELS:
            with self.subTest(label):
                for args in (("set", "a", f"label={label}"),
                             ("put", "-f", "settings/a", "-", "--plain-body", "--label", label)):
                    self.run_tool(*args, password=None, stdin=b"x")
                    self.assertEqual(label, self.label(password=None))
                    listed = self.run_tool("ls", "--json").document["records"]
                    self.assertEqual([label], [one["label"] for one in listed
                                               if one["address"] == "settings/a"])
        self.run_tool("set", "a", "label=")
        self.assertNotIn("label", self.run_tool("show", "a", "--json").document["records"][0])
        self.assert_sound()

    def test_a_label_from_a_file_may_have_a_nul(self):
        self.write("label", b"a\0b\n")
        self.run_tool("set", "a", "label=@label")
        self.assertEqual("a\0b", self.label())

    def test_an_encrypted_label_is_any_text_too(self):
        for label in self.LABELS:
            self.run_tool("set", "a", "--encrypt", f"label={label}")
            self.assertNotIn("label", self.run_tool("show", "a", "--json").document["records"][0])
            record = self.run_tool("show", "a", "--json", "--unlock").document["records"][0]
            self.assertEqual(label, record["label"])

    def test_a_label_of_old_means_what_it_meant(self):
        path = self.folder / "db/settings/a.dsc"
        path.write_text(path.read_text() + "00000004 00000102 a\\0Ab\\ \n")
        self.assertEqual("a\\0Ab\\ ", self.label())

    def test_a_label_goes_to_pkcs12_and_comes_back(self):
        for label in "two\nlines ", " x", "a\\0Ab":
            self.run_tool("generate", "k", "--self-signed", "5", "--subject", "CN=k", "--label",
                          label)
            self.run_tool("export", "certificates/local/k", "--format", "p12", "-f", "-o",
                          "k.p12", env={"FSTORE_OUT_PASSWORD": "out"})
            self.run_tool("rm", "-f", "certificates/local/k", "keys/k")
            self.run_tool("import", "k.p12", env={"FSTORE_IN_PASSWORD": "out"})
            listed = self.run_tool("ls", "--json", "--unlock").document["records"]
            labels = [one["label"] for one in listed if one["kind"] in ("key", "certificate")]
            self.assertEqual([label] * 2, labels)
            self.run_tool("rm", "-f", *(one["address"] for one in listed
                                        if one["kind"] in ("key", "certificate")))

    def test_a_label_that_pkcs12_cannot_hold_is_left_out_of_it(self):
        self.write("label", b"a\0b")
        self.run_tool("generate", "k", "--self-signed", "5", "--subject", "CN=k")
        for label in "mail \U0001f4e7", "@label":
            self.run_tool("set", "certificates/local/k", f"label={label}")
            self.run_tool("export", "certificates/local/k", "--format", "p12", "-f", "-o",
                          "k.p12", env={"FSTORE_OUT_PASSWORD": "out"})
            read = pki.openssl("pkcs12", "-in", self.folder / "k.p12", "-passin", "pass:out", "-nokeys")
            self.assertIn(b"friendlyName: k\n", read)

    def test_a_label_is_a_text(self):
        for assignment in "label:number=5", "label:string=x":
            self.assertIn("a label is a text", self.fails(4, "invalid", "set", "a", assignment))

    def test_a_refused_value_is_not_repeated(self):
        self.assertNotIn("hunter2",
                         self.fails(4, "invalid", "set", "a", "0x8001:binary=hunter2"))

    def test_unset_removes(self):
        self.run_tool("set", "a", "0x8001=one", "0x8002=two", "label=mine")
        self.run_tool("unset", "a", "0x8001", "label")
        self.assertEqual([0x8002], [one["id"] for one in self.attributes()])
        self.assertIn("0x8001", self.fails(36, "not-found", "unset", "a", "0x8002", "0x8001"))
        self.assertEqual([0x8002], [one["id"] for one in self.attributes()])

    def test_empty_text_removes(self):
        self.run_tool("set", "a", "label=mine")
        self.run_tool("set", "a", "label=")
        self.assertNotIn("label", self.run_tool("show", "a").text)

    def test_what_would_be_too_large_to_read_is_not_written(self):
        def refuses(*args):
            before = self.files()
            message = self.fails(4, "invalid", "set", "a", *args)
            self.assertRegex(message, "cannot write settings/a: its attributes would take .* bytes")
            self.assertEqual(before, self.files())
        self.write("large", b"x" * (6 << 20))
        self.run_tool("set", "a", "0x8001=@large", "0x8002=@large")
        refuses("0x8003=@large")
        refuses("0x8003:binary=" + "00" * (1 << 12), "0x8004:string=@large")
        refuses("0x8003=@large", "--encrypt")
        self.write("larger", b"x" * (9 << 20))
        refuses("0x8001:binary=@larger")
        self.assertEqual([6 << 20, 6 << 20], [len(one["value"]) for one in self.attributes()])
        self.assert_sound()

    def test_the_largest_that_is_written_can_be_read(self):
        written = 0
        for less in range(1000, 0, -200):
            self.write("large", b"x" * ((16 << 20) - less))
            run = support.fstore("-D", self.folder, "set", "a", "0x8001=@large", cwd=self.folder)
            self.assertIn(run.code, (0, 4), run.message)
            written += run.code == 0
            self.assertIn("settings/a", self.run_tool("ls").text)
        self.assertTrue(0 < written < 5, written)

    def test_internal_records_are_not_for_users(self):
        self.fails(4, "invalid", "set", "./key", "0x8001=x")
        self.fails(4, "invalid", "unset", "./kdf", "0x8001")
        self.fails(4, "invalid", "rm", "-f", "./key")
        self.fails(4, "invalid", "put", "./kdf", "-", stdin=b"x")
        self.assertIn("box=", self.run_tool("show", "./kdf").text)


class RemovalTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        for address in ["settings/a", "settings/b", "keys/k"]:
            run = support.fstore("-D", folder, "put", address, "-", stdin=b"x")
            assert run.code == 0, run.message

    def test_removes_without_password(self):
        self.run_tool("rm", "a", "b", "a", password=None)
        self.assertEqual(["keys/k"], self.records())
        self.assert_sound()

    def test_one_missing_removes_nothing(self):
        self.fails(50, "missing", "rm", "a", "nothing")
        self.assertEqual(3, len(self.records()))

    def test_a_key_is_asked_for(self):
        self.assertIn("--force", self.fails(4, "invalid", "rm", "a", "k"))
        self.assertEqual(3, len(self.records()))
        self.run_tool("rm", "--force", "a", "k")
        self.assertEqual(["settings/b"], self.records())

    def test_what_matches_a_pattern_is_asked_for(self):
        for pattern in ["settings/*", "settings/[ab]"]:
            message = self.fails(4, "invalid", "rm", pattern)
            self.assertIn("what matches is settings/a, settings/b, and you did not", message)
        self.assertEqual(3, len(self.records()))
        run = self.run_tool("rm", "-f", "settings/[a]", "keys/k*")
        self.assertIn("removed settings/a", run.message)
        self.assertIn("removed keys/k", run.message)
        self.assertEqual(["settings/b"], self.records())

    def test_what_is_asked_for_is_named_also_quietly(self):
        for options, answer, left in [(["-q"], "n\n", 3), (["--json"], "y\n", 1)]:
            terminal = Terminal(["-D", self.folder, *options, "rm", "settings/*"])
            self.addCleanup(terminal.close)
            terminal.expect("settings/a\r\nsettings/b\r\nRemove these 2 records? [y/N] ")
            # Nobody is kept waiting meanwhile.
            self.run_tool("--lock-timeout", "0", "set", "settings/b", "label=x")
            terminal.type(answer)
            self.assertEqual(0 if left == 1 else 4, terminal.wait(), terminal.seen)
            self.assertEqual(left, len(self.records()))

    def test_a_pattern_for_all_folders_is_refused(self):
        for pattern in ["*", "?", "[ab]", "k*", "*/*", "*eys/*", "s*/a", "[!x]*/a", "*/*/*"]:
            self.assertIn("name the folder", self.fails(4, "invalid", "rm", "-f", pattern))
        self.assertEqual(3, len(self.records()))

    def test_a_pattern_that_matches_nothing_removes_nothing(self):
        for patterns in [("settings/*", "x/*"), ("settings/A*",), ("settings/a/*",)]:
            self.fails(50, "missing", "rm", "-f", *patterns)
        self.assertEqual(3, len(self.records()))

    def test_a_record_that_looks_like_a_pattern_is_itself(self):
        for address in ["settings/[a]", "[a]"]:
            self.run_tool("rm", "settings/a")  # or the new one would be a pattern of it
            self.put("settings/[a]", b"x")
            self.put("settings/a", b"y")
            self.run_tool("rm", address)
        self.assertEqual(["keys/k", "settings/a", "settings/b"], self.records())

    def test_some_done_and_some_not(self):
        # The second removal fails at its first call, and at its second attempt.
        trap = {"LD_PRELOAD": support.CALL_TRAP, "CALL_TRAP_COUNT": self.folder / "calls"}
        self.run_tool("rm", "a", env=trap)
        calls = int((self.folder / "calls").read_text())
        self.put("settings/a", b"x")
        trap = {"LD_PRELOAD": support.CALL_TRAP, "CALL_TRAP_FAIL_FROM": calls + 1,
                "CALL_TRAP_ERRNO": 5}
        run = self.run_tool("rm", "--json", "a", "b", code=5, env=trap)
        done, failed = run.document["records"]
        self.assertEqual({"address": "settings/a", "removed": True, "bodyKept": False}, done)
        self.assertEqual(("settings/b", "io"), (failed["address"], failed["error"]["name"]))
        self.assertEqual(["keys/k", "settings/b"], self.records())

    def test_a_damaged_record_can_be_removed(self):
        (self.folder / "db/settings/a.dsc").write_text("nonsense\n")
        self.run_tool("rm", "settings/a")
        self.assertNotIn("settings/a", self.records())


class CopyTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        for args in [("settings/a",), ("settings/b", "--plain-body")]:
            run = support.fstore("-D", folder, "put", *args, "-", stdin=b"of " + args[0].encode())
            assert run.code == 0, run.message
        run = support.fstore("-D", folder, "set", "a", "label=mine", "0x8001=x", "--encrypt")
        assert run.code == 0, run.message

    def test_has_everything_of_its_own(self):
        document = self.run_tool("--json", "cp", "a", "keys/second").document
        self.assertEqual("settings/a", document["from"])
        self.assertEqual("keys/second", document["records"][0]["address"])
        shown = [self.run_tool("show", "-u", "--json", address).document["records"][0]["attributes"]
                 for address in ("settings/a", "keys/second")]
        self.assertEqual(*shown)
        self.run_tool("rm", "settings/a")
        self.assertEqual(b"of settings/a", self.body("second"))
        self.assert_sound()

    def test_of_a_plain_record_needs_no_password(self):
        self.run_tool("cp", "b", "lsps/b", password=None)
        self.assertEqual(b"of settings/b", self.body("lsps/b", password=None))
        self.fails(2, "usage", "cp", "a", "lsps/a", password=None)

    def test_replaces_nothing(self):
        self.assertIn("already exists", self.fails(4, "invalid", "cp", "a", "settings/b"))
        self.fails(4, "invalid", "cp", "a", "./kdf")
        self.fails(4, "invalid", "cp", "./key", "settings/key")
        self.fails(50, "missing", "cp", "a", "nowhere/a")
        self.assertIn("did you mean settings/a?",
                      self.fails(50, "missing", "cp", "setings/a", "settings/c"))
        self.assertEqual(["settings/a", "settings/b"], self.records())


class FolderTest(InitialisedTest):
    def test_holds_records(self):
        self.run_tool("mkdir", "settings/web", "own", password=None)
        for folder in ["settings/web", "own"]:
            self.put(f"{folder}/a", b"x")
        self.assertEqual(["own/a", "settings/web/a"], self.records())
        self.assert_sound()
        self.run_tool("passwd", *support.CHEAP, env={"FSTORE_NEW_PASSWORD": "changed"})
        self.assertEqual(b"x", self.body("own/a", password="changed"))

    def test_needs_the_one_above_it(self):
        self.fails(50, "missing", "mkdir", "a/b/c")
        self.run_tool("mkdir", "-p", "a/b/c")
        self.assertIn("already", self.fails(4, "invalid", "mkdir", "a/b/c"))
        self.run_tool("mkdir", "-p", "a/b/c", "db/a/./b//d/")
        self.assertTrue((self.folder / "db/a/b/d").is_dir())

    def test_is_for_those_who_may_use_the_one_above(self):
        (self.folder / "db/settings").chmod(0o2770)
        self.run_tool("mkdir", "settings/shared", "own")
        self.assertEqual(0o2770, (self.folder / "db/settings/shared").stat().st_mode & 0o7777)
        self.assertEqual((self.folder / "db").stat().st_mode, (self.folder / "db/own").stat().st_mode)

    def test_names_that_are_refused(self):
        before = sorted(os.listdir(self.folder / "db"))
        for name in ["", ".", "db", "../a", "a\nb", "x.dsc", "0000abcd", "settings/y.dsc", "a" * 300]:
            run = support.fstore("mkdir", name, cwd=self.folder)
            self.assertIn(run.code, (4, 9), name)
        self.put("settings/a", b"x")
        self.run_tool("mkdir", "settings/a")  # a record of that name is another file
        self.assertEqual(b"x", self.body("settings/a"))
        (self.folder / "elsewhere").mkdir()
        os.symlink("../elsewhere", self.folder / "db/linked")
        for args in [("linked/a",), ("-p", "linked/a"), ("linked",)]:
            self.assertNotEqual(0, support.fstore("mkdir", *args, cwd=self.folder).code)
        self.assertEqual([], os.listdir(self.folder / "elsewhere"))
        self.assertEqual(sorted([*before, "linked"]), sorted(os.listdir(self.folder / "db")))


class RenamingTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        for args in [("settings/a",), ("settings/b", "--plain-body"), ("keys/k",)]:
            run = support.fstore("-D", folder, "put", *args, "-", stdin=b"of " + args[0].encode())
            assert run.code == 0, run.message
        run = support.fstore("-D", folder, "set", "a", "label=mine", "0x8001=x", "--encrypt")
        assert run.code == 0, run.message

    def shown(self, address):
        record = self.run_tool("show", "-u", "--json", address).document["records"][0]
        return {name: value for name, value in record.items() if name != "address"}

    def test_keeps_everything_but_the_place(self):
        before = self.shown("settings/a")
        run = self.run_tool("mv", "a", "lsps/moved")
        self.assertIn("renamed settings/a to lsps/moved", run.message)
        self.assertEqual(["keys/k", "lsps/moved", "settings/b"], self.records())
        self.assertEqual(before, self.shown("lsps/moved"))
        self.assertEqual(b"of settings/a", self.body("moved"))
        self.assert_sound()

    def test_document_has_both_places(self):
        document = self.run_tool("mv", "a", "settings/c", "--json").document
        self.assertEqual(("settings/a", False), (document["from"], document["bodyKept"]))
        record = document["records"][0]
        self.assertEqual(("settings/c", True), (record["address"], record["body"]["encrypted"]))
        self.assertNotIn("sha256", record)

    def test_plain_record_needs_no_password(self):
        self.run_tool("mv", "b", "crm/b", password=None)
        self.assertEqual(b"of settings/b", self.body("crm/b", password=None))

    def test_secret_record_needs_the_password(self):
        self.fails(2, "usage", "mv", "a", "crm/a", password=None)
        self.fails(6, "wrong-password", "mv", "a", "crm/a", password="wrong")
        self.assertEqual(["keys/k", "settings/a", "settings/b"], self.records())

    def test_nothing_is_replaced(self):
        for place in ("settings/b", "settings/a", "keys/k"):
            self.assertIn("already exists", self.fails(4, "invalid", "mv", "a", place))
        (self.folder / "db/settings/link.dsc").symlink_to("nowhere")
        self.assertIn("already exists", self.fails(4, "invalid", "mv", "a", "settings/link"))
        self.assertEqual(b"of settings/b", self.body("b"))
        self.assertEqual(b"of settings/a", self.body("settings/a"))

    def test_refuses_what_is_not_there_or_not_for_users(self):
        before = self.files()
        self.assertIn("nowhere", self.fails(50, "missing", "mv", "a", "nowhere/a"))
        self.assertIn("nothing", self.fails(50, "missing", "mv", "nothing", "settings/c"))
        for args in [("./key", "settings/c"), ("a", "./kdf"), ("a", "c"), ("a", "sha256:00")]:
            self.fails(4, "invalid", "mv", *args)
        self.assertEqual(before, self.files())

    def test_a_damaged_record_stays_where_it_is(self):
        body = next(path for path in (self.folder / "db/settings").iterdir()
                    if path.read_bytes() == b"of settings/b")
        body.write_bytes(b"of another")
        self.assertIn("SHA-256", self.fails(59, "malformed", "mv", "settings/b", "crm/b"))
        self.assertIn("settings/b", self.records())
        self.assertNotIn("crm/b", self.records())

    def test_a_body_that_another_record_names_stays(self):
        shutil.copy(self.folder / "db/settings/b.dsc", self.folder / "db/settings/copy.dsc")
        run = self.run_tool("mv", "settings/b", "crm/b", "--json")
        self.assertTrue(run.document["bodyKept"])
        self.assertIn("copy.dsc", run.document["warnings"][0])
        for address in ("settings/copy", "crm/b"):
            self.assertEqual(b"of settings/b", self.body(address))


class ListingTest(InitialisedTest):
    """Records of an importer's making, told by their attributes alone."""

    RECORDS = {
        "certificates/local/server": [
            "00000001 00000101 00000001", "00000004 00000102 Web",
            "00000004 00000103 CN=www.example.org,O=Example", "00000004 00000104 CN=CA",
            "00000002 00000105 00ff01", "00000004 00000107 2999-01-01T00:00:00Z",
            "00000004 0000010a RSA-2048", "00000002 0000010b aa11",
            "00000004 0000010e DNS:www.example.org", "00000004 0000010e DNS:example.org",
            "00000001 00008001 00000007"],
        "certificates/remote/old": [
            "00000001 00000101 00000001", "00000004 00000103 CN=old",
            "00000004 00000104 CN=Other", "00000004 00000107 2001-01-01T00:00:00Z",
            "00000004 0000010a EC-P-256", "00000002 0000010b bb22", "00000001 0000010f 00000001",
            "00000004 00008001 red"],
        "keys/server": ["00000001 00000101 00000003", "00000002 0000010b aa11",
                        "00000004 0000010a RSA-2048"],
    }

    @classmethod
    def fill(cls, folder):
        for address, lines in cls.RECORDS.items():
            (folder / "db" / f"{address}.dsc").write_text("\n".join(lines) + "\n")

    def listed(self, *args, code=0):
        run = self.run_tool("ls", "--json", *args, code=code, password=None)
        return [record["address"] for record in run.document["records"]]

    def test_shows_expiry_without_password(self):
        text = self.run_tool("ls", password=None).text
        self.assertRegex(text, r"certificates/remote/old .*2001-01-01 expired")
        self.assertRegex(text, r"certificates/local/server .*2999-01-01 ")

    def test_filters(self):
        server, old, key = "certificates/local/server", "certificates/remote/old", "keys/server"
        for args, expected in [
                ((), [server, old, key]),
                (("certificates",), [server, old]), (("certificates/remote",), [old]),
                (("db/keys/",), [key]),
                (("--expired",), [old]), (("--expires-within", "30d"), [old]),
                (("--expires-within", "2000y"), [server, old]),
                (("--subject", "example"), [server]), (("--subject", "CN=www.*"), [server]),
                (("--subject", "www.*"), []), (("--issuer", "cn=ca"), [server]),
                (("--san", "example.org"), [server]), (("--san", "DNS:www*"), [server]),
                (("--san", "ftp*"), []),
                (("--serial", "ff01"), [server]), (("--serial", "00:FF:01"), [server]),
                (("--serial", "ff"), []),
                (("--alg", "rsa"), [server, key]), (("--alg", "EC*"), [old]),
                (("--alg", "RSA-4096"), []),
                (("--has-key",), [server]), (("--no-key",), [old]),
                (("--attr", "0x8001"), [server, old]), (("--attr", "0x8001=7"), [server]),
                (("--attr", "0x8001=re*"), [old]), (("--attr", "label=web"), [server]),
                (("--attr", "0x8001", "--expired"), [old]),
                (("--sort", "expiry"), [old, server, key]),
                (("--sort", "subject"), [key, old, server])]:
            with self.subTest(args=args):
                self.assertEqual(expected, self.listed(*args))

    def test_fail_tells_cron(self):
        self.assertEqual(["certificates/remote/old"], self.listed("--expired", "--fail", code=3))
        self.assertEqual([], self.listed("--subject", "nobody", "--fail"))

    def test_fail_rings_when_it_could_not_look(self):
        self.run_tool("rm", "-f", "certificates/remote/old")
        asked = ("ls", "--expires-within", "1d")
        self.run_tool(*asked, "--fail")  # the key and the other record do not expire
        self.put("settings/a", b"a secret without a date")
        self.run_tool(*asked, "--fail")
        for kind, file in [("certificate", "root.pem"), ("crl", "crl.pem")]:
            run = self.run_tool("import", pki.files() / file, "--encrypt", "--name", kind)
            with self.subTest(kind):
                for limit in [("--expires-within", "1d"), ("--expired",)]:
                    run = self.run_tool("ls", *limit, "--fail", code=3, password=None)
                    self.assertIn("when 1 of the records expire could not be read, since it is "
                                  "encrypted: add --unlock", run.message)
                    self.assertNotIn(kind, run.text)
                    self.run_tool("ls", *limit, "--fail", "--unlock")
                address = self.run_tool(*asked, "--json", "--fail", code=3,
                                        password=None).document["undated"][0]
                self.run_tool(*asked, password=None)
                self.run_tool("ls", "--fail", "--subject", "nobody", password=None)
                self.run_tool("rm", "-f", address)

    def test_fail_rings_for_a_date_or_kind_that_cannot_be_read(self):
        self.run_tool("rm", "-f", "certificates/remote/old")
        for name, lines in {"no date": ["00000001 00000101 00000001"],
                            "no time": ["00000001 00000101 00000001",
                                        "00000004 00000107 next year"],
                            "no kind": ["00000004 00000101 certificate"]}.items():
            path = self.folder / f"db/crls/{name}.dsc"
            path.write_text("\n".join(lines) + "\n")
            with self.subTest(name):
                run = self.run_tool("ls", "--expired", "--fail", code=3)
                self.assertIn("when 1 of the records expire could not be read", run.message)
            path.unlink()
        self.run_tool("ls", "--expired", "--fail")

    def test_json_tells_what_is_known(self):
        record = self.run_tool("ls", "--json", "--serial", "ff01").document["records"][0]
        self.assertEqual(
            {"address": "certificates/local/server", "kind": "certificate", "label": "Web",
             "subject": "CN=www.example.org,O=Example", "issuer": "CN=CA", "serial": "00ff01",
             "notAfter": "2999-01-01T00:00:00Z", "expired": False,
             "altNames": ["DNS:www.example.org", "DNS:example.org"], "keyAlgorithm": "RSA-2048",
             "keySha256": "aa11", "ca": False}, record)

    def test_damage_is_never_silent(self):
        (self.folder / "db/keys/bad.dsc").write_text("nonsense\n")
        (self.folder / "db/keys/gone.dsc").write_text("10000003 00000000 00000099\n")
        run = self.run_tool("ls", code=3)
        self.assertRegex(run.text, "keys/bad +damaged")
        self.assertIn("keys/gone", run.message)
        document = self.run_tool("ls", "--json", code=3).document
        self.assertEqual({"keys/bad": "malformed", "keys/gone": "missing"},
                         {record["address"]: record["error"]["name"]
                          for record in document["records"] if "error" in record})

    def test_an_unknown_folder_is_missing(self):
        self.fails(50, "missing", "ls", "nowhere")

    def test_internal_records_are_listed_when_asked_for(self):
        self.assertEqual(["./kdf", "./kdf-copy", "./key"], self.listed(".")[:3])

    def test_secret_attributes_are_looked_at_when_unlocked(self):
        self.run_tool("set", "keys/server", "--encrypt", "0x8005=hunter2")
        self.assertEqual(["keys/server"], self.listed("--attr", "0x8005"))
        self.assertEqual([], self.listed("--attr", "0x8005=hunter2"))
        run = self.run_tool("ls", "--json", "--unlock", "--attr", "0x8005=hunter2")
        self.assertEqual(1, len(run.document["records"]))


class DumpTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        run = support.fstore("-D", folder, "put", "-f", "settings/a", "-", "--label", "mine", stdin=b"x")
        assert run.code == 0, run.message

    def test_raw_is_the_file(self):
        self.assertEqual((self.folder / "db/settings/a.dsc").read_text(),
                         self.run_tool("dump", "--raw", "a", password=None).text)

    def test_tells_what_each_line_means(self):
        text = self.run_tool("dump", "a", password=None).text
        for meaning in ["body in the file 0000", ", encrypted", "number kind", "text label"]:
            self.assertIn(meaning, text)
        document = self.run_tool("dump", "--json", "a", password=None).document
        self.assertEqual("./db/settings/a.dsc", document["path"])
        self.assertEqual("mine", document["lines"][-1]["data"])

    def test_works_on_a_damaged_descriptor(self):
        (self.folder / "db/settings/a.dsc").write_text("nonsense\n! note\n")
        text = self.run_tool("dump", "settings/a").text
        self.assertIn("damaged", text)
        self.assertIn("skipped", text)


class InfoTest(FstoreTest):
    def test_tells_folder_password_and_records(self):
        self.init()
        self.put("settings/a", b"x")
        document = self.run_tool("info", "--json", password=None).document
        self.assertEqual(f"{self.folder}/db", document["database"])
        slot = document["password"]["slots"][0]
        self.assertRegex(slot.pop("made"), r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
        self.assertEqual({"slot": 1, "kind": "password", "label": "", "ln": 14, "r": 8, "p": 1}, slot)
        self.assertEqual({"kind": "slots", "slots": [slot], "changeUnfinished": False},
                         document["password"])
        self.assertEqual(1, document["recordCount"])
        self.assertFalse(document["oldDatabase"])
        self.assertIn({"folder": "settings", "recordCount": 1}, document["folders"])
        self.assertIn("scrypt, N=2^14", self.run_tool("info", password=None).text)


class LargeTest(InitialisedTest):
    """A body takes memory in proportion: as often as it is held at once, and no more."""

    SIZE = (1 << 30) if LONG else (32 << 20)
    COPIES = 6
    BESIDE = 256 << 20  # the program, its libraries and scrypt

    def test_comes_back_in_bounded_memory(self):
        path = self.folder / "large"
        with path.open("wb") as file:
            block = os.urandom(1 << 20)
            for number in range(self.SIZE >> 20):
                file.write(number.to_bytes(8, "big") + block[8:])
        memory = self.COPIES * self.SIZE + self.BESIDE
        self.run_tool("put", "settings/large", path, memory=memory)
        self.run_tool("get", "large", "-o", "back", memory=memory)
        self.assertTrue(filecmp.cmp(path, self.folder / "back", shallow=False))

    if not SANITIZED:  # which ends a program that cannot have what it asks `new` for

        def test_too_little_memory_is_told(self):
            self.put("settings/a", b"body")
            path = self.write("large", bytes(256 << 20))
            before = self.files()
            self.assertRegex(self.fails(1, "no-memory", "put", "-f", "settings/a", path,
                                        memory=self.BESIDE), "memory")
            self.assertEqual(before, self.files())


if __name__ == "__main__":
    support.main()
