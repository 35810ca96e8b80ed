#!/usr/bin/env python3
"""import: what is told apart, where it goes, and what is said about it."""

import fcntl
import hashlib
import json
import os
import resource
import subprocess

import pki
import support
from pki import openssl
from support import FstoreTest, InitialisedTest
from terminal import Terminal


class ImportTest(InitialisedTest):
    def setUp(self):
        super().setUp()
        self.pki = pki.files()

    def import_files(self, *names, code=0, options=(), **more):
        more["env"] = {**pki.IN_PASSWORD, **more.get("env", {})}
        return self.run_tool("import", *[self.pki / name for name in names], *options,
                             "--json", code=code, **more).document

    def folders(self):
        return sorted(address.rsplit("/", 1)[0] for address in self.records())

    def attributes(self, address, **more):
        shown = self.run_tool("show", address, "--json", **more).document["records"][0]
        return {attribute["name"]: attribute for attribute in shown["attributes"]}


class KindsTest(ImportTest):
    def test_every_form_becomes_its_record(self):
        rows = [("leaf.der", "certificates/remote/www"), ("leaf.pem", "certificates/remote/www"),
                ("leaf.trusted.pem", "certificates/remote/my-alias"),
                ("crl.der", "crls/Example-Root"), ("crl.pem", "crls/Example-Root"),
                ("request.der", "crm/asker"), ("request.pem", "crm/asker"),
                ("rsa.key", "keys/key"), ("rsa.old.pem", "keys/key"), ("p256.old.der", "keys/key"),
                ("p256.encrypted.scrypt.pem", "keys/key"), ("rsa.encrypted.old.pem", "keys/key")]
        for name, start in rows:
            with self.subTest(name):
                document = self.import_files(name)
                self.assertEqual([], document["failures"])
                (record,) = document["records"]
                self.assertEqual("added", record["outcome"])
                self.assertRegex(record["address"], start + r"-[0-9a-f]{8}\Z")
                self.assertTrue(record["address"].endswith(record["sha256"][:8]))
                self.assertEqual(start.startswith("keys/"), record["body"]["encrypted"])
                self.run_tool("rm", "--force", record["address"])

    def test_body_is_the_der(self):
        for name in ("leaf", "crl", "request"):
            address = self.import_files(f"{name}.pem")["records"][0]["address"]
            self.assertEqual((self.pki / f"{name}.der").read_bytes(), self.body(address))
        address = self.import_files("p256.old.pem")["records"][0]["address"]
        self.assertEqual((self.pki / "p256.key.der").read_bytes(), self.body(address))
        self.assert_sound()

    def test_key_is_nowhere_in_plain_form(self):
        self.import_files("rsa.key", "modern.p12")
        secrets = [(self.pki / "rsa.key.der").read_bytes()[-40:],
                   pki.secret_of((self.pki / "p256.key.der").read_bytes())]
        for name, contents in self.files().items():
            for secret in secrets:
                self.assertNotIn(secret, contents, name)
                self.assertNotIn(secret.hex().encode(), contents, name)

    def test_attributes_are_kept_on_disk(self):
        leaf = self.import_files("leaf.pem")["records"][0]
        self.assertEqual("EC-P-256", leaf["keyAlgorithm"])
        self.assertEqual(hashlib.sha256((self.pki / "leaf.der").read_bytes()).hexdigest(),
                         leaf["sha256"])
        self.assertIn("DNS:www.example.com", leaf["altNames"])
        self.assertIn("IP:2001:db8::1", leaf["altNames"])
        known = self.attributes(leaf["address"], password=None)
        self.assertEqual("01", known["serial"]["value"])
        self.assertRegex(known["imported"]["value"], r"\A20\d\d-\d\d-\d\dT\d\d:\d\d:\d\dZ\Z")
        self.assertTrue(known["subject"]["value"].startswith("CN=\\ www,L=Kln 東京+OU=first"))

    def test_a_key_of_two_halves_that_do_not_fit_is_refused(self):
        def openssl(*args, given=b""):
            return subprocess.run(["openssl", *args], input=given, check=True,
                                  capture_output=True).stdout

        def key(*args):
            return openssl("genpkey", *args, "-outform", "DER")

        def point(der):
            return openssl("pkey", "-inform", "DER", "-pubout", "-outform", "DER", given=der)[-65:]

        one, other = (key("-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256")
                      for _ in range(2))
        rsa = key("-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048")
        modulus = bytes.fromhex(
            openssl("rsa", "-inform", "DER", "-noout", "-modulus", given=rsa).decode().split("=")[1])
        changed = modulus[:100] + bytes([modulus[100] ^ 1]) + modulus[101:]
        for sound, bad in [(one, one.replace(point(one), point(other))),
                           (rsa, rsa.replace(modulus, changed))]:
            self.assertNotEqual(sound, bad)
            self.write("bad.der", bad)
            self.assertIn("public half", self.run_tool("import", "bad.der", code=59).message)
            self.write("sound.der", sound)
            self.run_tool("import", "sound.der")
        self.assertEqual(2, len(self.records()))

    def test_public_objects_need_no_password(self):
        self.import_files("root.pem", "crl.pem", "request.pem", password=None)
        self.assertEqual(3, len(self.records(password=None)))

    def test_keys_need_the_password(self):
        self.assertIn("--password-file", self.fails(2, "usage", "import", self.pki / "rsa.key",
                                                    password=None))
        self.fails(6, "wrong-password", "import", self.pki / "rsa.key", password="wrong")
        self.assertEqual([], self.records())

    def test_standard_input(self):
        for name in ("root.pem", "leaf.der"):
            self.run_tool("import", "-", stdin=(self.pki / name).read_bytes())
        self.assertEqual(2, len(self.records()))

    def test_standard_input_is_one_thing(self):
        for options in [("-", "-"), ("-", "--in-password-file", "-"),
                        ("-", "--password-file", "-"),
                        (self.pki / "rsa.key", "--in-password-file", "-", "--password-fd", "0")]:
            self.assertIn("standard input", self.fails(2, "usage", "import", *options))


