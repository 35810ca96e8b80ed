#!/usr/bin/env python3
"""export: other programs read what is written, and nobody else a key."""

import os
import subprocess

import pki
import support
from pki import openssl
from support import InitialisedTest
from terminal import Terminal

OUT = {"FSTORE_OUT_PASSWORD": "outside"}


class ExportTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        made = pki.files()
        run = support.fstore(
            "-D", folder, "import", made / "modern.p12", made / "rsa.key", made / "crl.pem",
            made / "request.pem", made / "middle.pem", made / "deep.pem", made / "ed25519.key",
            env=pki.IN_PASSWORD)
        assert run.code == 0, run.message

    def setUp(self):
        super().setUp()
        self.pki = pki.files()
        listed = self.run_tool("ls", "--json", password=None).document["records"]
        self.addresses = {record["sha256"]: record["address"] for record in listed}

    def address(self, name):
        """Of the object in the DER file `name`."""
        digest = subprocess.run(["sha256sum", self.pki / name], capture_output=True, check=True)
        return self.addresses[digest.stdout[:64].decode()]

    def export(self, name, *options, **more):
        more["env"] = {**OUT, **more.get("env", {})}
        return self.run_tool("export", self.address(name), *options, **more).out

    def text(self, name):
        return (self.pki / name).read_bytes()


class FormTest(ExportTest):
    def test_public_objects_are_as_openssl_writes_them(self):
        for name in ("leaf", "crl", "request"):
            with self.subTest(name):
                self.assertEqual(self.text(f"{name}.pem"),
                                 self.export(f"{name}.der", password=None))
                self.assertEqual(self.text(f"{name}.der"),
                                 self.export(f"{name}.der", "--format", "der", password=None))

    def test_key_leaves_encrypted(self):
        for form in ("pem", "der"):
            sealed = self.export("p256.key.der", "--format", form)
            self.assertNotIn(pki.secret_of(self.text("p256.key.der")), sealed)
            again = openssl("pkey", "-inform", form.upper(), "-passin", "pass:outside",
                            stdin=sealed)
            self.assertEqual(self.text("p256.key"), again)
        self.assertIn(b"BEGIN ENCRYPTED PRIVATE KEY", self.export("rsa.key.der"))

    def test_key_leaves_plain_when_asked(self):
        self.assertEqual(self.text("rsa.key"),
                         self.export("rsa.key.der", "--plain", env={"FSTORE_OUT_PASSWORD": ""}))
        self.assertEqual(self.text("rsa.key.der"),
                         self.export("rsa.key.der", "--plain", "--format", "der"))

    def test_pkcs12_of_either_half(self):
        for name in ("leaf.der", "p256.key.der"):
            with self.subTest(name):
                file = self.export(name, "--format", "p12")
                read = openssl("pkcs12", "-passin", "pass:outside", "-noenc", stdin=file)
                self.assertIn(self.text("leaf.pem"), read)
                self.assertIn(self.text("p256.key"), read)
                self.assertIn("friendlyName: Café Server".encode("latin-1"), read)
                self.assertNotIn(self.text("root.pem"), read)

    def test_pkcs12_without_a_key_or_certificate(self):
        read = openssl("pkcs12", "-passin", "pass:outside", "-noenc",
                       stdin=self.export("middle.der", "--format", "p12"))
        self.assertIn(self.text("middle.pem"), read)
        self.assertNotIn(b"PRIVATE KEY", read)
        self.run_tool("rm", "-f", self.address("root.der"))
        read = openssl("pkcs12", "-passin", "pass:outside", "-noenc",
                       stdin=self.export("rsa.key.der", "--format", "p12"))
        self.assertIn(self.text("rsa.key"), read)
        self.assertNotIn(b"CERTIFICATE", read)

    def test_plain_pkcs12(self):
        file = self.export("leaf.der", "--format", "p12", "--plain")
        self.assertIn(pki.secret_of(self.text("p256.key.der")), file)

    def test_what_was_exported_is_the_same_object_again(self):
        for name, options in [("leaf.der", ("--format", "p12", "--chain")), ("rsa.key.der", ()),
                              ("crl.der", ()), ("deep.der", ("--chain",))]:
            path = self.folder / "out"
            self.export(name, *options, "-o", path, "--force")
            document = self.run_tool("import", path, "--json",
                                     env={"FSTORE_IN_PASSWORD": "outside"}).document
            self.assertEqual({"present"}, {r["outcome"] for r in document["records"]})

    def test_encrypted_certificate(self):
        self.run_tool("import", self.pki / "nameless.pem", "--encrypt", "--name", "secret")
        self.assertEqual(self.text("nameless.pem"), self.run_tool("export", "secret").out)
        self.fails(2, "usage", "export", "secret", password=None)


class ChainTest(ExportTest):
    def test_ends_at_the_root(self):
        self.assertEqual(b"".join(map(self.text, ("deep.pem", "middle.pem", "root.pem"))),
                         self.export("deep.der", "--chain", password=None))
        self.assertEqual(self.text("root.pem"), self.export("root.der", "--chain"))

    def test_of_a_key_begins_with_its_certificate(self):
        self.assertEqual(b"".join(map(self.text, ("p256.key", "leaf.pem", "root.pem"))),
                         self.export("p256.key.der", "--chain", "--plain"))

    def test_goes_into_pkcs12(self):
        read = openssl("pkcs12", "-passin", "pass:outside", "-nokeys",
                       stdin=self.export("deep.der", "--chain", "--format", "p12"))
        for name in ("deep.pem", "middle.pem", "root.pem"):
            self.assertIn(self.text(name), read)

    def test_end_before_the_root_is_told(self):
        self.run_tool("rm", "-f", self.address("middle.der"))
        run = self.run_tool("export", self.address("deep.der"), "--chain")
        self.assertEqual(self.text("deep.pem"), run.out)
        self.assertIn("warning: the chain ends before a root", run.message)
        run = self.run_tool("export", self.address("deep.der"), "--chain", "--json")
        self.assertEqual(1, len(run.document["warnings"]))

    def test_is_not_for_everything(self):
        self.assertIn("DER is one object", self.fails(
            2, "usage", "export", self.address("deep.der"), "--chain", "--format", "der"))
        for options in (("--chain",), ("--format", "p12")):
            self.fails(4, "invalid", "export", self.address("crl.der"), *options)
            self.fails(4, "invalid", "export", self.address("request.der"), *options)