class TrustSettingsTest(ImportTest):
    def test_what_is_left_out_is_told_with_a_count(self):
        trusted = openssl("x509", "-in", self.pki / "leaf.pem", "-trustout", "-addtrust", "serverAuth",
                          "-addtrust", "clientAuth", "-addreject", "emailProtection")
        reason = ("the trust settings of this certificate are left out: 2 trusted uses, 1 rejected uses")
        document = self.run_tool("import", "-", "--json", stdin=trusted).document
        self.assertEqual([{"file": "-", "line": 1, "reason": reason}], document["skipped"])
        self.assertEqual(1, len(document["records"]))
        self.assertIn(f"skipped: the standard input line 1: {reason}",
                      self.run_tool("import", "-", stdin=trusted).message)

    def test_a_certificate_without_settings_tells_nothing(self):
        for options in (), ("-setalias", "name"):
            plain = openssl("x509", "-in", self.pki / "leaf.pem", "-trustout", *options)
            self.assertEqual([], self.run_tool("import", "-", "--json", stdin=plain).document["skipped"])


class EncryptedLabelTest(ImportTest):
    def test_neither_the_label_nor_the_name_tells(self):
        (record,) = self.import_files("leaf.pem", options=("--encrypt", "--label", "My Secret"))[
            "records"]
        self.assertRegex(record["address"], "^certificates/remote/certificate-[0-9a-f]{8}$")
        for path in (self.folder / "db").rglob("*"):
            if path.is_file():
                self.assertNotIn(b"Secret", path.read_bytes())
        (shown,) = self.run_tool("show", "-u", "--json", record["address"]).document["records"]
        self.assertEqual("My Secret", shown["label"])


class PlaceTest(ImportTest):
    def test_certificate_with_its_key_is_local(self):
        document = self.import_files("modern.p12")
        self.assertEqual(["keys/Caf-Server", "certificates/local/Caf-Server",
                          "certificates/remote/Example-Root"],
                         [record["address"][:-9] for record in document["records"]])
        self.assertEqual("Café Server", document["records"][0]["label"])

    def test_key_may_come_in_another_file_or_earlier(self):
        self.import_files("leaf.pem", "p256.key")
        self.assertEqual(["certificates/local", "keys"], self.folders())
        self.import_files("rsa.key")
        self.import_files("root.pem")
        self.assertEqual(2, self.folders().count("certificates/local"))

    def test_certificate_moves_when_its_key_has_come(self):
        address = self.import_files("leaf.pem")["records"][0]["address"]
        self.run_tool("set", address, "0x8001=noted")
        self.import_files("p256.key")
        (record,) = self.import_files("leaf.pem")["records"]
        self.assertEqual("moved", record["outcome"])
        self.assertEqual(address.replace("remote", "local"), record["address"])
        self.assertEqual(["certificates/local", "keys"], self.folders())
        shown = self.run_tool("show", record["address"], "--json").document["records"][0]
        self.assertIn({"id": 0x8001, "type": "text", "encrypted": False, "value": "noted"},
                      shown["attributes"])
        self.assert_sound()

    def test_move_that_was_broken_off_is_finished(self):
        address = self.import_files("leaf.pem", options=("--label", "mine"))["records"][0]["address"]
        self.import_files("p256.key")
        moved = address.replace("remote", "local")
        self.run_tool("cp", address, moved)
        (record,) = self.import_files("leaf.pem")["records"]
        self.assertEqual(("moved", moved), (record["outcome"], record["address"]))
        self.assertEqual(["certificates/local", "keys"], self.folders())

    def test_what_is_there_twice_stays_with_what_each_has(self):
        self.import_files("p256.key")
        there = self.import_files("leaf.pem")["records"][0]["address"]
        address = "certificates/remote/mine"
        self.run_tool("cp", there, address)
        self.run_tool("set", address, "0x8001=precious")
        (record,) = self.import_files("leaf.pem")["records"]
        self.assertEqual("present", record["outcome"])
        self.assertEqual(["certificates/local", "certificates/remote", "keys"],
                         sorted(self.folders()))
        self.assertIn("precious", self.run_tool("show", address).out.decode())

    def test_what_is_encrypted_stays_beside_a_plain_copy(self):
        self.import_files("p256.key")
        hidden = self.import_files("leaf.pem", options=("--encrypt", "--to",
                                                         "certificates/remote"))
        self.run_tool("cp", hidden["records"][0]["address"], "certificates/remote/kept")
        self.import_files("leaf.pem", password=None,
                          options=("--to", "certificates/local", "--name", "plain", "--no-input"))
        (record,) = self.import_files("leaf.pem", options=("--encrypt",))["records"]
        self.assertEqual("present", record["outcome"])
        self.run_tool("show", "certificates/remote/kept")
        self.run_tool("show", hidden["records"][0]["address"])

    def test_folder_that_was_asked_for(self):
        self.import_files("leaf.pem", "crl.pem", options=("--to", "settings"))
        self.assertEqual(["settings", "settings"], self.folders())
        self.assertIn("nowhere", self.fails(50, "missing", "import", self.pki / "root.pem",
                                            "--to", "nowhere"))
        self.fails(4, "invalid", "import", self.pki / "root.pem", "--to", "../keys")

    def test_name_that_was_asked_for(self):
        self.import_files("root.pem", options=("--name", "the root"))
        self.import_files("old.p12", options=("--name", "server"))
        self.assertEqual(["certificates/local/server", "certificates/remote/the root",
                          "keys/server"], sorted(self.records()))

    def test_name_must_be_clear(self):
        self.assertIn("2 objects", self.fails(4, "invalid", "import", self.pki / "root.pem",
                                              self.pki / "leaf.pem", "--name", "a"))
        for name in ("a/b", "..", ""):
            self.fails(4, "invalid", "import", self.pki / "root.pem", "--name", name)
        self.assertEqual([], self.records())

    def test_label_names_and_is_kept(self):
        (record,) = self.import_files("root.pem", options=("--label", " My: \"Root\"\n"))["records"]
        self.assertRegex(record["address"], r"remote/My-Root-[0-9a-f]{8}\Z")
        self.assertEqual(" My: \"Root\"\n", record["label"])
        self.assertIn("\"Root\"\\x0a", self.run_tool("ls").text)