class FileTest(ExportTest):
    def test_is_the_owners_alone(self):
        path = self.folder / "out.pem"
        self.assertEqual(b"", self.export("leaf.der", "-o", path))
        self.assertEqual(self.text("leaf.pem"), path.read_bytes())
        self.assertEqual(0o600, path.stat().st_mode & 0o777)
        self.assertEqual(["db", "out.pem"], sorted(os.listdir(self.folder)))

    def test_existing_one_is_kept_unless_forced(self):
        path = self.write("out.pem", "mine")
        self.assertIn("--force", self.fails(4, "invalid", "export", self.address("leaf.der"),
                                            "-o", path))
        self.assertEqual(b"mine", path.read_bytes())
        self.export("leaf.der", "-o", path, "--force")
        self.assertEqual(self.text("leaf.pem"), path.read_bytes())

    def test_failure_leaves_nothing(self):
        before = self.files()
        self.fails(50, "missing", "export", "nobody", "-o", "out.pem")
        self.fails(2, "usage", "export", self.address("rsa.key.der"), "-o", "out.pem")
        self.fails(6, "wrong-password", "export", self.address("rsa.key.der"), "-o", "out.pem",
                   password="wrong", env=OUT)
        self.assertEqual(before, self.files())

    def test_document_has_the_contents(self):
        document = self.run_tool("export", self.address("leaf.der"), "--json").document
        self.assertEqual(self.text("leaf.pem").decode(), document["text"])
        self.assertEqual(("pem", False, 1, False),
                         tuple(document[k] for k in ("format", "key", "certificates", "encrypted")))
        document = self.run_tool("export", self.address("leaf.der"), "--json", "--format",
                                 "der").document
        self.assertEqual(self.text("leaf.der").hex(), document["bytes"])
        document = self.run_tool("export", self.address("leaf.der"), "--json", "-o",
                                 "out").document
        self.assertNotIn("text", document)


class RefusalTest(ExportTest):
    def test_raw_record_has_no_such_form(self):
        self.put("settings/raw", b"bytes")
        self.assertIn("fstore get", self.fails(4, "invalid", "export", "raw"))

    def test_password_sources_are_named(self):
        message = self.fails(2, "usage", "export", self.address("rsa.key.der"))
        for way in ("--out-password-fd", "--out-password-file", "FSTORE_OUT_PASSWORD"):
            self.assertIn(way, message)

    def test_empty_password_is_refused(self):
        self.fails(4, "invalid", "export", self.address("rsa.key.der"),
                   env={"FSTORE_OUT_PASSWORD": ""})

    def test_standard_input_is_one_password(self):
        self.fails(2, "usage", "export", self.address("rsa.key.der"), "--password-file", "-",
                   "--out-password-file", "-", password=None)

    def test_damaged_body_is_not_exported(self):
        self.put("settings/raw", b"bytes")
        body = next(path for path in (self.folder / "db/crls").iterdir()
                    if path.suffix != ".dsc")
        body.write_bytes(b"damaged")
        self.fails(59, "malformed", "export", self.address("crl.der"))


class TerminalTest(ExportTest):
    def terminal(self, *args):
        terminal = Terminal(["export", *args], cwd=self.folder, password=support.PASSWORD)
        self.addCleanup(terminal.close)
        return terminal

    def test_password_is_typed_twice(self):
        terminal = self.terminal(self.address("p256.key.der"), "-o", "out.pem")
        terminal.expect("Password for the exported file: ")
        terminal.type("typed\n")
        terminal.expect("again: ")
        terminal.type("typed\n")
        self.assertEqual(0, terminal.wait(), terminal.seen)
        again = openssl("pkey", "-in", self.folder / "out.pem", "-passin", "pass:typed")
        self.assertEqual(self.text("p256.key"), again)

    def test_two_that_differ_are_refused(self):
        terminal = self.terminal(self.address("p256.key.der"), "-o", "out.pem")
        terminal.expect("Password for the exported file: ")
        terminal.type("typed\n")
        terminal.expect("again: ")
        terminal.type("tyed\n")
        self.assertEqual(4, terminal.wait(), terminal.seen)
        self.assertFalse((self.folder / "out.pem").exists())

    def test_nobody_waits_while_it_is_typed(self):
        terminal = self.terminal(self.address("p256.key.der"), "-o", "out.pem")
        terminal.expect("Password for the exported file: ")
        self.put("settings/meanwhile", b"x", "--plain-body")
        terminal.type("typed\n")
        terminal.expect("again: ")
        terminal.type("typed\n")
        self.assertEqual(0, terminal.wait(), terminal.seen)

    def test_bytes_do_not_garble_it(self):
        for form in ("der", "p12"):
            terminal = self.terminal(self.address("leaf.der"), "--format", form)
            self.assertEqual(2, terminal.wait(), terminal.seen)


if __name__ == "__main__":
    support.main()