class AgainTest(ImportTest):
    def test_same_object_is_one_record(self):
        self.import_files("leaf.pem", "rsa.key", "crl.pem", "request.pem")
        before = self.files()
        document = self.import_files("leaf.der", "rsa.old.der", "crl.der", "rsa.encrypted.pem",
                                     "request.der", "leaf.trusted.pem")
        self.assertEqual({"present"}, {record["outcome"] for record in document["records"]})
        self.assertEqual(before, self.files())

    def test_twice_in_one_input_too(self):
        document = self.import_files("root.pem", "root.der")
        self.assertEqual(["added", "present"],
                         [record["outcome"] for record in document["records"]])
        self.assertEqual(1, len(self.records()))

    def test_is_found_wherever_it_is(self):
        self.import_files("root.pem", options=("--to", "settings", "--name", "elsewhere"))
        self.assertEqual("settings/elsewhere",
                         self.import_files("root.pem")["records"][0]["address"])

    def test_name_of_another_object_is_refused_or_replaced(self):
        self.import_files("root.pem", options=("--name", "ca"))
        self.assertIn("--replace", self.fails(4, "invalid", "import", self.pki / "leaf.pem",
                                              "--name", "ca"))
        self.assertEqual((self.pki / "root.der").read_bytes(), self.body("ca"))
        (record,) = self.import_files("leaf.pem", options=("--name", "ca", "--replace"))["records"]
        self.assertEqual("replaced", record["outcome"])
        self.assertEqual((self.pki / "leaf.der").read_bytes(), self.body("ca"))
        self.assert_sound()

    def test_replacing_keeps_what_the_user_noted(self):
        address = self.import_files("root.pem", options=("--label", "mine"))["records"][0]["address"]
        self.run_tool("set", address, "0x8001=kept")
        (record,) = self.import_files("root.pem", options=("--replace",))["records"]
        self.assertEqual((address, "replaced", "mine"),
                         (record["address"], record["outcome"], record["label"]))
        shown = self.run_tool("show", address, "--json").document["records"][0]["attributes"]
        self.assertEqual(["kept"], [a["value"] for a in shown if a["id"] == 0x8001])
        self.assertEqual(len(shown), len({(a["id"], a.get("value")) for a in shown}))


class EncryptTest(ImportTest):
    def test_nothing_tells_what_is_in_it(self):
        (record,) = self.import_files("leaf.trusted.pem", options=("--encrypt",))["records"]
        self.assertRegex(record["address"], r"certificates/remote/certificate-[0-9a-f]{8}\Z")
        der = (self.pki / "leaf.der").read_bytes()
        for name, contents in self.files().items():
            for secret in (b"example", "東京".encode(), b"my alias", der[100:140],
                           hashlib.sha256(der).hexdigest().encode()):
                self.assertNotIn(secret, contents, name)
                self.assertNotIn(secret.hex().encode(), contents, name)

    def test_password_shows_it_again(self):
        address = self.import_files("leaf.pem", options=("--encrypt",))["records"][0]["address"]
        self.assertEqual((self.pki / "leaf.der").read_bytes(), self.body(address))
        shown = self.run_tool("show", "--unlock", address, "--json").document["records"][0]
        self.assertIn("DNS:*.example.org", shown["altNames"])
        self.assertTrue(shown["subject"].startswith("CN=\\ www"))
        self.assert_sound()

    def test_whether_it_is_a_ca_is_not_said(self):
        address = self.import_files("root.pem", options=("--encrypt",))["records"][0]["address"]
        for options in (), ("--unlock",):
            record = self.run_tool("show", *options, address, "--json").document["records"][0]
            self.assertNotIn("ca", record)
        (record,) = self.import_files("leaf.pem")["records"]
        self.assertIs(False, record["ca"])

    def test_same_object_is_found_with_the_password(self):
        self.import_files("leaf.pem", options=("--encrypt",))
        for options in ("--encrypt",), ():
            document = self.import_files("leaf.pem", options=options)
            self.assertEqual("present", document["records"][0]["outcome"])
            self.assertNotIn("warnings", document)
        self.assertEqual(1, len(self.records()))

    def test_without_the_password_it_is_said_that_it_may_be_there(self):
        self.import_files("root.pem", "crl.pem", options=("--encrypt",))
        run = self.run_tool("import", self.pki / "leaf.pem", "--no-input", password=None)
        self.assertIn("encrypted records that could be what is imported: 1; only with the password",
                      run.message)

    def test_what_is_there_in_plain_form_is_named(self):
        address = self.import_files("leaf.pem")["records"][0]["address"]
        document = self.import_files("leaf.pem", options=("--encrypt",))
        self.assertEqual("present", document["records"][0]["outcome"])
        self.assertEqual([f"{address} has this certificate in plain form; --replace encrypts it"],
                         document["warnings"])
        document = self.import_files("leaf.pem", options=("--encrypt", "--replace"))
        self.assertNotIn("warnings", document)
        self.assert_hidden("leaf.der")

    def test_replaced_it_stays_encrypted(self):
        self.import_files("leaf.pem", options=("--encrypt", "--label", "My Secret"))
        (record,) = self.import_files("leaf.pem", options=("--replace",))["records"]
        self.assertEqual("replaced", record["outcome"])
        self.assert_hidden("leaf.der")
        self.import_files("root.pem", options=("--replace", "--label", "My Secret", "--name",
                                               record["address"].rsplit("/", 1)[1]))
        self.assert_hidden("root.der")
        self.assert_sound()

    def test_a_plain_copy_of_what_is_encrypted_is_named(self):
        self.import_files("leaf.pem", options=("--encrypt",))
        run = self.run_tool("import", self.pki / "leaf.pem", "--no-input", password=None)
        plain = run.message.split("added: ")[1].split()[0]
        document = self.import_files("leaf.pem")
        self.assertEqual([f"{plain} has this certificate in plain form; another record has it encrypted, "
                          "and `fstore rm` removes this one"], document["warnings"])

    def assert_hidden(self, name):
        """There is one record, with the object, and nothing in it is plain."""
        (address,) = self.records()
        der = (self.pki / name).read_bytes()
        self.assertEqual(der, self.body(address))
        for contents in self.files().values():
            for secret in (b"xample", b"My Secret", der[100:140], hashlib.sha256(der).hexdigest().encode()):
                self.assertNotIn(secret, contents)


class InputPasswordTest(ImportTest):
    def test_sources(self):
        path = self.write("in", "secret\n")
        path.chmod(0o600)
        sealed = self.pki / "modern.p12"
        rows = [(("--in-password-file", path), {}), ((), {"FSTORE_IN_PASSWORD_FILE": str(path)}),
                ((), {"FSTORE_IN_PASSWORD": "secret"})]
        for options, env in rows:
            with self.subTest(options or env):
                run = self.run_tool("import", sealed, *options, env=env)
                self.assertNotIn("warning", run.message)
        reader, writer = os.pipe()
        os.write(writer, b"secret")
        os.close(writer)
        self.run_tool("import", sealed, "--in-password-fd", reader, pass_fds=(reader,))
        os.close(reader)
        self.run_tool("import", sealed, "--in-password-file", "-", stdin=b"secret")

    def test_wrong_one_is_told_with_the_file(self):
        message = self.fails(6, "wrong-password", "import", self.pki / "modern.p12",
                             env={"FSTORE_IN_PASSWORD": "wrong"})
        self.assertIn("modern.p12: wrong password for this PKCS#12 file", message)
        self.assertEqual([], self.records())

    def test_missing_one_names_the_ways(self):
        message = self.fails(2, "usage", "import", self.pki / "rsa.encrypted.pem")
        for way in ("--in-password-fd", "--in-password-file", "FSTORE_IN_PASSWORD"):
            self.assertIn(way, message)

    def test_is_asked_for_on_a_terminal(self):
        terminal = Terminal(["import", self.pki / "rsa.encrypted.pem"], cwd=self.folder,
                            password=support.PASSWORD)
        self.addCleanup(terminal.close)
        terminal.expect("Password of the imported file: ")
        terminal.type("secret\n")
        self.assertEqual(0, terminal.wait(), terminal.seen)
        self.assertNotIn("secret", terminal.seen)
        self.assertEqual(1, len(self.records()))

    def test_empty_one_is_tried_by_itself(self):
        self.run_tool("import", self.pki / "empty.p12")
        self.assertEqual(3, len(self.records()))


class ReportTest(ImportTest):
    def damaged(self):
        good, bad = (self.pki / "root.pem").read_text(), (self.pki / "leaf.pem").read_text()
        return self.write("mixed.pem", "text\n" + bad[:200] + "\n" + good)

    def test_each_object_is_told(self):
        run = self.run_tool("import", self.pki / "root.pem", self.pki / "leaf.pem")
        self.assertEqual(b"", run.out)
        self.assertRegex(run.message, r"\Afstore: added: certificates/remote/Example-Root-\w+\n"
                                      r"fstore: added: certificates/remote/www-\w+\n\Z")
        run = self.run_tool("import", self.pki / "root.pem")
        self.assertTrue(run.message.startswith("fstore: present: "))
        self.assertEqual("", self.run_tool("import", self.pki / "root.pem", "-q").message)

    def test_some_done_and_some_not_is_5(self):
        path = self.damaged()
        run = self.run_tool("import", path, "nowhere", code=5)
        self.assertIn("added: certificates/remote/Example-Root", run.message)
        self.assertIn(f"warning: {path} line 2: the PEM block has no end", run.message)
        self.assertIn("warning: cannot open nowhere: ", run.message)

    def test_failures_stand_in_the_document(self):
        path = self.damaged()
        document = self.run_tool("import", path, "--json", code=5).document
        (failure,) = document["failures"]
        self.assertEqual((str(path), 2), (failure["file"], failure["line"]))
        self.assertEqual({"status": 59, "name": "malformed",
                          "message": "the PEM block has no end"}, failure["error"])
        self.assertEqual(4, document["records"][0]["line"] - failure["line"])

    def test_nothing_done_is_the_failure(self):
        self.assertIn("neither PEM nor DER",
                      self.fails(59, "malformed", "import", self.write("a", "hello")))
        self.fails(50, "missing", "import", "nowhere")
        self.fails(9, "io", "import", self.folder)
        message = self.fails(50, "missing", "import", "nowhere", self.write("a", "hello"))
        self.assertEqual("none of 2 could be imported", message)

    def test_every_failure_is_told_when_nothing_is_done(self):
        path = self.write("two.pem", "-----BEGIN CERTIFICATE-----\n\n--- BEGIN X509 CRL\n")
        for options in ((), ("--json",)):
            run = self.run_tool("import", path, *options, code=59)
            self.assertIn("two.pem line 1: the PEM block has no end", run.message)
            self.assertIn("two.pem line 3: the PEM block has no end", run.message)

    def test_the_document_of_a_failure_names_each_file(self):
        good, bad = self.write("good.pem", "hello"), self.folder / "nowhere"
        failures = json.loads(
            self.run_tool("import", "--json", good, bad, code=59).err)["failures"]
        self.assertEqual([(str(good), "malformed"), (str(bad), "missing")],
                         [(each["file"], each["error"]["name"]) for each in failures])
        self.assertIn("No such file", failures[1]["error"]["message"])

    def test_what_is_skipped_is_told(self):
        run = self.run_tool("import", self.pki / "p256.parameters.pem", env=pki.IN_PASSWORD)
        self.assertRegex(run.message, "skipped: .*p256.parameters.pem line 1: the key that follows")
        document = self.import_files("p256.parameters.pem")
        (skipped,) = document["skipped"]
        self.assertEqual((str(self.pki / "p256.parameters.pem"), 1),
                         (skipped["file"], skipped["line"]))

    def test_no_key_is_lost_to_the_form_of_its_file(self):
        key, leaf = (self.pki / "rsa.key").read_text(), (self.pki / "leaf.pem").read_text()
        for form in ("\ufeff" + key, " " + key, key.replace("-----", "----"), "key: " + key,
                     key.replace("-----\n", "----- \n")):
            document = self.import_files(self.write("odd.pem", form + leaf))
            self.assertEqual(["key", "certificate"],
                             [record["kind"] for record in document["records"]])
            self.assertEqual([], document["failures"])
            self.run_tool("rm", "--force", *self.records())

    def test_too_large_file_is_refused_unread(self):
        path = self.folder / "huge"
        with path.open("wb") as file:
            file.truncate((64 << 20) + 1)
        self.assertIn("67108864", self.fails(4, "invalid", "import", path))

    def test_garbage_of_every_size_is_refused(self):
        for size in (1, 2, 100, 100_000):
            self.fails(59, "malformed", "import", self.write("garbage", os.urandom(size)))

    def test_no_file_is_a_wrong_command_line(self):
        self.run_tool("import", code=2)


class HostileTest(ImportTest):
    """What is too large or too deep is told in one sentence, in bounded memory."""

    def import_in_little_memory(self, name, contents):
        run = support.fstore("import", self.write(name, contents), cwd=self.folder,
                             memory=400 << 20)
        self.assertEqual(1, run.message.count("\n"), run.message[:1000])
        self.assertIn(name, run.message)
        return run

    @staticmethod
    def nested(depth):
        heads, size = [], 0
        for _ in range(depth):
            length = size.to_bytes(4, "big").lstrip(b"\0") or b"\0"
            short = size < 0x80
            heads.append(b"\x30" + (length if short else bytes([0x80 + len(length)]) + length))
            size += len(heads[-1])
        return b"".join(reversed(heads))

    def test_deep_der(self):
        for name, contents in [("definite", self.nested(100_000)),
                               ("indefinite", b"\x30\x80" * 400_000)]:
            run = self.import_in_little_memory(name, contents)
            self.assertEqual(59, run.code, run)

    def test_one_block_of_the_largest_file(self):
        lines = b"A" * 64 + b"\n"
        head, end = b"-----BEGIN CERTIFICATE-----\n", b"-----END CERTIFICATE-----\n"
        count = ((64 << 20) - len(head + end)) // len(lines)
        run = self.import_in_little_memory("huge.pem", head + lines * count + end)
        self.assertEqual(59, run.code, run)
        self.assertIn("huge.pem line 1: the certificate is too large", run.message)

    def test_more_blocks_than_a_file_can_have(self):
        run = self.import_in_little_memory("many.pem", b"-----BEGIN A-----\n" * 3_000_000)
        self.assertEqual(4, run.code, run)
        self.assertIn("more than 100000 PEM blocks", run.message)

    COUNT = bytes.fromhex("0203010000")  # 65,536 rounds, which many() makes any number of

    def many(self, rounds, *options):
        """A PKCS#12 file that says that its password takes so many rounds each time."""
        made = subprocess.run(
            ["openssl", "pkcs12", "-export", "-iter", "65536", "-passout", "pass:x", *options],
            check=True, capture_output=True).stdout
        self.assertGreaterEqual(made.count(self.COUNT), 1)
        return made.replace(self.COUNT, b"\x02\x03" + rounds.to_bytes(3, "big"))

    def test_work_for_the_password_of_a_file(self):
        """Of one derivation, and of all together; for the check of the password and for contents."""
        key = "-nocerts", "-inkey", self.pki / "rsa.key"
        files = {"a key": self.many(8_000_000, "-nomac", *key),
                 "the old way": self.many(8_000_000, "-nomac", "-keypbe", "PBE-SHA1-3DES", *key),
                 "certificates": self.many(8_000_000, "-nomac", "-certpbe", "AES-256-CBC",
                                           "-nokeys", "-in", self.pki / "leaf.pem"),
                 "all attempts": self.many(3_000_000, "-nomac", *key),
                 "the check": self.many(8_000_000, "-keypbe", "NONE", *key)}
        for name, contents in files.items():
            with self.subTest(name):
                before = resource.getrusage(resource.RUSAGE_CHILDREN).ru_utime
                message = self.fails(59, "malformed", "import", self.write(name, contents),
                                     env={"FSTORE_IN_PASSWORD": "x"})
                self.assertIn("more work than any honest file needs", message)
                if not support.SANITIZED:
                    took = resource.getrusage(resource.RUSAGE_CHILDREN).ru_utime - before
                    self.assertLess(took, 10)
        self.assertEqual([], self.records())

    def test_endless_standard_input(self):
        limit = "" if support.SANITIZED else "ulimit -v 400000; "
        run = subprocess.run(["bash", "-c", f"{limit}exec '{support.PROGRAM}' import - < /dev/zero"],
                             cwd=self.folder, env=support.environment(), capture_output=True,
                             check=False, timeout=support.SECONDS)
        self.assertEqual(4, run.returncode, run.stderr)
        self.assertEqual(b"fstore: error: the standard input is larger than the limit of "
                         b"67108864 bytes\n", run.stderr)


class StateTest(FstoreTest):
    def test_no_database(self):
        self.fails(50, "missing", "import", pki.files() / "root.pem")
        self.assertEqual({}, self.files())

    def test_secret_in_a_database_without_password(self):
        (self.folder / "db").mkdir()
        self.assertIn("no password", self.fails(14, "not-open", "import", pki.files() / "rsa.key"))
        self.run_tool("import", pki.files() / "root.pem")

    def test_no_password_is_asked_for_without_a_database(self):
        terminal = Terminal(["import", pki.files() / "modern.p12"], cwd=self.folder)
        self.addCleanup(terminal.close)
        self.assertEqual(50, terminal.wait(), terminal.seen)
        self.assertIn("there is no database", terminal.seen)
        self.assertNotIn("Password", terminal.seen)

    def test_busy_database(self):
        self.init()
        held = os.open(self.folder, os.O_RDONLY)
        self.addCleanup(os.close, held)
        fcntl.flock(held, fcntl.LOCK_EX)
        self.fails(33, "busy", "import", pki.files() / "root.pem", "--lock-timeout", 0)


if __name__ == "__main__":
    support.main()
